#include "watchdog/qorwd.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <ostream>

#include "agents/qoragt.h"
#include "cap/capfiles.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmdlnx.h"
#include "watchdog/qorcmdunx.h"

class WatchdogTestAccess {
 public:
  static void setCmdManager(Watchdog* watchdog, QorCmd* manager) { watchdog->cmdManager = manager; }
};

namespace {

// What a check asked the state machine for: one AgentOpEvent of the command queue.
struct Raised {
  int id;
  int opState;
  std::wstring text;
  bool operator==(const Raised& other) const {
    return id == other.id && opState == other.opState && text == other.text;
  }
};

void PrintTo(const Raised& raised, std::ostream* out) {
  *out << "{id " << raised.id << ", opState " << raised.opState << ", text \"" << LOG1_Narrow(raised.text)
       << "\"}";
}

using RaisedList = std::vector<Raised>;

// The command handler does not run in these tests, so the command queue keeps
// what a check raised, in order. Takes the events off it.
RaisedList takeRaised() {
  CommandHandler* queue = Controller::getController()->getCommandHandler();
  RaisedList raised;
  queue->lockEventQueue();
  while (Event* event = queue->popEvent()) {
    auto* opEvent = dynamic_cast<AgentOpEvent*>(event);
    raised.push_back(
        {event->getEventTypeID(), opEvent != nullptr ? opEvent->getOpState() : -1, event->getUserMessage()});
    delete event;
  }
  queue->unlockEventQueue();
  return raised;
}

std::wstring wide(const std::string& text) { return captest::wide(text); }

time_t lastCheckOf(const Agent* agent) {
  time_t when = 0;
  return agent->getLastChecked(when) ? when : 0;
}

int dayOfYear(time_t when) {
  struct tm local;
  localtime_r(&when, &local);
  return local.tm_yday;
}

// CPU clock ticks a process has used, read from /proc apart from the code under test.
long ticksOf(int pid) {
  std::string stat = qortest::readFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  if (close == std::string::npos) return 0;
  long user = 0;
  long system = 0;
  if (sscanf(stat.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &user,
             &system) != 2) {
    return 0;
  }
  return user + system;
}

// Starts the next second, so that a test has the rest of it before time() moves on.
time_t freshSecond() {
  time_t start = time(nullptr);
  qortest::waitFor([&] { return time(nullptr) != start; }, 2000);
  return time(nullptr);
}

// The stat reader takes the CPU times from four fields beyond the classic
// ones, which kernels with longer stat lines fill with other figures (0 here):
// no real process can show it CPU time. This manager measures as the real one
// and adds to the main process the ticks that it really used, or, when
// `ticksPerCollection` is set, a count that grows by that much at each
// collection.
class TrueTicksCmd : public QorCmdLinux {
 public:
  long collectRuntimeData(int pid, Agent* agent, bool mainProcess) override {
    long start = QorCmdLinux::collectRuntimeData(pid, agent, mainProcess);
    if (!mainProcess) return start;
    if (ticksPerCollection < 0) {
      agent->addUserCPU(static_cast<unsigned long long>(ticksOf(pid)));
    } else {
      counted += static_cast<unsigned long long>(ticksPerCollection);
      agent->addUserCPU(counted);
    }
    return start;
  }
  long ticksPerCollection = -1;
  unsigned long long counted = 0;
};

TrueTicksCmd* trueTicks() {
  static TrueTicksCmd manager;
  return &manager;
}

const char kMessage[] = "status said down";
// What an event given an empty text says: its default, which the log text leaves out.
const std::wstring kNoText = L"N/A";

// One agent made from a real CAP file as the service makes it, with its
// Watchdog and in the managed list, and the executable that it supervises,
// a copy of a system program under the name "qorchk".
class WatchdogCheck : public ::testing::Test {
 protected:
  void SetUp() override {
    // The first command manager of the process: a short time-out.
    MIN_CMD_TIMEOUT = 3;
    unsetenv("QOR_CMD_TIMEOUT");
    qortest::traceTo(traces.file("trace"), QOR_TL_DETAIL | QOR_TL_STATUS | QOR_TL_ERROR);
    Controller::getController()->setCAPDirPaths({wide(caps.path() + "/")});
    subagent.id = "check.agent";
    subagent.procName = "<procName>qorchk</procName>";
    subagent.agentPath = "<agentPath>" + exe + "</agentPath>";
    subagent.checkFrequency = "<checkFrequency>60</checkFrequency>";
  }

