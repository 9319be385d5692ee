/*
 * bench_parts FOLDER CPUS ROW...: rows of parts of the library.
 */
#include "parts.h"

namespace {

void all_rows(Bench& bench) {
  regions_rows(bench);
  log_rows(bench);
  burst_rows(bench);
#ifndef _WIN32
  pool_rows(bench);
  names_rows(bench);
#endif
}

}  // namespace

int main(int argc, char** argv) { return run_rows(argc, argv, all_rows); }
