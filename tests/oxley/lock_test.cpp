/*
 * The lock wrappers: results, statistics, and the profiling warnings with their thresholds. Long
 * holds are made by setting the statistics back, not by waiting.
 */
#include "ox_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "log_capture.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_time.h"

namespace {

constexpr size_t timestamp_length = sizeof("[2026-11-16 00:48:16.007 2026] ") - 1;

struct at_profile_level {
  explicit at_profile_level(ox_s32 level) { ox_prof_level = level; }
  ~at_profile_level() { ox_prof_level = 0; }
};

struct mutex {
  mutex() { EXPECT_EQ(0, ox_init_lock(&lock)); }
  ~mutex() { EXPECT_EQ(0, ox_deinit_lock(&lock)); }
  ox_lock_t lock;
};

struct rwlock {
  rwlock() { EXPECT_EQ(0, ox_init_rwlock(&lock)); }
  ~rwlock() { EXPECT_EQ(0, ox_deinit_rwlock(&lock)); }
  ox_rwlock_t lock;
};

struct timespec now_less(time_t seconds, long milliseconds) {
  struct timespec at = {};
  EXPECT_EQ(0, ox_clock_gettime(0, &at));
  at.tv_sec -= seconds;
  at.tv_nsec -= milliseconds * 1000000;
  if (at.tv_nsec < 0) {
    at.tv_nsec += 1000000000;
    --at.tv_sec;
  }
  return at;
}

/* Returns once another thread has begun to acquire and 2 ms have gone by since. */
void wait_out_2ms(ox_lock_stat_t& stat, const struct timespec& unset) {
  std::atomic_ref<time_t> seconds(stat.lst_acquired.tv_sec);
  while (seconds.load() == unset.tv_sec) {
    std::this_thread::yield();
  }
  const struct timespec begun = now_less(0, 0);
  while (ox_usecs_since(&begun) < 2000) {
    std::this_thread::yield();
  }
}

/* The lines' texts, without timestamp, level and source. */
std::vector<std::string> texts(const LogCapture& log) {
  std::vector<std::string> result;
  for (const std::string& line : log.lines()) {
    EXPECT_EQ("WARNING  ox_lock.cpp:", line.substr(timestamp_length, 21));
    result.push_back(line.substr(line.find("Lock")));
  }
  return result;
}

std::string pointer_text(const void* p) {
  char text[32];
  snprintf(text, sizeof(text), "%p", p);
  return text;
}

}  // namespace

TEST(Profiling, WarnsOfALongWait) {
  mutex m;
  rwlock rw;
  const auto hold_mutex = [&] { return pthread_mutex_lock(&m.lock.lck_lock); };
  const auto release_mutex = [&] { return pthread_mutex_unlock(&m.lock.lck_lock); };
  const auto hold_rw = [&] { return ox_rwlock_tryexcl(&rw.lock); };
  const auto release_rw = [&] { return pthread_rwlock_unlock(&rw.lock.lck_lock); };
  const struct {
    const void* lock;
    ox_lock_stat_t& stat;
    std::function<int()> hold, release, acquire;
  } table[] = {
      {&m.lock, m.lock.lck_stat, hold_mutex, release_mutex, [&] { return ox_lock(&m.lock); }},
      {&rw.lock, rw.lock.lck_stat, hold_rw, release_rw, [&] { return ox_rwlock_excl(&rw.lock); }},
      {&rw.lock, rw.lock.lck_stat, hold_rw, release_rw, [&] { return ox_rwlock_shared(&rw.lock); }},
  };
  const at_profile_level profiled(3);
  for (const auto& [lock, stat, hold, release, acquire] : table) {
    LogCapture log;
    ASSERT_EQ(0, hold());
    const struct timespec unset = now_less(1000, 0);
    stat.lst_acquired = unset;
    std::thread waiter([&acquire = acquire, &release = release] {
      EXPECT_EQ(0, acquire());
      EXPECT_EQ(0, release());
    });
    wait_out_2ms(stat, unset);
    EXPECT_EQ(0, release());
    waiter.join();
    EXPECT_GE(stat.lst_acq_usecs, 2000u);
    EXPECT_THAT(texts(log),
                testing::ElementsAre("Lock acqusition " + pointer_text(lock) + " took " +
                                     std::to_string(stat.lst_acq_usecs) + " usec"));
  }
}

