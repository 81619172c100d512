// qorhost: the reference embedder. It runs the service the way the OS agent
// would, prints every event its listeners hear, and stops cleanly on SIGINT or
// SIGTERM, writing the state file. SIGUSR1 lists the agents it knows, SIGHUP
// reopens the trace file, and operator commands typed on standard input, one
// a line, go to the service; the control socket answers the same over HTTP
// (qorcontrol.h).
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "qorapi.h"
#include "qorcommands.h"
#include "qorcontrol.h"
#include "qoreventring.h"
#include "qornotify.h"
#include "qortoolopts.h"

namespace {

const char kUsage[] =
    "Usage: qorhost [--cap-dir DIRS] [--ip-dir DIR] [--trace-level N] [--trace-file PATH]\n"
    "               [--control-socket PATH] [--http ADDR:PORT]\n"
    "\n"
    "Runs the qor supervision service embedded in this process, as the OS\n"
    "monitoring agent would, and prints each event as one line on standard\n"
    "output: local time, event id and text. Alerts are marked ALERT. Once\n"
    "started, and again on each SIGUSR1 (kill -USR1 PID), it lists every agent\n"
    "the service knows, one line each:\n"
    "  qorhost: agent 'NAME' id ID managed M (TEXT) state S (TEXT) pid P restarts C/L\n"
    "with the managed state (0 unmanaged, 1 managed, 2 by the watchdog process),\n"
    "the operating state (0 unknown, 1 not found, 2 stopped, 3 starting,\n"
    "4 running, 5 stopped by an operator, 6 stopping, 7 not configured), the\n"
    "process id (0: none), and today's restarts against the daily limit.\n"
    "Stops on Ctrl-C (SIGINT) or SIGTERM and writes the state file teo.dat.\n"
    "SIGHUP opens the trace file anew at its path, for logrotate; without a\n"
    "trace file it changes nothing.\n"
    "\n"
    "Under systemd, when standard output or error is the journal's stream\n"
    "(JOURNAL_STREAM), its lines carry a priority instead of the local time:\n"
    "<5> events, <4> alerts, <3> error traces, <7> other traces.\n"
    "\n"
    "Commands, one a line on standard input, each answered with one line:\n"
    "%s"
    "NAME is the agent's name as the list shows it, blanks included. A command\n"
    "that runs is answered with its result code and what it means, e.g.\n"
    "  qorhost: start 'Example sleeper': 0 (accepted)\n"
    "0 means that the service took the request; the events that follow tell how\n"
    "it went. The end of standard input (Ctrl-D) ends the commands, not qorhost.\n"
    "\n"
    "qorhost is the OS agent: the process the service lives in. A CAP file with\n"
    "managerType WatchDog describes it (examples/cap/qorhost.xml, its agentPath\n"
    "set to this qorhost) and arms the service. Without such a file, or with it\n"
    "unmanaged, no agent is restarted, and qorhost says so in one line on\n"
    "standard error once started.\n"
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
    "  --control-socket PATH  the control socket: HTTP/1.1 on a unix socket, mode\n"
    "                      srwxrwx---, with the agents, events, metrics and the\n"
    "                      commands (POST). Default: $QOR_IP_DIR/qorhost.sock\n"
    "  --http ADDR:PORT    also serve the read-only routes on TCP, e.g.\n"
    "                      127.0.0.1:9464 (port 0: any free one); commands there\n"
    "                      are refused with 403. Default: off\n"
    "  -h, --help          this text\n"
    "\n"
    "Control socket routes (curl --unix-socket PATH http://localhost/ROUTE):\n"
    "  GET  /v1/agents                 every agent, as JSON\n"
    "  GET  /v1/agents/NAME            one agent\n"
    "  POST /v1/agents/NAME/COMMAND    stop, start, recycle, reset, manage, unmanage\n"
    "  GET  /v1/events?since=N         the last 1000 events heard, after number N\n"
    "  GET  /metrics                   Prometheus text exposition\n"
    "  GET  /                          the status page, for a browser: the agents,\n"
    "                                  the latest events, and buttons for the\n"
    "                                  commands (which only the socket takes; reach\n"
    "                                  it by an SSH tunnel or a local proxy)\n"
    "\n"
    "Other variables read by the service:\n"
    "  QOR_CAP_DISCOVERY_INTERVAL  seconds between polls of the CAP directories\n"
    "                              (default 5; only values above 5 count)\n"
    "  QOR_DISCOVERY_INTERVAL      seconds between instance discoveries (0: off)\n"
    "  QOR_ZEL_DISCOVERY_INTERVAL  seconds between suite instance listings (600)\n"
    "  QOR_CMD_TIMEOUT             time-out of a CAP script in seconds (floor 30)\n"
    "  QOR_CACHE_LIMIT             hours the watchdog process keeps events (24)\n"
    "  MARLOWHOME, ZEL_BINARCH, USER, PROCESSOR_ARCHITECTURE\n"
    "\n"
    "The user ##USER## stands for in the scripts of an agent of the suite comes\n"
    "from $MARLOWHOME/config/<host>_hlxrunas.cfg, else from hmvrunas.cfg there;\n"
    "without one, from USER, else the name of the real user id.\n";

std::string narrow(const std::wstring& text) {
  char* converted = QOR_wcstombs(text);
  std::string result(converted ? converted : "");
  delete[] converted;
  return result;
}

// The streams that are the journal's, decided once at the start of main,
// before any thread runs, and only read afterwards. A line there starts with
// its priority and leaves the time to the journal.
struct JournalStreams {
  bool out = false;
  bool err = false;
};
JournalStreams journal;

// The priorities of sd-daemon(3): SD_ERR, SD_WARNING, SD_NOTICE.
const char kError[] = "<3>";
const char kWarning[] = "<4>";
const char kNotice[] = "<5>";

// One of qorhost's own lines on standard error, with its priority in the journal.
void complain(const char* priority, const std::string& line) {
  std::fprintf(stderr, "%s%s", journal.err ? priority : "", line.c_str());
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
    const std::string lead = journal.out ? kNotice : localTime(logData.eventTime) + "  ";
    std::printf("%s[%2d] %s\n", lead.c_str(), logData.eventID, narrow(logData.logMessage).c_str());
    std::fflush(stdout);
  }
};

