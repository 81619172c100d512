// The Watchdog's actions: the initiate_ operations that look after the
// dependent agents and hand the slow half to a worker, the start with its
// config script and linear back-off, the stop through a script, a service or a
// kill, and the marker file of the watchdog process. Agents come from real CAP
// files, their scripts are real shell commands that log their runs to files,
// and the command handler does not run: what the actions raise stays on the
// command queue, in order, for the test to take off.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agents/qoragt.h"
#include "cap/capfiles.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"
#include "support/queues.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmdunx.h"
#include "watchdog/qorwd.h"
#include "watchdog/qorwdproc.h"

namespace {

// What an action asked the state machine for: one AgentOpEvent of the command queue.
struct Raised {
  int id;
  int opState;
  const Agent* agent;
  std::wstring text;
  bool operator==(const Raised& other) const {
    return id == other.id && opState == other.opState && agent == other.agent && text == other.text;
  }
};

void PrintTo(const Raised& raised, std::ostream* out) {
  *out << "{id " << raised.id << ", opState " << raised.opState << ", agent "
       << (raised.agent != nullptr ? raised.agent->getshortID() : std::string("null")) << ", text \""
       << LOG1_Narrow(raised.text) << "\"}";
}

using RaisedList = std::vector<Raised>;

// What an event given an empty text says: its default.
const std::wstring kNoText = L"N/A";

void drain(EventHandler* queue) {
  for (Event* event : qortest::takeEvents(queue)) delete event;
}

// The events on the command queue, taken off it. Only the pointer of the
// event's agent is kept, to be compared: no agent is read here.
RaisedList takeRaised() {
  RaisedList raised;
  for (Event* event : qortest::takeEvents(Controller::getController()->getCommandHandler())) {
    auto* opEvent = dynamic_cast<AgentOpEvent*>(event);
    raised.push_back({event->getEventTypeID(), opEvent != nullptr ? opEvent->getOpState() : -1,
                      opEvent != nullptr ? opEvent->getAgent() : nullptr, event->getUserMessage()});
    delete event;
  }
  return raised;
}

bool noWorker() { return Controller::getController()->getWorkerThreads()->isVectorEmpty(); }

// Milliseconds since midnight of a trace line's time stamp
// ("2024-05-01 12:00:00.123 [tid] ..."); -1 for a line without one.
long long stampMs(const std::string& line) {
  int hours = 0;
  int minutes = 0;
  int seconds = 0;
  int millis = 0;
  if (sscanf(line.c_str(), "%*d-%*d-%*d %d:%d:%d.%d", &hours, &minutes, &seconds, &millis) != 4) return -1;
  return ((hours * 60LL + minutes) * 60 + seconds) * 1000 + millis;
}

// For each line of `text` that holds `from`, the milliseconds until the next
// line that holds `to`, as the trace's time stamps tell it.
std::vector<long long> gapsMs(const std::string& text, const std::string& from, const std::string& to) {
  std::vector<long long> gaps;
  std::istringstream in(text);
  std::string line;
  long long begun = -1;
  while (std::getline(in, line)) {
    if (begun < 0 && line.find(from) != std::string::npos) {
      begun = stampMs(line);
    } else if (begun >= 0 && line.find(to) != std::string::npos) {
      long long gap = stampMs(line) - begun;
      if (gap < 0) gap += 24LL * 3600 * 1000;  // across midnight
      gaps.push_back(gap);
      begun = -1;
    }
  }
  return gaps;
}

// Whether a child of this process has ended: gone from /proc, or a zombie
// that nobody has reaped yet.
bool hasEnded(int pid) {
  std::string stat = qortest::readFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  return close == std::string::npos || stat.compare(close + 1, 3, " Z ") == 0;
}

class WatchdogActions : public ::testing::Test {
 protected:
  void SetUp() override {
    // The first command manager of the process takes this time-out.
    MIN_CMD_TIMEOUT = commandTimeout;
    unsetenv("QOR_CMD_TIMEOUT");
    // One second between start attempts and between sweeps of the wait, so
    // that the back-off can be measured in seconds rather than in tens of them.
    WD_START_RETRY_INTERVAL = 1;
    qortest::traceTo(traces.file("trace"), QOR_TL_DETAIL | QOR_TL_STATUS | QOR_TL_ERROR);
  }

  void TearDown() override {
    // QOR_DUMP=1 shows the trace of a failed test.
    if (HasFailure() && getenv("QOR_DUMP") != nullptr) std::cerr << trace();
    ControllerTestAccess::setShuttingDown(false);
    ControllerTestAccess::setDisarmed(false);
    // A worker that is still running reads the list: let it end first.
    EXPECT_TRUE(qortest::waitFor(noWorker, 20000));
    ManagedProcessList* list = managed();
    list->lockList();
    list->clear();
    list->unlockList();
    drain(Controller::getController()->getCommandHandler());
    drain(Controller::getController()->getMessageHandler());
    agents.clear();
    // Scripts that were left running after a time-out.
    auto* manager = static_cast<QorCmdUNIX*>(GetCmdManager());
    for (int pid : manager->getDefunctProcesses()) proctest::killProcess(pid);
    qortest::waitFor(
        [&] {
          manager->cleanUpDefunctProcesses();
          return manager->getDefunctProcesses().empty();
        },
        5000);
  }

  static ManagedProcessList* managed() { return Controller::getController()->getManagedEndpointProcesses(); }

  // A subagent "id" whose program is a file of the lab that does not run.
  captest::Subagent subagent(const std::string& id) {
    captest::Subagent result;
    result.id = id;
    result.procName = "<procName>qor" + std::to_string(++made) + "d</procName>";
    result.agentPath = "<agentPath>" + lab.file("qor" + std::to_string(made) + "d") + "</agentPath>";
    return result;
  }

  // The agent of a CAP file as the service makes it, with its Watchdog, in
  // the managed list.
  Agent* makeAgent(const captest::Subagent& from, OperatingStates state) {
    Policy* policy = new Policy();
    XMLprocessor processor;
    EXPECT_EQ(XML_OK, captest::parseText(processor, caps, captest::document(from), *policy,
                                         "agent" + std::to_string(++files) + ".xml"));
    Agent* agent = new Agent();
    agents.emplace_back(agent);
    agent->setIdentityFrom(policy);
    agent->setInstanceProcName(policy->getProcName());
    agent->setManagedState(Managed);
    agent->setOperatingState(state);
    Watchdog* watchdog = new Watchdog();
    watchdog->setAgent(agent);
    agent->setWatchdog(watchdog);
    managed()->lockList();
    managed()->push_back(agent);
    managed()->unlockList();
    return agent;
  }
  Agent* makeAgent(const std::string& id, OperatingStates state) { return makeAgent(subagent(id), state); }

