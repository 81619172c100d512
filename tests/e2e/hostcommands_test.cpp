// Operator commands typed into qorhost, as a person at its terminal does it:
// the listing on demand, a stop and a start of a running managed agent carried
// out by its scripts, a name nobody has, a line that is no command, and the
// end of the input, which leaves qorhost running. The real qorhost with a pipe
// to its standard input, real programs, real CAP files and scripts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;
using e2e::Host;
using e2e::Programs;
using e2e::StartScript;

class HostCommands : public ::testing::Test {
 protected:
  HostCommands() : start(programs) { writeCap("host.xml", e2e::osAgentCapFile()); }

  void writeCap(const std::string& file, const std::string& content) {
    qortest::writeFile(caps.file(file), content);
  }
  // Starts qorhost with its input on a pipe and waits for its first listing.
  void startHost() {
    host.reset(new Host(caps.path(), work.path(), work.file("trace"), 128 | 256, {programs.env()},
                        qortest::Child::Input::Pipe));
    ASSERT_TRUE(host->waitForListing(1)) << out() << host->child().err();
  }
  // Types a line and waits for the line of output that answers it.
  bool type(const std::string& line, const std::string& answer) {
    return host->child().write(line + "\n") && host->child().waitForOutput(answer + "\n", 10000);
  }
  std::string out() { return host->child().out(); }

  qortest::TempDir caps;
  qortest::TempDir work;
  Programs programs;
  StartScript start;
  // Last, so that qorhost is gone before the programs are stopped.
  std::unique_ptr<Host> host;
};

TEST_F(HostCommands, StopAndStartOfARunningAgentAreAcceptedAndCarriedOutByItsScripts) {
  const int pid = programs.start("qore2ecmdd");
  captest::Subagent agent = agentFor("e2e.cmd", "Commanded program", programs, "qore2ecmdd", start, 3);
  agent.stopScript = captest::script("stopScript", "/bin/sh " + programs.script() + " stop qore2ecmdd");
  writeCap("cmd.xml", captest::document(agent));
  startHost();

  // The typed list is the second listing, after the one at the start.
  ASSERT_TRUE(host->child().write("list\n"));
  ASSERT_TRUE(host->waitForListing(2)) << out();
  const std::string running =
      "qorhost: agent 'Commanded program' id e2e.cmd managed 1 (managed) state 4 (running) pid " +
      std::to_string(pid) + " restarts 0/3";
  std::vector<std::string> lines = host->agentLines();
  EXPECT_EQ(2, std::count(lines.begin(), lines.end(), running)) << out();

  ASSERT_TRUE(type("stop Commanded program", "qorhost: stop 'Commanded program': 0 (accepted)")) << out();
  ASSERT_TRUE(host->child().waitForOutput("[10] Commanded program Operational Event: ", 15000)) << out();
  EXPECT_EQ((std::vector<std::string>{
                "[ 4] Commanded program Operational Event: Agent stop command received.",
                "[10] Commanded program Operational Event: Agent stopped successfully.",
            }),
            host->events("Commanded program"));
  // The stop script ended the program and removed its pid file.
  EXPECT_FALSE(qortest::fileExists(programs.dir() + "/qore2ecmdd.pid"));
  EXPECT_TRUE(qortest::waitFor([&] { return kill(pid, 0) != 0; }, 5000));
  EXPECT_EQ(
      "qorhost: agent 'Commanded program' id e2e.cmd managed 1 (managed) state 5 (stopped by an operator) "
      "pid 0 restarts 0/3",
      host->listingOf("e2e.cmd"));

  // Stopped by an operator it is stopped already: a second stop is refused.
  ASSERT_TRUE(
      type("stop Commanded program",
           "qorhost: stop 'Commanded program': 201 (agent is starting, stopping or already stopped by an "
           "operator)"))
      << out();

  ASSERT_TRUE(type("  start   Commanded program  ", "qorhost: start 'Commanded program': 0 (accepted)"))
      << out();
  ASSERT_TRUE(host->child().waitForOutput("[ 7] Commanded program Operational Event: ", 15000)) << out();
  EXPECT_EQ((std::vector<std::string>{
                "[ 4] Commanded program Operational Event: Agent stop command received.",
                "[10] Commanded program Operational Event: Agent stopped successfully.",
                "[ 5] Commanded program Operational Event: Agent start command received.",
                "[ 7] Commanded program Operational Event: Agent started successfully.",
            }),
            host->events("Commanded program"));
  const int started = programs.pid("qore2ecmdd");
  EXPECT_GT(started, 0);
  EXPECT_NE(pid, started);
  EXPECT_EQ(1u, start.log("end", "qore2ecmdd").size());
  EXPECT_EQ("qorhost: agent 'Commanded program' id e2e.cmd managed 1 (managed) state 4 (running) pid " +
                std::to_string(started) + " restarts 0/3",
            host->listingOf("e2e.cmd"));
  EXPECT_EQ(0, host->stop());
}