  void TearDown() override {
    ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
    list->lockList();
    list->clear();
    list->unlockList();
    takeRaised();
    agents.clear();
    // Status scripts that were left running.
    auto* manager = static_cast<QorCmdUNIX*>(GetCmdManager());
    for (int pid : manager->getDefunctProcesses()) proctest::killProcess(pid);
    qortest::waitFor(
        [&] {
          manager->cleanUpDefunctProcesses();
          return manager->getDefunctProcesses().empty();
        },
        5000);
  }

  void statusScript(const std::string& command, const std::string& codes = std::string()) {
    subagent.availabilityStatusScript = captest::script("availabilityStatusScript", command, codes);
  }
  // A status script that fails with exit 3, which its CAP file calls an error with a message.
  void failingStatusScript() {
    statusScript("echo not answering; exit 3",
                 "<returnCode type=\"Error\" msg_id=\"" + std::string(kMessage) + "\">3</returnCode>");
  }

  Agent* makeAgent(OperatingStates state) {
    Policy* policy = new Policy();
    XMLprocessor processor;
    EXPECT_EQ(XML_OK, captest::parseText(processor, caps, captest::document(subagent), *policy));
    Agent* agent = new Agent();
    agents.emplace_back(agent);
    agent->setIdentityFrom(policy);
    agent->setInstanceProcName(policy->getProcName());
    agent->setManagedState(Managed);
    agent->setOperatingState(state);
    Watchdog* watchdog = new Watchdog();
    watchdog->setAgent(agent);
    agent->setWatchdog(watchdog);
    ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }

  // As the command handler runs a check: with the list locked.
  void check(Agent* agent) {
    ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
    ASSERT_TRUE(list->lockList());
    agent->getWatchdog()->checkAvailability();
    list->unlockList();
  }

  int startProgram(const std::string& program, const std::vector<std::string>& arguments) {
    if (!qortest::fileExists(exe)) proctest::copyProgram(program, exe);
    std::vector<std::string> argv{exe};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    processes.emplace_back(new proctest::Process(argv));
    int pid = processes.back()->pid();
    EXPECT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, exe); }, 5000));
    return pid;
  }
  int startSleeper() { return startProgram("/bin/sleep", {"30"}); }
  int startBusy() { return startProgram("/bin/sh", {"-c", "while :; do :; done"}); }

  std::string trace() { return qortest::readFile(traces.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }
  // The "file function:" of the first trace line that holds `text`.
  std::string writerOf(const std::string& text) {
    for (const std::string& line : qortest::linesWith(trace(), text)) {
      size_t file = line.find(" qorwd.cpp ");
      if (file != std::string::npos) return line.substr(file + 1, line.find(':', file) - file);
    }
    return std::string();
  }
  std::string marker() { return caps.file("zq.dy"); }

  qortest::TempDir caps;
  qortest::TempDir lab;
  qortest::TempDir traces;
  std::string exe = lab.file("qorchk");
  captest::Subagent subagent;
  std::vector<std::unique_ptr<proctest::Process>> processes;
  std::vector<std::unique_ptr<Agent>> agents;
};

}  // namespace

// ---- When a check runs --------------------------------------------------------

TEST_F(WatchdogCheck, ACheckFiftyNineSecondsAfterTheLastIsSkippedAndOneAtSixtyRuns) {
  startSleeper();
  Agent* agent = makeAgent(OpRunning);
  time_t now = freshSecond();
  agent->setCheckTime(now - 59);
  check(agent);
  EXPECT_EQ(now - 59, lastCheckOf(agent));
  EXPECT_EQ(1, traced("Agent check.agent was last checked 59.000000 sec ago.\n"));
  EXPECT_EQ(1, traced("Agent being skipped.\n"));
  EXPECT_EQ(0, traced("Agent check.agent checked at "));

  now = freshSecond();
  agent->setCheckTime(now - 60);
  check(agent);
  EXPECT_EQ(1, traced("Agent check.agent was last checked 60.000000 sec ago.\n"));
  EXPECT_EQ(1, traced("Agent being skipped.\n"));
  EXPECT_EQ(1, traced("Agent check.agent checked at "));
  EXPECT_EQ(now, lastCheckOf(agent));
  EXPECT_EQ(RaisedList(), takeRaised());  // up, as the record says
  // Every line of a check carries the check's name, whichever step writes it.
  EXPECT_EQ("qorwd.cpp checkAvailability:", writerOf("Agent being skipped."));
  EXPECT_EQ("qorwd.cpp checkAvailability:", writerOf("Day of year check"));
  EXPECT_EQ("qorwd.cpp checkAvailability:", writerOf("checked at"));
}

