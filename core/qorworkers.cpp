#include "core/qorworkers.h"

#include <cerrno>

#include "platform/log1.h"

QOR_TRACE_UNIT();

WorkerThreadVector::WorkerThreadVector() { pthread_cond_init(&emptyCondition, nullptr); }

WorkerThreadVector::~WorkerThreadVector() { pthread_cond_destroy(&emptyCondition); }

bool WorkerThreadVector::lockWorkerThreads() {
  QOR_TRACE_FUNCTION();
  return QOR_LOCK_TRACED(vectorMutex);
}

bool WorkerThreadVector::unlockWorkerThreads() {
  QOR_TRACE_FUNCTION();
  return QOR_UNLOCK_TRACED(vectorMutex);
}

bool WorkerThreadVector::addThread(pthread_t thread) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("new worker thread added %d", static_cast<int>(thread));
  threads.push_back(thread);
  return true;
}

bool WorkerThreadVector::eraseThread(pthread_t thread) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Removing thread from vector: %d", static_cast<int>(thread));
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return false;
  }
  bool found = false;
  for (auto it = threads.begin(); it != threads.end(); ++it) {
    if (pthread_equal(*it, thread)) {
      threads.erase(it);
      found = true;
      break;
    }
  }
  if (threads.empty()) {
    int rc = pthread_cond_signal(&emptyCondition);
    if (rc != 0) {
      QOR_TRACE_ERROR("Error: pthread_cond_signal failed. rc=%d", rc);
    } else {
      QOR_TRACE_QUEUE("Waiting reader(s) signalled.\n");
    }
  }
  unlockWorkerThreads();
  return found;
}

void WorkerThreadVector::cancelThreads() {
  QOR_TRACE_FUNCTION();
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return;
  }
  while (!threads.empty()) {
    pthread_cancel(threads.front());
    threads.erase(threads.begin());
  }
  unlockWorkerThreads();
}

bool WorkerThreadVector::isVectorEmpty() {
  QOR_TRACE_FUNCTION();
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return false;
  }
  bool empty = threads.empty();
  unlockWorkerThreads();
  return empty;
}

bool WorkerThreadVector::waitOnEmpty() {
  QOR_TRACE_FUNCTION();
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return false;
  }
  for (;;) {
    int rc = vectorMutex.wait(&emptyCondition);
    if (rc == 0) break;
    if (rc == EINTR) {
      QOR_TRACE_STORY("system interrupt received while waiting...retrying\n");
      continue;
    }
    // Kept: the lock stays held on this path, as callers of this wait expect.
    QOR_TRACE_ERROR("Error: pthread_cond_wait failed. rc=%d \n", rc);
    return false;
  }
  unlockWorkerThreads();
  QOR_TRACE_QUEUE("Successfully completed wait for empty worker vector.\n");
  return true;
}