TEST_F(HostCommands, AResetTypedAfterTheDailyLimitHasTheAgentStartedAtTheNextCheck) {
  int pid = programs.start("qore2etypedd");
  writeCap("typed.xml",
           captest::document(agentFor("e2e.typed", "Typed reset", programs, "qore2etypedd", start, 1)));
  startHost();
  ASSERT_TRUE(type("reset Typed reset", "qorhost: reset 'Typed reset': 603 (the restart count is already 0)"))
      << out();

  kill(pid, SIGKILL);
  ASSERT_TRUE(host->child().waitForOutput("[ 7] Typed reset Operational Event: ", 12000)) << out();
  kill(programs.pid("qore2etypedd"), SIGKILL);
  ASSERT_TRUE(host->child().waitForOutput("[12] Typed reset Operational Event: ", 12000)) << out();
  EXPECT_EQ(
      "qorhost: agent 'Typed reset' id e2e.typed managed 1 (managed) state 2 (stopped) pid 0 restarts 1/1",
      host->listingOf("e2e.typed"));

  ASSERT_TRUE(type("reset Typed reset", "qorhost: reset 'Typed reset': 0 (accepted)")) << out();
  ASSERT_TRUE(qortest::waitFor([&] { return host->eventIds("Typed reset").size() >= 9; }, 12000)) << out();
  const std::string event = "] Typed reset Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + event + "Agent stopped abnormally.",
                "[24" + event + "Agent start after failure",
                "[ 7" + event + "Agent started successfully.",
                "[ 8" + event + "Agent stopped abnormally.",
                "[24" + event + "Agent start after failure",
                "[12" + event + "Agent exceeded restart tries.",
                "[26" + event + "Agent daily restart count reset",
                "[22" + event + "Agent initial start",
                "[ 7" + event + "Agent started successfully.",
            }),
            host->events("Typed reset"));
  EXPECT_EQ("qorhost: agent 'Typed reset' id e2e.typed managed 1 (managed) state 4 (running) pid " +
                std::to_string(programs.pid("qore2etypedd")) + " restarts 0/1",
            host->listingOf("e2e.typed"));
  EXPECT_EQ(0, host->stop());
}

TEST_F(HostCommands, AnUnknownNameAGarbageLineAndAMissingNameAreAnsweredInOneLineEach) {
  startHost();
  ASSERT_TRUE(type("stop Nobody", "qorhost: stop 'Nobody': 202 (no such agent)")) << out();
  ASSERT_TRUE(type("start Nobody at all", "qorhost: start 'Nobody at all': 102 (no such agent)")) << out();
  ASSERT_TRUE(type("reset Nobody", "qorhost: reset 'Nobody': 601 (no such agent)")) << out();
  ASSERT_TRUE(type("recycle Nobody", "qorhost: recycle 'Nobody': 302 (no such agent)")) << out();
  // The OS agent is qorhost itself: the service knows it by name and will not stop it.
  ASSERT_TRUE(type("stop Embedding host",
                   "qorhost: stop 'Embedding host': 203 (it is the OS agent, which cannot stop itself)"))
      << out();
  ASSERT_TRUE(
      type("#*! garbage",
           "qorhost: unknown command '#*!'; one of: stop NAME | start NAME | recycle NAME | reset NAME | "
           "manage NAME | unmanage NAME | disarm | rearm | list | help"))
      << out();
  ASSERT_TRUE(type("stop   ", "qorhost: stop needs the agent's name as the listing shows it: stop NAME"))
      << out();
  ASSERT_TRUE(type("help", "  help            list these commands")) << out();
  // Blank lines get no answer: all that comes is the answer to the line after them.
  const size_t before = out().size();
  ASSERT_TRUE(type("\n  \t\n\r\nstop Nobody else", "qorhost: stop 'Nobody else': 202 (no such agent)"))
      << out();
  EXPECT_EQ("qorhost: stop 'Nobody else': 202 (no such agent)\n", out().substr(before));
  EXPECT_EQ(1u, qortest::linesWith(out(), "qorhost: stop 'Nobody'").size());
  EXPECT_EQ(1u, qortest::linesWith(out(), "qorhost: unknown command").size());
  EXPECT_EQ(0, host->stop());
}