  // An agent "act.agent" whose policy needs the agents `ids`, with a start
  // script when `startCommand` is given.
  Agent* makeAgentNeeding(const std::vector<std::string>& ids, OperatingStates state,
                          const std::string& startCommand = std::string()) {
    captest::Subagent needing = subagent("act.agent");
    if (!startCommand.empty()) needing.startScript = captest::script("startScript", startCommand);
    for (const std::string& id : ids) needing.dependentAgent += "<dependentAgent>" + id + "</dependentAgent>";
    return makeAgent(needing, state);
  }

  // An agent whose policy needs `needed`: stopping `needed` stops it first.
  Agent* makeAgentThatNeeds(const std::string& id, const std::string& needed, OperatingStates state) {
    captest::Subagent needing = subagent(id);
    needing.dependentAgent = "<dependentAgent>" + needed + "</dependentAgent>";
    return makeAgent(needing, state);
  }

  // A command that appends a line to the log `name` and exits with `code`.
  std::string logged(const std::string& name, int code = 0) {
    return "echo run >> " + lab.file(name) + "; exit " + std::to_string(code);
  }
  int runs(const std::string& name) {
    return qortest::countOccurrences(qortest::readFile(lab.file(name)), "\n");
  }

  // As the state machine calls the initiate_ operations and the dependents'
  // start: on its thread with the list locked.
  template <typename Action>
  auto withList(Action action) -> decltype(action()) {
    EXPECT_TRUE(managed()->lockList());
    auto result = action();
    managed()->unlockList();
    return result;
  }

  // An event as the state machine hands it to an initiate_ operation.
  static std::unique_ptr<AgentOpEvent> command(Agent* agent, TEOEvents id, int opState, bool action = true) {
    std::unique_ptr<AgentOpEvent> event(new AgentOpEvent());
    event->setAgent(agent);
    event->setEventTypeID(id);
    event->setOpState(opState);
    event->setActionFlag(action);
    return event;
  }

