/*
 * The thread pool: workers and their blocks, order, pausing, draining, abort and destruction.
 */
#include <atomic>
#include <cstring>

#include "tpool_fixture.h"

using testing::Each;
using testing::ElementsAre;

namespace {

TEST(Tpool, GrowsWhileNoWorkerIsIdleAndShrinksToTheMinimum) {
  gate release;
  test_pool pool(1, 3);
  EXPECT_EQ(0u, pool.workers());
  pool.start_worker();
  pool.block_workers(1, release);
  EXPECT_EQ(1u, pool.workers());
  pool.block_workers(2, release);
  ASSERT_EQ(0, pool.queue([](blocks) {}));
  EXPECT_EQ(3u, pool.workers());
  EXPECT_EQ(1u, pool.read(&ox_tpool_t::tp_qlen));
  const auto start = std::chrono::steady_clock::now();
  release.post(3);
  EXPECT_TRUE(eventually([&] { return pool.workers() == 1; }));
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  pool.start_worker();
  EXPECT_EQ(1u, pool.workers()) << "the one that stayed works";
}

/* The first of two jobs wakes the idle worker; the second must not wait behind it. */
TEST(Tpool, JobsThatNeedEachOtherRunThoughOnlyOneWorkerIsIdle) {
  for (int round = 0; round < 50; ++round) {
    gate met;
    bool first_met = false;
    test_pool pool(1, 2);
    pool.start_worker();
    ASSERT_EQ(0, pool.queue([&](blocks) { first_met = met.wait(); }));
    ASSERT_EQ(0, pool.queue([&](blocks) { met.post(); }));
    pool.destroy(OX_TPOOL_FL_DRAIN);
    ASSERT_TRUE(first_met);
  }
}

TEST(Tpool, EveryWorkerHasItsOwnZeroedBlocksAndASlotKeepsThem) {
  gate release, running;
  std::vector<ptrdiff_t> slots(3);
  const auto content = [](blocks b) { return std::string(static_cast<char*>(b.priv), 24); };
  test_pool pool(0, 3, "blocks", 8, 24);
  for (ptrdiff_t& slot : slots) {
    ASSERT_EQ(0, pool.queue([&](blocks b) {
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

  /* Another worker on the lowest slot: the content is as the former one left it. */
  ASSERT_EQ(0, pool.queue([&](blocks b) {
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
  level_log log;
  for (const auto& row : table) {
    gate running, release;
    std::atomic<int> with_block = 0;
    test_pool pool(0, row.max_at_creation, row.name, 0, row.size);
    ox_update_tpool_threads(pool.tp, 0, static_cast<ox_u32>(row.workers));
    EXPECT_EQ(0u, pool.workers());
    for (int i = 0; i < row.workers; ++i) {
      ASSERT_EQ(0, pool.queue([&](blocks b) {
        with_block += b.priv != nullptr;
        running.post();
        release.wait();
      }));
    }
    EXPECT_TRUE(running.wait(row.workers));
    EXPECT_EQ(row.with_block, with_block) << row.name;
    release.post(row.workers);
    pool.destroy(0);
  }
  EXPECT_EQ(2, log.count("WARNING Thread pool [wide] no STAT slots available."));
  EXPECT_EQ(2, log.count("WARNING Thread pool [wide] no PRIV slots available."));
}

struct call_order {
  ox_tpool_t* tp = nullptr;
  ox_job_notify_t* notify = ox_job_create_notify();
  std::vector<std::string> calls;
};

bool can_lock(ox_tpool_t* tp) {
  const bool free = ox_trylock(&tp->tp_lock) == 0;
  if (free) {
    ox_unlock(&tp->tp_lock);
  }
  return free;
}

/* The destroying thread takes the lock too, but lets go of it; the caller's own hold would stay. */
void note_unlocked(void* args, const char* who) {
  auto* order = static_cast<call_order*>(args);
  EXPECT_TRUE(eventually([order] { return can_lock(order->tp); })) << who;
  order->calls.push_back(std::string(who) + (order->notify->jn_done != 0 ? " done" : ""));
}

TEST(Tpool, InitRunsUnderTheLockAndDeinitAfterTheNotifierWithoutIt) {
  call_order order;
  const auto init = [](const char* name, void* args) {
    auto* o = static_cast<call_order*>(args);
    EXPECT_FALSE(can_lock(o->tp));
    o->calls.push_back(std::string("init of ") + name);
  };
  const auto job = [](void* args, void*, void*) -> void* {
    note_unlocked(args, "job");
    return args;
  };
  const auto deinit = [](void* args) { note_unlocked(args, "deinit"); };
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

/* The idle worker is woken by the first job and finds the pool paused; as the minimum has it, it
 * rests until the resume or leaves, and the resume starts another. */
TEST(Tpool, PausedPoolKeepsItsJobsAndResumeRunsThemInOrder) {
  for (const ox_u32 min_threads : {1u, 0u}) {
    level_log log;
    gate done;
    std::vector<int> order;
    test_pool pool(min_threads, 1, "paused");
    pool.start_worker();
    EXPECT_EQ(0, ox_tpool_pause(pool.tp));
    EXPECT_TRUE(ox_tpool_is_paused(pool.tp));
    for (int i = 0; i < 5; ++i) {
      ASSERT_EQ(0, pool.queue([&, i](blocks) {
        order.push_back(i);
        done.post();
      }));
    }
    EXPECT_TRUE(
        eventually([&] { return log.count("DEBUG Threadpool [paused] is paused...") == 1; }));
    ASSERT_TRUE(eventually([&] { return pool.workers() == min_threads; }));
    ASSERT_TRUE(pool.idle(min_threads));
    EXPECT_EQ(5u, pool.read(&ox_tpool_t::tp_qlen));
    EXPECT_EQ(0, ox_tpool_resume(pool.tp));
    EXPECT_FALSE(ox_tpool_is_paused(pool.tp));
    ASSERT_TRUE(done.wait(5));
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4));
  }
}

TEST(Tpool, DrainWaitReturnsWhenRunningJobsHaveEnded) {
  gate release;
  std::atomic<bool> returned = false, ran = false;
  test_pool pool(0, 2);
  pool.block_workers(2, release);
  std::thread waiter([&] {
    ox_tpool_drain_wait(pool.tp);
    returned = true;
  });
  ASSERT_TRUE(pool.waited_for_by(1));
  EXPECT_TRUE(ox_tpool_is_paused(pool.tp));
  ASSERT_EQ(0, pool.queue([&](blocks) { ran = true; }));
  release.post();
  ASSERT_TRUE(pool.idle(1));
  EXPECT_FALSE(returned);
  release.post();
  waiter.join();
  EXPECT_FALSE(ran);
  ox_tpool_resume(pool.tp);
  EXPECT_TRUE(eventually([&] { return ran.load(); }));
}

/* A queueing call sends one signal. Were it to reach a drain_wait, the job would wait until an idle
 * worker looks by itself, a second or more later. */
TEST(Tpool, DrainWaitDoesNotSwallowTheSignalOfAQueueingCall) {
  gate release, done;
  test_pool pool(2, 2);
  pool.block_workers(2, release);
  release.post();
  ASSERT_TRUE(pool.idle(1));
  std::thread waiter([&] { ox_tpool_drain_wait(pool.tp); });
  ASSERT_TRUE(pool.waited_for_by(1));
  ox_tpool_resume(pool.tp);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(pool.idle(1));
    ASSERT_EQ(0, pool.queue([&](blocks) { done.post(); }));
    ASSERT_TRUE(done.wait());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  release.post();
  waiter.join();
}

/* Workers are told by their thread's name: the pool's, cut to 15 characters. */
TEST(Tpool, DrainingPoolRefusesStrangersAndServesItsOwn) {
  level_log log;
  gate release;
  std::vector<int> answers;
  std::atomic<int> ran = 0;
  test_pool pool(0, 1, "a_name_of_20_letters");
  const auto try_to_queue = [&] { answers.push_back(pool.queue([&](blocks) { ++ran; })); };
  ASSERT_EQ(0, pool.queue([&](blocks) {
    release.wait();
    try_to_queue();
  }));
  std::thread drainer([&] { ox_drain_tpool(pool.tp, OX_TPOOL_FL_DRAIN); });
  ASSERT_TRUE(eventually([&] { return pool.read(&ox_tpool_t::tp_state) == OX_TPOOL_DRAINING; }));
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
  EXPECT_EQ(1, log.count("ERROR [a_name_of_20_le]: cannot queue job, the thread pool is being "
                         "drained/destroyed."));
}

/* A drain lifts a pause, and the minimum of workers leaves too. Without flags nobody is refused. */
TEST(Tpool, DrainedPoolTakesWorkUnlessTheFlagsRefuseIt) {
  for (const ox_u32 flags : {ox_u32{OX_TPOOL_FL_DRAIN}, ox_u32{0}}) {
    std::atomic<int> ran = 0;
    test_pool pool(2, 2);
    for (int round = 1; round <= 3; ++round) {
      ox_tpool_pause(pool.tp);
      ASSERT_EQ(0, pool.queue([&](blocks) { ++ran; }));
      ox_drain_tpool(pool.tp, flags);
      EXPECT_EQ(round, ran);
      EXPECT_EQ(0u, pool.workers());
      EXPECT_FALSE(ox_tpool_is_paused(pool.tp));
      EXPECT_EQ(OX_TPOOL_ACTIVE, static_cast<int>(pool.read(&ox_tpool_t::tp_state)));
      EXPECT_EQ(flags != 0 ? OX_EINVAL : 0, pool.queue([](blocks) {}));
      pool.clear_flags(flags);
    }
  }
}

TEST(Tpool, DestroyLiftsAPauseAndRunsTheQueueOrWithStopDropsIt) {
  for (const ox_u32 flags : {ox_u32{0}, ox_u32{OX_TPOOL_FL_STOP}}) {
    ox_job_notify_t* notify = ox_job_create_notify();
    int ran = 0;
    test_pool pool(0, 1);
    ox_tpool_pause(pool.tp);
    ASSERT_EQ(0, pool.queue([&](blocks) { ++ran; }, notify));
    ASSERT_TRUE(pool.idle(1)); /* in the pause */
    pool.destroy(flags);
    EXPECT_EQ(flags == 0 ? 1 : 0, ran);
    EXPECT_EQ(ran, notify->jn_done);
    ox_job_destroy_notify(notify);
  }
}

/* Eight at once: the destroy is then seldom the last to get the lock, as it would have to be to
 * free the pool after the others by luck. */
TEST(Tpool, DestroyWaitsForTheEndOfEveryDrainWait) {
  gate release;
  test_pool pool(2, 2);
  pool.block_workers(1, release);
  std::vector<std::thread> waiters;
  for (int i = 0; i < 8; ++i) {
    waiters.emplace_back([tp = pool.tp] { ox_tpool_drain_wait(tp); });
  }
  ASSERT_TRUE(pool.waited_for_by(8));
  pool.destroy_while_running(OX_TPOOL_FL_DRAIN, release);
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
}

std::atomic<int> threads_gone = 0;

/* The destructor of a thread's own data runs after the worker's last line of code: a destroy that
 * merely counts its workers is found out too. */
TEST(Tpool, DestroyReturnsWhenItsThreadsHaveEnded) {
  pthread_key_t key;
  ASSERT_EQ(0, pthread_key_create(&key, [](void*) {
              static std::atomic<int> ending = 0;
              std::this_thread::sleep_for(std::chrono::milliseconds(100 - 30 * (ending++ % 4)));
              ++threads_gone;
            }));
  threads_gone = 0;
  gate running, release;
  test_pool pool(0, 4);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(0, pool.queue([&](blocks) {
      pthread_setspecific(key, &key);
      running.post();
      release.wait();
    }));
  }
  ASSERT_TRUE(running.wait(4));
  release.post(4);
  pool.destroy(0);
  EXPECT_EQ(4, threads_gone);
  pthread_key_delete(key);
}

TEST(Tpool, AbortDropsTheQueueWhateverTheWorkersDoAndLeavesTheRecord) {
  gate release;
  test_pool busy(1, 2), paused(1, 1), unserved(0, 0);
  busy.block_workers(2, release);
  ox_tpool_pause(paused.tp);
  ox_job_notify_t* notify = ox_job_create_notify();
  for (test_pool* pool : {&busy, &paused, &unserved}) {
    ASSERT_EQ(0, pool->queue([](blocks) { ADD_FAILURE() << "a dropped job ran"; }, notify));
    ASSERT_TRUE(pool->idle(pool == &paused ? 1 : 0));
    ox_destroy_tpool(pool->tp, OX_TPOOL_FL_ABORT);
    ox_destroy_tpool(pool->tp, OX_TPOOL_FL_DRAIN); /* returns at once, though workers are busy */
  }
  EXPECT_EQ(2u, busy.workers());
  release.post(2);
  for (test_pool* pool : {&busy, &paused, &unserved}) {
    EXPECT_TRUE(eventually([&] { return pool->workers() == 0; }));
    EXPECT_EQ(0u, pool->read(&ox_tpool_t::tp_qlen));
    EXPECT_EQ(OX_TPOOL_ABORTED, static_cast<int>(pool->read(&ox_tpool_t::tp_state)));
    keep(std::exchange(pool->tp, nullptr));
  }
  EXPECT_EQ(0, notify->jn_done);
  ox_job_destroy_notify(notify);
}

TEST(Tpool, DeinitDestroysListedPoolsAndSurvivesAnAbortedOne) {
  static std::atomic<int> ran;
  ran = 0;
  const auto job = [](void*, void*, void*) -> void* {
    ++ran;
    return nullptr;
  };
  const auto create = [](const char* name) {
    return ox_tpool_create(name, nullptr, nullptr, 0, 0, 0, 1);
  };
  level_log log;
  EXPECT_EQ(nullptr, create("early"));
  EXPECT_THAT(log.lines(), ElementsAre("ERROR cannot lock thread pool to add to pool list"));
  for (int round = 1; round <= 2; ++round) {
    ASSERT_EQ(0, ox_init_tpool());
    ASSERT_EQ(0, ox_init_tpool());
    test_pool external(0, 1);
    ox_tpool_t* first = create("first");
    ox_tpool_t* aborted = create("aborted");
    ASSERT_EQ(0, ox_queue_work(create("last"), nullptr, job, nullptr));
    ox_destroy_tpool(aborted, OX_TPOOL_FL_ABORT);
    keep(aborted);
    ox_destroy_tpool(first, OX_TPOOL_FL_DRAIN);
    ox_deinit_tpool(OX_TPOOL_FL_DRAIN);
    EXPECT_EQ(round, ran);
    EXPECT_EQ(0, external.queue([](blocks) {}));
    EXPECT_EQ(round, log.count("DEBUG Destroying thread pool last"));
    EXPECT_EQ(round, log.count("DEBUG Aborting thread pool aborted"));
  }
  ox_deinit_tpool(0);
}

/* A line of each verbosity, from one run through all that logs. */
TEST(Tpool, LogLinesNeedTheirVerbosity) {
  const struct {
    const char* line;
    ox_s32 verbosity;
  } table[] = {
      {"INFO Draining thread pool log", 0},
      {"DEBUG [log]:Thread exiting... All jobs drained.", 1},
      {"DEBUG Threadpool [log] is paused...", 2},
      {"DEBUG [log] Job queue is empty, waiting for jobs...", 3},
      {"DEBUG Thread exiting...", 3},
      {"DEBUG Thread pool [log] PRIV SLOT 0 freed.", 5},
  };
  for (const ox_s32 verbosity : {0, 1, 2, 3, 4, 5}) {
    level_log log(verbosity);
    gate release;
    test_pool pool(1, 1, "log");
    ox_tpool_pause(pool.tp);
    pool.start_worker(); /* in the pause wait */
    ox_tpool_resume(pool.tp);
    ox_drain_tpool(pool.tp, 0);
    pool.block_workers(1, release);
    pool.destroy_while_running(OX_TPOOL_FL_STOP, release);
    for (const auto& [line, needed] : table) {
      EXPECT_EQ(verbosity >= needed, log.count(line) > 0) << line << " at " << verbosity;
    }
  }
}

/* Queueing threads against pauses, drain_waits and changes of the limits, then a destroy that finds
 * jobs queued and workers in any state: every job runs exactly once. */
TEST(Tpool, EveryJobRunsOnceWhateverHappensMeanwhile) {
  level_log log(0);
  const auto start = std::chrono::steady_clock::now();
  for (int round = 0; round < 25; ++round) {
    constexpr int queuers = 4, jobs = 25;
    std::vector<int> ran(queuers * jobs);
    test_pool pool(static_cast<ox_u32>(round % 3), 4, "stress", 8, 8);
    std::vector<std::thread> threads;
    for (int q = 0; q < queuers; ++q) {
      threads.emplace_back([&, first = ran.begin() + q * jobs] {
        for (auto slot = first; slot != first + jobs; ++slot) {
          EXPECT_EQ(0, pool.queue([slot](blocks) { ++*slot; }));
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
  /* A drain_wait that nobody wakes would come back by itself, two seconds or more later. */
  EXPECT_LT(std::chrono::steady_clock::now() - start, patience);
}

}  // namespace
