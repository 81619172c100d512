// The service's locks: the annotations through which clang checks who holds
// what (-Wthread-safety; they vanish under other compilers), QorMutex and its
// scoped guard QorMutexLock for the leaf locks, and the traced lock and unlock
// of the locks that the code takes and gives back by name. Safe from any thread.
#ifndef QOR_CORE_QORLOCK_H
#define QOR_CORE_QORLOCK_H

#include <pthread.h>

#if defined(__clang__)
#define QOR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QOR_THREAD_ANNOTATION(x)
#endif

#define QOR_CAPABILITY(x) QOR_THREAD_ANNOTATION(capability(x))
#define QOR_SCOPED_CAPABILITY QOR_THREAD_ANNOTATION(scoped_lockable)
#define QOR_GUARDED_BY(x) QOR_THREAD_ANNOTATION(guarded_by(x))
#define QOR_REQUIRES(...) QOR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QOR_ACQUIRE(...) QOR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QOR_TRY_ACQUIRE(...) QOR_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define QOR_RELEASE(...) QOR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QOR_EXCLUDES(...) QOR_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QOR_NO_THREAD_SAFETY_ANALYSIS QOR_THREAD_ANNOTATION(no_thread_safety_analysis)

struct LOG1_EPB;

// A plain, non-recursive pthread mutex with default attributes.
class QOR_CAPABILITY("mutex") QorMutex {
 public:
  // PTHREAD_MUTEX_INITIALIZER is pthread_mutex_init with default attributes;
  // being constant, it makes a mutex at namespace scope ready before any
  // static initialiser of another file can take it.
  constexpr QorMutex() noexcept : mutex_(PTHREAD_MUTEX_INITIALIZER), destroy_(true) {}
  // A mutex at namespace scope: threads that still run while the process
  // exits may take it after the static destructors, so it is never destroyed.
  enum NeverDestroyed { kNeverDestroyed };
  constexpr explicit QorMutex(NeverDestroyed) noexcept : mutex_(PTHREAD_MUTEX_INITIALIZER), destroy_(false) {}
  ~QorMutex() {
    if (destroy_) pthread_mutex_destroy(&mutex_);
  }
  QorMutex(const QorMutex&) = delete;
  QorMutex& operator=(const QorMutex&) = delete;

  void lock() QOR_ACQUIRE() { pthread_mutex_lock(&mutex_); }
  void unlock() QOR_RELEASE() { pthread_mutex_unlock(&mutex_); }
  // pthread_cond_wait on this mutex: gives it up while waiting and holds it
  // again when it returns. The result is pthread_cond_wait's.
  int wait(pthread_cond_t* condition) QOR_REQUIRES(this) { return pthread_cond_wait(condition, &mutex_); }
  pthread_mutex_t* native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
  bool destroy_;
};

// A bare pthread_mutex_t, declared by a header that does not use QorMutex, is
// known to the analysis under this name, so that a guard over one releases
// what it acquired. Declared only: the analysis reads it, nothing calls it.
class QOR_CAPABILITY("mutex") QorBareMutex;
QorBareMutex& QorBareMutexOf(pthread_mutex_t* mutex);

// Holds a mutex for the length of a scope, so that no early return and no
// unwinding, a thread cancelled with pthread_cancel included, leaks the lock.
class QOR_SCOPED_CAPABILITY QorMutexLock {
 public:
  explicit QorMutexLock(QorMutex* mutex) QOR_ACQUIRE(mutex) : mutex_(mutex->native()), held_(true) {
    mutex->lock();
  }
  explicit QorMutexLock(pthread_mutex_t* mutex) QOR_ACQUIRE(QorBareMutexOf(mutex))
      : mutex_(mutex), held_(true) {
    pthread_mutex_lock(mutex);
  }
  // The deferred form, for a lock that only some runs of the scope need: it
  // holds nothing until acquire. Taken on some paths only, it is outside the
  // analysis, so no data may be guarded by a mutex that is held this way.
  enum Deferred { kDeferred };
  QorMutexLock(QorMutex* mutex, Deferred) QOR_EXCLUDES(mutex) : mutex_(mutex->native()), held_(false) {}
  ~QorMutexLock() QOR_RELEASE() {
    if (held_) pthread_mutex_unlock(mutex_);
  }
  QorMutexLock(const QorMutexLock&) = delete;
  QorMutexLock& operator=(const QorMutexLock&) = delete;

  // Of the deferred form: pthread_mutex_lock and pthread_mutex_unlock, with
  // their results; release of a guard that holds nothing returns 0.
  int acquire();
  int release();

 private:
  pthread_mutex_t* mutex_;
  bool held_;
};

// Lock and unlock of a lock that the code takes and gives back by name, with
// its own bool result. A failure is traced on the error level with its return
// code, as "Error: pthread_mutex_lock failed, rc=%d \n" and "Error:
// pthread_mutex_unlock failed, rc=%d \n", under the calling function's trace
// block, flags and line: call them through QOR_LOCK_TRACED and
// QOR_UNLOCK_TRACED from a function that has QOR_TRACE_FUNCTION().
bool QorLockTraced(QorMutex& mutex, LOG1_EPB* epb, unsigned flags, int line) QOR_TRY_ACQUIRE(true, mutex);
bool QorUnlockTraced(QorMutex& mutex, LOG1_EPB* epb, unsigned flags, int line) QOR_RELEASE(mutex);
// The same for a bare mutex, which stays outside the analysis.
bool QorLockTraced(pthread_mutex_t* mutex, LOG1_EPB* epb, unsigned flags, int line);
bool QorUnlockTraced(pthread_mutex_t* mutex, LOG1_EPB* epb, unsigned flags, int line);

#define QOR_LOCK_TRACED(mutex) QorLockTraced((mutex), &LOG1__EPB_, LOG1__flags_, __LINE__)
#define QOR_UNLOCK_TRACED(mutex) QorUnlockTraced((mutex), &LOG1__EPB_, LOG1__flags_, __LINE__)

#endif  // QOR_CORE_QORLOCK_H
