// Operator commands that an embedder gets wrong or sends at the wrong time,
// through QOR_QueryService alone: names nobody has, the empty name, names
// outside ASCII, a process id of another agent, each command on an agent in
// each operating state the service can put it in, and commands before the
// service starts and while and after it is released. Each call answers its
// code within a deadline, and what the listeners hear after it is exactly
// what the command leads to. Real programs, real CAP files and scripts, the
// service embedded in the test process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "e2e/embedded.h"
#include "e2e/querycalls.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

using e2e::accepted;
using e2e::Call;
using e2e::management;
using e2e::manageOf;
using e2e::of;
using e2e::operational;
using e2e::recycleOf;
using e2e::refused;
using e2e::resetOf;
using e2e::Row;
using e2e::startOf;
using e2e::step;
using e2e::stopOf;
using e2e::unmanageOf;

// Checked every 300 seconds: no check comes during a test, so that every
// event heard is one that a command led to.
constexpr int kRarely = 300;

// Operating states, as the iterator gives them.
constexpr int kUnknown = 0;
constexpr int kNotFound = 1;
constexpr int kStopped = 2;
constexpr int kStarting = 3;
constexpr int kRunning = 4;
constexpr int kStoppedByHand = 5;
constexpr int kStopping = 6;
constexpr int kNotConfigured = 7;

std::wstring wide(const std::string& text) {
  wchar_t* converted = QOR_u_strFromUTF8(text.c_str());
  std::wstring result = converted != nullptr ? converted : L"";
  delete[] converted;
  return result;
}

// The events of an agent as HeardEvents keeps them.
struct Said {
  std::string name;
  std::string stopAsked() const { return operational(4, name, "Agent stop command received."); }
  std::string stopped() const { return operational(10, name, "Agent stopped successfully."); }
  std::string startAsked() const { return operational(5, name, "Agent start command received."); }
  std::string started() const { return operational(7, name, "Agent started successfully."); }
  std::string recycleAsked() const { return operational(25, name, "Agent recycle command received"); }
  std::string managed() const { return management(2, name, "Agent now managed."); }
  std::string unmanaged() const { return management(3, name, "Agent now unmanaged."); }
};

// The rows of a name that no agent has, each command with its own code for it.
std::vector<Row> unknownTo(const std::wstring& name, const std::wstring& process) {
  return {
      refused(startOf(name, process), 102),   refused(stopOf(name, process), 202),
      refused(recycleOf(name, process), 302), refused(resetOf(name, process), 601),
      refused(manageOf(name), 401),           refused(unmanageOf(name), 501),
  };
}

void append(std::vector<Row>& rows, const std::vector<Row>& more) {
  rows.insert(rows.end(), more.begin(), more.end());
}

class QueryBadInput : public e2e::QueryService {
 protected:
  // An agent of its own program, managed, checked rarely, started and stopped
  // through the gates.
  void addAgent(const std::string& id, const std::string& name, const std::string& program) {
    writeAgent(program + ".xml", e2e::gatedAgent(id, name, programs, program, gates, kRarely));
  }
  void start() {
    startService();
    hearFromNowOn();
  }
};

TEST_F(QueryBadInput, NamesThatNoAgentHasAreRefusedWithEachCommandsNotFoundCodeAndQueueNothing) {
  programs.start("qorqknownd");
  addAgent("e2e.known", "Known program", "qorqknownd");
  start();
  const Said known{"Known program"};
  std::vector<Row> rows;
  // Names are compared whole, case and blanks included.
  for (const std::wstring& name : {std::wstring(L"No such agent"), std::wstring(L"known program"),
                                   std::wstring(L"Known program "), std::wstring(L"Known")}) {
    append(rows, unknownTo(name, L"qorqnobody"));
    // The process of the agent does not help a name that it does not have.
    append(rows, {refused(startOf(name, L"qorqknownd"), 102), refused(recycleOf(name, L"qorqknownd"), 302),
                  refused(resetOf(name, L"qorqknownd"), 601)});
  }
  // Its own name does not help a process that it does not have.
  append(rows, {refused(startOf(L"Known program", L"qorqnobody"), 102),
                refused(stopOf(L"Known program", L"qorqnobody"), 202),
                refused(recycleOf(L"Known program", L"qorqnobody"), 302),
                refused(resetOf(L"Known program", L"qorqnobody"), 601)});
  // A stop looks for the process alone: the name it is given takes no part.
  rows.push_back(accepted(stopOf(L"No such agent", L"qorqknownd"), {known.stopAsked(), known.stopped()},
                          kStoppedByHand));
  walk(rows, "e2e.known");
}

