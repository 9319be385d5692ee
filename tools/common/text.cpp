#include "tools/common/text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <cmath>

namespace tools {

std::string grouped_digits(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3;) {
    text.insert(at -= 3, 1, ',');
  }
  return text;
}

std::string bytes_text(double bytes) {
  constexpr std::array<const char*, 5> UNITS = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  size_t unit = 0;
  for (; bytes >= 1024 && unit + 1 < UNITS.size(); unit++) {
    bytes /= 1024;
  }
  return unit == 0 ? fmt::format("{:.0f} bytes", bytes)
                   : fmt::format("{:.1f} {}", bytes, UNITS[unit]);
}

std::string duration_text(double seconds) {
  const std::chrono::seconds whole(std::llround(seconds));
  return whole < std::chrono::hours(1) ? fmt::format("{:%M:%S}", whole)
                                       : fmt::format("{:%H:%M:%S}", whole);
}

std::string local_time_text(uint64_t file_time) {
  constexpr uint64_t TICKS = 10000000;                         /* in one second */
  constexpr uint64_t FIRST_SECOND = 11644473600;               /* 1970, from 1601 */
  constexpr uint64_t LAST_SECOND = FIRST_SECOND + 32500000000; /* the runtime knows no later ones */
  const uint64_t seconds = file_time / TICKS;
  if (seconds < FIRST_SECOND || seconds > LAST_SECOND) {
    return std::string(16, ' ');
  }
  return fmt::format("{:%Y-%m-%d %H:%M}",
                     fmt::localtime(static_cast<time_t>(seconds - FIRST_SECOND)));
}

std::string counted(uint64_t count, const char* noun) {
  return grouped_digits(count) + ' ' + noun + (count == 1 ? "" : "s");
}

}  // namespace tools
