/*
 * Profiled wrappers over POSIX threads' mutexes and the system's reader/writer lock.
 *
 * Several readers write the statistics of a reader/writer lock at once. Relaxed atomic access keeps
 * that defined. It orders nothing and must not: profiling never changes the locking.
 *
 * The log below the warnings uses none of these locks, so a warning cannot call itself.
 */
#include "ox_lock.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "ox_assert.h"
#include "ox_logging.h"
#include "ox_native_cv.h"
#include "ox_native_rwlock.h"
#include "ox_time.h"

namespace {

constexpr ox_s32 PROFILING_LEVEL = 3;
constexpr ox_u64 LONG_WAIT_USECS = 1000;
constexpr ox_u64 LONG_HOLD_USECS = 1000000;

#ifdef NDEBUG
void note_held(const void*) {}
void note_given_up(const void*) {}
#else
/* The locks that the thread holds; a lock that it holds twice (shared) stands there twice. */
struct HeldLocks {
  const void* locks[16];
  size_t count;
  const void** end() { return locks + count; }
  const void** find(const void* lock) { return std::find(locks, end(), lock); }
};
thread_local HeldLocks held;

void note_held(const void* lock) {
  OX_ASSERT(held.count < std::size(held.locks));
  held.locks[held.count++] = lock;
}

void note_given_up(const void* lock) {
  OX_ASSERT(ox_lock_is_held(lock));
  *held.find(lock) = held.locks[--held.count];
}
#endif

template <typename T>
T load(T& value) {
  return std::atomic_ref<T>(value).load(std::memory_order_relaxed);
}

template <typename T>
void store(T& value, T to) {
  std::atomic_ref<T>(value).store(to, std::memory_order_relaxed);
}

bool profiling() { return load(ox_prof_level) >= PROFILING_LEVEL; }

void stamp(ox_lock_stat_t& stat) {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  store(stat.lst_acquired.tv_sec, now.tv_sec);
  store(stat.lst_acquired.tv_nsec, now.tv_nsec);
}

/* 0 for a lock that was never stamped: it was taken before profiling was on, or by a call that
 * keeps no statistics. */
ox_u64 usecs_since_stamp(ox_lock_stat_t& stat) {
  struct timespec start = {};
  start.tv_sec = load(stat.lst_acquired.tv_sec);
  start.tv_nsec = load(stat.lst_acquired.tv_nsec);
  return start.tv_sec != 0 ? ox_usecs_since(&start) : 0;
}

void note_acquired(const void* lock, ox_lock_stat_t& stat) {
  const ox_u64 waited = usecs_since_stamp(stat);
  store(stat.lst_acq_usecs, waited);
  if (waited > LONG_WAIT_USECS) {
    /* "acqusition" is spelled so because those who search logs look for it. */
    OX_LOG(OX_WARN_LEVEL, 0, "Lock acqusition %p took %llu usec", lock,
           static_cast<unsigned long long>(waited));
  }
}

void note_release(const void* lock, ox_lock_stat_t& stat) {
  const ox_u64 held_for = usecs_since_stamp(stat);
  if (held_for > LONG_HOLD_USECS) {
    OX_LOG(OX_WARN_LEVEL, 0, "Lock held %p for %llu usec", lock,
           static_cast<unsigned long long>(held_for));
  }
}

/* The level is read again after the wait: it may have been raised meanwhile. */
template <typename Lock, typename Acquire>
int profiled_acquire(Lock* l, Acquire acquire) {
  if (profiling()) {
    stamp(l->lck_stat);
  }
  const int result = acquire(&l->lck_lock);
  if (profiling()) {
    note_acquired(l, l->lck_stat);
  }
  if (result == 0) {
    note_held(l);
  }
  return result;
}

template <typename Lock, typename Release>
int profiled_release(Lock* l, Release release) {
  if (profiling()) {
    note_release(l, l->lck_stat);
  }
  note_given_up(l);
  return release(&l->lck_lock);
}

}  // namespace

int ox_init_lock(ox_lock_t* l) {
  l->lck_stat = {};
  return pthread_mutex_init(&l->lck_lock, nullptr);
}

int ox_deinit_lock(ox_lock_t* l) { return pthread_mutex_destroy(&l->lck_lock); }

int ox_lock(ox_lock_t* l) { return profiled_acquire(l, pthread_mutex_lock); }

int ox_trylock(ox_lock_t* l) {
  const int result = pthread_mutex_trylock(&l->lck_lock);
  if (result == 0) {
    stamp(l->lck_stat);
    note_held(l);
  }
  return result;
}

int ox_unlock(ox_lock_t* l) { return profiled_release(l, pthread_mutex_unlock); }

int ox_init_cv(pthread_cond_t* cv) { return pthread_cond_init(cv, nullptr); }

int ox_deinit_cv(pthread_cond_t* cv) { return pthread_cond_destroy(cv); }

int ox_init_rwlock(ox_rwlock_t* l) {
  l->lck_stat = {};
  return ox_native_rwlock_init(&l->lck_lock);
}

int ox_deinit_rwlock(ox_rwlock_t* l) { return ox_native_rwlock_destroy(&l->lck_lock); }

int ox_rwlock_excl(ox_rwlock_t* l) { return profiled_acquire(l, ox_native_rwlock_excl); }

int ox_rwlock_shared(ox_rwlock_t* l) { return profiled_acquire(l, ox_native_rwlock_shared); }

int ox_rwlock_tryexcl(ox_rwlock_t* l) {
  const int result = ox_native_rwlock_tryexcl(&l->lck_lock);
  if (result == 0) {
    note_held(l);
  }
  return result;
}

int ox_rwunlock(ox_rwlock_t* l) { return profiled_release(l, ox_native_rwlock_unlock); }

bool ox_cv_wait(ox_native_cv_t* cv, ox_lock_t* l, const struct timespec* deadline) {
  OX_ASSERT_HELD(l);
  const bool woken = ox_native_cv_wait(cv, &l->lck_lock, deadline);
  if (profiling()) {
    stamp(l->lck_stat);
  }
  return woken;
}

#ifndef NDEBUG
bool ox_lock_is_held(const void* lock) { return held.find(lock) != held.end(); }
#endif
