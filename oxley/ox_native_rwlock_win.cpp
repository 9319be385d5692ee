/*
 * The reader/writer lock of Windows builds: one word, and the system's waits on an address.
 *
 * Whoever must wait sets WAITED_FOR, which only a held lock can have. From then on no new reader
 * gets in, so that a writer's turn comes. The release that leaves the lock free clears the word and
 * wakes all sleepers, who try again.
 */
#include "ox_native_rwlock.h"

#include <windows.h>

#include <atomic>

#include "ox_errno.h"

namespace {

constexpr ox_u32 INITIALISED = 0x6b636f6c;

constexpr ox_u32 EXCLUSIVE = 1;
constexpr ox_u32 WAITED_FOR = 2;
constexpr ox_u32 READER = 4; /* times the number of shared holders */

using Word = std::atomic_ref<ox_u32>;

bool is_initialised(const ox_native_rwlock_t* l) { return l->nrw_mark == INITIALISED; }

/* Sleeps until a held lock may have become free, and gives its word as it is then. */
ox_u32 wait_for_change(ox_native_rwlock_t* l, ox_u32 seen) {
  Word word(l->nrw_word);
  ox_u32 waited_for = seen | WAITED_FOR;
  if (seen == waited_for || word.compare_exchange_strong(seen, waited_for)) {
    WaitOnAddress(&l->nrw_word, &waited_for, sizeof waited_for, INFINITE);
    seen = word.load(std::memory_order_relaxed);
  }
  return seen;
}

/* Changes the word from what was seen; a failure stores what is there by now in `seen`. */
bool change(ox_native_rwlock_t* l, ox_u32& seen, ox_u32 to) {
  return Word(l->nrw_word)
      .compare_exchange_weak(seen, to, std::memory_order_acq_rel, std::memory_order_relaxed);
}

void wake_sleepers(ox_native_rwlock_t* l, ox_u32 before) {
  if ((before & WAITED_FOR) != 0) {
    WakeByAddressAll(&l->nrw_word);
  }
}

int unlock_shared(ox_native_rwlock_t* l, ox_u32 seen) {
  for (;;) {
    if (seen < READER) {
      return OX_EPERM;
    }
    const ox_u32 left = seen - READER;
    if (change(l, seen, left < READER ? 0 : left)) {
      if (left < READER) {
        wake_sleepers(l, left);
      }
      return 0;
    }
  }
}

}  // namespace

int ox_native_rwlock_init(ox_native_rwlock_t* l) {
  *l = {0, INITIALISED};
  return 0;
}

int ox_native_rwlock_destroy(ox_native_rwlock_t* l) {
  const int result = ox_native_rwlock_tryexcl(l);
  if (result == 0) {
    *l = {};
  }
  return result;
}

int ox_native_rwlock_excl(ox_native_rwlock_t* l) {
  if (!is_initialised(l)) {
    return OX_EINVAL;
  }
  ox_u32 seen = Word(l->nrw_word).load(std::memory_order_relaxed);
  for (;;) {
    if (seen != 0) {
      seen = wait_for_change(l, seen);
    } else if (change(l, seen, EXCLUSIVE)) {
      return 0;
    }
  }
}

int ox_native_rwlock_tryexcl(ox_native_rwlock_t* l) {
  if (!is_initialised(l)) {
    return OX_EINVAL;
  }
  ox_u32 free = 0;
  return Word(l->nrw_word).compare_exchange_strong(free, EXCLUSIVE) ? 0 : OX_EBUSY;
}

int ox_native_rwlock_shared(ox_native_rwlock_t* l) {
  if (!is_initialised(l)) {
    return OX_EINVAL;
  }
  ox_u32 seen = Word(l->nrw_word).load(std::memory_order_relaxed);
  for (;;) {
    if ((seen & (EXCLUSIVE | WAITED_FOR)) != 0) {
      seen = wait_for_change(l, seen);
    } else if (change(l, seen, seen + READER)) {
      return 0;
    }
  }
}

int ox_native_rwlock_unlock(ox_native_rwlock_t* l) {
  if (!is_initialised(l)) {
    return OX_EINVAL;
  }
  Word word(l->nrw_word);
  const ox_u32 seen = word.load(std::memory_order_relaxed);
  if ((seen & EXCLUSIVE) == 0) {
    return unlock_shared(l, seen);
  }
  wake_sleepers(l, word.exchange(0, std::memory_order_release));
  return 0;
}
