// A host program built against the installed qorapi.h alone, the way an OS
// monitoring agent embeds qor. It supervises one program of its own (a copy of
// sleep that the service starts), reads it through the iterator, sends every
// command, hears the events, and runs the watchdog process's main loop in a
// forked child that supervises this very program. Used by
// tests/embedder/build-and-run.sh, linked once with libqor.a and once with
// libqor.so. Exits 0 when every answer was right; each wrong one is printed
// on standard error as "FAIL: ...".
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qorapi.h"

namespace {

// ---- Checking -----------------------------------------------------------------

int failures = 0;

void fail(const std::string& what) {
  std::fprintf(stderr, "FAIL: %s\n", what.c_str());
  ++failures;
}

void check(bool ok, const std::string& what) {
  if (!ok) fail(what);
}

template <typename T>
std::string text(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

std::string narrow(const std::wstring& wide) {
  char* bytes = QOR_wcstombs(wide);
  std::string result = bytes != nullptr ? bytes : "";
  delete[] bytes;
  return result;
}

std::wstring widen(const std::string& bytes) {
  wchar_t* wide = QOR_u_strFromUTF8(bytes.c_str());
  std::wstring result = wide != nullptr ? wide : L"";
  delete[] wide;
  return result;
}

template <typename T>
void expectEqual(const T& expected, const T& actual, const std::string& what) {
  if (!(expected == actual)) fail(what + ": expected " + text(expected) + ", got " + text(actual));
}

void expectText(const std::string& expected, const std::wstring& actual, const std::string& what) {
  expectEqual(expected, narrow(actual), what);
}

bool waitFor(const std::function<bool()>& condition, int seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// ---- Files --------------------------------------------------------------------

void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream(path) << content;
  chmod(path.c_str(), mode);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string selfPath() {
  char buffer[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : std::string();
}

// Field `index` (1 = pid) of /proc/PID/stat, counted after the name.
long statField(long pid, int index) {
  std::string stat = readFile("/proc/" + text(pid) + "/stat");
  size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(stat.substr(close + 2));
  std::string field;
  int at = 2;
  while (at < index && (fields >> field)) ++at;
  return at == index ? std::atol(field.c_str()) : -1;
}

// The first number of /proc/PID/statm: the program's size in pages.
long statmSize(long pid) { return std::atol(readFile("/proc/" + text(pid) + "/statm").c_str()); }

// ---- The host's setting ---------------------------------------------------------

// The folders and files this host works with, all under the directory given
// on the command line.
struct Layout {
  std::string dir;
  std::string caps() const { return dir + "/cap"; }
  std::string ip() const { return dir + "/ip"; }
  std::string watchdogCaps() const { return dir + "/wdcap"; }
  std::string watchdogIp() const { return dir + "/wdip"; }
  std::string program() const { return dir + "/bin/qorembd"; }
  std::string pidFile() const { return dir + "/qorembd.pid"; }
  std::string capFile() const { return caps() + "/sleeper.xml"; }
};

const char kCapHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<subagents xmlns=\"urn:qor:cap\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xsi:schemaLocation=\"urn:qor:cap mdhcap.xsd\">\n";

// This program itself as the OS agent, supervised by the watchdog process.
std::string osAgentCap() {
  const std::string self = selfPath();
  const std::string name = self.substr(self.rfind('/') + 1);
  return std::string(kCapHead) +
         "  <subagent id=\"embed.host\">\n"
         "    <agentName>Embedding host</agentName>\n"
         "    <procName>" +
         name +
         "</procName>\n"
         "    <agentType>Console</agentType>\n"
         "    <agentPath>" +
         self +
         "</agentPath>\n"
         "    <platform xsi:type=\"PlatformLinux\"/>\n"
         "    <checkFrequency>5</checkFrequency>\n"
         "    <managerType>WatchDog</managerType>\n"
         "    <maxRestarts>3</maxRestarts>\n"
         "  </subagent>\n</subagents>\n";
}

// The supervised program. Its paths go through $EMBHOME@em, a value that
// this host gives the service for the agent "em".
std::string sleeperCap() {
  return std::string(kCapHead) +
         "  <subagent id=\"embed.sleeper\">\n"
         "    <agentName>Embedded sleeper</agentName>\n"
         "    <procName>qorembd</procName>\n"
         "    <agentType>Console</agentType>\n"
         "    <agentPath>$EMBHOME@em/bin/qorembd</agentPath>\n"
         "    <agentVersionScript><command>echo 1.2.3</command></agentVersionScript>\n"
         "    <agentBuildNumberScript><command>echo 42</command></agentBuildNumberScript>\n"
         "    <platform xsi:type=\"PlatformLinux\"><name>Linux</name></platform>\n"
         "    <checkFrequency>5</checkFrequency>\n"
         "    <cpuThreshold>100</cpuThreshold>\n"
         "    <memoryThreshold>2GB</memoryThreshold>\n"
         "    <managerType>TeoServices</managerType>\n"
         "    <maxRestarts>3</maxRestarts>\n"
         "    <startScript><command>/bin/sh $EMBHOME@em/start.sh</command></startScript>\n"
         "    <stopScript><command>/bin/sh $EMBHOME@em/stop.sh</command></stopScript>\n"
         "    <configScript><command>/bin/true</command></configScript>\n"
         "  </subagent>\n</subagents>\n";
}

// The start script returns once the process is the program, so that the
// check after a start finds it under its own name.
const char kStartScript[] =
    "#!/bin/sh\n"
    "here=$(dirname \"$0\")\n"
    "\"$here/bin/qorembd\" 2147483647 </dev/null >/dev/null 2>&1 &\n"
    "pid=$!\n"
    "echo $pid >\"$here/qorembd.pid\"\n"
    "want=$(readlink -f \"$here/bin/qorembd\")\n"
    "tries=0\n"
    "while [ \"$(readlink /proc/$pid/exe)\" != \"$want\" ] && [ $tries -lt 50 ]; do\n"
    "  sleep 0.1; tries=$((tries + 1))\n"
    "done\n";

const char kStopScript[] =
    "#!/bin/sh\n"
    "kill \"$(cat \"$(dirname \"$0\")/qorembd.pid\")\"\n";

bool prepare(const Layout& layout) {
  for (const std::string& dir :
       {layout.caps(), layout.ip(), layout.watchdogCaps(), layout.watchdogIp(), layout.dir + "/bin"}) {
    if (mkdir(dir.c_str(), 0755) != 0) {
      fail("cannot make " + dir + ": " + std::strerror(errno));
      return false;
    }
  }
  writeFile(layout.program(), readFile("/bin/sleep"), 0755);
  writeFile(layout.dir + "/start.sh", kStartScript, 0755);
  writeFile(layout.dir + "/stop.sh", kStopScript, 0755);
  writeFile(layout.caps() + "/host.xml", osAgentCap());
  writeFile(layout.capFile(), sleeperCap());
  writeFile(layout.watchdogCaps() + "/host.xml", osAgentCap());
  return true;
}

// ---- Listeners ----------------------------------------------------------------

// Every event as "[ID] TEXT", in the order heard.
class Heard : public QOR_LogListener {
 public:
  void AlertMe() override {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back("[" + text(logData.eventID) + "] " + narrow(logData.logMessage));
  }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // The ids of the events whose text holds `about`, in order.
  std::vector<int> idsAbout(const std::string& about) {
    std::vector<int> ids;
    for (const std::string& line : lines()) {
      if (line.find(about) != std::string::npos) ids.push_back(std::atoi(line.c_str() + 1));
    }
    return ids;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Every alert as "[ID] agent NAME state S managed M pid P".
class Alerts : public QOR_AlertListener {
 public:
  void AlertMe() override {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back("[" + text(alertData.eventID) + "] agent '" + narrow(alertData.agentName) + "' state " +
                     text(alertData.operatingState) + " managed " + text(alertData.managedState) + " pid " +
                     text(alertData.procID));
  }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

std::string joined(const std::vector<int>& ids) {
  std::string result;
  for (int id : ids) result += (result.empty() ? "" : " ") + text(id);
  return result;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string result;
  for (const std::string& line : lines) result += (result.empty() ? "" : "|") + line;
  return result;
}

// ---- The iterator ---------------------------------------------------------------

// One entry as every getter answers for it.
struct Entry {
  bool hasModified = false;
  long modified = -7;
  bool hasChecked = false;
  long checked = -7;
  std::wstring subagentID, name, processName, instanceProcessName, path;
  int agentType = 0, manageType = 0, managedState = 0, operationalStatus = 0;
  std::wstring startScript, stopScript, configScript, statusScript;
  int checkFreq = 0, maxRestarts = 0, healthPort = 0, osType = 0;
  std::wstring osVersion, osName, kernelRelease, dependencies;
  long memoryValue = 0;
  int memoryUnit = 0;
  unsigned long memoryThreshold = 0;
  long cpuThreshold = 0;
  std::wstring ipAddress, hostName;
  long pid = 0;
  std::wstring commandLine, buildDate, buildNumber, version;
  int restarts = 0;
  long userCPU = 0, systemCPU = 0, cpu = 0, pageFaults = 0, threads = 0, handles = 0;
  std::wstring serviceName, zelInstance;
  unsigned long workingSet = 0;
  long parentPid = 0, residentSet = 0, totalMemory = 0;
  unsigned long vmSize = 0;
  std::wstring user;
};

void readPolicyPart(QOR_AgentIterator& it, Entry& e) {
  e.hasModified = it.getCAPFileModifyTimestamp(e.modified);
  e.subagentID = it.getSubagentID();
  e.path = it.getAgentPath();
  e.manageType = it.getManageType();
  e.startScript = it.getStartScript();
  e.stopScript = it.getStopScript();
  e.configScript = it.getConfigScript();
  e.statusScript = it.getStatusScript();
  e.checkFreq = it.getDailyCheckFreq();
  e.maxRestarts = it.getMaxRestartsPerDay();
  e.healthPort = it.getAgentHealthPort();
  e.osType = it.getOSType();
  e.osVersion = it.getOSVersion();
  e.osName = it.getOSName();
  e.kernelRelease = it.getKernelRelease();
  e.dependencies = it.getDependencies();
  e.memoryValue = it.getMemoryThresholdValue();
  e.memoryUnit = it.getMemoryThresholdUnit();
  e.memoryThreshold = it.getMemoryThreshold();
  e.cpuThreshold = it.getCPUThreshold();
}

void readAgentPart(QOR_AgentIterator& it, Entry& e) {
  e.hasChecked = it.getLastHealthCheck(e.checked);
  e.agentType = it.getAgentType();
  e.name = it.getAgentName();
  e.processName = it.getProcessName();
  e.instanceProcessName = it.getInstanceProcessName();
  e.managedState = it.getManagedState();
  e.operationalStatus = it.getOperationalStatus();
  e.ipAddress = it.getIPAddress();
  e.hostName = it.getHostName();
  e.pid = it.getProcessID();
  e.commandLine = it.getCommandLine();
  e.buildDate = it.getBuildDate();
  e.buildNumber = it.getAgentBuildNumber();
  e.version = it.getAgentVersion();
  e.restarts = it.getDailyRestartCount();
  e.serviceName = it.getServiceName();
  e.zelInstance = it.getZELInstanceName();
  e.user = it.getProcessUser();
}

void readFigures(QOR_AgentIterator& it, Entry& e) {
  e.userCPU = it.getUserCPU();
  e.systemCPU = it.getSystemCPU();
  e.cpu = it.getCPUUsage();
  e.pageFaults = it.getPageFaults();
  e.threads = it.getThreadCount();
  e.handles = it.getHandleCount();
  e.workingSet = it.getWorkingSetSize();
  e.parentPid = it.getParentProcessID();
  e.residentSet = it.getResidentSetSize();
  e.totalMemory = it.getTotalMemorySize();
  e.vmSize = it.getVMSize();
}

Entry readEntry(QOR_AgentIterator& it) {
  Entry entry;
  readPolicyPart(it, entry);
  readAgentPart(it, entry);
  readFigures(it, entry);
  return entry;
}

// The entries of a new iterator, the OS agent's record included or not.
std::vector<Entry> snapshot(QOR_QueryService* service, bool includeWatchdog) {
  std::vector<Entry> entries;
  QOR_AgentIterator* agents = service->getAgentIterator(includeWatchdog);
  if (agents == nullptr) return entries;
  while (agents->getNextAgentEntry()) entries.push_back(readEntry(*agents));
  service->releaseAgentIterator(agents);
  return entries;
}

Entry sleeper(QOR_QueryService* service) {
  for (const Entry& entry : snapshot(service, false)) {
    if (narrow(entry.subagentID) == "embed.sleeper") return entry;
  }
  return Entry();
}

// Waits until the program's entry satisfies `condition`; false after `seconds`.
bool waitForSleeper(QOR_QueryService* service, const std::function<bool(const Entry&)>& condition,
                    int seconds) {
  return waitFor([&] { return condition(sleeper(service)); }, seconds);
}

// Beyond the end every getter gives its answer for a bad position.
void checkInvalid(QOR_AgentIterator& it) {
  check(it.invalidPos(), "invalidPos beyond the end");
  const Entry e = readEntry(it);
  check(!e.hasModified && e.modified == -7, "getCAPFileModifyTimestamp beyond the end");
  check(!e.hasChecked && e.checked == -7, "getLastHealthCheck beyond the end");
  for (const std::wstring* empty :
       {&e.subagentID,  &e.name,          &e.processName,  &e.instanceProcessName, &e.path,
        &e.startScript, &e.stopScript,    &e.configScript, &e.statusScript,        &e.osVersion,
        &e.osName,      &e.kernelRelease, &e.dependencies, &e.ipAddress,           &e.hostName,
        &e.commandLine, &e.buildNumber,   &e.version,      &e.serviceName,         &e.zelInstance,
        &e.user}) {
    check(empty->empty(), "a text getter beyond the end answered '" + narrow(*empty) + "'");
  }
  const std::pair<const char*, long> numbers[] = {{"getAgentType", e.agentType},
                                                  {"getManageType", e.manageType},
                                                  {"getManagedState", e.managedState},
                                                  {"getOperationalStatus", e.operationalStatus},
                                                  {"getDailyCheckFreq", e.checkFreq},
                                                  {"getMaxRestartsPerDay", e.maxRestarts},
                                                  {"getAgentHealthPort", e.healthPort},
                                                  {"getOSType", e.osType},
                                                  {"getMemoryThresholdValue", e.memoryValue},
                                                  {"getCPUThreshold", e.cpuThreshold},
                                                  {"getProcessID", e.pid},
                                                  {"getDailyRestartCount", e.restarts},
                                                  {"getUserCPU", e.userCPU},
                                                  {"getSystemCPU", e.systemCPU},
                                                  {"getCPUUsage", e.cpu},
                                                  {"getPageFaults", e.pageFaults},
                                                  {"getThreadCount", e.threads},
                                                  {"getHandleCount", e.handles},
                                                  {"getParentProcessID", e.parentPid},
                                                  {"getResidentSetSize", e.residentSet},
                                                  {"getTotalMemorySize", e.totalMemory}};
  for (const auto& number : numbers)
    expectEqual(-1L, number.second, std::string(number.first) + " beyond the end");
  expectEqual(0, e.memoryUnit, "getMemoryThresholdUnit beyond the end");
  expectEqual(ULONG_MAX, e.memoryThreshold, "getMemoryThreshold beyond the end");
  expectEqual(ULONG_MAX, e.workingSet, "getWorkingSetSize beyond the end");
  expectEqual(ULONG_MAX, e.vmSize, "getVMSize beyond the end");
  expectText("0000000000000001", e.buildDate, "getBuildDate beyond the end");
}

// ---- What the service says of the running program --------------------------------

void checkPolicyPart(const Entry& e, const Layout& layout) {
  struct stat file;
  stat(layout.capFile().c_str(), &file);
  check(e.hasModified, "getCAPFileModifyTimestamp answers");
  expectEqual(static_cast<long>(file.st_mtime), e.modified, "getCAPFileModifyTimestamp");
  // The copy in a snapshot holds the path with $EMBHOME@em expanded.
  expectText(layout.program(), e.path, "getAgentPath");
  expectEqual(1, e.manageType, "getManageType");
  expectText("/bin/sh $EMBHOME@em/start.sh", e.startScript, "getStartScript");
  expectText("/bin/sh $EMBHOME@em/stop.sh", e.stopScript, "getStopScript");
  expectText("/bin/true", e.configScript, "getConfigScript");
  expectText("", e.statusScript, "getStatusScript");
  expectEqual(5, e.checkFreq, "getDailyCheckFreq");
  expectEqual(3, e.maxRestarts, "getMaxRestartsPerDay");
  expectEqual(0, e.healthPort, "getAgentHealthPort");
  expectEqual(2, e.osType, "getOSType");
  expectText("", e.osVersion, "getOSVersion");
  expectText("Linux", e.osName, "getOSName");
  expectText("", e.kernelRelease, "getKernelRelease");
  expectText("", e.dependencies, "getDependencies");
  expectEqual(2L, e.memoryValue, "getMemoryThresholdValue");
  expectEqual(30, e.memoryUnit, "getMemoryThresholdUnit");
  expectEqual(2147483648UL, e.memoryThreshold, "getMemoryThreshold");
  expectEqual(100L, e.cpuThreshold, "getCPUThreshold");
}

void checkAgentPart(const Entry& e, const Layout& layout, long pid) {
  check(e.hasChecked, "getLastHealthCheck answers after a check");
  const long now = static_cast<long>(time(nullptr));
  check(e.checked <= now && e.checked > now - 15,
        "getLastHealthCheck " + text(e.checked) + " now " + text(now));
  expectEqual(1, e.agentType, "getAgentType");
  expectText("Embedded sleeper", e.name, "getAgentName");
  expectText("qorembd", e.processName, "getProcessName");
  expectText("qorembd", e.instanceProcessName, "getInstanceProcessName");
  expectEqual(1, e.managedState, "getManagedState");
  expectEqual(4, e.operationalStatus, "getOperationalStatus");
  expectText("", e.ipAddress, "getIPAddress");
  expectText("", e.hostName, "getHostName");
  expectEqual(pid, e.pid, "getProcessID");
  expectText(layout.program() + " 2147483647", e.commandLine, "getCommandLine");
  expectText("0000000000000001", e.buildDate, "getBuildDate");
  expectText("42", e.buildNumber, "getAgentBuildNumber");
  expectText("1.2.3", e.version, "getAgentVersion");
  expectText("", e.serviceName, "getServiceName");
  expectText("", e.zelInstance, "getZELInstanceName");
  const passwd* me = getpwuid(geteuid());
  expectText(me != nullptr ? me->pw_name : "?", e.user, "getProcessUser");
}

void checkFigures(const Entry& e, long pid) {
  // A sleeping program: its CPU figures are whole, and the total is the sum.
  check(e.userCPU >= 0 && e.systemCPU >= 0, "getUserCPU and getSystemCPU are not negative");
  expectEqual(e.userCPU + e.systemCPU, e.cpu, "getCPUUsage");
  check(e.pageFaults >= 0, "getPageFaults is not negative");
  expectEqual(1L, e.threads, "getThreadCount");
  expectEqual(0L, e.handles, "getHandleCount");
  expectEqual(statField(pid, 4), e.parentPid, "getParentProcessID");
  const long pages = statmSize(pid);
  expectEqual(pages, e.totalMemory, "getTotalMemorySize in pages");
  expectEqual(static_cast<unsigned long>(pages) * static_cast<unsigned long>(getpagesize()) / 1024,
              e.workingSet, "getWorkingSetSize in KB");
  check(e.residentSet > 0 && e.residentSet <= pages, "getResidentSetSize " + text(e.residentSet));
  expectEqual(0UL, e.vmSize, "getVMSize");
}

long pidInFile(const Layout& layout) { return std::atol(readFile(layout.pidFile()).c_str()); }

void printEntry(const Entry& e) {
  std::printf(
      "embedder: agent '%s' id %s managed %d state %d pid %ld parent %ld restarts %d threads %ld "
      "pages %ld rss %ld cpu %ld user %s\n",
      narrow(e.name).c_str(), narrow(e.subagentID).c_str(), e.managedState, e.operationalStatus, e.pid,
      e.parentPid, e.restarts, e.threads, e.totalMemory, e.residentSet, e.cpu, narrow(e.user).c_str());
}

// ---- The watchdog process --------------------------------------------------------

struct WatchdogChild {
  pid_t pid = -1;
  int report = -1;
};

// The watchdog's view of the OS agent: its only managed record.
Entry osAgentSeenByWatchdog(QOR_QueryService* service) {
  std::vector<Entry> entries = snapshot(service, false);
  return entries.size() == 1 ? entries[0] : Entry();
}

// The child runs as the watchdog process does, on a CAP directory of its own
// that names this program as the OS agent: so it supervises its parent. It
// writes how it sees that agent to `report`, then runs the main loop until
// SIGTERM.
[[noreturn]] void runWatchdog(const Layout& layout, int report) {
  setenv("QOR_CAP_DIR", layout.watchdogCaps().c_str(), 1);
  setenv("QOR_IP_DIR", layout.watchdogIp().c_str(), 1);
  setenv("QOR_TRACE_FILE", (layout.dir + "/wdtrace").c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initWatchdogService();
  service->startQueryService();
  Entry host;
  waitFor(
      [&] {
        host = osAgentSeenByWatchdog(service);
        return host.operationalStatus == 4;
      },
      30);
  dprintf(report, "%ld %d %d %s\n", host.pid, host.operationalStatus, host.managedState,
          narrow(host.name).c_str());
  close(report);
  WatchdogMain();
  service->releaseQueryService(false);
  stop_exit();
  std::exit(0);
}

WatchdogChild startWatchdog(const Layout& layout) {
  WatchdogChild child;
  int ends[2];
  if (pipe(ends) != 0) return child;
  std::fflush(stdout);
  std::fflush(stderr);
  child.pid = fork();
  if (child.pid == 0) {
    close(ends[0]);
    runWatchdog(layout, ends[1]);
  }
  close(ends[1]);
  child.report = ends[0];
  return child;
}

std::string readReport(int fd, int seconds) {
  std::string line;
  pollfd wait = {fd, POLLIN, 0};
  char buffer[256];
  while (line.find('\n') == std::string::npos && poll(&wait, 1, seconds * 1000) > 0) {
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got <= 0) break;
    line.append(buffer, static_cast<size_t>(got));
  }
  return line.substr(0, line.find('\n'));
}

// The watchdog process must have found this program running, and must end
// within a few seconds of SIGTERM with status 0.
void stopWatchdog(WatchdogChild& child) {
  if (child.pid <= 0) return fail("no watchdog process");
  const std::string report = readReport(child.report, 40);
  close(child.report);
  std::printf("embedder: the watchdog process sees the OS agent as: %s\n", report.c_str());
  // There the OS agent is an ordinary record, managed by the watchdog (2).
  expectEqual(text(getpid()) + " 4 2 Embedding host", report,
              "the watchdog's OS agent (pid state managed name)");
  kill(child.pid, SIGTERM);
  int status = -1;
  const bool ended = waitFor([&] { return waitpid(child.pid, &status, WNOHANG) == child.pid; }, 10);
  if (!ended) {
    kill(child.pid, SIGKILL);
    waitpid(child.pid, &status, 0);
    return fail("the watchdog process did not end within 10 s of SIGTERM");
  }
  check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the watchdog process's exit status " + text(status));
}

// ---- The host ---------------------------------------------------------------------

void checkConstantsAndText() {
  expectEqual(3, static_cast<int>(WD_START_RETRY_COUNT), "WD_START_RETRY_COUNT");
  expectEqual(3, static_cast<int>(WD_START_RETRY_INTERVAL), "WD_START_RETRY_INTERVAL");
  expectEqual(1, static_cast<int>(WD_STATUS_RETRY_COUNT), "WD_STATUS_RETRY_COUNT");
  expectEqual(30, static_cast<int>(MIN_CMD_TIMEOUT), "MIN_CMD_TIMEOUT");
  expectEqual(100UL, static_cast<unsigned long>(qor_hz), "qor_hz");
  // A start that fails is retried sooner.
  WD_START_RETRY_INTERVAL = 1;
  expectEqual(130U, QOR_GetTraceLevel(), "QOR_GetTraceLevel from QOR_TRACE_LEVEL");
  QOR_SetTraceLevel(128 | 256 | 2);
  expectEqual(386U, QOR_GetTraceLevel(), "QOR_GetTraceLevel after QOR_SetTraceLevel");
  const std::wstring wide = widen("Grüße, qor");
  check(wide == L"Grüße, qor", "QOR_u_strFromUTF8 gave " + text(wide.size()) + " characters");
  expectEqual(std::string("Grüße"), narrow(L"Grüße"), "QOR_wcstombs");
  expectEqual(36, QOR_QueryService::getCacheLimit(), "getCacheLimit from QOR_CACHE_LIMIT");
  check(!QOR_QueryService::isInitialized() && !QOR_QueryService::isStarted(), "nothing started before init");
}

// Initialised twice, as two parts of a host might: the first release leaves
// the service running.
QOR_QueryService* startService(Heard& heard, Alerts& alerts) {
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  check(service == QOR_QueryService::initQueryService(), "a second init gives the same instance");
  check(QOR_QueryService::isInitialized() && !QOR_QueryService::isStarted(), "initialised, not started");
  check(service->registerLogListener(&heard), "registerLogListener");
  check(service->registerAlertListener(&alerts), "registerAlertListener");
  check(service->getAgentIterator(false) == nullptr, "no iterator before the start");
  expectEqual(-1, service->stopAgent(L"Embedded sleeper", L"qorembd", -1), "stopAgent before the start");
  service->startQueryService();
  check(QOR_QueryService::isStarted(), "started");
  // The listener lists may be held by the host, briefly.
  check(service->lockLogListenerList() && service->unlockLogListenerList(),
        "lock and unlock the log listeners");
  check(service->lockAlertListenerList() && service->unlockAlertListenerList(),
        "lock and unlock the alert listeners");
  // The message thread's door, which a host never needs: an empty event is ignored.
  QOR_QueryService::ProcessEvent(nullptr);
  return service;
}

// The program the service started, as every getter shows it; also through an
// iterator the host makes itself, twice over with a rewind.
void checkRunning(QOR_QueryService* service, const Layout& layout) {
  long pid = 0;
  const bool up = waitFor(
      [&] {
        pid = pidInFile(layout);
        Entry e = sleeper(service);
        return pid > 0 && e.operationalStatus == 4 && e.pid == pid && e.hasChecked;
      },
      30);
  if (!up) return fail("the service did not start the program within 30 s");
  // The check that started it found it down; the figures come from the next
  // check, which finds it running.
  if (!waitForSleeper(
          service, [](const Entry& seen) { return seen.totalMemory > 0; }, 15))
    return fail("no check measured the running program within 15 s");
  const Entry e = sleeper(service);
  printEntry(e);
  checkPolicyPart(e, layout);
  checkAgentPart(e, layout, pid);
  checkFigures(e, pid);
  expectEqual(0, e.restarts, "getDailyRestartCount after the first start");

  QOR_AgentIterator direct;
  expectEqual(size_t(1), direct.snapshot().size(), "the managed agents in a host's own iterator");
  for (int pass = 1; pass <= 2; ++pass) {
    check(direct.getNextAgentEntry(), "an entry in pass " + text(pass));
    check(!direct.invalidPos(), "invalidPos on an entry");
    expectText("Embedded sleeper", direct.getAgentName(), "the entry of pass " + text(pass));
    check(!direct.getNextAgentEntry(), "one entry only");
    checkInvalid(direct);
    check(!direct.getNextAgentEntry(), "no way on after the end");
    direct.rewind();
  }
}

// The OS agent's record comes last, and only when asked for.
void checkOsAgent(QOR_QueryService* service) {
  std::vector<Entry> all = snapshot(service, true);
  expectEqual(size_t(2), all.size(), "agents with the OS agent");
  service->releaseAgentIterator(nullptr);
  if (all.size() != 2) return;
  expectText("embed.host", all[1].subagentID, "the last entry is the OS agent");
  expectEqual(1, all[1].managedState, "the OS agent shows as managed");
  expectEqual(2, all[1].manageType, "the OS agent's manager type");
  expectEqual(203, service->stopAgent(L"Embedding host", L"nothing", -1), "stopAgent of the OS agent");
  expectEqual(103, service->startAgent(L"Embedding host", false, L"nothing", L""),
              "startAgent of the OS agent");
}

bool runsAnew(QOR_QueryService* service, const Layout& layout, long before) {
  return waitForSleeper(
      service,
      [&](const Entry& e) {
        return e.operationalStatus == 4 && e.pid != before && e.pid == pidInFile(layout) && e.pid > 0;
      },
      30);
}

// Killed, the program is restarted at the next check and counted; the host
// then resets the count, once it has heard of the restart: the record changes
// first, and the listeners hear of it a moment later.
void killAndReset(QOR_QueryService* service, const Layout& layout, Heard& heard) {
  const long killed = pidInFile(layout);
  kill(static_cast<pid_t>(killed), SIGKILL);
  if (!runsAnew(service, layout, killed)) return fail("the killed program was not restarted within 30 s");
  const auto restartHeard = [&] {
    const std::vector<int> ids = heard.idsAbout("Embedded sleeper");
    return std::count(ids.begin(), ids.end(), 7) == 2 && ids.back() == 7;
  };
  if (!waitFor(restartHeard, 10)) return fail("the restart was not heard within 10 s");
  expectEqual(1, sleeper(service).restarts, "getDailyRestartCount after a restart");
  const std::wstring name = L"Embedded sleeper";
  expectEqual(0, service->resetRestartCount(name, L"qorembd", L""), "resetRestartCount");
  expectEqual(0, sleeper(service).restarts, "getDailyRestartCount after the reset");
  expectEqual(603, service->resetRestartCount(name, L"qorembd", L""), "resetRestartCount of a count of 0");
}

void stopStartRecycle(QOR_QueryService* service, const Layout& layout) {
  const std::wstring name = L"Embedded sleeper";
  expectEqual(0, service->stopAgent(name, L"qorembd", -1), "stopAgent");
  if (!waitForSleeper(
          service, [](const Entry& e) { return e.operationalStatus == 5; }, 20))
    return fail("the program was not stopped within 20 s");
  const Entry stopped = sleeper(service);
  expectEqual(0L, stopped.pid, "getProcessID of a stopped program");
  expectEqual(0L, stopped.threads, "getThreadCount of a stopped program");
  expectEqual(201, service->stopAgent(name, L"qorembd", -1), "stopAgent of a stopped program");
  expectEqual(0, service->startAgent(name, false, L"qorembd", L""), "startAgent");
  if (!runsAnew(service, layout, 0)) return fail("the program was not started within 30 s");
  const long before = sleeper(service).pid;
  expectEqual(0, service->recycleAgent(name, L"qorembd", L"", -1), "recycleAgent");
  if (!runsAnew(service, layout, before)) fail("the program was not recycled within 30 s");
}

void unmanageAndManage(QOR_QueryService* service, Heard& heard) {
  const std::wstring name = L"Embedded sleeper";
  expectEqual(0, service->stopManagingAgent(name), "stopManagingAgent");
  if (!waitForSleeper(
          service, [](const Entry& e) { return e.managedState == 0; }, 20))
    return fail("the program was not unmanaged within 20 s");
  expectEqual(500, service->stopManagingAgent(name), "stopManagingAgent of an unmanaged program");
  expectEqual(100, service->startAgent(name, false, L"qorembd", L""), "startAgent of an unmanaged program");
  expectEqual(0, service->startManagingAgent(name), "startManagingAgent");
  // The record changes first; the listeners hear of it a moment later.
  const auto managedHeard = [&] {
    const std::vector<int> ids = heard.idsAbout("Embedded sleeper");
    return !ids.empty() && ids.back() == 2;
  };
  if (!waitForSleeper(
          service, [](const Entry& e) { return e.managedState == 1; }, 20) ||
      !waitFor(managedHeard, 10))
    fail("the program was not managed again within 20 s");
}

void unknownNames(QOR_QueryService* service) {
  expectEqual(202, service->stopAgent(L"Nobody", L"nobody", -1), "stopAgent of no agent");
  expectEqual(102, service->startAgent(L"Nobody", true, L"nobody", L""), "startAgent of no agent");
  expectEqual(302, service->recycleAgent(L"Nobody", L"nobody", L"", -1), "recycleAgent of no agent");
  expectEqual(601, service->resetRestartCount(L"Nobody", L"nobody", L""), "resetRestartCount of no agent");
  expectEqual(401, service->startManagingAgent(L"Nobody"), "startManagingAgent of no agent");
  expectEqual(501, service->stopManagingAgent(L"Nobody"), "stopManagingAgent of no agent");
}

bool heardId(Heard& heard, int id) {
  const std::string prefix = "[" + text(id) + "] ";
  for (const std::string& line : heard.lines()) {
    if (line.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

void disarmAndRearm(Heard& heard, Alerts& alerts) {
  DisarmWatchdog(0);
  check(waitFor([&] { return heardId(heard, 18); }, 10), "event 18 after DisarmWatchdog");
  check(waitFor([&] { return !alerts.lines().empty() && alerts.lines().back().rfind("[27] ", 0) == 0; }, 10),
        "alert 27 after DisarmWatchdog");
  RearmWatchdog(0);
  check(waitFor([&] { return heardId(heard, 19); }, 10), "event 19 after RearmWatchdog");
}

void checkHeard(Heard& heard, Alerts& alerts) {
  for (const std::string& line : heard.lines()) std::printf("embedder: heard %s\n", line.c_str());
  for (const std::string& line : alerts.lines()) std::printf("embedder: alert %s\n", line.c_str());
  // Initial start; killed, restarted, count reset; stopped and started;
  // recycled; unmanaged and managed again.
  expectEqual(std::string("22 7 8 24 7 26 4 10 5 7 25 7 3 2"), joined(heard.idsAbout("Embedded sleeper")),
              "the program's events");
  expectEqual(std::string("0 0"), joined(heard.idsAbout(" CAP File Event: Agent added to system")),
              "the events of the two CAP files");
  const std::vector<std::string> lines = heard.lines();
  const std::vector<std::string> last(lines.end() - std::min<size_t>(3, lines.size()), lines.end());
  expectEqual(std::string("[27] Teo Services watchdog not reliable|[18]  Watchdog Event: Disarm completed "
                          "successfully|[19]  Watchdog Event: Rearm completed successfully"),
              joined(last), "the events of the disarm and the rearm");
  const std::vector<std::string> alerted = alerts.lines();
  expectEqual(size_t(2), alerted.size(), "two alerts");
  if (alerted.size() == 2) {
    check(alerted[0].rfind("[8] agent 'Embedded sleeper' state 4 managed 1 pid ", 0) == 0,
          "alert 8 for the killed program: " + alerted[0]);
    expectEqual(std::string("[27] agent '' state -1 managed -1 pid -1"), alerted[1],
                "alert 27 after the disarm");
  }
}

// The first release leaves the service running for the other reference; the
// second ends it and writes the state file.
void release(QOR_QueryService* service, Heard& heard, Alerts& alerts, const Layout& layout) {
  check(service->deregisterLogListener(&heard), "deregisterLogListener");
  check(!service->deregisterLogListener(&heard), "a second deregisterLogListener");
  check(service->deregisterAlertListener(&alerts), "deregisterAlertListener");
  check(!service->deregisterAlertListener(&alerts), "a second deregisterAlertListener");
  check(service->releaseQueryService(false), "the first releaseQueryService");
  check(QOR_QueryService::isStarted(), "still started after the first release");
  check(service->releaseQueryService(false), "the second releaseQueryService");
  check(!QOR_QueryService::isStarted() && !QOR_QueryService::isInitialized(), "released");
  check(readFile(layout.caps() + "/teo.dat").find("embed.sleeper") != std::string::npos,
        "the state file holds the program");
}

void runHost(const Layout& layout) {
  Heard heard;
  Alerts alerts;
  QOR_QueryService* service = startService(heard, alerts);
  checkRunning(service, layout);
  checkOsAgent(service);
  killAndReset(service, layout, heard);
  stopStartRecycle(service, layout);
  unmanageAndManage(service, heard);
  unknownNames(service);
  disarmAndRearm(heard, alerts);
  release(service, heard, alerts, layout);
  checkHeard(heard, alerts);
}

// The service leaves its agents running when it ends: the host stops its program.
void stopProgram(const Layout& layout) {
  const long pid = pidInFile(layout);
  char exe[PATH_MAX] = {0};
  const std::string link = "/proc/" + text(pid) + "/exe";
  if (pid > 0 && readlink(link.c_str(), exe, sizeof exe - 1) > 0 && layout.program() == exe)
    kill(static_cast<pid_t>(pid), SIGTERM);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr,
                 "usage: %s DIR\n  DIR: an empty directory for the CAP files, the program and the sockets\n",
                 argv[0]);
    return 2;
  }
  Layout layout{argv[1]};
  if (!prepare(layout)) return 1;
  // The host's own settings, before its first call: text in UTF-8, traces in
  // a file, and the hours of events that the watchdog keeps.
  setenv("LC_ALL", "C.UTF-8", 1);
  setenv("QOR_TRACE_LEVEL", "130", 1);
  setenv("QOR_CACHE_LIMIT", "36", 1);
  WatchdogChild watchdog = startWatchdog(layout);
  setenv("QOR_CAP_DIR", layout.caps().c_str(), 1);
  setenv("QOR_IP_DIR", layout.ip().c_str(), 1);
  setenv("QOR_TRACE_FILE", (layout.dir + "/trace").c_str(), 1);
  checkConstantsAndText();
  // The program's folder for "$EMBHOME@em" in its CAP file; a second value is ignored.
  QOR_SetZELAgentEnvironment(L"em", L"EMBHOME", widen(layout.dir));
  QOR_SetZELAgentEnvironment(L"em", L"EMBHOME", L"/nowhere");
  runHost(layout);
  stopWatchdog(watchdog);
  stopProgram(layout);
  if (failures != 0) {
    std::printf("embedder: %d checks failed\n", failures);
    return 1;
  }
  std::printf("embedder: all checks passed\n");
  return 0;
}
