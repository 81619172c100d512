// The events of the two programs, as a host runs them: the embedder disarms
// and rearms its service by typed commands while qorwd goes on supervising
// it, and what qorwd saw while qorhost was down reaches the listeners of the
// qorhost it started again, in order and with the times at which it
// happened. The real qorwd, the real qorhost, real programs and scripts.
#include <signal.h>
#include <time.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "e2e/twoproc.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;
using e2e::Programs;
using e2e::StartScript;

// Local time of "YYYY-MM-DD HH:MM:SS" at the start of `text`; -1 if there is none.
time_t secondsOf(const std::string& text) {
  struct tm local = {};
  local.tm_isdst = -1;
  if (text.size() < 19 || strptime(text.substr(0, 19).c_str(), "%Y-%m-%d %H:%M:%S", &local) == nullptr)
    return -1;
  return mktime(&local);
}

// A printed event line without its time: from its "[id]" on.
std::string withoutTime(const std::string& line) {
  const size_t open = line.find("  [");
  return open == std::string::npos ? line : line.substr(open + 2);
}

// The event and alert lines of `output` that name `agent`, without their
// time; the listing's lines aside.
std::vector<std::string> heardOf(const std::string& agent, const std::string& output) {
  std::vector<std::string> lines;
  for (const std::string& line : qortest::linesWith(output, agent))
    if (line.rfind("qorhost: ", 0) != 0) lines.push_back(withoutTime(line));
  return lines;
}

class TwoProcessEvents : public e2e::TwoProcesses {
 protected:
  TwoProcessEvents() : start(programs) {}

  std::string out() { return qortest::readFile(run.file("host.out")); }
  std::string wdTrace() { return qortest::readFile(run.file("wd.trace")); }
  // The printed lines from `from` on that hold `part`, without their time.
  std::vector<std::string> printed(const std::string& part, size_t from = 0) {
    std::vector<std::string> lines;
    for (const std::string& line : qortest::linesWith(out().substr(from), part))
      lines.push_back(withoutTime(line));
    return lines;
  }
  // Types `command` into qorhost and waits for one more line `answer`.
  bool type(const std::string& command, const std::string& answer) {
    const int before = qortest::countOccurrences(out(), "\n" + answer + "\n");
    return hostCommand(command) &&
           qortest::waitFor([&] { return qortest::countOccurrences(out(), "\n" + answer + "\n") > before; },
                            10000);
  }
  // Waits until a line holding `part` is printed from `from` on.
  bool waitPrinted(const std::string& part, size_t from = 0) {
    return qortest::waitFor([&] { return !printed(part, from).empty(); }, 15000);
  }

  Programs programs;
  StartScript start;
};

