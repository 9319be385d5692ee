/*
 * The lock wrappers: results, statistics, and the profiling warnings with their thresholds. The
 * clock that the locks read is the tests' own, so no test waits for time to pass.
 */
#include "ox_native_cv.h"
#include "oxley_test.h"

static std::atomic<ox_s64> now_usecs = 1000000000; /* since 1970 */

extern "C" {
int __real_clock_gettime(clockid_t clock, struct timespec* ts);
int __wrap_clock_gettime(clockid_t clock, struct timespec* ts) {
  if (clock != CLOCK_REALTIME) {
    return __real_clock_gettime(clock, ts);
  }
  ts->tv_sec = static_cast<time_t>(now_usecs / 1000000);
  ts->tv_nsec = static_cast<long>(now_usecs % 1000000 * 1000);
  return 0;
}
}

namespace {

constexpr ox_s64 HOUR = 3600000000;

class Locks : public testing::Test {
 protected:
  Locks() {
    EXPECT_EQ(0, ox_init_lock(&mutex_));
    EXPECT_EQ(0, ox_init_rwlock(&rwlock_));
  }
  ~Locks() override {
    ox_prof_level = 0;
    EXPECT_EQ(0, ox_deinit_lock(&mutex_));
    EXPECT_EQ(0, ox_deinit_rwlock(&rwlock_));
  }
  const LogCapture log_;
  ox_lock_t mutex_;
  ox_rwlock_t rwlock_;
};

std::string line(const char* fmt, const void* lock, ox_s64 usecs) {
  char text[100];
  snprintf(text, sizeof(text), fmt, lock, static_cast<long long>(usecs));
  return std::string("WARNING: ") + text;
}

/* Holds the lock while another thread acquires it, for `usecs` after that one has begun to. */
void make_wait(ox_s64 usecs, const ox_lock_stat_t& stat, const std::function<int()>& hold,
               const std::function<int()>& release, const std::function<int()>& acquire) {
  ASSERT_EQ(0, hold());
  now_usecs += HOUR;
  std::thread waiter([&] {
    EXPECT_EQ(0, acquire());
    EXPECT_EQ(0, release());
  });
  std::atomic_ref<time_t> begun(const_cast<time_t&>(stat.lst_acquired.tv_sec));
  EXPECT_TRUE(eventually([&] { return begun == now_usecs / 1000000; }));
  now_usecs += usecs;
  EXPECT_EQ(0, release());
  waiter.join();
  EXPECT_EQ(static_cast<ox_u64>(usecs), stat.lst_acq_usecs);
}

}  // namespace

TEST_F(Locks, WarnOfAWaitOfMoreThanAMillisecond) {
  ox_prof_level = 3;
  const auto hold = [this] { return pthread_mutex_lock(&mutex_.lck_lock); };
  const auto release = [this] { return pthread_mutex_unlock(&mutex_.lck_lock); };
  const auto hold_rw = [this] { return ox_rwlock_tryexcl(&rwlock_); };
  const auto release_rw = [this] { return ox_rwunlock(&rwlock_); };
  for (const ox_s64 usecs : {1000, 1001}) {
    make_wait(usecs, mutex_.lck_stat, hold, release, [this] { return ox_lock(&mutex_); });
    make_wait(usecs, rwlock_.lck_stat, hold_rw, release_rw,
              [this] { return ox_rwlock_excl(&rwlock_); });
    make_wait(usecs, rwlock_.lck_stat, hold_rw, release_rw,
              [this] { return ox_rwlock_shared(&rwlock_); });
  }
  const char* const fmt = "Lock acqusition %p took %lld usec";
  EXPECT_THAT(log_.brief_lines(), ElementsAre(line(fmt, &mutex_, 1001), line(fmt, &rwlock_, 1001),
                                              line(fmt, &rwlock_, 1001)));
}

