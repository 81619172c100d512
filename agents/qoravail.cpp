// The availability thread: decides when each managed agent is due for a check
// and queues the check for the command handler thread, where every change of
// an agent happens. It never looks at a process itself.
#include <pthread.h>

#include <bitset>

#include "agents/qoragt.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qordeadline.h"
#include "core/qorevt.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorwd.h"

QOR_TRACE_UNIT();

namespace {

// The availability thread's private copy of the schedule; only a rebuild on
// this thread changes it.
struct CheckSchedule {
  std::bitset<MAX_CHECK_CYCLES> mask;
  int cycles;  // N: the cycles of a pass run from 1 to N - 1
};

// Kept: a sleep starts at 5 seconds whatever the interval; each cycle with no agent due adds one interval.
// With the interval at 5 the thread wakes exactly at the next cycle due. Advances `cycle` to the cycle to
// wake for, or to the end of the schedule when none is left.
int sleepUntilDue(const CheckSchedule& schedule, int interval, int& cycle) {
  int seconds = 5;
  while (cycle < schedule.cycles && !schedule.mask.test(static_cast<size_t>(cycle))) {
    seconds += interval;
    ++cycle;
  }
  return seconds;
}

// Takes the rebuilt schedule after a change of policy or management. False
// when the pass is to end because the new schedule is shorter than the cycle
// reached.
bool takeNewSchedule(ManagedProcessList& list, CheckSchedule& schedule, int cycle,
                     const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  schedule.mask = list.getMasterMask();
  const int cycles = list.getCycleCount();
  QOR_TRACE_STORY("Dirty condition detected: new cycles %d on cycle %d\n", cycles, cycle);
  if (cycle > cycles) return false;
  schedule.cycles = cycles;
  return true;
}

// An agent is due in a cycle that is a multiple of its check period.
bool isDueIn(const Agent* agent, int cycle) {
  const int period = static_cast<int>(agent->getCheckMask());
  if (period <= 0) return false;
  return period == 1 || cycle % period == 0;
}

// Queues a check for each agent due in `cycle`, in list order. The list lock
// is held for the walk only; a list that cannot be locked lets the cycle pass
// without checks.
void pushDueChecks(Controller* controller, int cycle, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  QOR_TRACE_STORY("Testing agent masks on cycle %d\n", cycle);
  if (!list->lockList()) return;
  for (Agent* agent : *list) {
    if (!isDueIn(agent, cycle)) continue;
    QOR_TRACE_STORY("Pushing agent check based on mask on iteration %d -- %s\n", cycle,
                    agent->getshortID().c_str());
    if (controller->isShuttingDown()) break;
    // The event points at the live agent without owning it; the command
    // handler finds out whether it is still listed when its turn comes.
    AgentAVCheckEvent* event = new AgentAVCheckEvent();
    event->setAgent(agent);
    controller->getCommandHandler()->pushEvent(event);
  }
  list->unlockList();
}

// Shutdown cancels the thread only inside its sleep, where it holds nothing:
// a cancel that comes while it is awake waits for the next sleep, and a
// thread that sees shuttingDown first ends by itself.
//
// The sleep ends on the turn of a second. A check compares whole seconds of
// time() with the agent's frequency, and the checks of a pass run one after
// another once it wakes: had one pass woken at x.9 and the next, its seconds
// later, at y.1 after a drift of the wake or a slower queue, an agent checked
// at the end of the first and the start of the second would count a second
// short and wait a whole period more. Waking on the turn keeps every pass's
// checks in the same part of their second, and the cycle from drifting.
void cancellableSleep(int seconds) {
  int previous = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
  QOR_SleepToSecondTurn(seconds);
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
}

}  // namespace

void* AVThreadEntry(void* /*unused*/) {
  Controller::getController()->AvailChecking();
  return nullptr;
}

void Controller::AvailChecking() {
  QOR_TRACE_FUNCTION();
  // The steps trace under AvailChecking's name: the whole story of the cycle carries it.
  const LOG1_Context trace = QOR_TRACE_CONTEXT();
  int previous = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
  ManagedProcessList& list = managedEndpointProcesses;
  // A start script whose program is up is left running, its pipe kept open,
  // until someone reaps it: the discovery pass does, and the watchdog
  // process's own loop. Without them each start would keep a zombie and a
  // descriptor for good, so the cycle reaps at each wake instead.
  const bool reapLeftScripts = !isWatchDogMode() && getDiscoveryInterval() == 0;
  while (!isShuttingDown()) {
    const int interval = list.getInterval();
    CheckSchedule schedule{list.getMasterMask(), list.getCycleCount()};
    QOR_TRACE_STORY("Starting cycle loop: cycle count: %d\n", schedule.cycles);
    for (int cycle = 1; cycle < schedule.cycles && !isShuttingDown(); ++cycle) {
      const int seconds = sleepUntilDue(schedule, interval, cycle);
      QOR_TRACE_STORY("Going to sleep for: %d on iteration %d\n", seconds, cycle);
      if (!isShuttingDown()) {
        avSleeping.store(true, std::memory_order_release);
        cancellableSleep(seconds);
        avSleeping.store(false, std::memory_order_release);
      }
      if (isShuttingDown()) break;
      // A change made during the sleep is seen only now.
      if (list.isDirty() && !takeNewSchedule(list, schedule, cycle, trace)) break;
      if (cycle < schedule.cycles && !isShuttingDown()) pushDueChecks(this, cycle, trace);
      if (reapLeftScripts) GetCmdManager()->cleanUpDefunctProcesses();
    }
  }
  signalAVShutdownComplete();
}

void Controller::ProcessAvCheck(AgentAVCheckEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  if (agent->getWatchdog() == nullptr) {
    QOR_TRACE_DETAIL("The watchdog has been deleted.. probably now an unmanaged agent -- skip check.\n");
    return;
  }
  if (agent->getOperatingState() == OpStarting || agent->getOperatingState() == OpStopping) {
    QOR_TRACE_DETAIL("The agent is a starting or stopping state -- skip check.\n");
    return;
  }
  if (agent->availCheckRetryEnabled()) {
    // A status script that timed out is still being tried again.
    QOR_TRACE_DETAIL("Retry availability check is enabled -- skip check.\n");
    return;
  }
  if (checkRemoteDeploy(agent->getPolicy(), false)) {
    QOR_TRACE_DETAIL("Agent remote deployed is running-- skip check.\n");
    return;
  }
  agent->getWatchdog()->checkAvailability();
}
