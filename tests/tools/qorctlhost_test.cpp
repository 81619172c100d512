// qorctl against a real qorhost: the example sleeper agent and qorhost itself
// as the OS agent, from the examples' CAP files, with real programs started by
// the example script and a real control socket.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "support/qortest.h"
#include "tools/controlhost.h"
#include "watchdog/proctest.h"

namespace {

const char kSleeper[] = "Example sleeper";

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string qorctlPath() { return qortest::binaryDir() + "/tools/qorctl"; }

qortest::RunResult qorctl(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
  args.insert(args.begin(), qorctlPath());
  return qortest::runProgram(args, env);
}

// A directory of its own for a qorhost: cap/ with copies of the examples'
// sleeper.xml and qorhost.xml, ip/ for the sockets, run/ for the example
// programs and their pid files.
class QorctlHost : public ::testing::Test {
 protected:
  QorctlHost() {
    unsetenv("QOR_IP_DIR");
    unsetenv("NO_COLOR");
    for (const char* sub : {"cap", "ip", "run", "run/bin"}) mkdir(dir.file(sub).c_str(), 0770);
    // The service takes an agent whose program is missing out of management,
    // and the example script makes it only at its first start.
    proctest::copyProgram("/bin/sleep", dir.file("run/bin/qor-sleeper"));
    const std::string examples = qortest::sourceDir() + "/examples";
    qortest::writeFile(dir.file("cap/sleeper.xml"), replaced(qortest::readFile(examples + "/cap/sleeper.xml"),
                                                             "/tmp/qor-examples", dir.file("run")));
    // qorhost is the OS agent, told by its executable: a copy of its own, so
    // that the qorhosts of tests that run at the same time are not taken for
    // this one.
    proctest::copyProgram(qortest::binaryDir() + "/tools/qorhost", dir.file("qorhost"));
    qortest::writeFile(dir.file("cap/qorhost.xml"), replaced(qortest::readFile(examples + "/cap/qorhost.xml"),
                                                             "/usr/local/bin/qorhost", dir.file("qorhost")));
  }

  ~QorctlHost() override {
    if (host) {
      host->signal(SIGTERM);
      host->wait(10000);
    }
    // The programs the example script started outlive qorhost.
    for (const char* program : {"qor-sleeper", "qor-watched", "qor-pattern"}) runScript("stop", program);
  }

  qortest::RunResult runScript(const std::string& action, const std::string& program) {
    return qortest::runProgram(
        {"/bin/sh", qortest::sourceDir() + "/examples/scripts/example-daemon.sh", action, program},
        {"QOR_EXAMPLES_RUN=" + dir.file("run")});
  }

  std::string socketPath() const { return dir.file("ip/qorhost.sock"); }

  void startHost() {
    host.reset(new qortest::Child(
        {dir.file("qorhost"), "--cap-dir", dir.file("cap"), "--ip-dir", dir.file("ip")},
        {"QOR_EXAMPLES=" + qortest::sourceDir() + "/examples", "QOR_EXAMPLES_RUN=" + dir.file("run")},
        qortest::Child::Input::Pipe));
    started = qortest::nowMs();
    ASSERT_TRUE(host->waitForOutput("qorhost: service started", 15000)) << host->out() << host->err();
  }

  // qorctl with the socket given by --socket.
  qortest::RunResult ctl(std::vector<std::string> args) {
    args.push_back("--socket");
    args.push_back(socketPath());
    return qorctl(args);
  }

  int sleeperPid() { return std::atoi(qortest::readFile(dir.file("run/qor-sleeper.pid")).c_str()); }

  bool waitForState(const std::string& name, const std::string& state, int timeoutMs) {
    return qortest::waitFor(
        [&] {
          qortest::RunResult run = ctl({"show", name});
          return run.exitCode == 0 && run.out.find("\nstate=" + state + "\n") != std::string::npos;
        },
        timeoutMs);
  }

  // The sleeper's first check starts it, within a check period of 5 seconds.
  void startSleeper() {
    startHost();
    ASSERT_TRUE(waitForState(kSleeper, "running", 20000)) << host->out();
  }

