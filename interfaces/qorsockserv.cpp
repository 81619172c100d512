// The socket server threads of the two processes. Each serves one connection
// at a time and looks at shuttingDown between connections.
#include <unistd.h>

#include "interfaces/qorsockserv.h"

#include "core/qorctrl.h"

namespace {

// Stand-in: SocketServer, TEOSocketServer and WatchdogSocketServer of this
// file replace this wait; until then the thread only waits for shutdown, as
// the server loop does between connections.
void waitForShutdown() {
  Controller* controller = Controller::getController();
  while (!controller->isShuttingDown()) sleep(1);
}

}  // namespace

void* TEOSocketSrvThreadEntry(void* /*unused*/) {
  waitForShutdown();
  return nullptr;
}

void* WatchdogSocketSrvThreadEntry(void* /*unused*/) {
  waitForShutdown();
  return nullptr;
}
