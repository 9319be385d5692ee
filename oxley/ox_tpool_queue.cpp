/*
 * Queueing jobs, pausing and resuming, and the notifiers of single jobs.
 */
#include <cerrno>
#include <cstring>

#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_native_cv.h"
#include "ox_tpool_internal.h"
#include "ox_util.h"

namespace {

/*
 * Whether the runtime has no name for the calling thread: the name is longer than the buffer, or
 * the thread is detached (winpthreads). Such a thread is no worker of the pool.
 */
bool nameless(int rc) { return rc == ERANGE || rc == ESRCH; }

/*
 * 0 or an error number. While the pool drains, only its own workers may queue: their jobs may need
 * follow-up jobs. Only then is the name asked for, which the runtime looks up under a lock that all
 * threads share.
 */
int check_caller(const ox_tpool_t* tp) {
  if ((tp->tp_flags & OX_TPOOL_FL_DRAIN) == 0) {
    return 0;
  }
  char name[4 * OX_TPOOL_NAME_SIZE] = "";
  const int rc = pthread_getname_np(pthread_self(), name, sizeof(name));
  if (rc != 0 && !nameless(rc)) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot get name [%s] for thread %p", name,
           reinterpret_cast<void*>(pthread_self()));
    return rc;
  }
  if (rc != 0 || strcmp(name, tp->tp_name) != 0) {
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
  *job = {nullptr, nullptr, func, args, notify};
  ox_list_append(&tp->tp_jobq, job);
  ++tp->tp_qlen;
  return 0;
}

/*
 * Starts a worker when none is idle, and also when more jobs wait than workers are idle: a worker
 * counts as idle until it has the lock, also when a signal has woken it already. A burst of jobs
 * must not queue up behind one such worker and its first job.
 */
void rouse_worker_and_unlock(ox_tpool_t* tp) {
  const bool all_taken =
      tp->tp_idle_count == 0 || (tp->tp_qlen > tp->tp_idle_count && !ox_tpool_paused_locked(tp));
  const bool may_start = all_taken && tp->tp_cur_count < tp->tp_max_threads;
  /* A failed start is no error: the job stays queued, and the next call tries again. */
  if (may_start && ox_tpool_start_worker_locked(tp)) {
    (void)ox_unlock(&tp->tp_lock);
  } else {
    ox_native_cv_wake_one_and_unlock(&tp->tp_worker_cv, &tp->tp_lock);
  }
}

/* The job that waits with these arguments, or null. */
ox_job_t* find_job_locked(ox_tpool_t* tp, const void* args) {
  OX_ASSERT_HELD(&tp->tp_lock);
  ox_job_t* job = tp->tp_jobq.job_next;
  while (job != &tp->tp_jobq && job->job_args != args) {
    job = job->job_next;
  }
  return job == &tp->tp_jobq ? nullptr : job;
}

/* Locks the pool for a change of `flag`. */
int lock_for_flag(ox_tpool_t* tp, ox_u32 flag) {
  const int rc = ox_lock(&tp->tp_lock);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot lock thread pool to update flag %d", flag);
  }
  return rc;
}

void pause_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  OX_LOG(OX_INFO_LEVEL, 0, "Thread pool [%s] pausing.", tp->tp_name);
  tp->tp_flags |= OX_TPOOL_FL_PAUSE;
}

}  // namespace

OX_STATIC_ASSERT(sizeof(ox_job_t) == 40, "a job is one allocation of 40 bytes");

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
    rouse_worker_and_unlock(tp);
  } else {
    (void)ox_unlock(&tp->tp_lock);
  }
  return rc;
}

int ox_tpool_look_after_job(ox_tpool_t* tp, const void* args) {
  if (ox_tpool_lock(tp) != 0) {
    return 0;
  }
  int rc = 0;
  ox_job_t* const job = find_job_locked(tp, args);
  if (job != nullptr && tp->tp_cur_count == 0 && !ox_tpool_start_worker_locked(tp)) {
    ox_list_unlink(job);
    --tp->tp_qlen;
    ox_free_safe(job);
    rc = OX_ENOMEM;
  }
  (void)ox_unlock(&tp->tp_lock);
  return rc;
}

void ox_tpool_rouse_all_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  ox_native_cv_wake_all(&tp->tp_worker_cv);
  ox_u32 waiting = ox_tpool_stopping_locked(tp) ? 0 : tp->tp_qlen;
  while (waiting > tp->tp_idle_count && tp->tp_cur_count < tp->tp_max_threads &&
         ox_tpool_start_worker_locked(tp)) {
    --waiting;
  }
}

int ox_tpool_pause(ox_tpool_t* tp) {
  const int rc = lock_for_flag(tp, OX_TPOOL_FL_PAUSE);
  if (rc == 0) {
    pause_locked(tp);
    (void)ox_unlock(&tp->tp_lock);
  }
  return rc;
}

int ox_tpool_resume(ox_tpool_t* tp) {
  const int rc = lock_for_flag(tp, OX_TPOOL_FL_PAUSE);
  if (rc != 0) {
    return rc;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Thread pool [%s] resuming.", tp->tp_name);
  tp->tp_flags &= ~ox_u32{OX_TPOOL_FL_PAUSE};
  ox_tpool_rouse_all_locked(tp);
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
  if (lock_for_flag(tp, OX_TPOOL_FL_PAUSE) != 0) {
    return;
  }
  pause_locked(tp);
  ++tp->tp_waiters;
  while (tp->tp_cur_count != tp->tp_idle_count) {
    ox_tpool_wait_for_others_locked(tp);
  }
  --tp->tp_waiters;
  ox_native_cv_wake_all(&tp->tp_pool_cv); /* a destroy may wait for this */
  (void)ox_unlock(&tp->tp_lock);
}

ox_job_notify_t* ox_job_create_notify(void) {
  auto* notify = static_cast<ox_job_notify_t*>(ox_zalloc(sizeof(ox_job_notify_t)));
  if (notify == nullptr) {
    return nullptr;
  }
  if (ox_init_lock(&notify->jn_lock) != 0) {
    ox_free_safe(notify);
    return nullptr;
  }
  ox_native_cv_init(&notify->jn_cv);
  return notify;
}

void ox_signal_job_completion(ox_job_notify_t* notify) {
  if (notify == nullptr) {
    return;
  }
  (void)ox_lock(&notify->jn_lock);
  notify->jn_done = 1;
  ox_native_cv_wake_one_and_unlock(&notify->jn_cv, &notify->jn_lock);
}

void ox_wait_job_completion(ox_job_notify_t* notify) {
  if (notify == nullptr) {
    return;
  }
  (void)ox_lock(&notify->jn_lock);
  while (notify->jn_done == 0) {
    (void)ox_cv_wait(&notify->jn_cv, &notify->jn_lock, nullptr);
  }
  (void)ox_unlock(&notify->jn_lock);
}

void ox_job_destroy_notify(ox_job_notify_t* notify) {
  if (notify == nullptr) {
    return;
  }
  ox_native_cv_destroy(&notify->jn_cv);
  (void)ox_deinit_lock(&notify->jn_lock);
  ox_free_safe(notify);
}