class PrintingAlertListener : public QOR_AlertListener {
 public:
  void AlertMe() override {
    const std::string lead = journal.out ? kWarning : localTime(alertData.eventTime) + "  ";
    std::printf("%s[%2d] ALERT agent '%s' state %d managed %d pid %d: %s\n", lead.c_str(), alertData.eventID,
                narrow(alertData.agentName).c_str(), alertData.operatingState, alertData.managedState,
                alertData.procID, narrow(alertData.userMessage).c_str());
    std::fflush(stdout);
  }
};

const char* managedText(int state) {
  switch (state) {
    case 0:
      return "unmanaged";
    case 1:
      return "managed";
    case 2:
      return "by the watchdog process";
    default:
      return "?";
  }
}

const char* operatingText(int state) {
  static const char* const kTexts[] = {"unknown",  "not found",     "stopped",
                                       "starting", "running",       "stopped by an operator",
                                       "stopping", "not configured"};
  return state >= 0 && state < static_cast<int>(sizeof kTexts / sizeof kTexts[0]) ? kTexts[state] : "?";
}

// One line per agent, read through the exported iterator alone, as any
// embedder would.
// The listing is one block on standard output: the lock of the stream keeps
// the lines of events and of command answers, which other threads print, out
// of it.
// Returns the number of agents listed.
int listAgents(QOR_QueryService* service) {
  QOR_AgentIterator* agents = service->getAgentIterator(true);
  if (agents == nullptr) return 0;
  flockfile(stdout);
  int count = 0;
  while (agents->getNextAgentEntry()) {
    ++count;
    std::printf("qorhost: agent '%s' id %s managed %d (%s) state %d (%s) pid %ld restarts %d/%d\n",
                narrow(agents->getAgentName()).c_str(), narrow(agents->getSubagentID()).c_str(),
                agents->getManagedState(), managedText(agents->getManagedState()),
                agents->getOperationalStatus(), operatingText(agents->getOperationalStatus()),
                agents->getProcessID(), agents->getDailyRestartCount(), agents->getMaxRestartsPerDay());
  }
  std::printf("qorhost: %d agent%s\n", count, count == 1 ? "" : "s");
  std::fflush(stdout);
  funlockfile(stdout);
  service->releaseAgentIterator(agents);
  return count;
}

// The CAP format's managerType WatchDog, as getManageType numbers it. In
// embedded mode only the record of the OS agent carries it.
constexpr int kManagerTypeWatchDog = 2;
constexpr int kManagedStateManaged = 1;

// True when a CAP file describes the OS agent and its record is managed. The
// record lives apart from the other agents, so only an iterator that
// includes the watchdog list reaches it.
bool osAgentManaged(QOR_QueryService* service) {
  QOR_AgentIterator* agents = service->getAgentIterator(true);
  if (agents == nullptr) return false;
  bool managed = false;
  while (agents->getNextAgentEntry()) {
    managed = managed || (agents->getManageType() == kManagerTypeWatchDog &&
                          agents->getManagedState() == kManagedStateManaged);
  }
  service->releaseAgentIterator(agents);
  return managed;
}

