/*
 * tnw_lockfile and tnw_unlockfile. The service keeps the locks; nothing is kept here.
 */
#include "ox_errno.h"
#include "tn_text.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_msg.h"

namespace {

constexpr tnw_refusal REFUSE_LOCK = {"Invalid open handle or lock request.", OX_EINVAL,
                                     ERROR_INVALID_DATA};
constexpr tnw_refusal REFUSE_UNLOCK = {"Invalid open handle passed.", OX_EINVAL,
                                       ERROR_INVALID_DATA};

/*
 * One lock or unlock. Offset and length have only 32 bits, for the high halves that a caller gives
 * are not used: the range at 2^32 + 10 is locked at 10.
 */
struct Range {
  tn_smblk_type type;
  ox_u32 off;
  ox_u32 len;
  int pid;
};

void fill_brl(tnv_msg* msg, const tnvfd* fde, const Range& what) {
  *msg = {};
  char procname[sizeof fde->fdt_procname + 1] = {};
  tnw_copy_procname(procname, fde);
  tnw_fill_header(msg, TNV_OP_WIN_BRL, TNV_MSG_FIXED, fde->fdt_drv, procname);
  tnv_wbrl_msg* brl = &msg->u.wbrl;
  brl->wbrl_type = what.type;
  brl->wbrl_pid = what.pid;
  brl->wbrl_fd = fde->fdt_fd;
  brl->wbrl_off = what.off;
  brl->wbrl_len = what.len;
  brl->wbrl_fso = fde->fdt_fso;
  brl->wbrl_gid = fde->fdt_fso.fso_handle;
}

int exchange_brl(const tnvfd* fde, const tnw_refusal& refusal, const Range& what) {
  tnw_call call;
  int code = tnw_enter_entry_call(fde, false, refusal, &call);
  if (code == 0) {
    code = tnw_check_authorized(&call);
  }
  if (code != 0) {
    return code;
  }
  tnv_msg msg;
  tnv_resp resp;
  fill_brl(&msg, fde, what);
  code = tnw_exchange_msg(call, &msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code != 0 || err == 0) {
    return code;
  }
  return TNW_REFUSE_ANSWER(call.vh, err, "Failed to %s file %s.",
                           what.type == TN_SMBLK_UNLOCK_BRL ? "unlock" : "lock",
                           tn_id_text(fde->fdt_fso.fso_handle).text);
}

}  // namespace

int tnw_lockfile(void* ophdl, ox_u32 flags, ox_u32 off_low, ox_u32, ox_u32 len_low, ox_u32,
                 int pid) {
  const tn_smblk_type type = (flags & TNW_LOCK_EXCLUSIVE) != 0 ? TN_SMBLK_EX_BRL : TN_SMBLK_SH_BRL;
  return exchange_brl(static_cast<const tnvfd*>(ophdl), REFUSE_LOCK, {type, off_low, len_low, pid});
}

int tnw_unlockfile(void* ophdl, ox_u32 off_low, ox_u32, ox_u32 len_low, ox_u32, int pid) {
  return exchange_brl(static_cast<const tnvfd*>(ophdl), REFUSE_UNLOCK,
                      {TN_SMBLK_UNLOCK_BRL, off_low, len_low, pid});
}
