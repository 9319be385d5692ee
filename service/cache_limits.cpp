#include "cache_limits.h"

#include <algorithm>

namespace tarnd {
namespace {

uint64_t excess(uint64_t is, uint64_t may_be) { return is > may_be ? is - may_be : 0; }

}  // namespace

CacheLimits::CacheLimits(uint64_t size, uint64_t keep_free, FreeSpace free_space)
    : free_space_(std::move(free_space)),
      keep_free_(keep_free),
      size_(size != 0 ? size : free_space_() / 10) {}

bool CacheLimits::may_fetch(uint64_t bytes) {
  constexpr std::chrono::milliseconds MOMENT{100};
  constexpr uint64_t PLENTY = uint64_t{1} << 30; /* more than others write in a moment */
  if (grown_ + bytes < plenty_until_ && Clock::now() - asked_.load() < MOMENT) {
    return true;
  }
  const uint64_t grown = grown_;
  const uint64_t room = excess(free_space_(), keep_free_);
  plenty_until_ = grown + excess(room, PLENTY);
  asked_ = Clock::now();
  return room >= bytes;
}

bool CacheLimits::may_be_over() const {
  constexpr std::chrono::seconds OTHERS_FILL{1};
  return grown_ >= grows_until_ || Clock::now() - counted_.load() >= OTHERS_FILL;
}

uint64_t CacheLimits::over(uint64_t used, uint64_t grown) {
  const uint64_t free = free_space_();
  const uint64_t over = std::min(used, std::max(excess(used, size_), excess(keep_free_, free)));
  counted_ = Clock::now();
  grows_until_ = grown + std::min(excess(size_, used), excess(free, keep_free_));
  return over;
}

}  // namespace tarnd
