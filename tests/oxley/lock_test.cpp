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

#include "captured_log.h"
#include "ox_logging.h"
#include "ox_util.h"

namespace {

constexpr int ebusy = 16;
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

/* One contended acquisition of a lock that `hold` takes and `release` gives back. */
template <typename Lock>
void contend(Lock& l, const std::function<int()>& acquire, const std::function<int()>& hold,
             const std::function<int()>& release) {
  ASSERT_EQ(0, hold());
  const struct timespec unset = now_less(1000, 0);
  l.lck_stat.lst_acquired = unset;
  std::thread waiter([&] {
    EXPECT_EQ(0, acquire());
    EXPECT_EQ(0, release());
  });
  wait_out_2ms(l.lck_stat, unset);
  EXPECT_EQ(0, release());
  waiter.join();
}

/* The lines' texts, without timestamp, level and source. */
std::vector<std::string> texts(const captured_log& log) {
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

void expect_one_wait_warning(const captured_log& log, const void* lock, ox_u64 waited) {
  EXPECT_GE(waited, 2000u);
  const auto lines = texts(log);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("Lock acqusition " + pointer_text(lock) + " took " + std::to_string(waited) + " usec",
            lines[0]);
}

}  // namespace

TEST(Profiling, WarnsOfALongWaitForAMutex) {
  captured_log log;
  mutex m;
  const at_profile_level profiled(3);
  contend(
      m.lock, [&] { return ox_lock(&m.lock); },
      [&] { return pthread_mutex_lock(&m.lock.lck_lock); },
      [&] { return pthread_mutex_unlock(&m.lock.lck_lock); });
  expect_one_wait_warning(log, &m.lock, m.lock.lck_stat.lst_acq_usecs);
}

TEST(Profiling, WarnsOfALongWaitForEitherModeOfAReaderWriterLock) {
  for (const auto acquire : {ox_rwlock_excl, ox_rwlock_shared}) {
    captured_log log;
    rwlock rw;
    const at_profile_level profiled(3);
    contend(
        rw.lock, [&] { return acquire(&rw.lock); }, [&] { return ox_rwlock_tryexcl(&rw.lock); },
        [&] { return pthread_rwlock_unlock(&rw.lock.lck_lock); });
    expect_one_wait_warning(log, &rw.lock, rw.lock.lck_stat.lst_acq_usecs);
  }
}

TEST(Profiling, WarnsOfAHoldOfMoreThanASecond) {
  captured_log log;
  mutex m;
  rwlock rw;
  const at_profile_level profiled(3);
  const auto hold_mutex = [&](const struct timespec& since) {
    EXPECT_EQ(0, ox_lock(&m.lock));
    m.lock.lck_stat.lst_acquired = since;
    EXPECT_EQ(0, ox_unlock(&m.lock));
  };
  hold_mutex(now_less(0, 500));
  hold_mutex(now_less(-3600, 0)); /* the clock was set back: no hold at all */
  EXPECT_THAT(texts(log), testing::IsEmpty());
  hold_mutex(now_less(1, 100));
  EXPECT_EQ(0, ox_rwlock_shared(&rw.lock));
  rw.lock.lck_stat.lst_acquired = now_less(2, 0);
  EXPECT_EQ(0, ox_rwunlock(&rw.lock));
  const auto lines = texts(log);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(0u, lines[0].find("Lock held " + pointer_text(&m.lock) + " for 11")) << lines[0];
  EXPECT_EQ(0u, lines[1].find("Lock held " + pointer_text(&rw.lock) + " for 20")) << lines[1];
}

TEST(Profiling, BelowLevel3ReadsNoClockAndSaysNothing) {
  captured_log log;
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

TEST(TryLock, RecordsItsTimeOnSuccessOnly) {
  mutex m;
  EXPECT_EQ(0, ox_trylock(&m.lock));
  EXPECT_GT(m.lock.lck_stat.lst_acquired.tv_sec, 0) << "whatever the profiling level";
  m.lock.lck_stat.lst_acquired = {12, 34};
  std::thread([&] { EXPECT_EQ(ebusy, ox_trylock(&m.lock)); }).join();
  EXPECT_EQ(12, m.lock.lck_stat.lst_acquired.tv_sec);
  EXPECT_EQ(34, m.lock.lck_stat.lst_acquired.tv_nsec);
  EXPECT_EQ(0, ox_unlock(&m.lock));
}

TEST(TryExclusive, KeepsNoStatistics) {
  rwlock rw;
  EXPECT_EQ(0, ox_rwlock_shared(&rw.lock));
  std::thread([&] {
    EXPECT_EQ(ebusy, ox_rwlock_tryexcl(&rw.lock));
    EXPECT_EQ(0, ox_rwlock_shared(&rw.lock)) << "readers share";
    EXPECT_EQ(0, ox_rwunlock(&rw.lock));
  }).join();
  EXPECT_EQ(0, ox_rwunlock(&rw.lock));
  const at_profile_level profiled(3);
  EXPECT_EQ(0, ox_rwlock_tryexcl(&rw.lock));
  EXPECT_EQ(0, rw.lock.lck_stat.lst_acquired.tv_sec);
  EXPECT_EQ(0, pthread_rwlock_unlock(&rw.lock.lck_lock));
}

/* For the thread sanitizer too: readers overwrite one another's statistics. */
TEST(Locks, ExcludeWhileTheLevelChanges) {
  captured_log log;
  mutex m;
  rwlock rw;
  pthread_cond_t cv;
  ASSERT_EQ(0, ox_init_cv(&cv));
  int under_mutex = 0;
  int under_rwlock = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        ox_lock(&m.lock);
        ++under_mutex;
        pthread_cond_signal(&cv);
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
  ox_lock(&m.lock);
  while (under_mutex < 4 * 2000) {
    pthread_cond_wait(&cv, &m.lock.lck_lock);
  }
  ox_unlock(&m.lock);
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(4 * 2000, under_rwlock);
  EXPECT_EQ(0, ox_deinit_cv(&cv));
  ox_set_profile_level(0);
}
