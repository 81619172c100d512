// qorhost under the journal: when its standard output and error are the
// stream JOURNAL_STREAM names, its events, alerts and traces carry their
// priority and no time; a stream that the variable does not name, or a
// terminal, keeps the lines as they were.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "support/qortest.h"

namespace {

using e2e::tool;

// What the service manager does for a unit: JOURNAL_STREAM names the stream
// of standard error. With `merged`, standard error goes where standard output
// goes, as with the default StandardError=inherit.
std::vector<std::string> asAUnit(bool merged, const std::vector<std::string>& argv) {
  std::string script = merged ? "exec 2>&1; " : "";
  script += "JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2); export JOURNAL_STREAM; exec \"$0\" \"$@\"";
  std::vector<std::string> wrapped = {"/bin/sh", "-c", script};
  wrapped.insert(wrapped.end(), argv.begin(), argv.end());
  return wrapped;
}

// "DEV:INODE" of a file, as JOURNAL_STREAM writes a stream.
std::string streamOf(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return "";
  return std::to_string(static_cast<unsigned long long>(info.st_dev)) + ":" +
         std::to_string(static_cast<unsigned long long>(info.st_ino));
}

const std::regex& timeFirst() {
  static const std::regex pattern(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)");
  return pattern;
}

// The head of a trace line, wherever it stands: "[tid] file.cpp function:line ".
const std::regex& traceHead() {
  static const std::regex pattern(R"(\[\d+\] \w+\.cpp [^ ]+:\d+ )");
  return pattern;
}

int countMatching(const std::string& text, const std::regex& pattern) {
  int count = 0;
  for (const std::string& line : qortest::linesWith(text, "")) {
    if (std::regex_search(line, pattern)) ++count;
  }
  return count;
}

// Lines as they are off the journal: no priority anywhere, the alert of the
// disarm among `events` and the refusal of broken.xml among `traces` each
// once, each opening with its time.
void expectLinesAsTheyWere(const std::string& events, const std::string& traces) {
  EXPECT_EQ(0, countMatching(events, std::regex("^<[0-7]>"))) << events;
  EXPECT_EQ(0, countMatching(traces, std::regex("^<[0-7]>"))) << traces;
  std::vector<std::string> alerts = qortest::linesWith(events, "] ALERT");
  ASSERT_EQ(1u, alerts.size()) << events;
  EXPECT_TRUE(std::regex_search(alerts[0], std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  \[27\] ALERT )")))
      << alerts[0];
  std::vector<std::string> failed = qortest::linesWith(traces, "ParseCAPFile failed.");
  ASSERT_EQ(1u, failed.size()) << traces;
  EXPECT_TRUE(std::regex_search(failed[0], std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\] )")))
      << failed[0];
}

class Journal : public ::testing::Test {
 protected:
  Journal() {
    qortest::writeFile(caps.file("host.xml"), e2e::osAgentCapFile());
    // Refused, with an error trace; its detail traces come before.
    qortest::writeFile(caps.file("broken.xml"), "<subagents>\n");
  }
  // Errors and details, to standard error.
  std::vector<std::string> qorhost() const {
    return {tool("qorhost"), "--cap-dir", caps.path(), "--ip-dir", work.path(), "--trace-level", "129"};
  }
  // The disarm typed on qorhost's input is answered by an event and an alert
  // of the warning, then by the event of the disarm; then qorhost is stopped.
  void disarmAndStop(qortest::Child& host) {
    ASSERT_TRUE(host.waitForOutput("qorhost: service started", 10000)) << host.out() << host.err();
    ASSERT_TRUE(host.write("disarm\n"));
    ASSERT_TRUE(host.waitForOutput("[18]  Watchdog Event: Disarm completed successfully\n", 10000))
        << host.out();
    host.signal(SIGINT);
    ASSERT_EQ(0, host.wait(10000)) << host.out() << host.err();
  }
  std::string brokenFound() const {
    return caps.file("broken.xml") + " CAP File Event: Agent added to system - CAP file found.";
  }

  qortest::TempDir caps;
  qortest::TempDir work;
};

TEST_F(Journal, OnTheJournalsStreamEventsAlertsAndTracesCarryTheirPriorityAndNoTime) {
  qortest::Child host(asAUnit(true, qorhost()), {}, qortest::Child::Input::Pipe);
  disarmAndStop(host);
  const std::string text = host.out();
  EXPECT_EQ("", host.err());
  std::vector<std::string> lines = qortest::linesWith(text, "");

  EXPECT_EQ(0, countMatching(text, timeFirst())) << text;
  for (const char* line : {"<5>[27] Teo Services watchdog not reliable",
                           "<4>[27] ALERT agent '' state -1 managed -1 pid -1: Watchdog Disarm",
                           "<5>[18]  Watchdog Event: Disarm completed successfully"}) {
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), line)) << line << "\n" << text;
  }
  EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "<5>[ 0] " + brokenFound())) << text;

  // Every trace line starts with its priority: errors 3, details 7.
  EXPECT_EQ(1, countMatching(text, std::regex(R"(^<3>\[\d+\] qorcapstate\.cpp capFileAdded:\d+ )"
                                              R"(ParseCAPFile failed\.$)")))
      << text;
  EXPECT_EQ(1, countMatching(text, std::regex(R"(^<7>\[\d+\] qorcapstate\.cpp initialDiscovery:\d+ )"
                                              R"(FileName<.*/broken\.xml>$)")))
      << text;
  const int traces = countMatching(text, traceHead());
  EXPECT_GT(traces, 10);
  EXPECT_EQ(traces, countMatching(text, std::regex(R"(^<[37]>\[\d+\] \w+\.cpp [^ ]+:\d+ )"))) << text;

  // qorhost's own lines on standard output are left to the journal's default.
  EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "qorhost: service started; press Ctrl-C to stop"));
  EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "qorhost: disarm: 0 (accepted)"));
}

