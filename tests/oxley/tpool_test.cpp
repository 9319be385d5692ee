/*
 * The thread pool: workers and their blocks, order, pausing, draining, abort and destruction.
 */
#include <cstring>

#include "tpool_fixture.h"

using testing::Each;
using testing::ElementsAre;

namespace {

TEST(Tpool, GrowsWhileNoWorkerIsIdleAndShrinksToTheMinimum) {
  Gate release;
  TestPool pool(1, 3);
  EXPECT_EQ(0u, pool.workers());
  pool.start_worker();
  pool.block_workers(1, release);
  EXPECT_EQ(1u, pool.workers());
  pool.block_workers(2, release);
  ASSERT_EQ(0, pool.queue([](Blocks) {}));
  EXPECT_EQ(3u, pool.workers());
  EXPECT_EQ(1u, pool.read(&ox_tpool_t::tp_qlen));
  release.post(3);
  EXPECT_TRUE(pool.idle(3));
  EXPECT_EQ(2, longest_wait(&pool.tp->tp_worker_cv));
  pool.destroy(0);

  TestPool shrinking(1, 3);
  shrinking.block_workers(3, release);
  time_flies = true;
  release.post(3);
  EXPECT_TRUE(shrinking.becomes(&ox_tpool_t::tp_cur_count, 1));
  time_flies = false;
  shrinking.start_worker();
  EXPECT_EQ(1u, shrinking.workers()) << "the one that stayed works";
}

/* The first of two jobs wakes the idle worker; the second must not wait behind it. */
TEST(Tpool, JobsThatNeedEachOtherRunThoughOnlyOneWorkerIsIdle) {
  for (int round = 0; round < 50; ++round) {
    Gate met;
    bool first_met = false;
    TestPool pool(1, 2);
    pool.start_worker();
    ASSERT_EQ(0, pool.queue([&](Blocks) { first_met = met.wait(); }));
    ASSERT_EQ(0, pool.queue([&](Blocks) { met.post(); }));
    pool.destroy(OX_TPOOL_FL_DRAIN);
    ASSERT_TRUE(first_met);
  }
}

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

TEST(Tpool, SlotsBeyondTheArraysHaveNoBlocks) {
  const struct {
    const char* name;
    ox_u32 max_at_creation, size;
    int workers, with_block;
  } table[] = {
      {"wide", 258, 16, 258, 256},
      {"grown", 1, 16, 3, 1},
      {"wrapped", 4, 0x40000004, 4, 0}, /* 16 bytes in all, taken as a 32-bit product */
  };
  const LogCapture log;
  for (const auto& row : table) {
    Gate release;
    std::atomic<int> begun = 0, with_block = 0;
    TestPool pool(0, row.max_at_creation, row.name, 0, row.size);
    ox_update_tpool_threads(pool.tp, 0, static_cast<ox_u32>(row.workers));
    EXPECT_EQ(0u, pool.workers());
    for (int i = 0; i < row.workers; ++i) {
      ASSERT_EQ(0, pool.queue([&](Blocks b) {
        with_block += static_cast<int>(b.priv != nullptr);
        ++begun;
        release.wait();
      }));
    }
    EXPECT_TRUE(eventually([&] { return begun == row.workers; }));
    EXPECT_EQ(row.with_block, with_block) << row.name;
    release.post(row.workers);
  }
  EXPECT_EQ(2, count(log, "WARNING: Thread pool [wide] no STAT slots available."));
  EXPECT_EQ(2, count(log, "WARNING: Thread pool [wide] no PRIV slots available."));
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
  /* The destroying thread takes the lock too, but lets go of it; the caller's own hold would stay.
   */
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

/* The first job wakes the idle worker, which finds the pool paused. It rests until the resume, or
 * leaves after the time because it is surplus; the resume then starts another. */
TEST(Tpool, PausedPoolKeepsItsJobsAndResumeRunsThemInOrder) {
  for (const ox_u32 min_threads : {1u, 0u}) {
    const LogCapture log;
    Gate done;
    std::vector<int> order;
    TestPool pool(min_threads, 1, "paused");
    pool.start_worker();
    EXPECT_EQ(0, ox_tpool_pause(pool.tp));
    EXPECT_TRUE(ox_tpool_is_paused(pool.tp));
    time_flies = min_threads == 0;
    for (int i = 0; i < 5; ++i) {
      ASSERT_EQ(0, pool.queue([&, i](Blocks) {
        order.push_back(i);
        done.post();
      }));
    }
    EXPECT_TRUE(
        eventually([&] { return count(log, "DEBUG: Threadpool [paused] is paused...") == 1; }));
    EXPECT_TRUE(pool.becomes(&ox_tpool_t::tp_cur_count, min_threads));
    EXPECT_TRUE(pool.idle(min_threads));
    time_flies = false;
    EXPECT_EQ(5u, pool.read(&ox_tpool_t::tp_qlen));
    EXPECT_EQ(0, ox_tpool_resume(pool.tp));
    EXPECT_FALSE(ox_tpool_is_paused(pool.tp));
    ASSERT_TRUE(done.wait(5));
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4));
  }
}