TEST_F(HostCommands, DisarmAndRearmAreAnsweredInOneLineEachAndHeardAsTheirEvents) {
  startHost();
  const size_t before = out().size();
  ASSERT_TRUE(type("disarm", "qorhost: disarm: 0 (accepted)")) << out();
  ASSERT_TRUE(host->child().waitForOutput("]  Watchdog Event: Disarm completed successfully\n", 10000))
      << out();
  ASSERT_TRUE(type("  rearm \t", "qorhost: rearm: 0 (accepted)")) << out();
  ASSERT_TRUE(host->child().waitForOutput("]  Watchdog Event: Rearm completed successfully\n", 10000))
      << out();
  std::vector<std::string> events;
  for (const std::string& line : qortest::linesWith(out().substr(before), "  ["))
    events.push_back(line.substr(line.find("  [") + 2));
  // The disarm warns every listener, the alert listener too, that nothing
  // guards qorhost now; the warning names no agent, since qorhost's service
  // holds no record of the watchdog process.
  EXPECT_EQ((std::vector<std::string>{
                "[27] Teo Services watchdog not reliable",
                "[27] ALERT agent '' state -1 managed -1 pid -1: Watchdog Disarm",
                "[18]  Watchdog Event: Disarm completed successfully",
                "[19]  Watchdog Event: Rearm completed successfully",
            }),
            events);
  EXPECT_EQ(1u, qortest::linesWith(out(), "qorhost: disarm: ").size());
  EXPECT_EQ(1u, qortest::linesWith(out(), "qorhost: rearm: ").size());
  EXPECT_EQ(0, host->stop());
}

TEST_F(HostCommands, TheEndOfTheInputLeavesQorhostRunningUntilSigint) {
  startHost();
  ASSERT_TRUE(host->child().write("list\n"));
  ASSERT_TRUE(host->waitForListing(2)) << out();
  // A last line without its newline is still a command.
  ASSERT_TRUE(host->child().write("stop Nobody"));
  host->child().closeInput();
  ASSERT_TRUE(host->child().waitForOutput("qorhost: stop 'Nobody': 202 (no such agent)\n", 10000)) << out();
  ASSERT_TRUE(host->child().waitForOutput(
      "qorhost: end of commands on standard input; Ctrl-C stops qorhost\n", 10000))
      << out();
  // Still there, and still answering signals.
  EXPECT_EQ(-1, host->child().wait(1000));
  const int listings = host->listings();
  EXPECT_EQ(1u, host->list().size());
  EXPECT_EQ(listings + 1, host->listings());
  host->child().signal(SIGINT);
  EXPECT_EQ(0, host->child().wait(15000)) << host->child().err();
  EXPECT_NE(std::string::npos, out().find("qorhost: SIGINT received, stopping\nqorhost: stopped\n")) << out();
}

TEST_F(HostCommands, WithItsInputAtDevNullQorhostRunsAsBeforeAndSaysNothingOfCommands) {
  qortest::Child devnull({"/bin/sh", "-c",
                          "exec '" + e2e::tool("qorhost") + "' --cap-dir '" + caps.path() + "' --ip-dir '" +
                              work.path() + "' --trace-level 128 --trace-file '" + work.file("trace") +
                              "' </dev/null"});
  ASSERT_TRUE(devnull.waitForOutput("qorhost: 1 agent\n", 15000)) << devnull.out() << devnull.err();
  EXPECT_EQ(-1, devnull.wait(1000));
  devnull.signal(SIGTERM);
  EXPECT_EQ(0, devnull.wait(15000)) << devnull.err();
  EXPECT_EQ(std::string::npos, devnull.out().find("end of commands")) << devnull.out();
  EXPECT_NE(std::string::npos, devnull.out().find("qorhost: SIGTERM received, stopping\nqorhost: stopped\n"));
}

