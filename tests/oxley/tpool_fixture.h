/*
 * What the thread pool's tests share: a pool with jobs given as lambdas, a gate to block workers
 * on, and the pool's timed waits.
 */
#ifndef TPOOL_FIXTURE_H
#define TPOOL_FIXTURE_H

#include <deque>
#include <mutex>

#include "gate.h"
#include "ox_tpool.h"
#include "oxley_test.h"

/*
 * Whether the pool's timed waits are over at once. Otherwise they have no end here, so that a lost
 * wake-up leaves its thread waiting for ever, instead of one to three seconds that no test would
 * notice.
 */
inline std::atomic<bool> time_flies = false;
/* The seconds of the longest timed wait on each condition variable so far. */
time_t longest_wait(const ox_native_cv_t* cv);

/* Of one kind of calls ("zalloc", "lock", "lock_init", "create", "name") the nth from
 * now on fails with this error, or none with 0. */
void set_fault(const std::string& call, int nth, int error);
constexpr int EVERY_CALL = -1;
/* How many calls there are until the fault; 0 when it has happened. */
int calls_to_fault(const std::string& call);

/* The threads that were started and not joined yet. */
extern std::atomic<int> threads_to_join;

struct Blocks {
  void* stats;
  void* priv;
};
using Task = std::function<void(Blocks)>;

/* A pool; unless the test took it away, destroyed at the end (what is queued is run first). */
class TestPool {
 public:
  explicit TestPool(ox_u32 min_threads, ox_u32 max_threads, const char* name = "pool",
                    ox_u32 stat_size = 0, ox_u32 priv_size = 0)
      : tp(ox_tpool_create_external(name, nullptr, nullptr, stat_size, priv_size, min_threads,
                                    max_threads)) {}
  TestPool(const TestPool&) = delete;
  ~TestPool() { destroy(OX_TPOOL_FL_DRAIN); }

  int queue(Task job, ox_job_notify_t* notify = nullptr) {
    const auto run = [](void* args, void* stats, void* priv) -> void* {
      (*static_cast<Task*>(args))({stats, priv});
      return nullptr;
    };
    const std::lock_guard hold(mutex_);
    return ox_queue_work(tp, notify, run, &tasks_.emplace_back(std::move(job)));
  }

  /* Queues `count` jobs that hold a worker each until `release` is posted; they run by then. How
   * many of them have a block. */
  int block_workers(int count, Gate& release) {
    Gate running;
    std::atomic<int> with_block = 0;
    for (int i = 0; i < count; ++i) {
      EXPECT_EQ(0, queue([&](Blocks b) {
                  with_block += static_cast<int>(b.priv != nullptr);
                  running.post();
                  release.wait();
                }));
    }
    EXPECT_TRUE(running.wait(count));
    return with_block;
  }
  /* Starts one worker, which rests when this returns. */
  void start_worker() {
    ASSERT_EQ(0, queue([](Blocks) {}));
    ASSERT_TRUE(idle(1));
  }

  void destroy(ox_u32 flags) {
    if (tp != nullptr) {
      ox_destroy_tpool(tp, flags); /* its last jobs may still look at it */
      tp = nullptr;
    }
  }

  template <typename Field>
  auto read(Field ox_tpool_t::*field) {
    ox_lock(&tp->tp_lock);
    const auto value = tp->*field;
    ox_unlock(&tp->tp_lock);
    return value;
  }
  ox_u32 workers() { return read(&ox_tpool_t::tp_cur_count); }
  template <typename Field, typename Value>
  bool becomes(Field ox_tpool_t::*field, Value value) {
    return eventually([&] { return read(field) == static_cast<Field>(value); });
  }
  bool idle(ox_u32 count) { return becomes(&ox_tpool_t::tp_idle_count, count); }

  ox_tpool_t* tp;

 private:
  std::mutex mutex_;
  std::deque<Task> tasks_; /* they stay where they are */
};

/* How many of the log's lines are this one, "LEVEL ERRNO: text". */
inline ptrdiff_t count(const LogCapture& log, const std::string& line) {
  return std::ranges::count(log.brief_lines(), line);
}

#endif