TEST_F(QueryBadInput, TheEmptyNameIsNobodysAndAnEmptyProcessNameIsNoAgentsEither) {
  programs.start("qorqknownd");
  addAgent("e2e.known", "Known program", "qorqknownd");
  start();
  const Said known{"Known program"};
  std::vector<Row> rows = unknownTo(L"", L"");
  append(rows, {refused(startOf(L"", L"qorqknownd"), 102), refused(recycleOf(L"", L"qorqknownd"), 302),
                refused(resetOf(L"", L"qorqknownd"), 601), refused(startOf(L"Known program", L""), 102),
                refused(stopOf(L"Known program", L""), 202), refused(recycleOf(L"Known program", L""), 302),
                refused(resetOf(L"Known program", L""), 601)});
  // A stop with no name, of the agent's process.
  rows.push_back(accepted(stopOf(L"", L"qorqknownd"), {known.stopAsked(), known.stopped()}, kStoppedByHand));
  walk(rows, "e2e.known");
}

TEST_F(QueryBadInput, NamesOutsideAsciiAreNobodysUnlessAnAgentHasThemAndThenTheyAreHeardAsTheyAre) {
  programs.start("qorqwided");
  const std::string name = "Agent \xc3\xa9t\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac";  // "Agent été 日本" in UTF-8
  addAgent("e2e.wide", name, "qorqwided");
  start();
  const Said wideAgent{name};
  std::vector<Row> rows;
  for (const std::wstring& unknown : {std::wstring(L"agent\u00e9"), std::wstring(L"\u65e5\u672c"),
                                      std::wstring(L"Agent \u00e9t\u00e9"), std::wstring(L"\U0001F600")}) {
    append(rows, unknownTo(unknown, L"qorq\u00e9"));
  }
  const std::wstring wideName = L"Agent \u00e9t\u00e9 \u65e5\u672c";
  ASSERT_EQ(wideName, wide(name));
  append(rows, {accepted(unmanageOf(wideName), {wideAgent.unmanaged()}, kUnknown),
                refused(startOf(wideName, L"qorqwided"), 100),
                accepted(manageOf(wideName), {wideAgent.managed()}, kRunning),
                accepted(stopOf(wideName, L"qorqwided"), {wideAgent.stopAsked(), wideAgent.stopped()},
                         kStoppedByHand)});
  walk(rows, "e2e.wide");
}

