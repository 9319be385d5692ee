/*
 * Listings, against the system's own of the same folder and against the bare transfer of the bytes.
 */
#include "bare_exchange.h"
#include "drive_rows.h"

namespace {

constexpr int ROUNDS = 5;
constexpr size_t MANY = 100'000, FEW = 1000;

}  // namespace

void listing_rows(Bench& bench, const Drive& drive) {
  if (!bench.wants("listing") && !bench.wants("tnw_findnext")) {
    return;
  }
  BareExchange peer(bench.folder() + "\\list.sock");
  const std::vector<tnw_fileinfo> records(MANY);
  Samples first, next, few, system, bare, copies;
  const auto add = [](Samples& samples, double seconds, size_t entries) {
    samples.push_back(seconds * 1e9 / static_cast<double>(entries));
  };
  drive.list("/list100000", MANY); /* the first touch of so much memory */
  for (int round = 0; round < ROUNDS; round++) {
    const auto [fetched, walked] = drive.list("/list100000", MANY);
    add(first, fetched, MANY);
    add(next, walked, MANY);
    add(few, drive.list("/list1000", FEW).first, FEW);
    add(system, seconds_of([&] { list_system(drive.in_cloud("list100000"), MANY); }), MANY);
    add(bare, seconds_of([&] { peer.run(REQUEST, ANSWER + MANY * sizeof(tnw_fileinfo)); }), MANY);
    const double copying = seconds_of([&] {
      for (tnw_fileinfo entry : records) {
        benchmark::DoNotOptimize(entry);
      }
    });
    add(copies, copying, MANY);
  }
  bench.samples("listing of 100,000, per entry, against FindNext", first, system);
  bench.samples("listing of 100,000, per entry, against bare receiving", first, bare);
  bench.samples("listing per entry, 100,000 entries against 1,000", first, few);
  bench.samples("tnw_findnext", next, copies);
}