TEST(Tpool, DrainWaitReturnsWhenRunningJobsHaveEnded) {
  Gate release;
  std::atomic<bool> returned = false, ran = false;
  TestPool pool(0, 2);
  pool.block_workers(2, release);
  std::thread waiter([&] {
    ox_tpool_drain_wait(pool.tp);
    returned = true;
  });
  EXPECT_TRUE(pool.becomes(&ox_tpool_t::tp_waiters, 1));
  EXPECT_TRUE(ox_tpool_is_paused(pool.tp));
  EXPECT_EQ(0, pool.queue([&](Blocks) { ran = true; }));
  release.post();
  EXPECT_TRUE(pool.idle(1));
  EXPECT_FALSE(returned);
  release.post();
  waiter.join();
  EXPECT_FALSE(ran);
  EXPECT_EQ(3, longest_wait(&pool.tp->tp_pool_cv));
  ox_tpool_resume(pool.tp);
  EXPECT_TRUE(eventually([&] { return ran.load(); }));
}

/* A queueing call sends one signal. Were it to reach a drain_wait, the job would wait. */
TEST(Tpool, DrainWaitDoesNotSwallowTheSignalOfAQueueingCall) {
  Gate release, done;
  TestPool pool(2, 2);
  pool.block_workers(2, release);
  release.post();
  EXPECT_TRUE(pool.idle(1));
  std::thread waiter([&] { ox_tpool_drain_wait(pool.tp); });
  EXPECT_TRUE(pool.becomes(&ox_tpool_t::tp_waiters, 1));
  ox_tpool_resume(pool.tp);
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(pool.idle(1));
    EXPECT_EQ(0, pool.queue([&](Blocks) { done.post(); }));
    EXPECT_TRUE(done.wait());
  }
  release.post();
  waiter.join();
}

/* Workers are told by their thread's name: the pool's, cut to 15 characters. */
TEST(Tpool, DrainingPoolRefusesStrangersAndServesItsOwn) {
  const LogCapture log;
  Gate release;
  std::vector<int> answers;
  std::atomic<int> ran = 0;
  TestPool pool(0, 1, "a_name_of_20_letters");
  const auto try_to_queue = [&] { answers.push_back(pool.queue([&](Blocks) { ++ran; })); };
  ASSERT_EQ(0, pool.queue([&](Blocks) {
    release.wait();
    try_to_queue();
  }));
  std::thread drainer([&] { ox_drain_tpool(pool.tp, OX_TPOOL_FL_DRAIN); });
  EXPECT_TRUE(pool.becomes(&ox_tpool_t::tp_state, OX_TPOOL_DRAINING));
  for (const char* name : {"stranger", "a_name_of_20_le"}) {
    std::thread([&] {
      pthread_setname_np(pthread_self(), name);
      try_to_queue();
    }).join();
  }
  ox_tpool_pause(pool.tp); /* cannot keep the drain from its end */
  release.post();
  drainer.join();
  EXPECT_THAT(answers, ElementsAre(OX_EINVAL, 0, 0));
  EXPECT_EQ(2, ran);
  EXPECT_EQ(0u, pool.workers());
  EXPECT_EQ(1, count(log,
                     "ERROR 22: [a_name_of_20_le]: cannot queue job, the thread pool is being "
                     "drained/destroyed."));
}

/* A drain lifts a pause, and the minimum of workers leaves, too. Without flags nobody is refused.
 */
TEST(Tpool, DrainedPoolTakesWorkUnlessTheFlagsRefuseIt) {
  for (const ox_u32 flags : {ox_u32{OX_TPOOL_FL_DRAIN}, ox_u32{0}}) {
    std::atomic<int> ran = 0;
    TestPool pool(2, 2);
    for (int round = 1; round <= 3; ++round) {
      ox_tpool_pause(pool.tp);
      ASSERT_EQ(0, pool.queue([&](Blocks) { ++ran; }));
      ox_drain_tpool(pool.tp, flags);
      EXPECT_EQ(round, ran);
      EXPECT_EQ(0u, pool.workers());
      EXPECT_FALSE(ox_tpool_is_paused(pool.tp));
      EXPECT_EQ(OX_TPOOL_ACTIVE, static_cast<int>(pool.read(&ox_tpool_t::tp_state)));
      EXPECT_EQ(flags != 0 ? OX_EINVAL : 0, pool.queue([](Blocks) {}));
      pool.tp->tp_flags &= ~flags;
    }
  }
}