TEST_F(WatchdogCheck, ALastCheckBeforeMidnightResetsTheCountEvenWhenTheCheckIsSkipped) {
  subagent.checkFrequency = "<checkFrequency>172800</checkFrequency>";  // two days
  Agent* agent = makeAgent(OpRunning);
  agent->setDailyRestartCount(2);
  time_t now = time(nullptr);
  struct tm midnight;
  localtime_r(&now, &midnight);
  midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
  midnight.tm_isdst = -1;
  const time_t before = mktime(&midnight) - 1;
  agent->setCheckTime(before);
  check(agent);
  EXPECT_EQ(0, agent->getDailyRestartCount());
  EXPECT_EQ(1, traced("Day of year check (now)" + std::to_string(dayOfYear(now)) + " (checked)" +
                      std::to_string(dayOfYear(before)) + ".\n"));
  EXPECT_EQ(1, traced("Reset restart count for agent check.agent new day " + std::to_string(dayOfYear(now)) +
                      ".\n"));
  EXPECT_EQ(1, traced("Agent being skipped.\n"));
  EXPECT_EQ(before, lastCheckOf(agent));
  EXPECT_EQ(RaisedList(), takeRaised());
}

TEST_F(WatchdogCheck, AFirstCheckOnALaterDayThanTheServicesStartResetsTheCountAndIsNeverSkipped) {
  startSleeper();
  const time_t start = time(nullptr) - 2 * 86400;
  ControllerTestAccess::setStartup(start);
  Agent* agent = makeAgent(OpRunning);
  agent->setDailyRestartCount(2);
  const time_t now = time(nullptr);
  check(agent);
  EXPECT_EQ(0, agent->getDailyRestartCount());
  EXPECT_EQ(1, traced("Day of year check (now)" + std::to_string(dayOfYear(now)) + " (teo_start)" +
                      std::to_string(dayOfYear(start)) + ".\n"));
  EXPECT_EQ(1, traced("Reset restart count for agent check.agent new day "));
  EXPECT_EQ(1, traced("Agent check.agent checked at "));
  EXPECT_EQ(0, traced("Agent being skipped.\n"));
}

TEST_F(WatchdogCheck, AFirstCheckOnTheDayOfTheServicesStartKeepsTheCount) {
  startSleeper();
  ControllerTestAccess::setStartup(time(nullptr));
  Agent* agent = makeAgent(OpRunning);
  agent->setDailyRestartCount(2);
  check(agent);
  EXPECT_EQ(2, agent->getDailyRestartCount());
  EXPECT_EQ(0, traced("Reset restart count"));
  EXPECT_EQ(1, traced("Agent check.agent checked at "));
}

TEST_F(WatchdogCheck, ALastCheckAYearAgoOnTheSameDayOfTheYearKeepsTheCount) {
  startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->setDailyRestartCount(2);
  const time_t now = time(nullptr);
  // 365 days back, or 366 across a 29th of February: the same day of the year.
  time_t yearAgo = now - 365 * 86400;
  if (dayOfYear(yearAgo) != dayOfYear(now)) yearAgo -= 86400;
  ASSERT_EQ(dayOfYear(now), dayOfYear(yearAgo));
  agent->setCheckTime(yearAgo);
  check(agent);
  EXPECT_EQ(2, agent->getDailyRestartCount());
  EXPECT_EQ(1, traced("Agent check.agent checked at "));
}

// ---- The status script --------------------------------------------------------