// The service restarts nothing unless the process it lives in is described
// and managed; a user who starts qorhost on a bare CAP directory would
// otherwise wait for restarts that never come, with no hint why.
const char kNoOSAgent[] =
    "qorhost: no managed CAP file describes qorhost itself as the OS agent (managerType WatchDog), "
    "so no agent will be restarted; copy examples/cap/qorhost.xml with its agentPath set to this "
    "qorhost into one of the CAP directories and start qorhost again.\n";

void say(const std::string& line) {
  std::printf("qorhost: %s\n", line.c_str());
  std::fflush(stdout);
}

void execute(QOR_QueryService* service, const std::string& text) {
  const qorcmd::Line line = qorcmd::parse(text);
  switch (line.kind) {
    case qorcmd::Line::Kind::Blank:
      return;
    case qorcmd::Line::Kind::Unknown:
    case qorcmd::Line::Kind::MissingName:
      say(qorcmd::hint(line));
      return;
    case qorcmd::Line::Kind::Run:
      break;
  }
  if (std::strcmp(line.command->word, "list") == 0) {
    listAgents(service);
  } else if (std::strcmp(line.command->word, "help") == 0) {
    flockfile(stdout);
    std::printf("qorhost: commands:\n%s", qorcmd::help().c_str());
    std::fflush(stdout);
    funlockfile(stdout);
  } else {
    say(qorcmd::answer(*line.command, line.name, qorcmd::run(*service, *line.command, line.name)));
  }
}

// Reads commands from standard input on a thread of its own, so that the main
// thread stays in sigwait. It waits in poll, never in read, on the input and
// on a pipe that the destructor writes to: it sleeps until a line or the stop
// comes, and can be joined at shutdown whatever the input does. The end of
// input ends the reading and nothing else: qorhost started from a script with
// its input closed, or on /dev/null, runs on.
class CommandReader {
 public:
  explicit CommandReader(QOR_QueryService* service) : service_(service) {
    if (pipe2(wake_, O_CLOEXEC) != 0) wake_[0] = wake_[1] = -1;
    thread_ = std::thread([this] { loop(); });
  }
  ~CommandReader() {
    stopping_ = true;
    if (wake_[1] >= 0 && write(wake_[1], "x", 1) < 0) {
      // The reader then sees the flag at its next look, within a second.
    }
    thread_.join();
    for (int fd : wake_) {
      if (fd >= 0) close(fd);
    }
  }
  CommandReader(const CommandReader&) = delete;
  CommandReader& operator=(const CommandReader&) = delete;

 private:
  // Waits until the input has something (with `inputToo`; else a second has
  // passed), or the stop has come; false on the stop. Without the wake pipe
  // the flag is looked at once a second.
  bool awaitInput(bool inputToo) {
    struct pollfd fds[2] = {{wake_[0], POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    const int timeout = (inputToo && wake_[0] >= 0) ? -1 : 1000;
    while (!stopping_) {
      int ready = ::poll(fds, inputToo ? 2 : 1, timeout);
      if (stopping_) break;
      if (!inputToo || ready > 0 || (ready < 0 && errno != EINTR)) return true;
    }
    return false;
  }

  void loop() {
    // The signals are meant for the main thread's sigwait alone. SIGTTIN too
    // is held back: qorhost started with & from a shell still has the terminal
    // as its input, and a read from the background would stop the whole
    // process, service and all; held back, the read fails with EIO instead,
    // and the reader waits until qorhost is brought to the foreground.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGTTIN);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::string pending;
    bool readAnything = false;
    while (awaitInput(true)) {
      char buffer[1024];
      ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
      if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (count < 0 && errno == EIO && isatty(STDIN_FILENO)) {
        // In the background: look again in a second.
        if (!awaitInput(false)) return;
        continue;
      }
      if (count <= 0) break;
      readAnything = true;
      pending.append(buffer, static_cast<size_t>(count));
      for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
        execute(service_, pending.substr(0, end));
        pending.erase(0, end + 1);
      }
    }
    if (stopping_) return;
    // A last line without its newline still counts.
    execute(service_, pending);
    if (readAnything || isatty(STDIN_FILENO)) say("end of commands on standard input; Ctrl-C stops qorhost");
  }

  QOR_QueryService* service_;
  std::atomic<bool> stopping_{false};
  int wake_[2] = {-1, -1};
  std::thread thread_;
};

// Binds the control socket and the TCP address if one is given; false after
// saying on standard error why qorhost cannot go on.
bool bindEndpoints(qorcontrol::Endpoint& control, qorcontrol::Endpoint& http, const std::string& socketOption,
                   const std::string& httpAddress) {
  const std::string path = qorcmd::controlSocketPath(socketOption);
  std::string error;
  if (path.empty()) {
    complain(kWarning,
             "qorhost: no control socket, since QOR_IP_DIR is unset and no --control-socket was given\n");
  } else if (!control.bindUnix(path, error)) {
    complain(kError, "qorhost: " + error + "\n");
    return false;
  } else {
    std::printf("qorhost: control socket: %s\n", path.c_str());
  }
  if (httpAddress.empty()) return true;
  std::string bound;
  if (!http.bindTcp(httpAddress, error, bound)) {
    complain(kError, "qorhost: " + error + "\n");
    return false;
  }
  std::printf("qorhost: read-only HTTP on %s\n", bound.c_str());
  return true;
}

// logrotate has moved the trace file away and tells qorhost so with SIGHUP.
void reopenTraceFile() {
  if (QOR_ReopenTraceFile()) {
    say("SIGHUP received, trace file reopened");
  } else {
    say("SIGHUP received, no trace file reopened");
  }
}

}  // namespace

