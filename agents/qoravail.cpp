// The availability thread: decides when each managed agent is due for a check
// and queues the check for the command handler thread.
#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "platform/log1.h"
#include "platform/osv1.h"

QOR_TRACE_UNIT();

void* AVThreadEntry(void* /*unused*/) {
  Controller::getController()->AvailChecking();
  return nullptr;
}

void Controller::AvailChecking() {
  QOR_TRACE_FUNCTION();
  // Stand-in: the cycle of check masks replaces this loop here; until then
  // a pass is two cycles of 5 seconds, all sleep, as with no agent to check.
  // The thread holds no lock across its sleep, which is what lets shutdown
  // cancel it there.
  while (!isShuttingDown()) {
    const int sleepTime = 5 + managedEndpointProcesses.getInterval();
    QOR_TRACE_STORY("Going to sleep for: %d on iteration %d\n", sleepTime, 1);
    if (!isShuttingDown()) {
      avSleeping.store(true, std::memory_order_release);
      OSV1_Sleep(sleepTime);
      avSleeping.store(false, std::memory_order_release);
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
    QOR_TRACE_DETAIL("Retry availability check is enabled -- skip check.\n");
    return;
  }
  // Stand-in: the remote deploy test comes with OS agent supervision
  // (interfaces/qorosagt.cpp) and the check itself with the watchdog checks
  // (Watchdog::checkAvailability, watchdog/qorwd.cpp); until then nothing
  // is checked.
}
