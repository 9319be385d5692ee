/*
 * A mutex and a condition for objects that come and go: those of the standard library leave a
 * system object behind for each one that a thread has ever waited for. These have none. They are
 * used like std::mutex and std::condition_variable.
 */
#ifndef SERVICE_SLIM_LOCK_H
#define SERVICE_SLIM_LOCK_H

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <mutex>

namespace tarnd {

class SlimLock {
 public:
  SlimLock() = default;
  SlimLock(const SlimLock&) = delete;
  SlimLock& operator=(const SlimLock&) = delete;

  void lock() { AcquireSRWLockExclusive(&lock_); }
  void unlock() { ReleaseSRWLockExclusive(&lock_); }
  SRWLOCK* native() { return &lock_; }

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
};

class SlimCondition {
  using Clock = std::chrono::steady_clock;

 public:
  SlimCondition() = default;
  SlimCondition(const SlimCondition&) = delete;
  SlimCondition& operator=(const SlimCondition&) = delete;

  void notify_all() { WakeAllConditionVariable(&condition_); }

  template <typename Done>
  void wait(std::unique_lock<SlimLock>& held, Done done) {
    while (!done()) {
      SleepConditionVariableSRW(&condition_, held.mutex()->native(), INFINITE, 0);
    }
  }
  /* Both tell whether it is done by then. */
  template <typename Done>
  bool wait_for(std::unique_lock<SlimLock>& held, std::chrono::milliseconds time, Done done) {
    return wait_until(held, Clock::now() + time, done);
  }
  template <typename Done>
  bool wait_until(std::unique_lock<SlimLock>& held, Clock::time_point end, Done done) {
    while (!done()) {
      const Clock::time_point now = Clock::now();
      if (now >= end) {
        return false;
      }
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now).count();
      SleepConditionVariableSRW(&condition_, held.mutex()->native(),
                                static_cast<DWORD>(std::min<int64_t>(left, 1'000'000)), 0);
    }
    return true;
  }

 private:
  CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
};

}  // namespace tarnd

#endif
