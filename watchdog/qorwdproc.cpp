#include "watchdog/qorwdproc.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/int1.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorunx.h"

QOR_TRACE_UNIT();

namespace {

// Written by the signal handler, read by the main loop. The handler runs on
// whichever thread the signal reaches, often one of the service's threads and
// not the main one, so the flags are lock-free atomics rather than volatile
// sig_atomic_t, which orders nothing between threads.
std::atomic<int> watchdogShutdown{0};
std::atomic<int> capturedSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler may only use lock-free atomics");

}  // namespace

void InitializeWatchdog() {
  watchdogShutdown.store(0);
  RegisterSignalHandlers();
}

void RegisterSignalHandlers() {
  QOR_TRACE_FUNCTION();
  INT1_Record record;
  std::memset(&record, 0, sizeof record);
  record.handler = SignalQOR;
  if (INT1_Action(INT1_SIGINT, &record, 0) != 0) {
    QOR_TRACE_ERROR("INT1_Action for SIGINT failed, errno = %d", errno);
  }
  if (INT1_Action(INT1_SIGTERM, &record, 0) != 0) {
    QOR_TRACE_ERROR("INT1_Action for SIGTERM failed, errno = %d", errno);
  }
  if (INT1_Action(INT1_SIGILL, &record, 0) != 0) {
    QOR_TRACE_ERROR("INT1_Action for SIGILL failed, errno = %d", errno);
  }
}

// Only async-signal-safe work here: the main loop writes the traces of the
// signal once it sees the flag, since tracing takes locks and allocates.
void SignalQOR(int signalNumber) {
  capturedSignal.store(signalNumber);
  watchdogShutdown.store(1);
}

void UnblockSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGILL);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void WatchdogMain() {
  QOR_TRACE_FUNCTION();
  QorCmd* commands = GetCmdManager();
  const int interval = Controller::getController()->getDiscoveryInterval();
  int ticks = 0;
  // The OS agent's count is taken from the embedded service once, when the
  // service starts (Controller::TEOThreadExecution); this loop only keeps
  // the process alive and reaps the children left behind.
  while (watchdogShutdown.load() == 0) {
    sleep(1);
    // Kept: the test uses the count before the increment, so the cleaning comes once in interval + 2 s.
    if (ticks > interval) {
      commands->cleanUpDefunctProcesses();
      ticks = 0;
    } else {
      ++ticks;
    }
  }
  const int signalNumber = capturedSignal.load();
  QOR_TRACE_STORY("Signal captured: %d (%s)", signalNumber, INT1_SignalName(signalNumber));
  QOR_TRACE_STORY("Shutting down qorwd...");
}

void stop_exit() { fprintf(stderr, "\t**** qorwd terminated ****\n"); }

char* GetDisableWatchdogStopFile(Policy* policy) {
  // Kept: without ZEL_BINARCH in the environment the variable stays in the path as written.
  const std::wstring path =
      L"$MARLOWHOME/$ZEL_BINARCH/" + policy->getProductCode() + L"/bin/.qorwd_disable_stop";
  return qor_wcstombs(ReplaceEnvVariables(path));
}

void DisableWatchdogStop(Policy* policy) {
  QOR_TRACE_FUNCTION();
  char* path = GetDisableWatchdogStopFile(policy);
  QOR_TRACE_DETAIL("Creating Watchdog disable stop file %s.", path);
  std::ofstream marker(path, std::ios::out | std::ios::trunc);
  marker.close();
  delete[] path;
}

void EnableWatchdogStop(Policy* policy) {
  QOR_TRACE_FUNCTION();
  char* path = GetDisableWatchdogStopFile(policy);
  QOR_TRACE_DETAIL("Removing Watchdog disable stop file %s.", path);
  std::remove(path);
  delete[] path;
}