TEST_F(WatchdogCheck, AStatusScriptThatTimesOutOnceAndThenSucceedsRunsTwiceTheSecondTimeWithADoubledTimeout) {
  // The first run leaves a mark and hangs; the second finds the mark and succeeds.
  const std::string mark = lab.file("ran-once");
  statusScript("if [ -f " + mark + " ]; then exit 0; fi; touch " + mark + "; exec sleep 30");
  Agent* agent = makeAgent(OpStopped);
  const time_t before = time(nullptr);
  check(agent);
  EXPECT_EQ(2, traced("Executing command < if [ -f " + mark));
  EXPECT_EQ(1, traced("Status command timed out. Will retry once.\n"));
  // The first run counts its budget of 3 seconds down to the last; the
  // second has 6 and ends at once.
  std::vector<int> waits = proctest::waitedSeconds(trace());
  std::vector<int>::iterator doubled = std::find(waits.begin(), waits.end(), 6);
  ASSERT_NE(waits.end(), doubled);
  ASSERT_NE(waits.begin(), doubled);
  EXPECT_EQ(3, waits.front());
  EXPECT_EQ(1, *(doubled - 1));
  EXPECT_EQ(3, *std::max_element(waits.begin(), doubled));
  EXPECT_EQ(std::vector<int>(doubled, waits.end()), std::vector<int>(waits.end() - doubled, 6));
  EXPECT_FALSE(agent->availCheckRetryEnabled());
  // Up, while the record says stopped: the record is brought in line.
  EXPECT_EQ(RaisedList({{agent_started, OpStopped, kNoText}}), takeRaised());
  EXPECT_EQ(1, traced("Sync agent operating state with actual running state.\n"));
  EXPECT_LE(lastCheckOf(agent) - before, 1);
}

TEST_F(WatchdogCheck, AStatusScriptThatHangsTimesOutTwiceAndRaisesNothing) {
  statusScript("exec sleep 30");
  Agent* agent = makeAgent(OpRunning);
  const time_t before = time(nullptr);
  check(agent);
  const time_t after = time(nullptr);
  EXPECT_EQ(2, traced("Executing command < exec sleep 30 >.\n"));
  EXPECT_EQ(1, traced("Availability command timed out for agent check.agent, check next cycle.\n"));
  EXPECT_EQ(0, traced("Agent was stopped or stopping.\n"));
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_FALSE(agent->availCheckRetryEnabled());
  // The check time advances, to when the check began.
  // The whole budget of each run, 3 and then 6 seconds, and not much more.
  EXPECT_GE(after - before, 8);
  EXPECT_LE(after - before, 10);
  EXPECT_LE(lastCheckOf(agent) - before, 1);
}

TEST_F(WatchdogCheck, AStatusScriptThatPrintsMegabytesIsReadToItsEndWithinTheTimeout) {
  // About 6.9 MB: read as fast as it comes, it all arrives within the 3 seconds.
  statusScript("exec seq 1 1000000");
  Agent* agent = makeAgent(OpRunning);
  const long long began = qortest::nowMs();
  check(agent);
  EXPECT_LT(qortest::nowMs() - began, 3000);
  EXPECT_EQ(1, traced("Executing command < exec seq 1 1000000 >.\n"));
  EXPECT_LE(6000, traced("Command bytes read without error. "));
  EXPECT_EQ(0, traced("Availability command timed out for agent check.agent, check next cycle.\n"));
  EXPECT_EQ(0, traced("Command did not finish within timeout"));
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_FALSE(agent->availCheckRetryEnabled());
}

TEST_F(WatchdogCheck, AStatusScriptKilledByASignalReadsAsSuccess) {
  statusScript("kill -9 $$");
  Agent* agent = makeAgent(OpStopped);
  check(agent);
  EXPECT_EQ(1, traced("qor_pclose returned 9"));
  EXPECT_EQ(RaisedList({{agent_started, OpStopped, kNoText}}), takeRaised());
}

TEST_F(WatchdogCheck, AFailingStatusScriptWithTheProcessStillThereAsksToRestartTheRunningAgent) {
  failingStatusScript();
  int pid = startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  ASSERT_EQ(pid, agent->getProcID());
  check(agent);
  EXPECT_EQ(RaisedList({{agent_stopped_abnormally, OpRunning, wide(kMessage)}}), takeRaised());
  EXPECT_EQ(1, traced("Agent was stopped or stopping.\n"));
  EXPECT_EQ(1,
            traced("Availability script failed but agent check.agent is still up, rc = 3, command output < "
                   "not answering\n >.\n"));
  EXPECT_EQ(1, traced("Restarting unhealthy agent check.agent.\n"));
  EXPECT_EQ("qorwd.cpp checkAvailability:", writerOf("Restarting unhealthy agent"));
}

