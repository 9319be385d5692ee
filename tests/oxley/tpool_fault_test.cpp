/*
 * The thread pool when something fails: allocations, locks, condition variables, thread starts and
 * thread names. The linker's --wrap leads the calls through the functions below.
 */
#include <atomic>
#include <cerrno>

#include "tpool_fixture.h"

using testing::ElementsAre;

namespace {

/* Calls of one kind: the `fail_at`th from now on fails, with `result`; `always`: so do all. */
struct fault {
  std::atomic<int> fail_at = 0;
  std::atomic<bool> always = false;
  int result = OX_ENOMEM;

  bool hit() { return always || (fail_at > 0 && --fail_at == 0); }
};

fault zalloc_fault, lock_fault, lock_init_fault, cv_init_fault, create_fault, name_fault;

}  // namespace

#define WRAPPED(type, name, fault, failure, params, args) \
  type __real_##name params;                              \
  type __wrap_##name params { return fault.hit() ? failure : __real_##name args; }

extern "C" {
WRAPPED(void*, ox_zalloc, zalloc_fault, (errno = zalloc_fault.result, nullptr), (size_t size),
        (size))
WRAPPED(int, ox_lock, lock_fault, lock_fault.result, (ox_lock_t * l), (l))
WRAPPED(int, ox_init_lock, lock_init_fault, lock_init_fault.result, (ox_lock_t * l), (l))
WRAPPED(int, ox_init_cv, cv_init_fault, cv_init_fault.result, (pthread_cond_t * cv), (cv))
WRAPPED(int, pthread_create, create_fault, create_fault.result,
        (pthread_t * thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg),
        (thread, attr, start, arg))
WRAPPED(int, pthread_getname_np, name_fault, name_fault.result,
        (pthread_t thread, char* name, size_t size), (thread, name, size))
}

