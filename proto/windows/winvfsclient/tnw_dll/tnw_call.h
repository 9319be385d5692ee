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

/* What a call works on once its handle was found. Only the calling thread uses it. */
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
  bool translates = false; /* err is a Windows code, which winerr2unixerr makes an error number */
};
extern const tnw_refusal TNW_REFUSE_NO_PATH;

/* Each check returns 0. On a failure it logs a line and returns the Windows code for the caller. */

/* Logs that a drive or operation handle is unknown. Returns 1467. */
int tnw_refuse_unknown(const void* handle);

/* Finds the instance of a drive handle. Returns 0 or 1467. */
int tnw_enter_drive(const void* drvhdl, tnw_call* call);
/* Returns 1326 while the service has no valid authorisation. */
int tnw_check_authorized(const tnw_call* call);
/*
 * The checks of a call on a drive handle and a path (or another pointer that it needs). Returns the
 * code of `refusal` when one of the two is null, else what the two checks above return.
 */
int tnw_enter_path_call(const void* drvhdl, const void* path, const tnw_refusal& refusal,
                        tnw_call* call);

/*
 * Finds the instance and the drive of an operation handle in one walk over the instances, and notes
 * when the call began. A null handle, a closed entry, and with `needs_file` an entry without a
 * local file give `refusal`'s code; an address that is no entry of a listed instance gives 1467.
 */
int tnw_enter_entry(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal, tnw_call* call);
/* Returns 1467 for an entry whose drive handle is gone. */
int tnw_check_drive(const tnvfd* fde, const tnw_call* call);
/* Makes the two checks above, the entry first. */
int tnw_enter_entry_call(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal,
                         tnw_call* call);
/*
 * All checks of a call on an open file: the entry, the drive and the authorisation. Before the
 * last one it copies the opener's name to `out_procname`.
 */
int tnw_enter_file_call(const tnvfd* fde, const tnw_refusal& refusal, char* out_procname,
                        tnw_call* call);

/*
 * Notes when the call began, if tnw_enter_entry did not: it leaves the clock alone (`start` zero)
 * until a transaction id was seen, since a read of cached data costs little more than the clock.
 * Called before an exchange, whose answer may be the first that carries an id.
 */
void tnw_note_start(tnw_call* call);

/* Copies the opener's name to `out_procname` (32 bytes), which may be null. */
void tnw_copy_procname(char* out_procname, const tnvfd* fde);

/* Whether the answer says that the service has no authorisation. Marks the instance, too. */
bool tnw_answered_unauthorized(const tnw_call* call, const tnv_resp* resp);

/* Logs that a request could not be built. Returns the code of the call. */
int tnw_refuse_no_memory(const tnw_call& call);
/* Logs that the service refused a request with `err`. Gives the code of the call. */
#define TNW_REFUSE_ANSWER(vh, err, fmt, ...)                                   \
  TNW_REFUSE(static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err))), (vh), \
             static_cast<int>(err), fmt, ##__VA_ARGS__)

#endif