// The embedder's disarm and rearm, typed into qorhost while qorwd supervises
// it: the disarm is told to every listener, alert listeners included, as an
// unreliable watchdog; an agent that dies meanwhile is reported at each check
// and left down; after the rearm the next check starts it again. qorwd, a
// process of its own, goes on checking qorhost throughout.
TEST_F(TwoProcessEvents, ADisarmedHostLeavesAKilledAgentDownUntilTheRearmAndTheNextCheckStartsIt) {
  setenv("QOR_SOCKET_ANSWER_WAIT", "100", 1);
  const int pid = programs.start("qore2ewatchedd");
  qortest::writeFile(
      caps.file("watched.xml"),
      captest::document(agentFor("e2e.watched", "Watched program", programs, "qore2ewatchedd", start, 3)));
  startWatchdog();
  ASSERT_TRUE(hostUp());
  ASSERT_TRUE(hostListed(1)) << out();
  const size_t from = out().size();
  const time_t typed = time(nullptr);
  ASSERT_TRUE(type("disarm", "qorhost: disarm: 0 (accepted)")) << out();
  ASSERT_TRUE(waitPrinted("[18]", from)) << out();
  const int wdCycles = qortest::countOccurrences(wdTrace(), "Starting cycle loop");

  kill(pid, SIGKILL);
  // Reported at each check, and nothing started: two checks in a row.
  ASSERT_TRUE(qortest::waitFor([&] { return printed("[21]", from).size() >= 2; }, 15000)) << out();
  EXPECT_TRUE(start.log("begin", "qore2ewatchedd").empty());
  // qorwd's own cycle went on meanwhile, and it still sees qorhost running.
  EXPECT_LE(wdCycles + 1, qortest::countOccurrences(wdTrace(), "Starting cycle loop"));
  EXPECT_TRUE(watchdogCounts(0));
  EXPECT_EQ(1, starts());

  ASSERT_TRUE(type("rearm", "qorhost: rearm: 0 (accepted)")) << out();
  const long long rearmed = qortest::nowMs();
  ASSERT_TRUE(waitPrinted("[ 7] Watched program ", from)) << out();
  EXPECT_LT(qortest::nowMs() - rearmed, 8000);  // within one check period of 5 s, and the start
  const std::string event = "] Watched program Operational Event: ";
  // The answers come from the reading thread, the events from the service's
  // message thread: each in its own order.
  EXPECT_EQ((std::vector<std::string>{"qorhost: disarm: 0 (accepted)", "qorhost: rearm: 0 (accepted)"}),
            printed("qorhost: ", from));
  EXPECT_EQ((std::vector<std::string>{
                "[27] Teo Services watchdog not reliable",
                "[27] ALERT agent '' state -1 managed -1 pid -1: Watchdog Disarm",
                "[18]  Watchdog Event: Disarm completed successfully",
                "[21" + event + "Agent restart disabled - disarm mode active",
                "[21" + event + "Agent restart disabled - disarm mode active",
                "[19]  Watchdog Event: Rearm completed successfully",
                "[22" + event + "Agent initial start",
                "[ 7" + event + "Agent started successfully.",
            }),
            printed("]", from));
  // The warning carries the time of the disarm, not one of the OS agent's.
  const std::vector<std::string> warnings = qortest::linesWith(out().substr(from), "[27]");
  ASSERT_EQ(2u, warnings.size());
  EXPECT_LE(typed, secondsOf(warnings[0]));
  EXPECT_LE(secondsOf(warnings[0]), time(nullptr));
  EXPECT_EQ(secondsOf(warnings[0]), secondsOf(warnings[1]));

  EXPECT_EQ(1u, start.log("begin", "qore2ewatchedd").size());
  const int restarted = programs.pid("qore2ewatchedd");
  EXPECT_NE(pid, restarted);
  EXPECT_EQ(0, kill(restarted, 0));
  EXPECT_EQ(1, starts());
}

// The disarm lives in the embedder's service alone: qorwd, which guards
// qorhost, is not disarmed by it, restarts a disarmed qorhost that dies, and
// the new qorhost comes up armed.
TEST_F(TwoProcessEvents, QorwdStillRestartsADisarmedHostThatDiesAndTheNewHostIsArmed) {
  setenv("QOR_SOCKET_ANSWER_WAIT", "100", 1);
  startWatchdog();
  ASSERT_TRUE(hostUp());
  ASSERT_TRUE(hostListed(1)) << out();
  const int first = hostPid();
  ASSERT_TRUE(type("disarm", "qorhost: disarm: 0 (accepted)")) << out();
  ASSERT_TRUE(waitPrinted("[18]", 0)) << out();
  ASSERT_TRUE(watchdogCounts(0));

  kill(first, SIGKILL);
  const size_t from = out().size();
  ASSERT_TRUE(hostUp(first));
  ASSERT_TRUE(hostListed(2)) << out();
  EXPECT_EQ(2, starts());
  EXPECT_TRUE(watchdogCounts(1));
  EXPECT_TRUE(printed("[18]", from).empty()) << out();
  EXPECT_TRUE(printed("[27]", from).empty()) << out();
  // And it takes commands again on the same input.
  ASSERT_TRUE(type("rearm", "qorhost: rearm: 0 (accepted)")) << out();
  ASSERT_TRUE(waitPrinted("[19]", from)) << out();
}