  std::string trace() { return qortest::readFile(traces.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }
  // How often `text` was traced after the trace had `mark` characters.
  int tracedSince(size_t mark, const std::string& text) {
    return qortest::countOccurrences(trace().substr(mark), text);
  }

  int commandTimeout = 3;
  qortest::TempDir caps;
  qortest::TempDir lab;
  qortest::TempDir traces;
  std::vector<std::unique_ptr<Agent>> agents;
  int made = 0;
  int files = 0;
};

// A time-out short enough that a hanging script costs about a second.
class WatchdogActionsShortTimeout : public WatchdogActions {
 protected:
  WatchdogActionsShortTimeout() { commandTimeout = 2; }
};

}  // namespace

// ---- Posting a state event ----------------------------------------------------

TEST_F(WatchdogActions, AStateEventIsQueuedWithTheAgentItsStateItsIdAndItsTextAndAsksForAction) {
  Agent* agent = makeAgent("act.agent", OpRunning);
  agent->getWatchdog()->processOpStateEvent(OpStopped, agent_stopped_abnormally, L"went away");
  std::vector<std::unique_ptr<Event>> raised;
  for (Event* event : qortest::takeEvents(Controller::getController()->getCommandHandler()))
    raised.emplace_back(event);
  ASSERT_EQ(1u, raised.size());
  auto* event = dynamic_cast<AgentOpEvent*>(raised[0].get());
  ASSERT_NE(nullptr, event);
  EXPECT_EQ(agent, event->getAgent());
  EXPECT_FALSE(event->isAgentOwned());
  EXPECT_EQ(OpStopped, event->getOpState());
  EXPECT_EQ(agent_stopped_abnormally, event->getEventTypeID());
  EXPECT_EQ(L"went away", event->getUserMessage());
  EXPECT_TRUE(event->getActionFlag());
  // Posting changes nothing by itself: the state machine does, later.
  EXPECT_EQ(OpRunning, agent->getOperatingState());
}

// ---- initiate_Start and the dependents' start ------------------------------------

TEST_F(WatchdogActions, AnAgentWithoutDependentsStartsWithoutSleepingAndItsStatusWaitReturnsZeroAtOnce) {
  captest::Subagent alone = subagent("act.agent");
  alone.startScript = captest::script("startScript", logged("start.log"));
  Agent* agent = makeAgent(alone, OpStarting);
  Watchdog* watchdog = agent->getWatchdog();

  long long begun = qortest::nowMs();
  EXPECT_EQ(0, watchdog->startDependentAgentsStatus());
  EXPECT_LT(qortest::nowMs() - begun, 500);
  EXPECT_EQ(1, traced("No dependencies found.\n"));
  EXPECT_EQ(0, traced("Entering retry sleep"));

  std::wstring message;
  EXPECT_EQ(0, watchdog->start(message));
  EXPECT_EQ(1, runs("start.log"));
  EXPECT_EQ(2, traced("No dependencies found.\n"));
  EXPECT_EQ(1, traced("Starting agent id (act.agent).\n"));
  EXPECT_EQ(2, traced("Agent opstate (3).\n"));
  EXPECT_EQ(1, traced("Entering sleep for 0 seconds\n"));
  EXPECT_EQ(1, traced("Entering sleep for "));
  EXPECT_EQ(0, traced("Start command attempt"));
  EXPECT_EQ(0, traced("Failed to start agent id"));
  // No sleep before the first attempt: it wakes as soon as it went to sleep.
  std::vector<long long> slept = gapsMs(trace(), "Entering sleep for", "Waking from sleep for start retry");
  ASSERT_EQ(1u, slept.size());
  EXPECT_LT(slept[0], 500);  // well under the interval of 1 s
  EXPECT_EQ(RaisedList(), takeRaised());
}

TEST_F(WatchdogActions, ADependentMissingFromTheListFailsTheStartWithOneAndStartsNoWorker) {
  Agent* agent = makeAgentNeeding({"absent.agent"}, OpStarting);
  auto event = command(agent, agent_start_cmd, OpStopped);
  EXPECT_EQ(1, withList([&] { return agent->getWatchdog()->initiate_Start(event.get()); }));
  EXPECT_TRUE(noWorker());
  EXPECT_EQ(0, traced("new worker thread added"));
  EXPECT_EQ(1, traced("Initiating starting of agent id (act.agent).\n"));
  EXPECT_EQ(1, traced("Size of dependency list = 1\n"));
  EXPECT_EQ(1, traced("Dependent agent id = absent.agent\n"));
  EXPECT_EQ(1, traced("Size of agentCollection = 0\n"));
  EXPECT_EQ(1, traced("Address of agent = 0\n"));
  EXPECT_EQ(1, traced("Dependent agent id absent.agent not found\n"));
  EXPECT_EQ(RaisedList(), takeRaised());
}

TEST_F(WatchdogActions, AStartWhoseDependentRunsHandsTheStartToAWorkerThatReportsTheAgentStarted) {
  makeAgent("needed.agent", OpRunning);
  Agent* agent = makeAgentNeeding({"needed.agent"}, OpStarting, logged("start.log"));
  auto event = command(agent, agent_start_cmd, OpStopped);
  EXPECT_EQ(0, withList([&] { return agent->getWatchdog()->initiate_Start(event.get()); }));
  EXPECT_EQ(1, traced("new worker thread added"));
  EXPECT_EQ(1, traced("Agent id needed.agent was already started or starting.\n"));
  // The worker waits for the dependent, runs the start script, and raises the
  // result for the live agent.
  ASSERT_TRUE(qortest::waitFor(noWorker, 10000));
  EXPECT_EQ(RaisedList({{agent_started, OpStopped, agent, kNoText}}), takeRaised());
  EXPECT_EQ(1, runs("start.log"));
  EXPECT_EQ(1, traced("Agent id needed.agent was started.\n"));
  EXPECT_EQ(1, traced("Starting agent id (act.agent).\n"));
}

TEST_F(WatchdogActions, AFirstDependentStoppedByAnOperatorFailsTheStartWithFourThoughTheWaitWouldReturnZero) {
  makeAgent("first.agent", OpManuallyStopped);
  makeAgent("second.agent", OpRunning);
  Agent* agent = makeAgentNeeding({"first.agent", "second.agent"}, OpStarting);
  Watchdog* watchdog = agent->getWatchdog();
  auto event = command(agent, agent_start_cmd, OpStopped);
  EXPECT_EQ(4, withList([&] { return watchdog->initiate_Start(event.get()); }));
  EXPECT_TRUE(noWorker());
  EXPECT_EQ(1, traced("Size of dependency list = 2\n"));
  EXPECT_EQ(1, traced("Agent id first.agent was stopped or stopping and will not be started.\n"));
  EXPECT_EQ(1, traced("Agent id second.agent was already started or starting.\n"));
  EXPECT_EQ(RaisedList(), takeRaised());

  // The wait looks at the same two, and the running one examined last decides.
  EXPECT_EQ(0, watchdog->startDependentAgentsStatus());
  EXPECT_EQ(1, traced("Agent id first.agent was stopped or stopping is not started.\n"));
  EXPECT_EQ(1, traced("Agent id second.agent was started.\n"));
  EXPECT_EQ(0, traced("Entering retry sleep"));
}

TEST_F(WatchdogActions, StartingTheDependentsGivesEachStateOfADependentItsStatusAndAsksAStoppedOneToStart) {
  Agent* dependent = makeAgent("needed.agent", OpStopped);
  Agent* agent = makeAgentNeeding({"needed.agent"}, OpStarting);
  Watchdog* watchdog = agent->getWatchdog();
  struct Row {
    OperatingStates state;
    int status;
    RaisedList raised;
    std::string trace;
  };
  const Row rows[] = {
      {OpUnknown, 3, {}, "Agent id needed.agent is UNMANAGED and will not be started.\n"},
      {OpNotFound, 2, {}, "Agent id needed.agent is UNMANAGED and will not be started.\n"},
      {OpStopped,
       0,
       {{agent_stopped_abnormally, OpRunning, dependent, kNoText}},
       "Starting dependent agent id needed.agent.\n"},
      {OpStarting, 0, {}, "Agent id needed.agent was already started or starting.\n"},
      {OpRunning, 0, {}, "Agent id needed.agent was already started or starting.\n"},
      {OpManuallyStopped, 4, {}, "Agent id needed.agent was stopped or stopping and will not be started.\n"},
      {OpStopping, 4, {}, "Agent id needed.agent was stopped or stopping and will not be started.\n"},
      {OpNotConfigured, 0, {}, ""},
  };
  for (const Row& row : rows) {
    withList([&] {
      dependent->setOperatingState(row.state);
      return 0;
    });
    const size_t mark = trace().size();
    EXPECT_EQ(row.status, withList([&] { return watchdog->startDependentAgents(); }))
        << "state " << row.state;
    EXPECT_EQ(row.raised, takeRaised()) << "state " << row.state;
    EXPECT_EQ(1, tracedSince(mark, "Dependent agent id = needed.agent\n")) << "state " << row.state;
    EXPECT_EQ(1, tracedSince(mark, "Size of agentCollection = 1\n")) << "state " << row.state;
    // One line of the table for the dependent, none for state 7 and above.
    EXPECT_EQ(row.trace.empty() ? 0 : 1, tracedSince(mark, "Agent id needed.agent ") +
                                             tracedSince(mark, "Starting dependent agent id needed.agent.\n"))
        << "state " << row.state;
    if (!row.trace.empty()) {
      EXPECT_EQ(1, tracedSince(mark, row.trace)) << "state " << row.state;
    }
  }
}

TEST_F(WatchdogActions, StartingTheDependentsVisitsEveryOneAndTheLastFailureDecides) {
  Agent* manual = makeAgent("manual.agent", OpManuallyStopped);
  Agent* unknown = makeAgent("unknown.agent", OpUnknown);
  Agent* running = makeAgent("running.agent", OpRunning);
  Agent* stopped = makeAgent("stopped.agent", OpStopped);
  Agent* agent =
      makeAgentNeeding({"manual.agent", "unknown.agent", "running.agent", "stopped.agent"}, OpStarting);
  // A failure, a later failure, a success, and a stopped one to start: the
  // last failure stays, and the success does not clear it.
  EXPECT_EQ(3, withList([&] { return agent->getWatchdog()->startDependentAgents(); }));
  EXPECT_EQ(RaisedList({{agent_stopped_abnormally, OpRunning, stopped, kNoText}}), takeRaised());
  EXPECT_EQ(1, traced("Size of dependency list = 4\n"));
  EXPECT_EQ(4, traced("Size of agentCollection = 1\n"));
  EXPECT_EQ(1, traced("Agent id manual.agent was stopped or stopping and will not be started.\n"));
  EXPECT_EQ(1, traced("Agent id unknown.agent is UNMANAGED and will not be started.\n"));
  EXPECT_EQ(1, traced("Agent id running.agent was already started or starting.\n"));
  EXPECT_EQ(1, traced("Starting dependent agent id stopped.agent.\n"));
  // The dependents' records are left to the state machine.
  withList([&] {
    EXPECT_EQ(OpManuallyStopped, manual->getOperatingState());
    EXPECT_EQ(OpUnknown, unknown->getOperatingState());
    EXPECT_EQ(OpRunning, running->getOperatingState());
    EXPECT_EQ(OpStopped, stopped->getOperatingState());
    return 0;
  });
}

TEST_F(WatchdogActions, ADependentWithTwoInstancesIsJudgedByTheFirstInTheListAndBothAreCounted) {
  Agent* first = makeAgent("needed.agent", OpManuallyStopped);
  first->setInstanceName(L"one");
  Agent* second = makeAgent("needed.agent", OpRunning);
  second->setInstanceName(L"two");
  Agent* agent = makeAgentNeeding({"needed.agent"}, OpStarting);
  EXPECT_EQ(4, withList([&] { return agent->getWatchdog()->startDependentAgents(); }));
  EXPECT_EQ(1, traced("Size of agentCollection = 2\n"));
  EXPECT_EQ(1, traced("Address of agent = " +
                      std::to_string(static_cast<int>(reinterpret_cast<intptr_t>(first))) + "\n"));
  EXPECT_EQ(1, traced("Agent id needed.agent was stopped or stopping and will not be started.\n"));
  EXPECT_EQ(0, traced("was already started or starting"));
  // The wait takes the first one as well.
  EXPECT_EQ(4, agent->getWatchdog()->startDependentAgentsStatus());
  EXPECT_EQ(0, traced("Agent id needed.agent was started.\n"));
  EXPECT_EQ(RaisedList(), takeRaised());
}

// ---- The wait for the dependents ------------------------------------------------

TEST_F(WatchdogActions, TheWaitGivesEachStateOfASingleDependentItsStatus) {
  Agent* dependent = makeAgent("needed.agent", OpStopped);
  Agent* agent = makeAgentNeeding({"needed.agent"}, OpStarting);
  Watchdog* watchdog = agent->getWatchdog();
  struct Row {
    OperatingStates state;
    int status;
    std::string trace;
  };
  const Row rows[] = {
      {OpUnknown, 3, "Agent id needed.agent is UNMANAGED or not found and start test is invalid.\n"},
      {OpNotFound, 2, "Agent id needed.agent is UNMANAGED or not found and start test is invalid.\n"},
      {OpStopped, 4, "Agent id needed.agent was stopped or stopping is not started.\n"},
      {OpRunning, 0, "Agent id needed.agent was started.\n"},
      {OpManuallyStopped, 4, "Agent id needed.agent was stopped or stopping is not started.\n"},
      {OpStopping, 4, "Agent id needed.agent was stopped or stopping is not started.\n"},
      // No row: the default stays.
      {OpNotConfigured, 7, ""},
  };
  for (const Row& row : rows) {
    withList([&] {
      dependent->setOperatingState(row.state);
      return 0;
    });
    const size_t mark = trace().size();
    EXPECT_EQ(row.status, watchdog->startDependentAgentsStatus()) << "state " << row.state;
    EXPECT_EQ(row.trace.empty() ? 0 : 1, tracedSince(mark, "needed.agent")) << "state " << row.state;
    if (!row.trace.empty()) {
      EXPECT_EQ(1, tracedSince(mark, row.trace)) << "state " << row.state;
    }
  }
  // Not one of them is waited for.
  EXPECT_EQ(0, traced("Entering retry sleep"));
  EXPECT_EQ(0, traced("need to wait"));

  withList([&] {
    managed()->remove(dependent);
    return 0;
  });
  EXPECT_EQ(1, watchdog->startDependentAgentsStatus());
  EXPECT_EQ(1, traced("Dependent agent id needed.agent not found\n"));
  EXPECT_EQ(RaisedList(), takeRaised());
}

TEST_F(WatchdogActions, DependentsThatStayStartingThroughEverySweepEndTheWaitWithSevenAfterEverySleep) {
  makeAgent("slow.agent", OpStarting);
  makeAgent("slower.agent", OpStarting);
  Agent* agent = makeAgentNeeding({"slow.agent", "slower.agent"}, OpStarting);
  long long begun = qortest::nowMs();
  EXPECT_EQ(7, agent->getWatchdog()->startDependentAgentsStatus());
  long long took = qortest::nowMs() - begun;
  // WD_START_RETRY_COUNT sweeps, each followed by a sleep of WD_START_RETRY_INTERVAL.
  EXPECT_GE(took, 3000);
  EXPECT_LT(took, 4500);
  EXPECT_EQ(3, traced("Dependent agent is in startup mode, need to wait slow.agent.\n"));
  EXPECT_EQ(3, traced("Dependent agent is in startup mode, need to wait slower.agent.\n"));
  EXPECT_EQ(3, traced("Entering retry sleep for 1 sec\n"));
  EXPECT_EQ(3, traced("Woke up from retry sleep\n"));
  EXPECT_EQ(0, traced("Shutdown in progress"));
}

TEST_F(WatchdogActions, ADependentStillStartingAfterAFailedOneLeavesTheFailure) {
  makeAgent("slow.agent", OpStarting);
  Agent* agent = makeAgentNeeding({"absent.agent", "slow.agent"}, OpStarting);
  WD_START_RETRY_COUNT = 2;
  EXPECT_EQ(1, agent->getWatchdog()->startDependentAgentsStatus());
  EXPECT_EQ(2, traced("Dependent agent id absent.agent not found\n"));
  EXPECT_EQ(2, traced("need to wait slow.agent.\n"));
  EXPECT_EQ(2, traced("Entering retry sleep for 1 sec\n"));
}

TEST_F(WatchdogActions, AShutdownDuringTheWaitEndsTheSweepsAndTheStatusStaysSeven) {
  WD_START_RETRY_INTERVAL = 2;
  makeAgent("slow.agent", OpStarting);
  Agent* agent = makeAgentNeeding({"slow.agent"}, OpStarting);
  // The shutdown comes while the wait sleeps after its first sweep.
  std::thread shutdown([&] {
    qortest::waitFor([&] { return traced("Entering retry sleep for 2 sec\n") == 1; }, 10000);
    ControllerTestAccess::setShuttingDown(true);
  });
  long long begun = qortest::nowMs();
  const int status = agent->getWatchdog()->startDependentAgentsStatus();
  long long took = qortest::nowMs() - begun;
  shutdown.join();
  EXPECT_EQ(7, status);
  // One sweep and its sleep, not the three of a full wait.
  EXPECT_GE(took, 2000);
  EXPECT_LT(took, 3500);
  EXPECT_EQ(1, traced("need to wait slow.agent.\n"));
  EXPECT_EQ(1, traced("Entering retry sleep for 2 sec\n"));
  // The second sweep stops at its first dependent, then ends the wait.
  EXPECT_EQ(2, traced("Shutdown in progress\n"));
}

TEST_F(WatchdogActions, AShutdownBeforeTheWaitLooksAtNoDependentAndKeepsTheDefaultEvenWithOneRunning) {
  makeAgent("needed.agent", OpRunning);
  Agent* agent = makeAgentNeeding({"needed.agent"}, OpStarting);
  ControllerTestAccess::setShuttingDown(true);
  EXPECT_EQ(7, agent->getWatchdog()->startDependentAgentsStatus());
  EXPECT_EQ(0, traced("Agent id needed.agent was started.\n"));
  EXPECT_EQ(2, traced("Shutdown in progress\n"));
  EXPECT_EQ(0, traced("Entering retry sleep"));
}

// ---- start ------------------------------------------------------------------------

TEST_F(WatchdogActions, ADependentErrorEndsTheStartBeforeAnyAttempt) {
  Agent* agent = makeAgentNeeding({"absent.agent"}, OpStarting, logged("start.log"));
  std::wstring message;
  EXPECT_EQ(1, agent->getWatchdog()->start(message));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent due to dependent agent error (1).\n"));
  EXPECT_EQ(0, traced("Entering sleep for"));
  EXPECT_EQ(0, runs("start.log"));
}

TEST_F(WatchdogActions, AnAgentWithoutAStartScriptFailsWithSixAfterOneAttemptAndNoRetry) {
  captest::Subagent scriptless = subagent("act.agent");
  scriptless.configScript = captest::script("configScript", logged("config.log"));
  Agent* agent = makeAgent(scriptless, OpStarting);
  std::wstring message;
  EXPECT_EQ(6, agent->getWatchdog()->start(message));
  EXPECT_EQ(1, runs("config.log"));
  EXPECT_EQ(1, traced("Running config script for agent id act.agent\n"));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent. Start script not found\n"));
  EXPECT_EQ(1, traced("Entering sleep for "));
  EXPECT_EQ(0, traced("Start command attempt"));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent.\n"));
  EXPECT_EQ(RaisedList(), takeRaised());
}

TEST_F(WatchdogActions,
       AStartScriptThatAlwaysFailsRunsFourTimesWithSleepsGrowingByTheIntervalAndEndsWithSeven) {
  captest::Subagent failing = subagent("act.agent");
  failing.startScript = captest::script("startScript", logged("start.log", 1),
                                        "<returnCode type=\"Error\" msg_id=\"start refused\">1</returnCode>");
  Agent* agent = makeAgent(failing, OpStarting);
  std::wstring message;
  EXPECT_EQ(7, agent->getWatchdog()->start(message));
  EXPECT_EQ(L"start refused", message);
  EXPECT_EQ(4, runs("start.log"));  // WD_START_RETRY_COUNT + 1
  EXPECT_EQ(1, traced("Entering sleep for 0 seconds\n"));
  EXPECT_EQ(1, traced("Entering sleep for 1 seconds\n"));
  EXPECT_EQ(1, traced("Entering sleep for 2 seconds\n"));
  EXPECT_EQ(1, traced("Entering sleep for 3 seconds\n"));
  EXPECT_EQ(4, traced("Entering sleep for "));
  EXPECT_EQ(1, traced("Start command attempt 1 failed for agent id act.agent. Will retry in 1 seconds\n"));
  EXPECT_EQ(1, traced("Start command attempt 2 failed for agent id act.agent. Will retry in 2 seconds\n"));
  EXPECT_EQ(1, traced("Start command attempt 3 failed for agent id act.agent. Will retry in 3 seconds\n"));
  EXPECT_EQ(3, traced("Start command attempt "));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent.\n"));
  // The sleeps themselves, from the trace's time stamps: 0, 1, 2 and 3 seconds.
  std::vector<long long> slept = gapsMs(trace(), "Entering sleep for", "Waking from sleep for start retry");
  ASSERT_EQ(4u, slept.size());
  for (size_t i = 0; i < slept.size(); ++i) {
    EXPECT_GE(slept[i], static_cast<long long>(i) * 1000 - 20) << "sleep " << i;
    EXPECT_LT(slept[i], static_cast<long long>(i) * 1000 + 500) << "sleep " << i;
  }
}

TEST_F(WatchdogActions, AConfigScriptFailingEveryTimeUsesUpEveryAttemptAndTheStartScriptNeverRuns) {
  WD_START_RETRY_INTERVAL = 0;  // the back-off is not what this is about
  captest::Subagent failing = subagent("act.agent");
  failing.startScript = captest::script("startScript", logged("start.log"));
  failing.configScript =
      captest::script("configScript", logged("config.log", 3),
                      "<returnCode type=\"Error\" msg_id=\"config broken\">3</returnCode>");
  Agent* agent = makeAgent(failing, OpStarting);
  std::wstring message;
  EXPECT_EQ(5, agent->getWatchdog()->start(message));
  EXPECT_EQ(L"config broken", message);
  EXPECT_EQ(4, runs("config.log"));
  EXPECT_FALSE(qortest::fileExists(lab.file("start.log")));
  EXPECT_EQ(4, traced("Failed to start agent id act.agent due to error in config script\n"));
  EXPECT_EQ(3, traced("Start command attempt "));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent.\n"));
}

TEST_F(WatchdogActions, AConfigScriptFailingOnceThenFineStartsAfterOneSleepOfTheInterval) {
  const std::string mark = lab.file("config-failed-once");
  captest::Subagent flaky = subagent("act.agent");
  flaky.startScript = captest::script("startScript", logged("start.log"));
  flaky.configScript =
      captest::script("configScript", "echo run >> " + lab.file("config.log") + "; if [ -f " + mark +
                                          " ]; then exit 0; fi; touch " + mark + "; exit 3");
  Agent* agent = makeAgent(flaky, OpStarting);
  std::wstring message;
  long long begun = qortest::nowMs();
  EXPECT_EQ(0, agent->getWatchdog()->start(message));
  EXPECT_GE(qortest::nowMs() - begun, 1000);
  EXPECT_EQ(2, runs("config.log"));
  EXPECT_EQ(1, runs("start.log"));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent due to error in config script\n"));
  EXPECT_EQ(1, traced("Start command attempt 1 failed for agent id act.agent. Will retry in 1 seconds\n"));
  EXPECT_EQ(0, traced("Failed to start agent id act.agent.\n"));
  std::vector<long long> slept = gapsMs(trace(), "Entering sleep for", "Waking from sleep for start retry");
  ASSERT_EQ(2u, slept.size());
  EXPECT_LT(slept[0], 500);  // well under the interval of 1 s
  EXPECT_GE(slept[1], 980);
  EXPECT_LT(slept[1], 1500);
  EXPECT_EQ(1, traced("Entering sleep for 1 seconds\n"));
}

TEST_F(WatchdogActions, DisarmSetWhileAnAttemptRunsEndsTheLoopWithTheStatusOfThatAttempt) {
  // The config script logs its run, then waits for the test to let it fail.
  const std::string go = lab.file("go");
  captest::Subagent gated = subagent("act.agent");
  gated.startScript = captest::script("startScript", logged("start.log"));
  gated.configScript =
      captest::script("configScript", "echo run >> " + lab.file("config.log") + "; while [ ! -f " + go +
                                          " ]; do sleep 0.1; done; exit 3");
  Agent* agent = makeAgent(gated, OpStarting);
  std::thread disarm([&] {
    qortest::waitFor([&] { return runs("config.log") == 1; }, 10000);
    ControllerTestAccess::setDisarmed(true);
    qortest::writeFile(go, "");
  });
  std::wstring message;
  const int status = agent->getWatchdog()->start(message);
  disarm.join();
  EXPECT_EQ(5, status);
  EXPECT_EQ(1, runs("config.log"));
  EXPECT_FALSE(qortest::fileExists(lab.file("start.log")));
  EXPECT_EQ(1, traced("Disarm mode active. Agent start failed and no retry will be executed.\n"));
  EXPECT_EQ(0, traced("Start command attempt"));
  EXPECT_EQ(1, traced("Entering sleep for "));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent.\n"));
}

TEST_F(WatchdogActionsShortTimeout, AStartScriptThatTimesOutCountsAsAFailedAttemptAndIsRetried) {
  WD_START_RETRY_COUNT = 1;  // read when the Watchdog is made
  captest::Subagent hanging = subagent("act.agent");
  hanging.startScript =
      captest::script("startScript", "echo run >> " + lab.file("start.log") + "; exec sleep 30");
  Agent* agent = makeAgent(hanging, OpStarting);
  ASSERT_EQ(1, agent->getWatchdog()->getStartRetryCount());
  std::wstring message;
  EXPECT_EQ(7, agent->getWatchdog()->start(message));
  EXPECT_EQ(2, runs("start.log"));
  EXPECT_EQ(2, traced("Command did not finish within timeout - cmd = echo run >> "));
  EXPECT_EQ(1, traced("Start command attempt 1 failed for agent id act.agent. Will retry in 1 seconds\n"));
  EXPECT_EQ(1, traced("Failed to start agent id act.agent.\n"));
}

TEST_F(WatchdogActions, ASystemServiceWithoutAStartScriptIsStartedByItsInstancesServiceName) {
  WD_START_RETRY_COUNT = 0;
  captest::Subagent service = subagent("act.agent");
  service.agentType = "<agentType>LnxService</agentType>";
  service.serviceName = "<serviceName>qorabsent</serviceName>";
  service.configScript = captest::script("configScript", logged("config.log"));
  Agent* agent = makeAgent(service, OpStarting);
  agent->setServiceInstanceName(L"qorinstance");
  std::wstring message;
  agent->getWatchdog()->start(message);
  EXPECT_EQ(1, runs("config.log"));
  EXPECT_EQ(1, traced("Executing command < /sbin/service qorinstance start > /dev/null 2>&1 >.\n"));
  EXPECT_EQ(0, traced("/sbin/service qorabsent"));
  EXPECT_EQ(0, traced("Start script not found"));
}

// ---- stop -------------------------------------------------------------------------

TEST_F(WatchdogActions, AStopOfASystemServiceWithAStopScriptRunsTheScriptAndNotTheServiceCommand) {
  captest::Subagent service = subagent("act.agent");
  service.agentType = "<agentType>LnxService</agentType>";
  service.serviceName = "<serviceName>qorabsent</serviceName>";
  service.stopScript = captest::script("stopScript", logged("stop.log"));
  Agent* agent = makeAgent(service, OpStopping);
  std::wstring message;
  EXPECT_EQ(0, agent->getWatchdog()->stop(message));
  EXPECT_EQ(1, runs("stop.log"));
  EXPECT_EQ(1, traced("Stopping agent id (act.agent).\n"));
  EXPECT_EQ(1, traced("Executing command < " + logged("stop.log") + " >.\n"));
  EXPECT_EQ(0, traced("/sbin/service"));
}

TEST_F(WatchdogActions, AStopOfASystemServiceWithoutAStopScriptAsksTheServiceByItsInstanceName) {
  captest::Subagent service = subagent("act.agent");
  service.agentType = "<agentType>UnixDaemon</agentType>";
  service.serviceName = "<serviceName>qorabsent</serviceName>";
  Agent* agent = makeAgent(service, OpStopping);
  agent->setServiceInstanceName(L"qorinstance");
  std::wstring message;
  agent->getWatchdog()->stop(message);
  EXPECT_EQ(1, traced("Executing command < /sbin/service qorinstance stop >.\n"));
  EXPECT_EQ(0, traced("/sbin/service qorabsent"));
  agent->setServiceInstanceName(L"");
  agent->getWatchdog()->stop(message);
  EXPECT_EQ(1, traced("Executing command < /sbin/service qorabsent stop >.\n"));
}

TEST_F(WatchdogActions, AStopScriptsReturnCodeComesBackWithTheMessageItsCodeChose) {
  captest::Subagent refusing = subagent("act.agent");
  refusing.stopScript = captest::script("stopScript", logged("stop.log", 4),
                                        "<returnCode type=\"Error\" msg_id=\"stop refused\">4</returnCode>");
  Agent* agent = makeAgent(refusing, OpStopping);
  std::wstring message;
  EXPECT_EQ(4, agent->getWatchdog()->stop(message));
  EXPECT_EQ(L"stop refused", message);
  EXPECT_EQ(1, runs("stop.log"));
}

TEST_F(WatchdogActions, AStopWithoutAScriptKillsTheAgentsProcessAndReturnsZero) {
  captest::Subagent plain = subagent("act.agent");
  const std::string exe = proctest::copyProgram("/bin/sleep", lab.file("qoractd"));
  plain.procName = "<procName>qoractd</procName>";
  plain.agentPath = "<agentPath>" + exe + "</agentPath>";
  proctest::Process process({exe, "30"});
  const int pid = process.pid();
  ASSERT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, exe); }, 5000));
  Agent* agent = makeAgent(plain, OpRunning);
  agent->setProcID(pid);
  std::wstring message;
  EXPECT_EQ(0, agent->getWatchdog()->stop(message));
  EXPECT_TRUE(qortest::waitFor([&] { return hasEnded(pid); }, 5000));
  EXPECT_EQ(1, traced("Stopping agent id (act.agent).\n"));
  EXPECT_EQ(0, traced("Executing command"));
  EXPECT_EQ(L"", message);
}

