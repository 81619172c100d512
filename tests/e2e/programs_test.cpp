// The programs as a user runs them: help texts, start, and a clean stop.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>

#include "support/qortest.h"

namespace {

std::string tool(const std::string& name) { return qortest::binaryDir() + "/tools/" + name; }

}  // namespace

TEST(Qorhost, HelpExplainsEveryOptionAndVariable) {
  qortest::RunResult result = qortest::runProgram({tool("qorhost"), "--help"});
  EXPECT_EQ(0, result.exitCode);
  for (const char* word :
       {"--cap-dir", "--ip-dir", "--trace-level", "--trace-file", "QOR_CAP_DIR", "QOR_IP_DIR",
        "QOR_TRACE_LEVEL", "QOR_TRACE_FILE", "QOR_CAP_DISCOVERY_INTERVAL", "QOR_DISCOVERY_INTERVAL",
        "QOR_ZEL_DISCOVERY_INTERVAL", "QOR_CMD_TIMEOUT", "QOR_CACHE_LIMIT", "MARLOWHOME",
        "PROCESSOR_ARCHITECTURE", "managerType WatchDog", "examples/cap/qorhost.xml"}) {
    EXPECT_NE(std::string::npos, result.out.find(word)) << word;
  }
  for (const char* runAs : {"$MARLOWHOME/config/<host>_hlxrunas.cfg", "hmvrunas.cfg", "##USER##"}) {
    EXPECT_NE(std::string::npos, result.out.find(runAs)) << runAs;
  }
}

TEST(Qorhost, UnknownArgumentIsRefused) {
  qortest::RunResult result = qortest::runProgram({tool("qorhost"), "--bogus"});
  EXPECT_EQ(2, result.exitCode);
  EXPECT_EQ("qorhost: unknown argument '--bogus' (try --help)\n", result.err);
}

TEST(Qorhost, StartsAndStopsCleanlyOnSigintWritingTheStateFile) {
  qortest::TempDir dir;
  qortest::Child host({tool("qorhost"), "--cap-dir", dir.path(), "--ip-dir", dir.path(), "--trace-level",
                       "146", "--trace-file=" + dir.file("trace")});
  ASSERT_TRUE(host.waitForOutput("qorhost: service started; press Ctrl-C to stop\n", 10000)) << host.out();
  EXPECT_NE(std::string::npos, host.out().find("qorhost: CAP directories: " + dir.path() + "\n"));
  host.signal(SIGINT);
  EXPECT_EQ(0, host.wait(10000)) << host.err();
  EXPECT_NE(std::string::npos, host.out().find("qorhost: SIGINT received, stopping\n"));
  EXPECT_NE(std::string::npos, host.out().find("qorhost: stopped\n"));
  EXPECT_EQ("0\n", qortest::readFile(dir.file("teo.dat")));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "startup complete message received.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Shutdown complete message received.\n"));
}

TEST(Qorhost, OptionsWinOverTheEnvironment) {
  qortest::TempDir fromOption;
  qortest::TempDir fromEnvironment;
  qortest::Child host({tool("qorhost"), "--cap-dir", fromOption.path()},
                      {"QOR_CAP_DIR=" + fromEnvironment.path(), "QOR_TRACE_LEVEL=0"});
  ASSERT_TRUE(host.waitForOutput("service started", 10000));
  host.signal(SIGTERM);
  EXPECT_EQ(0, host.wait(10000));
  EXPECT_TRUE(qortest::fileExists(fromOption.file("teo.dat")));
  EXPECT_FALSE(qortest::fileExists(fromEnvironment.file("teo.dat")));
}

TEST(Qorwd, HelpAndUnknownArgument) {
  qortest::RunResult help = qortest::runProgram({tool("qorwd"), "--help"});
  EXPECT_EQ(0, help.exitCode);
  EXPECT_NE(std::string::npos, help.out.find("watchdog mode"));
  EXPECT_NE(std::string::npos, help.out.find("Exit codes:\n  0  stopped by a signal, or --help\n"
                                             "  2  unknown argument or bad option value\n"));
  EXPECT_NE(std::string::npos, help.out.find(".qorwd_disable_stop"));
  EXPECT_EQ(2, qortest::runProgram({tool("qorwd"), "extra"}).exitCode);
}

