/*
 * The condition variable of the pools and of their jobs' notifiers. Not exported.
 *
 * On Windows it is our own: it needs no kernel object, so that it can neither fail nor leak, and a
 * thread is woken after the lock is free. (The runtime's wakes it while its waker still has the
 * lock, and puts it to sleep again on another kernel object.) Elsewhere it is that of POSIX
 * threads, which the thread sanitizer understands.
 *
 * All are called with the lock held, and return with it held unless their name says otherwise. A
 * wait may end without a wake: its caller looks again.
 */
#ifndef OX_NATIVE_CV_H
#define OX_NATIVE_CV_H

#include "ox_lock.h"

void ox_native_cv_init(ox_native_cv_t* cv);
/* Nobody waits any more. */
void ox_native_cv_destroy(ox_native_cv_t* cv);
void ox_native_cv_wake_all(ox_native_cv_t* cv);
/* Wakes one thread, which finds the lock free. The object may end as soon as the lock is free. */
void ox_native_cv_wake_one_and_unlock(ox_native_cv_t* cv, ox_lock_t* l);
/* `deadline` is a time of the real-time clock, or null. True when woken, false at the deadline. */
bool ox_native_cv_wait(ox_native_cv_t* cv, ox_posix_mutex_t* lock, const struct timespec* deadline);

#endif
