/*
 * Pools: creation, the global list, limits, drain, abort and destruction.
 */
#include "ox_tpool.h"

#include <cerrno>
#include <cstdio>

#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_tpool_internal.h"
#include "ox_util.h"

ox_tpool_t* ox_thread_pool = nullptr;

namespace {

void make_queue_empty(ox_tpool_t* tp) {
  tp->tp_jobq.job_next = tp->tp_jobq.job_prev = &tp->tp_jobq;
}

void point_at_itself(ox_tpool_t* tp) { tp->tp_next = tp->tp_prev = tp; }

/* Wants the list's lock held. Does nothing to a pool that is on no list. */
void unlink_pool(ox_tpool_t* tp) {
  tp->tp_prev->tp_next = tp->tp_next;
  tp->tp_next->tp_prev = tp->tp_prev;
  point_at_itself(tp);
}

int append_to_list(ox_tpool_t* tp) {
  ox_tpool_t* head = ox_thread_pool;
  const int rc = head != nullptr ? ox_lock(&head->tp_lock) : OX_EINVAL;
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot lock thread pool to add to pool list");
    return rc;
  }
  tp->tp_next = head;
  tp->tp_prev = head->tp_prev;
  head->tp_prev->tp_next = tp;
  head->tp_prev = tp;
  (void)ox_unlock(&head->tp_lock);
  return 0;
}

/* The first pool of the list, taken off it, or null. */
ox_tpool_t* pop_from_list(ox_tpool_t* head) {
  ox_tpool_t* tp = nullptr;
  if (ox_tpool_lock(head) == 0) {
    if (head->tp_next != head) {
      tp = head->tp_next;
      unlink_pool(tp);
    }
    (void)ox_unlock(&head->tp_lock);
  }
  return tp;
}

bool init_condition_variables(ox_tpool_t* tp) {
  int rc = ox_init_cv(&tp->tp_worker_cv);
  if (rc == 0) {
    rc = ox_init_cv(&tp->tp_pool_cv);
    if (rc != 0) {
      (void)ox_deinit_cv(&tp->tp_worker_cv);
    }
  }
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot initialize thread pool condition variable");
  }
  return rc == 0;
}

/* The pool's lock and condition variables; logs a failure and leaves nothing. */
bool init_sync(ox_tpool_t* tp) {
  const int rc = ox_init_lock(&tp->tp_lock);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot initialize thread pool lock");
    return false;
  }
  if (!init_condition_variables(tp)) {
    (void)ox_deinit_lock(&tp->tp_lock);
    return false;
  }
  return true;
}

void deinit_sync(ox_tpool_t* tp) {
  (void)ox_deinit_cv(&tp->tp_worker_cv);
  (void)ox_deinit_cv(&tp->tp_pool_cv);
  (void)ox_deinit_lock(&tp->tp_lock);
}

void free_pool(ox_tpool_t* tp) {
  OX_ASSERT(ox_tpool_queue_empty_locked(tp));
  deinit_sync(tp);
  ox_tpool_free_blocks(tp);
  ox_free_safe(tp);
}

/* Blocks, lock and condition variables of a zeroed pool; leaves nothing on a failure. */
bool init_parts(ox_tpool_t* tp, ox_u32 stat_size, ox_u32 priv_size, ox_u32 max_threads) {
  if (!ox_tpool_init_blocks(tp, stat_size, priv_size, max_threads)) {
    return false;
  }
  if (!init_sync(tp)) {
    ox_tpool_free_blocks(tp);
    return false;
  }
  return true;
}

ox_tpool_t* zalloc_pool(const char* name) {
  auto* tp = static_cast<ox_tpool_t*>(ox_zalloc(sizeof(ox_tpool_t)));
  if (tp == nullptr) {
    OX_LOG(OX_ERROR_LEVEL, errno, "cannot allocate %zu bytes for creating thread pool",
           sizeof(ox_tpool_t));
    return nullptr;
  }
  (void)snprintf(tp->tp_name, sizeof(tp->tp_name), "%s", name);
  make_queue_empty(tp);
  point_at_itself(tp);
  return tp;
}

