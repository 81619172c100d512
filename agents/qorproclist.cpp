#include "agents/qorproclist.h"

#include <cstdint>

#include "agents/qoragt.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

ManagedProcessList::ManagedProcessList()
    : cycleCount(0), interval(5), dirty(true), lockOwner(pthread_t()), locked(false) {}

ManagedProcessList::~ManagedProcessList() = default;

void ManagedProcessList::push_back(Agent* agent) {
  std::list<Agent*>::push_back(agent);
  setDirty();
}

ManagedProcessList::iterator ManagedProcessList::erase(iterator position) {
  iterator next = std::list<Agent*>::erase(position);
  setDirty();
  return next;
}

namespace {

// An agent read from the state file has no policy yet: it counts as having no
// frequency.
int frequencyOf(const Agent* agent) {
  const Policy* policy = agent->getPolicy();
  return policy != nullptr ? policy->getCheckFrequencyElement() : 0;
}

}  // namespace

bool lessThan::operator()(const Agent* first, const Agent* second) const {
  return frequencyOf(first) < frequencyOf(second);
}

void ManagedProcessList::sort() { std::list<Agent*>::sort(lessThan()); }

int ManagedProcessList::gcd(int a, int b) {
  // A zero divisor has no remainder; the common divisor is then the other
  // number, rather than a division by zero.
  if (b == 0) return a;
  int r = a % b;
  while (r != 0) {
    a = b;
    b = r;
    r = a % b;
  }
  return b;
}

int ManagedProcessList::lcm(int a, int b) {
  // The product wraps as a 32-bit two's complement number would, without the
  // undefined behaviour of a signed overflow.
  int32_t product = static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
  int divisor = gcd(a, b);
  return divisor == 0 ? 0 : product / divisor;
}

std::bitset<MAX_CHECK_CYCLES> ManagedProcessList::getMasterMask() {
  if (isDirty()) regenCheckMasks();
  return masterMask;
}

void ManagedProcessList::regenCheckMasks() {
  QOR_TRACE_FUNCTION();
  if (!lockList()) return;
  sort();

  int commonMultiple = interval;
  for (Agent* agent : *this) {
    int frequency = frequencyOf(agent);
    if (agent->getManagedState() != Unmanaged && frequency != 0)
      commonMultiple = lcm(commonMultiple, frequency);
  }
  QOR_TRACE_STORY("LCM of frequencies = %d", commonMultiple);
  QOR_TRACE_STORY("Min Freq = %d", interval);

  int cycles = commonMultiple / interval + 1;
  // Kept: schedules longer than an hour at 5 seconds are cut; the cycles beyond the cut never run.
  if (cycles > MAX_CHECK_CYCLES) cycles = MAX_CHECK_CYCLES;
  cycleCount.store(cycles, std::memory_order_release);
  QOR_TRACE_STORY("Cycle Count/len of mask = %d", cycles);
  masterMask.reset();

  for (Agent* agent : *this) {
    int period = 0;
    int frequency = frequencyOf(agent);
    if (cycles > 0 && agent->getManagedState() != Unmanaged && frequency >= 1) {
      period = frequency / interval;
      // A frequency below one cycle has no period to mark; marking at 0 would
      // never end.
      // Kept: after the cut, a period that divides 721 sets bit 721, which throws and ends the process.
      for (int position = period; period > 0 && position <= cycles; position += period) {
        masterMask.set(static_cast<size_t>(position));
      }
      QOR_TRACE_DETAIL("Agent freq = %d", frequency);
    }
    QOR_TRACE_DETAIL("agent/master mask set at: %s, %d", agent->getshortID().c_str(), period);
    agent->setCheckMask(static_cast<unsigned long>(period));
  }
  dirty.store(false, std::memory_order_release);
  unlockList();
}

bool ManagedProcessList::inList(Agent* agent) {
  for (Agent* entry : *this) {
    if (entry == agent) return true;
  }
  return false;
}

bool ManagedProcessList::lockList() {
  QOR_TRACE_FUNCTION();
  if (!QOR_LOCK_TRACED(listMutex)) return false;
  lockOwner.store(pthread_self(), std::memory_order_relaxed);
  locked.store(true, std::memory_order_release);
  return true;
}

bool ManagedProcessList::unlockList() {
  QOR_TRACE_FUNCTION();
  if (isLockedByCaller()) {
    locked.store(false, std::memory_order_release);
    return QOR_UNLOCK_TRACED(listMutex);
  }
  QOR_TRACE_DETAIL("Unlock failed: list locked by one thread and unlock tried by another one\n");
  return false;
}

bool ManagedProcessList::isLockedByCaller() const {
  // `locked` is read by threads that do not hold the mutex; lockOwner is only
  // compared once `locked` says the holder has written it.
  return locked.load(std::memory_order_acquire) &&
         pthread_equal(lockOwner.load(std::memory_order_relaxed), pthread_self());
}
