// `make demo` as a user runs it: examples/scripts/demo.sh starts qorwd,
// which starts qorhost by the example CAP file's start script, which starts
// the example programs; Ctrl-C to the terminal's process group stops them
// all. The demo runs in a temporary folder, with a copy of qorhost of its
// own (the watchdog tells the OS agent by its executable).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"

namespace {

const std::vector<std::string> kPrograms = {"qor-sleeper", "qor-watched", "qor-pattern", "qor-multi.alpha"};

std::string exeOf(int pid) {
  char path[4096] = {0};
  if (pid <= 0 || readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path - 1) < 0)
    return "";
  return path;
}

class Demo : public ::testing::Test {
 protected:
  void SetUp() override {
    mkdir(tmp.file("bin").c_str(), 0755);
    proctest::copyProgram(e2e::tool("qorhost"), qorhost());
    // setsid makes the script the leader of a process group of its own,
    // as a shell makes `make demo` the foreground group of a terminal.
    demo.reset(new qortest::Child(
        {"/usr/bin/setsid", "/bin/bash", qortest::sourceDir() + "/examples/scripts/demo.sh", "--build",
         qortest::binaryDir(), "--dir", tmp.file("demo"), "--qorhost", qorhost()},
        {"QOR_EXAMPLES_RUN=" + run(), "QOR_TRACE_LEVEL=128"}, qortest::Child::Input::Pipe));
  }
  void TearDown() override {
    if (demo) {
      kill(-demo->pid(), SIGKILL);
      demo->wait(5000);
    }
    proctest::killProcess(pidIn("qorhost.pid"));
    for (const std::string& name : kPrograms) proctest::killProcess(pidIn(name + ".pid"));
    proctest::killProcess(pidIn("qor-multi.beta.pid"));
  }

  std::string qorhost() { return tmp.file("bin/qorhost"); }
  std::string run() { return tmp.file("run"); }
  std::string log() { return qortest::readFile(run() + "/qorhost.log"); }
  int pidIn(const std::string& file) { return std::atoi(qortest::readFile(run() + "/" + file).c_str()); }
  // The pid named by the file when that process runs `exe` now, else 0.
  int runningPid(const std::string& file, const std::string& exe) {
    const int pid = pidIn(file);
    return exeOf(pid) == exe ? pid : 0;
  }
  int hostPid() { return runningPid("qorhost.pid", qorhost()); }
  bool allProgramsRun() {
    for (const std::string& name : kPrograms)
      if (runningPid(name + ".pid", run() + "/bin/" + name) == 0) return false;
    return true;
  }
  void ctrlC() { kill(-demo->pid(), SIGINT); }

  qortest::TempDir tmp;
  std::unique_ptr<qortest::Child> demo;
};

TEST_F(Demo, QorwdStartsQorhostWhichStartsTheProgramsFindsAnInstanceStartedByHandAndCtrlCStopsThemAll) {
  const long long begun = qortest::nowMs();
  ASSERT_TRUE(qortest::waitFor([&] { return hostPid() > 0 && allProgramsRun(); }, 20000))
      << demo->out() << demo->err() << log();
  EXPECT_LT(qortest::nowMs() - begun, 20000);
  const int host = hostPid();
  std::vector<int> programs;
  for (const std::string& name : kPrograms) programs.push_back(pidIn(name + ".pid"));
  // qorhost heard the start of each program.
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::countOccurrences(log(), " Operational Event: Agent started successfully.") >= 4;
      },
      10000))
      << log();
  for (const char* agent : {"Example sleeper", "Example watched program", "Example pattern"})
    EXPECT_EQ(1, qortest::countOccurrences(
                     log(), std::string("] ") + agent + " Operational Event: Agent initial start"))
        << agent;

  // A line typed at the demo is a command for qorhost.
  const int listings = qortest::countOccurrences(log(), "qorhost: 5 agents\n");
  ASSERT_TRUE(demo->write("list\n"));
  EXPECT_TRUE(qortest::waitFor(
      [&] { return qortest::countOccurrences(log(), "qorhost: 5 agents\n") > listings; }, 5000))
      << log();
  EXPECT_NE(
      std::string::npos,
      log().find(
          "qorhost: agent 'qorhost OS agent' id example.qorhost managed 1 (managed) state 4 (running) pid " +
          std::to_string(host) + " restarts 0/3\n"))
      << log();

  // The README's second instance: found within one discovery interval.
  qortest::RunResult beta = qortest::runProgram(
      {"/bin/sh", qortest::sourceDir() + "/examples/scripts/example-daemon.sh", "start", "qor-multi.beta"},
      {"QOR_EXAMPLES_RUN=" + run()});
  ASSERT_EQ(0, beta.exitCode) << beta.err;
  programs.push_back(pidIn("qor-multi.beta.pid"));
  const std::string betaLine = "' id example.multi managed 1 (managed) state 4 (running) pid " +
                               std::to_string(programs.back()) + " restarts 0/3\n";
  EXPECT_TRUE(qortest::waitFor(
      [&] {
        demo->write("list\n");
        return qortest::waitFor([&] { return log().find(betaLine) != std::string::npos; }, 1000);
      },
      10000))
      << log();

  ctrlC();
  EXPECT_EQ(0, demo->wait(20000)) << demo->out() << demo->err();
  EXPECT_NE(std::string::npos, demo->err().find("\t**** qorwd terminated ****\n")) << demo->err();
  EXPECT_NE(std::string::npos, demo->out().find("demo.sh: stopping qorhost and the example programs\n"));
  // Gone, or a zombie that nobody reaps in a container: no executable.
  EXPECT_EQ("", exeOf(host));
  for (int pid : programs) EXPECT_EQ("", exeOf(pid)) << pid;
  EXPECT_NE(std::string::npos, log().find("qorhost: SIGTERM received, stopping\n"));
  // qorhost stopped by its stop signal, not killed: it wrote its state file.
  EXPECT_TRUE(qortest::fileExists(tmp.file("demo/cap/teo.dat")));
  demo.reset();
}

// What the README tells a user to try: kill -9 of qorhost.
TEST_F(Demo, AQorhostKilledWithSignalNineIsStartedAgainByQorwdAndShowsTheEventsItMissed) {
  ASSERT_TRUE(qortest::waitFor([&] { return hostPid() > 0 && allProgramsRun(); }, 20000)) << log();
  const int first = hostPid();
  const long long killed = qortest::nowMs();
  kill(first, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return hostPid() > 0 && hostPid() != first; }, 15000)) << log();
  // One check period of 5 s, and the start.
  EXPECT_LT(qortest::nowMs() - killed, 11000);
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::countOccurrences(
                   log(), "] qorhost OS agent Operational Event: Agent stopped abnormally.\n") == 1;
      },
      10000))
      << log();
  EXPECT_EQ(1, qortest::countOccurrences(log(), "] ALERT agent 'qorhost OS agent' state 4 managed 2 pid " +
                                                    std::to_string(first) + ": N/A\n"))
      << log();
  // The example programs ran on through it: the new qorhost found them.
  EXPECT_TRUE(allProgramsRun());
  ctrlC();
  EXPECT_EQ(0, demo->wait(20000)) << demo->err();
  demo.reset();
}

}  // namespace