TEST_F(WatchdogCheck, AFailingStatusScriptWithTheProcessGoneAsksToStartTheAgent) {
  failingStatusScript();
  proctest::copyProgram("/bin/sleep", exe);
  Agent* agent = makeAgent(OpRunning);
  check(agent);
  EXPECT_EQ(RaisedList({{agent_stopped_abnormally, OpStopped, wide(kMessage)}}), takeRaised());
  EXPECT_EQ(1, traced("Availability script failed and agent check.agent is down, rc = 3, command output < "
                      "not answering\n >.\n"));
  EXPECT_EQ(1, traced("Starting unavailable agent check.agent.\n"));
}

TEST_F(WatchdogCheck, ADownAgentWhoseRecordSaysStoppedIsStartedForTheFirstTime) {
  failingStatusScript();
  proctest::copyProgram("/bin/sleep", exe);
  Agent* agent = makeAgent(OpStopped);
  check(agent);
  EXPECT_EQ(RaisedList({{agent_initial_start, OpStopped, wide(kMessage)}}), takeRaised());
  EXPECT_EQ(1, traced("Starting agent check.agent for the first time.\n"));
}

TEST_F(WatchdogCheck, ADownAgentThatAnOperatorStoppedRaisesNothingButItsCheckTimeAdvances) {
  failingStatusScript();
  Agent* agent = makeAgent(OpManuallyStopped);
  const time_t before = time(nullptr);
  check(agent);
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_EQ(1, traced("Agent was manually stopped and will not be restarted.\n"));
  EXPECT_GE(lastCheckOf(agent), before);
}

TEST_F(WatchdogCheck, ADownAgentWhileDisarmedIsReportedWithoutRestartEvenWithItsExecutableMissing) {
  failingStatusScript();
  ControllerTestAccess::setDisarmed(true);
  Agent* agent = makeAgent(OpRunning);  // nothing at the path
  check(agent);
  ControllerTestAccess::setDisarmed(false);
  // The disarm event alone carries no text.
  EXPECT_EQ(RaisedList({{agent_restart_disabled, OpStopped, kNoText}}), takeRaised());
  EXPECT_EQ(1, traced("Disarm mode active. Agent is stopped and will not be restarted.\n"));
  EXPECT_EQ(0, traced("Error: Agent does not exist on system.\n"));
}

TEST_F(WatchdogCheck, ADownAgentWithoutItsExecutableIsReportedNotFound) {
  failingStatusScript();
  Agent* agent = makeAgent(OpRunning);  // nothing at the path
  check(agent);
  EXPECT_EQ(RaisedList({{agent_not_found, OpNotFound, wide(kMessage)}}), takeRaised());
  EXPECT_EQ(1, traced("Error: Agent does not exist on system.\n"));
}

TEST_F(WatchdogCheck, ARunningAgentWhoseExecutableIsDeletedIsNoLongerFoundAndReportedNotFound) {
  int pid = startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  ASSERT_EQ(pid, agent->getProcID());
  ASSERT_EQ(0, unlink(exe.c_str()));
  // The process runs on, but its executable now reads as "qorchk (deleted)".
  check(agent);
  EXPECT_EQ(0, kill(pid, 0));
  EXPECT_EQ(RaisedList({{agent_not_found, OpNotFound, kNoText}}), takeRaised());
}

TEST_F(WatchdogCheck, ARunningAgentWhoseExecutableIsDeletedStaysUpWhileItsStatusScriptSaysSo) {
  statusScript("exit 0");
  int pid = startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  ASSERT_EQ(pid, agent->getProcID());
  ASSERT_EQ(0, unlink(exe.c_str()));
  check(agent);
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_EQ(0, traced("Error: Agent does not exist on system.\n"));
}

TEST_F(WatchdogCheck, AProcessThatVanishedSinceItWasFoundIsReportedDown) {
  startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  ASSERT_NE(0, agent->getProcID());
  processes.back()->stop();
  check(agent);
  EXPECT_EQ(RaisedList({{agent_stopped_abnormally, OpStopped, kNoText}}), takeRaised());
  EXPECT_EQ(
      1, traced("Availability script failed and agent check.agent is down, rc = 0, command output <  >.\n"));
}

