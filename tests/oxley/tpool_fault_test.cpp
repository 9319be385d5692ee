/*
 * What fails under the thread pool: allocations, locks, thread starts and thread names. The
 * linker's --wrap leads these calls, and the pool's waits, through the functions below.
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

Fault zalloc_fault, lock_fault, lock_init_fault, create_fault, name_fault;
const std::map<std::string, Fault*> FAULTS = {{"zalloc", &zalloc_fault},
                                              {"lock", &lock_fault},
                                              {"lock_init", &lock_init_fault},
                                              {"create", &create_fault},
                                              {"name", &name_fault}};

std::mutex waits_mutex;
std::map<const ox_native_cv_t*, time_t> longest_waits;

}  // namespace

void set_fault(const std::string& call, int nth, int error) {
  FAULTS.at(call)->result = error;
  FAULTS.at(call)->always = nth == EVERY_CALL;
  FAULTS.at(call)->fail_at = std::max(nth, 0);
}
int calls_to_fault(const std::string& call) { return FAULTS.at(call)->fail_at; }

time_t longest_wait(const ox_native_cv_t* cv) {
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

bool __real_ox_cv_wait(ox_native_cv_t* cv, ox_lock_t* l, const struct timespec* deadline);
bool __wrap_ox_cv_wait(ox_native_cv_t* cv, ox_lock_t* l, const struct timespec* deadline) {
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