TEST_F(QueryBadInput, AProcessIdThatIsNotTheAgentsFindsNothingForAStopOrARecycle) {
  programs.startAll({"qorqknownd", "qorqotherd"});
  addAgent("e2e.known", "Known program", "qorqknownd");
  addAgent("e2e.other", "Other program", "qorqotherd");
  start();
  const Said known{"Known program"};
  const int first = programs.pid("qorqknownd");
  const int other = programs.pid("qorqotherd");
  ASSERT_GT(first, 0);
  ASSERT_GT(other, 0);
  const int mine = static_cast<int>(getpid());
  const std::vector<Row> rows = {
      // Another agent's process, a process that is no agent's, and an id no process has.
      refused(stopOf(L"Known program", L"qorqknownd", other), 202),
      refused(recycleOf(L"Known program", L"qorqknownd", other), 302),
      refused(stopOf(L"Known program", L"qorqknownd", mine), 202),
      refused(recycleOf(L"Known program", L"qorqknownd", mine), 302),
      refused(stopOf(L"Known program", L"qorqknownd", -2), 202),
      refused(recycleOf(L"Known program", L"qorqknownd", 0), 302),
      // Its own process id: a recycle gives it a new one.
      accepted(recycleOf(L"Known program", L"qorqknownd", first), {known.recycleAsked(), known.started()},
               kRunning),
      step("the recycled program has a new process", [&] { ASSERT_NE(first, programs.pid("qorqknownd")); }),
      refused(stopOf(L"Known program", L"qorqknownd", first), 202),
  };
  walk(rows, "e2e.known");
  const int second = programs.pid("qorqknownd");
  walk({accepted(stopOf(L"Known program", L"qorqknownd", second), {known.stopAsked(), known.stopped()},
                 kStoppedByHand)},
       "e2e.known");
  EXPECT_EQ((e2e::Seen{kRunning, other, 0}), seen("e2e.other"));
}

// ---- Each command in each operating state ------------------------------------
// An accepted command moves the agent on, so the commands that do so are sent
// to agents of their own in the same state, one each.

TEST_F(QueryBadInput, EveryCommandOnAnAgentThatIsNotManagedAndSoInStateUnknown) {
  programs.start("qorqidled");
  captest::Subagent idle = e2e::gatedAgent("e2e.idle", "Idle program", programs, "qorqidled", gates, kRarely);
  idle.managerType = "<managerType>NotManaged</managerType>";
  writeAgent("idle.xml", idle);
  start();
  ASSERT_EQ(kUnknown, seen("e2e.idle").state);
  const std::vector<Row> rows = {
      refused(startOf(L"Idle program", L"qorqidled"), 100),
      refused(stopOf(L"Idle program", L"qorqidled"), 200),
      refused(recycleOf(L"Idle program", L"qorqidled"), 300),
      refused(resetOf(L"Idle program", L"qorqidled"), 600),
      refused(unmanageOf(L"Idle program"), 500),
      accepted(manageOf(L"Idle program"), {Said{"Idle program"}.managed()}, kRunning),
  };
  walk(rows, "e2e.idle");
}

TEST_F(QueryBadInput, EveryCommandOnAnAgentThatIsNotFoundOnTheSystem) {
  addAgent("e2e.missing", "Missing program", "qorqmissd");  // never installed
  start();
  ASSERT_EQ(kNotFound, seen("e2e.missing").state);
  const std::vector<Row> rows = {
      refused(startOf(L"Missing program", L"qorqmissd"), 100),
      refused(stopOf(L"Missing program", L"qorqmissd"), 200),
      refused(recycleOf(L"Missing program", L"qorqmissd"), 300),
      refused(resetOf(L"Missing program", L"qorqmissd"), 600),
      refused(unmanageOf(L"Missing program"), 500),
      // Accepted, and found missing once more: it stays unmanaged.
      accepted(manageOf(L"Missing program"),
               {management(14, "Missing program", "Agent not found"), Said{"Missing program"}.unmanaged()},
               kNotFound),
  };
  walk(rows, "e2e.missing");
}

