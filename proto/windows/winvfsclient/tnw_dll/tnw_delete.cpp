/*
 * tnw_delete, and tnw_canfilebedeleted, which asks before.
 */
#include "tnw_path_call.h"

int tnw_delete(void* drvhdl, const char* path, const char* in_procname) {
  tnw_call call;
  int code = tnw_enter_path_call(drvhdl, path, TNW_REFUSE_CHANGE, &call);
  if (code != 0) {
    return code;
  }
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_DELETE, drvhdl, in_procname, {path});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wdelete.wdelete_msg_plen = tnw_text_len(path);
  tnv_resp resp;
  code = tnw_exchange_path_msg(call, msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code != 0 || err == 0) {
    return code;
  }
  return TNW_REFUSE_ANSWER(call.vh, err, "Failed to delete file %s.", path);
}

int tnw_canfilebedeleted(void* drvhdl, const char* path, bool* can_delete) {
  tnw_call call;
  int code = tnw_enter_path_call(drvhdl, path, TNW_REFUSE_CHANGE, &call);
  if (code != 0) {
    return code;
  }
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_CANDELETE, drvhdl, nullptr, {path});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wcandelete.wcandelete_msg_plen = tnw_text_len(path);
  tnv_resp resp;
  code = tnw_exchange_path_msg(call, msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code == 0 && err != 0) {
    return TNW_REFUSE_ANSWER(call.vh, err, "Failed to check if file %s can be deleted.", path);
  }
  if (code == 0 && can_delete != nullptr) {
    *can_delete = (resp.u.wcandel.wcandel_check & 1) != 0;
  }
  return code;
}
