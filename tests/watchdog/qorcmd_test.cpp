#include "watchdog/qorcmd.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <thread>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmdunx.h"

namespace {

// Every test runs in its own process, so the manager made here is the first,
// with a time-out of `seconds`. The loop's first pass costs a second without
// sleeping and a command must be seen to end before the budget is spent: with
// 3 seconds a command that ends at once succeeds and one that does not has
// timed out after 2.
QorCmdUNIX* fastManager(int seconds = 3) {
  MIN_CMD_TIMEOUT = seconds;
  unsetenv("QOR_CMD_TIMEOUT");
  return static_cast<QorCmdUNIX*>(GetCmdManager());
}

QorScript script(const std::string& command) {
  QorScript result;
  result.setOriginalCommand(std::wstring(command.begin(), command.end()));
  return result;
}

std::wstring wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

// A manager made with QOR_CMD_TIMEOUT set to `value` (unset for null), and
// what it traced.
struct TimeoutProbe {
  int timeout;
  std::string trace;
};

TimeoutProbe probeTimeout(const char* value) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  if (value == nullptr) {
    unsetenv("QOR_CMD_TIMEOUT");
  } else {
    setenv("QOR_CMD_TIMEOUT", value, 1);
  }
  TimeoutProbe probe{GetCmdManager()->getTimeout(), ""};
  probe.trace = qortest::readFile(dir.file("trace"));
  return probe;
}

const char* const kInvalidTimeout = "Invalid timeout specified by QOR_CMD_TIMEOUT.\n";

// An agent whose process is the executable `exe`, with a policy of a plain
// daemon, so that no suite tool is asked.
Agent* daemonAgent(const std::string& exe, const std::string& name) {
  Policy* policy = new Policy();
  policy->setAgentTypeElement(UnixDaemon);
  policy->setAgentPathElement(wide(exe));
  policy->setProcName(wide(name));
  Agent* agent = new Agent();
  agent->setPolicy(policy);
  agent->setProcName(wide(name));
  agent->setPath(wide(exe));
  return agent;
}

int readPid(const std::string& path) {
  int pid = 0;
  std::ifstream(path) >> pid;
  return pid;
}

}  // namespace

TEST(CommandTimeout, TwentyNineIsBelowTheFloorAndDroppedWithoutAWord) {
  TimeoutProbe probe = probeTimeout("29");
  EXPECT_EQ(30, probe.timeout);
  EXPECT_EQ(0, qortest::countOccurrences(probe.trace, kInvalidTimeout));
  EXPECT_EQ(1, qortest::countOccurrences(probe.trace, "Using command timeout = 30.\n"));
}

TEST(CommandTimeout, ThirtyOneIsTaken) {
  TimeoutProbe probe = probeTimeout("31");
  EXPECT_EQ(31, probe.timeout);
  EXPECT_EQ(1, qortest::countOccurrences(probe.trace, "Using command timeout = 31.\n"));
}

TEST(CommandTimeout, LettersGiveTheDefaultAndATrace) {
  TimeoutProbe probe = probeTimeout("3O");
  EXPECT_EQ(30, probe.timeout);
  EXPECT_EQ(1, qortest::countOccurrences(probe.trace, kInvalidTimeout));
}

TEST(CommandTimeout, UnsetGivesTheDefaultAndATrace) {
  TimeoutProbe probe = probeTimeout(nullptr);
  EXPECT_EQ(30, probe.timeout);
  EXPECT_EQ(1, qortest::countOccurrences(probe.trace, kInvalidTimeout));
}

TEST(CommandTimeout, AnEmptyValueIsValidZeroAndStaysAtTheFloor) {
  TimeoutProbe probe = probeTimeout("");
  EXPECT_EQ(30, probe.timeout);
  EXPECT_EQ(0, qortest::countOccurrences(probe.trace, kInvalidTimeout));
}

TEST(CommandTimeout, TheFloorIsTheExportedConstant) {
  MIN_CMD_TIMEOUT = 2;
  setenv("QOR_CMD_TIMEOUT", "3", 1);
  EXPECT_EQ(3, GetCmdManager()->getTimeout());
}

