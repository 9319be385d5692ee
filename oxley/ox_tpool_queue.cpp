/*
 * Queueing jobs, pausing and resuming, and the notifiers of single jobs.
 */
#include <cerrno>
#include <cstring>

#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_tpool_internal.h"
#include "ox_util.h"

namespace {

/*
 * The runtime's answers for a calling thread whose name cannot be had and so is not the pool's:
 * a name longer than the buffer, and (winpthreads) a detached thread.
 */
bool nameless(int rc) { return rc == ERANGE || rc == ESRCH; }

/* While the pool drains, only its own workers queue: their jobs may need follow-up jobs. */
int check_caller(const ox_tpool_t* tp) {
  char name[4 * OX_TPOOL_NAME_SIZE] = "";
  const int rc = pthread_getname_np(pthread_self(), name, sizeof(name));
  if (rc != 0 && !nameless(rc)) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot get name [%s] for thread %p", name,
           reinterpret_cast<void*>(pthread_self()));
    return rc;
  }
  const bool own = rc == 0 && strcmp(name, tp->tp_name) == 0;
  if ((tp->tp_flags & OX_TPOOL_FL_DRAIN) != 0 && !own) {
    OX_LOG(OX_ERROR_LEVEL, OX_EINVAL,
           "[%s]: cannot queue job, the thread pool is being drained/destroyed.", tp->tp_name);
    return OX_EINVAL;
  }
  return 0;
}

int append_job(ox_tpool_t* tp, ox_job_notify_t* notify, ox_job_func_t func, void* args) {
  auto* job = static_cast<ox_job_t*>(ox_zalloc(sizeof(ox_job_t)));
  if (job == nullptr) {
    const int rc = errno;
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot allocate %zu bytes for queuing a new job", sizeof(ox_job_t));
    return rc;
  }
  ox_job_t* head = &tp->tp_jobq;
  *job = {head, head->job_prev, func, args, notify};
  head->job_prev->job_next = job;
  head->job_prev = job;
  ++tp->tp_qlen;
  return 0;
}

/*
 * An idle worker that a signal has woken counts as idle until it has the lock. Jobs beyond the idle
 * workers therefore get a worker of their own: behind one that is about to run a long job, they
 * would wait for its end although the pool could grow.
 */
void rouse_worker(ox_tpool_t* tp) {
  const bool all_taken =
      tp->tp_idle_count == 0 || (tp->tp_qlen > tp->tp_idle_count && !ox_tpool_paused_locked(tp));
  const bool may_start = all_taken && tp->tp_cur_count < tp->tp_max_threads;
  /* A failed start is no error: the job stays queued, and the next one tries again. */
  if (!may_start || !ox_tpool_start_worker_locked(tp)) {
    (void)pthread_cond_signal(&tp->tp_worker_cv);
  }
}

/* Locks the pool for a change of `flag`. */
int lock_for_flag(ox_tpool_t* tp, ox_u32 flag) {
  const int rc = ox_lock(&tp->tp_lock);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot lock thread pool to update flag %d", flag);
  }
  return rc;
}

}  // namespace

OX_STATIC_ASSERT(sizeof(ox_job_t) == 40, "one allocation of 40 bytes a job");

int ox_queue_work(ox_tpool_t* tp, ox_job_notify_t* notify, ox_job_func_t func, void* args) {
  int rc = ox_lock(&tp->tp_lock);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot lock thread pool to queue the job");
    return rc;
  }
  rc = check_caller(tp);
  if (rc == 0) {
    rc = append_job(tp, notify, func, args);
  }
  if (rc == 0) {
    rouse_worker(tp);
  }
  (void)ox_unlock(&tp->tp_lock);
  return rc;
}

int ox_tpool_pause(ox_tpool_t* tp) {
  const int rc = lock_for_flag(tp, OX_TPOOL_FL_PAUSE);
  if (rc != 0) {
    return rc;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Thread pool [%s] pausing.", tp->tp_name);
  tp->tp_flags |= OX_TPOOL_FL_PAUSE;
  (void)ox_unlock(&tp->tp_lock);
  return 0;
}

int ox_tpool_resume(ox_tpool_t* tp) {
  const int rc = lock_for_flag(tp, OX_TPOOL_FL_PAUSE);
  if (rc != 0) {
    return rc;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Thread pool [%s] resuming.", tp->tp_name);
  tp->tp_flags &= ~ox_u32{OX_TPOOL_FL_PAUSE};
  (void)pthread_cond_broadcast(&tp->tp_worker_cv);
  /* Surplus workers leave during a pause; the jobs that waited for its end must not wait on. */
  if (tp->tp_cur_count == 0 && tp->tp_max_threads > 0 && !ox_tpool_queue_empty_locked(tp)) {
    (void)ox_tpool_start_worker_locked(tp);
  }
  (void)ox_unlock(&tp->tp_lock);
  return 0;
}

bool ox_tpool_is_paused(ox_tpool_t* tp) {
  if (ox_tpool_lock(tp) != 0) {
    return false;
  }
  const bool paused = (tp->tp_flags & OX_TPOOL_FL_PAUSE) != 0;
  (void)ox_unlock(&tp->tp_lock);
  return paused;
}

void ox_tpool_drain_wait(ox_tpool_t* tp) {
  if (ox_tpool_pause(tp) != 0 || ox_tpool_lock(tp) != 0) {
    return;
  }
  ++tp->tp_waiters;
  while (tp->tp_cur_count != tp->tp_idle_count) {
    ox_tpool_wait_for_workers_locked(tp);
  }
  --tp->tp_waiters;
  (void)pthread_cond_broadcast(&tp->tp_pool_cv); /* a destroy may wait for this call's end */
  (void)ox_unlock(&tp->tp_lock);
}

ox_job_notify_t* ox_job_create_notify(void) {
  auto* notify = static_cast<ox_job_notify_t*>(ox_zalloc(sizeof(ox_job_notify_t)));
  if (notify == nullptr) {
    return nullptr;
  }
  if (ox_init_lock(&notify->jn_lock) == 0) {
    if (ox_init_cv(&notify->jn_cv) == 0) {
      return notify;
    }
    (void)ox_deinit_lock(&notify->jn_lock);
  }
  ox_free_safe(notify);
  return nullptr;
}

void ox_signal_job_completion(ox_job_notify_t* notify) {
  if (notify == nullptr) {
    return;
  }
  (void)ox_lock(&notify->jn_lock);
  notify->jn_done = 1;
  (void)pthread_cond_signal(&notify->jn_cv);
  (void)ox_unlock(&notify->jn_lock);
}

void ox_wait_job_completion(ox_job_notify_t* notify) {
  if (notify == nullptr) {
    return;
  }
  (void)ox_lock(&notify->jn_lock);
  while (notify->jn_done == 0) {
    (void)ox_tpool_wait_locked(&notify->jn_cv, &notify->jn_lock, nullptr);
  }
  (void)ox_unlock(&notify->jn_lock);
}

void ox_job_destroy_notify(ox_job_notify_t* notify) {
  if (notify == nullptr) {
    return;
  }
  (void)ox_deinit_cv(&notify->jn_cv);
  (void)ox_deinit_lock(&notify->jn_lock);
  ox_free_safe(notify);
}
