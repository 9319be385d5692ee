/*
 * The parts of a log line: levels, timestamp and prefix; the start, which happens once, and the
 * settings.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ox_log_object.h"
#include "ox_logging.h"
#include "ox_time.h"
#include "ox_util.h"

const char* ox_msg_type[OX_MSG_TYPES] = {
    "INFO", "WARNING", "ERROR", "FATAL", "DEBUG", "", "", "PROF", "TODO", "ALERT",
};
ox_logfunc_t ox_logfunc = nullptr;
ox_s32 ox_debug = 1;

namespace {

/* The mark that logging has been initialised; nothing is ever written to it. */
FILE* ox_logfp = nullptr;

int append_level(char* buf, ox_msglvl type, ox_s32 lineno, const char* file, ox_s32 errnum,
                 int* capacity) {
  const char* word = type < OX_MSG_TYPES ? ox_msg_type[type] : "";
  switch (type) {
    case OX_INFO_LEVEL:
    case OX_WARN_LEVEL:
    case OX_PROF_LEVEL:
      return ox_append(buf, capacity, "%-7.7s %12.12s:%-d ", word, file, lineno);
    case OX_ERROR_LEVEL:
      return ox_append(buf, capacity, "%-3.3s:%03d %12.12s:%-d ", word, errnum, file, lineno);
    case OX_FATAL_LEVEL:
      return ox_append(buf, capacity, "%-7.7s %d:%12.12s:%-d ", word, errnum, file, lineno);
    case OX_DEBUG_LEVEL:
      return ox_append(buf, capacity, "%-4.4s-%02d %12.12s:%d ", word, ox_debug, file, lineno);
    case OX_USER_LEVEL:
    case OX_PRINTF_LEVEL:
      return ox_append(buf, capacity, "%s", "");
    case OX_TODO_LEVEL:
      return ox_append(buf, capacity, "%-7.7s %d:%12.12s:%d ", word, errnum, file, lineno);
    default: /* OX_ALERT_LEVEL, and every other value */
      return ox_append(buf, capacity, "%12.12s:%-d ", file, lineno);
  }
}

/* Appends at `end`, cuts what is too long for the line, and gives the new end. */
char* append_text(char (&line)[OX_LOG_LINE_SIZE], char* end, const char* text) {
  const size_t room = static_cast<size_t>(line + sizeof(line) - 1 - end);
  const size_t length = strnlen(text, room);
  memcpy(end, text, length);
  end[length] = '\0';
  return end + length;
}

}  // namespace

void ox_init_logging(const char* logger_name, const char* logfile, ox_logfunc_t logfunc,
                     const char* /*mode*/) {
  if (ox_logfp != nullptr) {
    return;
  }
  constexpr size_t FILE_SIZE = 52428800;
  constexpr size_t FILE_COUNT = 10;
  ox_init_spdlogger(logger_name, logfile, FILE_SIZE, FILE_COUNT);
  ox_logfp = stdout;
  if (logfunc != nullptr) {
    ox_logfunc = logfunc;
  }
}

void ox_log(const char* fmt, ...) {
  const int saved_errno = errno;
  char line[OX_LOG_LINE_SIZE];
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf(line, sizeof(line), fmt, args);
  va_end(args);
  if (length < 0) {
    line[0] = '\0';
  }
  ox_spdlog(line);
  errno = saved_errno;
}

void ox_log_object(const char* const* texts, size_t count) {
  const int saved_errno = errno;
  char line[OX_LOG_LINE_SIZE];
  char* end = append_text(line, line, "{");
  for (const char* const* text = texts; text != texts + count; ++text) {
    if (*text != nullptr) {
      end = append_text(line, end, end != line + 1 ? ", " : "");
      end = append_text(line, end, *text);
    }
  }
  append_text(line, end, "}");
  ox_spdlog(line);
  errno = saved_errno;
}

int ox_log_timestamp(char* buf, int* capacity) {
  struct tm local = {};
  const long msecs = ox_local_time(&local);
  char text[OX_TIME_TEXT_SIZE];
  ox_time_text(&local, text);
  /* The year stands a second time at the end because readers of the log expect it there. */
  return ox_append(buf, capacity, "[%s.%3.03ld %d] ", text, msecs, local.tm_year + 1900);
}

int ox_log_prefix(char* buf, ox_msglvl type, ox_s32 lineno, const char* file, ox_s32 errnum,
                  int* capacity) {
  int written = 0;
  if (type != OX_PRINTF_LEVEL) {
    written = ox_log_timestamp(buf, capacity);
  }
  return written + append_level(buf + written, type, lineno, file, errnum, capacity);
}

void ox_log_flush(void) { ox_flush_spdlogger(); }

void trim_newline(char* text) {
  if (text == nullptr || text[0] == '\0') {
    return;
  }
  char* last = text + strlen(text) - 1;
  if (*last == '\n') {
    *last = '\0';
  }
}
