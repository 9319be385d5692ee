/*
 * The thread pool: workers and their blocks, order, pausing, draining, abort and destruction.
 */
#include "tpool_fixture.h"

using testing::Each;

namespace {

TEST(Tpool, EveryWorkerHasItsOwnZeroedBlocksAndASlotKeepsThem) {
  Gate release, running;
  std::vector<ptrdiff_t> slots(3);
  const auto content = [](Blocks b) { return std::string(static_cast<char*>(b.priv), 24); };
  TestPool pool(0, 3, "blocks", 8, 24);
  for (ptrdiff_t& slot : slots) {
    ASSERT_EQ(0, pool.queue([&](Blocks b) {
      slot = static_cast<char*>(b.priv) - static_cast<char*>(pool.tp->tp_priv.ox_priv);
      EXPECT_EQ(slot / 24 * 8,
                static_cast<char*>(b.stats) - static_cast<char*>(pool.tp->tp_stats.oxst_stats));
      EXPECT_EQ(std::string(24, '\0'), content(b));
      running.post();
      release.wait();
      memset(b.stats, 0x5a, 8);
      memset(b.priv, 0xa5, 24);
    }));
  }
  ASSERT_TRUE(running.wait(3));
  EXPECT_THAT(slots, testing::UnorderedElementsAre(0, 24, 48));
  release.post(3);
  ox_drain_tpool(pool.tp, 0);

  /* Another worker gets the lowest slot, with the content that the former one left. */
  ASSERT_EQ(0, pool.queue([&](Blocks b) {
    EXPECT_EQ(pool.tp->tp_priv.ox_priv, b.priv);
    EXPECT_EQ(std::string(24, '\xa5'), content(b));
  }));
}

/* What was called, and whether the pool was unlocked and the job's notifier signalled by then. */
struct CallOrder {
  ox_tpool_t* tp = nullptr;
  ox_job_notify_t* notify = ox_job_create_notify();
  std::vector<std::string> calls;

  bool can_lock() {
    const bool free = ox_trylock(&tp->tp_lock) == 0;
    if (free) {
      ox_unlock(&tp->tp_lock);
    }
    return free;
  }
  /* The destroying thread takes the lock only for moments. The caller would keep it. */
  void note_unlocked(const std::string& who) {
    EXPECT_TRUE(eventually([this] { return can_lock(); })) << who;
    calls.push_back(who + (notify->jn_done != 0 ? " done" : ""));
  }
};

TEST(Tpool, InitRunsUnderTheLockAndDeinitAfterTheNotifierWithoutIt) {
  CallOrder order;
  const auto init = [](const char* name, void* args) {
    auto* o = static_cast<CallOrder*>(args);
    EXPECT_FALSE(o->can_lock());
    o->calls.push_back(std::string("init of ") + name);
  };
  const auto job = [](void* args, void*, void*) -> void* {
    static_cast<CallOrder*>(args)->note_unlocked("job");
    return args;
  };
  const auto deinit = [](void* args) { static_cast<CallOrder*>(args)->note_unlocked("deinit"); };
  order.tp = ox_tpool_create_external("order", init, deinit, 0, 0, 0, 1);
  ASSERT_EQ(0, ox_queue_work(order.tp, order.notify, job, &order));
  ox_wait_job_completion(order.notify);
  ox_destroy_tpool(order.tp, OX_TPOOL_FL_DRAIN);
  EXPECT_THAT(order.calls, ElementsAre("init of order", "job", "deinit done"));
  ox_job_destroy_notify(order.notify);
  ox_signal_job_completion(nullptr);
  ox_wait_job_completion(nullptr);
  ox_job_destroy_notify(nullptr);
}

/* Eight calls before the destroy begins and eight after it, while a worker keeps the pool from its
 * end: each returns, then the destroy, when the pool's threads have ended. */
TEST(Tpool, DestroyComesWhileOtherCallsAreInside) {
  using Call = void (*)(ox_tpool_t*);
  const Call destroy = [](ox_tpool_t* tp) { ox_destroy_tpool(tp, OX_TPOOL_FL_DRAIN); };
  const std::pair<const char*, Call> table[] = {
      {"drain", [](ox_tpool_t* tp) { ox_drain_tpool(tp, OX_TPOOL_FL_DRAIN); }},
      {"drain with STOP", [](ox_tpool_t* tp) { ox_drain_tpool(tp, OX_TPOOL_FL_STOP); }},
      {"drain_wait", ox_tpool_drain_wait},
      {"update", [](ox_tpool_t* tp) { ox_update_tpool_threads(tp, 2, 4); }},
  };
  for (const auto& [name, call] : table) {
    Gate release;
    std::atomic<ox_u32> returned = 0;
    const int before = threads_to_join;
    TestPool pool(2, 2);
    pool.block_workers(2, release);
    EXPECT_EQ(before + 2, threads_to_join);
    std::vector<std::thread> threads;
    const auto start = [&](Call what, int threads_of_it) {
      for (int i = 0; i < threads_of_it; ++i) {
        threads.emplace_back([&returned, what, tp = pool.tp] {
          what(tp);
          ++returned;
        });
      }
    };
    const auto inside = [&] { return pool.read(&ox_tpool_t::tp_waiters) + returned; };
    start(call, 8);
    EXPECT_TRUE(eventually([&] { return inside() == 8; })) << name;
    start(destroy, 1);
    EXPECT_TRUE(pool.becomes(&ox_tpool_t::tp_closing, true)) << name;
    start(call, 8);
    EXPECT_TRUE(eventually([&] { return inside() == 16; })) << name;
    release.post(2);
    if (!eventually([&] { return returned == 17; })) {
      fprintf(stderr, "Calls beside a %s hang: %d of 17 returned\n", name, returned.load());
      abort(); /* nothing that these threads use may go */
    }
    std::ranges::for_each(threads, &std::thread::join);
    pool.tp = nullptr;
    EXPECT_EQ(before, threads_to_join);
  }
}

/* Queueing threads against pauses, drain_waits and changes of the limits, then a destroy that finds
 * jobs queued and workers in any state: every job runs exactly once. */
TEST(Tpool, EveryJobRunsOnceWhateverHappensMeanwhile) {
  ox_debug = 0;
  for (int round = 0; round < 25; ++round) {
    constexpr int QUEUERS = 4, JOBS = 25;
    std::vector<int> ran(QUEUERS * JOBS);
    TestPool pool(static_cast<ox_u32>(round % 3), 4, "stress", 8, 8);
    std::vector<std::thread> threads;
    for (int q = 0; q < QUEUERS; ++q) {
      threads.emplace_back([&, first = ran.begin() + q * JOBS] {
        for (auto slot = first; slot != first + JOBS; ++slot) {
          EXPECT_EQ(0, pool.queue([slot](Blocks) { ++*slot; }));
        }
      });
    }
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        ox_tpool_drain_wait(pool.tp);
        ox_update_tpool_threads(pool.tp, 0, static_cast<ox_u32>(2 + i % 3));
        ox_tpool_pause(pool.tp);
        ox_tpool_resume(pool.tp);
      }
    });
    threads.emplace_back([&] { ox_drain_tpool(pool.tp, 0); });
    for (std::thread& thread : threads) {
      thread.join();
    }
    if (round % 2 == 0) {
      ox_tpool_pause(pool.tp);
    }
    pool.destroy(0);
    EXPECT_THAT(ran, Each(1));
  }
  ox_debug = 1;
}

}  // namespace
