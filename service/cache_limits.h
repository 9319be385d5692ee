/*
 * How much of the disk the cache may take. The cache asks before it fetches, and after it has
 * grown. Any thread, if the function that tells the free space may be called by any.
 */
#ifndef SERVICE_CACHE_LIMITS_H
#define SERVICE_CACHE_LIMITS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

namespace tarnd {

class CacheLimits {
 public:
  using FreeSpace = std::function<uint64_t()>;

  /*
   * All in bytes. `size`: what the cache may take, 0 for a tenth of what is free now. `keep_free`:
   * what the cache leaves to the others on the disk, and to its own database: without that, it
   * could not record a change any more.
   */
  CacheLimits(uint64_t size, uint64_t keep_free, FreeSpace free_space);

  /*
   * Whether there is room for a fetch. If not, it is refused with 28 (no space). Where there was
   * plenty a moment ago, the disk is not asked again: some systems take longer for the answer than
   * for the fetch.
   */
  bool may_fetch(uint64_t bytes);

  /* The cache takes this much more, at most. */
  void grow(uint64_t bytes) { grown_ += bytes; }
  uint64_t grown() const { return grown_; }
  /*
   * Whether over() may be more than 0. Not as long as the cache has grown by less than it was
   * allowed to when it was counted; but others fill the disk, too, so it is after a second.
   */
  bool may_be_over() const;
  /*
   * How many bytes have to go from a cache that takes `used`; 0 when it may stay as it is. `grown`:
   * what grown() gave before it was counted.
   */
  uint64_t over(uint64_t used, uint64_t grown);

 private:
  using Clock = std::chrono::steady_clock;

  FreeSpace free_space_;
  uint64_t keep_free_;
  uint64_t size_;
  std::atomic<uint64_t> grown_ = 0;
  std::atomic<uint64_t> grows_until_ = 0; /* with `grown_` above it, the cache is to be counted */
  std::atomic<Clock::time_point> counted_ = Clock::time_point{};
  std::atomic<uint64_t> plenty_until_ = 0; /* with `grown_` above it, the disk is to be asked */
  std::atomic<Clock::time_point> asked_ = Clock::time_point{};
};

}  // namespace tarnd

#endif
