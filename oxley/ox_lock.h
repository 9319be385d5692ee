/**
 * @file
 * @ingroup portability
 * Mutexes and condition variables over POSIX threads (winpthreads on Windows), reader/writer locks
 * without kernel objects, with contention profiling, and byte-range locks on file descriptors.
 *
 * Profiling: when ox_prof_level is 3 or more, two things are logged as warnings: an acquisition
 * that waited more than 1000 us, and a hold of more than 1 s. A hold counts from the moment when
 * its acquisition began, so that it shows how long the caller was busy with the lock. Below level 3
 * a wrapper costs one comparison beyond the lock itself and leaves the statistics as they are. A
 * lock without statistics (it was never taken at level 3, nor by ox_trylock) is not reported.
 *
 * A lock must be initialised with its own init call: a zero-filled reader/writer lock refuses
 * every call with 22. All calls return 0 or a POSIX error number, unless said otherwise.
 */
#ifndef OX_LOCK_H
#define OX_LOCK_H

#if !defined(_WIN32) || defined(__MINGW32__)
#include <pthread.h>
#endif
#include <time.h>

#include "ox_types.h"

OX_BEGIN_DECLS

/**
 * The POSIX objects in the records below. A compiler for Windows that has no POSIX threads sees
 * opaque objects of the same size, which it leaves to the calls of this library.
 */
#if !defined(_WIN32) || defined(__MINGW32__)
typedef pthread_mutex_t ox_posix_mutex_t;
typedef pthread_cond_t ox_posix_cond_t; /**< a condition variable, see ox_posix_mutex_t */
typedef pthread_t ox_posix_thread_t;    /**< a thread, see ox_posix_mutex_t */
#else
typedef ox_u64 ox_posix_mutex_t;
typedef ox_u64 ox_posix_cond_t;
typedef ox_u64 ox_posix_thread_t;
#endif

/** Only the calls below use the fields. */
#ifdef _WIN32
typedef struct ox_native_rwlock {
  ox_u32 nrw_word; /**< who holds the lock, and whether somebody waits */
  ox_u32 nrw_mark; /**< that it was initialised */
} ox_native_rwlock_t;

/** The condition variable of pools. */
typedef struct ox_native_cv {
  ox_u64 ncv_wakes; /**< how many wakes there were */
} ox_native_cv_t;
#else
typedef pthread_rwlock_t ox_native_rwlock_t;
typedef pthread_cond_t ox_native_cv_t;
#endif

/** The acquiring thread writes it, the releasing one reads it. With shared holders it is a hint. */
typedef struct ox_lock_stat {
  ox_u64 lst_acq_usecs;         /**< how long the last acquisition waited, in microseconds */
  struct timespec lst_acquired; /**< real-time clock when the last acquisition began */
} ox_lock_stat_t;

/** A mutex. */
typedef struct ox_lock {
  ox_posix_mutex_t lck_lock; /**< the lock itself */
  ox_lock_stat_t lck_stat;   /**< its statistics */
} ox_lock_t;

/** A reader/writer lock. */
typedef struct ox_rwlock {
  ox_native_rwlock_t lck_lock; /**< the lock itself */
  ox_lock_stat_t lck_stat;     /**< its statistics */
} ox_rwlock_t;
#ifdef _WIN32
OX_STATIC_ASSERT(sizeof(ox_lock_t) == 32 && sizeof(ox_rwlock_t) == 32,
                 "the same for all compilers");
#endif

int ox_init_lock(ox_lock_t* l);   /**< makes a mutex that nobody holds */
int ox_deinit_lock(ox_lock_t* l); /**< ends a mutex that nobody holds */
int ox_lock(ox_lock_t* l);        /**< waits until it has the mutex */
int ox_trylock(ox_lock_t* l);     /**< success always records lst_acquired; failure leaves it */
int ox_unlock(ox_lock_t* l);      /**< gives the mutex back */

int ox_init_cv(ox_posix_cond_t* cv);   /**< makes a condition variable */
int ox_deinit_cv(ox_posix_cond_t* cv); /**< ends a condition variable on which nobody waits */

int ox_init_rwlock(ox_rwlock_t* l);    /**< makes a lock that nobody holds */
int ox_deinit_rwlock(ox_rwlock_t* l);  /**< ends a lock that nobody holds */
int ox_rwlock_excl(ox_rwlock_t* l);    /**< waits until it holds the lock alone */
int ox_rwlock_shared(ox_rwlock_t* l);  /**< waits until it holds the lock with other readers */
int ox_rwlock_tryexcl(ox_rwlock_t* l); /**< never waits; keeps no statistics */
int ox_rwunlock(ox_rwlock_t* l);       /**< either mode */

/**
 * Byte-range locks by LockFileEx and UnlockFileEx, on a descriptor of this library's own runtime:
 * one from ox_open or ox_creat (ox_platform.h). `flags` are Windows lock flags: 0x2 exclusive, 0x1
 * fail at once. `overlapped` is the caller's OVERLAPPED; its offset is the range's start. True on
 * success; on failure false, errno set and an ERROR line. ox_flock locks the whole file and returns
 * 0 or -1; there is no unlock form: close the descriptor. Unlike POSIX flock these locks are
 * mandatory and belong to the handle.
 */
bool ox_lock_file(int fd, ox_u32 flags, ox_u32 bytes_low, ox_u32 bytes_high, void* overlapped);
/** Gives back a range that ox_lock_file has locked. */
bool ox_unlock_file(int fd, ox_u32 bytes_low, ox_u32 bytes_high, void* overlapped);
/** Locks a whole file, see ox_lock_file. */
int ox_flock(int fd, ox_u32 flags);

/** @cond NOT_EXPORTED */
/* ------------------------------------------------------------------- not exported */

/*
 * Waits on a condition variable with the lock held. `deadline` is a time of the real-time clock, or
 * null for a wait without limit. True when woken, false at the deadline. The wait ends one hold of
 * the lock and begins another: with profiling on, lst_acquired is set anew.
 */
bool ox_cv_wait(ox_native_cv_t* cv, ox_lock_t* l, const struct timespec* deadline);

/*
 * OX_ASSERT_HELD(lock) is the first line of a function that wants its caller to hold the lock. It
 * works in debug builds (no NDEBUG), which note the locks of each thread; other builds have none of
 * it. A reader/writer lock may be held in either mode. Include ox_assert.h, too.
 * OX_ASSERT_EITHER_HELD is for a function to which one of two locks is enough.
 */
#ifdef NDEBUG
#define OX_ASSERT_HELD(lock) ((void)(lock))
#define OX_ASSERT_EITHER_HELD(a, b) ((void)(a), (void)(b))
#else
bool ox_lock_is_held(const void* lock);
#define OX_ASSERT_HELD(lock) OX_ASSERT(ox_lock_is_held(lock))
#define OX_ASSERT_EITHER_HELD(a, b) OX_ASSERT(ox_lock_is_held(a) || ox_lock_is_held(b))
#endif

/** @endcond */

OX_END_DECLS

#endif
