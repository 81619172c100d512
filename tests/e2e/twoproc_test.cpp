// The two processes together, as a host runs them: qorwd keeps qorhost, the
// OS agent here, alive through a start script that launches it in the
// background, and the two answer each other over their sockets.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "e2e/e2ehelp.h"
#include "interfaces/qorsockclient.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"

namespace {

using e2e::tool;

// One CAP directory and one socket directory shared by both programs, and
// the start script through which qorwd launches qorhost. qorhost's output,
// traces and process id are files of `run`.
class TwoProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QOR_IP_DIR", ips.path().c_str(), 1);
    SOCKET_ANSWER_CYCLES = 50;
    SOCKET_ANSWER_CYCLE_MS = 100;
    // A copy of its own: the processes are told apart by their executable,
    // and other tests run qorhost too.
    mkdir(run.file("bin").c_str(), 0755);
    proctest::copyProgram(tool("qorhost"), hostExe());
    qortest::writeFile(run.file("start-host.sh"),
                       "#!/bin/sh\n"
                       "echo start >>'" +
                           run.file("starts.log") +
                           "'\n"
                           "'" +
                           hostExe() + "' --cap-dir '" + caps.path() + "' --ip-dir '" + ips.path() +
                           "' --trace-level 146 --trace-file '" + run.file("host.trace") + "' >>'" +
                           run.file("host.out") + "' 2>>'" + run.file("host.err") +
                           "' </dev/null &\n"
                           "echo $! >'" +
                           run.file("host.pid") + "'\n");
    captest::Subagent host;
    host.id = "e2e.host";
    host.agentName = "<agentName>Embedding host</agentName>";
    host.procName = "<procName>qorhost</procName>";
    host.agentPath = "<agentPath>" + hostExe() + "</agentPath>";
    host.productCode = "<productCode>qb</productCode>";
    host.managerType = "<managerType>WatchDog</managerType>";
    host.checkFrequency = "<checkFrequency>5</checkFrequency>";
    host.startScript = captest::script("startScript", "/bin/sh " + run.file("start-host.sh"));
    qortest::writeFile(caps.file("host.xml"), captest::document(host));
    // An ordinary agent of qorhost's, never started: with no agent at all
    // qorhost would answer every state command with 200.
    qortest::writeFile(caps.file("other.xml"), e2e::capFile("e2e.other", "Other", run.file("qorother")));
  }
  void TearDown() override {
    if (watchdog) {
      watchdog->signal(SIGKILL);
      watchdog->wait(5000);
    }
    for (int pid : hostPids) proctest::killProcess(pid);
  }

  std::string hostExe() { return run.file("bin/qorhost"); }
  // The home of the stop marker: $MARLOWHOME/$ZEL_BINARCH/qb/bin.
  std::string marker() { return run.file("home/linux/qb/bin/.qorwd_disable_stop"); }
  void startWatchdog() {
    for (const char* dir : {"home", "home/linux", "home/linux/qb", "home/linux/qb/bin"})
      mkdir(run.file(dir).c_str(), 0755);
    watchdog.reset(new qortest::Child({tool("qorwd"), "--cap-dir", caps.path(), "--ip-dir", ips.path(),
                                       "--trace-level", "147", "--trace-file", run.file("wd.trace")},
                                      {"MARLOWHOME=" + run.file("home"), "ZEL_BINARCH=linux"}));
  }
  // The qorhost that the start script launched last, once it answers on its socket.
  int hostPid() { return std::atoi(qortest::readFile(run.file("host.pid")).c_str()); }
  // Waits until a qorhost other than `notPid` is launched and its service
  // is up; each start adds one "Enter loop" to the shared trace file.
  bool hostUp(int notPid = 0) {
    const int up = hostsUp() + 1;
    return qortest::waitFor(
        [&] {
          const int pid = hostPid();
          if (pid <= 0 || pid == notPid) return false;
          remember(pid);
          return hostsUp() >= up;
        },
        20000);
  }
  int hostsUp() {
    return qortest::countOccurrences(qortest::readFile(run.file("host.trace")),
                                     "Enter loop for waiting for thread requests");
  }
  // Waits until the watchdog answers for the OS agent with `count` restarts.
  bool watchdogCounts(int count) {
    return qortest::waitFor(
        [&] {
          std::string answer;
          return sendWDQuery("622 QUERY HEALTH_INFO", answer) == 0 &&
                 answer.rfind(std::to_string(count) + "|", 0) == 0;
        },
        10000);
  }
  void remember(int pid) {
    for (int known : hostPids)
      if (known == pid) return;
    hostPids.push_back(pid);
  }
  int starts() {
    return static_cast<int>(qortest::linesWith(qortest::readFile(run.file("starts.log")), "start").size());
  }
  // qorhost's listing line of its own record, asked for with SIGUSR1.
  std::string hostListing() {
    const std::string before = qortest::readFile(run.file("host.out"));
    kill(hostPid(), SIGUSR1);
    std::string line;
    qortest::waitFor(
        [&] {
          const std::string now = qortest::readFile(run.file("host.out"));
          if (now.size() <= before.size()) return false;
          for (const std::string& candidate :
               qortest::linesWith(now.substr(before.size()), "' id e2e.host ")) {
            line = candidate;
          }
          return !line.empty();
        },
        10000);
    return line;
  }

  qortest::TempDir caps;
  qortest::TempDir ips;
  qortest::TempDir run;
  std::unique_ptr<qortest::Child> watchdog;
  std::vector<int> hostPids;
};