// ---- initiate_Stop, initiate_Recycle and the dependents' stop ----------------------

TEST_F(WatchdogActions, StoppingTheDependentsAsksOnlyTheStartingAndRunningAgentsThatNeedThisOne) {
  Agent* agent = makeAgent("act.agent", OpStopping);
  makeAgentThatNeeds("stopped.agent", "act.agent", OpStopped);
  Agent* starting = makeAgentThatNeeds("starting.agent", "act.agent", OpStarting);
  Agent* running = makeAgentThatNeeds("running.agent", "act.agent", OpRunning);
  makeAgentThatNeeds("manual.agent", "act.agent", OpManuallyStopped);
  makeAgentThatNeeds("stopping.agent", "act.agent", OpStopping);
  makeAgentThatNeeds("other.agent", "another.agent", OpRunning);
  makeAgent("free.agent", OpRunning);
  withList([&] {
    managed()->push_back(nullptr);
    agent->getWatchdog()->stopDependentAgents();
    return 0;
  });
  EXPECT_EQ(RaisedList({{agent_stop_cmd, OpRunning, starting, kNoText},
                        {agent_stop_cmd, OpRunning, running, kNoText}}),
            takeRaised());
  EXPECT_EQ(1, traced("Agent id stopped.agent was already stopped or stopping.\n"));
  EXPECT_EQ(1, traced("Agent id manual.agent was already stopped or stopping.\n"));
  EXPECT_EQ(1, traced("Agent id stopping.agent was already stopped or stopping.\n"));
  EXPECT_EQ(3, traced("was already stopped or stopping.\n"));
  EXPECT_EQ(1, traced("Null agent returned in process list.\n"));
}

