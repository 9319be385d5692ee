#include "bench.h"

#include <fmt/format.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "tools/common/program.h"

namespace {

constexpr int ROUNDS = 15;

class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override { run = runs.back(); }

  Run run;
};

/* Work with the number of passes of one sample. */
class Side {
 public:
  /* With no number of passes the library finds one that fills the time of a sample. */
  Side(const Work& work, int threads) : work_(work), threads_(threads) {
    passes_ = std::max<benchmark::IterationCount>(1, timed().iterations / threads);
  }

  /* Nanoseconds for each operation. */
  double sample() const {
    const Collector::Run run = timed();
    return run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
  }

 private:
  Collector::Run timed() const {
    benchmark::ClearRegisteredBenchmarks();
    auto* row = benchmark::RegisterBenchmark("row", work_)->Threads(threads_)->UseRealTime();
    passes_ != 0 ? row->Iterations(passes_) : row->MinTime(0.02);
    Collector result;
    benchmark::RunSpecifiedBenchmarks(&result);
    return result.run;
  }

  Work work_;
  int threads_;
  benchmark::IterationCount passes_ = 0;
};

}  // namespace

void give_up(const char* what) {
  fmt::print(stderr, "failed: {}\n", what);
  exit(1);
}

double seconds_of(const std::function<void()>& what) {
  const auto start = std::chrono::steady_clock::now();
  what();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::shared_ptr<spdlog::logger> peer_logger(const std::string& file) {
  auto logger = spdlog::rotating_logger_mt(file, file, 52428800, 10); /* as the library has */
  logger->set_pattern("%v");
  logger->flush_on(spdlog::level::info);
  return logger;
}

/* The first of a pair changes with each round, so that neither gains from its place. */
Pair sample_pair(const Work& ours, const Work& peer, int threads) {
  const Side one(ours, threads), other(peer, threads);
  Pair pair;
  for (int round = 0; round < ROUNDS; round++) {
    if (round % 2 == 0) {
      pair.ours.push_back(one.sample());
    }
    pair.peer.push_back(other.sample());
    if (round % 2 != 0) {
      pair.ours.push_back(one.sample());
    }
  }
  return pair;
}

Bench::Bench(int argc, char** argv) {
  must(argc > 2, "usage: PROGRAM FOLDER CPUS ROW...");
  folder_ = argv[1];
  cpus_ = std::stoi(argv[2]);
  rows_.insert(argv + 3, argv + argc);
}

bool Bench::wants(const std::string& part) const {
  return std::any_of(rows_.begin(), rows_.end(),
                     [&](const std::string& row) { return row.find(part) != std::string::npos; });
}

void Bench::pair(const std::string& row, const Work& ours, const Work& peer, int threads) {
  if (rows_.contains(row)) {
    const Pair got = sample_pair(ours, peer, threads);
    samples(row, got.ours, got.peer);
  }
}

void Bench::alone(const std::string& row, const Work& ours, int threads, double scale) {
  if (rows_.contains(row)) {
    const Side one(ours, threads);
    Samples got(ROUNDS);
    std::generate(got.begin(), got.end(), [&] { return one.sample() * scale; });
    samples(row, got);
  }
}

void Bench::pair_once(const std::string& row, int rounds, const Once& ours, const Once& peer) {
  Pair got;
  for (int round = 0; rows_.contains(row) && round < rounds; round++) {
    got.ours.push_back(ours() * 1e9);
    got.peer.push_back(peer() * 1e9);
  }
  samples(row, got.ours, got.peer);
}

void Bench::samples(const std::string& row, const Samples& ours, const Samples& peer,
                    const char* unit) {
  if (rows_.contains(row)) {
    fmt::print(R"({{"row": "{}", "unit": "{}", "ours": [{}], "peer": [{}]}})"
               "\n",
               row, unit, fmt::join(ours, ", "), fmt::join(peer, ", "));
    fflush(stdout);
  }
}

int run_rows(int argc, char** argv, void (*rows)(Bench&)) {
  return tools::run_program(argv[0], [&] {
    Bench bench(argc, argv);
    rows(bench);
    return tools::EXIT_OK;
  });
}
