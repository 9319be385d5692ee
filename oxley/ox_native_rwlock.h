/*
 * The reader/writer lock inside ox_rwlock_t. Not exported.
 *
 * On Windows it is a slim lock of the system: it needs no kernel object, and taking a free one
 * costs one atomic operation. A slim lock does not know in which mode it is held, so a mark stands
 * beside it. Elsewhere it is that of POSIX threads, which the thread sanitizer understands.
 *
 * The results are 0 or a POSIX error number: 22 for a lock that was not initialised (it is
 * zero-filled), 16 for one that is held. As with POSIX threads, only a holder may unlock.
 */
#ifndef OX_NATIVE_RWLOCK_H
#define OX_NATIVE_RWLOCK_H

#include "ox_lock.h"

#ifdef _WIN32

#include <windows.h>

#include <new>

#include "ox_errno.h"

/* Alone in its cache line: threads that use neighbouring locks do not slow each other down. */
struct alignas(64) OxSlimLock {
  SRWLOCK lock = SRWLOCK_INIT;
  bool exclusive = false; /* the exclusive holder sets and clears it; shared holders read it */
};

inline int ox_native_rwlock_init(ox_native_rwlock_t* l) {
  *l = new (std::nothrow) OxSlimLock;
  return *l != nullptr ? 0 : OX_ENOMEM;
}

inline OxSlimLock* ox_slim_lock_of(const ox_native_rwlock_t* l) {
  return static_cast<OxSlimLock*>(*l);
}

inline int ox_native_rwlock_excl(ox_native_rwlock_t* l) {
  OxSlimLock* slim = ox_slim_lock_of(l);
  if (slim == nullptr) {
    return OX_EINVAL;
  }
  AcquireSRWLockExclusive(&slim->lock);
  slim->exclusive = true;
  return 0;
}

inline int ox_native_rwlock_tryexcl(ox_native_rwlock_t* l) {
  OxSlimLock* slim = ox_slim_lock_of(l);
  if (slim == nullptr) {
    return OX_EINVAL;
  }
  if (TryAcquireSRWLockExclusive(&slim->lock) == 0) {
    return OX_EBUSY;
  }
  slim->exclusive = true;
  return 0;
}

inline int ox_native_rwlock_shared(ox_native_rwlock_t* l) {
  OxSlimLock* slim = ox_slim_lock_of(l);
  if (slim == nullptr) {
    return OX_EINVAL;
  }
  AcquireSRWLockShared(&slim->lock);
  return 0;
}

inline int ox_native_rwlock_unlock(ox_native_rwlock_t* l) {
  OxSlimLock* slim = ox_slim_lock_of(l);
  if (slim == nullptr) {
    return OX_EINVAL;
  }
  if (slim->exclusive) {
    slim->exclusive = false;
    ReleaseSRWLockExclusive(&slim->lock);
  } else {
    ReleaseSRWLockShared(&slim->lock);
  }
  return 0;
}

inline int ox_native_rwlock_destroy(ox_native_rwlock_t* l) {
  const int result = ox_native_rwlock_tryexcl(l);
  if (result == 0) {
    delete ox_slim_lock_of(l);
    *l = nullptr;
  }
  return result;
}

#else

inline int ox_native_rwlock_init(ox_native_rwlock_t* l) { return pthread_rwlock_init(l, nullptr); }
inline int ox_native_rwlock_destroy(ox_native_rwlock_t* l) { return pthread_rwlock_destroy(l); }
inline int ox_native_rwlock_excl(ox_native_rwlock_t* l) { return pthread_rwlock_wrlock(l); }
inline int ox_native_rwlock_tryexcl(ox_native_rwlock_t* l) { return pthread_rwlock_trywrlock(l); }
inline int ox_native_rwlock_shared(ox_native_rwlock_t* l) { return pthread_rwlock_rdlock(l); }
inline int ox_native_rwlock_unlock(ox_native_rwlock_t* l) { return pthread_rwlock_unlock(l); }

#endif

#endif
