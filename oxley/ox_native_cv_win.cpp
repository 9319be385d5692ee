/*
 * The condition variable of Windows builds: a count of the wakes, and the system's waits on an
 * address.
 *
 * A thread remembers the count while it has the lock, and sleeps only while the count is the same.
 * So a wake that comes between its unlocking and its sleep is not lost.
 */
#include "ox_native_cv.h"

#include <windows.h>

#include <algorithm>
#include <atomic>

#include "ox_time.h"

namespace {

constexpr ox_s64 MS_PER_SECOND = 1000;
constexpr ox_s64 NS_PER_MS = 1000000;
constexpr ox_s64 LONGEST_WAIT_MS = INFINITE - 1;

using Wakes = std::atomic_ref<ox_u64>;

/* Rounded up, so that a wait does not end before its deadline. */
DWORD ms_until(const struct timespec* deadline) {
  if (deadline == nullptr) {
    return INFINITE;
  }
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  const ox_s64 seconds = std::min<ox_s64>(deadline->tv_sec - now.tv_sec, LONGEST_WAIT_MS);
  const ox_s64 rest = (deadline->tv_nsec - now.tv_nsec + NS_PER_MS - 1) / NS_PER_MS;
  return static_cast<DWORD>(std::clamp<ox_s64>(seconds * MS_PER_SECOND + rest, 0, LONGEST_WAIT_MS));
}

}  // namespace

void ox_native_cv_init(ox_native_cv_t* cv) { *cv = {}; }

void ox_native_cv_destroy(ox_native_cv_t*) {}

void ox_native_cv_wake_all(ox_native_cv_t* cv) {
  Wakes(cv->ncv_wakes).fetch_add(1);
  WakeByAddressAll(&cv->ncv_wakes);
}

/* The wake behind the unlocking uses the address alone: the object may be gone by then. */
void ox_native_cv_wake_one_and_unlock(ox_native_cv_t* cv, ox_lock_t* l) {
  void* const address = &cv->ncv_wakes;
  Wakes(cv->ncv_wakes).fetch_add(1);
  (void)ox_unlock(l);
  WakeByAddressSingle(address);
}

bool ox_native_cv_wait(ox_native_cv_t* cv, ox_posix_mutex_t* lock,
                       const struct timespec* deadline) {
  Wakes wakes(cv->ncv_wakes);
  ox_u64 seen = wakes.load();
  const DWORD limit_ms = ms_until(deadline);
  (void)pthread_mutex_unlock(lock);
  WaitOnAddress(&cv->ncv_wakes, &seen, sizeof seen, limit_ms);
  (void)pthread_mutex_lock(lock);
  return wakes.load() != seen;
}