ox_tpool_t* create(const char* name, ox_tpool_init_func_t init_func,
                   ox_tpool_deinit_func_t deinit_func, ox_u32 stat_size, ox_u32 priv_size,
                   ox_u32 min_threads, ox_u32 max_threads, bool listed) {
  ox_tpool_t* tp = zalloc_pool(name);
  if (tp == nullptr) {
    return nullptr;
  }
  if (!init_parts(tp, stat_size, priv_size, max_threads)) {
    ox_free_safe(tp);
    return nullptr;
  }
  tp->tp_init_func = init_func;
  tp->tp_deinit_func = deinit_func;
  tp->tp_min_threads = min_threads;
  tp->tp_max_threads = max_threads;
  tp->tp_flags = listed ? 0 : OX_TPOOL_FL_EXTERNAL;
  tp->tp_listed = listed;
  tp->tp_state = OX_TPOOL_ACTIVE;
  if (listed && append_to_list(tp) != 0) {
    free_pool(tp);
    return nullptr;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Thread pool [%s] created.", tp->tp_name);
  return tp;
}

/* Jobs wait and no worker is left: nobody else would run or drop them. */
void serve_leftovers(ox_tpool_t* tp) {
  if (ox_tpool_stopping_locked(tp)) {
    ox_tpool_drop_jobs_locked(tp);
  } else if (tp->tp_max_threads == 0 || !ox_tpool_start_worker_locked(tp)) {
    ox_tpool_work_here_locked(tp);
  }
}

/* Until no worker is left, the queue is empty and, at the end of a pool, nobody else waits. */
void finish_locked(ox_tpool_t* tp) {
  tp->tp_flags &= ~ox_u32{OX_TPOOL_FL_PAUSE};
  (void)pthread_cond_broadcast(&tp->tp_worker_cv);
  while (tp->tp_cur_count != 0 || !ox_tpool_queue_empty_locked(tp) ||
         (tp->tp_closing && tp->tp_waiters != 0)) {
    if (tp->tp_state == OX_TPOOL_ACTIVE) {
      tp->tp_state = OX_TPOOL_DRAINING;
    }
    if (tp->tp_cur_count == 0 && !ox_tpool_queue_empty_locked(tp)) {
      serve_leftovers(tp);
    } else {
      ox_tpool_wait_for_workers_locked(tp);
    }
  }
}

void abort_and_unlock(ox_tpool_t* tp) {
  OX_LOG_DEBUG(1, "Aborting thread pool %s", tp->tp_name);
  tp->tp_state = OX_TPOOL_ABORTED;
  (void)pthread_cond_broadcast(&tp->tp_worker_cv);
  if (tp->tp_cur_count == 0) {
    ox_tpool_drop_jobs_locked(tp);
  }
  ox_tpool_unlock_and_join(tp);
}

/* True, with the pool locked, for the one call that may abort or destroy it: a pool that was
 * aborted, or that another call is destroying, is left alone. */
bool claim_locked(ox_tpool_t* tp, ox_u32 flags) {
  if (ox_tpool_lock(tp) != 0) {
    return false;
  }
  if (tp->tp_state == OX_TPOOL_ABORTED || tp->tp_closing) {
    (void)ox_unlock(&tp->tp_lock);
    return false;
  }
  tp->tp_flags |= flags;
  tp->tp_closing = (flags & OX_TPOOL_FL_ABORT) == 0;
  return true;
}

/* Claims a pool and, unless it is only aborted, takes it off the list in the same moment, so that
 * ox_deinit_tpool cannot find a pool that is about to be freed. */
bool claim_and_unlist(ox_tpool_t* tp, ox_u32 flags) {
  ox_tpool_t* head = tp->tp_listed ? ox_thread_pool : nullptr;
  if (head != nullptr && ox_tpool_lock(head) != 0) {
    return false;
  }
  const bool claimed = claim_locked(tp, flags);
  if (claimed && tp->tp_closing) {
    unlink_pool(tp);
  }
  if (head != nullptr) {
    (void)ox_unlock(&head->tp_lock);
  }
  return claimed;
}

}  // namespace

