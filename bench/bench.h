/*
 * Rows of the table: what is ours is timed in turn with a limit or a peer, in one process.
 *
 * Each program prints one JSON object a line for each row: its name, and the samples of both sides
 * in nanoseconds. tools/bench makes the table of them.
 */
#ifndef BENCH_H
#define BENCH_H

#include <benchmark/benchmark.h>
#include <spdlog/spdlog.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

/* A loop over a State, in which each pass is one operation. */
using Work = std::function<void(benchmark::State&)>;
/* Does something once, and gives the seconds that count of it. */
using Once = std::function<double()>;
using Samples = std::vector<double>;

/* Ends the program: a figure of what failed would mean nothing. */
[[noreturn]] void give_up(const char* what);
inline void must(bool done, const char* what) {
  if (!done) {
    give_up(what);
  }
}

/* The seconds that `what` takes. */
double seconds_of(const std::function<void()>& what);

/* What the library's log is compared with: each line is flushed, too. */
std::shared_ptr<spdlog::logger> peer_logger(const std::string& file);

/* The loop around one operation. */
template <class Operation>
Work repeat(Operation operation) {
  return [operation](benchmark::State& state) {
    for (auto _ : state) {
      operation();
    }
  };
}

/* Samples of both, taken in turn. */
struct Pair {
  Samples ours, peer;
};
Pair sample_pair(const Work& ours, const Work& peer, int threads = 1);

class Bench {
 public:
  /* The command line: PROGRAM FOLDER CPUS ROW... */
  Bench(int argc, char** argv);

  /* An empty folder for this program alone, and how many CPUs it may use. */
  const std::string& folder() const { return folder_; }
  int cpus() const { return cpus_; }
  /* Whether a row is asked for that has this in its name. */
  bool wants(const std::string& part) const;

  /* Each of them does nothing where the row is not asked for. With several threads, a sample is the
   * time from one operation's end to the next one's on any of them. */
  void pair(const std::string& row, const Work& ours, const Work& peer, int threads = 1);
  /* Without a peer; each sample times `scale`. */
  void alone(const std::string& row, const Work& ours, int threads, double scale);
  /* For what cannot be repeated without preparation. */
  void pair_once(const std::string& row, int rounds, const Once& ours, const Once& peer);
  /* What was measured in another way, or is no time. */
  void samples(const std::string& row, const Samples& ours, const Samples& peer = {},
               const char* unit = "ns");

 private:
  std::string folder_;
  int cpus_;
  std::set<std::string> rows_;
};

/* The main program: what it returns. */
int run_rows(int argc, char** argv, void (*rows)(Bench&));

#endif
