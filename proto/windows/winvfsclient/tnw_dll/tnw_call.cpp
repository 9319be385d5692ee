#include "tnw_call.h"

#include <cstring>

#include "ox_errno.h"
#include "ox_time.h"
#include "ox_util.h"

const tnw_refusal TNW_REFUSE_NO_PATH = {"Invalid drive handle or no path specified.", OX_EINVAL,
                                        ERROR_BAD_ARGUMENTS};

namespace {

int refuse(const tnw_refusal& refusal) {
  return TNW_REFUSE(refusal.code, nullptr, refusal.err, "%s", refusal.text);
}

}  // namespace

int tnw_refuse_unknown(const void* handle) {
  return TNW_REFUSE(TNW_ERROR_NO_SERVICE, nullptr, -1, "Could not find handle with address 0x%p",
                    handle);
}

int tnw_enter_drive(const void* drvhdl, tnw_call* call) {
  call->tni = tnw_get_tninstance(drvhdl);
  if (call->tni == nullptr) {
    return tnw_refuse_unknown(drvhdl);
  }
  call->vh = tnw_connection(call->tni, 0);
  return 0;
}

int tnw_check_authorized(const tnw_call* call) {
  if (!tnw_is_unauthorized(call->tni)) {
    return 0;
  }
  return TNW_REFUSE(ERROR_LOGON_FAILURE, call->vh, OX_EACCES, "tarn is unauthorized");
}

int tnw_enter_path_call(const void* drvhdl, const void* path, const tnw_refusal& refusal,
                        tnw_call* call) {
  if (drvhdl == nullptr || path == nullptr) {
    return refuse(refusal);
  }
  const int code = tnw_enter_drive(drvhdl, call);
  return code != 0 ? code : tnw_check_authorized(call);
}

int tnw_enter_entry(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal, tnw_call* call) {
  if (fde == nullptr) {
    return refuse(refusal);
  }
  call->start = {};
  if (tnw_saw_utxid()) {
    tnw_note_start(call);
  }
  call->tni = tnw_get_entry_instance(fde, &call->on_drive);
  if (call->tni == nullptr) {
    return tnw_refuse_unknown(fde);
  }
  call->vh = tnw_connection(call->tni, 0);
  const bool lacks_file =
      needs_file && fde->fdt_ofd == INVALID_HANDLE_VALUE && fde->fdt_state == TNV_FD_INUSE;
  return fde->fdt_drv == nullptr || lacks_file ? refuse(refusal) : 0;
}

int tnw_check_drive(const tnvfd* fde, const tnw_call* call) {
  return call->on_drive ? 0 : tnw_refuse_unknown(fde->fdt_drv);
}

int tnw_enter_entry_call(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal,
                         tnw_call* call) {
  const int code = tnw_enter_entry(fde, needs_file, refusal, call);
  return code != 0 ? code : tnw_check_drive(fde, call);
}

int tnw_enter_file_call(const tnvfd* fde, const tnw_refusal& refusal, char* out_procname,
                        tnw_call* call) {
  const int code = tnw_enter_entry_call(fde, true, refusal, call);
  if (code != 0) {
    return code;
  }
  tnw_copy_procname(out_procname, fde);
  return tnw_check_authorized(call);
}

void tnw_note_start(tnw_call* call) {
  if (call->start.tv_sec == 0) {
    ox_clock_gettime(0, &call->start);
  }
}

void tnw_copy_procname(char* out_procname, const tnvfd* fde) {
  if (out_procname != nullptr) {
    memcpy(out_procname, fde->fdt_procname, sizeof fde->fdt_procname);
  }
}

bool tnw_answered_unauthorized(const tnw_call* call, const tnv_resp* resp) {
  if ((resp->rhdr.rhdr_tn_unauthd & 1) == 0) {
    return false;
  }
  tnw_set_unauthorized(call->tni, true);
  return true;
}

int tnw_refuse_no_memory(const tnw_call& call) {
  return TNW_REFUSE(ERROR_NOT_ENOUGH_MEMORY, call.vh, OX_ENOMEM,
                    "Failed to allocate memory to message structure.");
}
