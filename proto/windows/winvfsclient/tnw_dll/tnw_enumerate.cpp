/*
 * tnw_findfirst, tnw_findnext, tnw_findclose, tnw_checkfolderempty: the whole listing arrives with
 * tnw_findfirst; the later calls walk the copy.
 */

#include <cstring>

#include "ox_errno.h"
#include "ox_util.h"
#include "tn_cffl.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_fdtable.h"
#include "tnw_msg.h"
#include "tnw_open.h"

namespace {

tnv_msg* build_denum_msg(const void* drvhdl, const char* path, const char* procname) {
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_DENUM, drvhdl, procname, {path});
  if (msg != nullptr) {
    msg->u.wdenum.wde_pathlen = static_cast<ox_s32>(strlen(path) + 1);
  }
  return msg;
}

/* The next record of the listing; the caller has seen that there is one. */
void hand_out(tnvdir* dir, tnw_fileinfo* out) { *out = dir->dir_fi[dir->dir_fi_idx++]; }

/* How a findfirst ended: `kept` when its entry deliberately stays reserved. */
struct denum_outcome {
  int code;
  bool kept;
};

denum_outcome exchange_denum(const tnw_call& call, tnvfd* fde, tnv_msg* msg, const char* path) {
  tnv_resp resp;
  tnw_exchange(call.tni, tnw_sync_send_denum_msg, msg, &resp, fde);
  if (tnw_answered_unauthorized(&call, &resp)) {
    ox_free_safe(fde->fdt_dir.dir_fi);
    fde->fdt_dir.dir_fi = nullptr;
    return {ERROR_LOGON_FAILURE, true};
  }
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (err != 0) {
    TNW_ERROR(call.vh, static_cast<int>(err),
              "Failed to send directory enumeration message for path %s.", path);
    return {static_cast<int>(unixerr2winerr(err)), false};
  }
  fde->fdt_dir.dir_fi_len = resp.u.wdenum.wde_fi_len;
  fde->fdt_msgid = msg->hdr.hdr_id;
  return {0, false};
}

denum_outcome enumerate(const tnw_call& call, tnvfd* fde, const void* drvhdl, const char* path,
                        const char* procname) {
  tnv_msg* msg = build_denum_msg(drvhdl, path, procname);
  if (msg == nullptr) {
    TNW_ERROR(call.vh, OX_ENOMEM,
              "Failed to allocate memory to directory enumeration message structure for path %s",
              path);
    return {static_cast<int>(unixerr2winerr(OX_ENOMEM)), false};
  }
  const denum_outcome outcome = exchange_denum(call, fde, msg, path);
  ox_free_safe(msg);
  return outcome;
}

/* The reserved entry becomes the enumeration handle: 0, or 18 for an empty folder. */
int open_enumeration(const tnw_call& call, tnvfd* fde, void* drvhdl, const char* procname,
                     tnw_fileinfo* out) {
  ox_copy_field(fde->fdt_procname, sizeof fde->fdt_procname, procname);
  tnw_use_fd(&call.tni->tni_files, fde, drvhdl);
  if (fde->fdt_dir.dir_fi_len == 0) {
    return ERROR_NO_MORE_FILES;
  }
  hand_out(&fde->fdt_dir, out);
  return 0;
}

tnvfd* find_first(void* drvhdl, const char* path, tnw_fileinfo* out, const char* procname,
                  int* code) {
  tnw_call call;
  *code = tnw_enter_path_call(drvhdl, out != nullptr ? path : nullptr, TNW_REFUSE_NO_PATH, &call);
  if (*code != 0) {
    return nullptr;
  }
  int err = 0;
  tnvfd* fde = tnw_getfd(call.vh, &call.tni->tni_files, &err);
  if (fde == nullptr) {
    *code = static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err)));
    return nullptr;
  }
  const denum_outcome outcome = enumerate(call, fde, drvhdl, path, procname);
  if (outcome.code != 0) {
    if (!outcome.kept) {
      tnw_putfd(call.vh, &call.tni->tni_files, fde);
    }
    *code = outcome.code;
    return nullptr;
  }
  *code = open_enumeration(call, fde, drvhdl, procname, out);
  return fde;
}

bool list_is_empty(const tnvdir& dir) {
  if (dir.dir_cffl == nullptr) {
    return dir.dir_fi_len == 0;
  }
  const cfs_cffl_header_v3& head = dir.dir_cffl->cfh_head;
  return head.cf_dcount == 0 && head.cf_fcount == 0;
}

}  // namespace

void* tnw_findfirst(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname,
                    int* err) {
  int code = 0;
  tnvfd* fde = find_first(drvhdl, path, out, in_procname, &code);
  if (err != nullptr) {
    *err = code;
  }
  return fde;
}

int tnw_findnext(void* dehdl, tnw_fileinfo* out) {
  tnvfd* fde = static_cast<tnvfd*>(out != nullptr ? dehdl : nullptr);
  tnw_call call;
  int code = tnw_enter_entry_call(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (code != 0) {
    return code;
  }
  memset(out, 0, sizeof *out);
  code = tnw_check_authorized(&call);
  if (code != 0) {
    return code;
  }
  if (fde->fdt_dir.dir_fi_idx == fde->fdt_dir.dir_fi_len) {
    return ERROR_NO_MORE_FILES;
  }
  hand_out(&fde->fdt_dir, out);
  tnw_log_findnext_client_resp(call.vh, fde, 0, &call.start);
  return 0;
}

/* Deliberately in another order than the other calls: the authorisation before the drive. */
int tnw_findclose(void* dehdl) {
  tnvfd* fde = static_cast<tnvfd*>(dehdl);
  tnw_call call;
  int code = tnw_enter_entry(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (code == 0) {
    code = tnw_check_authorized(&call);
  }
  if (code == 0) {
    code = tnw_check_drive(fde, &call);
  }
  if (code != 0) {
    return code;
  }
  tnv_msg msg;
  tnv_resp resp;
  tnw_fill_close(&msg, TNV_OP_WIN_CLOSE, fde);
  tnw_exchange(call.tni, tnw_async_send_msg, &msg, &resp, nullptr);
  if (tnw_answered_unauthorized(&call, &resp)) {
    return ERROR_LOGON_FAILURE;
  }
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (err != 0) {
    TNW_ERROR(call.vh, static_cast<int>(err), "Failed to close diretory enumeration context.");
  }
  tnw_release_entry(call, fde); /* also after a refused close */
  return static_cast<int>(unixerr2winerr(err));
}

int tnw_checkfolderempty(void* dehdl, bool* is_empty) {
  const tnvfd* fde = static_cast<const tnvfd*>(dehdl);
  tnw_call call;
  int code = tnw_enter_entry_call(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (is_empty != nullptr && code == ERROR_BAD_ARGUMENTS) {
    *is_empty = false;
  }
  if (code == 0) {
    code = tnw_check_authorized(&call);
  }
  if (code != 0) {
    return code;
  }
  const bool empty = list_is_empty(fde->fdt_dir);
  if (is_empty != nullptr) {
    *is_empty = empty;
  }
  if (!empty) {
    tnw_log_folderempty_client_resp(call.vh, fde, empty, 0, &call.start);
  }
  return 0;
}
