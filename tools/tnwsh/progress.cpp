#include "progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "common.h"

namespace tnwsh {

using std::chrono::milliseconds;

namespace {

constexpr int NUMBERS_WIDTH = 56; /* of the longest numbers beside the bar */

/* In cells of a terminal, wide characters apart. */
int width_of(const std::string& text) {
  return static_cast<int>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

}  // namespace

Progress::Progress(ProgressMode mode, std::string label, uint64_t total)
    : mode_(mode == ProgressMode::AUTO && !is_terminal(stderr) ? ProgressMode::NEVER : mode),
      label_(std::move(label)),
      total_(total),
      cells_(std::clamp(terminal_width() - NUMBERS_WIDTH - width_of(label_), 5, 30)),
      next_draw_(start_ + milliseconds(mode == ProgressMode::ALWAYS ? 0 : 1000)) {}

Progress::~Progress() {
  if (drawn_width_ > 0) {
    fputc('\n', stderr);
  }
}

double Progress::elapsed() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::update(uint64_t done) {
  const Clock::time_point now = Clock::now();
  if (mode_ != ProgressMode::NEVER && now >= next_draw_) {
    next_draw_ = now + milliseconds(100);
    draw(done);
  }
}

double Progress::finish() {
  const double seconds = elapsed();
  if (drawn_width_ > 0) {
    draw(total_);
    fputc('\n', stderr);
    drawn_width_ = 0;
  }
  return seconds;
}

/* "big.bin  [########------------]  42%  27.1 MiB of 64.0 MiB  88.3 MiB/s  0:01 left" */
void Progress::draw(uint64_t done) {
  const double share =
      total_ == 0 ? 1 : std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
  const double seconds = std::max(elapsed(), 0.001);
  const double rate = static_cast<double>(done) / seconds;
  std::string numbers =
      fmt::format(" {:3.0f}%  {} of {}  {}/s", share * 100, bytes_text(static_cast<double>(done)),
                  bytes_text(static_cast<double>(total_)), bytes_text(rate));
  if (done >= total_) {
    numbers += "  " + duration_text(seconds);
  } else if (rate > 0) {
    numbers += "  " + duration_text(static_cast<double>(total_ - done) / rate) + " left";
  }
  const int full = static_cast<int>(share * cells_);
  std::string line =
      fmt::format("{}  [{:#<{}}{:-<{}}]{}", label_, "", full, "", cells_ - full, numbers);
  const size_t width = static_cast<size_t>(width_of(line));
  /* Blanks cover the rest of a longer line. */
  line.append(drawn_width_ > width ? drawn_width_ - width : 0, ' ');
  drawn_width_ = width;
  fmt::print(stderr, "\r{}", line);
}

}  // namespace tnwsh
