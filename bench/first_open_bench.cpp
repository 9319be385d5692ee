/*
 * The first open and close of a file, which makes its local file, with few and with many files in
 * the cache.
 */
#include "drive_rows.h"

namespace {

/* Nanoseconds of a first open and close of /small/FROM and the files after it; a sample is the mean
 * of GROUP of them. */
Samples first_opens(const Drive& drive, int from, int count) {
  constexpr int GROUP = 10;
  Samples samples;
  for (int group = from; group < from + count; group += GROUP) {
    const double seconds = seconds_of([&] {
      for (int i = group; i < group + GROUP; i++) {
        const File file(drive, "/small/" + std::to_string(i), TNW_DISP_OPEN, TNW_ACC_READ);
      }
    });
    samples.push_back(seconds * 1e9 / GROUP);
  }
  return samples;
}

}  // namespace

void first_open_rows(Bench& bench, const Drive& drive) {
  constexpr int MEASURED = 200, CACHED = 6000;
  const std::string row = "first open + close";
  if (bench.wants(row)) {
    first_opens(drive, 0, 20); /* what only the very first ones do */
    const Samples few = first_opens(drive, 20, MEASURED);
    bench.samples(row + ", nothing cached", few);
    first_opens(drive, 20 + MEASURED, CACHED);
    const Samples many = first_opens(drive, 20 + MEASURED + CACHED, MEASURED);
    bench.samples(row + ", 6,000 files cached", many);
    bench.samples(row + ", 6,000 files cached against none", many, few);
  }
}
