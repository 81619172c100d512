// Every result code of every operator command, as an embedder reaches it
// through QOR_QueryService alone: each command of a table is sent in turn and
// answers its code, and what the listeners hear after it is exactly the
// events that the command leads to, or nothing for a refusal. The agents are
// brought into each state by the commands themselves, by start and stop
// scripts that wait at a gate the test holds, and by a state file seeded on
// disk. Real programs, real CAP files and scripts, the service embedded in the
// test process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/embedded.h"
#include "e2e/querycalls.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

using e2e::accepted;
using e2e::management;
using e2e::manageOf;
using e2e::operational;
using e2e::recycleOf;
using e2e::refused;
using e2e::resetOf;
using e2e::Row;
using e2e::startOf;
using e2e::step;
using e2e::stopOf;
using e2e::unmanageOf;

// The agent of the tables, the OS agent (the embedding host) and a name
// that nobody has.
const std::wstring kCoded = L"Coded program";
const std::wstring kCodedProcess = L"qorqcoded";
const char kCodedName[] = "Coded program";
const std::wstring kHost = L"Embedding host";
const std::wstring kHostProcess = L"qorhost";
const std::wstring kNobody = L"No such agent";

// Checked every 300 seconds: no check comes during a test, so that every
// event heard is one that a command led to.
constexpr int kRarely = 300;

// Operating states, as the iterator gives them.
constexpr int kUnknown = 0;
constexpr int kStopped = 2;
constexpr int kStarting = 3;
constexpr int kRunning = 4;
constexpr int kStoppedByHand = 5;
constexpr int kStopping = 6;

class QueryCodes : public e2e::QueryService {
 protected:
  // The coded agent runs and has two restarts behind it today; the OS agent,
  // managed by the watchdog process, has one.
  void startWithCodedAgent(const std::string& hostCapFile) {
    programs.start("qorqcoded");
    writeAgent("coded.xml", e2e::gatedAgent("e2e.coded", kCodedName, programs, "qorqcoded", gates, kRarely));
    writeCap("host.xml", hostCapFile);
    qortest::writeFile(caps.file("teo.dat"), "2\n" +
                                                 e2e::stateRecord("e2e.coded", "qorqcoded", 1, kCodedName,
                                                                  kRunning, 2, programs.path("qorqcoded")) +
                                                 e2e::stateRecord("e2e.host", "qorhost", 2, "Embedding host",
                                                                  kUnknown, 1, e2e::tool("qorhost")));
    startService();
    hearFromNowOn();
  }
  std::string coded(int id, const std::string& text) { return operational(id, kCodedName, text); }
  std::string stopped() { return coded(10, "Agent stopped successfully."); }
  std::string started() { return coded(7, "Agent started successfully."); }
};

