// The iterator's figures for agents whose processes really run: the test
// embeds the service, starts the programs (copies of sleep, of the shell and
// of qorhost under names of their own), lets the service check them, and
// compares every getter with what /proc says of the same process: process
// and parent ids, command line, user, threads, memory in pages and in
// kilobytes, CPU and page fault rates, the time of the last check, the day's
// restarts, and what is left of it all once the program is stopped.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>

#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;

// One entry of a snapshot as every getter answers for it.
struct Live {
  bool found = false;
  bool hasModified = false;
  long modified = -7;
  bool hasChecked = false;
  long checked = -7;
  std::wstring subagentID, name, processName, instanceProcessName, path;
  int agentType = -2, manageType = -2, managedState = -2, operationalStatus = -2;
  std::wstring startScript, stopScript, configScript, statusScript;
  int checkFreq = -2, maxRestarts = -2, healthPort = -2, osType = -2;
  std::wstring osVersion, osName, kernelRelease, dependencies;
  long memoryValue = -2;
  int memoryUnit = -2;
  unsigned long memoryThreshold = 0;
  long cpuThreshold = -2;
  std::wstring ipAddress, hostName;
  long pid = -2;
  std::wstring commandLine, buildDate, buildNumber, version;
  int restarts = -2;
  long userCPU = -2, systemCPU = -2, cpu = -2, pageFaults = -2, threads = -2, handles = -2;
  std::wstring serviceName, zelInstance;
  unsigned long workingSet = 0;
  long parentPid = -2, residentSet = -2, totalMemory = -2;
  unsigned long vmSize = 0;
  std::wstring user;
};