int ox_tpool_lock(ox_tpool_t* tp) {
  const int rc = ox_lock(&tp->tp_lock);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot lock thread pool %p:%s", static_cast<void*>(tp),
           tp->tp_name);
  }
  return rc;
}

int ox_init_tpool(void) {
  static pthread_mutex_t once = PTHREAD_MUTEX_INITIALIZER;
  (void)pthread_mutex_lock(&once);
  int rc = 0;
  if (ox_thread_pool == nullptr) {
    ox_tpool_t* head = zalloc_pool("");
    rc = head != nullptr ? ox_init_lock(&head->tp_lock) : OX_ENOMEM;
    if (rc == 0) {
      ox_thread_pool = head;
    } else {
      ox_free_safe(head);
    }
  }
  (void)pthread_mutex_unlock(&once);
  return rc;
}

void ox_deinit_tpool(ox_u32 flags) {
  ox_tpool_t* head = ox_thread_pool;
  if (head == nullptr) {
    return;
  }
  while (ox_tpool_t* tp = pop_from_list(head)) {
    ox_destroy_tpool(tp, flags);
  }
  ox_thread_pool = nullptr;
  (void)ox_deinit_lock(&head->tp_lock);
  ox_free_safe(head);
}

ox_tpool_t* ox_tpool_create(const char* name, ox_tpool_init_func_t init_func,
                            ox_tpool_deinit_func_t deinit_func, ox_u32 stat_size, ox_u32 priv_size,
                            ox_u32 min_threads, ox_u32 max_threads) {
  return create(name, init_func, deinit_func, stat_size, priv_size, min_threads, max_threads, true);
}

ox_tpool_t* ox_tpool_create_external(const char* name, ox_tpool_init_func_t init_func,
                                     ox_tpool_deinit_func_t deinit_func, ox_u32 stat_size,
                                     ox_u32 priv_size, ox_u32 min_threads, ox_u32 max_threads) {
  return create(name, init_func, deinit_func, stat_size, priv_size, min_threads, max_threads,
                false);
}

void ox_update_tpool_threads(ox_tpool_t* tp, ox_u32 min_threads, ox_u32 max_threads) {
  if (ox_tpool_lock(tp) != 0) {
    return;
  }
  tp->tp_min_threads = min_threads;
  tp->tp_max_threads = max_threads;
  (void)ox_unlock(&tp->tp_lock);
}

void ox_drain_tpool(ox_tpool_t* tp, ox_u32 flags) {
  if (ox_tpool_lock(tp) != 0) {
    return;
  }
  if (tp->tp_state == OX_TPOOL_DRAINING) {
    (void)ox_unlock(&tp->tp_lock);
    return;
  }
  tp->tp_flags |= flags & ox_tpool_ending_flags;
  OX_LOG(OX_INFO_LEVEL, 0, "Draining thread pool %s", tp->tp_name);
  ++tp->tp_waiters;
  finish_locked(tp);
  --tp->tp_waiters;
  if (tp->tp_state == OX_TPOOL_DRAINING && !tp->tp_closing) {
    tp->tp_state = OX_TPOOL_ACTIVE;
  }
  (void)pthread_cond_broadcast(&tp->tp_pool_cv); /* a destroy may wait for this call's end */
  (void)ox_unlock(&tp->tp_lock);
}

void ox_destroy_tpool(ox_tpool_t* tp, ox_u32 flags) {
  flags &= ox_tpool_ending_flags;
  if (flags == 0) {
    flags = OX_TPOOL_FL_DRAIN;
  }
  if (!claim_and_unlist(tp, flags)) {
    return;
  }
  if ((flags & OX_TPOOL_FL_ABORT) != 0) {
    abort_and_unlock(tp);
    return;
  }
  OX_LOG_DEBUG(1, "Destroying thread pool %s", tp->tp_name);
  finish_locked(tp);
  ox_tpool_unlock_and_join(tp);
  free_pool(tp);
}