TEST(CommandReturnCode, AnErrorCodeKeepsItsValueAndGivesItsMessage) {
  QorScript exit3 = script("exit 3");
  exit3.addErrorRC(3, L"three failed");
  exit3.addSuccessRC(0, L"fine");
  std::wstring output, msgID;
  EXPECT_EQ(3, fastManager()->executeCmd(&exit3, output, msgID, nullptr));
  EXPECT_EQ(L"three failed", msgID);
}

TEST(CommandReturnCode, ASuccessCodeBecomesZeroAndGivesItsMessage) {
  QorScript exit3 = script("exit 3");
  exit3.addSuccessRC(3, L"three is fine");
  std::wstring output, msgID;
  EXPECT_EQ(0, fastManager()->executeCmd(&exit3, output, msgID, nullptr));
  EXPECT_EQ(L"three is fine", msgID);
}

TEST(CommandReturnCode, ACodeInNeitherMapIsKeptWithoutAMessage) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QorScript exit3 = script("exit 3");
  exit3.addSuccessRC(0, L"fine");
  exit3.addErrorRC(4, L"four");
  std::wstring output, msgID = L"untouched";
  EXPECT_EQ(3, fastManager()->executeCmd(&exit3, output, msgID, nullptr));
  EXPECT_EQ(L"untouched", msgID);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Script ended with unexpected rc < 3 >.\n"));
}

TEST(CommandReturnCode, ZeroInTheErrorMapBecomesOne) {
  QorScript exit0 = script("exit 0");
  exit0.addErrorRC(0, L"zero is bad here");
  std::wstring output, msgID;
  EXPECT_EQ(1, fastManager()->executeCmd(&exit0, output, msgID, nullptr));
  EXPECT_EQ(L"zero is bad here", msgID);
}

TEST(CommandReturnCode, ACodeInBothMapsIsASuccess) {
  QorScript exit5 = script("exit 5");
  exit5.addErrorRC(5, L"bad");
  exit5.addSuccessRC(5, L"good");
  std::wstring output, msgID;
  EXPECT_EQ(0, fastManager()->executeCmd(&exit5, output, msgID, nullptr));
  EXPECT_EQ(L"good", msgID);
}

TEST(CommandExecution, ACommandThatEndsAtOnceGivesItsExitStatusAndLeavesTheOutput) {
  QorScript exit7 = script("exit 7");
  std::wstring output = L"before", msgID;
  EXPECT_EQ(7, fastManager()->executeCmd(&exit7, output, msgID, nullptr));
  EXPECT_EQ(L"before", output);
}

TEST(CommandExecution, ACommandThatEndsAtOnceCostsMillisecondsNotASecond) {
  QorScript quick = script("echo up; exit 0");
  std::wstring output, msgID;
  QorCmdUNIX* manager = fastManager();
  const long long began = qortest::nowMs();
  for (int run = 0; run < 5; ++run) EXPECT_EQ(0, manager->executeCmd(&quick, output, msgID, nullptr));
  // Five runs, where waiting a whole second for each would take five.
  EXPECT_LT(qortest::nowMs() - began, 1000);
  EXPECT_EQ(L"up\n", output);
}

TEST(CommandExecution, OutputIsTakenAsItComesAndTheEndAsSoonAsItCloses) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QorScript paced = script("echo one; sleep 0.3; echo two; sleep 0.3; echo three");
  std::wstring output, msgID;
  const long long began = qortest::nowMs();
  EXPECT_EQ(0, fastManager()->executeCmd(&paced, output, msgID, nullptr));
  EXPECT_LT(qortest::nowMs() - began, 1500);
  EXPECT_EQ(L"one\ntwo\nthree\n", output);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(3, qortest::countOccurrences(trace, "Command bytes read without error. "));
  // Every pass counted from the budget of 3 seconds, none of them a whole second long.
  for (int seconds : proctest::waitedSeconds(trace)) EXPECT_EQ(3, seconds);
}

TEST(CommandExecution, WhatACommandPrintsBecomesItsOutput) {
  QorScript hello = script("echo hello; echo world");
  std::wstring output = L"before", msgID;
  EXPECT_EQ(0, fastManager()->executeCmd(&hello, output, msgID, nullptr));
  EXPECT_EQ(L"hello\nworld\n", output);
}

