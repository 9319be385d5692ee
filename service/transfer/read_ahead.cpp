#include "transfer/read_ahead.h"

#include <algorithm>

namespace tarnd {
namespace {

constexpr uint64_t FIRST_WINDOW = uint64_t{8} << 20;
constexpr uint64_t LAST_WINDOW = uint64_t{64} << 20;
constexpr uint64_t NEAR = uint64_t{2} << 20; /* a gap that a reader may jump over */

} /* namespace */

ByteRange ReadAhead::next(uint64_t offset, uint64_t length, uint64_t size) {
  const bool follows = expected_ != 0 && offset + NEAR >= expected_ && offset <= expected_ + NEAR;
  window_ = !follows ? 0 : std::clamp(2 * window_, FIRST_WINDOW, LAST_WINDOW);
  const uint64_t end = offset + length;
  expected_ = end;
  if (window_ == 0 || end >= size) {
    return {};
  }
  return {end, std::min(window_, size - end)};
}

} /* namespace tarnd */
