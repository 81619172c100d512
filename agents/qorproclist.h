// The Controller's agent lists: a list of Agent pointers with a lock that knows
// its holder, and the check schedule of the availability cycle. The list does
// not own its agents. Iteration and changes need the list lock held; the lock
// is not recursive.
#ifndef QOR_AGENTS_QORPROCLIST_H
#define QOR_AGENTS_QORPROCLIST_H

#include <pthread.h>

#include <atomic>
#include <bitset>
#include <list>

#include "core/qorlock.h"

class Agent;

// The most cycles a check schedule has, and the bits of its mask: bit n for
// cycle n, where cycle 720 ends an hour of 5-second cycles.
constexpr int MAX_CHECK_CYCLES = 721;

// Sort order of the schedule: by the check frequency of the agents' policies.
struct lessThan {
  bool operator()(const Agent* first, const Agent* second) const;
};

class ManagedProcessList : public std::list<Agent*> {
 public:
  ManagedProcessList();
  ~ManagedProcessList();
  ManagedProcessList(const ManagedProcessList&) = delete;
  ManagedProcessList& operator=(const ManagedProcessList&) = delete;

  // Requires: the list lock held by the caller.
  void push_back(Agent* agent);
  // Requires: the list lock held by the caller.
  iterator erase(iterator position);
  // Orders the agents by check frequency, stably. Only the rebuild uses it.
  // Requires: the list lock held by the caller.
  void sort();
  // True if this very pointer is in the list (compared by address).
  // Requires: the list lock held by the caller.
  bool inList(Agent* agent);

  // The list lock is outside the clang analysis: executeCmd gives it up and
  // takes it back for whichever caller holds it, which annotations would have
  // to follow through every caller. Functions that need it say so instead.
  bool lockList() QOR_NO_THREAD_SAFETY_ANALYSIS;
  // Refuses, with false and a trace, a thread that does not hold the lock, and
  // a second unlock by the holder: a command run gives the lock up only when
  // its caller really holds it.
  bool unlockList() QOR_NO_THREAD_SAFETY_ANALYSIS;
  // True when the calling thread holds the lock: code reached both with and
  // without the list in hand decides by it whether to take the lock itself.
  bool isLockedByCaller() const;

  // Rebuilds the schedule when it is dirty and returns a copy of the mask.
  // Requires: the list lock NOT held by the caller, since the rebuild takes it.
  std::bitset<MAX_CHECK_CYCLES> getMasterMask();
  // Turns the check frequencies of the managed agents into per-agent check
  // periods and the mask of cycles in which some agent is due. A period that
  // reaches past the last bit ends the process, as nothing catches it.
  // Requires: the list lock NOT held by the caller, since it takes the lock.
  void regenCheckMasks();
  static int gcd(int a, int b);
  // The product comes first, in 32-bit signed arithmetic, so the result
  // wraps sooner than the common multiple itself would.
  static int lcm(int a, int b);

  bool isDirty() const { return dirty.load(std::memory_order_acquire); }
  void setDirty() { dirty.store(true, std::memory_order_release); }
  int getCycleCount() const { return cycleCount.load(std::memory_order_acquire); }
  int getInterval() const { return interval; }

 private:
  std::bitset<MAX_CHECK_CYCLES> masterMask;
  std::atomic<int> cycleCount;
  int interval;
  std::atomic<bool> dirty;
  QorMutex listMutex;
  std::atomic<pthread_t> lockOwner;
  std::atomic<bool> locked;
};

#endif  // QOR_AGENTS_QORPROCLIST_H
