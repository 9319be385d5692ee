/*
 * The frame of every exported call: the checks that it makes before its own work, in one order, and
 * the codes and lines of its refusals.
 *
 * No list lock is held when one of these returns: calls run side by side, and one that waits for
 * the service holds up no other.
 */
#ifndef TNW_CALL_H
#define TNW_CALL_H

#include "tn_util.h"
#include "tnw_instance.h"
#include "tnw_log.h"

/* What a call works on once its handle was found. Of the calling thread alone. */
struct tnw_call {
  tnw_tninstance* tni;
  vfs_handle* vh;        /* the primary connection, for log prefixes */
  bool on_drive;         /* the entry's drive handle is listed too; set by tnw_enter_entry */
  struct timespec start; /* when the call began, see tnw_note_start; set by tnw_enter_entry */
};

/* How a call refuses a null handle or path: the text, the error in the prefix, the result. */
struct tnw_refusal {
  const char* text;
  int err;
  int code;
};
extern const tnw_refusal TNW_REFUSE_NO_PATH;

/* Each check returns 0, or the Windows code for the caller after the line that tells. */

/* The line of an unknown drive or operation handle, and its code: 1467. */
int tnw_refuse_unknown(const void* handle);

/* Finds the instance of a drive handle: 0 or 1467. */
int tnw_enter_drive(const void* drvhdl, tnw_call* call);
/* 1326 while the service has no valid authorisation. */
int tnw_check_authorized(const tnw_call* call);
/* A call with a drive handle and a path (or another pointer that it needs): `refusal`'s code when
 * one of both is null, 1467, 1326. */
int tnw_enter_path_call(const void* drvhdl, const void* path, const tnw_refusal& refusal,
                        tnw_call* call);

/*
 * Finds the instance and the drive of an operation handle in one walk over the instances, and notes
 * when the call began. A null handle, a closed entry, and with `needs_file` an entry without a
 * local file give `refusal`'s code; an address that is no entry of a listed instance gives 1467.
 */
int tnw_enter_entry(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal, tnw_call* call);
/* 1467 for an entry whose drive handle is gone. */
int tnw_check_drive(const tnvfd* fde, const tnw_call* call);
/* Both. */
int tnw_enter_entry_call(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal,
                         tnw_call* call);
/*
 * All checks of a call on an open file: both, then the opener's name (32 bytes) for the caller, who
 * may have given no place for it, then the authorisation.
 */
int tnw_enter_file_call(const tnvfd* fde, const tnw_refusal& refusal, char* out_procname,
                        tnw_call* call);

/*
 * Notes when the call began, if tnw_enter_entry did not: it leaves the clock alone (`start` zero)
 * until a transaction id was seen, since a read of cached data costs little more than the clock.
 * Called before an exchange, whose answer may be the first that carries an id.
 */
void tnw_note_start(tnw_call* call);

/* Copies the opener's name (32 bytes) to the caller, who may have given no place for it. */
void tnw_copy_procname(char* out_procname, const tnvfd* fde);

/* Whether the answer says that the service has no authorisation; marks the instance. */
bool tnw_answered_unauthorized(const tnw_call* call, const tnv_resp* resp);

/* The line for a request that could not be built, and the call's code. */
int tnw_refuse_no_memory(const tnw_call& call);
/* The line of a request that the service refused with `err`, and the call's code. */
#define TNW_REFUSE_ANSWER(vh, err, fmt, ...)                                   \
  TNW_REFUSE(static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err))), (vh), \
             static_cast<int>(err), fmt, ##__VA_ARGS__)

#endif