TEST(CommandExecution, AnInvalidByteInTheOutputEmptiesIt) {
  setenv("LC_ALL", "C.UTF-8", 1);
  QorScript bad = script("printf 'good \\377 bad'");
  std::wstring output = L"before", msgID;
  EXPECT_EQ(0, fastManager()->executeCmd(&bad, output, msgID, nullptr));
  EXPECT_EQ(L"", output);
}

TEST(CommandExecution, AMissingShellReadsAsSuccessWithNoOutput) {
  QorCmdUNIX* manager = fastManager();
  const char* shell = SH_PATH;
  SH_PATH = "/nonexistent/qor/sh";
  QorScript exit5 = script("echo never; exit 5");
  std::wstring output = L"before", msgID;
  int rc = manager->executeCmd(&exit5, output, msgID, nullptr);
  SH_PATH = shell;
  EXPECT_EQ(0, rc);
  EXPECT_EQ(L"before", output);
}

// The signals blocked in a child that a script runs in, while this thread has
// `blocked` blocked; false when the child could not say. dash clears the mask
// it inherits; bash keeps it, and so shows what the child started with.
bool childBlockedMask(std::initializer_list<int> blocked, unsigned long long& mask) {
  fastManager();
  const char* shell = SH_PATH;
  SH_PATH = "/bin/bash";
  sigset_t set;
  sigemptyset(&set);
  for (int signal : blocked) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  int pid = 0;
  char line[128] = {0};
  FILE* stream = qor_popen("grep SigBlk /proc/self/status", pid);
  const bool read = stream != nullptr && fgets(line, sizeof line, stream) != nullptr;
  const int status = stream != nullptr ? qor_pclose(stream, pid) : -1;
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  SH_PATH = shell;
  if (!read || !WIFEXITED(status) || WEXITSTATUS(status) != 0 || std::strncmp(line, "SigBlk:\t", 8) != 0) {
    return false;
  }
  mask = strtoull(line + 8, nullptr, 16);
  return true;
}

bool has(unsigned long long mask, int signal) { return (mask & (1ull << (signal - 1))) != 0; }

TEST(CommandExecution, ChildrenStartWithTheStopSignalsUnblocked) {
  unsigned long long mask = 0;
  ASSERT_TRUE(childBlockedMask({SIGTERM, SIGINT, SIGUSR1}, mask));
  EXPECT_FALSE(has(mask, SIGTERM));
  EXPECT_FALSE(has(mask, SIGINT));
  EXPECT_TRUE(has(mask, SIGUSR1));  // other signals keep the thread's mask
}

// qorhost and qorwd keep SIGHUP blocked in their threads for their trace
// file; an agent they start must still be able to be told to reload by it.
TEST(CommandExecution, ChildrenStartWithSighupUnblockedThoughTheServiceBlocksIt) {
  unsigned long long mask = 0;
  ASSERT_TRUE(childBlockedMask({SIGHUP, SIGUSR1}, mask));
  EXPECT_FALSE(has(mask, SIGHUP));
  EXPECT_TRUE(has(mask, SIGUSR1));
}

// A worker cancelled at shutdown may be in the middle of starting a script.
// The forked child is a copy of that thread, cancellation request included:
// it must run the command, not unwind the parent's frames in the copy.
void* popenWithACancelPending(void* command) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  pthread_cancel(pthread_self());
  // Enabling is no cancellation point: the request waits for the next one,
  // which comes inside qor_popen, in the parent and in the child alike.
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  int pid = 0;
  FILE* stream = qor_popen(static_cast<const char*>(command), pid);
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  if (stream != nullptr) qor_pclose(stream, pid);
  return nullptr;
}

TEST(CommandExecution, AChildForkedByAThreadWithACancelPendingStillRunsItsCommand) {
  qortest::TempDir dir;
  const std::string command = "echo ran > " + dir.file("ran");
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(&thread, nullptr, popenWithACancelPending, const_cast<char*>(command.c_str())));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(thread, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);  // the parent's thread did end there
  EXPECT_TRUE(qortest::waitFor([&] { return qortest::readFile(dir.file("ran")) == "ran\n"; }, 5000));
}

