/*
 * The reader/writer lock inside ox_rwlock_t. Not exported.
 *
 * On Windows it is our own: it needs no kernel object, and taking or giving back a lock that nobody
 * waits for costs one atomic operation. (A slim lock of the system does not know in which mode it
 * is held, and some systems look for sleepers at every release.) Elsewhere it is that of POSIX
 * threads, which the thread sanitizer understands.
 *
 * The results are 0 or a POSIX error number: 22 for a lock that was not initialised (it is
 * zero-filled), 16 for one that is held, 1 for the unlocking of one that nobody holds.
 */
#ifndef OX_NATIVE_RWLOCK_H
#define OX_NATIVE_RWLOCK_H

#include "ox_lock.h"

#ifdef _WIN32

int ox_native_rwlock_init(ox_native_rwlock_t* l);
int ox_native_rwlock_destroy(ox_native_rwlock_t* l);
int ox_native_rwlock_excl(ox_native_rwlock_t* l);
int ox_native_rwlock_tryexcl(ox_native_rwlock_t* l);
int ox_native_rwlock_shared(ox_native_rwlock_t* l);
int ox_native_rwlock_unlock(ox_native_rwlock_t* l);

#else

inline int ox_native_rwlock_init(ox_native_rwlock_t* l) { return pthread_rwlock_init(l, nullptr); }
inline int ox_native_rwlock_destroy(ox_native_rwlock_t* l) { return pthread_rwlock_destroy(l); }
inline int ox_native_rwlock_excl(ox_native_rwlock_t* l) { return pthread_rwlock_wrlock(l); }
inline int ox_native_rwlock_tryexcl(ox_native_rwlock_t* l) { return pthread_rwlock_trywrlock(l); }
inline int ox_native_rwlock_shared(ox_native_rwlock_t* l) { return pthread_rwlock_rdlock(l); }
inline int ox_native_rwlock_unlock(ox_native_rwlock_t* l) { return pthread_rwlock_unlock(l); }

#endif

#endif
