#include "cloud/webdav/http_rules.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace tarnd {
namespace {

constexpr uint64_t TICKS_A_SECOND = 10'000'000;
constexpr int64_t SECONDS_1601_TO_1970 = 11'644'473'600;

uint64_t file_time(int year, unsigned month, int day, int hour, int minute, int second) {
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60 || year < 1601) {
    return 0;
  }
  const int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  const int64_t seconds = days * 86400 + int64_t{hour} * 3600 + int64_t{minute} * 60 + second;
  return static_cast<uint64_t>(seconds + SECONDS_1601_TO_1970) * TICKS_A_SECOND;
}

unsigned month_of(const char* name) {
  static constexpr std::array<std::string_view, 12> MONTHS = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto* found = std::find(MONTHS.begin(), MONTHS.end(), name);
  return static_cast<unsigned>(found - MONTHS.begin()) + 1; /* 13: unknown */
}

}  // namespace

uint64_t time_of_http_date(const std::string& text) {
  char month[4] = {};
  int year = 0;
  unsigned month_number = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (sscanf(text.c_str(), "%*3s, %2d %3s %4d %2d:%2d:%2d", &day, month, &year, &hour, &minute,
             &second) == 6) {
    return file_time(year, month_of(month), day, hour, minute, second);
  }
  if (sscanf(text.c_str(), "%4d-%2u-%2dT%2d:%2d:%2d", &year, &month_number, &day, &hour, &minute,
             &second) == 6) {
    return file_time(year, month_number, day, hour, minute, second);
  }
  return 0;
}

std::chrono::milliseconds retry_after(const std::string& text, const std::string& date) {
  constexpr std::chrono::seconds LEAST{1};
  constexpr std::chrono::seconds MOST{3600};
  uint64_t seconds = 0;
  const auto [rest, err] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (err != std::errc{} || rest != text.data() + text.size()) {
    const uint64_t then = time_of_http_date(text);
    const uint64_t now = time_of_http_date(date);
    seconds = now != 0 && then > now ? (then - now) / TICKS_A_SECOND : 0;
  }
  const auto most = static_cast<uint64_t>(MOST.count());
  return std::clamp(std::chrono::seconds(std::min(seconds, most)), LEAST, MOST);
}

std::string version_of(const std::string& tag, const std::string& modified, uint64_t size) {
  if (tag.empty()) {
    return std::to_string(time_of_http_date(modified)) + '-' + std::to_string(size);
  }
  return tag.starts_with("W/") ? tag.substr(2) : tag;
}

bool parse_content_range(const std::string& text, ContentRange* range) {
  unsigned long long first = 0;
  unsigned long long last = 0;
  unsigned long long size = 0;
  if (sscanf(text.c_str(), "bytes %llu-%llu/%llu", &first, &last, &size) != 3 || last < first ||
      last >= size) {
    return false;
  }
  *range = {{first, last - first + 1}, size};
  return true;
}

std::string basic_authorisation(const std::string& user_and_password) {
  static constexpr std::string_view DIGITS =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out = "Basic ";
  for (size_t at = 0; at < user_and_password.size(); at += 3) {
    const size_t count = std::min<size_t>(3, user_and_password.size() - at);
    uint32_t bits = 0;
    for (size_t i = 0; i < 3; i++) {
      bits = (bits << 8) | (i < count ? static_cast<unsigned char>(user_and_password[at + i]) : 0);
    }
    for (size_t i = 0; i < 4; i++) {
      out.push_back(i <= count ? DIGITS[(bits >> (18 - 6 * i)) & 63] : '=');
    }
  }
  return out;
}

std::string authorisation_of(const std::string& token) {
  constexpr std::string_view BASIC = "basic:";
  return token.empty()              ? ""
         : token.starts_with(BASIC) ? basic_authorisation(token.substr(BASIC.size()))
                                    : "Bearer " + token;
}

}  // namespace tarnd
