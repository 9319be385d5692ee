/*
 * bench_parts FOLDER CPUS ROW...: rows of parts of the library, which need no service.
 */
#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "bench.h"
#include "ox_logging.h"
#include "ox_tpool.h"
#include "vfstnw_bits.h"
#ifndef _WIN32
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "ox_text.h"
#endif

namespace {

/* The test of a whole region map, against a comparison of as many bytes. */
void regions_rows(Bench& bench) {
  constexpr int SHIFT = 20;
  constexpr ox_u64 LENGTH = ox_u64{1} << 40;
  const std::vector<ox_u8> map((LENGTH >> SHIFT) / 8, 0xff), all_set(map);
  bench.pair("region test, 1 TiB of 1 MiB regions", repeat([&] {
               must(vfstnw_is_region_set(map.data(), SHIFT, 0, LENGTH), "a region is missing");
             }),
             repeat([&] {
               benchmark::DoNotOptimize(memcmp(map.data(), all_set.data(), map.size()));
               benchmark::ClobberMemory();
             }));
}

/* A line of the log, against spdlog with the same file, flushed after each line, too. */
void log_rows(Bench& bench) {
  const std::string text(196, 'x');
  ox_init_logging("bench", (bench.folder() + "/ox.log").c_str(), nullptr, "a");
  const auto logger = peer_logger(bench.folder() + "/spd.log");
  bench.pair("ox_log, 200 bytes", repeat([&] { ox_log("%s %d\n", text.c_str(), 100); }),
             repeat([&] { logger->info("{} {}", text, 100); }));
}

void* sleep_a_while(void* /*args*/, void* /*stats*/, void* /*priv*/) {
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return nullptr;
}

void run(ox_tpool_t* pool, ox_job_func_t job) {
  ox_job_notify_t* done = ox_job_create_notify();
  must(ox_queue_work(pool, done, job, nullptr) == 0, "ox_queue_work");
  ox_wait_job_completion(done);
  ox_job_destroy_notify(done);
}

/* A burst: eight callers at once on a pool with one idle worker. The seconds of the slowest one. */
double worst_of_burst() {
  constexpr ox_u32 CALLERS = 8;
  ox_tpool_t* pool = ox_tpool_create_external("burst", nullptr, nullptr, 0, 0, 1, CALLERS);
  run(pool, sleep_a_while); /* leaves one idle worker */
  Samples seconds(CALLERS);
  std::vector<std::jthread> callers;
  for (double& own : seconds) {
    callers.emplace_back([&] { own = seconds_of([&] { run(pool, sleep_a_while); }); });
  }
  callers.clear(); /* waits for all */
  ox_destroy_tpool(pool, OX_TPOOL_FL_DRAIN);
  return *std::max_element(seconds.begin(), seconds.end());
}

void burst_rows(Bench& bench) {
  bench.pair_once("burst of 8 on one idle worker, worst", 9, worst_of_burst,
                  [] { return seconds_of([] { sleep_a_while(nullptr, nullptr, nullptr); }); });
}

#ifndef _WIN32

/* The thread pool against Boost.Asio's: the time of a job that does next to nothing. */
constexpr int WORKERS = 4, BATCH = 1000;

/* A job of a batch. The last one wakes the producer. */
void end_job(std::atomic<int>& left) {
  if (--left == 0) {
    left.notify_one();
  }
}

/* Each pass is a job; `post` queues one, which ends one of those that are left. */
template <class Post>
Work batches(Post post) {
  return [post](benchmark::State& state) {
    std::atomic<int> left = 0;
    while (state.KeepRunningBatch(BATCH)) {
      left = BATCH;
      for (int i = 0; i < BATCH; i++) {
        post(left);
      }
      for (int seen = left; seen != 0; seen = left) {
        left.wait(seen);
      }
    }
  };
}

void pool_rows(Bench& bench) {
  ox_tpool_t* ours = ox_tpool_create_external("bench", nullptr, nullptr, 0, 0, WORKERS, WORKERS);
  boost::asio::thread_pool peer(WORKERS);
  const auto job = [](void* left, void* /*stats*/, void* /*priv*/) -> void* {
    end_job(*static_cast<std::atomic<int>*>(left));
    return nullptr;
  };
  const Work our_work = batches([&](auto& left) { ox_queue_work(ours, nullptr, job, &left); });
  const Work peer_work =
      batches([&](auto& left) { boost::asio::post(peer, [&left] { end_job(left); }); });
  bench.pair("pool, a job, 1 producer", our_work, peer_work);
  bench.pair("pool, a job, 4 producers", our_work, peer_work, 4);
  ox_destroy_tpool(ours, OX_TPOOL_FL_DRAIN);
}

/* Names compared without case, against ICU: both texts from UTF-8, and its comparison. */
bool icu_equal(const std::string& a, const std::string& b) {
  constexpr int CAPACITY = 512;
  UChar wide_a[CAPACITY], wide_b[CAPACITY];
  int32_t size_a = 0, size_b = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(wide_a, CAPACITY, &size_a, a.data(), static_cast<int32_t>(a.size()), &status);
  u_strFromUTF8(wide_b, CAPACITY, &size_b, b.data(), static_cast<int32_t>(b.size()), &status);
  return u_strCaseCompare(wide_a, size_a, wide_b, size_b, U_FOLD_CASE_DEFAULT, &status) == 0;
}

void names_row(Bench& bench, const char* name, const std::string& a, const std::string& b) {
  bench.pair(std::string("names without case, ") + name,
             repeat([&] { must(ox_utf8_strcasecmp(a.c_str(), b.c_str()) == 0, "equal names"); }),
             repeat([&] { must(icu_equal(a, b), "equal names"); }));
}

void names_rows(Bench& bench) {
  const std::string ascii = "quarterly report of the northern sales region, final version 2.docx";
  names_row(bench, "ASCII, same case", ascii, ascii);
  names_row(bench, "ASCII, other case", ascii,
            "QUARTERLY REPORT OF THE NORTHERN SALES REGION, FINAL VERSION 2.DOCX");
  names_row(bench, "mixed", "übersicht der verkäufe im äußeren bezirk, отчет за год 2.docx",
            "ÜBERSICHT DER VERKÄUFE IM ÄUßEREN BEZIRK, ОТЧЕТ ЗА ГОД 2.DOCX");
}

#endif

}  // namespace

int main(int argc, char** argv) {
  return run_rows(argc, argv, [](Bench& bench) {
    regions_rows(bench);
    log_rows(bench);
    burst_rows(bench);
#ifndef _WIN32
    pool_rows(bench);
    names_rows(bench);
#endif
  });
}