TEST_F(WatchdogActions, AStopThatOnlyRecordsTheStateStillStopsTheDependentsAndStartsNoWorker) {
  Agent* agent = makeAgent("act.agent", OpStopping);
  Agent* running = makeAgentThatNeeds("running.agent", "act.agent", OpRunning);
  Agent* starting = makeAgentThatNeeds("starting.agent", "act.agent", OpStarting);
  makeAgentThatNeeds("stopped.agent", "act.agent", OpStopped);
  auto event = command(agent, agent_stop_cmd, OpRunning, false);
  EXPECT_TRUE(withList([&] { return agent->getWatchdog()->initiate_Stop(event.get()); }));
  EXPECT_TRUE(noWorker());
  EXPECT_EQ(0, traced("new worker thread added"));
  EXPECT_EQ(1, traced("Initiating stop of agent id (act.agent).\n"));
  EXPECT_EQ(RaisedList({{agent_stop_cmd, OpRunning, running, kNoText},
                        {agent_stop_cmd, OpRunning, starting, kNoText}}),
            takeRaised());
  EXPECT_EQ(1, traced("Agent id stopped.agent was already stopped or stopping.\n"));
}

TEST_F(WatchdogActions, AStopWithItsActionFlagSetRunsOnAWorkerThatReportsTheAgentStopped) {
  captest::Subagent stoppable = subagent("act.agent");
  stoppable.stopScript = captest::script("stopScript", logged("stop.log"));
  Agent* agent = makeAgent(stoppable, OpStopping);
  Agent* running = makeAgentThatNeeds("running.agent", "act.agent", OpRunning);
  auto event = command(agent, agent_stop_cmd, OpRunning, true);
  EXPECT_TRUE(withList([&] { return agent->getWatchdog()->initiate_Stop(event.get()); }));
  EXPECT_EQ(1, traced("new worker thread added"));
  ASSERT_TRUE(qortest::waitFor(noWorker, 10000));
  // The dependent's stop first, raised at once; then the worker's result.
  EXPECT_EQ(
      RaisedList({{agent_stop_cmd, OpRunning, running, kNoText}, {agent_stopped, OpRunning, agent, kNoText}}),
      takeRaised());
  EXPECT_EQ(1, runs("stop.log"));
}