  qortest::TempDir dir;
  std::unique_ptr<qortest::Child> host;
  long long started = 0;
};

TEST_F(QorctlHost, StatusShowsEachAgentOnAnAlignedLineAndExitsZeroWhenAllRun) {
  startSleeper();
  // Time enough for qorhost's process to be a second old, at least.
  qortest::waitFor([&] { return qortest::nowMs() - started > 1500; }, 3000);
  qortest::RunResult run = ctl({"status"});
  EXPECT_EQ(0, run.exitCode) << run.err;
  EXPECT_EQ("", run.err);
  const std::regex line(
      "Example sleeper   running  pid ([0-9]+), uptime (\\d\\d):(\\d\\d):(\\d\\d), restarts 0/3\n"
      "qorhost OS agent  running  pid ([0-9]+), uptime (\\d\\d):(\\d\\d):(\\d\\d), restarts 0/3\n");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(run.out, match, line)) << run.out;
  EXPECT_EQ(std::to_string(sleeperPid()), match[1].str());
  EXPECT_EQ(std::to_string(host->pid()), match[5].str());
  // The age of qorhost's process, which this test started.
  const long long hostAge = std::stoll(match[6]) * 3600 + std::stoll(match[7]) * 60 + std::stoll(match[8]);
  EXPECT_GE(hostAge, 1);
  EXPECT_LE(hostAge, (qortest::nowMs() - started) / 1000 + 2);
}

