/*
 * The first open and close of a file, which makes its local file, with few and with many files in
 * the cache.
 */
#include <algorithm>

#include "rows.h"

namespace {

constexpr int MEASURED = 200, CACHED = 6000, GROUP = 10;

/* Nanoseconds of a first open and close of /small/FROM and the files after it; a sample is the mean
 * of GROUP of them. */
std::vector<double> first_opens(const Drive& drive, int from, int count) {
  std::vector<double> samples;
  for (int group = from; group < from + count; group += GROUP) {
    const double seconds = seconds_of([&] {
      for (int i = group; i < group + GROUP; i++) {
        File(drive, "/small/" + std::to_string(i), TNW_DISP_OPEN, TNW_ACC_READ).close();
      }
    });
    samples.push_back(seconds * 1e9 / GROUP);
  }
  return samples;
}

}  // namespace

void first_open_rows(Bench& bench, Drive& drive) {
  const std::string row = "first open + close";
  if (!bench.wants_any({row + ", nothing cached", row + ", 6,000 files cached",
                        row + ", 6,000 files cached against none"})) {
    return;
  }
  first_opens(drive, 0, 20); /* what only the very first ones do */
  const auto few = first_opens(drive, 20, MEASURED);
  bench.samples(row + ", nothing cached", few, {});
  first_opens(drive, 20 + MEASURED, CACHED);
  const auto many = first_opens(drive, 20 + MEASURED + CACHED, MEASURED);
  bench.samples(row + ", 6,000 files cached", many, {});
  bench.samples(row + ", 6,000 files cached against none", many, few);
}