TEST_F(WatchdogActions, ARecycleStopsTheDependentsAndStartsItsWorkerWhateverTheActionFlagSays) {
  captest::Subagent recycled = subagent("act.agent");
  recycled.stopScript = captest::script("stopScript", logged("stop.log"));
  recycled.startScript = captest::script("startScript", logged("start.log"));
  // A recycle's record waits in state 3 for the start that ends it.
  Agent* agent = makeAgent(recycled, OpStarting);
  Agent* running = makeAgentThatNeeds("running.agent", "act.agent", OpRunning);
  auto event = command(agent, agent_recycle_cmd, OpStarting, false);
  EXPECT_TRUE(withList([&] { return agent->getWatchdog()->initiate_Recycle(event.get()); }));
  EXPECT_EQ(1, traced("Initiating recycle of agent id (act.agent).\n"));
  EXPECT_EQ(1, traced("new worker thread added"));
  ASSERT_TRUE(qortest::waitFor(noWorker, 10000));
  // The worker stopped the agent and started it again.
  EXPECT_EQ(1, runs("stop.log"));
  EXPECT_EQ(1, runs("start.log"));
  EXPECT_EQ(RaisedList(
                {{agent_stop_cmd, OpRunning, running, kNoText}, {agent_started, OpStarting, agent, kNoText}}),
            takeRaised());
}

