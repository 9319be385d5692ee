/*
 * The frame of every exported call: the checks it makes before its own work, and the exchange of
 * one request through the instance's pool.
 */
#ifndef TNW_CALL_H
#define TNW_CALL_H

#include <string.h>

#include <initializer_list>

#include "tn_util.h"
#include "tnw_connect.h"
#include "tnw_instance.h"
#include "tnw_log.h"

/* What a call works on once its handle was found. */
struct tnw_call {
  tnw_tninstance* tni;
  vfs_handle* vh; /* the primary connection, for log prefixes */
};

/* How a call refuses a null handle or path: the text, the error in the prefix, the result. */
struct tnw_refusal {
  const char* text;
  int err;
  int code;
};
extern const tnw_refusal TNW_REFUSE_NO_PATH;

/* Each returns 0 or the Windows code to return; each refusal is logged. */

/* Finds the instance of a drive handle: 0 or 1467. */
int tnw_enter_drive(const void* drvhdl, tnw_call* call);
/* 0, or 1326 while the service has no valid authorisation. */
int tnw_check_authorized(const tnw_call* call);
/* A call with a drive handle and a path (or other needed pointer): `refusal`'s code, 1467, 1326. */
int tnw_enter_path_call(const void* drvhdl, const void* path, const tnw_refusal& refusal,
                        tnw_call* call);
/*
 * A call with an operation handle. A null handle, a closed entry, and with `needs_file` an entry
 * without a local file are refused with `refusal`; an address that is no entry of a listed instance
 * with 1467. Looks neither at the entry's drive nor at the authorisation.
 */
int tnw_enter_entry(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal, tnw_call* call);
/* 0, or 1467 for an entry whose drive handle is gone. */
int tnw_check_drive(const tnvfd* fde, const tnw_call* call);
/* Both. */
int tnw_enter_entry_call(const tnvfd* fde, bool needs_file, const tnw_refusal& refusal,
                         tnw_call* call);

/* When a call begins, for its event line; zero when none would be written, for a clock costs. */
struct timespec tnw_call_start(const tnw_call& call);
/* Makes up for a start that was not noted, before an exchange whose answer may be the first that
 * carries a transaction id. */
void tnw_note_start(struct timespec* start);

/* Copies the opener's name (32 bytes) to the caller, who may have given no place for it. */
void tnw_copy_procname(char* out_procname, const tnvfd* fde);

/*
 * Prepares a work item: a fresh id and `len` into the message (which may be null), and a new
 * auto-reset event, or null when it could not be made.
 */
void tnw_create_evtwi(tnw_evwi* emsg, tnv_msg* msg, tnv_resp* resp, int len);
/* Queues the plain exchange of a work item: 0 or an error number. */
int tnw_queue_work(ox_tpool_t* pool, tnw_evwi* wi);
/*
 * Queues `job` with the item, waits for it and closes its event. 0 when the job has run; otherwise
 * an error number that stands where the service's would, and nothing was waited for.
 */
int tnw_run_job(tnw_tninstance* tni, ox_job_func_t job, tnw_evwi* wi);
/*
 * One request and its answer: clears `resp`, runs `job` and leaves a failure to queue in
 * rhdr_errno. `data` is the job's, or null.
 */
void tnw_exchange(tnw_tninstance* tni, ox_job_func_t job, tnv_msg* msg, tnv_resp* resp, void* data);

/* Whether the answer says that the service has no authorisation; marks the instance. */
bool tnw_answered_unauthorized(const tnw_call* call, const tnv_resp* resp);

/* Fills the header of a request of `len` bytes for a drive and a process, each null for none. */
void tnw_fill_header(tnv_msg* msg, vfs_op op, size_t len, const void* drvhdl, const char* procname);
/*
 * A request with its header filled and `texts` behind the fixed part, each with its NUL, or null;
 * ox_free_safe.
 */
tnv_msg* tnw_build_msg(vfs_op op, const void* drvhdl, const char* procname,
                       std::initializer_list<const char*> texts);
/* The line for a request that could not be built, and the call's code. */
int tnw_refuse_no_memory(const tnw_call& call);
/* The length of a trailing text as requests carry it, without the NUL. */
inline ox_s32 tnw_text_len(const char* text) { return static_cast<ox_s32>(strlen(text)); }
/* The line of a request that the service refused with `err`, and the call's code. */
#define TNW_REFUSE_ANSWER(vh, err, fmt, ...)                                   \
  TNW_REFUSE(static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err))), (vh), \
             static_cast<int>(err), fmt, ##__VA_ARGS__)
/* Fills a CLOSE or CLEANUP request (their payloads have one layout) for an open entry. */
void tnw_fill_close(tnv_msg* msg, vfs_op op, const tnvfd* fde);

#endif
