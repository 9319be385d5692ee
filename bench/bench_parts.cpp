/*
 * bench_parts FOLDER CPUS ROW...: rows of parts of the library.
 */
#include "parts.h"

int main(int argc, char** argv) {
  Bench bench(argc, argv);
  regions_rows(bench);
  log_rows(bench);
  burst_rows(bench);
#ifndef _WIN32
  pool_rows(bench);
  names_rows(bench);
#endif
  return 0;
}
