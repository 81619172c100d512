#include "core/qorlock.h"

#include "platform/log1.h"

namespace {

// The trace goes out under the caller's block and line, on the caller's flags,
// as QOR_TRACE_ERROR in the caller would write it.
bool lockTraced(pthread_mutex_t* mutex, LOG1_EPB* epb, unsigned flags, int line) {
  int rc = pthread_mutex_lock(mutex);
  if (rc == 0) return true;
  if (LOG1_On(flags, QOR_TL_ERROR)) {
    LOG1_Printf(epb, QOR_TL_ERROR, line, "Error: pthread_mutex_lock failed, rc=%d \n", rc);
  }
  return false;
}

bool unlockTraced(pthread_mutex_t* mutex, LOG1_EPB* epb, unsigned flags, int line) {
  int rc = pthread_mutex_unlock(mutex);
  if (rc == 0) return true;
  if (LOG1_On(flags, QOR_TL_ERROR)) {
    LOG1_Printf(epb, QOR_TL_ERROR, line, "Error: pthread_mutex_unlock failed, rc=%d \n", rc);
  }
  return false;
}

}  // namespace

int QorMutexLock::acquire() {
  int rc = pthread_mutex_lock(mutex_);
  held_ = rc == 0;
  return rc;
}

int QorMutexLock::release() {
  if (!held_) return 0;
  held_ = false;
  return pthread_mutex_unlock(mutex_);
}

// The analysis takes the annotations of these two at their word: what they
// lock is the pthread mutex inside, which it does not see.
bool QorLockTraced(QorMutex& mutex, LOG1_EPB* epb, unsigned flags, int line) QOR_NO_THREAD_SAFETY_ANALYSIS {
  return lockTraced(mutex.native(), epb, flags, line);
}

bool QorUnlockTraced(QorMutex& mutex, LOG1_EPB* epb, unsigned flags, int line) QOR_NO_THREAD_SAFETY_ANALYSIS {
  return unlockTraced(mutex.native(), epb, flags, line);
}

bool QorLockTraced(pthread_mutex_t* mutex, LOG1_EPB* epb, unsigned flags, int line) {
  return lockTraced(mutex, epb, flags, line);
}

bool QorUnlockTraced(pthread_mutex_t* mutex, LOG1_EPB* epb, unsigned flags, int line) {
  return unlockTraced(mutex, epb, flags, line);
}
