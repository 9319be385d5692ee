#include "tools/common/text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

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

namespace {

/* Seconds since 1970; nothing for times that the runtime library does not know. */
std::optional<time_t> seconds_of(uint64_t file_time) {
  constexpr uint64_t TICKS = 10000000;           /* in one second */
  constexpr uint64_t FIRST_SECOND = 11644473600; /* 1970, from 1601 */
  constexpr uint64_t LAST_SECOND = FIRST_SECOND + 32500000000;
  const uint64_t seconds = file_time / TICKS;
  if (seconds < FIRST_SECOND || seconds > LAST_SECOND) {
    return std::nullopt;
  }
  return static_cast<time_t>(seconds - FIRST_SECOND);
}

}  // namespace

std::string local_time_text(uint64_t file_time) {
  const std::optional<time_t> seconds = seconds_of(file_time);
  return seconds ? fmt::format("{:%Y-%m-%d %H:%M}", fmt::localtime(*seconds))
                 : std::string(16, ' ');
}

std::string utc_text(uint64_t file_time) {
  const std::optional<time_t> seconds = seconds_of(file_time);
  return seconds ? fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(*seconds)) : std::string();
}

std::string counted(uint64_t count, const char* noun) {
  return grouped_digits(count) + ' ' + noun + (count == 1 ? "" : "s");
}

namespace {

constexpr size_t LINE_WIDTH = 80;

/* Where the last column of a line begins: behind its first gap, if that is in the first half. */
size_t column_of(const std::string& line) {
  const size_t begin = std::min(line.find_first_not_of(' '), line.size());
  const size_t gap = line.find("  ", begin);
  const size_t column = gap == std::string::npos ? gap : line.find_first_not_of(' ', gap);
  return column <= LINE_WIDTH / 2 ? column : begin;
}

std::string wrapped_line(std::string line) {
  const size_t column = column_of(line);
  std::string text;
  while (line.size() > LINE_WIDTH) {
    size_t blank = line.rfind(' ', LINE_WIDTH);
    blank = blank == std::string::npos || blank <= column ? line.find(' ', column) : blank;
    if (blank == std::string::npos) {
      break;
    }
    text += line.substr(0, blank) + '\n';
    line = std::string(column, ' ') + line.substr(blank + 1);
  }
  return text + line;
}

}  // namespace

std::string wrapped(const std::string& text) {
  std::string result;
  for (size_t begin = 0, end; begin < text.size(); begin = end + 1) {
    end = std::min(text.find('\n', begin), text.size());
    result += wrapped_line(text.substr(begin, end - begin)) + (end < text.size() ? "\n" : "");
  }
  return result;
}

}  // namespace tools