TEST(Qorwd, SigtermEndsTheMainLoopWithinAboutASecond) {
  qortest::TempDir dir;
  qortest::Child watchdog({tool("qorwd"), "--cap-dir", dir.path(), "--ip-dir", dir.path(), "--trace-level",
                           "146", "--trace-file", dir.file("trace")});
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::readFile(dir.file("trace")).find("Enter loop for waiting for thread requests") !=
               std::string::npos;
      },
      10000));
  long long before = qortest::nowMs();
  watchdog.signal(SIGTERM);
  EXPECT_EQ(0, watchdog.wait(5000));
  EXPECT_LT(qortest::nowMs() - before, 2500);
  EXPECT_EQ("\t**** qorwd terminated ****\n", watchdog.err());
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Signal captured: 15 (Terminated)"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Shutting down qorwd..."));
  // The watchdog process never writes the state file.
  EXPECT_FALSE(qortest::fileExists(dir.file("teo.dat")));
}

TEST(Qorwd, SigillIsARequestToShutDownLikeTheOthers) {
  qortest::TempDir dir;
  qortest::Child watchdog({tool("qorwd"), "--cap-dir", dir.path(), "--ip-dir", dir.path(), "--trace-level",
                           "146", "--trace-file", dir.file("trace")});
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::readFile(dir.file("trace")).find("Enter loop for waiting for thread requests") !=
               std::string::npos;
      },
      10000));
  watchdog.signal(SIGILL);
  EXPECT_EQ(0, watchdog.wait(5000));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "Signal captured: 4 ("));
}

TEST(Qorctl, HelpListsTheCommands) {
  qortest::RunResult result = qortest::runProgram({tool("qorctl"), "--help"});
  EXPECT_EQ(0, result.exitCode);
  EXPECT_NE(std::string::npos, result.out.find("Usage: qorctl COMMAND"));
  EXPECT_EQ(2, qortest::runProgram({tool("qorctl")}).exitCode);
}

TEST(Qorhost, ShowsCapFilesFoundAddedRemovedAndRefused) {
  qortest::TempDir dir;
  qortest::TempDir caps;
  for (const char* name : {"sleeper.xml", "watched.xml"}) {
    qortest::writeFile(caps.file(name), qortest::readFile(qortest::sourceDir() + "/examples/cap/" + name));
  }
  qortest::Child host({tool("qorhost"), "--cap-dir", caps.path(), "--ip-dir", dir.path(), "--trace-level",
                       "146", "--trace-file", dir.file("trace")});
  ASSERT_TRUE(host.waitForOutput("service started", 10000)) << host.out();
  // A file written before the watcher's first listing would be in it, and never
  // reported: the changes below wait for that listing.
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::readFile(dir.file("trace")).find("Size of currentFileList") != std::string::npos;
      },
      8000));
  // Found at startup, in name order. Startup waits until the command handler
  // has taken the files in, not until the message handler has delivered
  // their events, so these lines may come just after "service started".
  const std::string sleeperFound =
      caps.file("sleeper.xml") + " CAP File Event: Agent added to system - CAP file found.\n";
  const std::string watchedFound =
      caps.file("watched.xml") + " CAP File Event: Agent added to system - CAP file found.\n";
  ASSERT_TRUE(host.waitForOutput(watchedFound, 2000)) << host.out();
  std::string out = host.out();
  ASSERT_NE(std::string::npos, out.find(sleeperFound)) << out;
  EXPECT_LT(out.find(sleeperFound), out.find(watchedFound));

  qortest::writeFile(caps.file("pattern.xml"),
                     qortest::readFile(qortest::sourceDir() + "/examples/cap/pattern.xml"));
  EXPECT_TRUE(host.waitForOutput(
      caps.file("pattern.xml") + " CAP File Event: Agent added to system - CAP file found.\n", 8000));

  std::remove(caps.file("watched.xml").c_str());
  EXPECT_TRUE(host.waitForOutput(
      caps.file("watched.xml") + " CAP File Event: Agent removed from system - CAP file removed.\n", 8000));
  EXPECT_TRUE(host.waitForOutput("[ 1] ALERT agent '", 2000));

  qortest::writeFile(caps.file("broken.xml"), "<subagents>\n");
  EXPECT_TRUE(host.waitForOutput(
      caps.file("broken.xml") + " CAP File Event: Agent added to system - CAP file found.\n", 8000));
  // Why it was refused stands in the error traces.
  EXPECT_TRUE(qortest::waitFor(
      [&] { return qortest::readFile(dir.file("trace")).find("ParseCAPFile failed.") != std::string::npos; },
      2000));

  host.signal(SIGINT);
  EXPECT_EQ(0, host.wait(10000));
}
