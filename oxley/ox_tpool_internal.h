/*
 * What the sources of the thread pool share: ox_tpool.cpp (creation, the global list, drain and
 * destruction), ox_tpool_queue.cpp (queueing, pausing), ox_tpool_worker.cpp (the workers) and
 * ox_tpool_slots.cpp (slots and their blocks).
 *
 * Functions whose name ends in _locked are called with the pool's tp_lock held, and return with it
 * held.
 */
#ifndef OX_TPOOL_INTERNAL_H
#define OX_TPOOL_INTERNAL_H

#include "ox_assert.h"
#include "ox_list.h"
#include "ox_tpool.h"

/* The head of the global list, null before ox_init_tpool. It is a whole pool record, of which only
 * the links, tp_lock and the (empty) queue are used. */
extern ox_tpool_t* ox_thread_pool;

/* The flags that a caller of drain and destroy may set. */
constexpr ox_u32 OX_TPOOL_ENDING_FLAGS = OX_TPOOL_FL_ABORT | OX_TPOOL_FL_STOP | OX_TPOOL_FL_DRAIN;

inline bool ox_tpool_queue_empty_locked(const ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  return ox_list_empty(&tp->tp_jobq);
}

/* Whether workers leave at once and drop the queue. */
inline bool ox_tpool_stopping_locked(const ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  return (tp->tp_flags & (OX_TPOOL_FL_ABORT | OX_TPOOL_FL_STOP)) != 0;
}

/* Whether workers take no jobs. A pause that comes during a drain must not keep it from its end. */
inline bool ox_tpool_paused_locked(const ox_tpool_t* tp) {
  OX_ASSERT_HELD(&tp->tp_lock);
  return (tp->tp_flags & OX_TPOOL_FL_PAUSE) != 0 && tp->tp_state != OX_TPOOL_DRAINING;
}

/* Locks the pool; a failure is logged. 0 or an error number. */
int ox_tpool_lock(ox_tpool_t* tp);

/* The current second + `seconds`, nanoseconds 0. */
struct timespec ox_tpool_deadline(int seconds);
/* Waits until a worker came to rest or left, or a caller of drain or drain_wait is through. */
void ox_tpool_wait_for_others_locked(ox_tpool_t* tp);

/* Starts a worker; a failure is logged and leaves the counts as they were. */
bool ox_tpool_start_worker_locked(ox_tpool_t* tp);
/*
 * Wakes the workers at the end of a pause, and starts more when more jobs wait than workers are
 * idle, as a queueing call does outside of a pause.
 */
void ox_tpool_rouse_all_locked(ox_tpool_t* tp);
/*
 * For the caller of ox_queue_work who waits for the job with these arguments: 0 while a worker will
 * run it, or may have run it. When the pool has no worker, and the system starts none, the job is
 * taken off the queue and never runs: OX_ENOMEM. Takes the pool's lock.
 */
int ox_tpool_look_after_job(ox_tpool_t* tp, const void* args);
/* Does a worker's work on the calling thread until a worker would leave. The lock is free while a
 * job runs. */
void ox_tpool_work_here_locked(ox_tpool_t* tp);
/* Frees every queued job unrun; notifiers stay unsignalled. */
void ox_tpool_drop_jobs_locked(ox_tpool_t* tp);
/* Unlocks the pool and returns when the workers that have left so far have ended as threads. */
void ox_tpool_unlock_and_join(ox_tpool_t* tp);

/* Allocates both block arrays and makes their slots free; logs a failure and leaves nothing. */
bool ox_tpool_init_blocks(ox_tpool_t* tp, ox_u32 stat_size, ox_u32 priv_size, ox_u32 max_threads);
void ox_tpool_free_blocks(ox_tpool_t* tp);

/*
 * The lowest free slot among the first min(tp_max_threads, 256), or -1. Putting a slot makes it
 * free again and leaves its block as it is; a negative slot is ignored. Called with tp_lock held.
 */
int ox_getstat_slot(ox_tpool_t* tp);
int ox_getpriv_slot(ox_tpool_t* tp);
void ox_putstat_slot(ox_tpool_t* tp, int slot);
void ox_putpriv_slot(ox_tpool_t* tp, int slot);
/* A slot's block, or null when it has none. */
void* ox_tpool_stat_block(ox_tpool_t* tp, int slot);
void* ox_tpool_priv_block(ox_tpool_t* tp, int slot);

#endif