TEST_F(WatchdogActions, WhileShuttingDownNoWorkerStartsAndEachInitiateSaysSo) {
  Agent* agent = makeAgent("act.agent", OpStarting);
  ControllerTestAccess::setShuttingDown(true);
  auto start = command(agent, agent_start_cmd, OpStopped);
  auto stop = command(agent, agent_stop_cmd, OpRunning, true);
  auto record = command(agent, agent_stop_cmd, OpRunning, false);
  auto recycle = command(agent, agent_recycle_cmd, OpRunning, false);
  Watchdog* watchdog = agent->getWatchdog();
  EXPECT_EQ(7, withList([&] { return watchdog->initiate_Start(start.get()); }));
  EXPECT_FALSE(withList([&] { return watchdog->initiate_Stop(stop.get()); }));
  EXPECT_TRUE(withList([&] { return watchdog->initiate_Stop(record.get()); }));
  EXPECT_FALSE(withList([&] { return watchdog->initiate_Recycle(recycle.get()); }));
  EXPECT_TRUE(noWorker());
  EXPECT_EQ(3, traced("Start incomplete -- exiting shutdown in progress."));
  EXPECT_EQ(RaisedList(), takeRaised());
}

// ---- The marker file of the watchdog process -----------------------------------

namespace {

// $MARLOWHOME with the bin directory of product "zq" under architecture
// "lx8266", and a policy of that product from a real CAP file.
class StopMarker : public ::testing::Test {
 protected:
  void SetUp() override {
    qortest::traceTo(traces.file("trace"), QOR_TL_DETAIL | QOR_TL_ERROR);
    setenv("MARLOWHOME", home.path().c_str(), 1);
    setenv("ZEL_BINARCH", "lx8266", 1);
    mkdir(home.file("lx8266").c_str(), 0755);
    mkdir(home.file("lx8266/zq").c_str(), 0755);
    mkdir(home.file("lx8266/zq/bin").c_str(), 0755);
  }

