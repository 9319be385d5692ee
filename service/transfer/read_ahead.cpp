#include "transfer/read_ahead.h"

#include <algorithm>

namespace tarnd {

/* A window's length off is in order, too: several threads may read for one reader. */
bool ReadAhead::goes_on(ByteRange asked) const {
  return told_ != 0 && asked.offset + window_ >= told_ && asked.offset <= told_ + window_;
}

void ReadAhead::told(uint64_t end) { told_ = window_ == 0 ? end : std::max(told_, end); }

ByteRange ReadAhead::next(ByteRange asked, uint64_t size) {
  const uint64_t end = std::min(asked.end(), size);
  if (!goes_on(asked)) {
    *this = {};
    return {};
  }
  window_ = std::clamp(2 * window_, FIRST_WINDOW, LARGEST_WINDOW);
  const uint64_t from = std::max(ahead_, end);
  ahead_ = std::max(from, std::min(end + window_, size));
  tell_until_ = ahead_ >= size ? UINT64_MAX : end + (ahead_ - end) / 2;
  return {from, ahead_ - from};
}

}  // namespace tarnd
