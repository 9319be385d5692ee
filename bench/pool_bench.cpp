/*
 * A burst: eight callers at once on a pool with one idle worker.
 */
#include "ox_tpool.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "parts.h"

namespace {

constexpr ox_u32 CALLERS = 8;
constexpr std::chrono::milliseconds LENGTH(50);

void* sleep_a_while(void* /*args*/, void* /*stats*/, void* /*priv*/) {
  std::this_thread::sleep_for(LENGTH);
  return nullptr;
}

void* do_nothing(void* /*args*/, void* /*stats*/, void* /*priv*/) { return nullptr; }

void run(ox_tpool_t* pool, ox_job_func_t job) {
  ox_job_notify_t* done = ox_job_create_notify();
  must(ox_queue_work(pool, done, job, nullptr) == 0, "ox_queue_work");
  ox_wait_job_completion(done);
  ox_job_destroy_notify(done);
}

/* The seconds that the slowest caller waits. */
double worst_of_burst() {
  ox_tpool_t* pool = ox_tpool_create_external("burst", nullptr, nullptr, 0, 0, 1, CALLERS);
  run(pool, do_nothing); /* leaves one idle worker */
  std::vector<double> seconds(CALLERS);
  std::vector<std::thread> callers;
  callers.reserve(CALLERS);
  for (double& own : seconds) {
    callers.emplace_back([&] { own = seconds_of([&] { run(pool, sleep_a_while); }); });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  ox_destroy_tpool(pool, OX_TPOOL_FL_DRAIN);
  return *std::max_element(seconds.begin(), seconds.end());
}

}  // namespace

void burst_rows(Bench& bench) {
  bench.pair_once("burst of 8 on one idle worker, worst", 9, worst_of_burst,
                  [] { return seconds_of([] { sleep_a_while(nullptr, nullptr, nullptr); }); });
}