TEST_F(QueryBadInput, EveryCommandOnAStoppedAgent) {
  for (const char* program : {"qorqstop1d", "qorqstop2d", "qorqstop3d"}) programs.install(program);
  addAgent("e2e.stop1", "Stopped one", "qorqstop1d");
  addAgent("e2e.stop2", "Stopped two", "qorqstop2d");
  addAgent("e2e.stop3", "Stopped three", "qorqstop3d");
  start();
  for (const char* id : {"e2e.stop1", "e2e.stop2", "e2e.stop3"}) ASSERT_EQ(kStopped, seen(id).state) << id;
  const Said one{"Stopped one"};
  const Said two{"Stopped two"};
  const Said three{"Stopped three"};
  const std::vector<Row> rows = {
      refused(resetOf(L"Stopped one", L"qorqstop1d"), 603),
      // A stop of what is down already is accepted, and changes nothing.
      accepted(stopOf(L"Stopped one", L"qorqstop1d"), {one.stopAsked()}, kStopped),
      accepted(manageOf(L"Stopped one"), {one.managed()}, kStopped),
      accepted(recycleOf(L"Stopped one", L"qorqstop1d"), {one.recycleAsked(), one.started()}, kRunning),
      of("e2e.stop2",
         accepted(startOf(L"Stopped two", L"qorqstop2d"), {two.startAsked(), two.started()}, kRunning)),
      of("e2e.stop3", accepted(unmanageOf(L"Stopped three"), {three.unmanaged()}, kUnknown)),
  };
  walk(rows, "e2e.stop1");
}

TEST_F(QueryBadInput, EveryCommandOnAStartingAgent) {
  for (const char* program : {"qorqstart1d", "qorqstart2d"}) programs.install(program);
  addAgent("e2e.start1", "Starting one", "qorqstart1d");
  addAgent("e2e.start2", "Starting two", "qorqstart2d");
  start();
  const Said one{"Starting one"};
  const Said two{"Starting two"};
  const std::vector<Row> rows = {
      step("both start gates are held",
           [&] {
             gates.hold("start", "qorqstart1d");
             gates.hold("start", "qorqstart2d");
           }),
      accepted(startOf(L"Starting one", L"qorqstart1d"), {one.startAsked()}, kStarting),
      of("e2e.start2", accepted(startOf(L"Starting two", L"qorqstart2d"), {two.startAsked()}, kStarting)),
      refused(startOf(L"Starting one", L"qorqstart1d"), 101),
      refused(stopOf(L"Starting one", L"qorqstart1d"), 201),
      refused(recycleOf(L"Starting one", L"qorqstart1d"), 301),
      // Busy comes before a count of 0.
      refused(resetOf(L"Starting one", L"qorqstart1d"), 602),
      // Taken into management again, it takes the state of its process,
      // which is not there yet.
      accepted(manageOf(L"Starting one"), {one.managed()}, kStopped),
      of("e2e.start2", accepted(unmanageOf(L"Starting two"), {two.unmanaged()}, kUnknown)),
      // The starts end, and their results, which no longer fit, are dropped.
      step("both start gates open and the starts end",
           [&] {
             gates.open("start", "qorqstart1d");
             gates.open("start", "qorqstart2d");
             ASSERT_TRUE(noWorkerLeft());
           }),
      accepted(startOf(L"Starting one", L"qorqstart1d"), {one.startAsked(), one.started()}, kRunning),
  };
  walk(rows, "e2e.start1");
  EXPECT_EQ(kUnknown, seen("e2e.start2").state);
}

TEST_F(QueryBadInput, EveryCommandOnARunningAgent) {
  programs.startAll({"qorqrun1d", "qorqrun2d", "qorqrun3d"});
  addAgent("e2e.run1", "Running one", "qorqrun1d");
  addAgent("e2e.run2", "Running two", "qorqrun2d");
  addAgent("e2e.run3", "Running three", "qorqrun3d");
  start();
  for (const char* id : {"e2e.run1", "e2e.run2", "e2e.run3"}) ASSERT_EQ(kRunning, seen(id).state) << id;
  const Said one{"Running one"};
  const Said two{"Running two"};
  const Said three{"Running three"};
  const int pid = programs.pid("qorqrun1d");
  const std::vector<Row> rows = {
      refused(resetOf(L"Running one", L"qorqrun1d"), 603),
      // A start of what runs is accepted, and changes nothing.
      accepted(startOf(L"Running one", L"qorqrun1d"), {one.startAsked()}, kRunning),
      accepted(manageOf(L"Running one"), {one.managed()}, kRunning),
      step("still the same process",
           [&] {
             ASSERT_EQ((e2e::Seen{kRunning, pid, 0}), seen("e2e.run1"));
           }),
      accepted(stopOf(L"Running one", L"qorqrun1d"), {one.stopAsked(), one.stopped()}, kStoppedByHand),
      of("e2e.run2",
         accepted(recycleOf(L"Running two", L"qorqrun2d"), {two.recycleAsked(), two.started()}, kRunning)),
      of("e2e.run3", accepted(unmanageOf(L"Running three"), {three.unmanaged()}, kUnknown)),
  };
  walk(rows, "e2e.run1");
}