TEST(Tpool, DestroyLiftsAPauseAndRunsTheQueueOrWithStopDropsIt) {
  for (const ox_u32 flags : {ox_u32{0}, ox_u32{OX_TPOOL_FL_STOP}}) {
    ox_job_notify_t* notify = ox_job_create_notify();
    int ran = 0;
    TestPool pool(0, 1);
    ox_tpool_pause(pool.tp);
    ASSERT_EQ(0, pool.queue([&](Blocks) { ++ran; }, notify));
    ASSERT_TRUE(pool.idle(1)); /* in the pause */
    pool.destroy(flags);
    EXPECT_EQ(flags == 0 ? 1 : 0, ran);
    EXPECT_EQ(ran, notify->jn_done);
    ox_job_destroy_notify(notify);
  }
}

/* Eight calls before the destroy begins and eight after it, while a worker keeps the pool from its
 * end: each returns, then the destroy. */
TEST(Tpool, DestroyComesWhileOtherCallsAreInside) {
  using Call = void (*)(ox_tpool_t*);
  const std::pair<const char*, Call> table[] = {
      {"drain", [](ox_tpool_t* tp) { ox_drain_tpool(tp, OX_TPOOL_FL_DRAIN); }},
      {"drain with STOP", [](ox_tpool_t* tp) { ox_drain_tpool(tp, OX_TPOOL_FL_STOP); }},
      {"drain_wait", ox_tpool_drain_wait},
      {"update", [](ox_tpool_t* tp) { ox_update_tpool_threads(tp, 2, 4); }},
  };
  for (const auto& [name, call] : table) {
    auto* pool = new TestPool(2, 2);
    auto* returned = new std::atomic<ox_u32>(0);
    auto* release = new Gate;
    pool->block_workers(1, *release);
    std::vector<std::thread> threads;
    const auto start = [&](const Call& what, int threads_of_it) {
      for (int i = 0; i < threads_of_it; ++i) {
        threads.emplace_back([what, tp = pool->tp, returned] {
          what(tp);
          ++*returned;
        });
      }
    };
    const auto inside = [&] { return pool->read(&ox_tpool_t::tp_waiters) + *returned; };
    start(call, 8);
    ASSERT_TRUE(eventually([&] { return inside() == 8; })) << name;
    start([](ox_tpool_t* tp) { ox_destroy_tpool(tp, OX_TPOOL_FL_DRAIN); }, 1);
    ASSERT_TRUE(pool->becomes(&ox_tpool_t::tp_closing, true)) << name;
    start(call, 8);
    ASSERT_TRUE(eventually([&] { return inside() == 16; })) << name;
    release->post();
    const bool all_returned = eventually([&] { return *returned == 17; });
    EXPECT_TRUE(all_returned) << name;
    for (std::thread& thread : threads) {
      all_returned ? thread.join() : thread.detach();
    }
    pool->tp = nullptr;
    if (all_returned) { /* else threads hang in it */
      delete pool;
      delete returned;
      delete release;
    }
  }
}

TEST(Tpool, DestroyReturnsWhenItsThreadsHaveEnded) {
  Gate release;
  TestPool pool(0, 4);
  const int before = threads_to_join;
  pool.block_workers(4, release);
  EXPECT_EQ(before + 4, threads_to_join);
  release.post(4);
  pool.destroy(0);
  EXPECT_EQ(before, threads_to_join);
}

TEST(Tpool, AbortDropsTheQueueWhateverTheWorkersDoAndLeavesTheRecord) {
  static std::vector<ox_tpool_t*> aborted; /* for the leak checker */
  Gate release;
  TestPool busy(1, 2), paused(1, 1), unserved(0, 0);
  busy.block_workers(2, release);
  ox_tpool_pause(paused.tp);
  ox_job_notify_t* notify = ox_job_create_notify();
  for (TestPool* pool : {&busy, &paused, &unserved}) {
    ASSERT_EQ(0, pool->queue([](Blocks) { ADD_FAILURE() << "a dropped job ran"; }, notify));
    ASSERT_TRUE(pool->idle(pool == &paused ? 1 : 0));
    ox_destroy_tpool(pool->tp, OX_TPOOL_FL_ABORT);
    ox_destroy_tpool(pool->tp, OX_TPOOL_FL_DRAIN); /* returns at once, though workers are busy */
  }
  EXPECT_EQ(2u, busy.workers());
  release.post(2);
  for (TestPool* pool : {&busy, &paused, &unserved}) {
    EXPECT_TRUE(pool->becomes(&ox_tpool_t::tp_cur_count, 0));
    EXPECT_EQ(0u, pool->read(&ox_tpool_t::tp_qlen));
    EXPECT_EQ(OX_TPOOL_ABORTED, static_cast<int>(pool->read(&ox_tpool_t::tp_state)));
    aborted.push_back(std::exchange(pool->tp, nullptr));
  }
  EXPECT_EQ(0, notify->jn_done);
  ox_job_destroy_notify(notify);
}