TEST_F(TwoProcesses, TheWatchdogStartsTheOSAgentAndAnswersForItsHealth) {
  startWatchdog();
  ASSERT_TRUE(hostUp()) << qortest::readFile(run.file("host.err"));
  EXPECT_EQ(1, starts());
  std::string answer;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return sendWDQuery("622 QUERY HEALTH_INFO", answer) == 0 && answer.find('|') != std::string::npos;
      },
      10000));
  EXPECT_EQ("0|", answer.substr(0, 2));
}

TEST_F(TwoProcesses, AKilledOSAgentIsRestartedWithinACheckPeriodAndItsRestartCountedOnBothSides) {
  startWatchdog();
  ASSERT_TRUE(hostUp());
  const int first = hostPid();
  // Let the watchdog see it running once before it dies.
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        std::string answer;
        return sendWDQuery("622 QUERY HEALTH_INFO", answer) == 0 && answer.size() > 2;
      },
      15000));
  const long long killed = qortest::nowMs();
  kill(first, SIGKILL);
  ASSERT_TRUE(hostUp(first));
  EXPECT_LT(qortest::nowMs() - killed, 11000);  // one check period of 5 s, and the start
  EXPECT_EQ(2, starts());
  EXPECT_TRUE(watchdogCounts(1));
  // The embedder's iterator with the watchdog's record shows the same count.
  EXPECT_NE(std::string::npos, hostListing().find(" restarts 1/3"))
      << qortest::readFile(run.file("host.out"));
}

TEST_F(TwoProcesses, SigtermStopsTheWatchdogCleanlyAndLeavesTheOSAgentRunningWithNoMarker) {
  startWatchdog();
  ASSERT_TRUE(hostUp());
  watchdog->signal(SIGTERM);
  EXPECT_EQ(0, watchdog->wait(5000));
  EXPECT_EQ("\t**** qorwd terminated ****\n", watchdog->err());
  EXPECT_EQ(0, kill(hostPid(), 0));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(run.file("wd.trace")),
                                         "Signal captured: 15 (Terminated)"));
  // qorwd leaves the OS agent alone on its way out: no stop, so no marker.
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(run.file("wd.trace")), "disable stop file"));
  EXPECT_FALSE(qortest::fileExists(marker()));
  watchdog.reset();
}

// The OS agent's record in the watchdog process is managed by it (state 2),
// which a recycle and a count reset accept as managed.
TEST_F(TwoProcesses, AStateCommandForTheOSAgentsCodeIsForwardedToTheWatchdogWhichRecyclesIt) {
  startWatchdog();
  ASSERT_TRUE(hostUp());
  const int first = hostPid();
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        std::string answer;
        return sendWDQuery("622 QUERY HEALTH_INFO", answer) == 0 && answer.size() > 2;
      },
      15000));
  // qorhost does not hold its own record: it hands the request to qorwd.
  // qorwd answers "0" once the recycle is queued; the stop may then reach
  // qorhost before it has passed the answer on, and the connection closes
  // with no answer (6).
  const int result = sendTEOCommand("622 started qb");
  EXPECT_TRUE(result == 0 || result == 6) << result;
  ASSERT_TRUE(hostUp(first));
  EXPECT_EQ(2, starts());
  const std::string trace = qortest::readFile(run.file("host.trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Recycle OS Agent.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(run.file("wd.trace")),
                                         "Initiating recycle of agent id (e2e.host)."));
  // The marker stood while qorwd itself stopped qorhost, and is gone now.
  const std::string wdTrace = qortest::readFile(run.file("wd.trace"));
  EXPECT_EQ(1, qortest::countOccurrences(wdTrace, "Creating Watchdog disable stop file " + marker() + "."));
  EXPECT_LE(1, qortest::countOccurrences(wdTrace, "Removing Watchdog disable stop file " + marker() + "."));
  EXPECT_FALSE(qortest::fileExists(marker()));
}

TEST_F(TwoProcesses, TheWatchdogResetsTheOSAgentsCountOnRequest) {
  startWatchdog();
  ASSERT_TRUE(hostUp());
  const int first = hostPid();
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        std::string answer;
        return sendWDQuery("622 QUERY HEALTH_INFO", answer) == 0 && answer.size() > 2;
      },
      15000));
  // Nothing to reset yet.
  ASSERT_TRUE(watchdogCounts(0));
  EXPECT_EQ(603, sendWDCommand("622 RESET_COUNT"));
  kill(first, SIGKILL);
  ASSERT_TRUE(hostUp(first));
  ASSERT_TRUE(watchdogCounts(1));
  EXPECT_EQ(0, sendWDCommand("622 RESET_COUNT"));
  EXPECT_TRUE(watchdogCounts(0));
}

}  // namespace