TEST(CommandExecution, ACommandThatDoesNotEndInTimeIsLeftRunningAndReapedLater) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL | QOR_TL_ERROR);
  QorCmdUNIX* manager = fastManager();
  QorScript slow = script("echo $$ > " + dir.file("shell.pid") + "; sleep 3");
  std::wstring output = L"before", msgID;
  EXPECT_EQ(QOR_CMD_TIMED_OUT, manager->executeCmd(&slow, output, msgID, nullptr));
  EXPECT_EQ(L"before", output);
  int shell = readPid(dir.file("shell.pid"));
  ASSERT_EQ(std::vector<int>{shell}, manager->getDefunctProcesses());
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Command did not finish within timeout - cmd = echo $$ > "));

  manager->cleanUpDefunctProcesses();  // still running: it stays
  EXPECT_EQ(std::vector<int>{shell}, manager->getDefunctProcesses());
  EXPECT_TRUE(qortest::waitFor(
      [&] {
        manager->cleanUpDefunctProcesses();
        return manager->getDefunctProcesses().empty();
      },
      5000));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Child pid " + std::to_string(shell) + " is not running"));
}

TEST(CommandExecution, TheRetryFlagDoublesTheTimeoutForThisRunOnly) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QorCmdUNIX* manager = fastManager();
  Agent agent;
  agent.setAvailCheckRetry();
  // Done at 4 seconds: a second after the plain budget of 3, two before the
  // doubled one of 6.
  QorScript slow = script("sleep 4; echo done");
  std::wstring output, msgID;
  long long began = qortest::nowMs();
  EXPECT_EQ(0, manager->executeCmd(&slow, output, msgID, &agent));
  long long took = qortest::nowMs() - began;
  EXPECT_EQ(L"done\n", output);
  EXPECT_GE(took, 4000);
  EXPECT_LT(took, 5500);  // it ends when the script does, not at a whole second
  std::vector<int> waits = proctest::waitedSeconds(qortest::readFile(dir.file("trace")));
  ASSERT_FALSE(waits.empty());
  EXPECT_EQ(6, waits.front());
  // It ended with 2 of its 6 seconds left, or just under 3: it counted down
  // and never waited into its last 2, after a pass or two for each second.
  EXPECT_TRUE(std::is_sorted(waits.rbegin(), waits.rend()));
  const int least = *std::min_element(waits.begin(), waits.end());
  EXPECT_TRUE(least == 2 || least == 3) << least;
  EXPECT_LE(waits.size(), 12u);

  agent.resetAvailCheckRetry();
  output.clear();
  began = qortest::nowMs();
  EXPECT_EQ(QOR_CMD_TIMED_OUT, manager->executeCmd(&slow, output, msgID, &agent));
  took = qortest::nowMs() - began;
  EXPECT_EQ(L"", output);
  EXPECT_GE(took, 3000);
  EXPECT_LT(took, 4000);
  EXPECT_EQ(3, manager->getTimeout());
}

TEST(CommandExecution, AStartScriptThatLeavesADaemonRunningSucceedsOnceTheDaemonIsSeen) {
  qortest::TempDir dir;
  std::string daemon = proctest::copyProgram("/bin/sleep", dir.file("qordaemond"));
  QorCmdUNIX* manager = fastManager(6);
  Agent* agent = daemonAgent(daemon, "qordaemond");
  // The script starts the daemon and stays alive itself.
  QorScript start = script(daemon + " 20 & echo $$ > " + dir.file("shell.pid") + "; exec sleep 20");
  start.setIsStartCommand();
  std::wstring output, msgID;
  long long started = qortest::nowMs();
  EXPECT_EQ(0, manager->executeCmd(&start, output, msgID, agent));
  EXPECT_LT(qortest::nowMs() - started, 3500);  // long before the time-out
  // The daemon may be seen before the shell has written its id.
  ASSERT_TRUE(qortest::waitFor([&] { return readPid(dir.file("shell.pid")) > 0; }, 3000));
  int shell = readPid(dir.file("shell.pid"));
  EXPECT_EQ(std::vector<int>{shell}, manager->getDefunctProcesses());
  EXPECT_TRUE(proctest::runsExecutable(agent->getProcID(), daemon));
  proctest::killProcess(agent->getProcID());
  proctest::killProcess(shell);
  delete agent;
}

