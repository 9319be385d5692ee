/**
 * @file
 * @ingroup portability
 * Thread pool: workers that come with work and go when idle, an unbounded job queue, private
 * blocks per worker slot, pausing, draining, aborting and destruction.
 *
 * Locks, in the order in which they may be nested: the tp_lock of the global list head guards the
 * list links; the tp_lock of a pool guards its queue, counts, flags and state; each of the two slot
 * bitmaps has its own lock. Jobs and deinit functions run without a lock. The init function runs
 * under tp_lock and must not call back into any pool.
 *
 * Any thread may call, but the caller sees to three things:
 *  - ox_init_tpool comes before every other call on listed pools, ox_deinit_tpool after them.
 *  - A call on a pool has returned before the pool is destroyed. A drain or a drain_wait may also
 *    wait still: the destroy lets it finish first.
 *  - A pool's own job does not drain, drain-wait or destroy its pool, since it would wait for
 *    itself. It may abort the pool.
 */
#ifndef OX_TPOOL_H
#define OX_TPOOL_H

#include "ox_lock.h"
#include "ox_types.h"

OX_BEGIN_DECLS

/** tp_flags bits; also the flags of ox_drain_tpool, ox_destroy_tpool and ox_deinit_tpool. */
enum {
  OX_TPOOL_FL_ABORT = 0x1,    /**< workers leave at once and drop the queue; destroy only aborts */
  OX_TPOOL_FL_STOP = 0x2,     /**< workers leave at once and drop the queue */
  OX_TPOOL_FL_DRAIN = 0x4,    /**< no new jobs from outside; workers finish the queue, then leave */
  OX_TPOOL_FL_PAUSE = 0x8,    /**< workers take no jobs; without effect while the pool is drained */
  OX_TPOOL_FL_EXTERNAL = 0x10 /**< the pool is not on the global list */
};

/** What a pool does: tp_state. */
typedef enum tp_states {
  OX_TPOOL_ACTIVE = 1,
  OX_TPOOL_DRAINING = 2,
  OX_TPOOL_ABORTED = 3
} tp_states;

enum { OX_TPOOL_MAX_SLOTS = 256, OX_TPOOL_NAME_SIZE = 16 };

/**
 * A job. `args` is what was queued; `stats` and `priv` are the running worker's own blocks, or null
 * when it has none. The result is ignored.
 */
typedef void* (*ox_job_func_t)(void* args, void* stats, void* priv);
/** Runs when a worker starts, under the lock of the pool, so it must not call a pool. */
typedef void (*ox_tpool_init_func_t)(const char* pool_name, void* args);
/** Runs when a worker ends, without a lock. */
typedef void (*ox_tpool_deinit_func_t)(void* args);

/** What one caller waits on for one job. jn_lock guards jn_done; there is no reset. */
typedef struct ox_job_notify {
  ox_lock_t jn_lock;    /**< guards jn_done */
  ox_native_cv_t jn_cv; /**< signalled with jn_done */
  ox_s32 jn_done;       /**< 0 until the job has run */
} ox_job_notify_t;

/** A queued job. The queueing call allocates it, the worker that ran or dropped it frees it. */
typedef struct ox_job {
  struct ox_job* job_next;     /**< the pool's tp_lock guards the links */
  struct ox_job* job_prev;     /**< see job_next */
  ox_job_func_t job_func;      /**< what is run */
  void* job_args;              /**< its argument */
  ox_job_notify_t* job_notify; /**< the caller's, or null */
} ox_job_t;

/** Per-worker statistics blocks. Fixed after creation: oxst_stats, oxst_size. */
typedef struct ox_stats {
  ox_lock_t oxst_lock;  /**< guards oxst_slots */
  ox_u64 oxst_slots[4]; /**< bit i: slot i is taken */
  void* oxst_stats;     /**< block count x oxst_size bytes, zeroed once */
  ox_u32 oxst_size;     /**< bytes of a block */
  ox_u32 oxst_pad;      /**< zero */
} ox_stats_t;

/** Per-worker private blocks. Fixed after creation: ox_priv, ox_size. */
typedef struct ox_priv {
  ox_lock_t ox_lock;  /**< guards ox_slots */
  ox_u64 ox_slots[4]; /**< bit i: slot i is taken */
  void* ox_priv;      /**< block count x ox_size bytes, zeroed once */
  ox_u32 ox_size;     /**< bytes of a block */
  ox_u32 ox_pad;      /**< zero */
} ox_priv_t;

/**
 * A pool. Fixed after creation: the two functions, the name, tp_nblocks, tp_listed. The list head's
 * tp_lock guards tp_next and tp_prev, which are null while the pool is on no list. This pool's
 * tp_lock guards everything else from tp_jobq on.
 */
