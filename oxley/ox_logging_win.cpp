/*
 * Lines with the built-in prefix, and how the process ends: a FATAL message and a failed
 * assertion. No Windows call is needed for either.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "ox_assert.h"
#include "ox_logging.h"

void ox_log_msg(ox_s32 lineno, const char* file, ox_msglvl type, ox_s32 errnum, const char* fmt,
                ...) {
  const int saved_errno = errno;
  char line[OX_LOG_LINE_SIZE];
  int capacity = OX_LOG_LINE_SIZE;
  const int used = ox_log_prefix(line, type, lineno, file, errnum, &capacity);
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf(line + used, static_cast<size_t>(capacity), fmt, args);
  va_end(args);
  if (length < 0) {
    line[used] = '\0';
  }
  ox_spdlog(line);
  if (type == OX_FATAL_LEVEL) {
    /* The place that every FATAL end names, whatever this file's own lines are. */
    ox_assert_failed("0", "ox_logging_win", 117);
  }
  errno = saved_errno;
}

void ox_assert_failed(const char* expr, const char* file, int line) {
  ox_log_flush();
  fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", expr, file, line);
  fflush(stderr);
  abort();
}
