// The ids of the detached command worker threads, kept so that shutdown can
// cancel them. Safe from any thread; addThread needs the vector lock held.
#ifndef QOR_CORE_QORWORKERS_H
#define QOR_CORE_QORWORKERS_H

#include <pthread.h>

#include <vector>

#include "core/qorlock.h"

class WorkerThreadVector {
 public:
  WorkerThreadVector();
  ~WorkerThreadVector();
  WorkerThreadVector(const WorkerThreadVector&) = delete;
  WorkerThreadVector& operator=(const WorkerThreadVector&) = delete;

  bool lockWorkerThreads() QOR_TRY_ACQUIRE(true, vectorMutex);
  bool unlockWorkerThreads() QOR_RELEASE(vectorMutex);
  // Requires: the vector lock held by the caller.
  bool addThread(pthread_t thread) QOR_REQUIRES(vectorMutex);
  // Takes the lock itself; true if the thread was found.
  bool eraseThread(pthread_t thread);
  // Cancels and forgets every worker; takes the lock itself.
  void cancelThreads();
  // Takes the lock itself; false also when the lock fails.
  bool isVectorEmpty();
  // Waits for the next signal of the empty condition. Nothing in the service
  // calls it. A failed wait returns with the lock still held, which the
  // analysis cannot express.
  bool waitOnEmpty() QOR_NO_THREAD_SAFETY_ANALYSIS;

 private:
  QorMutex vectorMutex;
  std::vector<pthread_t> threads QOR_GUARDED_BY(vectorMutex);
  pthread_cond_t emptyCondition;
};

#endif  // QOR_CORE_QORWORKERS_H
