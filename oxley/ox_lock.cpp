/*
 * Profiled wrappers over POSIX-thread locks.
 *
 * The statistics of a reader/writer lock are written by every reader at once; relaxed atomic
 * access keeps that defined. It orders nothing and must not: profiling never changes the locking.
 * The log facility below the warnings uses none of these locks, so a warning cannot recurse.
 */
#include "ox_lock.h"

#include <atomic>

#include "ox_logging.h"
#include "ox_time.h"

namespace {

constexpr ox_s32 profiling_level = 3;
constexpr ox_u64 long_wait_usecs = 1000;
constexpr ox_u64 long_hold_usecs = 1000000;

template <typename T>
T load(T& value) {
  return std::atomic_ref<T>(value).load(std::memory_order_relaxed);
}

template <typename T>
void store(T& value, T to) {
  std::atomic_ref<T>(value).store(to, std::memory_order_relaxed);
}

bool profiling() { return load(ox_prof_level) >= profiling_level; }

void stamp(ox_lock_stat_t& stat) {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  store(stat.lst_acquired.tv_sec, now.tv_sec);
  store(stat.lst_acquired.tv_nsec, now.tv_nsec);
}

ox_u64 usecs_since_stamp(ox_lock_stat_t& stat) {
  struct timespec start = {};
  start.tv_sec = load(stat.lst_acquired.tv_sec);
  start.tv_nsec = load(stat.lst_acquired.tv_nsec);
  return ox_usecs_since(&start);
}

void note_acquired(const void* lock, ox_lock_stat_t& stat) {
  const ox_u64 waited = usecs_since_stamp(stat);
  store(stat.lst_acq_usecs, waited);
  if (waited > long_wait_usecs) {
    /* "acqusition" is spelled so on purpose: log searches look for it. */
    OX_LOG(OX_WARN_LEVEL, 0, "Lock acqusition %p took %llu usec", lock,
           static_cast<unsigned long long>(waited));
  }
}

void note_release(const void* lock, ox_lock_stat_t& stat) {
  const ox_u64 held = usecs_since_stamp(stat);
  if (held > long_hold_usecs) {
    OX_LOG(OX_WARN_LEVEL, 0, "Lock held %p for %llu usec", lock,
           static_cast<unsigned long long>(held));
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
  return result;
}

template <typename Lock, typename Release>
int profiled_release(Lock* l, Release release) {
  if (profiling()) {
    note_release(l, l->lck_stat);
  }
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
  }
  return result;
}

int ox_unlock(ox_lock_t* l) { return profiled_release(l, pthread_mutex_unlock); }

int ox_init_cv(pthread_cond_t* cv) { return pthread_cond_init(cv, nullptr); }

int ox_deinit_cv(pthread_cond_t* cv) { return pthread_cond_destroy(cv); }

int ox_init_rwlock(ox_rwlock_t* l) {
  l->lck_stat = {};
  return pthread_rwlock_init(&l->lck_lock, nullptr);
}

int ox_deinit_rwlock(ox_rwlock_t* l) { return pthread_rwlock_destroy(&l->lck_lock); }

int ox_rwlock_excl(ox_rwlock_t* l) { return profiled_acquire(l, pthread_rwlock_wrlock); }

int ox_rwlock_shared(ox_rwlock_t* l) { return profiled_acquire(l, pthread_rwlock_rdlock); }

int ox_rwlock_tryexcl(ox_rwlock_t* l) { return pthread_rwlock_trywrlock(&l->lck_lock); }

int ox_rwunlock(ox_rwlock_t* l) { return profiled_release(l, pthread_rwlock_unlock); }
