// The discovery thread: at a fixed interval, keeps the agent records in step
// with the instances that really run. Embedded mode only.
#include <ctime>

#include "core/qorctrl.h"
#include "platform/log1.h"
#include "platform/osv1.h"

QOR_TRACE_UNIT();

void* DIThreadEntry(void* /*unused*/) {
  Controller::getController()->runDiscovery();
  return nullptr;
}

void Controller::runDiscovery() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Discovery interval: %d seconds\n", discoveryInterval);
  QOR_TRACE_DETAIL("ZEL Discovery interval: %d seconds\n", zelDiscoveryInterval);
  while (!isShuttingDown()) {
    QOR_TRACE_DETAIL("Going to sleep for: %d\n", discoveryInterval);
    if (!isShuttingDown()) {
      diSleeping.store(true, std::memory_order_release);
      OSV1_Sleep(discoveryInterval);
      diSleeping.store(false, std::memory_order_release);
    }
    if (isShuttingDown()) break;
    QOR_TRACE_DETAIL("test if discovery mutex is locked -- to allow management/add cap has to execute\n");
    if (!tryLockDiscovery()) {
      QOR_TRACE_DETAIL("discovery lock not available skipping discovery\n");
      continue;
    }
    QOR_TRACE_DETAIL("lockDiscovery\n");
    // Stand-in: the cycle's work on instances comes here, with instance
    // discovery in this file; until then a cycle only takes the lock.
    unlockDiscovery();
  }
  signalDIShutdownComplete();
}