TEST_F(Locks, WarnOfAHoldOfMoreThanASecond) {
  ox_prof_level = 3;
  for (const ox_s64 usecs : {ox_s64{1000000}, ox_s64{1000001}, -HOUR}) { /* a clock set back */
    EXPECT_EQ(0, ox_lock(&mutex_));
    now_usecs += usecs;
    EXPECT_EQ(0, ox_unlock(&mutex_));
    EXPECT_EQ(0, ox_rwlock_shared(&rwlock_));
    now_usecs += usecs;
    EXPECT_EQ(0, ox_rwunlock(&rwlock_));
  }
  const char* const fmt = "Lock held %p for %lld usec";
  EXPECT_THAT(log_.brief_lines(),
              ElementsAre(line(fmt, &mutex_, 1000001), line(fmt, &rwlock_, 1000001)));
}

TEST_F(Locks, WithoutStatisticsAreNotReported) {
  ox_prof_level = 2;
  EXPECT_EQ(0, ox_lock(&mutex_));
  EXPECT_EQ(0, ox_rwlock_excl(&rwlock_));
  std::thread waiter([this] { /* begins to wait below level 3 and has the lock above it */
                              EXPECT_EQ(0, ox_rwlock_shared(&rwlock_));
                              EXPECT_EQ(0, ox_rwunlock(&rwlock_));
  });
  ox_set_profile_level(3);
  EXPECT_EQ(0, ox_unlock(&mutex_));
  EXPECT_EQ(0, ox_rwunlock(&rwlock_));
  waiter.join();
  EXPECT_EQ(0, mutex_.lck_stat.lst_acquired.tv_sec);
  rwlock_.lck_stat = {};
  EXPECT_EQ(0, ox_rwlock_tryexcl(&rwlock_));
  EXPECT_EQ(0, rwlock_.lck_stat.lst_acquired.tv_sec);
  EXPECT_EQ(0, ox_rwunlock(&rwlock_));
  EXPECT_THAT(log_.brief_lines(), ElementsAre("INFO: oxley profile level set to 3"));
}

TEST_F(Locks, TryIsRefusedAtOnceAndStampsAMutexOnSuccessOnly) {
  EXPECT_EQ(0, ox_trylock(&mutex_));
  EXPECT_EQ(now_usecs / 1000000, mutex_.lck_stat.lst_acquired.tv_sec) << "at any level";
  EXPECT_EQ(0, ox_rwlock_shared(&rwlock_));
  std::thread([this] {
    now_usecs += HOUR;
    EXPECT_EQ(OX_EBUSY, ox_trylock(&mutex_));
    EXPECT_EQ(OX_EBUSY, ox_rwlock_tryexcl(&rwlock_));
    EXPECT_EQ(0, ox_rwlock_shared(&rwlock_)) << "readers share";
    EXPECT_EQ(0, ox_rwunlock(&rwlock_));
  }).join();
  EXPECT_EQ((now_usecs - HOUR) / 1000000, mutex_.lck_stat.lst_acquired.tv_sec);
  EXPECT_EQ(0, ox_unlock(&mutex_));
  EXPECT_EQ(0, ox_rwunlock(&rwlock_));
}

#ifdef _WIN32
TEST_F(Locks, ReaderWriterLocksThatAreHeldOrNotInitialisedSaySo) {
  ox_rwlock_t none = {};
  for (const auto call : {ox_rwlock_excl, ox_rwlock_shared, ox_rwlock_tryexcl, ox_deinit_rwlock}) {
    EXPECT_EQ(OX_EINVAL, call(&none));
  }
  EXPECT_EQ(0, ox_rwlock_shared(&rwlock_));
  EXPECT_EQ(OX_EBUSY, ox_deinit_rwlock(&rwlock_));
  EXPECT_EQ(0, ox_rwunlock(&rwlock_));
#ifdef NDEBUG
  EXPECT_EQ(OX_EPERM, ox_rwunlock(&rwlock_)) << "nobody holds it";
#endif
}
#endif

