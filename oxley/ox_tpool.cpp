/*
 * Pools: creation, the global list, limits, drain, abort and destruction.
 */
#include "ox_tpool.h"

#include <cerrno>
#include <cstdio>

#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_native_cv.h"
#include "ox_tpool_internal.h"
#include "ox_util.h"

ox_tpool_t* ox_thread_pool = nullptr;

namespace {

int append_to_list(ox_tpool_t* tp) {
  ox_tpool_t* head = ox_thread_pool;
  const int rc = head != nullptr ? ox_lock(&head->tp_lock) : OX_EINVAL;
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot lock thread pool to add to pool list");
    return rc;
  }
  ox_list_append(head, tp);
  (void)ox_unlock(&head->tp_lock);
  return 0;
}

/* The first pool of the list, taken off it, or null. */
ox_tpool_t* pop_from_list(ox_tpool_t* head) {
  ox_tpool_t* tp = nullptr;
  if (ox_tpool_lock(head) == 0) {
    if (!ox_list_empty(head)) {
      tp = head->tp_next;
      ox_list_unlink(tp);
    }
    (void)ox_unlock(&head->tp_lock);
  }
  return tp;
}

/* The pool's lock and condition variables; logs a failure and leaves nothing. */
bool init_sync(ox_tpool_t* tp) {
  const int rc = ox_init_lock(&tp->tp_lock);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot initialize thread pool lock");
    return false;
  }
  ox_native_cv_init(&tp->tp_worker_cv);
  ox_native_cv_init(&tp->tp_pool_cv);
  return true;
}

void deinit_sync(ox_tpool_t* tp) {
  ox_native_cv_destroy(&tp->tp_worker_cv);
  ox_native_cv_destroy(&tp->tp_pool_cv);
  (void)ox_deinit_lock(&tp->tp_lock);
}

void free_pool(ox_tpool_t* tp) {
  OX_ASSERT(ox_list_empty(&tp->tp_jobq));
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
  ox_list_init(&tp->tp_jobq);
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

/* Runs or drops the jobs that wait although no worker is left. */
void serve_leftovers_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  if (ox_tpool_stopping_locked(tp)) {
    ox_tpool_drop_jobs_locked(tp);
  } else if (tp->tp_max_threads == 0 || !ox_tpool_start_worker_locked(tp)) {
    ox_tpool_work_here_locked(tp);
  }
}

/* Returns when no worker is left and the queue is empty. */
void finish_jobs_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  tp->tp_flags &= ~ox_u32{OX_TPOOL_FL_PAUSE};
  ox_tpool_rouse_all_locked(tp);
  while (tp->tp_cur_count != 0 || !ox_tpool_queue_empty_locked(tp)) {
    if (tp->tp_state == OX_TPOOL_ACTIVE) {
      tp->tp_state = OX_TPOOL_DRAINING;
    }
    if (tp->tp_cur_count == 0) {
      serve_leftovers_locked(tp);
    } else {
      ox_tpool_wait_for_others_locked(tp);
    }
  }
}

/* Returns when every drain and drain_wait is through. Only the destroying call may wait for them:
 * a drain that did so would wait for itself. */
void let_waiters_out_locked(ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  while (tp->tp_waiters != 0) {
    ox_tpool_wait_for_others_locked(tp);
  }
}

void abort_and_unlock(ox_tpool_t* tp) {
  OX_LOG_DEBUG(1, "Aborting thread pool %s", tp->tp_name);
  tp->tp_state = OX_TPOOL_ABORTED;
  ox_native_cv_wake_all(&tp->tp_worker_cv);
  if (tp->tp_cur_count == 0) {
    ox_tpool_drop_jobs_locked(tp);
  }
  ox_tpool_unlock_and_join(tp);
}

/*
 * True for the one call that may abort or destroy the pool, which is then locked. False, without
 * the lock, when the pool was aborted or another call is destroying it, which gets the flags: a
 * STOP hurries a destroy that still works on a long queue.
 */
bool claim_and_lock(ox_tpool_t* tp, ox_u32 flags) {
  if (ox_tpool_lock(tp) != 0) {
    return false;
  }
  const bool destroyed_by_other = tp->tp_closing;
  if (tp->tp_state != OX_TPOOL_ABORTED) {
    tp->tp_flags |= flags;
  }
  if (tp->tp_state == OX_TPOOL_ABORTED || destroyed_by_other) {
    ox_native_cv_wake_all(&tp->tp_worker_cv);
    (void)ox_unlock(&tp->tp_lock);
    return false;
  }
  tp->tp_closing = (flags & OX_TPOOL_FL_ABORT) == 0;
  return true;
}

/* The same. A pool that is to be destroyed leaves the list in the same moment, so that
 * ox_deinit_tpool cannot find a pool that is about to be freed. */
bool claim_unlist_and_lock(ox_tpool_t* tp, ox_u32 flags) {
  ox_tpool_t* head = tp->tp_listed ? ox_thread_pool : nullptr;
  if (head != nullptr && ox_tpool_lock(head) != 0) {
    return false;
  }
  const bool claimed = claim_and_lock(tp, flags);
  if (claimed && tp->tp_closing && ox_list_linked(tp)) {
    ox_list_unlink(tp);
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
      ox_list_init(head);
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
  for (ox_tpool_t* tp = pop_from_list(head); tp != nullptr; tp = pop_from_list(head)) {
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
  tp->tp_flags |= flags & OX_TPOOL_ENDING_FLAGS;
  OX_LOG(OX_INFO_LEVEL, 0, "Draining thread pool %s", tp->tp_name);
  ++tp->tp_waiters;
  finish_jobs_locked(tp);
  --tp->tp_waiters;
  if (tp->tp_state == OX_TPOOL_DRAINING && !tp->tp_closing) {
    tp->tp_state = OX_TPOOL_ACTIVE;
  }
  ox_native_cv_wake_all(&tp->tp_pool_cv); /* a destroy may wait for this */
  (void)ox_unlock(&tp->tp_lock);
}

void ox_destroy_tpool(ox_tpool_t* tp, ox_u32 flags) {
  flags &= OX_TPOOL_ENDING_FLAGS;
  if (flags == 0) {
    flags = OX_TPOOL_FL_DRAIN;
  }
  if (!claim_unlist_and_lock(tp, flags)) {
    return;
  }
  if ((flags & OX_TPOOL_FL_ABORT) != 0) {
    abort_and_unlock(tp);
    return;
  }
  OX_LOG_DEBUG(1, "Destroying thread pool %s", tp->tp_name);
  finish_jobs_locked(tp);
  let_waiters_out_locked(tp);
  ox_tpool_unlock_and_join(tp);
  free_pool(tp);
}
