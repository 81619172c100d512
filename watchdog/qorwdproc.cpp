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

// SIGHUP, which logrotate sends once it has moved the trace file away.
sigset_t hangupSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  return set;
}

// SIGHUP has no handler: it stays blocked in every thread, pending, until the
// main loop takes it in its wait. A handler would run on whichever thread the
// signal reaches and cut short that thread's sleep or poll; the default
// action would end the process.
void blockHangup() {
  const sigset_t set = hangupSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// The main loop's second of sleep, which a SIGHUP ends early: true then. A
// signal with a handler (SIGTERM) ends it early too, as it ended the sleep.
bool hangupWithinASecond() {
  const sigset_t set = hangupSet();
  const struct timespec second = {1, 0};
  return sigtimedwait(&set, nullptr, &second) == SIGHUP;
}

}  // namespace

void InitializeWatchdog() {
  watchdogShutdown.store(0);
  RegisterSignalHandlers();
  // Before the service's threads start, so that each inherits the mask.
  blockHangup();
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
  // Blocked in qorhost's and qorwd's threads, for their own use; an agent may
  // need it to reload.
  sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void WatchdogMain() {
  QOR_TRACE_FUNCTION();
  QorCmd* commands = GetCmdManager();
  const int interval = Controller::getController()->getDiscoveryInterval();
  int ticks = 0;
  // The loop may run on another thread than the one that initialised the
  // service; a SIGHUP must wait for it there too.
  blockHangup();
  // The OS agent's count is taken from the embedded service once, when the
  // service starts (Controller::TEOThreadExecution); this loop only keeps
  // the process alive, reaps the children left behind, and reopens the trace
  // file on SIGHUP.
  while (watchdogShutdown.load() == 0) {
    if (hangupWithinASecond()) {
      const bool reopened = LOG1_ReopenFile();
      QOR_TRACE_STORY("Signal captured: %d (%s); %s", SIGHUP, INT1_SignalName(SIGHUP),
                      reopened ? "trace file reopened" : "no trace file reopened");
      continue;
    }
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
