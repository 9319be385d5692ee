/*
 * tnw_deinit and tnw_deinit_force: giving drive handles back, and stopping the service with them.
 */

#include "ox_errno.h"
#include "ox_util.h"
#include "tn_text.h"
#include "tnw_call.h"
#include "tnw_log.h"
#include "tnw_start.h"

namespace {

constexpr DWORD STOP_PAUSE_MS = 1000;

/*
 * The instance of a handle that is to be given back, or null after the lines. Under tnw_glock, so
 * that of two calls for one handle the second finds it unknown.
 */
tnw_tninstance* find_instance_to_leave(const void* drvhdl) {
  tnw_call call;
  if (tnw_enter_drive(drvhdl, &call) == 0) {
    return call.tni;
  }
  TNW_ERROR(nullptr, OX_EINVAL, "Drive handle is not associated with any tninstance");
  return nullptr;
}

int leave_instance(tnw_tninstance* tni, tnw_drive_handle* dh) {
  vfs_handle* vh = tnw_connection(tni, 0);
  tnw_dhhd* handles = &tni->tni_drive_handles;
  TNW_INFO(vh, "tarnd for %.*s@%.*s, stopped for drive id %.*s, current drive handle count %d",
           TN_FIELD(tni->tni_username), TN_FIELD(tni->tni_domain), TN_FIELD(dh->tnw_drive_uuid),
           handles->tnwh_cnt);
  tnw_remove_handle(tni, dh);
  ox_free_safe(dh);
  if (handles->tnwh_cnt != 0) {
    TNW_INFO(vh, "After deinit, drive handle count %d for user %.*s@%.*s", handles->tnwh_cnt,
             TN_FIELD(tni->tni_username), TN_FIELD(tni->tni_domain));
    return 0;
  }
  Sleep(STOP_PAUSE_MS);
  const int result = tnw_tnstop(tni);
  tnw_dismantle(tni);
  return result;
}

int leave_by_force(tnw_tninstance* tni) {
  tnw_tnstop(tni); /* its result is deliberately ignored */
  tnw_dismantle(tni);
  return 0;
}

/* The checks of both calls, then `leave` with the instance, under tnw_glock. */
template <class Leave>
int deinit(void* drvhdl, Leave leave) {
  if (!drvhdl) {
    return TNW_REFUSE(ERROR_INVALID_PARAMETER, nullptr, OX_EINVAL, "Invalid drive handle passed");
  }
  ox_rwlock_excl(&tnw_glock);
  tnw_tninstance* tni = find_instance_to_leave(drvhdl);
  const int code = tni ? leave(tni) : ERROR_INVALID_PARAMETER;
  ox_rwunlock(&tnw_glock);
  return code;
}

}  // namespace

void tnw_dismantle(tnw_tninstance* tni) {
  tnw_tp_deinit_vfshandle(tni);
  ox_destroy_tpool(tni->tni_tpool, OX_TPOOL_FL_DRAIN);
  tnw_remove_tninstance(&tnw_tninstances, tni);
  tnw_free_tninstance(tni);
}

int tnw_deinit(void* drvhdl, bool force) {
  (void)force; /* accepted, and deliberately without effect */
  return deinit(drvhdl, [&](tnw_tninstance* tni) {
    return leave_instance(tni, static_cast<tnw_drive_handle*>(drvhdl));
  });
}

int tnw_deinit_force(void* drvhdl) { return deinit(drvhdl, leave_by_force); }