TEST_F(QueryCodes, EveryCodeOfEveryCommandWithTheOSAgentManagedByTheWatchdogProcess) {
  startWithCodedAgent(e2e::osAgentCapFile());
  ASSERT_EQ((e2e::Seen{kRunning, programs.pid("qorqcoded"), 2}), seen("e2e.coded"));
  ASSERT_EQ(1, seen("e2e.host").restarts);
  const std::string stopAsked = coded(4, "Agent stop command received.");
  const std::string startAsked = coded(5, "Agent start command received.");
  const std::string resetDone = coded(26, "Agent daily restart count reset");
  const std::vector<Row> rows = {
      // A name that nobody has: each command's own code for it.
      refused(startOf(kNobody, L"qorqnobody"), 102),
      refused(stopOf(kNobody, L"qorqnobody"), 202),
      refused(recycleOf(kNobody, L"qorqnobody"), 302),
      refused(resetOf(kNobody, L"qorqnobody"), 601),
      refused(manageOf(kNobody), 401),
      refused(unmanageOf(kNobody), 501),
      // The OS agent is never started or stopped from here; its recycle and
      // its reset (of a count of 1, from the state file) go to the watchdog
      // process, which does not answer.
      refused(startOf(kHost, kHostProcess), 103),
      refused(stopOf(kHost, kHostProcess), 203),
      refused(recycleOf(kHost, kHostProcess), -1, "Recycle OS Agent. Agent Embedding host is OS Agent"),
      refused(resetOf(kHost, kHostProcess), -1,
              "Reset OS Agent Restart Count. Agent Embedding host is OS Agent"),
      refused(manageOf(kHost), 0, "OS agent is already managed....do nothing."),
      // Running; the stop's events also prove that none of the above queued anything.
      accepted(stopOf(kCoded, kCodedProcess), {stopAsked, stopped()}, kStoppedByHand),
      refused(stopOf(kCoded, kCodedProcess), 201),
      accepted(resetOf(kCoded, kCodedProcess), {resetDone}, kStoppedByHand),
      refused(resetOf(kCoded, kCodedProcess), 603),
      accepted(startOf(kCoded, kCodedProcess), {startAsked, started()}, kRunning),
      accepted(recycleOf(kCoded, kCodedProcess), {coded(25, "Agent recycle command received"), started()},
               kRunning),
      // Starting, while the start script waits at its gate.
      accepted(stopOf(kCoded, kCodedProcess), {stopAsked, stopped()}, kStoppedByHand),
      step("the start gate is held", [&] { gates.hold("start", "qorqcoded"); }),
      accepted(startOf(kCoded, kCodedProcess), {startAsked}, kStarting),
      refused(startOf(kCoded, kCodedProcess), 101),
      refused(stopOf(kCoded, kCodedProcess), 201),
      refused(recycleOf(kCoded, kCodedProcess), 301),
      refused(resetOf(kCoded, kCodedProcess), 602),
      step(
          "the start gate opens", [&] { gates.open("start", "qorqcoded"); }, {started()}, kRunning),
      // Stopping, while the stop script waits at its gate.
      step("the stop gate is held", [&] { gates.hold("stop", "qorqcoded"); }),
      accepted(stopOf(kCoded, kCodedProcess), {stopAsked}, kStopping),
      refused(startOf(kCoded, kCodedProcess), 101),
      refused(stopOf(kCoded, kCodedProcess), 201),
      refused(recycleOf(kCoded, kCodedProcess), 301),
      refused(resetOf(kCoded, kCodedProcess), 602),
      step(
          "the stop gate opens", [&] { gates.open("stop", "qorqcoded"); }, {stopped()}, kStoppedByHand),
      // Unmanaged.
      accepted(unmanageOf(kCoded), {management(3, kCodedName, "Agent now unmanaged.")}, kUnknown),
      refused(startOf(kCoded, kCodedProcess), 100),
      refused(stopOf(kCoded, kCodedProcess), 200),
      refused(recycleOf(kCoded, kCodedProcess), 300, "Recycle agent failed. Agent Coded program not managed"),
      refused(resetOf(kCoded, kCodedProcess), 600,
              "Reset agent count failed. Agent Coded program not managed"),
      refused(unmanageOf(kCoded), 500, "Stop manage failed. Agent Coded program not managed"),
      accepted(manageOf(kCoded), {management(2, kCodedName, "Agent now managed.")}, kStopped),
      // A start that resets the count tells of the reset first, straight away.
      accepted(startOf(kCoded, kCodedProcess, true), {resetDone, startAsked, started()}, kRunning),
      // The OS agent unmanaged takes every agent out of management with it.
      accepted(unmanageOf(kHost), {e2e::disarmedLine(), management(3, kCodedName, "Agent now unmanaged.")},
               kUnknown),
      refused(manageOf(kCoded), 404),
      refused(unmanageOf(kHost), 500, "Stop management failed. Agent Embedding host is not managed."),
      refused(recycleOf(kHost, kHostProcess), 300, "Recycle agent failed. OS agent is not managed"),
      refused(resetOf(kHost, kHostProcess), 600, "Reset agent count failed. OS agent not managed"),
      refused(startOf(kHost, kHostProcess), 103),
      refused(stopOf(kHost, kHostProcess), 203),
      // Managed again, it brings back the agents that were managed, and its
      // count was cleared with its management.
      accepted(manageOf(kHost), {e2e::rearmedLine(), management(2, kCodedName, "Agent now managed.")},
               kRunning),
      refused(resetOf(kHost, kHostProcess), 603, "Reset OS Agent Restart Count. Count is already 0"),
      refused(recycleOf(kHost, kHostProcess), -1),
      // The last refusals queued nothing either.
      accepted(stopOf(kCoded, kCodedProcess), {stopAsked, stopped()}, kStoppedByHand),
  };
  walk(rows, "e2e.coded");
  EXPECT_EQ(0, seen("e2e.host").restarts);
  EXPECT_TRUE(noWorkerLeft());
}

// The OS agent's own file says that nothing manages it: the service comes
// up disarmed with every agent unmanaged, and nothing can be managed.
TEST_F(QueryCodes, EveryCodeOfEveryCommandWithAnOSAgentThatNothingManages) {
  captest::Subagent host;
  host.id = "e2e.host";
  host.agentName = "<agentName>Embedding host</agentName>";
  host.procName = "<procName>qorhost</procName>";
  host.productCode = "<productCode>qb</productCode>";
  host.agentPath = "<agentPath>" + e2e::tool("qorhost") + "</agentPath>";
  host.managerType = "<managerType>NotManaged</managerType>";
  startWithCodedAgent(captest::document(host));
  ASSERT_EQ(kUnknown, seen("e2e.coded").state);
  const std::vector<Row> rows = {
      refused(manageOf(kHost), -1, "OS agent manager type is NotManage do not allow to manage."),
      refused(manageOf(kCoded), 404),
      refused(unmanageOf(kHost), 500, "Stop management failed. Agent Embedding host is not managed."),
      refused(startOf(kHost, kHostProcess), 103),
      refused(stopOf(kHost, kHostProcess), 203),
      refused(recycleOf(kHost, kHostProcess), 300, "Recycle agent failed. OS agent is not managed"),
      refused(resetOf(kHost, kHostProcess), 600, "Reset agent count failed. OS agent not managed"),
      refused(startOf(kCoded, kCodedProcess), 100),
      refused(stopOf(kCoded, kCodedProcess), 200),
      refused(recycleOf(kCoded, kCodedProcess), 300),
      refused(resetOf(kCoded, kCodedProcess), 600),
      refused(unmanageOf(kCoded), 500),
      refused(manageOf(kNobody), 401),
      refused(unmanageOf(kNobody), 501),
      // Nothing can be accepted here; the embedder's own disarm, through the
      // same queues, proves that none of the refusals queued anything.
      step(
          "the embedder disarms", [] { DisarmWatchdog(0); }, {e2e::unreliableLine(), e2e::disarmedLine()},
          kUnknown),
  };
  walk(rows, "e2e.coded");
}

}  // namespace
