/*
 * tnw_getfileinfo: what a path names.
 */
#include "tnw_path_call.h"

int tnw_getfileinfo(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname) {
  tnw_call call;
  int code = tnw_enter_path_call(drvhdl, path, TNW_REFUSE_NO_PATH, &call);
  if (code != 0) {
    return code;
  }
  TNW_DEBUG(call.vh, 2, "Get file info for %s", path);
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_STAT, drvhdl, in_procname, {path});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wstat.wstat_path_len = tnw_text_len(path) + 1; /* STAT counts the NUL */
  tnv_resp resp;
  code = tnw_exchange_path_msg(call, msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code == 0 && err != 0) {
    return TNW_REFUSE_ANSWER(call.vh, err, "Failed to get file info for %s.", path);
  }
  if (code == 0 && out != nullptr) {
    *out = resp.u.wstat.wstat_fi;
  }
  return code;
}