// The demo's agents but the multi-instance one, which needs the example
// suite's tool: each started at its first check, each on its line.
TEST_F(QorctlHost, StatusShowsTheExampleAgentsOfTheDemoAllRunning) {
  const std::string examples = qortest::sourceDir() + "/examples";
  for (const char* name : {"watched", "pattern"}) {
    proctest::copyProgram("/bin/sleep", dir.file(std::string("run/bin/qor-") + name));
    qortest::writeFile(dir.file(std::string("cap/") + name + ".xml"),
                       replaced(qortest::readFile(examples + "/cap/" + name + ".xml"), "/tmp/qor-examples",
                                dir.file("run")));
  }
  startHost();
  qortest::RunResult run;
  EXPECT_TRUE(qortest::waitFor(
      [&] {
        run = ctl({"status"});
        return run.exitCode == 0;
      },
      20000))
      << run.out;
  const std::regex lines(
      "(Example sleeper|Example watched program|Example pattern|qorhost OS agent) +running  pid [0-9]+, "
      "uptime "
      "\\d\\d:\\d\\d:\\d\\d, restarts 0/[235]\n");
  std::vector<std::string> names;
  for (std::sregex_iterator it(run.out.begin(), run.out.end(), lines), end; it != end; ++it) {
    names.push_back((*it)[1]);
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(std::vector<std::string>(
                {"Example pattern", "Example sleeper", "Example watched program", "qorhost OS agent"}),
            names)
      << run.out;
  EXPECT_EQ(4, qortest::countOccurrences(run.out, "\n"));
}

// script(1) gives qorctl a terminal as its standard output.
TEST_F(QorctlHost, OnATerminalTheStateIsColouredUnlessNoColorIsSet) {
  if (access("/usr/bin/script", X_OK) != 0) GTEST_SKIP() << "script(1) is not installed";
  startSleeper();
  const std::string command = qorctlPath() + " status 'qorhost OS agent' --socket " + socketPath();
  qortest::RunResult coloured = qortest::runProgram({"/usr/bin/script", "-qec", command, "/dev/null"});
  EXPECT_EQ(0, coloured.exitCode);
  EXPECT_EQ(0u, coloured.out.find("qorhost OS agent  \033[32mrunning\033[0m  pid ")) << coloured.out;
  qortest::RunResult plain =
      qortest::runProgram({"/usr/bin/script", "-qec", command, "/dev/null"}, {"NO_COLOR=1"});
  EXPECT_EQ(0u, plain.out.find("qorhost OS agent  running  pid ")) << plain.out;
  EXPECT_EQ(std::string::npos, plain.out.find('\033'));
}

TEST_F(QorctlHost, StatusFindsTheSocketByQorIpDirAndSocketMayStandAnywhere) {
  startSleeper();
  qortest::RunResult byDir = qorctl({"status", kSleeper}, {"QOR_IP_DIR=" + dir.file("ip")});
  EXPECT_EQ(0, byDir.exitCode) << byDir.err;
  EXPECT_EQ(0u, byDir.out.find("Example sleeper  running  pid ")) << byDir.out;
  qortest::RunResult before = qorctl({"--socket", socketPath(), "status", kSleeper});
  qortest::RunResult joined = qorctl({"status", "--socket=" + socketPath(), kSleeper});
  EXPECT_EQ(0, before.exitCode);
  EXPECT_EQ(0, joined.exitCode);
  EXPECT_EQ(byDir.out.substr(0, 30), before.out.substr(0, 30));
  EXPECT_EQ(byDir.out.substr(0, 30), joined.out.substr(0, 30));
}

TEST_F(QorctlHost, StatusJsonGivesTheApisObjectsOfTheAgentsShown) {
  startSleeper();
  qortest::RunResult run = ctl({"status", "--json", kSleeper});
  EXPECT_EQ(0, run.exitCode) << run.err;
  const nlohmann::json body = nlohmann::json::parse(run.out);
  ASSERT_EQ(1u, body.at("agents").size());
  EXPECT_EQ(kSleeper, body["agents"][0].at("name").get<std::string>());
  EXPECT_EQ(4, body["agents"][0].at("state_code").get<int>());
  EXPECT_EQ(sleeperPid(), body["agents"][0].at("pid").get<int>());
}

TEST_F(QorctlHost, AStoppedAgentMakesStatusExitThreeAndShowsNoPid) {
  startSleeper();
  qortest::RunResult stop = ctl({"stop", kSleeper});
  EXPECT_EQ(0, stop.exitCode);
  EXPECT_EQ("stop 'Example sleeper': 0 (accepted)\n", stop.out);
  ASSERT_TRUE(waitForState(kSleeper, "stopped", 15000));
  qortest::RunResult run = ctl({"status"});
  EXPECT_EQ(3, run.exitCode);
  EXPECT_EQ(0u, run.out.find("Example sleeper   stopped  pid -, uptime -, restarts 0/3\n")) << run.out;
  // Only the agents named count.
  EXPECT_EQ(0, ctl({"status", "qorhost OS agent"}).exitCode);
  EXPECT_EQ(3, ctl({"status", "qorhost OS agent", kSleeper}).exitCode);
}

TEST_F(QorctlHost, AnUnknownNameIsSaidAndMakesStatusExitThree) {
  startHost();
  qortest::RunResult run = ctl({"status", "qorhost OS agent", "nosuch"});
  EXPECT_EQ(3, run.exitCode);
  EXPECT_EQ("qorctl status: qorhost knows no agent named 'nosuch'\n", run.err);
  EXPECT_EQ(0u, run.out.find("qorhost OS agent  running  pid ")) << run.out;
}

TEST_F(QorctlHost, EachCommandPrintsItsCodeAndMeaningAndExitsZeroOnlyForZero) {
  startSleeper();
  struct Step {
    std::vector<std::string> args;
    const char* out;
    int exitCode;
    const char* stateAfter;
  };
  const Step steps[] = {
      {{"stop", "Example", "sleeper"}, "stop 'Example sleeper': 0 (accepted)\n", 0, "stopped"},
      {{"stop", kSleeper},
       "stop 'Example sleeper': 201 (agent is starting, stopping or already stopped by an operator)\n",
       1,
       nullptr},
      {{"start", kSleeper}, "start 'Example sleeper': 0 (accepted)\n", 0, "running"},
      {{"recycle", kSleeper}, "recycle 'Example sleeper': 0 (accepted)\n", 0, "running"},
      {{"reset", kSleeper}, "reset 'Example sleeper': 603 (the restart count is already 0)\n", 1, nullptr},
      {{"unmanage", kSleeper}, "unmanage 'Example sleeper': 0 (accepted)\n", 0, nullptr},
      {{"manage", kSleeper}, "manage 'Example sleeper': 0 (accepted)\n", 0, nullptr},
      {{"stop", "nosuch"}, "stop 'nosuch': 202 (no such agent)\n", 1, nullptr},
      {{"start", "qorhost OS agent"},
       "start 'qorhost OS agent': 103 (it is the OS agent, which cannot start itself)\n",
       1,
       nullptr},
  };
  for (const Step& step : steps) {
    qortest::RunResult run = ctl(step.args);
    EXPECT_EQ(step.out, run.out) << step.args[0];
    EXPECT_EQ(step.exitCode, run.exitCode) << step.args[0];
    EXPECT_EQ("", run.err) << step.args[0];
    if (step.stateAfter != nullptr) {
      EXPECT_TRUE(waitForState(kSleeper, step.stateAfter, 15000)) << step.args[0];
    }
  }
}

TEST_F(QorctlHost, ShowPrintsEveryKeyOfTheAgentInTheApisOrder) {
  startSleeper();
  qortest::RunResult run = ctl({"show", "Example", "sleeper"});
  EXPECT_EQ(0, run.exitCode) << run.err;
  const std::vector<std::string>& keys = controltest::kAgentKeys;
  std::vector<std::string> shownKeys;
  size_t start = 0;
  for (size_t end = run.out.find('\n'); end != std::string::npos;
       start = end + 1, end = run.out.find('\n', start)) {
    const std::string line = run.out.substr(start, end - start);
    shownKeys.push_back(line.substr(0, line.find('=')));
  }
  EXPECT_EQ(keys, shownKeys) << run.out;
  EXPECT_EQ(0u, run.out.find("name=Example sleeper\nsubagent_id=example.sleeper\n"));
  EXPECT_NE(std::string::npos, run.out.find("\nstate=running\nstate_code=4\n"));
  EXPECT_NE(std::string::npos,
            run.out.find("\ncheck_frequency=5\nmax_restarts=3\nrestarts_today=0\ngave_up=false\n"));
  EXPECT_NE(std::string::npos, run.out.find("\npid=" + std::to_string(sleeperPid()) + "\n"));
  EXPECT_NE(std::string::npos, run.out.find("\ncap_file=" + dir.file("cap/sleeper.xml") + "\n"));
  EXPECT_NE(std::string::npos,
            run.out.find("\nstart_script=$QOR_EXAMPLES/scripts/example-daemon.sh start qor-sleeper\n"));
}

TEST_F(QorctlHost, ShowOfAnUnknownNameExitsThree) {
  startHost();
  qortest::RunResult run = ctl({"show", "no/such"});
  EXPECT_EQ(3, run.exitCode);
  EXPECT_EQ("", run.out);
  EXPECT_EQ("qorctl show: qorhost knows no agent named 'no/such'\n", run.err);
}

TEST_F(QorctlHost, EventsListWhatQorhostHeardOldestFirst) {
  startSleeper();
  // The state is read from the agent at once; its events reach the ring
  // through the service's message thread, a moment later.
  qortest::RunResult run;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        run = ctl({"events"});
        return !qortest::linesWith(run.out, "  Example sleeper  ").empty();
      },
      10000))
      << run.out << run.err;
  EXPECT_EQ(0, run.exitCode) << run.err;
  const std::vector<std::string> added =
      qortest::linesWith(run.out, "Agent added to system - CAP file found.");
  ASSERT_EQ(2u, added.size()) << run.out;
  const std::regex addedLine(
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  \\[ 0\\]  -  " + dir.path() +
      "/cap/(qorhost|sleeper)\\.xml CAP File Event: Agent added to system - CAP file found\\.");
  EXPECT_TRUE(std::regex_match(added[0], addedLine)) << added[0];
  const std::vector<std::string> startedLines = qortest::linesWith(run.out, "  Example sleeper  ");
  ASSERT_FALSE(startedLines.empty()) << run.out;
  EXPECT_LT(run.out.find(added[1]), run.out.find(startedLines[0]));
}

