/*
 * bench_drive FOLDER CPUS ROW...: rows of the whole library on the real service. FOLDER\cloud holds
 * the files that they need (tools/bench).
 */
#include "drive_rows.h"

int main(int argc, char** argv) {
  return run_rows(argc, argv, [](Bench& bench) {
    footprint_rows(bench);
    const Drive drive(bench.folder());
    for (const auto rows : {read_write_rows, own_part_rows, exchange_rows, listing_rows,
                            transfer_rows, growth_rows, first_open_rows}) {
      rows(bench, drive);
    }
  });
}
