#include "tnw_exchange.h"

#include <cstring>

#include "ox_tpool_internal.h"
#include "ox_uuid.h"
#include "tn_util.h"

namespace {

constexpr DWORD LOOK_MS = 1000;

/* A job that was queued when no thread could be started has nobody who runs it: then the wait ends
 * with its error number. */
int wait_for_job(ox_tpool_t* pool, const tnw_evwi* wi) {
  int err = 0;
  while (err == 0 && WaitForSingleObject(wi->ev_hdl, LOOK_MS) == WAIT_TIMEOUT) {
    err = ox_tpool_look_after_job(pool, wi);
  }
  return err;
}

}  // namespace

void tnw_create_evtwi(tnw_evwi* emsg, tnv_msg* msg, tnv_resp* resp, int len) {
  if (msg != nullptr) {
    ox_uuid_generate(msg->hdr.hdr_id.id);
    msg->hdr.hdr_len = static_cast<ox_u32>(len);
  }
  emsg->ev_msg = msg;
  emsg->ev_resp = resp;
  emsg->ev_hdl = CreateEventA(nullptr, FALSE, FALSE, nullptr);
}

int tnw_queue_work(ox_tpool_t* pool, tnw_evwi* wi) {
  return ox_queue_work(pool, nullptr, tnw_async_send_msg, wi);
}

int tnw_run_job(tnw_tninstance* tni, ox_job_func_t job, tnw_evwi* wi) {
  if (wi->ev_hdl == nullptr) {
    return static_cast<int>(winerr2unixerr(GetLastError()));
  }
  int err = job == tnw_async_send_msg ? tnw_queue_work(tni->tni_tpool, wi)
                                      : ox_queue_work(tni->tni_tpool, nullptr, job, wi);
  if (err == 0) {
    err = wait_for_job(tni->tni_tpool, wi);
  }
  CloseHandle(wi->ev_hdl);
  return err;
}

bool tnw_exchange(tnw_tninstance* tni, ox_job_func_t job, tnv_msg* msg, tnv_resp* resp,
                  void* data) {
  memset(resp, 0, sizeof *resp);
  tnw_evwi wi = {};
  wi.ev_data = data;
  tnw_create_evtwi(&wi, msg, resp, static_cast<int>(msg->hdr.hdr_len));
  const int err = tnw_run_job(tni, job, &wi);
  if (err != 0) {
    resp->rhdr.rhdr_errno = static_cast<ox_u32>(err);
  }
  return wi.ev_granted;
}

int tnw_exchange_msg(const tnw_call& call, tnv_msg* msg, tnv_resp* resp) {
  tnw_exchange(call.tni, tnw_async_send_msg, msg, resp, nullptr);
  return tnw_answered_unauthorized(&call, resp) ? ERROR_LOGON_FAILURE : 0;
}

void tnw_run_region_job(tnw_tninstance* tni, ox_job_func_t job, void* request, ox_s32* err) {
  tnw_evwi wi = {};
  wi.ev_data = request;
  tnw_create_evtwi(&wi, nullptr, nullptr, 0);
  const int failure = tnw_run_job(tni, job, &wi);
  if (failure != 0) {
    *err = failure;
  }
}