TEST(Tpool, DeinitDestroysListedPoolsAndSurvivesAnAbortedOne) {
  static std::vector<ox_tpool_t*> aborted;
  static std::atomic<int> ran;
  ran = 0;
  const auto job = [](void*, void*, void*) -> void* {
    ++ran;
    return nullptr;
  };
  const auto create = [](const char* name) {
    return ox_tpool_create(name, nullptr, nullptr, 0, 0, 0, 1);
  };
  const LogCapture log;
  EXPECT_EQ(nullptr, create("early"));
  EXPECT_THAT(log.brief_lines(),
              ElementsAre("ERROR 22: cannot lock thread pool to add to pool list"));
  for (int round = 1; round <= 2; ++round) {
    ASSERT_EQ(0, ox_init_tpool());
    ASSERT_EQ(0, ox_init_tpool());
    TestPool external(0, 1);
    ox_tpool_t* first = create("first");
    aborted.push_back(create("aborted"));
    ASSERT_EQ(0, ox_queue_work(create("last"), nullptr, job, nullptr));
    ox_destroy_tpool(aborted.back(), OX_TPOOL_FL_ABORT);
    ox_destroy_tpool(first, OX_TPOOL_FL_DRAIN);
    ox_deinit_tpool(OX_TPOOL_FL_DRAIN);
    EXPECT_EQ(round, ran);
    EXPECT_EQ(0, external.queue([](Blocks) {}));
    EXPECT_EQ(round, count(log, "DEBUG: Destroying thread pool last"));
    EXPECT_EQ(round, count(log, "DEBUG: Aborting thread pool aborted"));
  }
  ox_deinit_tpool(0);
}

/* A line of each verbosity, from one run through all that logs. */
TEST(Tpool, LogLinesNeedTheirVerbosity) {
  const std::pair<const char*, ox_s32> table[] = {
      {"INFO: Draining thread pool log", 0},
      {"DEBUG: [log]:Thread exiting... All jobs drained.", 1},
      {"DEBUG: Threadpool [log] is paused...", 2},
      {"DEBUG: [log] Job queue is empty, waiting for jobs...", 3},
      {"DEBUG: Thread exiting...", 3},
      {"DEBUG: Thread pool [log] PRIV SLOT 0 freed.", 5},
  };
  for (ox_debug = 0; ox_debug <= 5; ++ox_debug) {
    const LogCapture log;
    Gate release;
    TestPool pool(1, 1, "log");
    ox_tpool_pause(pool.tp);
    pool.start_worker(); /* in the pause wait */
    ox_tpool_resume(pool.tp);
    ox_drain_tpool(pool.tp, 0);
    pool.start_worker();
    pool.destroy(OX_TPOOL_FL_STOP);
    for (const auto& [line, verbosity] : table) {
      EXPECT_EQ(ox_debug >= verbosity, count(log, line) > 0) << line << " at " << ox_debug;
    }
  }
  ox_debug = 1;
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

/* Of two jobs that were queued in a pause, the first needs the second. */
TEST(Tpool, ABurstInAPauseStartsItsWorkersWhenThePauseEnds) {
  for (const bool drain : {false, true}) {
    Gate second;
    bool met = false;
    TestPool pool(1, 2);
    pool.start_worker();
    ox_tpool_pause(pool.tp);
    pool.queue([&](Blocks) { met = second.wait(); });
    pool.queue([&](Blocks) { second.post(); });
    drain ? ox_drain_tpool(pool.tp, 0) : (void)ox_tpool_resume(pool.tp);
    pool.destroy(OX_TPOOL_FL_DRAIN);
    EXPECT_TRUE(met);
  }
}

TEST(Tpool, ASecondDestroyWithStopHurriesTheFirst) {
  Gate release;
  std::atomic<bool> ran = false;
  TestPool pool(0, 1);
  pool.block_workers(1, release);
  pool.queue([&](Blocks) { ran = true; });
  std::thread first([&] { ox_destroy_tpool(pool.tp, OX_TPOOL_FL_DRAIN); });
  EXPECT_TRUE(pool.becomes(&ox_tpool_t::tp_state, OX_TPOOL_DRAINING));
  ox_destroy_tpool(pool.tp, OX_TPOOL_FL_STOP);
  release.post();
  first.join();
  pool.tp = nullptr;
  EXPECT_FALSE(ran);
}