namespace {

TEST(TpoolFault, CreationFailsWithOneErrorLineAndLeavesNothing) {
  const std::string size = std::to_string(sizeof(ox_tpool_t));
  const struct {
    fault& kind;
    int nth;
    std::string line;
  } table[] = {
      {zalloc_fault, 1, "cannot allocate " + size + " bytes for creating thread pool"},
      {zalloc_fault, 2, "cannot allocate 24 bytes for thread pool [faulty] stats"},
      {zalloc_fault, 3, "cannot allocate 48 bytes for thread pool [faulty] tppriv"},
      {lock_init_fault, 1, "cannot initialize thread pool stats lock"},
      {lock_init_fault, 2, "cannot initialize thread pool priv lock"},
      {lock_init_fault, 3, "cannot initialize thread pool lock"},
      {cv_init_fault, 1, "cannot initialize thread pool condition variable"},
      {cv_init_fault, 2, "cannot initialize thread pool condition variable"},
      {lock_fault, 1, "cannot lock thread pool to add to pool list"},
  };
  ASSERT_EQ(0, ox_init_tpool());
  for (const auto& [kind, nth, line] : table) {
    level_log log;
    kind.fail_at = nth;
    EXPECT_EQ(nullptr, ox_tpool_create("faulty", nullptr, nullptr, 8, 16, 0, 3)) << line;
    EXPECT_EQ(0, kind.fail_at) << line;
    EXPECT_THAT(log.lines(), ElementsAre("ERROR " + line));
  }
  ox_deinit_tpool(0);
}

TEST(TpoolFault, FacilityAndNotifierFailClean) {
  for (fault* kind : {&zalloc_fault, &lock_init_fault, &cv_init_fault}) {
    kind->fail_at = 1;
    EXPECT_EQ(nullptr, ox_job_create_notify());
  }
  for (fault* kind : {&zalloc_fault, &lock_init_fault}) {
    kind->fail_at = 1;
    EXPECT_EQ(OX_ENOMEM, ox_init_tpool());
    EXPECT_EQ(0, ox_init_tpool());
    ox_deinit_tpool(0);
  }
}

TEST(TpoolFault, RefusedCallsChangeNothing) {
  const auto queue = [](test_pool& pool) { return pool.queue([](blocks) { ADD_FAILURE(); }); };
  const auto pause = [](test_pool& pool) { return ox_tpool_pause(pool.tp); };
  const auto resume = [](test_pool& pool) { return ox_tpool_resume(pool.tp); };
  const struct {
    fault& kind;
    int error;
    int (*call)(test_pool& pool);
    const char* line;
  } table[] = {
      {lock_fault, OX_EINVAL, queue, "ERROR cannot lock thread pool to queue the job"},
      {zalloc_fault, OX_ENOMEM, queue, "ERROR cannot allocate 40 bytes for queuing a new job"},
      {name_fault, OX_EACCES, queue, "ERROR cannot get name [] for thread "},
      {lock_fault, OX_EINVAL, pause, "ERROR cannot lock thread pool to update flag 8"},
      {lock_fault, OX_EINVAL, resume, "ERROR cannot lock thread pool to update flag 8"},
  };
  test_pool pool(0, 1);
  for (const auto& [kind, error, call, line] : table) {
    level_log log;
    kind.result = error;
    kind.fail_at = 1;
    EXPECT_EQ(error, call(pool)) << line;
    EXPECT_THAT(log.lines(), ElementsAre(testing::StartsWith(line)));
    EXPECT_EQ(0u, pool.read(&ox_tpool_t::tp_qlen));
    EXPECT_FALSE(ox_tpool_is_paused(pool.tp));
  }
}

TEST(TpoolFault, WorkerTriesUntilItHasTheLock) {
  level_log log;
  gate release, done;
  test_pool pool(0, 1, "stubborn");
  pool.block_workers(1, release);
  lock_fault.fail_at = 1; /* the worker's, when its job is over */
  release.post();
  ASSERT_TRUE(eventually([] { return lock_fault.fail_at == 0; }));
  ASSERT_EQ(0, pool.queue([&](blocks) { done.post(); }));
  EXPECT_TRUE(done.wait());
  EXPECT_THAT(log.lines(), testing::Contains(
                               testing::MatchesRegex("ERROR cannot lock thread pool .*:stubborn")));
}

TEST(TpoolFault, FirstWorkerThatCannotStartIsTriedAgainWithTheNextJob) {
  level_log log;
  std::vector<int> order;
  test_pool pool(0, 1);
  create_fault.fail_at = 1;
  EXPECT_EQ(0, pool.queue([&](blocks) { order.push_back(1); }));
  EXPECT_EQ(0u, pool.workers());
  EXPECT_EQ(0, pool.queue([&](blocks) { order.push_back(2); }));
  EXPECT_EQ(1u, pool.workers());
  pool.destroy(0);
  EXPECT_THAT(order, ElementsAre(1, 2));
  EXPECT_EQ(1, log.count("ERROR cannot create thread"));
}

/* Nobody waits for ever for a job that was accepted: it runs on the thread that drains. */
TEST(TpoolFault, DrainAndDestroyRunTheQueueWhenNoThreadCanBeStarted) {
  int ran = 0;
  void* block = nullptr;
  ox_job_notify_t* notify = ox_job_create_notify();
  test_pool pool(0, 2, "threadless", 0, 8), none(0, 0);
  create_fault.always = true;
  EXPECT_EQ(0, pool.queue([&](blocks b) { block = b.priv; }));
  ox_drain_tpool(pool.tp, 0);
  EXPECT_EQ(pool.tp->tp_priv.ox_priv, block);
  EXPECT_EQ(0, pool.queue([&](blocks) { ++ran; }, notify));
  EXPECT_EQ(0, none.queue([&](blocks) { ++ran; }));
  pool.destroy(0);
  none.destroy(0);
  create_fault.always = false;
  EXPECT_EQ(2, ran);
  ox_wait_job_completion(notify);
  ox_job_destroy_notify(notify);
}

#ifdef _WIN32
/* The runtime gives no name for either; elsewhere names are cut at 15 and no thread lacks one. */
TEST(TpoolFault, LongNamedAndDetachedThreadsQueueAndAreStrangersToADrain) {
  gate done;
  std::vector<int> answers;
  test_pool pool(0, 1, "named");
  const auto queue = [&] {
    answers.push_back(pool.queue([](blocks) {}));
    done.post();
  };
  for (int i = 0; i < 2; ++i) {
    std::thread([&] {
      pthread_setname_np(pthread_self(), std::string(200, 'n').c_str());
      queue();
    }).join();
    std::thread(queue).detach();
    EXPECT_TRUE(done.wait(2));
    ox_drain_tpool(pool.tp, OX_TPOOL_FL_DRAIN);
  }
  EXPECT_THAT(answers, ElementsAre(0, 0, OX_EINVAL, OX_EINVAL));
}
#endif

/* A wait gives the lock away; the time that it was away must not count as held. */
TEST(TpoolFault, WaitsStampTheLockAnewWhenProfiled) {
  test_pool pool(1, 1);
  ox_prof_level = 3;
  pool.start_worker();
  const auto stamped = [](ox_lock_t& lock) {
    pthread_mutex_lock(&lock.lck_lock);
    const bool result = lock.lck_stat.lst_acquired.tv_sec != 0;
    pthread_mutex_unlock(&lock.lck_lock);
    return result;
  };
  pthread_mutex_lock(&pool.tp->tp_lock.lck_lock);
  pool.tp->tp_lock.lck_stat.lst_acquired = {};
  pthread_cond_broadcast(&pool.tp->tp_worker_cv);
  pthread_mutex_unlock(&pool.tp->tp_lock.lck_lock);
  EXPECT_TRUE(eventually([&] { return stamped(pool.tp->tp_lock); }));
  pool.destroy(0);
  ox_prof_level = 0;
}

}  // namespace