TEST_F(QorctlHost, EventsFollowShowsANewEventAsItComes) {
  startSleeper();
  qortest::Child follow({qorctlPath(), "events", "-f", "--socket", socketPath()});
  ASSERT_TRUE(follow.waitForOutput("Agent added to system", 5000)) << follow.err();
  EXPECT_EQ(std::string::npos, follow.out().find("Agent now unmanaged.")) << follow.out();
  EXPECT_EQ(0, ctl({"unmanage", kSleeper}).exitCode);
  EXPECT_TRUE(follow.waitForOutput(
      "  [ 3]  Example sleeper  Example sleeper Management Event: Agent now unmanaged.\n", 5000))
      << follow.out();
  // Each event once, also when it came between two polls.
  EXPECT_EQ(1, qortest::countOccurrences(follow.out(), "Agent now unmanaged."));
  EXPECT_EQ(2, qortest::countOccurrences(follow.out(), "Agent added to system"));
  follow.signal(SIGTERM);
  EXPECT_EQ(128 + SIGTERM, follow.wait(5000));
}

// Killed as often as its daily limit allows restarts, the agent comes back each
// time; the next death finds the limit reached, and it stays down.
TEST_F(QorctlHost, AnAgentKilledPastItsRestartLimitShowsGaveUpAndStatusExitsThree) {
  startSleeper();
  for (int restarts = 1; restarts <= 3; ++restarts) {
    const int before = sleeperPid();
    ASSERT_EQ(0, kill(before, SIGKILL));
    ASSERT_TRUE(qortest::waitFor(
        [&] {
          qortest::RunResult run = ctl({"show", kSleeper});
          return run.out.find("\nstate=running\n") != std::string::npos &&
                 run.out.find("\nrestarts_today=" + std::to_string(restarts) + "\n") != std::string::npos;
        },
        20000))
        << "restart " << restarts << ": " << ctl({"show", kSleeper}).out;
  }
  qortest::RunResult atLimit = ctl({"status", kSleeper});
  EXPECT_EQ(0, atLimit.exitCode);
  EXPECT_NE(std::string::npos, atLimit.out.find(", restarts 3/3, GAVE UP\n")) << atLimit.out;

  ASSERT_EQ(0, kill(sleeperPid(), SIGKILL));
  ASSERT_TRUE(waitForState(kSleeper, "down", 20000)) << ctl({"show", kSleeper}).out;
  qortest::RunResult run = ctl({"status", kSleeper});
  EXPECT_EQ(3, run.exitCode);
  EXPECT_EQ("Example sleeper  down  pid -, uptime -, restarts 3/3, GAVE UP\n", run.out);
  EXPECT_NE(std::string::npos, ctl({"events"}).out.find("  Example sleeper  ALERT Example sleeper"));
}