TEST_F(Locks, AWaitForAConditionEndsAtItsDeadlineAndBeginsAHold) {
  ox_native_cv_t cv;
  ox_native_cv_init(&cv);
  ox_prof_level = 3;
  EXPECT_EQ(0, ox_lock(&mutex_));
  now_usecs += HOUR;
  struct timespec deadline = {};
  EXPECT_FALSE(ox_cv_wait(&cv, &mutex_, &deadline)) << "it is long past";
  EXPECT_EQ(0, ox_unlock(&mutex_));
  EXPECT_THAT(log_.lines(), IsEmpty()) << "the hour was no hold";

  ASSERT_EQ(0, __real_clock_gettime(CLOCK_REALTIME, &deadline));
  now_usecs = (deadline.tv_sec * ox_s64{1000000}) + (deadline.tv_nsec / 1000);
  deadline.tv_sec += 1;
  EXPECT_EQ(0, ox_lock(&mutex_));
  EXPECT_FALSE(ox_cv_wait(&cv, &mutex_, &deadline));
  EXPECT_EQ(0, ox_unlock(&mutex_));
  struct timespec end = {};
  ASSERT_EQ(0, __real_clock_gettime(CLOCK_REALTIME, &end));
  EXPECT_LE(deadline.tv_sec * 1000, (end.tv_sec * 1000) + (end.tv_nsec / 1000000) + 50)
      << "but for the clock's own steps";
  EXPECT_GE(deadline.tv_sec + 60, end.tv_sec);

  deadline.tv_sec += 1000;
  bool waits = false;
  EXPECT_EQ(0, ox_lock(&mutex_));
  std::thread waker([&] {
    EXPECT_EQ(0, ox_lock(&mutex_));
    EXPECT_TRUE(waits);
    ox_native_cv_wake_one_and_unlock(&cv, &mutex_);
  });
  waits = true;
  EXPECT_TRUE(ox_cv_wait(&cv, &mutex_, &deadline));
  EXPECT_EQ(0, ox_unlock(&mutex_));
  waker.join();
  ox_native_cv_destroy(&cv);
}

/* For the thread sanitizer, too: readers overwrite one another's statistics. */
TEST_F(Locks, ExcludeWhileTheLevelChanges) {
  int under_mutex = 0;
  int under_rwlock = 0;
  const auto work = [&](bool raises_level) {
    for (int i = 0; i < 2000; ++i) {
      ox_lock(&mutex_);
      ++under_mutex;
      ox_unlock(&mutex_);
      ox_rwlock_excl(&rwlock_);
      ++under_rwlock;
      ox_rwunlock(&rwlock_);
      ox_rwlock_shared(&rwlock_);
      EXPECT_GT(under_rwlock, 0);
      ox_rwunlock(&rwlock_);
    }
    if (raises_level) {
      ox_set_profile_level(3);
    }
  };
  std::thread threads[] = {std::thread(work, true), std::thread(work, false),
                           std::thread(work, false), std::thread(work, false)};
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(4 * 2000, under_mutex);
  EXPECT_EQ(4 * 2000, under_rwlock);
}

#ifndef NDEBUG
TEST_F(Locks, DebugBuildsKnowWhichThreadHoldsThem) {
  EXPECT_DEATH(OX_ASSERT_HELD(&mutex_), "ox_lock_is_held");
  EXPECT_DEATH(ox_unlock(&mutex_), "ox_lock_is_held");
  ox_lock(&mutex_);
  ox_rwlock_shared(&rwlock_);
  ox_rwlock_shared(&rwlock_);
  ox_unlock(&mutex_);
  EXPECT_FALSE(ox_lock_is_held(&mutex_));
  ox_rwunlock(&rwlock_);
  EXPECT_EQ(0, ox_trylock(&mutex_));
  std::thread([this] {
    EXPECT_FALSE(ox_lock_is_held(&mutex_) || ox_lock_is_held(&rwlock_)) << "another's";
    EXPECT_EQ(OX_EBUSY, ox_trylock(&mutex_));
    EXPECT_FALSE(ox_lock_is_held(&mutex_));
  }).join();
  OX_ASSERT_HELD(&mutex_);
  OX_ASSERT_HELD(&rwlock_);
  ox_unlock(&mutex_);
  ox_rwunlock(&rwlock_);
  EXPECT_EQ(0, ox_rwlock_tryexcl(&rwlock_));
  OX_ASSERT_HELD(&rwlock_);
  ox_rwunlock(&rwlock_);
  EXPECT_FALSE(ox_lock_is_held(&rwlock_));
}
#endif
