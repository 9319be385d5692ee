/*
 * What the thread pool's tests share: a pool with jobs given as lambdas, a gate to block workers
 * on, and the log lines as "LEVEL text".
 */
#ifndef TPOOL_FIXTURE_H
#define TPOOL_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "eventually.h"
#include "log_capture.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_tpool.h"

/* Long enough for a loaded machine; only a failing test ever waits so long. */
constexpr auto patience = std::chrono::seconds(20);

/* A counting semaphore whose wait gives up, so that a fault fails a test and does not hang it. */
class gate {
 public:
  void post(int count = 1) {
    const std::lock_guard hold(mutex_);
    count_ += count;
    changed_.notify_all();
  }
  bool wait(int count = 1) {
    std::unique_lock hold(mutex_);
    const bool passed = changed_.wait_for(hold, patience, [&] { return count_ >= count; });
    count_ -= passed ? count : 0;
    return passed;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

struct blocks {
  void* stats;
  void* priv;
};
using task = std::function<void(blocks)>;

inline void* run_task(void* args, void* stats, void* priv) {
  (*static_cast<task*>(args))({stats, priv});
  return nullptr;
}

/* A pool; unless the test took it away, destroyed at the end (what is queued is run first). */
class test_pool {
 public:
  explicit test_pool(ox_u32 min_threads, ox_u32 max_threads, const char* name = "pool",
                     ox_u32 stat_size = 0, ox_u32 priv_size = 0)
      : tp(ox_tpool_create_external(name, nullptr, nullptr, stat_size, priv_size, min_threads,
                                    max_threads)) {}
  test_pool(const test_pool&) = delete;
  ~test_pool() {
    if (tp != nullptr) {
      ox_destroy_tpool(tp, OX_TPOOL_FL_DRAIN);
    }
  }

  int queue(task job, ox_job_notify_t* notify = nullptr) {
    const std::lock_guard hold(mutex_);
    return ox_queue_work(tp, notify, run_task, &tasks_.emplace_back(std::move(job)));
  }

  /* Starts one worker, which rests when this returns. */
  void start_worker() {
    ASSERT_EQ(0, queue([](blocks) {}));
    ASSERT_TRUE(idle(1));
  }

  /* Queues `count` jobs that hold a worker each until `release` is posted; they run by then. */
  void block_workers(int count, gate& release) {
    gate running;
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(0, queue([&](blocks) {
                  running.post();
                  release.wait();
                }));
    }
    ASSERT_TRUE(running.wait(count));
  }

  void destroy(ox_u32 flags) { ox_destroy_tpool(std::exchange(tp, nullptr), flags); }

  template <typename Field>
  auto read(Field ox_tpool_t::*field) {
    ox_lock(&tp->tp_lock);
    const auto value = tp->*field;
    ox_unlock(&tp->tp_lock);
    return value;
  }
  /* Destroys the pool, whose one worker is blocked on `release`, and lets the worker go when the
   * destruction is under way. */
  void destroy_while_running(ox_u32 flags, gate& release) {
    std::thread destroyer([this, flags] { ox_destroy_tpool(tp, flags); });
    EXPECT_TRUE(eventually([this] { return read(&ox_tpool_t::tp_closing); }));
    release.post();
    destroyer.join();
    tp = nullptr;
  }

  ox_u32 workers() { return read(&ox_tpool_t::tp_cur_count); }
  bool idle(ox_u32 count) {
    return eventually([&] { return read(&ox_tpool_t::tp_idle_count) == count; });
  }
  bool waited_for_by(ox_u32 callers) {
    return eventually([&] { return read(&ox_tpool_t::tp_waiters) == callers; });
  }
  void clear_flags(ox_u32 flags) {
    ox_lock(&tp->tp_lock);
    tp->tp_flags &= ~flags;
    ox_unlock(&tp->tp_lock);
  }

  ox_tpool_t* tp;

 private:
  std::mutex mutex_;
  std::deque<task> tasks_; /* they stay where they are */
};

/* Keeps what an aborted pool deliberately leaks reachable, for the leak checker. */
inline void keep(ox_tpool_t* aborted) {
  static auto* kept = new std::vector<ox_tpool_t*>;
  kept->push_back(aborted);
}

/* The log of a test as "LEVEL text" lines; made while no other thread logs. */
class level_log {
 public:
  explicit level_log(ox_s32 verbosity = 1) {
    ox_logfunc = [](const char*, const char* level, ox_s32, ox_s32, const ox_alert_t*) {
      return level;
    };
    ox_debug = verbosity;
  }
  ~level_log() {
    ox_logfunc = nullptr;
    ox_debug = 1;
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> all = log_.lines();
    for (std::string& line : all) { /* {LEVEL"text"} */
      line = line.substr(1, line.rfind('"') - 1);
      line.replace(line.find('"'), 1, " ");
    }
    return all;
  }
  ptrdiff_t count(const std::string& line) const {
    const auto all = lines();
    return std::count(all.begin(), all.end(), line);
  }

 private:
  const LogCapture log_;
};

#endif