// ---- qorhost out of reach ------------------------------------------------------------

class QorctlUnreachable : public ::testing::Test {
 protected:
  QorctlUnreachable() { unsetenv("QOR_IP_DIR"); }
  qortest::TempDir dir;
};

TEST_F(QorctlUnreachable, WithoutQorhostEveryCommandSaysToStartItAndExitsFour) {
  const std::string path = dir.file("qorhost.sock");
  const std::string sentence =
      "qorctl: there is no socket " + path + ": is qorhost running? start it, or give --socket\n";
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"status"}, {"show", "a"}, {"stop", "a"}, {"events"}, {"events", "-f"}}) {
    qortest::RunResult run = qorctl(args, {"QOR_IP_DIR=" + dir.path()});
    EXPECT_EQ(4, run.exitCode) << args[0];
    EXPECT_EQ(sentence, run.err) << args[0];
    EXPECT_EQ("", run.out) << args[0];
  }
}

TEST_F(QorctlUnreachable, WithNoSocketGivenStatusAsksForOneAndExitsFour) {
  qortest::RunResult run = qorctl({"status"});
  EXPECT_EQ(4, run.exitCode);
  EXPECT_EQ("qorctl status: no socket to ask: set QOR_IP_DIR or give --socket PATH\n", run.err);
}

