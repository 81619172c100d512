// The watchdog process's main loop on a thread of the test: how often it
// reaps the commands left behind, and how quickly a signal ends it.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <string>
#include <thread>

#include "core/qorctrl.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/qorwdproc.h"

namespace {

int cleanings(const std::string& traceFile) {
  int entries = 0;
  for (const std::string& line :
       qortest::linesWith(qortest::readFile(traceFile), "cleanUpDefunctProcesses:")) {
    if (line.find("> entry") != std::string::npos) ++entries;
  }
  return entries;
}

TEST(WatchdogMainLoop, WithAnIntervalOfZeroTheCommandsAreReapedEveryTwoSecondsAndASignalEndsItWithinASecond) {
  unsetenv("QOR_DISCOVERY_INTERVAL");
  ASSERT_EQ(0, Controller::getController()->getDiscoveryInterval());
  qortest::TempDir dir;
  const std::string trace = dir.file("trace");
  qortest::traceTo(trace, QOR_TL_ENTRY | QOR_TL_STORY);
  const long long start = qortest::nowMs();
  std::thread loop(WatchdogMain);
  // The count of ticks is tested before it grows: interval + 2 seconds apart.
  EXPECT_TRUE(qortest::waitFor([&] { return cleanings(trace) >= 1; }, 4000));
  const long long first = qortest::nowMs() - start;
  EXPECT_TRUE(qortest::waitFor([&] { return cleanings(trace) >= 2; }, 4000));
  const long long second = qortest::nowMs() - start;
  EXPECT_GE(first, 1900);
  EXPECT_LE(first, 2700);
  EXPECT_GE(second - first, 1800);
  EXPECT_LE(second - first, 2300);
  // As the handler does it, on another thread than the loop's.
  const long long signalled = qortest::nowMs();
  SignalQOR(SIGTERM);
  loop.join();
  EXPECT_LT(qortest::nowMs() - signalled, 1300);
  EXPECT_EQ(2, cleanings(trace));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(trace), "Signal captured: 15 (Terminated)"));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(trace), "Shutting down qorwd..."));
}

TEST(WatchdogMainLoop, ASighupReopensTheTraceFileAndTheLoopRunsOnUntilASignalEndsIt) {
  qortest::TempDir dir;
  const std::string trace = dir.file("trace");
  qortest::traceTo(trace, QOR_TL_STORY);
  // Blocked here, so that the loop's thread starts with it blocked, as the
  // service's threads do in qorwd: the signal then waits for the loop.
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &hangup, nullptr));
  std::thread loop(WatchdogMain);
  ASSERT_EQ(0, std::rename(trace.c_str(), (trace + ".1").c_str()));
  pthread_kill(loop.native_handle(), SIGHUP);
  const bool reopened = qortest::waitFor(
      [&] {
        return qortest::readFile(trace).find("Signal captured: 1 (Hangup); trace file reopened") !=
               std::string::npos;
      },
      3000);
  // The loop runs on after the reopen, and a stop signal still ends it.
  const long long signalled = qortest::nowMs();
  SignalQOR(SIGTERM);
  loop.join();
  EXPECT_TRUE(reopened);
  EXPECT_LT(qortest::nowMs() - signalled, 1300);
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(trace + ".1"), "Signal captured:"));
  const std::string after = qortest::readFile(trace);
  EXPECT_EQ(1, qortest::countOccurrences(after, "Signal captured: 1 (Hangup); trace file reopened"));
  EXPECT_EQ(1, qortest::countOccurrences(after, "Signal captured: 15 (Terminated)"));
}

}  // namespace
