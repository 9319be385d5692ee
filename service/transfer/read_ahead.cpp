#include "transfer/read_ahead.h"

#include <algorithm>

namespace tarnd {
namespace {

constexpr uint64_t FIRST_WINDOW = uint64_t{8} << 20;
constexpr uint64_t LAST_WINDOW = uint64_t{64} << 20;

} /* namespace */

ByteRange ReadAhead::next(uint64_t offset, uint64_t length, uint64_t size) {
  const uint64_t end = offset + length;
  const bool follows = expected_ != 0 && offset <= expected_ && expected_ < end;
  in_a_row_ = follows ? in_a_row_ + 1 : 0;
  window_ = in_a_row_ < 2 ? 0 : std::clamp(2 * window_, FIRST_WINDOW, LAST_WINDOW);
  if (window_ == 0 || end >= size) {
    return {};
  }
  return {end, std::min(window_, size - end)};
}

} /* namespace tarnd */
