#include "byte_range.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace tnwdav {
namespace {

std::optional<uint64_t> number_of(std::string_view text) {
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, err] = std::from_chars(text.data(), end, number);
  return err == std::errc{} && rest == end ? std::optional(number) : std::nullopt;
}

RangeAnswer take_end(uint64_t wanted, uint64_t size, ByteRange* range) {
  const uint64_t length = std::min(wanted, size);
  *range = {size - length, length};
  return length > 0 ? RangeAnswer::PART : RangeAnswer::NOTHING;
}

}  // namespace

RangeAnswer judge_range(std::string_view header, uint64_t size, ByteRange* range) {
  constexpr std::string_view UNIT = "bytes=";
  *range = {0, size};
  const size_t dash = header.find('-');
  if (!header.starts_with(UNIT) || dash == std::string_view::npos) {
    return RangeAnswer::WHOLE;
  }
  const std::string_view first_text = header.substr(UNIT.size(), dash - UNIT.size());
  const std::string_view last_text = header.substr(dash + 1);
  const std::optional<uint64_t> first = number_of(first_text);
  const std::optional<uint64_t> last = number_of(last_text);
  if (first_text.empty() && last) {
    return take_end(*last, size, range);
  }
  if (!first || (!last && !last_text.empty()) || (last && *last < *first)) {
    return RangeAnswer::WHOLE;
  }
  if (*first >= size) {
    return RangeAnswer::NOTHING;
  }
  const uint64_t end = last && *last < size ? *last + 1 : size;
  *range = {*first, end - *first};
  return RangeAnswer::PART;
}

}  // namespace tnwdav
