/*
 * The real-time clock, and times as text.
 */
#include "ox_time.h"

#include <cerrno>

namespace {

ox_s64 usecs(const struct timespec& ts) {
  return static_cast<ox_s64>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace

int ox_clock_gettime(int clock, struct timespec* ts) {
  return clock_gettime(static_cast<clockid_t>(clock), ts) == 0 ? 0 : errno;
}

ox_u64 ox_usecs_since(const struct timespec* start) {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  const ox_s64 elapsed = usecs(now) - usecs(*start);
  return elapsed > 0 ? static_cast<ox_u64>(elapsed) : 0;
}

long ox_local_time(struct tm* local) {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  const time_t seconds = now.tv_sec;
#ifdef _WIN32
  (void)localtime_s(local, &seconds);
#else
  (void)localtime_r(&seconds, local);
#endif
  return static_cast<long>(now.tv_nsec / 1000000);
}

void ox_time_text(const struct tm* local, char* text) {
  if (strftime(text, OX_TIME_TEXT_SIZE, "%Y-%m-%d %H:%M:%S", local) == 0) {
    text[0] = '\0';
  }
}