TEST_F(QueryBadInput, EveryCommandOnAnAgentStoppedByHand) {
  // Stopped by an operator before the service last stopped, as the state file says.
  std::string records = "3\n";
  for (const char* program : {"qorqhand1d", "qorqhand2d", "qorqhand3d"}) {
    programs.install(program);
    const std::string number(1, program[8]);
    addAgent(std::string("e2e.hand") + number, std::string("By hand ") + number, program);
    records += e2e::stateRecord(std::string("e2e.hand") + number, program, 1,
                                std::string("By hand ") + number, kStoppedByHand, 0, programs.path(program));
  }
  qortest::writeFile(caps.file("teo.dat"), records);
  start();
  for (const char* id : {"e2e.hand1", "e2e.hand2", "e2e.hand3"})
    ASSERT_EQ(kStoppedByHand, seen(id).state) << id;
  const Said one{"By hand 1"};
  const Said two{"By hand 2"};
  const Said three{"By hand 3"};
  const std::vector<Row> rows = {
      refused(stopOf(L"By hand 1", L"qorqhand1d"), 201),
      refused(resetOf(L"By hand 1", L"qorqhand1d"), 603),
      // Taken into management again, it stays down as the operator left it.
      accepted(manageOf(L"By hand 1"), {one.managed()}, kStoppedByHand),
      accepted(startOf(L"By hand 1", L"qorqhand1d"), {one.startAsked(), one.started()}, kRunning),
      of("e2e.hand2",
         accepted(recycleOf(L"By hand 2", L"qorqhand2d"), {two.recycleAsked(), two.started()}, kRunning)),
      of("e2e.hand3", accepted(unmanageOf(L"By hand 3"), {three.unmanaged()}, kUnknown)),
  };
  walk(rows, "e2e.hand1");
}

TEST_F(QueryBadInput, EveryCommandOnAStoppingAgent) {
  programs.startAll({"qorqhalt1d", "qorqhalt2d"});
  addAgent("e2e.halt1", "Stopping one", "qorqhalt1d");
  addAgent("e2e.halt2", "Stopping two", "qorqhalt2d");
  start();
  const Said one{"Stopping one"};
  const Said two{"Stopping two"};
  const std::vector<Row> rows = {
      step("both stop gates are held",
           [&] {
             gates.hold("stop", "qorqhalt1d");
             gates.hold("stop", "qorqhalt2d");
           }),
      accepted(stopOf(L"Stopping one", L"qorqhalt1d"), {one.stopAsked()}, kStopping),
      of("e2e.halt2", accepted(stopOf(L"Stopping two", L"qorqhalt2d"), {two.stopAsked()}, kStopping)),
      refused(startOf(L"Stopping one", L"qorqhalt1d"), 101),
      refused(stopOf(L"Stopping one", L"qorqhalt1d"), 201),
      refused(recycleOf(L"Stopping one", L"qorqhalt1d"), 301),
      refused(resetOf(L"Stopping one", L"qorqhalt1d"), 602),
      // Taken into management again, it takes the state of its process,
      // which still runs.
      accepted(manageOf(L"Stopping one"), {one.managed()}, kRunning),
      of("e2e.halt2", accepted(unmanageOf(L"Stopping two"), {two.unmanaged()}, kUnknown)),
      // The first stop's result finds the agent running and passes as news
      // that changes nothing; the second's finds it unmanaged and is dropped.
      step(
          "both stop gates open and the stops end",
          [&] {
            gates.open("stop", "qorqhalt1d");
            gates.open("stop", "qorqhalt2d");
            ASSERT_TRUE(noWorkerLeft());
          },
          {one.stopped()}, kRunning),
      accepted(stopOf(L"Stopping one", L"qorqhalt1d"), {one.stopAsked(), one.stopped()}, kStoppedByHand),
  };
  walk(rows, "e2e.halt1");
  EXPECT_EQ(kUnknown, seen("e2e.halt2").state);
}

