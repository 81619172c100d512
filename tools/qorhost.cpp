// qorhost: the reference embedder. It runs the service the way the OS agent
// would, prints every event its listeners hear, and stops cleanly on SIGINT or
// SIGTERM, writing the state file.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "qorapi.h"
#include "qortoolopts.h"

namespace {

const char kUsage[] =
    "Usage: qorhost [--cap-dir DIRS] [--ip-dir DIR] [--trace-level N] [--trace-file PATH]\n"
    "\n"
    "Runs the qor supervision service embedded in this process, as the OS\n"
    "monitoring agent would, and prints each event as one line on standard\n"
    "output: local time, event id and text. Alerts are marked ALERT. Stops on\n"
    "Ctrl-C (SIGINT) or SIGTERM and writes the state file teo.dat.\n"
    "\n"
    "Options (each sets the variable named, and wins over it):\n"
    "  --cap-dir DIRS      QOR_CAP_DIR: colon-separated CAP directories. The state\n"
    "                      file lies in the first that exists. Unset: ./CAP\n"
    "  --ip-dir DIR        QOR_IP_DIR: directory of the local sockets\n"
    "  --trace-level N     QOR_TRACE_LEVEL: decimal sum of trace bits: 1 detail,\n"
    "                      16 queues, 64 function entry/exit, 128 errors,\n"
    "                      256 availability; 146 is the startup/shutdown story.\n"
    "                      Default 128\n"
    "  --trace-file PATH   QOR_TRACE_FILE: where traces go. Default: standard error\n"
    "  -h, --help          this text\n"
    "\n"
    "Other variables read by the service:\n"
    "  QOR_CAP_DISCOVERY_INTERVAL  seconds between polls of the CAP directories\n"
    "                              (default 5; only values above 5 count)\n"
    "  QOR_DISCOVERY_INTERVAL      seconds between instance discoveries (0: off)\n"
    "  QOR_ZEL_DISCOVERY_INTERVAL  seconds between suite instance listings (600)\n"
    "  QOR_CMD_TIMEOUT             time-out of a CAP script in seconds (floor 30)\n"
    "  QOR_CACHE_LIMIT             hours the watchdog process keeps events (24)\n"
    "  MARLOWHOME, ZEL_BINARCH, USER, PROCESSOR_ARCHITECTURE\n";

std::string narrow(const std::wstring& text) {
  char* converted = QOR_wcstombs(text);
  std::string result(converted ? converted : "");
  delete[] converted;
  return result;
}

std::string localTime(time_t when) {
  struct tm local;
  localtime_r(&when, &local);
  char buffer[32];
  strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local);
  return buffer;
}

// Listeners run on the service's message thread, one call at a time.
class PrintingLogListener : public QOR_LogListener {
 public:
  void AlertMe() override {
    std::printf("%s  [%2d] %s\n", localTime(logData.eventTime).c_str(), logData.eventID,
                narrow(logData.logMessage).c_str());
    std::fflush(stdout);
  }
};

class PrintingAlertListener : public QOR_AlertListener {
 public:
  void AlertMe() override {
    std::printf("%s  [%2d] ALERT agent '%s' state %d managed %d pid %d: %s\n",
                localTime(alertData.eventTime).c_str(), alertData.eventID,
                narrow(alertData.agentName).c_str(), alertData.operatingState, alertData.managedState,
                alertData.procID, narrow(alertData.userMessage).c_str());
    std::fflush(stdout);
  }
};

}  // namespace

int main(int argc, char** argv) {
  switch (qortool::parseEnvOptions(argc, argv, "qorhost")) {
    case qortool::ParseResult::Help:
      std::fputs(kUsage, stdout);
      return 0;
    case qortool::ParseResult::Error:
      return 2;
    case qortool::ParseResult::Run:
      break;
  }

  // Every thread of the service inherits this mask, so the signals reach the
  // main thread's sigwait and nothing else.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::printf("qorhost: CAP directories: %s\n", qortool::envOr("QOR_CAP_DIR", "(unset: ./CAP)"));
  std::printf("qorhost: socket directory: %s\n", qortool::envOr("QOR_IP_DIR", "(unset)"));
  std::fflush(stdout);

  QOR_QueryService* service = QOR_QueryService::initQueryService();
  PrintingLogListener logListener;
  PrintingAlertListener alertListener;
  service->registerLogListener(&logListener);
  service->registerAlertListener(&alertListener);

  service->startQueryService();
  std::printf("qorhost: service started; press Ctrl-C to stop\n");
  std::fflush(stdout);

  int received = 0;
  sigwait(&stopSignals, &received);
  std::printf("qorhost: %s received, stopping\n", received == SIGINT ? "SIGINT" : "SIGTERM");
  std::fflush(stdout);

  service->deregisterLogListener(&logListener);
  service->deregisterAlertListener(&alertListener);
  service->releaseQueryService(false);
  std::printf("qorhost: stopped\n");
  return 0;
}