TEST(Profiling, WarnsOfAHoldOfMoreThanASecond) {
  LogCapture log;
  mutex m;
  rwlock rw;
  const at_profile_level profiled(3);
  for (const auto& since : {now_less(0, 500), now_less(-3600, 0), now_less(1, 100)}) {
    EXPECT_EQ(0, ox_lock(&m.lock));
    m.lock.lck_stat.lst_acquired = since; /* an hour ahead: the clock was set back, no hold */
    EXPECT_EQ(0, ox_unlock(&m.lock));
  }
  EXPECT_EQ(0, ox_rwlock_shared(&rw.lock));
  rw.lock.lck_stat.lst_acquired = now_less(2, 0);
  EXPECT_EQ(0, ox_rwunlock(&rw.lock));
  using testing::StartsWith;
  EXPECT_THAT(texts(log),
              testing::ElementsAre(StartsWith("Lock held " + pointer_text(&m.lock) + " for 11"),
                                   StartsWith("Lock held " + pointer_text(&rw.lock) + " for 20")));
}

TEST(Profiling, BelowLevel3ReadsNoClockAndSaysNothing) {
  LogCapture log;
  mutex m;
  rwlock rw;
  const at_profile_level unprofiled(2);
  EXPECT_EQ(0, ox_lock(&m.lock));
  EXPECT_EQ(0, ox_unlock(&m.lock));
  EXPECT_EQ(0, ox_rwlock_excl(&rw.lock));
  EXPECT_EQ(0, ox_rwunlock(&rw.lock));
  EXPECT_EQ(0, m.lock.lck_stat.lst_acquired.tv_sec);
  EXPECT_EQ(0, rw.lock.lck_stat.lst_acquired.tv_sec);
  EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST(TryLock, IsRefusedAtOnceAndStampsAMutexOnSuccessOnly) {
  mutex m;
  rwlock rw;
  EXPECT_EQ(0, ox_trylock(&m.lock));
  EXPECT_GT(m.lock.lck_stat.lst_acquired.tv_sec, 0) << "whatever the profiling level";
  m.lock.lck_stat.lst_acquired = {12, 34};
  EXPECT_EQ(0, ox_rwlock_shared(&rw.lock));
  std::thread([&] {
    EXPECT_EQ(OX_EBUSY, ox_trylock(&m.lock));
    EXPECT_EQ(OX_EBUSY, ox_rwlock_tryexcl(&rw.lock));
    EXPECT_EQ(0, ox_rwlock_shared(&rw.lock)) << "readers share";
    EXPECT_EQ(0, ox_rwunlock(&rw.lock));
  }).join();
  EXPECT_EQ(12, m.lock.lck_stat.lst_acquired.tv_sec);
  EXPECT_EQ(0, ox_unlock(&m.lock));
  EXPECT_EQ(0, ox_rwunlock(&rw.lock));
  const at_profile_level profiled(3);
  EXPECT_EQ(0, ox_rwlock_tryexcl(&rw.lock));
  EXPECT_EQ(0, rw.lock.lck_stat.lst_acquired.tv_sec);
  EXPECT_EQ(0, pthread_rwlock_unlock(&rw.lock.lck_lock));
}

/* For the thread sanitizer too: readers overwrite one another's statistics. */
TEST(Locks, ExcludeWhileTheLevelChanges) {
  LogCapture log;
  mutex m;
  rwlock rw;
  int under_mutex = 0;
  int under_rwlock = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        ox_lock(&m.lock);
        ++under_mutex;
        ox_unlock(&m.lock);
        ox_rwlock_excl(&rw.lock);
        ++under_rwlock;
        ox_rwunlock(&rw.lock);
        ox_rwlock_shared(&rw.lock);
        EXPECT_GT(under_rwlock, 0);
        ox_rwunlock(&rw.lock);
      }
      if (t == 0) {
        ox_set_profile_level(3);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(4 * 2000, under_mutex);
  EXPECT_EQ(4 * 2000, under_rwlock);
  ox_set_profile_level(0);
}
