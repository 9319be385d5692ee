#include "text.h"

#include <fmt/format.h>
#include <windows.h>

#include <array>

namespace tnwsh {

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
  const uint64_t whole = static_cast<uint64_t>(seconds + 0.5);
  const uint64_t hours = whole / 3600;
  const uint64_t minutes = whole / 60 % 60;
  return hours > 0 ? fmt::format("{}:{:02}:{:02}", hours, minutes, whole % 60)
                   : fmt::format("{}:{:02}", minutes, whole % 60);
}

std::string local_time_text(uint64_t file_time) {
  const FILETIME time = {static_cast<DWORD>(file_time), static_cast<DWORD>(file_time >> 32)};
  SYSTEMTIME utc;
  SYSTEMTIME local;
  if (FileTimeToSystemTime(&time, &utc) == 0 ||
      SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) == 0) {
    return "                ";
  }
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}", local.wYear, local.wMonth, local.wDay,
                     local.wHour, local.wMinute);
}

std::string counted(uint64_t count, const char* noun) {
  return grouped_digits(count) + ' ' + noun + (count == 1 ? "" : "s");
}

}  // namespace tnwsh
