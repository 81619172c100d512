#include "agents/qorproclist.h"

#include "platform/log1.h"

QOR_TRACE_UNIT();

ManagedProcessList::ManagedProcessList()
    : cycleCount(0), interval(5), dirty(true), lockOwner(pthread_t()), locked(false) {
  pthread_mutex_init(&listMutex, nullptr);
}

ManagedProcessList::~ManagedProcessList() { pthread_mutex_destroy(&listMutex); }

void ManagedProcessList::push_back(Agent* agent) {
  std::list<Agent*>::push_back(agent);
  setDirty();
}

ManagedProcessList::iterator ManagedProcessList::erase(iterator position) {
  iterator next = std::list<Agent*>::erase(position);
  setDirty();
  return next;
}

bool ManagedProcessList::inList(Agent* agent) {
  for (Agent* entry : *this) {
    if (entry == agent) return true;
  }
  return false;
}

bool ManagedProcessList::lockList() {
  QOR_TRACE_FUNCTION();
  int rc = pthread_mutex_lock(&listMutex);
  if (rc != 0) {
    QOR_TRACE_ERROR("Error: pthread_mutex_lock failed, rc=%d \n", rc);
    return false;
  }
  lockOwner.store(pthread_self(), std::memory_order_relaxed);
  locked.store(true, std::memory_order_release);
  return true;
}

bool ManagedProcessList::unlockList() {
  QOR_TRACE_FUNCTION();
  // `locked` is read by threads that do not hold the mutex; lockOwner is only
  // compared once `locked` says the holder has written it.
  if (locked.load(std::memory_order_acquire) &&
      pthread_equal(lockOwner.load(std::memory_order_relaxed), pthread_self())) {
    locked.store(false, std::memory_order_release);
    int rc = pthread_mutex_unlock(&listMutex);
    if (rc != 0) {
      QOR_TRACE_ERROR("Error: pthread_mutex_unlock failed, rc=%d \n", rc);
      return false;
    }
    return true;
  }
  QOR_TRACE_DETAIL("Unlock failed: list locked by one thread and unlock tried by another one\n");
  return false;
}