TEST_F(QueryBadInput, EveryCommandOnASuiteAgentWithNoInstanceAndSoNotConfigured) {
  programs.install("qorqsuited");
  captest::Subagent suite =
      e2e::gatedAgent("e2e.suite", "Suite program", programs, "qorqsuited", gates, kRarely);
  suite.agentType = "<agentType>ZEL_UNIX</agentType>";
  writeAgent("suite.xml", suite);
  start();
  ASSERT_EQ(kNotConfigured, seen("e2e.suite").state);
  const std::vector<Row> rows = {
      refused(startOf(L"Suite program", L"qorqsuited"), 100),
      refused(stopOf(L"Suite program", L"qorqsuited"), 200),
      refused(recycleOf(L"Suite program", L"qorqsuited"), 300),
      refused(resetOf(L"Suite program", L"qorqsuited"), 600),
      refused(unmanageOf(L"Suite program"), 500),
      // Accepted, and found with no instance once more: it stays unmanaged.
      accepted(manageOf(L"Suite program"),
               {management(23, "Suite program", "Agent not configured"), Said{"Suite program"}.unmanaged()},
               kNotConfigured),
  };
  walk(rows, "e2e.suite");
}

// ---- Commands at the wrong time -------------------------------------------------

TEST_F(QueryBadInput, CommandsBeforeTheServiceStartsAnswerMinusOneWithoutLookingForTheAgent) {
  programs.start("qorqknownd");
  addAgent("e2e.known", "Known program", "qorqknownd");
  // Every trace a command writes: its opening, its lookup and its refusals.
  qortest::traceTo(work.file("trace"), 146 | 256 | 1);
  service = QOR_QueryService::initQueryService();
  for (const Call& call :
       {startOf(L"Known program", L"qorqknownd"), stopOf(L"Known program", L"qorqknownd"),
        recycleOf(L"Known program", L"qorqknownd"), resetOf(L"Known program", L"qorqknownd"),
        manageOf(L"Known program"), unmanageOf(L"Known program"), startOf(L"Embedding host", L"qorhost"),
        manageOf(L"No such agent")}) {
    SCOPED_TRACE(e2e::describe(call));
    EXPECT_EQ(-1, e2e::sendWithin(service, call));
  }
  EXPECT_EQ(0, traced("Lookup agent"));
  for (const char* opening : {"Stop agent ", "Start agent ", "Recycle agent ", "Reset agent restart count ",
                              "Start management for agent ", "Stop management for agent "}) {
    EXPECT_EQ(0, traced(opening)) << opening;
  }
  // Started, the same commands look for the agent; the stop is traced as it looks.
  service->startQueryService();
  EXPECT_EQ(202, e2e::sendWithin(service, stopOf(L"Known program", L"qorqnobody")));
  EXPECT_EQ(1, traced("Lookup agent: Known program, process: qorqnobody\t-1 \n"));
  EXPECT_EQ(1, traced("Stop agent Known program (pid -1)\n"));
}

// What one command sent during the release saw and answered.
struct Sent {
  bool startedBefore;  // the service said it was started just before the call
  bool afterRelease;   // the release had returned before the call
  int code;
  long long ms;
};

