/*
 * Rows of the table: what is ours is timed in turn with a limit or a peer, in one process.
 *
 * Each program prints one JSON object a line for each row: its name, and the samples of both sides
 * in nanoseconds. tools/bench makes the table of them.
 */
#ifndef BENCH_H
#define BENCH_H

#include <benchmark/benchmark.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

/* A loop over a State, in which each pass is one operation. */
using Work = std::function<void(benchmark::State&)>;
/* Does something once, and gives the seconds that count of it. */
using Once = std::function<double()>;

/* Ends the program: a figure of what failed would mean nothing. */
[[noreturn]] void give_up(const std::string& what);
void must(bool done, const char* what);

class Bench {
 public:
  /* The command line: PROGRAM FOLDER CPUS ROW... */
  Bench(int argc, char** argv);

  /* An empty folder for this program alone, and how many CPUs it may use. */
  const std::string& folder() const { return folder_; }
  int cpus() const { return cpus_; }
  /* Whether the row is asked for. */
  bool wants(const std::string& row) const { return rows_.contains(row); }
  bool wants_any(const std::vector<std::string>& rows) const;

  /* Each of them does nothing where the row is not wanted. With several threads, a sample is the
   * time from one operation's end to the next one's on any of them. */
  void pair(const std::string& row, const Work& ours, const Work& peer, int threads = 1);
  /* Without a peer; each sample times `scale`. */
  void alone(const std::string& row, const Work& ours, int threads = 1, double scale = 1);
  /* For what cannot be repeated without preparation. */
  void pair_once(const std::string& row, int rounds, const Once& ours, const Once& peer);
  /* What is no time. */
  void value(const std::string& row, double number);
  /* What was measured in another way. */
  void samples(const std::string& row, const std::vector<double>& ours,
               const std::vector<double>& peer, const std::string& unit = "ns");

 private:
  std::string folder_;
  int cpus_;
  std::set<std::string> rows_;
};

/* The main program: what it returns. */
int run_rows(int argc, char** argv, void (*rows)(Bench&));

/* Samples of both, taken in turn; what pair() prints. For rows that compare two such pairs. */
struct PairSamples {
  std::vector<double> ours, peer;
};
PairSamples sample_pair(const Work& ours, const Work& peer, int threads = 1);

/* The seconds that `what` takes. */
double seconds_of(const std::function<void()>& what);

#endif
