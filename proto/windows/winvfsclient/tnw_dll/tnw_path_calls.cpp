/* tnw_getfileinfo, tnw_rename, tnw_delete, tnw_canfilebedeleted: one request about a path each. */

#include "ox_errno.h"
#include "ox_util.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_msg.h"

namespace {

/*
 * Rename, delete and can-delete deliberately refuse a null path with another code than the others:
 * what EINVAL becomes, not 160.
 */
constexpr tnw_refusal REFUSE_CHANGE = {"Invalid drive handle or no path specified.", OX_EINVAL,
                                       ERROR_INVALID_DATA};

/* Sends the request, which is freed, and gets its answer: 0 or 1326. */
int exchange_path_call(const tnw_call& call, tnv_msg* msg, tnv_resp* resp) {
  tnw_exchange(call.tni, tnw_async_send_msg, msg, resp, nullptr);
  ox_free_safe(msg);
  return tnw_answered_unauthorized(&call, resp) ? ERROR_LOGON_FAILURE : 0;
}

}  // namespace

int tnw_getfileinfo(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname) {
  tnw_call call;
  int code =
      tnw_enter_path_call(drvhdl, out != nullptr ? path : nullptr, TNW_REFUSE_NO_PATH, &call);
  if (code != 0) {
    return code;
  }
  TNW_DEBUG(call.vh, 2, "Get file info for %s", path);
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_STAT, drvhdl, in_procname, {path});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wstat.wstat_path_len = tnw_text_len(path) + 1; /* the NUL counts, in this one alone */
  tnv_resp resp;
  code = exchange_path_call(call, msg, &resp);
  if (code != 0) {
    return code;
  }
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (err != 0) {
    return TNW_REFUSE_ANSWER(call.vh, err, "Failed to get file info for %s.", path);
  }
  *out = resp.u.wstat.wstat_fi;
  return 0;
}

int tnw_rename(void* drvhdl, const char* srcpath, const char* dstpath, const char* in_procname) {
  tnw_call call;
  int code =
      tnw_enter_path_call(drvhdl, dstpath != nullptr ? srcpath : nullptr, REFUSE_CHANGE, &call);
  if (code != 0) {
    return code;
  }
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_RENAME, drvhdl, in_procname, {srcpath, dstpath});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wrename.wrename_msg_slen = tnw_text_len(srcpath);
  msg->u.wrename.wrename_msg_dlen = tnw_text_len(dstpath);
  tnv_resp resp;
  code = exchange_path_call(call, msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code != 0 || err == 0) {
    return code;
  }
  return TNW_REFUSE_ANSWER(call.vh, err, "Failed to rename %s->%s.", srcpath, dstpath);
}

int tnw_delete(void* drvhdl, const char* path, const char* in_procname) {
  tnw_call call;
  int code = tnw_enter_path_call(drvhdl, path, REFUSE_CHANGE, &call);
  if (code != 0) {
    return code;
  }
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_DELETE, drvhdl, in_procname, {path});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wdelete.wdelete_msg_plen = tnw_text_len(path);
  tnv_resp resp;
  code = exchange_path_call(call, msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code != 0 || err == 0) {
    return code;
  }
  return TNW_REFUSE_ANSWER(call.vh, err, "Failed to delete file %s.", path);
}

int tnw_canfilebedeleted(void* drvhdl, const char* path, bool* can_delete) {
  tnw_call call;
  int code =
      tnw_enter_path_call(drvhdl, can_delete != nullptr ? path : nullptr, REFUSE_CHANGE, &call);
  if (code != 0) {
    return code;
  }
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_CANDELETE, drvhdl, nullptr, {path});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wcandelete.wcandelete_msg_plen = tnw_text_len(path);
  tnv_resp resp;
  code = exchange_path_call(call, msg, &resp);
  if (code != 0) {
    return code;
  }
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (err != 0) {
    return TNW_REFUSE_ANSWER(call.vh, err, "Failed to check if file %s can be deleted.", path);
  }
  *can_delete = (resp.u.wcandel.wcandel_check & 1) != 0;
  return 0;
}