TEST_F(WatchdogCheck, AnAgentFoundUpWhileItsRecordSaysStoppedIsSyncedWithEventSeven) {
  startSleeper();
  Agent* agent = makeAgent(OpStopped);
  check(agent);
  EXPECT_EQ(RaisedList({{agent_started, OpStopped, kNoText}}), takeRaised());
}

TEST_F(WatchdogCheck, WithoutAnInstanceProcessNameTheCheckFindsNothingWhileTheStateQueryFallsBackOnTheName) {
  startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->setInstanceProcName(L"");
  check(agent);
  // Down to the check, up to getOperatingState: the running agent is to be restarted.
  EXPECT_EQ(RaisedList({{agent_stopped_abnormally, OpRunning, kNoText}}), takeRaised());
  EXPECT_EQ(OpRunning, agent->getWatchdog()->getOperatingState());
}

TEST_F(WatchdogCheck, ANegativeRetryCountStillRunsTheStatusScriptOnce) {
  WD_STATUS_RETRY_COUNT = -1;
  failingStatusScript();
  proctest::copyProgram("/bin/sleep", exe);
  Agent* agent = makeAgent(OpStopped);
  check(agent);
  EXPECT_EQ(1, traced("Executing command < echo not answering; exit 3 >.\n"));
  EXPECT_EQ(RaisedList({{agent_initial_start, OpStopped, wide(kMessage)}}), takeRaised());
}

// ---- Health ---------------------------------------------------------------------

TEST_F(WatchdogCheck, CPUAndMemoryBothOverTheirLimitsAreReportedAsCPUAlone) {
  subagent.cpuThreshold = "<cpuThreshold>1</cpuThreshold>";
  subagent.memoryThreshold = "<memoryThreshold>1 KB</memoryThreshold>";
  int pid = startBusy();
  ASSERT_TRUE(qortest::waitFor([&] { return ticksOf(pid) >= 10; }, 10000));
  Agent* agent = makeAgent(OpRunning);
  WatchdogTestAccess::setCmdManager(agent->getWatchdog(), trueTicks());
  agent->getWatchdog()->collectProcessData();
  ASSERT_EQ(pid, agent->getProcID());
  agent->setCheckTime(time(nullptr) - 60);
  check(agent);
  EXPECT_EQ(RaisedList({{agent_cpu_exceeded, OpRunning, kNoText}}), takeRaised());
  EXPECT_EQ(1, traced("Agent (pid = " + std::to_string(pid) + ") will be restarted. CPU usage "));
  EXPECT_EQ(1, traced(" execeeded threshold of 1.\n"));
  EXPECT_EQ(1, traced("Invoking agent exceeds cpu command.\n"));
  EXPECT_EQ(0, traced("Memory usage"));
  EXPECT_EQ(0, traced("Agent pid " + std::to_string(pid) + ", memory "));
}

TEST_F(WatchdogCheck, MemoryOverItsLimitIsReportedWithEventSixteen) {
  subagent.memoryThreshold = "<memoryThreshold>1 KB</memoryThreshold>";
  int pid = startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  agent->setCheckTime(time(nullptr) - 60);
  check(agent);
  EXPECT_EQ(RaisedList({{agent_memory_exceeded, OpRunning, kNoText}}), takeRaised());
  EXPECT_EQ(1, traced("Agent (pid " + std::to_string(pid) + "), total cpu 0.000000E+00 %.\n"));
  EXPECT_EQ(1, traced("Agent pid " + std::to_string(pid) + ", memory "));
  EXPECT_EQ(1, traced(" execeeded threshold of 1024.\n"));
  EXPECT_EQ(1, traced("Invoking agent exceeds memory command.\n"));
}

TEST_F(WatchdogCheck, FiguresWithinTheirLimitsRaiseNothing) {
  subagent.cpuThreshold = "<cpuThreshold>100</cpuThreshold>";
  subagent.memoryThreshold = "<memoryThreshold>1 GB</memoryThreshold>";
  startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  agent->setCheckTime(time(nullptr) - 60);
  check(agent);
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_EQ(1, traced(", memory "));
  EXPECT_EQ(0, traced("will be restarted"));
}

