/*
 * How much of the disk the cache may take. The cache asks before it fetches, and after it has
 * grown. Any thread, if the function that tells the free space may be called by any.
 */
#ifndef SERVICE_CACHE_LIMITS_H
#define SERVICE_CACHE_LIMITS_H

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

  /* Whether there is room for a fetch. If not, it is refused with 28 (no space). */
  bool may_fetch(uint64_t bytes) const;
  /* How many bytes have to go from a cache that takes `used`; 0 when it may stay as it is. */
  uint64_t over(uint64_t used) const;

 private:
  FreeSpace free_space_;
  uint64_t keep_free_;
  uint64_t size_;
};

}  // namespace tarnd

#endif
