/*
 * The frame of every exported call: handle checks, authorisation, and one exchange through the
 * pool.
 */

#include "tnw_call.h"

#include <climits>
#include <cstring>

#include "ox_errno.h"
#include "ox_time.h"
#include "ox_util.h"
#include "ox_uuid.h"
#include "tn_util.h"
#include "tnw_fdtable.h"
#include "tnw_log.h"

const tnw_refusal TNW_REFUSE_NO_PATH = {"Invalid drive handle or no path specified.", OX_EINVAL,
                                        ERROR_BAD_ARGUMENTS};

namespace {

int refuse(const tnw_refusal& refusal) {
  return TNW_REFUSE(refusal.code, nullptr, refusal.err, "%s", refusal.text);
}

int refuse_unknown(const void* handle) {
  return TNW_REFUSE(TNW_ERROR_NO_SERVICE, nullptr, -1,
                    "Could not find handle with address 0x%p", handle);
}

}  // namespace

int tnw_enter_drive(const void* drvhdl, tnw_call* call) {
  call->tni = tnw_get_tninstance(drvhdl);
  if (call->tni == nullptr) {
    return refuse_unknown(drvhdl);
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
  call->tni = tnw_get_entry_instance(fde);
  if (call->tni == nullptr) {
    return refuse_unknown(fde);
  }
  call->vh = tnw_connection(call->tni, 0);
  if (fde->fdt_drv == nullptr) {
    return refuse(refusal);
  }
  if (needs_file && fde->fdt_ofd == INVALID_HANDLE_VALUE) {
    return refuse(refusal);
  }
  return 0;
}

/* A drive of another instance may have got the address that the entry's own drive had. */
int tnw_check_drive(const tnvfd* fde, const tnw_call* call) {
  return tnw_get_tninstance(fde->fdt_drv) == call->tni ? 0 : refuse_unknown(fde->fdt_drv);
}

int tnw_enter_entry_call(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal,
                         tnw_call* call) {
  const int code = tnw_enter_entry(fde, needs_file, refusal, call);
  return code != 0 ? code : tnw_check_drive(fde, call);
}

struct timespec tnw_call_start(const tnw_call& call) {
  struct timespec start = {};
  if (tnw_logs_client_resp(call.vh)) {
    ox_clock_gettime(0, &start);
  }
  return start;
}

void tnw_note_start(struct timespec* start) {
  if (start->tv_sec == 0) {
    ox_clock_gettime(0, start);
  }
}

void tnw_copy_procname(char* out_procname, const tnvfd* fde) {
  if (out_procname != nullptr) {
    memcpy(out_procname, fde->fdt_procname, sizeof fde->fdt_procname);
  }
}

void tnw_create_evtwi(tnw_evwi* emsg, tnv_msg* msg, tnv_resp* resp, int len) {
  if (msg != nullptr) {
    ox_uuid_generate(msg->hdr.hdr_id.id);
    msg->hdr.hdr_len = static_cast<ox_u32>(len);
  }
  emsg->ev_msg = msg;
  emsg->ev_resp = resp;
  emsg->ev_hdl = CreateEventA(nullptr, FALSE, FALSE, nullptr);
}

int tnw_queue_work(ox_tpool_t* pool, tnw_evwi* wi) {
  return ox_queue_work(pool, nullptr, tnw_async_send_msg, wi);
}

int tnw_run_job(tnw_tninstance* tni, ox_job_func_t job, tnw_evwi* wi) {
  if (wi->ev_hdl == nullptr) {
    return static_cast<int>(winerr2unixerr(GetLastError()));
  }
  const int err = job == tnw_async_send_msg ? tnw_queue_work(tni->tni_tpool, wi)
                                            : ox_queue_work(tni->tni_tpool, nullptr, job, wi);
  if (err == 0) {
    WaitForSingleObject(wi->ev_hdl, INFINITE);
  }
  CloseHandle(wi->ev_hdl);
  return err;
}

void tnw_exchange(tnw_tninstance* tni, ox_job_func_t job, tnv_msg* msg, tnv_resp* resp,
                  void* data) {
  memset(resp, 0, sizeof *resp);
  tnw_evwi wi = {};
  wi.ev_data = data;
  tnw_create_evtwi(&wi, msg, resp, static_cast<int>(msg->hdr.hdr_len));
  const int err = tnw_run_job(tni, job, &wi);
  if (err != 0) {
    resp->rhdr.rhdr_errno = static_cast<ox_u32>(err);
  }
}

bool tnw_answered_unauthorized(const tnw_call* call, const tnv_resp* resp) {
  if ((resp->rhdr.rhdr_tn_unauthd & 1) == 0) {
    return false;
  }
  tnw_set_unauthorized(call->tni, true);
  return true;
}

void tnw_fill_header(tnv_msg* msg, vfs_op op, size_t len, const void* drvhdl,
                     const char* procname) {
  msg->hdr.hdr_opcode = op;
  msg->hdr.hdr_len = static_cast<ox_u32>(len);
  ox_copy_field(msg->hdr.hdr_procname, sizeof msg->hdr.hdr_procname, procname);
  if (drvhdl == nullptr) {
    return;
  }
  const tnw_drive_handle* dh = static_cast<const tnw_drive_handle*>(drvhdl);
  char drive_id[sizeof dh->tnw_drive_uuid + 1] = {};
  memcpy(drive_id, dh->tnw_drive_uuid, sizeof dh->tnw_drive_uuid);
  ox_uuid_parse(drive_id, msg->hdr.hdr_drvid.id);
}

tnv_msg* tnw_build_msg(vfs_op op, const void* drvhdl, const char* procname,
                       std::initializer_list<const char*> texts) {
  size_t len = TNV_MSG_FIXED;
  for (const char* text : texts) {
    len += strlen(text) + 1;
  }
  tnv_msg* msg = len <= INT_MAX ? tnw_alloc_msg(static_cast<int>(len)) : nullptr;
  if (msg == nullptr) {
    return nullptr;
  }
  tnw_fill_header(msg, op, len, drvhdl, procname);
  char* at = tnv_msg_payload(msg);
  for (const char* text : texts) {
    const size_t size = strlen(text) + 1;
    memcpy(at, text, size);
    at += size;
  }
  return msg;
}

int tnw_refuse_no_memory(const tnw_call& call) {
  return TNW_REFUSE(ERROR_NOT_ENOUGH_MEMORY, call.vh, OX_ENOMEM,
                    "Failed to allocate memory to message structure.");
}

void tnw_fill_close(tnv_msg* msg, vfs_op op, const tnvfd* fde) {
  char procname[sizeof fde->fdt_procname + 1] = {};
  memcpy(procname, fde->fdt_procname, sizeof fde->fdt_procname);
  memset(msg, 0, sizeof *msg);
  tnw_fill_header(msg, op, TNV_MSG_FIXED, fde->fdt_drv, procname);
  tnv_wclose_msg* close = &msg->u.wclose;
  if (op == TNV_OP_WIN_CLOSE) {
    close->wclose_id = fde->fdt_fso.fso_handle;
  }
  close->wclose_fd = fde->fdt_fd;
  close->wclose_origpid = fde->fdt_opid;
  close->wclose_fso = fde->fdt_fso;
  close->wclose_oamode = fde->fdt_oaccmode;
  close->wclose_oshmode = fde->fdt_oshmode;
  close->wclose_oflags = fde->fdt_oflags;
  close->wclose_tnflags = fde->fdt_tnflags;
  close->wclose_omsgid = fde->fdt_msgid;
}
