/*
 * The thread pool when something fails: allocations, locks, condition variables, thread starts and
 * thread names. The linker's --wrap leads these calls, and the pool's waits, through the functions
 * below.
 */
#include <map>

#include "tpool_fixture.h"

std::atomic<int> threads_to_join = 0;

namespace {

/* Calls of one kind: the `fail_at`th from now on fails, with `result`; `always`: so do all. */
struct Fault {
  std::atomic<int> fail_at = 0;
  std::atomic<bool> always = false;
  int result = OX_ENOMEM;

  bool hit() { return always || (fail_at > 0 && --fail_at == 0); }
};

Fault zalloc_fault, lock_fault, lock_init_fault, cv_init_fault, create_fault, name_fault;

std::mutex waits_mutex;
std::map<const pthread_cond_t*, time_t> longest_waits;

}  // namespace

time_t longest_wait(const pthread_cond_t* cv) {
  const std::lock_guard hold(waits_mutex);
  return longest_waits[cv];
}

#define WRAPPED(type, name, fault, failure, params, args) \
  type __real_##name params;                              \
  type __wrap_##name params { return fault.hit() ? failure : __real_##name args; }

extern "C" {
WRAPPED(void*, ox_zalloc, zalloc_fault, (errno = zalloc_fault.result, nullptr), (size_t size),
        (size))
WRAPPED(int, ox_lock, lock_fault, lock_fault.result, (ox_lock_t * l), (l))
WRAPPED(int, ox_init_lock, lock_init_fault, lock_init_fault.result, (ox_lock_t * l), (l))
WRAPPED(int, ox_init_cv, cv_init_fault, cv_init_fault.result, (pthread_cond_t * cv), (cv))
WRAPPED(int, pthread_getname_np, name_fault, name_fault.result,
        (pthread_t thread, char* name, size_t size), (thread, name, size))

using ThreadMain = void* (*)(void*);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, ThreadMain main,
                          void* arg);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, ThreadMain main,
                          void* arg) {
  if (create_fault.hit()) {
    return create_fault.result;
  }
  ++threads_to_join;
  return __real_pthread_create(thread, attr, main, arg);
}

int __real_pthread_join(pthread_t thread, void** result);
int __wrap_pthread_join(pthread_t thread, void** result) {
  const int rc = __real_pthread_join(thread, result);
  --threads_to_join;
  return rc;
}

bool __real_ox_cv_wait(pthread_cond_t* cv, ox_lock_t* l, const struct timespec* deadline);
bool __wrap_ox_cv_wait(pthread_cond_t* cv, ox_lock_t* l, const struct timespec* deadline) {
  if (deadline == nullptr) {
    return __real_ox_cv_wait(cv, l, nullptr);
  }
  struct timespec now = {};
  ox_clock_gettime(0, &now);
  EXPECT_EQ(0, deadline->tv_nsec);
  {
    const std::lock_guard hold(waits_mutex);
    longest_waits[cv] = std::max(longest_waits[cv], deadline->tv_sec - now.tv_sec);
  }
  return __real_ox_cv_wait(cv, l, time_flies ? &now : nullptr);
}
}