TEST_F(Journal, OnlyTheStreamThatJournalStreamNamesGetsPriorities) {
  // Standard error is the journal's; standard output is another pipe, as
  // with StandardOutput= sending it elsewhere.
  qortest::Child host(asAUnit(false, qorhost()), {}, qortest::Child::Input::Pipe);
  disarmAndStop(host);
  const std::string out = host.out();
  const std::string err = host.err();

  std::vector<std::string> alerts = qortest::linesWith(out, "ALERT");
  ASSERT_EQ(1u, alerts.size()) << out;
  EXPECT_TRUE(
      std::regex_match(alerts[0], std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  \[27\] ALERT )"
                                             R"(agent '' state -1 managed -1 pid -1: Watchdog Disarm$)")))
      << alerts[0];
  EXPECT_EQ(std::string::npos, out.find("<5>")) << out;
  EXPECT_EQ(std::string::npos, out.find("<4>")) << out;

  EXPECT_EQ(0, countMatching(err, timeFirst())) << err;
  EXPECT_EQ(1, countMatching(err, std::regex(R"(^<3>\[\d+\] qorcapstate\.cpp capFileAdded:\d+ )"
                                             R"(ParseCAPFile failed\.$)")))
      << err;
}

TEST_F(Journal, QorhostsOwnComplaintsOnTheJournalCarryErrorOrWarning) {
  // No socket directory: a warning, and qorhost runs on.
  qortest::Child warned(asAUnit(true, {tool("qorhost"), "--cap-dir", caps.path()}));
  ASSERT_TRUE(warned.waitForOutput("qorhost: service started", 10000)) << warned.out();
  warned.signal(SIGTERM);
  EXPECT_EQ(0, warned.wait(10000)) << warned.out();
  std::vector<std::string> lines = qortest::linesWith(warned.out(), "");
  EXPECT_EQ(1, std::count(lines.begin(), lines.end(),
                          "<4>qorhost: no control socket, since QOR_IP_DIR is unset and no --control-socket "
                          "was given"))
      << warned.out();

  // A socket that cannot be made: an error, and qorhost stops.
  const std::string socket = work.file("missing/qorhost.sock");
  qortest::RunResult failed = qortest::runProgram(
      asAUnit(true, {tool("qorhost"), "--cap-dir", caps.path(), "--control-socket", socket}));
  EXPECT_EQ(1, failed.exitCode);
  lines = qortest::linesWith(failed.out, "");
  EXPECT_EQ(
      1, std::count(lines.begin(), lines.end(),
                    "<3>qorhost: cannot create the control socket " + socket + ": No such file or directory"))
      << failed.out;
}

TEST_F(Journal, AJournalStreamOfAnotherFileLeavesEveryLineAsItWas) {
  qortest::writeFile(work.file("elsewhere"), "");
  qortest::Child host(qorhost(), {"JOURNAL_STREAM=" + streamOf(work.file("elsewhere"))},
                      qortest::Child::Input::Pipe);
  disarmAndStop(host);
  expectLinesAsTheyWere(host.out(), host.err());
}

// Reads what qorhost wrote on the terminal until `text` is there, or the
// terminal is gone, or the deadline has passed; carriage returns dropped.
bool readTerminal(int master, std::string& into, const std::string& text, int timeoutMs) {
  const long long deadline = qortest::nowMs() + timeoutMs;
  while (text.empty() || into.find(text) == std::string::npos) {
    const long long left = deadline - qortest::nowMs();
    if (left <= 0) return false;
    struct pollfd ready = {master, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[4096];
    ssize_t count = read(master, buffer, sizeof buffer);
    if (count <= 0) return text.empty();  // EIO: the last holder of the terminal has gone
    for (ssize_t i = 0; i < count; ++i) {
      if (buffer[i] != '\r') into += buffer[i];
    }
  }
  return true;
}

TEST_F(Journal, OnATerminalTheLinesKeepTheirTimesEvenWhenJournalStreamNamesIt) {
  const std::vector<std::string> argv = qorhost();
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    // Standard input, output and error are the terminal; the variable names it.
    struct stat info;
    char stream[64] = "";
    if (fstat(STDERR_FILENO, &info) == 0) {
      snprintf(stream, sizeof stream, "%llu:%llu", static_cast<unsigned long long>(info.st_dev),
               static_cast<unsigned long long>(info.st_ino));
    }
    setenv("JOURNAL_STREAM", stream, 1);
    execv(args[0], args.data());
    _exit(127);
  }
  std::string text;
  const bool started = readTerminal(master, text, "qorhost: service started", 10000);
  bool disarmed = false;
  if (started && write(master, "disarm\n", 7) == 7) {
    disarmed = readTerminal(master, text, "[18]  Watchdog Event: Disarm completed successfully\n", 10000);
  }
  kill(pid, SIGINT);
  readTerminal(master, text, "", 10000);
  int status = -1;
  waitpid(pid, &status, 0);
  close(master);
  ASSERT_TRUE(started) << text;
  ASSERT_TRUE(disarmed) << text;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  expectLinesAsTheyWere(text, text);
}

}  // namespace