TEST(CommandExecution, AScriptThatEndsWhileItsDaemonHoldsThePipeEndsThroughWaitpid) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  std::string daemon = proctest::copyProgram("/bin/sleep", dir.file("qorholder"));
  QorCmdUNIX* manager = fastManager(6);
  QorScript script4 =
      script("echo started; " + daemon + " 20 & echo $! > " + dir.file("daemon.pid") + "; exit 4");
  std::wstring output, msgID;
  EXPECT_EQ(4, manager->executeCmd(&script4, output, msgID, nullptr));
  EXPECT_EQ(L"started\n", output);
  EXPECT_TRUE(manager->getDefunctProcesses().empty());
  EXPECT_EQ(
      1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), " is no longer running, rc = 1024"));
  proctest::killProcess(readPid(dir.file("daemon.pid")));
}

TEST(CommandExecution, AStartScriptThatPrintsNothingRunsIntoTheTimeoutAndTheStartTestDecides) {
  qortest::TempDir dir;
  std::string daemon = proctest::copyProgram("/bin/sleep", dir.file("qorquietd"));
  QorCmdUNIX* manager = fastManager();
  Agent* agent = daemonAgent(daemon, "qorquietd");
  // With a map the loop does not look for the daemon: only the time-out ends it.
  QorScript start = script(daemon + " 20 & echo $! > " + dir.file("daemon.pid") + "; exit 0");
  start.addSuccessRC(0, L"started");
  start.setIsStartCommand();
  std::wstring output, msgID;
  EXPECT_EQ(0, manager->executeCmd(&start, output, msgID, agent));
  EXPECT_EQ(L"started", msgID);
  EXPECT_EQ(readPid(dir.file("daemon.pid")), agent->getProcID());
  EXPECT_EQ(1u, manager->getDefunctProcesses().size());
  proctest::killProcess(agent->getProcID());
  delete agent;
}

// The scripts of the time-out tests outlast the three seconds by far: one that
// ended as the time-out came would race it.
TEST(CommandExecution, AStartScriptThatTimesOutWithoutItsApplicationRunningTimesOut) {
  qortest::TempDir dir;
  QorCmdUNIX* manager = fastManager();
  Agent* agent = daemonAgent(dir.file("qornever"), "qornever");
  QorScript start = script("sleep 6");
  start.addSuccessRC(0, L"started");
  start.setIsStartCommand();
  std::wstring output, msgID;
  EXPECT_EQ(QOR_CMD_TIMED_OUT, manager->executeCmd(&start, output, msgID, agent));
  EXPECT_EQ(L"", msgID);
  delete agent;
}

TEST(CommandExecution, AStopScriptThatTimesOutSucceedsWhenTheApplicationIsGone) {
  qortest::TempDir dir;
  QorCmdUNIX* manager = fastManager();
  Agent* agent = daemonAgent(dir.file("qorgone"), "qorgone");
  QorScript stop = script("sleep 6");
  stop.setIsStopCommand();
  std::wstring output, msgID;
  EXPECT_EQ(0, manager->executeCmd(&stop, output, msgID, agent));
  delete agent;
}

TEST(CommandExecution, AStopScriptWithoutAnAgentThatTimesOutCountsAsTimedOut) {
  QorCmdUNIX* manager = fastManager();
  QorScript stop = script("sleep 6");
  stop.setIsStopCommand();
  std::wstring output, msgID;
  EXPECT_EQ(QOR_CMD_TIMED_OUT, manager->executeCmd(&stop, output, msgID, nullptr));
}

TEST(CommandSerialisation, ZelcmdAnywhereInTheCommandSerialisesIt) {
  QorCmdUNIX* manager = fastManager();
  EXPECT_TRUE(manager->serializeCommand(L"/opt/suite/zelcmdtools/bin/run -x"));
  EXPECT_TRUE(manager->serializeCommand(L"zelcmd"));
  EXPECT_FALSE(manager->serializeCommand(L"ZELCMD start"));
}