// The state letter of a process in /proc/PID/stat: 'T' when it is stopped.
char stateOf(int pid) {
  const std::string stat = qortest::readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  return close == std::string::npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

TEST_F(HostCommands, InTheBackgroundOfATerminalALineTypedThereDoesNotStopQorhost) {
  // A terminal of its own, as a shell has it: a session whose leader holds the
  // terminal's foreground, and qorhost in a group of its own behind it, as
  // "qorhost &" puts it.
  int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(0, grantpt(master));
  ASSERT_EQ(0, unlockpt(master));
  const std::string terminal = ptsname(master);
  const std::string output = work.file("host.out");
  const std::string pidFile = work.file("host.pid");
  const std::string program = e2e::tool("qorhost");
  const std::string capDir = caps.path();
  const std::string ipDir = work.path();
  std::vector<const char*> argv = {program.c_str(), "--cap-dir", capDir.c_str(), "--ip-dir", ipDir.c_str(),
                                   "--trace-level", "0",         nullptr};
  pid_t leader = fork();
  if (leader == 0) {
    setsid();
    int tty = open(terminal.c_str(), O_RDWR);
    pid_t background = fork();
    if (background == 0) {
      setpgid(0, 0);
      int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(tty, STDIN_FILENO);
      dup2(out, STDOUT_FILENO);
      dup2(out, STDERR_FILENO);
      execv(argv[0], const_cast<char* const*>(argv.data()));
      _exit(127);
    }
    const std::string pid = std::to_string(background) + "\n";
    int file = open(pidFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (write(file, pid.data(), pid.size()) != static_cast<ssize_t>(pid.size())) _exit(1);
    close(file);
    int status = 0;
    waitpid(background, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  }
  ASSERT_GT(leader, 0);
  int pid = 0;
  // Whatever fails below, neither process outlives the test.
  struct Reaper {
    pid_t& leader;
    int& pid;
    ~Reaper() {
      if (leader <= 0) return;
      if (pid > 0) kill(pid, SIGKILL);
      kill(leader, SIGKILL);
      waitpid(leader, nullptr, 0);
    }
  } reaper{leader, pid};
  ASSERT_TRUE(
      qortest::waitFor([&] { return (pid = std::atoi(qortest::readFile(pidFile).c_str())) > 0; }, 5000));
  ASSERT_TRUE(qortest::waitFor(
      [&] { return qortest::readFile(output).find("qorhost: 1 agent\n") != std::string::npos; }, 15000))
      << qortest::readFile(output);

  ASSERT_EQ(5, write(master, "list\n", 5));
  // Stopped for its terminal it would be 'T' at once; it stays up, and leaves
  // the line to the foreground.
  EXPECT_FALSE(qortest::waitFor([&] { return stateOf(pid) == 'T'; }, 1500)) << qortest::readFile(output);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(output), "qorhost: 1 agent\n"));

  kill(pid, SIGINT);
  int status = -1;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        if (waitpid(leader, &status, WNOHANG) != leader) return false;
        leader = 0;
        return true;
      },
      15000))
      << qortest::readFile(output);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(std::string::npos, qortest::readFile(output).find("qorhost: stopped\n"));
  close(master);
}

TEST_F(HostCommands, HelpListsTheCommands) {
  qortest::RunResult help = qortest::runProgram({e2e::tool("qorhost"), "--help"});
  EXPECT_EQ(0, help.exitCode);
  for (const char* line :
       {"  stop NAME       ", "  start NAME      ", "  recycle NAME    ", "  reset NAME      ",
        "  manage NAME     ", "  unmanage NAME   ", "  disarm          ", "  rearm           ",
        "  list            ", "  help            ", "  qorhost: start 'Example sleeper': 0 (accepted)\n"}) {
    EXPECT_NE(std::string::npos, help.out.find(line)) << line;
  }
}

}  // namespace