TEST_F(WatchdogCheck, ACPUFigureExactlyAtItsLimitIsWithinIt) {
  subagent.cpuThreshold = "<cpuThreshold>50</cpuThreshold>";
  startSleeper();
  Agent* agent = makeAgent(OpRunning);
  WatchdogTestAccess::setCmdManager(agent->getWatchdog(), trueTicks());
  trueTicks()->ticksPerCollection = 30;  // over 60 seconds: 30 * 100 / 60 = 50
  agent->getWatchdog()->collectProcessData();
  agent->setCheckTime(freshSecond() - 60);
  check(agent);
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_EQ(1, traced("total cpu 5.000000E+01 %.\n"));

  agent->getPolicy()->setCPUThreshold(49);
  agent->setCheckTime(freshSecond() - 60);
  check(agent);
  EXPECT_EQ(RaisedList({{agent_cpu_exceeded, OpRunning, kNoText}}), takeRaised());
  EXPECT_EQ(1, traced(") will be restarted. CPU usage 50 execeeded threshold of 49.\n"));
}

TEST_F(WatchdogCheck, AMemoryFigureExactlyAtItsLimitIsWithinIt) {
  int pid = startSleeper();
  // Right after exec the loader may still be mapping libraries: the size is
  // read once it has stayed the same for a while.
  const std::string statm = "/proc/" + std::to_string(pid) + "/statm";
  long long pages = 0;
  long long previous = -1;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        previous = pages;
        usleep(100 * 1000);
        return sscanf(qortest::readFile(statm).c_str(), "%lld", &pages) == 1 && pages == previous;
      },
      5000));
  const long bytes = static_cast<long>(pages * getpagesize());
  subagent.memoryThreshold = "<memoryThreshold>" + std::to_string(bytes) + "</memoryThreshold>";
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  agent->setCheckTime(time(nullptr) - 60);
  check(agent);
  EXPECT_EQ(RaisedList(), takeRaised());

  agent->getPolicy()->setMemoryThreshold(bytes - 1, MEM_BYTES);
  agent->setCheckTime(time(nullptr) - 60);
  check(agent);
  EXPECT_EQ(RaisedList({{agent_memory_exceeded, OpRunning, kNoText}}), takeRaised());
  EXPECT_EQ(1, traced("Memory usage " + std::to_string(bytes) + " execeeded threshold of " +
                      std::to_string(bytes - 1) + ".\n"));
}

TEST_F(WatchdogCheck, AHealthProblemWhileDisarmedRaisesNothing) {
  subagent.memoryThreshold = "<memoryThreshold>1 KB</memoryThreshold>";
  startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  ControllerTestAccess::setDisarmed(true);
  check(agent);
  ControllerTestAccess::setDisarmed(false);
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_EQ(1, traced("Disarm mode active. Agent has health problems but will not be restarted.\n"));
}

TEST_F(WatchdogCheck, AnAgentKnownOnlyByItsStatusScriptHasNoHealthCheckButItsDeployMarkerIsRemoved) {
  subagent.productCode = "<productCode>zq</productCode>";
  subagent.memoryThreshold = "<memoryThreshold>1 KB</memoryThreshold>";
  statusScript("exit 0");
  Agent* agent = makeAgent(OpRunning);
  qortest::writeFile(marker(), "");
  check(agent);
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(RaisedList(), takeRaised());
  EXPECT_EQ(0, traced("total cpu"));
  EXPECT_FALSE(qortest::fileExists(marker()));
}

TEST_F(WatchdogCheck, ADownCheckLeavesTheDeployMarker) {
  subagent.productCode = "<productCode>zq</productCode>";
  failingStatusScript();
  proctest::copyProgram("/bin/sleep", exe);
  Agent* agent = makeAgent(OpStopped);
  qortest::writeFile(marker(), "");
  check(agent);
  EXPECT_EQ(RaisedList({{agent_initial_start, OpStopped, wide(kMessage)}}), takeRaised());
  EXPECT_TRUE(qortest::fileExists(marker()));
}

// ---- System services --------------------------------------------------------------

TEST_F(WatchdogCheck, ASystemServiceWithoutAStatusScriptIsDecidedByTheServiceQueryAlone) {
  subagent.agentType = "<agentType>LnxService</agentType>";
  subagent.serviceName = "<serviceName>qorabsent</serviceName>";
  startSleeper();  // the process table would call it up
  Agent* agent = makeAgent(OpStopped);
  check(agent);
  EXPECT_EQ(1, traced("Agent is Linux Service.\n"));
  EXPECT_EQ(1, traced("Executing command < /sbin/service qorabsent status | grep -v stop >.\n"));
  EXPECT_EQ(0, traced("Open application -- input pid="));
  // No such service: down.
  EXPECT_EQ(RaisedList({{agent_initial_start, OpStopped, kNoText}}), takeRaised());
}

