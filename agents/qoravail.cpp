// The availability thread: decides when each managed agent is due for a check
// and queues the check for the command handler thread.
#include "core/qorctrl.h"
#include "platform/log1.h"
#include "platform/osv1.h"

QOR_TRACE_UNIT();

void* AVThreadEntry(void* /*unused*/) {
  Controller::getController()->AvailChecking();
  return nullptr;
}

void Controller::AvailChecking() {
  QOR_TRACE_FUNCTION();
  // With no agent to schedule a pass is two cycles of 5 seconds, all sleep.
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
