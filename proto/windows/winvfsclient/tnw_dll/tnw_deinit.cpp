/*
 * tnw_deinit and tnw_deinit_force: giving drive handles back, and stopping the service with them.
 */

#include "ox_errno.h"
#include "ox_util.h"
#include "tn_text.h"
#include "tnw_call.h"
#include "tnw_fdtable.h"
#include "tnw_log.h"
#include "tnw_open.h"
#include "tnw_start.h"

namespace {

constexpr DWORD STOP_PAUSE_MS = 1000;

/*
 * The instance of a handle that is to be given back, or null after the lines. Without tnw_glock it
 * may go at any moment: the pointer then only tells that there is one.
 */
tnw_tninstance* find_instance_to_leave(const void* drvhdl) {
  tnw_tninstance* tni = tnw_get_tninstance(drvhdl);
  if (tni == nullptr) {
    tnw_refuse_unknown(drvhdl);
    TNW_ERROR(nullptr, OX_EINVAL, "Drive handle is not associated with any tninstance");
  }
  return tni;
}

/*
 * Gives back what the caller left open on a drive that goes, or with null on any drive. Otherwise
 * its handles would answer again as soon as a later drive got the same address.
 */
void release_left_open(tnw_tninstance* tni, const void* drvhdl) {
  int index = 0;
  tnvfd* fde = tnw_next_in_use(&tni->tni_files, drvhdl, &index);
  while (fde != nullptr) {
    tnw_close_local_file(fde);
    if (fde->fdt_fc != nullptr) {
      tnw_uncount_open(fde->fdt_fc, fde->fdt_oaccmode);
    }
    tnw_putfd_of_gone_drive(tnw_connection(tni, 0), &tni->tni_files, fde);
    fde = tnw_next_in_use(&tni->tni_files, drvhdl, &index);
  }
}

/* Stops the service of an instance that is off the list, and frees all that it owns. */
int stop_and_free(tnw_tninstance* tni) {
  const int result = tnw_tnstop(tni);
  release_left_open(tni, nullptr);
  tnw_tp_deinit_vfshandle(tni);
  ox_destroy_tpool(tni->tni_tpool, OX_TPOOL_FL_DRAIN);
  tnw_free_tninstance(tni);
  return result;
}

/* With the last handle the instance leaves the list: from then on no call reaches it. */
int leave_last(tnw_tninstance* tni) {
  tnw_remove_tninstance(&tnw_tninstances, tni);
  Sleep(STOP_PAUSE_MS);
  return stop_and_free(tni);
}

int leave_instance(tnw_tninstance* tni, tnw_drive_handle* dh) {
  vfs_handle* vh = tnw_connection(tni, 0);
  tnw_dhhd* handles = &tni->tni_drive_handles;
  TNW_INFO(vh, "tarnd for %.*s@%.*s, stopped for drive id %.*s, current drive handle count %d",
           TN_FIELD(tni->tni_username), TN_FIELD(tni->tni_domain), TN_FIELD(dh->tnw_drive_uuid),
           handles->tnwh_cnt);
  tnw_remove_handle(tni, dh);
  release_left_open(tni, dh);
  ox_free_safe(dh);
  if (handles->tnwh_cnt == 0) {
    return leave_last(tni);
  }
  TNW_INFO(vh, "After deinit, drive handle count %d for user %.*s@%.*s", handles->tnwh_cnt,
           TN_FIELD(tni->tni_username), TN_FIELD(tni->tni_domain));
  return 0;
}

/*
 * The instance and its handles are out of reach before anything of it goes, so that calls which
 * come now are refused at once. What the shut-down answers is not told.
 */
int leave_by_force(tnw_tninstance* tni) {
  tnw_remove_tninstance(&tnw_tninstances, tni);
  tnw_free_handles(tni);
  stop_and_free(tni);
  return 0;
}

/*
 * The checks of both calls, then `leave` with the instance, under tnw_glock. The handle is looked
 * up before the lock is taken, since another user's start may hold it for minutes, and once more
 * under it: of two calls for one handle the second finds it unknown.
 */
template <class Leave>
int deinit(void* drvhdl, Leave leave) {
  if (drvhdl == nullptr) {
    return TNW_REFUSE(ERROR_INVALID_PARAMETER, nullptr, OX_EINVAL, "Invalid drive handle passed");
  }
  if (find_instance_to_leave(drvhdl) == nullptr) {
    return ERROR_INVALID_PARAMETER;
  }
  ox_rwlock_excl(&tnw_glock);
  tnw_tninstance* tni = find_instance_to_leave(drvhdl);
  const int code = tni != nullptr ? leave(tni) : ERROR_INVALID_PARAMETER;
  ox_rwunlock(&tnw_glock);
  return code;
}

}  // namespace

/* `force` is accepted and makes no difference: tnw_deinit_force is the call that does. */
int tnw_deinit(void* drvhdl, bool /*force*/) {
  return deinit(drvhdl, [&](tnw_tninstance* tni) {
    return leave_instance(tni, static_cast<tnw_drive_handle*>(drvhdl));
  });
}

int tnw_deinit_force(void* drvhdl) { return deinit(drvhdl, leave_by_force); }