namespace {

TEST(TpoolFault, CreationFailsWithOneErrorLineAndLeavesNothing) {
  const std::string size = std::to_string(sizeof(ox_tpool_t));
  const struct {
    Fault& kind;
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
    const LogCapture log;
    kind.fail_at = nth;
    EXPECT_EQ(nullptr, ox_tpool_create("faulty", nullptr, nullptr, 8, 16, 0, 3)) << line;
    EXPECT_EQ(0, kind.fail_at) << line;
    EXPECT_THAT(log.brief_lines(), ElementsAre("ERROR 12: " + line));
  }
  ox_deinit_tpool(0);
}

TEST(TpoolFault, FacilityAndNotifierFailClean) {
  for (Fault* kind : {&zalloc_fault, &lock_init_fault, &cv_init_fault}) {
    kind->fail_at = 1;
    EXPECT_EQ(nullptr, ox_job_create_notify());
  }
  for (Fault* kind : {&zalloc_fault, &lock_init_fault}) {
    kind->fail_at = 1;
    EXPECT_EQ(OX_ENOMEM, ox_init_tpool());
    EXPECT_EQ(0, ox_init_tpool());
    ox_deinit_tpool(0);
  }
}

TEST(TpoolFault, RefusedCallsChangeNothing) {
  TestPool pool(0, 1);
  const auto queue = [&] { return pool.queue([](Blocks) { ADD_FAILURE(); }); };
  const auto pause = [&] { return ox_tpool_pause(pool.tp); };
  const auto resume = [&] { return ox_tpool_resume(pool.tp); };
  const struct {
    Fault& kind;
    int error;
    std::function<int()> call;
    const char* line;
  } table[] = {
      {lock_fault, OX_EINVAL, queue, "cannot lock thread pool to queue the job"},
      {zalloc_fault, OX_ENOMEM, queue, "cannot allocate 40 bytes for queuing a new job"},
      {name_fault, OX_EACCES, queue, "cannot get name [] for thread "},
      {lock_fault, OX_EINVAL, pause, "cannot lock thread pool to update flag 8"},
      {lock_fault, OX_EINVAL, resume, "cannot lock thread pool to update flag 8"},
  };
  for (const auto& [kind, error, call, line] : table) {
    const LogCapture log;
    kind.result = error;
    kind.fail_at = 1;
    EXPECT_EQ(error, call()) << line;
    const std::string begin = "ERROR " + std::to_string(error) + ": " + line;
    EXPECT_THAT(log.brief_lines(), ElementsAre(testing::StartsWith(begin)));
    EXPECT_EQ(0u, pool.read(&ox_tpool_t::tp_qlen));
    EXPECT_FALSE(ox_tpool_is_paused(pool.tp));
  }
}

TEST(TpoolFault, WorkersTryAgainToLockAndTheNextJobToStartOne) {
  const LogCapture log;
  Gate release;
  std::vector<int> order;
  TestPool pool(0, 1, "stubborn");
  create_fault.fail_at = 1;
  EXPECT_EQ(0, pool.queue([&](Blocks) {
    order.push_back(1);
    release.wait();
  }));
  EXPECT_EQ(0u, pool.workers());
  EXPECT_EQ(0, pool.queue([&](Blocks) { order.push_back(2); }));
  EXPECT_TRUE(pool.becomes(&ox_tpool_t::tp_qlen, 1));
  lock_fault.fail_at = 1; /* the worker's, when its first job is over */
  release.post();
  EXPECT_TRUE(eventually([] { return lock_fault.fail_at == 0; }));
  pool.destroy(0);
  EXPECT_THAT(order, ElementsAre(1, 2));
  EXPECT_EQ(1, count(log, "ERROR 12: cannot create thread"));
  EXPECT_EQ(1u, log.count(":stubborn"));
}

/* Nobody waits for ever for a job that was accepted: it runs on the thread that drains. */
TEST(TpoolFault, DrainAndDestroyRunTheQueueWhenNoThreadCanBeStarted) {
  int ran = 0;
  void* block = nullptr;
  ox_job_notify_t* notify = ox_job_create_notify();
  TestPool pool(0, 2, "threadless", 0, 8), none(0, 0);
  create_fault.always = true;
  EXPECT_EQ(0, pool.queue([&](Blocks b) { block = b.priv; }));
  ox_drain_tpool(pool.tp, 0);
  EXPECT_EQ(pool.tp->tp_priv.ox_priv, block);
  EXPECT_EQ(0, pool.queue([&](Blocks) { ++ran; }, notify));
  EXPECT_EQ(0, none.queue([&](Blocks) { ++ran; }));
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
  Gate done;
  std::vector<int> answers;
  TestPool pool(0, 1, "named");
  const auto queue = [&] {
    answers.push_back(pool.queue([](Blocks) {}));
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

}  // namespace
