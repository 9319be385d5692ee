/*
 * tnw_rename: renames or moves a file or folder.
 */
#include "tnw_path_call.h"

int tnw_rename(void* drvhdl, const char* srcpath, const char* dstpath, const char* in_procname) {
  tnw_call call;
  const void* paths = dstpath != nullptr ? srcpath : nullptr;
  int code = tnw_enter_path_call(drvhdl, paths, TNW_REFUSE_CHANGE, &call);
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
  code = tnw_exchange_path_msg(call, msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code != 0 || err == 0) {
    return code;
  }
  return TNW_REFUSE_ANSWER(call.vh, err, "Failed to rename %s->%s.", srcpath, dstpath);
}
