/*
 * The byte-range locks of one file.
 *
 * An exclusive lock conflicts with every lock that overlaps it, the owner's own included; a shared
 * lock conflicts with the exclusive locks of others. A lock of no bytes conflicts with nothing.
 * Only requests for locks are judged: reads and writes go past the service.
 *
 * Threads: any; the object's own lock guards it.
 */
#ifndef SERVICE_RANGE_LOCKS_H
#define SERVICE_RANGE_LOCKS_H

#include <cstdint>
#include <mutex>
#include <vector>

#include "slim_lock.h"

namespace tarnd {

class RangeLocks {
 public:
  /* Who holds a lock: an open, and the process that asked through it. */
  struct Owner {
    uint64_t open = 0;
    int32_t pid = 0;

    bool operator==(const Owner&) const = default;
  };

  /* 0; OX_EACCES for a conflict; OX_EINVAL for a range that ends past 2^64. */
  int lock(Owner owner, uint64_t offset, uint64_t length, bool exclusive);
  /*
   * Lifts one lock of exactly this owner and range, an exclusive one first. OX_EINVAL: there is
   * none.
   */
  int unlock(Owner owner, uint64_t offset, uint64_t length);
  /* Lifts all locks taken through an open. */
  void release(uint64_t open);

 private:
  struct Entry {
    Owner owner;
    uint64_t offset;
    uint64_t length;
    bool exclusive;
  };

  SlimLock lock_;
  std::vector<Entry> entries_; /* guarded by lock_ */
};

}  // namespace tarnd

#endif
