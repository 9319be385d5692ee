#include "bench.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace {

constexpr int ROUNDS = 15;
constexpr double SAMPLE_SECONDS = 0.02;

class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        give_up(run.error_message);
      }
      iterations = run.iterations;
      seconds = run.real_accumulated_time;
    }
  }

  benchmark::IterationCount iterations = 0;
  double seconds = 0;
};

/* Work with the number of passes of one sample. */
class Side {
 public:
  Side(Work work, int threads) : work_(std::move(work)), threads_(threads) {
    passes_ = std::max<benchmark::IterationCount>(1, run(0).iterations / threads);
  }

  /* Nanoseconds for each operation. */
  double sample() const {
    const Collector result = run(passes_);
    return result.seconds * 1e9 / static_cast<double>(result.iterations);
  }

 private:
  /* With no number of passes the library finds one that fills the time of a sample. */
  Collector run(benchmark::IterationCount passes) const {
    benchmark::ClearRegisteredBenchmarks();
    auto* timed = benchmark::RegisterBenchmark("row", work_)->Threads(threads_)->UseRealTime();
    if (passes != 0) {
      timed->Iterations(passes);
    } else {
      timed->MinTime(SAMPLE_SECONDS);
    }
    Collector result;
    benchmark::RunSpecifiedBenchmarks(&result);
    return result;
  }

  Work work_;
  int threads_;
  benchmark::IterationCount passes_;
};

std::string list_of(const std::vector<double>& numbers) {
  std::string text;
  for (const double number : numbers) {
    text += (text.empty() ? "" : ", ") + std::to_string(number);
  }
  return '[' + text + ']';
}

}  // namespace

void give_up(const std::string& what) {
  fprintf(stderr, "%s\n", what.c_str());
  exit(1);
}

void must(bool done, const char* what) {
  if (!done) {
    give_up(std::string("failed: ") + what);
  }
}

Bench::Bench(int argc, char** argv) {
  must(argc > 2, "usage: PROGRAM FOLDER CPUS ROW...");
  folder_ = argv[1];
  cpus_ = std::stoi(argv[2]);
  rows_.insert(argv + 3, argv + argc);
}

bool Bench::wants_any(const std::vector<std::string>& rows) const {
  return std::any_of(rows.begin(), rows.end(), [&](const auto& row) { return wants(row); });
}

/* The first of a pair changes with each round, so that neither gains from its place. */
PairSamples sample_pair(const Work& ours, const Work& peer, int threads) {
  const Side one(ours, threads), other(peer, threads);
  PairSamples samples;
  for (int round = 0; round < ROUNDS; round++) {
    if (round % 2 == 0) {
      samples.ours.push_back(one.sample());
    }
    samples.peer.push_back(other.sample());
    if (round % 2 != 0) {
      samples.ours.push_back(one.sample());
    }
  }
  return samples;
}

void Bench::pair(const std::string& row, const Work& ours, const Work& peer, int threads) {
  if (wants(row)) {
    const PairSamples got = sample_pair(ours, peer, threads);
    samples(row, got.ours, got.peer);
  }
}

void Bench::alone(const std::string& row, const Work& ours, int threads, double scale) {
  if (!wants(row)) {
    return;
  }
  const Side one(ours, threads);
  std::vector<double> got(ROUNDS);
  std::generate(got.begin(), got.end(), [&] { return one.sample() * scale; });
  samples(row, got, {});
}

void Bench::pair_once(const std::string& row, int rounds, const Once& ours, const Once& peer) {
  if (!wants(row)) {
    return;
  }
  PairSamples got;
  for (int round = 0; round < rounds; round++) {
    got.ours.push_back(ours() * 1e9);
    got.peer.push_back(peer() * 1e9);
  }
  samples(row, got.ours, got.peer);
}

void Bench::value(const std::string& row, double number) { samples(row, {number}, {}); }

void Bench::samples(const std::string& row, const std::vector<double>& ours,
                    const std::vector<double>& peer, const std::string& unit) {
  if (wants(row)) {
    printf(R"({"row": "%s", "unit": "%s", "ours": %s, "peer": %s})"
           "\n",
           row.c_str(), unit.c_str(), list_of(ours).c_str(), list_of(peer).c_str());
    fflush(stdout);
  }
}

double seconds_of(const std::function<void()>& what) {
  const auto start = std::chrono::steady_clock::now();
  what();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int run_rows(int argc, char** argv, void (*rows)(Bench&)) {
  try {
    Bench bench(argc, argv);
    rows(bench);
    return 0;
  } catch (const std::exception& failure) {
    fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
