/*
 * Lines with the built-in prefix. A FATAL one ends the process. No Windows call is needed.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdio>

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
    /* The place that every FATAL end names: who reads crash output finds them all under it. */
    ox_assert_failed("0", "ox_logging_win", 117);
  }
  errno = saved_errno;
}
