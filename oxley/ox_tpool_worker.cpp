/*
 * The workers: how one starts, serves the queue, rests and leaves.
 *
 * A worker holds tp_lock except while it waits or runs a job.
 */
#include <chrono>
#include <thread>

#include "ox_logging.h"
#include "ox_native_cv.h"
#include "ox_time.h"
#include "ox_tpool_internal.h"
#include "ox_util.h"

namespace {

constexpr int IDLE_SECONDS = 2;   /* the deadline has no nanoseconds: a wait of 1 to 2 s */
constexpr int WAITER_SECONDS = 3; /* drain and destroy look again after 2 to 3 s, woken or not */

/* What one worker has for its whole life. */
struct Worker {
  int stat_slot;
  int priv_slot;
};

/* Tries until it has the lock: a worker can do nothing without it and has nobody to tell. It waits
 * a little between two tries, since each writes a log line. */
void lock_at_last(ox_tpool_t* tp) {
  while (ox_tpool_lock(tp) != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

/* Wakes drain_wait, which waits until every worker is idle, and drain and destroy, which wait until
 * no worker is left. */
void announce_rest(ox_tpool_t* tp) {
  if (tp->tp_cur_count == tp->tp_idle_count) {
    ox_native_cv_wake_all(&tp->tp_pool_cv);
  }
}

/* Waits once for work and counts as idle meanwhile. False when the deadline has passed. */
bool rest(ox_tpool_t* tp, const struct timespec& deadline) {
  ++tp->tp_idle_count;
  announce_rest(tp);
  const bool woken = ox_cv_wait(&tp->tp_worker_cv, &tp->tp_lock, &deadline);
  --tp->tp_idle_count;
  return woken;
}

bool surplus(const ox_tpool_t* tp) { return tp->tp_cur_count > tp->tp_min_threads; }

/* False when the worker is to leave: the pool is still paused and has more workers than its
 * minimum. */
bool sit_out_pause(ox_tpool_t* tp) {
  OX_LOG_DEBUG(2, "Threadpool [%s] is paused...", tp->tp_name);
  const struct timespec deadline = ox_tpool_deadline(IDLE_SECONDS);
  bool in_time = true;
  while (in_time && ox_tpool_paused_locked(tp) && !ox_tpool_stopping_locked(tp)) {
    in_time = rest(tp, deadline);
  }
  return !ox_tpool_paused_locked(tp) || ox_tpool_stopping_locked(tp) || !surplus(tp);
}

bool draining(const ox_tpool_t* tp) {
  return (tp->tp_flags & OX_TPOOL_FL_DRAIN) != 0 || tp->tp_state == OX_TPOOL_DRAINING;
}

bool nothing_to_do(const ox_tpool_t* tp) {
  return ox_tpool_queue_empty_locked(tp) && !ox_tpool_paused_locked(tp) &&
         !ox_tpool_stopping_locked(tp) && !draining(tp);
}

/*
 * False when the worker is to leave. While the pool drains, every worker leaves as soon as the
 * queue is empty. A surplus worker that waited first would hold up the draining caller for two
 * seconds. When a job that still runs queues another one, it starts a worker for it.
 */
bool wait_for_job(ox_tpool_t* tp) {
  OX_LOG_DEBUG(3, "[%s] Job queue is empty, waiting for jobs...", tp->tp_name);
  if (draining(tp)) {
    OX_LOG_DEBUG(1, "[%s]:Thread exiting... All jobs drained.", tp->tp_name);
    return false;
  }
  const struct timespec deadline = ox_tpool_deadline(IDLE_SECONDS);
  bool in_time = true;
  while (in_time && nothing_to_do(tp)) {
    in_time = rest(tp, deadline);
  }
  if (ox_tpool_paused_locked(tp)) {
    OX_LOG_DEBUG(1, "Threadpool [%s] is paused...", tp->tp_name);
  }
  return in_time || !nothing_to_do(tp) || !surplus(tp);
}

ox_job_t* unlink_head_job(ox_tpool_t* tp) {
  ox_job_t* job_head = &tp->tp_jobq;
  OX_ASSERT((job_head->job_next != job_head));
  ox_job_t* job = job_head->job_next;
  ox_list_unlink(job);
  --tp->tp_qlen;
  return job;
}

void run_job(ox_tpool_t* tp, const Worker& self) {
  ox_job_t* job = unlink_head_job(tp);
  if (tp->tp_init_func != nullptr) {
    tp->tp_init_func(tp->tp_name, job->job_args);
  }
  (void)ox_unlock(&tp->tp_lock);
  (void)job->job_func(job->job_args, ox_tpool_stat_block(tp, self.stat_slot),
                      ox_tpool_priv_block(tp, self.priv_slot));
  ox_signal_job_completion(job->job_notify);
  if (tp->tp_deinit_func != nullptr) {
    tp->tp_deinit_func(job->job_args);
  }
  ox_free_safe(job);
  lock_at_last(tp);
}

/* Works until the worker is to leave. */
void serve(ox_tpool_t* tp, const Worker& self) {
  for (bool stay = true; stay;) {
    if (ox_tpool_stopping_locked(tp)) {
      ox_tpool_drop_jobs_locked(tp);
      OX_LOG_DEBUG(3, "Thread exiting...");
      stay = false;
    } else if (ox_tpool_paused_locked(tp)) {
      stay = sit_out_pause(tp);
    } else if (ox_tpool_queue_empty_locked(tp)) {
      stay = wait_for_job(tp);
    } else {
      run_job(tp, self);
    }
  }
}

/* A worker's life between the count up, which its starter did, and the count down. */
void live_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  const Worker self = {ox_getstat_slot(tp), ox_getpriv_slot(tp)};
  serve(tp, self);
  --tp->tp_cur_count;
  ox_putstat_slot(tp, self.stat_slot);
  ox_putpriv_slot(tp, self.priv_slot);
  OX_LOG_DEBUG(3, "[%s] Exiting thread cur_count=%d, idle_count=%d", tp->tp_name, tp->tp_cur_count,
               tp->tp_idle_count);
  announce_rest(tp);
}

/*
 * The leaving thread becomes the pool's last leaver and joins the one before it. So whoever joins
 * the last leaver has joined them all: a destroy knows that the threads have ended, and at most one
 * ended thread of a pool is left to join. Nobody joins the threads of an aborted pool, so they
 * detach.
 */
void leave_and_unlock(ox_tpool_t* tp) {
  const bool had_leaver = tp->tp_has_leaver;
  const pthread_t leaver = tp->tp_leaver;
  tp->tp_has_leaver = tp->tp_state != OX_TPOOL_ABORTED;
  tp->tp_leaver = pthread_self();
  if (!tp->tp_has_leaver) {
    (void)pthread_detach(pthread_self());
  }
  (void)ox_unlock(&tp->tp_lock);
  if (had_leaver) {
    (void)pthread_join(leaver, nullptr);
  }
}

void* worker_main(void* arg) {
  auto* tp = static_cast<ox_tpool_t*>(arg);
  const int rc = ox_pthread_setname_np(tp->tp_name);
  if (rc != 0) {
    OX_LOG(OX_WARN_LEVEL, rc, "cannot name a thread [%s]", tp->tp_name);
  }
  lock_at_last(tp);
  live_locked(tp);
  leave_and_unlock(tp);
  return nullptr;
}

}  // namespace

struct timespec ox_tpool_deadline(int seconds) {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  now.tv_sec += seconds;
  now.tv_nsec = 0;
  return now;
}

/* They wait on a condition variable of their own: on tp_worker_cv they would sometimes take the one
 * signal that a queueing call sends to a worker. */
void ox_tpool_wait_for_others_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  const struct timespec deadline = ox_tpool_deadline(WAITER_SECONDS);
  (void)ox_cv_wait(&tp->tp_pool_cv, &tp->tp_lock, &deadline);
}

bool ox_tpool_start_worker_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  ++tp->tp_cur_count;
  OX_LOG_DEBUG(3, "[%s] Creating new Thread: cur_count=%d", tp->tp_name, tp->tp_cur_count);
  pthread_t thread;
  const int rc = pthread_create(&thread, nullptr, worker_main, tp);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot create thread");
    --tp->tp_cur_count;
  }
  return rc == 0;
}

void ox_tpool_work_here_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  ++tp->tp_cur_count;
  live_locked(tp);
}

void ox_tpool_drop_jobs_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  while (!ox_tpool_queue_empty_locked(tp)) {
    ox_free_safe(unlink_head_job(tp));
  }
  OX_ASSERT(tp->tp_qlen == 0);
}

void ox_tpool_unlock_and_join(ox_tpool_t* tp) {
  const bool had_leaver = tp->tp_has_leaver;
  const pthread_t leaver = tp->tp_leaver;
  tp->tp_has_leaver = false;
  (void)ox_unlock(&tp->tp_lock);
  if (had_leaver) {
    (void)pthread_join(leaver, nullptr);
  }
}
