/*
 * The condition variable of builds for the development host.
 */
#include "ox_native_cv.h"

void ox_native_cv_init(ox_native_cv_t* cv) { *cv = PTHREAD_COND_INITIALIZER; }

void ox_native_cv_destroy(ox_native_cv_t* cv) { (void)pthread_cond_destroy(cv); }

void ox_native_cv_wake_all(ox_native_cv_t* cv) { (void)pthread_cond_broadcast(cv); }

void ox_native_cv_wake_one_and_unlock(ox_native_cv_t* cv, ox_lock_t* l) {
  (void)pthread_cond_signal(cv);
  (void)ox_unlock(l);
}

bool ox_native_cv_wait(ox_native_cv_t* cv, ox_posix_mutex_t* lock,
                       const struct timespec* deadline) {
  const int rc = deadline != nullptr ? pthread_cond_timedwait(cv, lock, deadline)
                                     : pthread_cond_wait(cv, lock);
  return rc == 0;
}