TEST(CommandSerialisation, TheInstanceCommandIsSerialisedOnlyToStartOrStop) {
  QorCmdUNIX* manager = fastManager();
  EXPECT_FALSE(manager->serializeCommand(L"agentInstanceCommand -status db1"));
  EXPECT_TRUE(manager->serializeCommand(L"agentInstanceCommand START db1"));
  EXPECT_TRUE(manager->serializeCommand(L"agentInstanceCommand db1 STOP"));
  EXPECT_FALSE(manager->serializeCommand(L"START STOP"));
}

TEST(CommandSerialisation, ASerialisedCommandRunsUnderTheSerialisationLock) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QorCmdUNIX* manager = fastManager();
  QorScript serial = script("echo zelcmd");
  QorScript parallel = script("echo agentInstanceCommand status");
  std::wstring output, msgID;
  EXPECT_EQ(0, manager->executeCmd(&serial, output, msgID, nullptr));
  EXPECT_EQ(0, manager->executeCmd(&parallel, output, msgID, nullptr));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Executing serialized ZEL command\n"));
}

TEST(CommandExecution, TheCallersListLockIsGivenUpForTheCommandAndTakenBack) {
  qortest::TempDir dir;
  QorCmdUNIX* manager = fastManager();
  ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
  ASSERT_TRUE(list->lockList());
  // Another thread takes the list while the command runs, and tells the
  // command so through a file.
  std::atomic<bool> tookList{false};
  std::thread other([&] {
    if (list->lockList()) {
      tookList = true;
      qortest::writeFile(dir.file("go"), "1");
      list->unlockList();
    }
  });
  QorScript wait = script("i=0; while [ ! -f " + dir.file("go") +
                          " ] && [ $i -lt 40 ]; do sleep 0.05; i=$((i+1)); done; echo seen");
  std::wstring output, msgID;
  EXPECT_EQ(0, manager->executeCmd(&wait, output, msgID, nullptr));
  other.join();
  EXPECT_TRUE(tookList);
  EXPECT_EQ(L"seen\n", output);
  EXPECT_TRUE(list->isLockedByCaller());
  EXPECT_TRUE(list->unlockList());
}

TEST(CommandExecution, AThreadWithoutTheListRunsCommandsWithoutTouchingIt) {
  QorCmdUNIX* manager = fastManager();
  ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
  std::atomic<bool> locked{false}, done{false};
  std::thread holder([&] {
    list->lockList();
    locked = true;
    while (!done) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    list->unlockList();
  });
  ASSERT_TRUE(qortest::waitFor([&] { return locked.load(); }, 2000));
  QorScript echo = script("echo x");
  std::wstring output, msgID;
  EXPECT_EQ(0, manager->executeCmd(&echo, output, msgID, nullptr));
  EXPECT_FALSE(list->isLockedByCaller());
  done = true;
  holder.join();
}

TEST(AppStop, AProcessThatHasGoneIsNotSignalledAndTheResultIsZero) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QorCmdUNIX* manager = fastManager();
  std::string exe = proctest::copyProgram("/bin/sleep", dir.file("qorvanished"));
  int pid;
  {
    proctest::Process gone({exe, "20"});
    pid = gone.pid();
  }
  Policy policy;
  policy.setAgentTypeElement(UnixDaemon);
  EXPECT_EQ(0, manager->appStop(L"qorvanished", pid, &policy));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace, "Application qorvanished (pid = " + std::to_string(pid) + ") not found.\n"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "SIGTERM"));
}

