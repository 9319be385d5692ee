/*
 * One request and its answer, through the instance's pool: the calling thread queues a job and
 * waits for it, without a limit; a worker exchanges the request over its own connection.
 */
#ifndef TNW_EXCHANGE_H
#define TNW_EXCHANGE_H

#include "tnw_call.h"
#include "tnw_connect.h"
#include "tnw_instance.h"

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
 * rhdr_errno. `data` is the job's, or null. Gives ev_granted of tnw_evwi: the service opened what
 * the job could not take.
 */
bool tnw_exchange(tnw_tninstance* tni, ox_job_func_t job, tnv_msg* msg, tnv_resp* resp, void* data);
/*
 * The same for a request that the plain exchange carries. Returns 0, or 1326 when the answer says
 * "unauthorised". After 0 the caller looks at the error number in the answer.
 */
int tnw_exchange_msg(const tnw_call& call, tnv_msg* msg, tnv_resp* resp);
/*
 * Runs a region job with its tnw_ioreq or tnw_truncreq. `err` is the error of the request, which
 * also receives an error number when the job could not run.
 */
void tnw_run_region_job(tnw_tninstance* tni, ox_job_func_t job, void* request, ox_s32* err);

#endif