  Policy* policyOf(const std::string& code) {
    captest::Subagent subagent;
    subagent.id = "os.agent";
    subagent.procName = "<procName>qorosd</procName>";
    subagent.productCode = "<productCode>" + code + "</productCode>";
    policy.reset(new Policy());
    XMLprocessor processor;
    EXPECT_EQ(XML_OK, captest::parseText(processor, caps, captest::document(subagent), *policy));
    return policy.get();
  }

  std::string pathOf(Policy* of) {
    char* path = GetDisableWatchdogStopFile(of);
    std::string text(path);
    delete[] path;
    return text;
  }

  void TearDown() override {
    if (HasFailure() && getenv("QOR_DUMP") != nullptr) std::cerr << trace();
  }

  std::string marker() { return home.file("lx8266/zq/bin/.qorwd_disable_stop"); }
  std::string trace() { return qortest::readFile(traces.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }

  qortest::TempDir home;
  qortest::TempDir caps;
  qortest::TempDir traces;
  std::unique_ptr<Policy> policy;
};

}  // namespace

TEST_F(StopMarker, ThePathIsBuiltFromTheHomeTheArchitectureAndTheProductCode) {
  EXPECT_EQ(home.path() + "/lx8266/zq/bin/.qorwd_disable_stop", pathOf(policyOf("zq")));
  EXPECT_EQ(home.path() + "/lx8266/kz/bin/.qorwd_disable_stop", pathOf(policyOf("kz")));
}

TEST_F(StopMarker, WithoutTheArchitectureInTheEnvironmentItsVariableStaysInThePath) {
  unsetenv("ZEL_BINARCH");
  EXPECT_EQ(home.path() + "/$ZEL_BINARCH/zq/bin/.qorwd_disable_stop", pathOf(policyOf("zq")));
}

TEST_F(StopMarker, DisablingCreatesAnEmptyMarkerAndEnablingRemovesIt) {
  Policy* zq = policyOf("zq");
  DisableWatchdogStop(zq);
  ASSERT_TRUE(qortest::fileExists(marker()));
  EXPECT_EQ("", qortest::readFile(marker()));
  EXPECT_EQ(1, traced("Creating Watchdog disable stop file " + marker() + "."));
  EnableWatchdogStop(zq);
  EXPECT_FALSE(qortest::fileExists(marker()));
  EXPECT_EQ(1, traced("Removing Watchdog disable stop file " + marker() + "."));
}

TEST_F(StopMarker, ASecondDisableInARowLeavesTheMarkerThereAndEmpty) {
  Policy* zq = policyOf("zq");
  DisableWatchdogStop(zq);
  ASSERT_TRUE(qortest::fileExists(marker()));
  DisableWatchdogStop(zq);
  ASSERT_TRUE(qortest::fileExists(marker()));
  EXPECT_EQ("", qortest::readFile(marker()));
  EXPECT_EQ(2, traced("Creating Watchdog disable stop file " + marker() + "."));
  // A marker left with something in it is emptied as well.
  qortest::writeFile(marker(), "left behind\n");
  DisableWatchdogStop(zq);
  EXPECT_EQ("", qortest::readFile(marker()));
}

TEST_F(StopMarker, EnablingWithoutAMarkerChangesNothing) {
  qortest::writeFile(home.file("lx8266/zq/bin/other"), "kept\n");
  Policy* zq = policyOf("zq");
  const size_t mark = trace().size();
  EnableWatchdogStop(zq);
  EXPECT_FALSE(qortest::fileExists(marker()));
  EXPECT_EQ("kept\n", qortest::readFile(home.file("lx8266/zq/bin/other")));
  // The marker's unit writes its one line and reports nothing else.
  std::vector<std::string> lines = qortest::linesWith(trace().substr(mark), "qorwdproc.cpp");
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("Removing Watchdog disable stop file " + marker() + "."));
}

TEST_F(StopMarker, AProductWithoutADirectoryGetsNoMarkerAndNothingIsReported) {
  Policy* kz = policyOf("kz");
  const size_t mark = trace().size();
  DisableWatchdogStop(kz);
  EXPECT_FALSE(qortest::fileExists(home.file("lx8266/kz")));
  std::vector<std::string> lines = qortest::linesWith(trace().substr(mark), "qorwdproc.cpp");
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("Creating Watchdog disable stop file " + home.path() +
                                             "/lx8266/kz/bin/.qorwd_disable_stop."));
  EnableWatchdogStop(kz);
  EXPECT_EQ(2u, qortest::linesWith(trace().substr(mark), "qorwdproc.cpp").size());
}