TEST_F(QorctlUnreachable, AStaleSocketSaysToRestartQorhost) {
  const std::string path = dir.file("qorhost.sock");
  // A socket that was bound and closed stays as a file nobody listens on.
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  close(fd);
  qortest::RunResult run = qorctl({"status", "--socket", path});
  EXPECT_EQ(4, run.exitCode);
  EXPECT_EQ("qorctl: nobody accepts connections on " + path +
                ": qorhost is not answering on it; a stale socket: restart qorhost\n",
            run.err);
  qortest::RunResult recycle = qorctl({"recycle", "a", "--socket", path});
  EXPECT_EQ(4, recycle.exitCode);
  EXPECT_EQ(run.err, recycle.err);
}

TEST_F(QorctlUnreachable, AFileThatIsNoSocketIsSaid) {
  const std::string path = dir.file("qorhost.sock");
  qortest::writeFile(path, "");
  qortest::RunResult run = qorctl({"status", "--socket", path});
  EXPECT_EQ(4, run.exitCode);
  EXPECT_EQ("qorctl: " + path + " is not a socket: give --socket the path of qorhost's control socket\n",
            run.err);
}

// qorhost's socket lets in its user and group only; another user is told how
// to get in. Needs root, to run qorctl as nobody.
TEST_F(QorctlHost, AnotherUserIsToldToRunAsTheServicesUserOrGroup) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run qorctl as nobody";
  // Everybody may pass through the directories: only the socket's own mode
  // keeps nobody out.
  chmod(dir.path().c_str(), 0711);
  chmod(dir.file("ip").c_str(), 0771);
  startHost();
  struct stat status;
  ASSERT_EQ(0, stat(socketPath().c_str(), &status));
  EXPECT_EQ(0770u, status.st_mode & 0777);
  qortest::RunResult run =
      qortest::runProgram({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                           qorctlPath(), "status", "--socket", socketPath()});
  EXPECT_EQ(4, run.exitCode) << run.err;
  EXPECT_EQ("qorctl: permission denied on " + socketPath() +
                ": run qorctl as the service's user or a member of its group\n",
            run.err);
  EXPECT_EQ("", run.out);
  // The owner gets in.
  EXPECT_EQ(0, ctl({"status", "qorhost OS agent"}).exitCode);
}

TEST(QorctlHelp, HelpDocumentsTheCommandsOfTheSocketAndTheirExitCodes) {
  qortest::RunResult run = qorctl({"help"});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_EQ(run.out, qorctl({"-h"}).out);
  for (const char* text :
       {"status [NAME...] [--json]", "NAME  STATE  pid P, uptime U, restarts C/M[, GAVE UP]",
        "Exit status, as an init script's status: 0 when every agent shown runs",
        "3 when one does not, or when qorhost knows no agent of a NAME",
        "4 when qorhost cannot be reached, 2 for wrong usage.", "show NAME",
        "stop|start|recycle|reset|manage|unmanage NAME", "recycle 'NAME': 0 (accepted)",
        "      202  no such agent\n",
        "Exit status: 0 when the code is 0, 1 for any other code, 4 when qorhost", "events [-f]",
        "TIME  [ID]  AGENT  TEXT", "run qorctl as the service's user", "is qorhost running? start it, or",
        "a stale socket: restart qorhost", "$QOR_IP_DIR/qorhost.sock", "NO_COLOR"}) {
    EXPECT_NE(std::string::npos, run.out.find(text)) << text;
  }
}

TEST(QorctlHelp, WrongUsageOfTheNewCommandsExitsTwo) {
  EXPECT_EQ(2, qorctl({"status", "--bad"}).exitCode);
  EXPECT_EQ("qorctl show: no NAME given (try qorctl --help)\n", qorctl({"show"}).err);
  EXPECT_EQ(2, qorctl({"recycle"}).exitCode);
  EXPECT_EQ(2, qorctl({"events", "-x"}).exitCode);
  EXPECT_EQ("qorctl: --socket needs a PATH (try qorctl --help)\n", qorctl({"status", "--socket"}).err);
  EXPECT_EQ(2, qorctl({"frobnicate"}).exitCode);
}

}  // namespace