typedef struct ox_tpool {
  struct ox_tpool* tp_next;              /**< links of the global list */
  struct ox_tpool* tp_prev;              /**< see tp_next */
  ox_tpool_init_func_t tp_init_func;     /**< runs when a worker starts */
  ox_tpool_deinit_func_t tp_deinit_func; /**< runs when a worker ends */
  ox_stats_t tp_stats;                   /**< statistics blocks */
  ox_priv_t tp_priv;                     /**< private blocks */
  ox_job_t tp_jobq;                      /**< list head; points at itself when empty */
  ox_lock_t tp_lock;                     /**< the pool's lock */
  ox_native_cv_t tp_worker_cv;           /**< workers wait here for jobs */
  ox_native_cv_t tp_pool_cv;        /**< drain, destroy and drain_wait wait here for the workers */
  char tp_name[OX_TPOOL_NAME_SIZE]; /**< with its NUL */
  ox_u32 tp_min_threads;            /**< so many workers stay when idle */
  ox_u32 tp_max_threads;            /**< the most workers */
  ox_u32 tp_cur_count;              /**< live workers */
  ox_u32 tp_idle_count;             /**< workers that wait */
  ox_u32 tp_flags;                  /**< OX_TPOOL_FL_* */
  ox_u32 tp_qlen;                   /**< jobs that wait */
  ox_u32 tp_state;                  /**< tp_states */
  ox_u32 tp_nblocks;  /**< slots that have blocks: max_threads at creation, at most 256 */
  ox_u32 tp_waiters;  /**< callers inside drain and drain_wait */
  bool tp_listed;     /**< not external */
  bool tp_closing;    /**< ox_destroy_tpool has begun and will free the record */
  bool tp_has_leaver; /**< tp_leaver is a thread to join */
  ox_posix_thread_t
      tp_leaver; /**< the worker that left last; it joins the one that left before it */
} ox_tpool_t;
#ifdef _WIN32
OX_STATIC_ASSERT(sizeof(ox_job_notify_t) == 48, "the same for all compilers");
OX_STATIC_ASSERT(sizeof(ox_tpool_t) == 344, "the same for all compilers");
#endif

/** Creates the global pool list, once; later calls do nothing. 0 or an error number. */
int ox_init_tpool(void);
/** Destroys every pool on the list with `flags`, then frees the list head. With
 * OX_TPOOL_FL_ABORT the pools leave the list and stay allocated. */
void ox_deinit_tpool(ox_u32 flags);

/**
 * A new pool without threads, or null after one ERROR line. `stat_size` and `priv_size` are bytes
 * per worker (0: none); their memory is allocated here and filled with zeroes. The name is cut to
 * 15 characters and names the worker threads, too. ox_destroy_tpool frees the pool. The external
 * form keeps it off the global list.
 *
 * A block array holds max_threads x size bytes as a 32-bit product. Where that product wraps, only
 * the slots that fit into it have blocks; workers beyond them, and beyond slot 256, get null.
 */
ox_tpool_t* ox_tpool_create(const char* name, ox_tpool_init_func_t init_func,
                            ox_tpool_deinit_func_t deinit_func, ox_u32 stat_size, ox_u32 priv_size,
                            ox_u32 min_threads, ox_u32 max_threads);
/** Makes a pool that is not on the global list, see ox_tpool_create. */
ox_tpool_t* ox_tpool_create_external(const char* name, ox_tpool_init_func_t init_func,
                                     ox_tpool_deinit_func_t deinit_func, ox_u32 stat_size,
                                     ox_u32 priv_size, ox_u32 min_threads, ox_u32 max_threads);

/**
 * Queues `func(args, ...)`. 0, or an error, after which the job is not queued: 22 while the pool
 * drains and the caller is not one of its workers (which it tells by the thread's name; a thread
 * whose name is too long to be a worker's, or that has none, is no worker); the error of any other
 * failure to read that name; a lock error; errno after a failed allocation. `notify` may be null;
 * it stays the caller's.
 *
 * The call starts a worker when none is idle, and also when more jobs wait than workers are idle,
 * so that a burst of jobs does not queue up behind one idle worker; there are never more than
 * max_threads. What was queued during a pause starts its workers when the pause ends. A worker that
 * cannot be started is not an error: the next call tries again.
 */
int ox_queue_work(ox_tpool_t* tp, ox_job_notify_t* notify, ox_job_func_t func, void* args);

/** Replaces both limits. Starts and stops no thread. Slots above the first maximum have no blocks.
 */
void ox_update_tpool_threads(ox_tpool_t* tp, ox_u32 min_threads, ox_u32 max_threads);

int ox_tpool_pause(ox_tpool_t* tp);      /**< workers take no more jobs; 0 or a lock error */
int ox_tpool_resume(ox_tpool_t* tp);     /**< they take jobs again; 0 or a lock error */
bool ox_tpool_is_paused(ox_tpool_t* tp); /**< whether the pool is paused */
/** Pauses the pool and returns when every worker is idle, so that no job runs any more. */
void ox_tpool_drain_wait(ox_tpool_t* tp);

/**
 * Sets `flags`, lifts a pause and waits until the queue is empty and no worker is left. Without
 * ABORT and STOP the queued jobs are run: on a new worker if none is left, on the calling thread if
 * none can be started. A call that finds another drain under way returns at once. The pool stays: a
 * caller that clears the flags (in tp_flags, under tp_lock) may queue again.
 */
void ox_drain_tpool(ox_tpool_t* tp, ox_u32 flags);
/**
 * With OX_TPOOL_FL_ABORT: marks the pool aborted and returns. The workers drop the queue and leave
 * on their own. The record is never freed, because workers may use it for as long as their jobs
 * take: it stays on the list, and another destroy of it returns at once.
 *
 * Otherwise: lifts a pause, waits for the workers as ox_drain_tpool does (they run the queued jobs,
 * or drop them with OX_TPOOL_FL_STOP), waits until no other thread is inside a drain or a
 * drain_wait of the pool, and frees it. A second destroy that comes meanwhile only adds its flags,
 * and returns at once: with OX_TPOOL_FL_STOP the queued jobs are then dropped. On return of the
 * first the worker threads have ended, so that their code
 * may be unloaded.
 */
void ox_destroy_tpool(ox_tpool_t* tp, ox_u32 flags);

/** Notifiers: one job each. All accept null and then do nothing. Create returns null on failure. */
ox_job_notify_t* ox_job_create_notify(void);
void ox_signal_job_completion(ox_job_notify_t* notify); /**< what a worker calls after the job */
void ox_wait_job_completion(ox_job_notify_t* notify);   /**< waits until the job has run */
void ox_job_destroy_notify(ox_job_notify_t* notify);    /**< frees a notifier */

OX_END_DECLS

#endif