TEST_F(WatchdogCheck, TheServiceQueryAsksForTheInstancesServiceNameFirst) {
  subagent.agentType = "<agentType>UnixDaemon</agentType>";
  subagent.serviceName = "<serviceName>qorabsent</serviceName>";
  proctest::copyProgram("/bin/sleep", exe);
  Agent* agent = makeAgent(OpStopped);
  agent->setServiceInstanceName(L"qorinstance");
  check(agent);
  EXPECT_EQ(1, traced("Agent is Unix Daemon.\n"));
  EXPECT_EQ(1, traced("Executing command < /sbin/service qorinstance status | grep -v stop >.\n"));
  EXPECT_EQ(0, traced("/sbin/service qorabsent"));
}

TEST_F(WatchdogCheck, AStatusScriptOfASystemServiceGoesBeforeTheServiceQuery) {
  subagent.agentType = "<agentType>LnxService</agentType>";
  subagent.serviceName = "<serviceName>qorabsent</serviceName>";
  statusScript("exit 0");
  Agent* agent = makeAgent(OpStopped);
  check(agent);
  EXPECT_EQ(0, traced("/sbin/service"));
  EXPECT_EQ(RaisedList({{agent_started, OpStopped, kNoText}}), takeRaised());
}

// ---- The small queries ----------------------------------------------------------

TEST_F(WatchdogCheck, OnlyWindowsServicesLinuxServicesAndUnixDaemonsAreSystemServices) {
  Agent* agent = makeAgent(OpRunning);
  std::vector<int> services;
  for (int type = ZEL_UNIX; type <= ZEL_Windows; ++type) {
    agent->setType(type);
    if (agent->getWatchdog()->isSystemService()) services.push_back(type);
  }
  EXPECT_EQ(std::vector<int>({WinService, LnxService, UnixDaemon}), services);
  EXPECT_EQ(1, traced("Agent is Windows Service.\n"));
  EXPECT_EQ(1, traced("Agent is Linux Service.\n"));
  EXPECT_EQ(1, traced("Agent is Unix Daemon.\n"));
  EXPECT_EQ(3, traced("Agent is "));
}

TEST_F(WatchdogCheck, TheExecutableIsLookedForUnderTheProcessNameInTheDirectoryOfThePath) {
  proctest::copyProgram("/bin/sleep", exe);
  Agent* agent = makeAgent(OpRunning);
  Watchdog* watchdog = agent->getWatchdog();
  agent->setPath(wide(lab.file("other-name")));
  EXPECT_TRUE(watchdog->ExecPathExists());
  agent->setInstanceProcName(L"qormissing");
  EXPECT_FALSE(watchdog->ExecPathExists());
  // Without an instance process name the policy's process name counts.
  agent->setInstanceProcName(L"");
  EXPECT_TRUE(watchdog->ExecPathExists());
  // A path without a slash: the name alone, from the working directory.
  agent->setPath(L"qorchk");
  char here[4096] = {0};
  ASSERT_NE(nullptr, getcwd(here, sizeof here));
  ASSERT_EQ(0, chdir(lab.path().c_str()));
  EXPECT_TRUE(watchdog->ExecPathExists());
  ASSERT_EQ(0, chdir(here));
  EXPECT_FALSE(watchdog->ExecPathExists());
}

TEST_F(WatchdogCheck, CollectingRuntimeDataMeasuresTheProcessAndSetsTheCheckTime) {
  int pid = startSleeper();
  Agent* agent = makeAgent(OpRunning);
  agent->getWatchdog()->collectProcessData();
  ASSERT_EQ(pid, agent->getProcID());
  const time_t before = time(nullptr);
  agent->getWatchdog()->collectRuntimeData();
  EXPECT_GE(lastCheckOf(agent), before);
  EXPECT_LE(lastCheckOf(agent), time(nullptr));
  EXPECT_GT(agent->getTotalMemSizeBytes(), 0u);
  EXPECT_EQ(RaisedList(), takeRaised());
}
