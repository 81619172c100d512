// qorwd: the stand-alone watchdog process that keeps the OS monitoring agent
// alive. It runs the service in watchdog mode until SIGINT, SIGTERM or SIGILL;
// SIGHUP reopens its trace file.
#include <cstdio>

#include "qorapi.h"
#include "qornotify.h"
#include "qortoolopts.h"

namespace {

const char kUsage[] =
    "Usage: qorwd [--cap-dir DIRS] [--ip-dir DIR] [--trace-level N] [--trace-file PATH]\n"
    "\n"
    "Runs the qor service in watchdog mode: it supervises only the OS monitoring\n"
    "agent described among the CAP files, and answers the embedded service on\n"
    "$QOR_IP_DIR/.teo_wd_sock. Runs until SIGINT, SIGTERM or SIGILL. SIGHUP\n"
    "opens the trace file anew at its path, for logrotate.\n"
    "\n"
    "Options (each sets the variable named, and wins over it):\n"
    "  --cap-dir DIRS      QOR_CAP_DIR: colon-separated CAP directories\n"
    "  --ip-dir DIR        QOR_IP_DIR: directory of the local sockets\n"
    "  --trace-level N     QOR_TRACE_LEVEL: decimal trace bit mask (default 128)\n"
    "  --trace-file PATH   QOR_TRACE_FILE: trace destination (default stderr)\n"
    "  -h, --help          this text\n"
    "\n"
    "The process kept alive is the one whose CAP file has managerType WatchDog\n"
    "(or the product code qa, qb or qc); every other CAP file is ignored here.\n"
    "While qorwd itself stops that agent it keeps an empty marker file,\n"
    "$MARLOWHOME/$ZEL_BINARCH/<product code>/bin/.qorwd_disable_stop: whoever\n"
    "stops qorwd from outside should wait while it exists.\n"
    "\n"
    "Exit codes:\n"
    "  0  stopped by a signal, or --help\n"
    "  2  unknown argument or bad option value\n";

}  // namespace

int main(int argc, char** argv) {
  qortool::oneMallocArena();
  switch (qortool::parseEnvOptions(argc, argv, "qorwd")) {
    case qortool::ParseResult::Help:
      std::fputs(kUsage, stdout);
      return 0;
    case qortool::ParseResult::Error:
      return 2;
    case qortool::ParseResult::Run:
      break;
  }
  // Read while this is the only thread, since it changes the environment.
  const unsigned long long watchdogUs = qornotify::takeWatchdogPeriodUs();
  QOR_QueryService* service = QOR_QueryService::initWatchdogService();
  service->startQueryService();
  qornotify::ready("watching the OS agent");
  {
    qornotify::WatchdogPinger pinger(service, watchdogUs);
    // Returns within a second of the stop signal, which its own handler
    // takes: the stop is known here first.
    WatchdogMain();
    qornotify::stopping();
  }
  service->releaseQueryService(false);
  stop_exit();
  return 0;
}
