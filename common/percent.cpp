#include "common/percent.h"

#include <cctype>

namespace common {
namespace {

constexpr std::string_view DIGITS = "0123456789ABCDEF";

int hex_digit(char c) {
  const size_t at = DIGITS.find(static_cast<char>(toupper(static_cast<unsigned char>(c))));
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

}  // namespace

bool decode_percent(std::string_view text, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] != '%') {
      out->push_back(text[i]);
      continue;
    }
    const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
    if (high < 0 || low < 0 || (high == 0 && low == 0)) {
      return false;
    }
    out->push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return true;
}

std::string encode_percent(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80 &&
        (isalnum(byte) != 0 || std::string_view("-._~/").find(c) != std::string_view::npos)) {
      out.push_back(c);
    } else {
      out.append({'%', DIGITS[byte >> 4], DIGITS[byte & 15]});
    }
  }
  return out;
}

}  // namespace common
