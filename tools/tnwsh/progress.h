/* The progress of a transfer, drawn on one line of standard error. */
#ifndef TNWSH_PROGRESS_H
#define TNWSH_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace tnwsh {

enum class ProgressMode {
  AUTO,   /* on a terminal, once a transfer has taken a second */
  ALWAYS, /* from the start, also when the output is a file or a pipe */
  NEVER,
};

class Progress {
 public:
  /* `label` and `total` as they are shown; nothing is drawn yet. */
  Progress(ProgressMode mode, std::string label, uint64_t total);
  /* Leaves the line of a transfer that failed as it stands. */
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /* Draws at most ten times a second. */
  void update(uint64_t done);
  /* The transfer is complete; returns the seconds that it took. */
  double finish();

 private:
  using Clock = std::chrono::steady_clock;

  double elapsed() const;
  void draw(uint64_t done);

  const ProgressMode mode_;
  const std::string label_;
  const uint64_t total_;
  const int cells_; /* of the bar */
  const Clock::time_point start_ = Clock::now();
  Clock::time_point next_draw_;
  size_t drawn_width_ = 0;
};

}  // namespace tnwsh

#endif