TEST_F(QueryBadInput, CommandsWhileTheServiceIsReleasedAndAfterAnswerMinusOneAndNeverBlock) {
  programs.start("qorqknownd");
  addAgent("e2e.known", "Known program", "qorqknownd");
  start();
  // Refusals, the OS agent, and an agent that is stopped and started as the
  // commands come. (Not the OS agent's recycle or reset: each call that
  // fails to reach the watchdog process keeps a socket open for good.)
  const std::vector<Call> calls = {
      stopOf(L"Known program", L"qorqknownd"),
      startOf(L"Known program", L"qorqknownd"),
      startOf(L"No such agent", L"qorqnobody"),
      stopOf(L"No such agent", L"qorqnobody"),
      startOf(L"Embedding host", L"qorhost"),
      resetOf(L"No such agent", L"qorqnobody"),
      manageOf(L"No such agent"),
      unmanageOf(L"No such agent"),
  };
  // Each command's codes apart from -1, as the rows above give them.
  const std::vector<std::vector<int>> answers = {{0, 201}, {0, 101}, {102}, {202},
                                                 {103},    {601},    {401}, {501}};
  std::atomic<bool> released(false);
  std::atomic<int> sentAfterRelease(0);
  QOR_QueryService* embedded = service;
  // The embedder's command thread, which does not know that the service is
  // going away. It still holds the service's pointer when the release has
  // ended: the commands read only the service's flags, never the instance.
  auto commands = std::async(std::launch::async, [&] {
    std::vector<Sent> sent;
    for (size_t i = 0; sentAfterRelease.load() < 20; ++i) {
      const Call& call = calls[i % calls.size()];
      Sent one{QOR_QueryService::isStarted(), released.load(), 0, 0};
      const long long begun = qortest::nowMs();
      one.code = e2e::send(embedded, call);
      one.ms = qortest::nowMs() - begun;
      sent.push_back(one);
      if (one.afterRelease) sentAfterRelease.fetch_add(1);
    }
    return sent;
  });
  // Some commands go through before the release begins.
  ASSERT_TRUE(qortest::waitFor([&] { return heard.all().size() > cursor; }, 5000));
  service->deregisterLogListener(&heard);
  service->deregisterAlertListener(&alerts);
  const long long begun = qortest::nowMs();
  EXPECT_TRUE(service->releaseQueryService(false));
  EXPECT_LT(qortest::nowMs() - begun, e2e::kCallDeadlineMs);
  service = nullptr;
  released.store(true);
  ASSERT_EQ(std::future_status::ready, commands.wait_for(std::chrono::milliseconds(e2e::kCallDeadlineMs)))
      << "the commands have not ended";
  const std::vector<Sent> sent = commands.get();
  int whileStarted = 0;
  for (size_t i = 0; i < sent.size(); ++i) {
    const Sent& one = sent[i];
    SCOPED_TRACE(e2e::describe(calls[i % calls.size()]) + ", call " + std::to_string(i));
    EXPECT_LT(one.ms, e2e::kCallDeadlineMs);
    if (!one.startedBefore) {
      EXPECT_EQ(-1, one.code);
      continue;
    }
    ++whileStarted;
    const std::vector<int>& codes = answers[i % calls.size()];
    EXPECT_TRUE(one.code == -1 || std::find(codes.begin(), codes.end(), one.code) != codes.end()) << one.code;
  }
  const long long during = std::count_if(
      sent.begin(), sent.end(), [](const Sent& one) { return !one.startedBefore && !one.afterRelease; });
  std::printf("commands around the release: %d while started, %lld while it ran, %d after it\n", whileStarted,
              during, sentAfterRelease.load());
  EXPECT_LE(20, sentAfterRelease.load());
  EXPECT_LT(0, whileStarted);
  EXPECT_FALSE(QOR_QueryService::isStarted());
  EXPECT_FALSE(QOR_QueryService::isInitialized());
}

}  // namespace
