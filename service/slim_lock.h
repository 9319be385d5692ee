/*
 * A mutex and a condition that need no system object: those of the standard library make one, or
 * several, for each wait, and leave one behind for each object that a thread has ever waited for.
 * They are used like std::mutex and std::condition_variable, which take their place where the
 * service's parts without a Windows call are tested.
 */
#ifndef SERVICE_SLIM_LOCK_H
#define SERVICE_SLIM_LOCK_H

#include <algorithm>
#include <chrono>
#include <mutex>

#ifdef _WIN32
#include <windows.h>
#else
#include <condition_variable>
#endif

namespace tarnd {

#ifdef _WIN32

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

class SlimWaiters {
 public:
  void notify_one() { WakeConditionVariable(&condition_); }
  void notify_all() { WakeAllConditionVariable(&condition_); }

 protected:
  using Clock = std::chrono::steady_clock;

  void sleep(std::unique_lock<SlimLock>& held) { sleep_ms(held, INFINITE); }
  void sleep_until(std::unique_lock<SlimLock>& held, Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    sleep_ms(held, static_cast<DWORD>(std::clamp<int64_t>(left, 0, 1'000'000)));
  }

 private:
  void sleep_ms(std::unique_lock<SlimLock>& held, DWORD time) {
    SleepConditionVariableSRW(&condition_, held.mutex()->native(), time, 0);
  }

  CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
};

#else

using SlimLock = std::mutex;

class SlimWaiters {
 public:
  void notify_one() { condition_.notify_one(); }
  void notify_all() { condition_.notify_all(); }

 protected:
  using Clock = std::chrono::steady_clock;

  void sleep(std::unique_lock<SlimLock>& held) { condition_.wait(held); }
  void sleep_until(std::unique_lock<SlimLock>& held, Clock::time_point end) {
    condition_.wait_until(held, end);
  }

 private:
  std::condition_variable condition_;
};

#endif

class SlimCondition : public SlimWaiters {
 public:
  SlimCondition() = default;
  SlimCondition(const SlimCondition&) = delete;
  SlimCondition& operator=(const SlimCondition&) = delete;

  /* Both may return before their time: the caller looks again. */
  void wait(std::unique_lock<SlimLock>& held) { sleep(held); }
  void wait_until(std::unique_lock<SlimLock>& held, Clock::time_point end) {
    sleep_until(held, end);
  }

  template <typename Done>
  void wait(std::unique_lock<SlimLock>& held, Done done) {
    while (!done()) {
      sleep(held);
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
      if (Clock::now() >= end) {
        return false;
      }
      sleep_until(held, end);
    }
    return true;
  }
};

}  // namespace tarnd

#endif
