/*
 * tnw_close and tnw_cleanup_file.
 */
#include "tnw_close.h"

#include <atomic>

#include "tnw_exchange.h"
#include "tnw_fdtable.h"
#include "tnw_file_context.h"
#include "tnw_local_file.h"
#include "tnw_msg.h"

namespace {

/* Sends a CLOSE or CLEANUP for the entry: 0 or a Windows code. */
int exchange_close(const tnw_call& call, vfs_op op, const tnvfd* fde) {
  tnv_msg msg;
  tnv_resp resp;
  tnw_fill_close(&msg, op, fde);
  const int code = tnw_exchange_msg(call, &msg, &resp);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (code != 0 || err == 0) {
    return code;
  }
  return TNW_REFUSE_ANSWER(call.vh, err, "Failed to close file.");
}

/* The close of an open that may write also tells of writes through opens that may only read. */
void take_over_read_dirty(tnvfd* fde) {
  if (fde->fdt_fc == nullptr || ((fde->fdt_oaccmode & TNW_ACC_ANY_WRITE) == 0)) {
    return;
  }
  if (std::atomic_ref(fde->fdt_fc->fc_rd_dirty).exchange(false)) {
    std::atomic_ref(fde->fdt_tnflags).fetch_or(TNV_FL_MODIFIED);
  }
}

}  // namespace

void tnw_take_back(const tnw_call& call, tnvfd* fde, void* drvhdl) {
  tnw_close_local_file(fde);
  tnw_use_fd(&call.tni->tni_files, fde, drvhdl);
  (void)exchange_close(call, TNV_OP_WIN_CLOSE, fde); /* the open fails, whatever the answer is */
}

void tnw_release_entry(const tnw_call& call, tnvfd* fde) {
  tnw_close_local_file(fde);
  if (fde->fdt_fc != nullptr) {
    tnw_uncount_open(fde->fdt_fc, fde->fdt_oaccmode);
  }
  tnw_putfd(call.vh, &call.tni->tni_files, fde);
}

int tnw_cleanup_file(void* ophdl) {
  tnvfd* fde = static_cast<tnvfd*>(ophdl);
  tnw_call call;
  int code = tnw_enter_entry_call(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (code == 0) {
    code = tnw_check_authorized(&call);
  }
  if (code != 0 || fde->fdt_fso.fso_isdir != 0) {
    return code;
  }
  return exchange_close(call, TNV_OP_WIN_CLEANUP, fde);
}

/*
 * The local file is closed before the authorisation is checked, and whatever the service answers:
 * a refused close keeps the entry, without a local file, and may be repeated.
 */
int tnw_close(void* ophdl, char* out_procname) {
  tnvfd* fde = static_cast<tnvfd*>(ophdl);
  tnw_call call;
  int code = tnw_enter_entry_call(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (code != 0) {
    return code;
  }
  tnw_copy_procname(out_procname, fde);
  take_over_read_dirty(fde);
  if (fde->fdt_fso.fso_isdir == 0) {
    tnw_close_local_file(fde);
  }
  code = tnw_check_authorized(&call);
  if (code == 0) {
    code = exchange_close(call, TNV_OP_WIN_CLOSE, fde);
  }
  if (code != 0) {
    return code;
  }
  tnw_release_entry(call, fde);
  return 0;
}
