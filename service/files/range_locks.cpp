#include "files/range_locks.h"

#include <algorithm>

#include "ox_errno.h"

namespace tarnd {
namespace {

/* Ranges that end at or below 2^64: their last bytes are counted, since their ends may not be. */
bool overlap(uint64_t offset, uint64_t length, uint64_t other_offset, uint64_t other_length) {
  return length != 0 && other_length != 0 && offset <= other_offset + (other_length - 1) &&
         other_offset <= offset + (length - 1);
}

}  // namespace

int RangeLocks::lock(Owner owner, uint64_t offset, uint64_t length, bool exclusive) {
  if (length != 0 && length - 1 > UINT64_MAX - offset) {
    return OX_EINVAL;
  }
  std::lock_guard guard(lock_);
  const auto conflicts = [&](const Entry& held) {
    return overlap(offset, length, held.offset, held.length) &&
           (exclusive || (held.exclusive && held.owner != owner));
  };
  if (std::any_of(entries_.begin(), entries_.end(), conflicts)) {
    return OX_EACCES;
  }
  entries_.push_back({owner, offset, length, exclusive});
  return 0;
}

int RangeLocks::unlock(Owner owner, uint64_t offset, uint64_t length) {
  std::lock_guard guard(lock_);
  auto found = entries_.end();
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->owner == owner && it->offset == offset && it->length == length &&
        (found == entries_.end() || it->exclusive)) {
      found = it;
    }
  }
  if (found == entries_.end()) {
    return OX_EINVAL;
  }
  entries_.erase(found);
  return 0;
}

void RangeLocks::release(uint64_t open) {
  std::lock_guard guard(lock_);
  std::erase_if(entries_, [open](const Entry& held) { return held.owner.open == open; });
}

}  // namespace tarnd