// What qorwd raises about the OS agent while it is down reaches the listeners
// of the qorhost it starts again: each event once, in the order qorwd raised
// it, with the time at which qorwd raised it. The CAP file events of qorwd
// itself (id 0) never leave it.
TEST_F(TwoProcessEvents, EventsRaisedInQorwdWhileTheHostWasDownReachTheNewHostInOrderWithTheirOwnTimes) {
  // The new qorhost is launched more than a second after qorwd raised the
  // failure and the restart's decision, so it receives them in a later second
  // than they were raised, and a reception time would show.
  setenv("QOR_E2E_LAUNCH_DELAY", "1.2", 1);
  startWatchdog();
  ASSERT_TRUE(hostUp());
  ASSERT_TRUE(hostListed(1)) << out();
  const int first = hostPid();
  const std::string initial = out();
  // The first qorhost heard of its own start from qorwd; of qorwd's CAP file
  // events, none: each CAP file's event is printed once, qorhost's own.
  EXPECT_EQ((std::vector<std::string>{
                "[22] Embedding host Operational Event: Agent initial start",
                "[ 7] Embedding host Operational Event: Agent started successfully.",
            }),
            printed("] Embedding host "));
  for (const char* file : {"host.xml", "other.xml"}) {
    EXPECT_EQ(1u, printed("] " + caps.file(file) + " CAP File Event: ").size()) << initial;
  }

  const time_t killed = time(nullptr);
  kill(first, SIGKILL);
  ASSERT_TRUE(hostUp(first));
  ASSERT_TRUE(hostListed(2)) << out();
  const size_t from = out().rfind("qorhost: CAP directories: ");
  ASSERT_GT(from, initial.size() - 1);
  const std::string heard = out().substr(from);
  EXPECT_EQ((std::vector<std::string>{
                "[ 8] Embedding host Operational Event: Agent stopped abnormally.",
                "[ 8] ALERT agent 'Embedding host' state 4 managed 2 pid " + std::to_string(first) + ": N/A",
                "[24] Embedding host Operational Event: Agent start after failure",
                "[ 7] Embedding host Operational Event: Agent started successfully.",
            }),
            heardOf("Embedding host", heard))
      << heard;

  // qorwd cached exactly these, after its own start's, and handed each out once.
  std::vector<int> pushed;
  for (const std::string& line : qortest::linesWith(wdTrace(), "push event onto cache "))
    pushed.push_back(std::atoi(line.c_str() + line.find("cache ") + 6));
  EXPECT_EQ((std::vector<int>{0, 0, 22, 7, 8, 24, 7}), pushed);
  std::vector<int> popped;
  for (const std::string& line : qortest::linesWith(wdTrace(), "pop event "))
    popped.push_back(std::atoi(line.c_str() + line.find("pop event ") + 10));
  EXPECT_EQ((std::vector<int>{22, 7, 8, 24, 7}), popped);

  // Each printed time is the second in which qorwd raised the event, not the
  // later one in which the new qorhost received it: the failure and the
  // restart's decision came before the start script launched the new qorhost,
  // the success after it.
  const std::vector<std::string> pushes = qortest::linesWith(wdTrace(), "push event onto cache ");
  const std::vector<std::string> events = qortest::linesWith(heard, "] Embedding host Operational Event: ");
  const std::vector<std::string> received = qortest::linesWith(qortest::readFile(run.file("host.trace")),
                                                               "log message being sent: Embedding host ");
  ASSERT_EQ(3u, events.size()) << heard;
  ASSERT_EQ(7u, pushes.size());
  ASSERT_EQ(5u, received.size());
  ASSERT_EQ(2u, startTimes().size());
  const time_t launched = startTimes()[1];
  EXPECT_GE(launched, secondsOf(events[0])) << events[0];
  EXPECT_GE(launched, secondsOf(events[1])) << events[1];
  EXPECT_LE(launched, secondsOf(events[2])) << events[2];
  for (size_t i = 0; i < events.size(); ++i) {
    const time_t raised = secondsOf(pushes[4 + i]);
    const time_t printedAt = secondsOf(events[i]);
    EXPECT_LE(killed, printedAt) << events[i];
    EXPECT_LE(raised - 1, printedAt) << events[i] << " / " << pushes[4 + i];
    EXPECT_GE(raised, printedAt) << events[i] << " / " << pushes[4 + i];
    if (i < 2) {
      EXPECT_LT(printedAt, secondsOf(received[2 + i])) << events[i] << " / " << received[2 + i];
    }
  }
}

}  // namespace
