// The two processes together, as a host runs them: qorwd keeps qorhost, the
// OS agent here, alive through a start script that launches it in the
// background, and the two answer each other over their sockets.
#include "e2e/twoproc.h"

namespace {

using e2e::TwoProcesses;

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