TEST(AppStop, AChildThatDoesNotDieAtOnceGetsSigkill) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QorCmdUNIX* manager = fastManager();
  std::string exe = proctest::copyProgram("/bin/sleep", dir.file("qorstubborn"));
  proctest::Process child({exe, "20"});
  ASSERT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(child.pid(), exe); }, 2000));
  Policy policy;
  policy.setAgentTypeElement(UnixDaemon);
  EXPECT_EQ(0, manager->appStop(L"qorstubborn", child.pid(), &policy));
  std::string trace = qortest::readFile(dir.file("trace"));
  // Either SIGTERM ended it at once and appStop reaped it, or it got SIGKILL.
  int status = 0;
  if (waitpid(child.pid(), &status, 0) == child.pid()) {
    EXPECT_TRUE(WIFSIGNALED(status));
    if (WTERMSIG(status) == SIGKILL) {
      EXPECT_EQ(
          1, qortest::countOccurrences(trace, "Application did not end with SIGTERM. Retry using SIGKILL"));
    } else {
      EXPECT_EQ(SIGTERM, WTERMSIG(status));
    }
  } else {
    EXPECT_EQ(ECHILD, errno);
    EXPECT_EQ(1, qortest::countOccurrences(trace, "Application ended with SIGTERM."));
  }
  EXPECT_EQ(1, qortest::countOccurrences(trace, "retpid "));
}

TEST(SystemServices, TheServiceScriptsAndTheirSuccessCodes) {
  QorCmdUNIX* manager = fastManager();
  QorScript start = manager->getSystemStartScript(L"qortestd");
  EXPECT_EQ(L"/sbin/service qortestd start > /dev/null 2>&1", start.getCommand());
  EXPECT_EQ(L"Success", start.getSuccessRCMsg(0));
  EXPECT_EQ(L"Already Started", start.getSuccessRCMsg(1));
  QorScript stop = manager->getSystemStopScript(L"qortestd");
  EXPECT_EQ(L"/sbin/service qortestd stop", stop.getCommand());
  EXPECT_EQ(L"Already Stopped", stop.getSuccessRCMsg(1));
  QorScript status = manager->getSystemIsUpScript(L"qortestd");
  EXPECT_EQ(L"/sbin/service qortestd status | grep -v stop", status.getCommand());
  EXPECT_EQ(L"Success", status.getSuccessRCMsg(0));
  EXPECT_FALSE(status.isSuccessRC(1));
}

TEST(AgentInformation, VersionAndBuildAreTheFirstLinesOfTheirScripts) {
  fastManager();
  Agent agent;
  Policy* policy = new Policy();
  policy->getAgentVersionScript()->setOriginalCommand(L"echo 1.2.3; echo second line");
  policy->getAgentBuildNumberScript()->setOriginalCommand(L"printf 'build-77'; exit 3");
  agent.setPolicy(policy);
  agent.setAgentInformation();
  EXPECT_EQ(L"1.2.3", agent.getAgentVersion());
  EXPECT_EQ(L"build-77", agent.getAgentBuildNumber());
}

TEST(AgentInformation, EmptyScriptsLeaveTheFieldsAsTheyAre) {
  fastManager();
  Agent agent;
  agent.setAgentVersion(L"kept");
  agent.setPolicy(new Policy());
  agent.setAgentInformation();
  EXPECT_EQ(L"kept", agent.getAgentVersion());
  EXPECT_EQ(L"", agent.getAgentBuildNumber());
}

TEST(CommandExecution, ShutdownCutsTheCommandShortAfterWaitingForTheShell) {
  qortest::TempDir dir;
  QorCmdUNIX* manager = fastManager(30);
  setenv("QOR_CAP_DIR", dir.path().c_str(), 1);
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->startQueryService();
  int rc = 0;
  std::atomic<bool> started{false};
  std::thread runner([&] {
    QorScript slow = script("echo $$ > " + dir.file("shell.pid") + "; sleep 2");
    std::wstring output, msgID;
    started = true;
    rc = manager->executeCmd(&slow, output, msgID, nullptr);
  });
  ASSERT_TRUE(
      qortest::waitFor([&] { return started.load() && qortest::fileExists(dir.file("shell.pid")); }, 3000));
  service->releaseQueryService(false);
  runner.join();
  EXPECT_EQ(-1, rc);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Shutdown -- before sleep.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Shutdown processing."));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Command did not finish within timeout"));
  // The shell was waited for, not left behind.
  EXPECT_TRUE(manager->getDefunctProcesses().empty());
  int shell = readPid(dir.file("shell.pid"));
  ASSERT_GT(shell, 1);
  EXPECT_EQ(-1, kill(shell, 0));
}