void readPolicyPart(QOR_AgentIterator& it, Live& e) {
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

void readAgentPart(QOR_AgentIterator& it, Live& e) {
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

void readFigures(QOR_AgentIterator& it, Live& e) {
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

std::wstring wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

// What /proc says of a process, read by the test itself.
struct Proc {
  long ppid = -1;
  long rss = -1;       // pages, from stat
  long size = -1;      // pages, the first number of statm
  long vmSizeKb = -1;  // the VmSize line of status
  long threads = -1;   // the Threads line of status
  int uid = -1;        // the real id of the Uid line of status
  std::string commandLine;
};

// The number after `key` on its line of /proc/PID/status, or -1.
long statusValue(const std::string& status, const std::string& key) {
  const size_t at = status.find("\n" + key);
  return at == std::string::npos ? -1 : std::atol(status.c_str() + at + 1 + key.size());
}

Proc procOf(long pid) {
  Proc proc;
  const std::string dir = "/proc/" + std::to_string(pid) + "/";
  const std::string stat = qortest::readFile(dir + "stat");
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return proc;
  std::istringstream fields(stat.substr(close + 2));
  std::string state;
  long long skip = 0;
  fields >> state >> proc.ppid;
  // The fields from pgrp to vsize.
  for (int field = 5; field < 24; ++field) fields >> skip;
  fields >> proc.rss;
  proc.size = std::atol(qortest::readFile(dir + "statm").c_str());
  const std::string status = qortest::readFile(dir + "status");
  proc.vmSizeKb = statusValue(status, "VmSize:");
  proc.threads = statusValue(status, "Threads:");
  proc.uid = static_cast<int>(statusValue(status, "Uid:"));
  proc.commandLine = qortest::readFile(dir + "cmdline");
  for (char& c : proc.commandLine) c = c == '\0' ? ' ' : c;
  while (!proc.commandLine.empty() && proc.commandLine.back() == ' ') proc.commandLine.pop_back();
  return proc;
}

std::string userName(int uid) {
  const passwd* entry = getpwuid(static_cast<uid_t>(uid));
  return entry != nullptr ? entry->pw_name : "";
}

// A copy of a program under a name of its own, in a folder of the test, so
// that its process is known by its executable alone.
class Copy {
 public:
  Copy(const std::string& original, const std::string& name) : path_(dir_.file(name)) {
    qortest::writeFile(path_, qortest::readFile(original));
    qortest::makeExecutable(path_);
  }
  const std::string& path() const { return path_; }
  std::string name() const { return path_.substr(path_.rfind('/') + 1); }

 private:
  qortest::TempDir dir_;
  std::string path_;
};

// A subagent for a program that the test itself runs: no scripts, checked
// every five seconds.
captest::Subagent agentOf(const std::string& id, const std::string& name, const Copy& program) {
  captest::Subagent agent;
  agent.id = id;
  agent.agentName = "<agentName>" + name + "</agentName>";
  agent.procName = "<procName>" + program.name() + "</procName>";
  agent.agentPath = "<agentPath>" + program.path() + "</agentPath>";
  agent.checkFrequency = "<checkFrequency>5</checkFrequency>";
  return agent;
}

class LiveIterator : public e2e::EmbeddedService {
 protected:
  // The entry of the agent `id` in a new snapshot; `found` false if it has none.
  Live live(const std::string& id) {
    Live entry;
    QOR_AgentIterator* agents = service->getAgentIterator(false);
    if (agents == nullptr) return entry;
    while (agents->getNextAgentEntry()) {
      if (agents->getSubagentID() != wide(id)) continue;
      entry.found = true;
      readPolicyPart(*agents, entry);
      readAgentPart(*agents, entry);
      readFigures(*agents, entry);
    }
    service->releaseAgentIterator(agents);
    return entry;
  }
  // Waits for `count` further checks that measured the process `pid`. A
  // snapshot taken after that sees the whole check: the check holds the
  // list until it ends.
  bool waitForMeasurements(long pid, int count) {
    const std::string measured = "Agent pid " + std::to_string(pid) + ", memory ";
    const int before = traced(measured);
    return qortest::waitFor([&] { return traced(measured) >= before + count; }, 7000 * count);
  }
  // A CAP file for a program of `programs`, started and stopped by the
  // example script.
  captest::Subagent scriptedAgent(const std::string& id, const std::string& name,
                                  const std::string& program) {
    captest::Subagent agent = agentFor(id, name, programs, program, start, 3);
    agent.stopScript = captest::script("stopScript", "QOR_EXAMPLES_RUN=" + programs.dir() + " /bin/sh " +
                                                         programs.script() + " stop " + program);
    return agent;
  }
};

// The figures of a program come from the checks that find it running: at the
// start the service knows its process, but has measured nothing yet.
TEST_F(LiveIterator, ARunningProgramHasNoCheckTimeNorFiguresBeforeItsFirstCheckAndBothAfterIt) {
  Copy sleep("/bin/sleep", "qoritfirstd");
  qortest::Child program({sleep.path(), "1000"});
  writeAgent("first.xml", agentOf("e2e.first", "First look", sleep));
  const long started = static_cast<long>(time(nullptr));
  startService();
  const Live before = live("e2e.first");
  ASSERT_EQ(0, traced("Agent e2e.first checked at ")) << "the first check came too soon for this test";
  ASSERT_TRUE(before.found);
  EXPECT_EQ(4, before.operationalStatus);
  EXPECT_EQ(program.pid(), before.pid);
  EXPECT_EQ(wide(sleep.path() + " 1000"), before.commandLine);
  EXPECT_FALSE(before.hasChecked);
  EXPECT_EQ(-7, before.checked);
  for (long figure : {before.parentPid, before.threads, before.totalMemory, before.residentSet,
                      before.userCPU, before.systemCPU, before.cpu, before.pageFaults, before.handles})
    EXPECT_EQ(0, figure);
  EXPECT_EQ(0UL, before.workingSet);
  EXPECT_EQ(0UL, before.vmSize);

  ASSERT_TRUE(waitForMeasurements(program.pid(), 1)) << trace();
  const Live after = live("e2e.first");
  const long now = static_cast<long>(time(nullptr));
  ASSERT_TRUE(after.hasChecked);
  EXPECT_GE(after.checked, started);
  EXPECT_GE(after.checked, now - 5);
  EXPECT_LE(after.checked, now);
  EXPECT_EQ(1, after.threads);
  EXPECT_GT(after.totalMemory, 0);
  EXPECT_EQ(getpid(), after.parentPid);
}

TEST_F(LiveIterator, ARunningProgramShowsItsRealProcessParentCommandLineAndUserAsProcShowsThem) {
  Copy sleep("/bin/sleep", "qoritprocd");
  qortest::Child program({sleep.path(), "1000", "2000"});
  writeAgent("proc.xml", agentOf("e2e.proc", "Process facts", sleep));
  startService();
  ASSERT_TRUE(waitForMeasurements(program.pid(), 1)) << trace();
  const Live e = live("e2e.proc");
  const Proc proc = procOf(program.pid());
  EXPECT_EQ(program.pid(), e.pid);
  // The test started it: its parent is the test's process.
  EXPECT_EQ(getpid(), proc.ppid);
  EXPECT_EQ(proc.ppid, e.parentPid);
  EXPECT_EQ(sleep.path() + " 1000 2000", proc.commandLine);
  EXPECT_EQ(wide(proc.commandLine), e.commandLine);
  EXPECT_EQ(wide(userName(proc.uid)), e.user);
  EXPECT_NE(L"", e.user);
  EXPECT_EQ(L"Process facts", e.name);
  EXPECT_EQ(wide(sleep.name()), e.processName);
  EXPECT_EQ(wide(sleep.name()), e.instanceProcessName);
  EXPECT_EQ(wide(sleep.path()), e.path);
  EXPECT_EQ(1, e.agentType);
  EXPECT_EQ(1, e.managedState);
  EXPECT_EQ(4, e.operationalStatus);
  EXPECT_EQ(0, e.restarts);
}

// The memory figures are the program's size as statm gives it: in pages
// (getTotalMemorySize) and in kilobytes (getWorkingSetSize, which is the
// VmSize line of status), and its resident pages from stat. Nothing measures
// a separate VM size or handles: both stay 0. A sleeping program's figures
// don't move between the check and the test's reading.
TEST_F(LiveIterator, TheMemoryFiguresAreTheStatmSizeInPagesAndKilobytesAndTheResidentPagesOfStat) {
  Copy sleep("/bin/sleep", "qoritmemd");
  qortest::Child program({sleep.path(), "1000"});
  writeAgent("mem.xml", agentOf("e2e.mem", "Memory figures", sleep));
  startService();
  ASSERT_TRUE(waitForMeasurements(program.pid(), 1)) << trace();
  const Live e = live("e2e.mem");
  const Proc proc = procOf(program.pid());
  ASSERT_GT(proc.size, 0);
  EXPECT_EQ(proc.size, e.totalMemory);
  EXPECT_EQ(static_cast<unsigned long>(proc.size) * static_cast<unsigned long>(getpagesize()) / 1024,
            e.workingSet);
  EXPECT_EQ(static_cast<unsigned long>(proc.vmSizeKb), e.workingSet);
  EXPECT_GT(proc.rss, 0);
  EXPECT_EQ(proc.rss, e.residentSet);
  EXPECT_EQ(0UL, e.vmSize);
  EXPECT_EQ(0, e.handles);
}

// qorhost runs the service's threads, so its count is more than one.
TEST_F(LiveIterator, TheThreadCountIsTheThreadsLineOfProcStatus) {
  Copy host(e2e::tool("qorhost"), "qorithostd");
  qortest::TempDir hostCaps;
  qortest::TempDir hostIp;
  qortest::Child program({host.path(), "--cap-dir", hostCaps.path(), "--ip-dir", hostIp.path()});
  writeAgent("threads.xml", agentOf("e2e.threads", "Threaded program", host));
  startService();
  ASSERT_TRUE(waitForMeasurements(program.pid(), 1)) << trace();
  const Live e = live("e2e.threads");
  const Proc proc = procOf(program.pid());
  EXPECT_GT(proc.threads, 1);
  EXPECT_EQ(proc.threads, e.threads);
}

// From the second check on, the rates are over the time since the last
// check: nothing used, nothing shown.
TEST_F(LiveIterator, AnIdleProgramHasZeroCpuAndPageFaultRatesAfterItsSecondCheck) {
  Copy sleep("/bin/sleep", "qoritidled");
  qortest::Child program({sleep.path(), "1000"});
  writeAgent("idle.xml", agentOf("e2e.idle", "Idle program", sleep));
  startService();
  ASSERT_TRUE(waitForMeasurements(program.pid(), 2)) << trace();
  const Live e = live("e2e.idle");
  EXPECT_EQ(0, e.userCPU);
  EXPECT_EQ(0, e.systemCPU);
  EXPECT_EQ(0, e.cpu);
  EXPECT_EQ(0, e.pageFaults);
}

// A shell that forks a subshell and counts in a loop uses user and system
// time and faults pages. The first check knows no earlier one: its CPU
// figures are the lifetime average, a true percentage of one processor,
// over clock ticks since the process started (the uptime counted in whole
// seconds, so up to a quarter more for a process five seconds old). From the
// second check on they are clock ticks times 100 over the seconds since the
// last check, so that a whole processor reads 10000; one thread can't have
// more, and those seconds are whole too, so at most 12000 over five.
TEST_F(LiveIterator, ABusyProgramHasNonZeroUserSystemAndPageFaultRatesFromItsFirstChecksOn) {
  Copy shell("/bin/sh", "qoritbusyd");
  qortest::Child program(
      {shell.path(), "-c", "while :; do x=$(:); i=0; while [ $i -lt 300 ]; do i=$((i + 1)); done; done"});
  writeAgent("busy.xml", agentOf("e2e.busy", "Busy program", shell));
  startService();
  ASSERT_TRUE(waitForMeasurements(program.pid(), 1)) << trace();
  const Live first = live("e2e.busy");
  EXPECT_GT(first.userCPU, 0);
  EXPECT_EQ(first.userCPU + first.systemCPU, first.cpu);
  EXPECT_LE(first.cpu, 125);
  // No rate of faults without an earlier check.
  EXPECT_EQ(0, first.pageFaults);

  ASSERT_TRUE(waitForMeasurements(program.pid(), 1)) << trace();
  const Live second = live("e2e.busy");
  EXPECT_GT(second.userCPU, 0);
  EXPECT_GT(second.systemCPU, 0);
  EXPECT_EQ(second.userCPU + second.systemCPU, second.cpu);
  EXPECT_LE(second.cpu, 12000);
  EXPECT_GT(second.pageFaults, 0);
  EXPECT_EQ(1, second.threads);
}

TEST_F(LiveIterator, AProgramKilledAndRestartedByTheServiceShowsItsNewProcessAndOneRestartToday) {
  const int killed = programs.start("qoritkilld");
  writeAgent("killed.xml", scriptedAgent("e2e.killed", "Killed program", "qoritkilld"));
  startService();
  EXPECT_EQ(0, live("e2e.killed").restarts);
  kill(killed, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Killed program", 7) == 1; }, 15000)) << trace();
  const long restarted = programs.pid("qoritkilld");
  ASSERT_NE(killed, restarted);
  ASSERT_TRUE(waitForMeasurements(restarted, 1)) << trace();
  const Live e = live("e2e.killed");
  const Proc proc = procOf(restarted);
  EXPECT_EQ(1, e.restarts);
  EXPECT_EQ(4, e.operationalStatus);
  EXPECT_EQ(restarted, e.pid);
  EXPECT_EQ(proc.ppid, e.parentPid);
  EXPECT_EQ(wide(proc.commandLine), e.commandLine);
  EXPECT_EQ(wide(programs.path("qoritkilld") + " 2147483647"), e.commandLine);
  EXPECT_EQ(1, e.threads);
  EXPECT_EQ(proc.size, e.totalMemory);
}

// Stopped by an operator, the program has no process: every figure of one is
// cleared, while what its CAP file says and what the last run told stay.
TEST_F(LiveIterator, AStoppedProgramAnswersEveryGetterWithItsProcessAndFiguresCleared) {
  const int pid = programs.start("qoritstopd");
  captest::Subagent agent = scriptedAgent("e2e.stopped", "Stopped program", "qoritstopd");
  agent.cpuThreshold = "<cpuThreshold>90</cpuThreshold>";
  agent.memoryThreshold = "<memoryThreshold>2GB</memoryThreshold>";
  agent.dependentAgent = "<dependentAgent>e2e.a</dependentAgent><dependentAgent>e2e.b</dependentAgent>";
  agent.configScript = captest::script("configScript", "/bin/true");
  writeAgent("stopped.xml", agent);
  startService();
  ASSERT_TRUE(waitForMeasurements(pid, 1)) << trace();
  const Live running = live("e2e.stopped");
  ASSERT_EQ(1, running.threads);
  ASSERT_TRUE(running.hasChecked);

  EXPECT_EQ(0, service->stopAgent(L"Stopped program", L"qoritstopd", -1));
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Stopped program", 10) == 1; }, 15000)) << trace();
  const Live e = live("e2e.stopped");
  EXPECT_EQ(5, e.operationalStatus);
  EXPECT_EQ(1, e.managedState);
  for (long figure : {e.pid, e.parentPid, e.threads, e.totalMemory, e.residentSet, e.userCPU, e.systemCPU,
                      e.cpu, e.pageFaults, e.handles})
    EXPECT_EQ(0, figure);
  EXPECT_EQ(0UL, e.workingSet);
  EXPECT_EQ(0UL, e.vmSize);

  // The last run's command line, user and check time stay.
  EXPECT_EQ(running.commandLine, e.commandLine);
  EXPECT_EQ(running.user, e.user);
  EXPECT_EQ(wide("qoritstopd"), e.instanceProcessName);
  EXPECT_TRUE(e.hasChecked);
  EXPECT_GE(e.checked, running.checked);
  EXPECT_EQ(0, e.restarts);

  struct stat file;
  ASSERT_EQ(0, stat(caps.file("stopped.xml").c_str(), &file));
  EXPECT_TRUE(e.hasModified);
  EXPECT_EQ(static_cast<long>(file.st_mtime), e.modified);
  EXPECT_EQ(L"e2e.stopped", e.subagentID);
  EXPECT_EQ(L"Stopped program", e.name);
  EXPECT_EQ(L"qoritstopd", e.processName);
  EXPECT_EQ(wide(programs.path("qoritstopd")), e.path);
  EXPECT_EQ(1, e.agentType);
  EXPECT_EQ(1, e.manageType);
  EXPECT_EQ(wide("/bin/sh " + start.path() + " qoritstopd"), e.startScript);
  EXPECT_EQ(wide("QOR_EXAMPLES_RUN=" + programs.dir() + " /bin/sh " + programs.script() + " stop qoritstopd"),
            e.stopScript);
  EXPECT_EQ(L"/bin/true", e.configScript);
  EXPECT_EQ(L"", e.statusScript);
  EXPECT_EQ(5, e.checkFreq);
  EXPECT_EQ(3, e.maxRestarts);
  EXPECT_EQ(0, e.healthPort);
  EXPECT_EQ(2, e.osType);
  EXPECT_EQ(L"", e.osVersion);
  EXPECT_EQ(L"", e.osName);
  EXPECT_EQ(L"", e.kernelRelease);
  EXPECT_EQ(L"e2e.a,e2e.b", e.dependencies);
  EXPECT_EQ(2, e.memoryValue);
  EXPECT_EQ(30, e.memoryUnit);
  EXPECT_EQ(2147483648UL, e.memoryThreshold);
  EXPECT_EQ(90, e.cpuThreshold);
  EXPECT_EQ(L"", e.ipAddress);
  EXPECT_EQ(L"", e.hostName);
  EXPECT_EQ(L"0000000000000001", e.buildDate);
  EXPECT_EQ(L"", e.buildNumber);
  EXPECT_EQ(L"", e.version);
  EXPECT_EQ(L"", e.serviceName);
  EXPECT_EQ(L"", e.zelInstance);
}

}  // namespace
