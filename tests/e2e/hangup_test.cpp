// SIGHUP as logrotate sends it: qorhost and qorwd open their trace file anew
// at its path once the old one has been moved away, lose no line on the way,
// and run on; without a trace file the signal changes nothing.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "e2e/e2ehelp.h"
#include "support/qortest.h"

namespace {

using e2e::tool;

bool fileHas(const std::string& path, const std::string& text) {
  return qortest::readFile(path).find(text) != std::string::npos;
}

// Still running after a moment: the signal did not end it.
bool runsOn(qortest::Child& program) { return program.wait(300) == -1; }

// Stops qorhost, whose trace file was moved to trace.1 after its startup and
// reopened: the startup is told in the old file alone, the shutdown in the
// new one alone.
void stopAndExpectTheStoryOnBothSidesOfTheMove(qortest::Child& host, const std::string& trace) {
  host.signal(SIGINT);
  EXPECT_EQ(0, host.wait(10000)) << host.err();
  const std::string before = qortest::readFile(trace + ".1");
  const std::string after = qortest::readFile(trace);
  EXPECT_EQ(1, qortest::countOccurrences(before, "startup complete message received.\n"));
  EXPECT_EQ(0, qortest::countOccurrences(before, "Shutdown complete message received.\n"));
  EXPECT_EQ(0, qortest::countOccurrences(after, "startup complete message received.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(after, "Shutdown complete message received.\n"));
}

TEST(Hangup, QorhostWritesItsTracesToANewFileAfterSighupAndRunsOn) {
  qortest::TempDir dir;
  const std::string trace = dir.file("trace");
  qortest::Child host({tool("qorhost"), "--cap-dir", dir.path(), "--ip-dir", dir.path(), "--trace-level",
                       "146", "--trace-file", trace});
  ASSERT_TRUE(host.waitForOutput("qorhost: service started", 10000)) << host.out() << host.err();
  ASSERT_TRUE(fileHas(trace, "startup complete message received.\n"));

  ASSERT_EQ(0, std::rename(trace.c_str(), (trace + ".1").c_str()));
  host.signal(SIGHUP);
  ASSERT_TRUE(host.waitForOutput("qorhost: SIGHUP received, trace file reopened\n", 5000)) << host.out();
  EXPECT_TRUE(runsOn(host));
  EXPECT_TRUE(qortest::fileExists(trace));

  stopAndExpectTheStoryOnBothSidesOfTheMove(host, trace);
  EXPECT_EQ(std::string::npos, host.err().find("trace file")) << host.err();
}

TEST(Hangup, QorhostWithoutATraceFileRunsOnAfterSighup) {
  qortest::TempDir dir;
  qortest::Child host({tool("qorhost"), "--cap-dir", dir.path(), "--ip-dir", dir.path()},
                      {"QOR_TRACE_LEVEL=128"});
  ASSERT_TRUE(host.waitForOutput("qorhost: service started", 10000)) << host.out() << host.err();
  host.signal(SIGHUP);
  ASSERT_TRUE(host.waitForOutput("qorhost: SIGHUP received, no trace file reopened\n", 5000)) << host.out();
  host.signal(SIGHUP);
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::countOccurrences(host.out(), "qorhost: SIGHUP received, no trace file reopened\n") ==
               2;
      },
      5000))
      << host.out();
  EXPECT_TRUE(runsOn(host));
  host.signal(SIGTERM);
  EXPECT_EQ(0, host.wait(10000));
  EXPECT_NE(std::string::npos, host.out().find("qorhost: SIGTERM received, stopping\n"));
  EXPECT_EQ(std::string::npos, host.err().find("cannot")) << host.err();
}

// qorwd's main loop has begun: the service has started and set its masks.
bool qorwdLooping(const std::string& traces) {
  return traces.find("Enter loop for waiting for thread requests") != std::string::npos;
}

