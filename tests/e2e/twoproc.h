// The two programs as a host runs them, for the tests of tests/e2e: qorwd
// keeps a private copy of qorhost alive as the OS agent through a start
// script that launches it in the background, its input on a FIFO through
// which the test types commands; both share one CAP directory and one socket
// directory.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "e2e/e2ehelp.h"
#include "interfaces/qorsockclient.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"

namespace e2e {

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
    // qorhost's standard input. Opened for reading and writing, it never
    // blocks the start script nor ends for qorhost, and each qorhost that
    // qorwd starts opens it anew.
    ASSERT_EQ(0, mkfifo(run.file("host.in").c_str(), 0600));
    proctest::copyProgram(e2e::tool("qorhost"), hostExe());
    qortest::writeFile(run.file("start-host.sh"),
                       "#!/bin/sh\n"
                       // A test may hold the launch back, to tell times apart.
                       "sleep ${QOR_E2E_LAUNCH_DELAY:-0}\n"
                       "echo start $(date +%s) >>'" +
                           run.file("starts.log") +
                           "'\n"
                           "'" +
                           hostExe() + "' --cap-dir '" + caps.path() + "' --ip-dir '" + ips.path() +
                           "' --trace-level 146 --trace-file '" + run.file("host.trace") + "' >>'" +
                           run.file("host.out") + "' 2>>'" + run.file("host.err") + "' <>'" +
                           run.file("host.in") +
                           "' &\n"
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
    watchdog.reset(new qortest::Child({e2e::tool("qorwd"), "--cap-dir", caps.path(), "--ip-dir", ips.path(),
                                       "--trace-level", "147", "--trace-file", run.file("wd.trace")},
                                      {"MARLOWHOME=" + run.file("home"), "ZEL_BINARCH=linux"}));
  }
  // Types one operator command into the running qorhost. False, at once,
  // when nothing holds the FIFO open for reading (no qorhost, nor a program
  // it started, which inherits its input), or when the line does not fit.
  bool hostCommand(const std::string& line) {
    const int fd = open(run.file("host.in").c_str(), O_WRONLY | O_NONBLOCK);
    if (fd < 0) return false;
    const std::string text = line + "\n";
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
  }
  // The qorhost that the start script launched last, once it answers on its socket.
  int hostPid() { return std::atoi(qortest::readFile(run.file("host.pid")).c_str()); }
  // Waits until a qorhost other than `notPid` is launched and its service
  // is up; each start adds one "Enter loop" to the shared trace file, so the
  // n-th qorhost seen is up once there are n. (Counted from the hosts seen,
  // not from the lines at the call: the new one may be up before the call.)
  bool hostUp(int notPid = 0) {
    return qortest::waitFor(
        [&] {
          const int pid = hostPid();
          if (pid <= 0 || pid == notPid) return false;
          remember(pid);
          return hostsUp() >= static_cast<int>(hostPids.size());
        },
        30000);
  }
  // Waits until qorhost's output holds `count` listings, each closed by its
  // "qorhost: N agents" line. Each qorhost lists once when its service is up
  // and has collected what qorwd cached; only then does it read commands.
  bool hostListed(int count) {
    return qortest::waitFor([&] { return hostListings() >= count; }, 20000);
  }
  int hostListings() {
    static const std::regex closing("^qorhost: [0-9]+ agents?$");
    int found = 0;
    for (const std::string& line : qortest::linesWith(qortest::readFile(run.file("host.out")), "qorhost: "))
      if (std::regex_match(line, closing)) ++found;
    return found;
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
  // The second of each run of the start script, before it launched qorhost.
  std::vector<time_t> startTimes() {
    std::vector<time_t> times;
    for (const std::string& line : qortest::linesWith(qortest::readFile(run.file("starts.log")), "start "))
      times.push_back(static_cast<time_t>(std::atoll(line.c_str() + 6)));
    return times;
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

}  // namespace e2e