int main(int argc, char** argv) {
  qortool::oneMallocArena();
  std::string socketOption;
  std::string httpAddress;
  switch (qortool::parseEnvOptions(argc, argv, "qorhost",
                                   {{"--control-socket", &socketOption}, {"--http", &httpAddress}})) {
    case qortool::ParseResult::Help:
      std::printf(kUsage, qorcmd::help().c_str());
      return 0;
    case qortool::ParseResult::Error:
      return 2;
    case qortool::ParseResult::Run:
      break;
  }

  journal.out = QOR_IsJournalStream(STDOUT_FILENO);
  journal.err = QOR_IsJournalStream(STDERR_FILENO);

  // Every thread of the service inherits this mask, so the signals reach the
  // main thread's sigwait and nothing else. SIGHUP among them: its default
  // action would end qorhost at the first log rotation.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGUSR1);
  sigaddset(&stopSignals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::printf("qorhost: CAP directories: %s\n", qortool::envOr("QOR_CAP_DIR", "(unset: ./CAP)"));
  std::printf("qorhost: socket directory: %s\n", qortool::envOr("QOR_IP_DIR", "(unset)"));
  // Read while this is the only thread, since it changes the environment.
  const unsigned long long watchdogUs = qornotify::takeWatchdogPeriodUs();

  // The endpoints are bound before the service starts, so that a second
  // qorhost on the same socket stops before its service exists.
  qorring::EventRing ring;
  qorcontrol::Endpoint control(ring, true);
  qorcontrol::Endpoint http(ring, false);
  const bool bound = bindEndpoints(control, http, socketOption, httpAddress);
  std::fflush(stdout);
  if (!bound) return 1;

  QOR_QueryService* service = QOR_QueryService::initQueryService();
  PrintingLogListener logListener;
  PrintingAlertListener alertListener;
  qorring::RingLogListener ringLogListener(ring);
  qorring::RingAlertListener ringAlertListener(ring);
  service->registerLogListener(&logListener);
  service->registerAlertListener(&alertListener);
  service->registerLogListener(&ringLogListener);
  service->registerAlertListener(&ringAlertListener);

  service->startQueryService();
  control.start(*service);
  http.start(*service);
  std::printf("qorhost: service started; press Ctrl-C to stop\n");
  std::fflush(stdout);
  const int agents = listAgents(service);
  const bool armed = osAgentManaged(service);
  if (!armed) complain(kWarning, kNoOSAgent);
  qornotify::ready("supervising " + std::to_string(agents) + " agent" + (agents == 1 ? "" : "s") +
                   (armed ? "" : "; no managed OS agent CAP file, so nothing is restarted"));
  qornotify::WatchdogPinger pinger(service, watchdogUs);

  int received = 0;
  {
    CommandReader reader(service);
    while (sigwait(&stopSignals, &received) == 0 && (received == SIGUSR1 || received == SIGHUP)) {
      if (received == SIGUSR1) {
        listAgents(service);
      } else {
        reopenTraceFile();
      }
    }
    qornotify::stopping();
    std::printf("qorhost: %s received, stopping\n", received == SIGINT ? "SIGINT" : "SIGTERM");
    std::fflush(stdout);
    // The reader is joined here, so that no command reaches a service being released.
  }
  // So is the pinger: its thread asks the service.
  pinger.stop();
  // So are the endpoints' workers; the socket file goes with them.
  http.stop();
  control.stop();

  service->deregisterLogListener(&ringLogListener);
  service->deregisterAlertListener(&ringAlertListener);
  service->deregisterLogListener(&logListener);
  service->deregisterAlertListener(&alertListener);
  service->releaseQueryService(false);
  std::printf("qorhost: stopped\n");
  return 0;
}
