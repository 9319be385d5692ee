/*
 * How a failed assertion ends the process.
 */
#include "ox_assert.h"

#include <cstdio>
#include <cstdlib>

#include "ox_logging.h"

void ox_assert_failed(const char* expr, const char* file, int line) {
  ox_log_flush();
  fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", expr, file, line);
  fflush(stderr);
  abort();
}