TEST(Hangup, QorwdWritesItsTracesToANewFileAfterSighupAndRunsOn) {
  qortest::TempDir dir;
  const std::string trace = dir.file("trace");
  qortest::Child watchdog({tool("qorwd"), "--cap-dir", dir.path(), "--ip-dir", dir.path(), "--trace-level",
                           "146", "--trace-file", trace});
  ASSERT_TRUE(qortest::waitFor([&] { return qorwdLooping(qortest::readFile(trace)); }, 10000));

  ASSERT_EQ(0, std::rename(trace.c_str(), (trace + ".1").c_str()));
  watchdog.signal(SIGHUP);
  ASSERT_TRUE(qortest::waitFor(
      [&] { return fileHas(trace, "Signal captured: 1 (Hangup); trace file reopened"); }, 3000))
      << qortest::readFile(trace + ".1");
  EXPECT_TRUE(runsOn(watchdog));

  watchdog.signal(SIGTERM);
  EXPECT_EQ(0, watchdog.wait(5000));
  EXPECT_EQ("\t**** qorwd terminated ****\n", watchdog.err());
  const std::string before = qortest::readFile(trace + ".1");
  const std::string after = qortest::readFile(trace);
  EXPECT_TRUE(qorwdLooping(before));
  EXPECT_EQ(0, qortest::countOccurrences(before, "Signal captured:"));
  EXPECT_EQ(1, qortest::countOccurrences(after, "Signal captured: 1 (Hangup); trace file reopened"));
  EXPECT_EQ(1, qortest::countOccurrences(after, "Signal captured: 15 (Terminated)"));
  EXPECT_EQ(1, qortest::countOccurrences(after, "Shutting down qorwd..."));
}

TEST(Hangup, QorwdWithoutATraceFileRunsOnAfterSighup) {
  qortest::TempDir dir;
  qortest::Child watchdog({tool("qorwd"), "--cap-dir", dir.path(), "--ip-dir", dir.path()},
                          {"QOR_TRACE_LEVEL=146"});
  ASSERT_TRUE(qortest::waitFor([&] { return qorwdLooping(watchdog.err()); }, 10000)) << watchdog.err();
  watchdog.signal(SIGHUP);
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return watchdog.err().find("Signal captured: 1 (Hangup); no trace file reopened") !=
               std::string::npos;
      },
      3000))
      << watchdog.err();
  EXPECT_TRUE(runsOn(watchdog));
  watchdog.signal(SIGTERM);
  EXPECT_EQ(0, watchdog.wait(5000));
  EXPECT_EQ(1, qortest::countOccurrences(watchdog.err(), "Signal captured: 15 (Terminated)"));
}

// logrotate lies in sbin, which a user's PATH may lack.
std::string logrotateProgram() {
  for (const char* path : {"/usr/sbin/logrotate", "/sbin/logrotate", "/usr/bin/logrotate"}) {
    if (access(path, X_OK) == 0) return path;
  }
  return std::string();
}

TEST(Hangup, TheExampleLogrotateStanzaMovesQorhostsTraceFileAndQorhostWritesOnInANewOne) {
  const std::string logrotate = logrotateProgram();
  if (logrotate.empty()) GTEST_SKIP() << "logrotate is not installed (make deps installs it)";
  qortest::TempDir dir;
  const std::string trace = dir.file("qorhost.trace");
  qortest::Child host({tool("qorhost"), "--cap-dir", dir.path(), "--ip-dir", dir.path(), "--trace-level",
                       "146", "--trace-file", trace});
  ASSERT_TRUE(host.waitForOutput("qorhost: service started", 10000)) << host.out() << host.err();

  // The stanza as shipped, on this test's files, with a systemctl that knows
  // qorhost.service as this qorhost and no qorwd.service.
  std::string stanza = qortest::readFile(qortest::sourceDir() + "/examples/logrotate/qor");
  const std::string paths = "/var/log/qor/qorhost.trace /var/log/qor/qorwd.trace";
  const size_t at = stanza.find(paths);
  ASSERT_NE(std::string::npos, at) << stanza;
  stanza.replace(at, paths.size(), trace + " " + dir.file("qorwd.trace"));
  qortest::writeFile(dir.file("qor.logrotate"), stanza);
  ASSERT_EQ(0, chmod(dir.file("qor.logrotate").c_str(), 0644));
  ASSERT_EQ(0, mkdir(dir.file("bin").c_str(), 0755));
  qortest::writeFile(dir.file("bin/systemctl"),
                     "#!/bin/sh\n"
                     "[ \"$1 $2 $3 $4\" = \"show --property=MainPID --value qorhost.service\" ] && echo " +
                         std::to_string(host.pid()) +
                         " && exit 0\n"
                         "echo 0\n");
  qortest::makeExecutable(dir.file("bin/systemctl"));
  setenv("PATH", (dir.file("bin") + ":" + std::getenv("PATH")).c_str(), 1);

  qortest::RunResult rotation = qortest::runProgram(
      {logrotate, "--force", "--state", dir.file("logrotate.state"), dir.file("qor.logrotate")});
  EXPECT_EQ(0, rotation.exitCode) << rotation.out << rotation.err;
  ASSERT_TRUE(host.waitForOutput("qorhost: SIGHUP received, trace file reopened\n", 5000)) << host.out();
  EXPECT_TRUE(runsOn(host));

  // delaycompress: the newest old file stays as it was until the next rotation.
  stopAndExpectTheStoryOnBothSidesOfTheMove(host, trace);
}

}  // namespace
