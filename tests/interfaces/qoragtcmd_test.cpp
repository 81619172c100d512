// Finding live agents by a mask of fields, and the operator's commands built
// on it: the agent each command takes, its refusals with their codes and
// traces, and the events it queues.
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"
#include "support/queues.h"

namespace {

// Agents in the live list for one test; taken out and freed at the end.
class ListedAgents {
 public:
  ListedAgents() : list_(Controller::getController()->getManagedEndpointProcesses()) {}
  ~ListedAgents() {
    list_->lockList();
    list_->clear();
    list_->unlockList();
  }
  Agent* add(const std::wstring& name, const std::wstring& id, int pid, OperatingStates state) {
    agents_.emplace_back(new Agent());
    Agent* agent = agents_.back().get();
    agent->setName(name);
    agent->setID(id);
    agent->setOperatingState(state);  // a state without a process clears the id: set it after
    agent->setProcID(pid);
    list_->lockList();
    list_->push_back(agent);
    list_->unlockList();
    return agent;
  }

 private:
  ManagedProcessList* list_;
  std::vector<std::unique_ptr<Agent>> agents_;
};

using Found = std::vector<Agent*>;

Found lookup(int mask, const std::wstring (&criteria)[Controller::MATCH_CRITERIA_COUNT]) {
  return Controller::getController()->getManagedEndpointProcessLOCK(mask, criteria);
}

}  // namespace

TEST(AgentLookup, AMaskOfZeroTakesEveryAgentUnmanagedOnesToo) {
  ListedAgents agents;
  Agent* a = agents.add(L"A", L"qa", 10, OpRunning);
  a->setManagedState(Managed);
  Agent* b = agents.add(L"B", L"qb", 20, OpStopped);
  b->setManagedState(Unmanaged);
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  EXPECT_EQ((Found{a, b}), lookup(0, criteria));
}

TEST(AgentLookup, EachBitComparesItsFieldWithItsOwnEntry) {
  ListedAgents agents;
  Agent* a = agents.add(L"Agent A", L"qa", 4711, OpRunning);
  a->setInstanceProcName(L"agentd");
  a->setInstanceName(L"db1");
  a->setServiceInstanceName(L"svc1");
  Agent* b = agents.add(L"Agent B", L"qb", 4712, OpStopped);
  b->setInstanceProcName(L"agentd");
  b->setInstanceName(L"db2");
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT] = {L"Agent A", L"4711", L"agentd", L"qa",
                                                             L"4",       L"db1",  L"svc1",   L""};
  criteria[7] = std::to_wstring(a->getGUID());
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_NAME, criteria));
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_PROC_ID, criteria));
  EXPECT_EQ((Found{a, b}), lookup(Controller::MATCH_INSTANCE_PROC_NAME, criteria));
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_ID, criteria));
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_OPERATING_STATE, criteria));
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_INSTANCE_NAME, criteria));
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_SERVICE_INSTANCE_NAME, criteria));
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_GUID, criteria));
  EXPECT_EQ(Found{a}, lookup(0xff, criteria));
}

TEST(AgentLookup, EveryCriterionOfTheMaskMustHold) {
  ListedAgents agents;
  Agent* a = agents.add(L"A", L"qa", 10, OpRunning);
  Agent* b = agents.add(L"A", L"qa", 20, OpRunning);
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  criteria[0] = L"A";
  criteria[1] = L"20";
  EXPECT_EQ((Found{a, b}), lookup(Controller::MATCH_NAME, criteria));
  EXPECT_EQ(Found{b}, lookup(Controller::MATCH_NAME | Controller::MATCH_PROC_ID, criteria));
  criteria[0] = L"B";
  EXPECT_EQ(Found(), lookup(Controller::MATCH_NAME | Controller::MATCH_PROC_ID, criteria));
}

TEST(AgentLookup, NumbersAreComparedAsNumbers) {
  ListedAgents agents;
  Agent* a = agents.add(L"A", L"qa", 42, OpRunning);
  Agent* none = agents.add(L"B", L"qb", 0, OpUnknown);
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  criteria[1] = L"0042";
  EXPECT_EQ(Found{a}, lookup(Controller::MATCH_PROC_ID, criteria));
  criteria[1] = L"not a number";  // reads as 0
  EXPECT_EQ(Found{none}, lookup(Controller::MATCH_PROC_ID, criteria));
}

TEST(AgentLookup, TheLockedFormLeavesTheListFreeAndThePlainFormNeedsTheCallersLock) {
  ListedAgents agents;
  Agent* a = agents.add(L"A", L"qa", 10, OpRunning);
  Controller* controller = Controller::getController();
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  criteria[0] = L"A";
  EXPECT_EQ(Found{a}, controller->getManagedEndpointProcessLOCK(Controller::MATCH_NAME, criteria));
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  EXPECT_FALSE(list->isLockedByCaller());
  ASSERT_TRUE(list->lockList());
  EXPECT_EQ(Found{a}, controller->getManagedEndpointProcess(Controller::MATCH_NAME, criteria));
  bool heldElsewhere = true;
  std::thread([&] { heldElsewhere = list->isLockedByCaller(); }).join();
  EXPECT_FALSE(heldElsewhere);
  EXPECT_TRUE(list->isLockedByCaller());
  EXPECT_TRUE(list->unlockList());
}

// ---- Operator commands ---------------------------------------------------------
// The commands decide and queue; no service runs here, so what they queue
// stays on the queues, where the tests read it.

namespace {

// The events the commands queued for the state machine, as (id, opState,
// agent) and freed.
struct Queued {
  int id;
  int opState;
  Agent* agent;
  bool operator==(const Queued& other) const {
    return id == other.id && opState == other.opState && agent == other.agent;
  }
};
std::ostream& operator<<(std::ostream& out, const Queued& queued) {
  return out << "{" << queued.id << ", " << queued.opState << ", " << queued.agent << "}";
}

std::vector<Queued> commandsQueued() {
  std::vector<Queued> queued;
  for (Event* event : qortest::takeEvents(Controller::getController()->getCommandHandler())) {
    AgentOpEvent* op = dynamic_cast<AgentOpEvent*>(event);
    if (op != nullptr) queued.push_back({op->getEventTypeID(), op->getOpState(), op->getAgent()});
    delete event;
  }
  return queued;
}

// The ids of what went straight to the listeners, freed.
std::vector<int> messagesQueued() {
  std::vector<int> ids;
  for (Event* event : qortest::takeEvents(Controller::getController()->getMessageHandler())) {
    ids.push_back(event->getEventTypeID());
    delete event;
  }
  return ids;
}

class Commands : public ::testing::Test {
 protected:
  void SetUp() override { qortest::traceTo(dir.file("trace"), 128 | 256 | 2 | 16); }
  void TearDown() override {
    commandsQueued();
    messagesQueued();
  }
  // A managed agent of process `process` in `state`.
  Agent* managed(const std::wstring& name, const std::wstring& process, int pid, OperatingStates state) {
    Agent* agent = agents.add(name, L"cmd." + name, pid, state);
    agent->setInstanceProcName(process);
    agent->setManagedState(Managed);
    return agent;
  }
  std::string trace() { return qortest::readFile(dir.file("trace")); }
  static Controller* controller() { return Controller::getController(); }

  qortest::TempDir dir;
  ListedAgents agents;
};

// The OS agent's record, apart in the watchdog list as the embedded service
// keeps it; taken out again at the end.
class OSAgentRecord {
 public:
  OSAgentRecord(const std::wstring& name, ManagedStates state, int count, ManagerType type = WatchDog)
      : agent_(new Agent()) {
    Policy* policy = new Policy();
    policy->setManagerTypeElement(type);
    agent_->setPolicy(policy);
    agent_->setName(name);
    agent_->setManagedState(state);
    agent_->setDailyRestartCount(count);
    ManagedProcessList* list = Controller::getController()->getWatchdogList();
    list->lockList();
    list->push_back(agent_.get());
    list->unlockList();
  }
  Agent* agent() { return agent_.get(); }
  ~OSAgentRecord() {
    ManagedProcessList* list = Controller::getController()->getWatchdogList();
    list->lockList();
    list->clear();
    list->unlockList();
  }

 private:
  std::unique_ptr<Agent> agent_;
};

}  // namespace

TEST_F(Commands, AStopByProcessNameStopsEveryAgentOfThatProcessAndAnswersForTheLast) {
  Agent* first = managed(L"first", L"shared", 11, OpRunning);
  Agent* second = managed(L"second", L"shared", 12, OpRunning);
  second->setManagedState(Unmanaged);
  // The name takes no part in a stop's lookup.
  EXPECT_EQ(200, controller()->stopAgent(L"no such name", L"shared", -1));
  EXPECT_EQ((std::vector<Queued>{{agent_stop_cmd, OpRunning, first}}), commandsQueued());
  second->setManagedState(Managed);
  EXPECT_EQ(0, controller()->stopAgent(L"", L"shared", -1));
  EXPECT_EQ((std::vector<Queued>{{agent_stop_cmd, OpRunning, first}, {agent_stop_cmd, OpRunning, second}}),
            commandsQueued());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Stop agent failed. Agent second not managed\n"));
}

TEST_F(Commands, AStopWithAProcessIdTakesOnlyThatProcess) {
  managed(L"first", L"shared", 11, OpRunning);
  Agent* second = managed(L"second", L"shared", 12, OpRunning);
  EXPECT_EQ(0, controller()->stopAgent(L"", L"shared", 12));
  EXPECT_EQ((std::vector<Queued>{{agent_stop_cmd, OpRunning, second}}), commandsQueued());
  EXPECT_EQ(202, controller()->stopAgent(L"gone", L"shared", 13));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Stop agent failed. Agent gone, pid 13 not found\n"));
}

TEST_F(Commands, AManuallyStoppedAgentCannotBeStoppedButCanBeStartedAndRecycled) {
  Agent* agent = managed(L"rested", L"restd", 0, OpManuallyStopped);
  EXPECT_EQ(201, controller()->stopAgent(L"rested", L"restd", -1));
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "Stop agent failed. Agent rested already being started or stopped.\n"));
  EXPECT_EQ(0, controller()->startAgent(L"rested", false, L"restd", L""));
  EXPECT_EQ(0, controller()->recycleAgent(L"rested", L"restd", L"", -1));
  EXPECT_EQ((std::vector<Queued>{{agent_start_cmd, OpManuallyStopped, agent},
                                 {agent_recycle_cmd, OpManuallyStopped, agent}}),
            commandsQueued());
}

TEST_F(Commands, BusyAgentsAreRefusedWithTheCodeOfEachCommand) {
  managed(L"starting", L"startd", 5, OpStarting);
  Agent* stopping = managed(L"stopping", L"stopd", 6, OpStopping);
  stopping->setDailyRestartCount(2);
  EXPECT_EQ(201, controller()->stopAgent(L"", L"startd", -1));
  EXPECT_EQ(101, controller()->startAgent(L"stopping", false, L"stopd", L""));
  EXPECT_EQ(301, controller()->recycleAgent(L"starting", L"startd", L"", -1));
  EXPECT_EQ(602, controller()->resetAgentRestartCount(L"stopping", L"stopd", L""));
  EXPECT_EQ(2, stopping->getDailyRestartCount());
  EXPECT_TRUE(commandsQueued().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Start agent failed. Agent stopping already being started or "
                                         "stopped.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Recycle agent failed. Agent starting already being started or "
                                         "stopped.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Reset agent count failed. Agent stopping is being started or "
                                         "stopped.\n"));
}

TEST_F(Commands, AConsoleStartTakesTheInstanceWithoutAProcessOrElseTheLast) {
  Agent* up = managed(L"console", L"consd", 4711, OpRunning);
  Agent* down = managed(L"console", L"consd", 0, OpStopped);
  up->setType(Console);
  down->setType(Console);
  EXPECT_EQ(0, controller()->startAgent(L"console", false, L"consd", L""));
  EXPECT_EQ((std::vector<Queued>{{agent_start_cmd, OpStopped, down}}), commandsQueued());
  down->setOperatingState(OpRunning);
  down->setProcID(4712);
  EXPECT_EQ(0, controller()->startAgent(L"console", false, L"consd", L""));
  EXPECT_EQ((std::vector<Queued>{{agent_start_cmd, OpRunning, down}}), commandsQueued());
}

TEST_F(Commands, AStartNamesItsInstanceOrItsProcess) {
  Agent* one = managed(L"multi", L"multid", 0, OpStopped);
  one->setInstanceName(L"one");
  Agent* two = managed(L"multi", L"multid", 0, OpStopped);
  two->setInstanceName(L"two");
  EXPECT_EQ(0, controller()->startAgent(L"multi", false, L"other process", L"two"));
  EXPECT_EQ((std::vector<Queued>{{agent_start_cmd, OpStopped, two}}), commandsQueued());
  EXPECT_EQ(102, controller()->startAgent(L"multi", false, L"other process", L""));
  EXPECT_EQ(1,
            qortest::countOccurrences(trace(),
                                      "Start agent failed. Agent multi not found -- Process not found other "
                                      "process\n"));
}

TEST_F(Commands, AStartWithResetCountTellsTheListenersAndResetsUnlessRefused) {
  Agent* busy = managed(L"busy", L"busyd", 3, OpStarting);
  busy->setDailyRestartCount(2);
  EXPECT_EQ(101, controller()->startAgent(L"busy", true, L"busyd", L""));
  EXPECT_EQ(2, busy->getDailyRestartCount());
  EXPECT_TRUE(messagesQueued().empty());

  Agent* idle = managed(L"idle", L"idled", 0, OpStopped);
  idle->setDailyRestartCount(3);
  EXPECT_EQ(0, controller()->startAgent(L"idle", true, L"idled", L""));
  EXPECT_EQ(0, idle->getDailyRestartCount());
  // The reset goes straight to the listeners; the state machine sees the start only.
  EXPECT_EQ(std::vector<int>{agent_count_reset}, messagesQueued());
  EXPECT_EQ((std::vector<Queued>{{agent_start_cmd, OpStopped, idle}}), commandsQueued());
}

TEST_F(Commands, UnmanagedAgentsAreRefused) {
  Agent* agent = managed(L"loose", L"loosed", 9, OpRunning);
  agent->setManagedState(Unmanaged);
  agent->setDailyRestartCount(1);
  EXPECT_EQ(100, controller()->startAgent(L"loose", false, L"loosed", L""));
  EXPECT_EQ(200, controller()->stopAgent(L"loose", L"loosed", -1));
  EXPECT_EQ(300, controller()->recycleAgent(L"loose", L"loosed", L"", -1));
  EXPECT_EQ(600, controller()->resetAgentRestartCount(L"loose", L"loosed", L""));
  EXPECT_TRUE(commandsQueued().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Start agent failed. Agent loose not managed\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Recycle agent failed. Agent loose not managed\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Reset agent count failed. Agent loose not managed\n"));
}

TEST_F(Commands, ARecordManagedByTheWatchdogProcessMayBeRecycledAndResetButNotStartedOrStopped) {
  Agent* agent = managed(L"guarded", L"guardd", 9, OpRunning);
  agent->setManagedState(WatchdogManaged);
  agent->setDailyRestartCount(1);
  EXPECT_EQ(100, controller()->startAgent(L"guarded", false, L"guardd", L""));
  EXPECT_EQ(200, controller()->stopAgent(L"guarded", L"guardd", -1));
  EXPECT_EQ(0, controller()->recycleAgent(L"guarded", L"guardd", L"", 9));
  EXPECT_EQ(0, controller()->resetAgentRestartCount(L"guarded", L"guardd", L""));
  EXPECT_EQ((std::vector<Queued>{{agent_recycle_cmd, OpRunning, agent}}), commandsQueued());
}

TEST_F(Commands, AResetClearsTheCountAndTellsTheListenersOnly) {
  Agent* agent = managed(L"counted", L"countd", 9, OpRunning);
  agent->setDailyRestartCount(3);
  EXPECT_EQ(0, controller()->resetAgentRestartCount(L"counted", L"countd", L""));
  EXPECT_EQ(0, agent->getDailyRestartCount());
  EXPECT_EQ(std::vector<int>{agent_count_reset}, messagesQueued());
  EXPECT_TRUE(commandsQueued().empty());
  EXPECT_EQ(603, controller()->resetAgentRestartCount(L"counted", L"countd", L""));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Reset OS Agent Restart Count. Count is already 0 0\n"));
}

TEST_F(Commands, AStartingAgentWithACountOfZeroIsBusyRatherThanDone) {
  managed(L"fresh", L"freshd", 0, OpStarting);
  EXPECT_EQ(602, controller()->resetAgentRestartCount(L"fresh", L"freshd", L""));
}

TEST_F(Commands, TheOSAgentIsRefusedOrHandedToTheWatchdogProcess) {
  OSAgentRecord host(L"Host agent", WatchdogManaged, 0);
  EXPECT_EQ(203, controller()->stopAgent(L"Host agent", L"hostd", -1));
  EXPECT_EQ(103, controller()->startAgent(L"Host agent", false, L"hostd", L""));
  EXPECT_EQ(603, controller()->resetAgentRestartCount(L"Host agent", L"hostd", L""));
  EXPECT_EQ(202, controller()->stopAgent(L"Someone", L"someoned", -1));
  EXPECT_EQ(102, controller()->startAgent(L"Someone", false, L"someoned", L""));
  EXPECT_EQ(302, controller()->recycleAgent(L"Someone", L"someoned", L"", -1));
  EXPECT_EQ(601, controller()->resetAgentRestartCount(L"Someone", L"someoned", L""));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Stop agent failed. Agent Host agent, is OS Agent\n"));
  EXPECT_EQ(
      1, qortest::countOccurrences(trace(), "Start agent failed. Agent Host agent is OS Agent Host agent\n"));
  EXPECT_EQ(
      1, qortest::countOccurrences(
             trace(), "Reset restart count failed. Agent Someone not found -- Process not found someoned\n"));
}

TEST_F(Commands, RecyclingTheOSAgentWithTheWatchdogProcessDownFailsAndLeavesNoRecycleMark) {
  OSAgentRecord host(L"Host agent", WatchdogManaged, 2);
  EXPECT_EQ(-1, controller()->recycleAgent(L"Host agent", L"hostd", L"", -1));
  EXPECT_FALSE(Controller::isRecycleOS());
  EXPECT_EQ(-1, controller()->resetAgentRestartCount(L"Host agent", L"hostd", L""));
  EXPECT_EQ(
      1, qortest::countOccurrences(trace(), "Recycle OS Agent. Agent Host agent is OS Agent Host agent\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Reset OS Agent Restart Count. Agent Host agent is OS Agent "
                                         "Host agent\n"));
}

TEST_F(Commands, AnUnmanagedOSAgentIsRefused) {
  OSAgentRecord host(L"Host agent", Unmanaged, 2);
  EXPECT_EQ(300, controller()->recycleAgent(L"Host agent", L"hostd", L"", -1));
  EXPECT_EQ(600, controller()->resetAgentRestartCount(L"Host agent", L"hostd", L""));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Recycle agent failed. OS agent is not managed\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Reset agent count failed. OS agent not managed\n"));
}

// ---- Management ----------------------------------------------------------------

namespace {

// Every event the commands queued for the state machine, as (id, state,
// agent), freed. The state is the managed state a management event was made
// for, the operating state of an operating event, -1 for the others.
std::vector<Queued> allQueued() {
  std::vector<Queued> queued;
  for (Event* event : qortest::takeEvents(Controller::getController()->getCommandHandler())) {
    if (auto* mgmt = dynamic_cast<AgentMgmtEvent*>(event)) {
      queued.push_back({mgmt->getEventTypeID(), mgmt->getMgmtState(), mgmt->getAgent()});
    } else if (auto* op = dynamic_cast<AgentOpEvent*>(event)) {
      queued.push_back({op->getEventTypeID(), op->getOpState(), op->getAgent()});
    } else if (auto* watch = dynamic_cast<WatchdogEvent*>(event)) {
      queued.push_back({watch->getEventTypeID(), -1, watch->getAgent()});
    } else {
      queued.push_back({event->getEventTypeID(), -1, nullptr});
    }
    delete event;
  }
  return queued;
}

// Gives `agent` the watchdog process's own policy, of product code "qd".
void asTheWatchdogsPolicy(Agent* agent) {
  Policy* policy = new Policy();
  policy->setProductCode(L"qd");
  agent->setPolicy(policy);
}

bool discoveryIsFree() {
  Controller* controller = Controller::getController();
  if (!controller->tryLockDiscovery()) return false;
  controller->unlockDiscovery();
  return true;
}

// Lookups of startManage, seen in a trace of mask 64 as entries into the
// first lookup (which also reads the agent's policy) and into manageFound (the
// second, which keeps the list locked through the events).
int lookups(const std::string& trace) {
  int entries = 0;
  for (const char* function : {"firstPolicyOf", "manageFound"}) {
    for (const std::string& line : qortest::linesWith(trace, function)) {
      if (line.find("Entry") != std::string::npos || line.find("entry") != std::string::npos) ++entries;
    }
  }
  return entries;
}

}  // namespace

TEST_F(Commands, StartManagingAnUnknownNameIsRefusedWith401) {
  EXPECT_EQ(401, controller()->startManage(L"nobody"));
  EXPECT_TRUE(allQueued().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Start management failed. Agent nobody not found\n"));
}

TEST_F(Commands, StartManagingTheOSAgentWhoseManagerTypeIsNotManagedAnswersMinusOne) {
  OSAgentRecord host(L"Host agent", Unmanaged, 0, NotManaged);
  ControllerTestAccess::setDisarmed(true);
  EXPECT_EQ(-1, controller()->startManage(L"Host agent"));
  EXPECT_TRUE(allQueued().empty());
  EXPECT_EQ(Unmanaged, host.agent()->getManagedState());
  EXPECT_TRUE(controller()->isDisarmed());
  EXPECT_EQ(
      1, qortest::countOccurrences(trace(), "OS agent manager type is NotManage do not allow to manage.\n"));
  EXPECT_TRUE(discoveryIsFree());
}

TEST_F(Commands, StartManagingAKnownAgentWhileTheOSAgentIsUnmanagedIsRefusedAfterTheSecondLookup) {
  qortest::traceTo(dir.file("trace"), 128 | 256 | 64);
  OSAgentRecord host(L"Host agent", Unmanaged, 0);
  Agent* agent = managed(L"known", L"knownd", 0, OpStopped);
  agent->setManagedState(Unmanaged);
  EXPECT_EQ(404, controller()->startManage(L"known"));
  EXPECT_TRUE(allQueued().empty());
  EXPECT_EQ(Unmanaged, agent->getManagedState());
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "Start management failed. Cannot manage agents while os agent is unmanaged\n"));
  // The lookup ran once more after the instances were brought up to date.
  EXPECT_EQ(2, lookups(trace()));
  EXPECT_TRUE(discoveryIsFree());
}

TEST_F(Commands, StartManagingAKnownAgentQueuesAManagementEventForEachOfItsRecordsManagedOrNot) {
  OSAgentRecord host(L"Host agent", WatchdogManaged, 0);
  Agent* one = managed(L"pair", L"paird", 0, OpStopped);
  one->setManagedState(Unmanaged);
  Agent* two = managed(L"pair", L"paird", 7, OpRunning);
  EXPECT_EQ(0, controller()->startManage(L"pair"));
  EXPECT_EQ((std::vector<Queued>{{agent_managed, Unmanaged, one}, {agent_managed, Managed, two}}),
            allQueued());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Start management for agent pair\n"));
}

TEST_F(Commands, StartManagingTheOSAgentWhenItIsManagedAlreadyDoesNothing) {
  OSAgentRecord host(L"Host agent", WatchdogManaged, 0);
  EXPECT_EQ(0, controller()->startManage(L"Host agent"));
  EXPECT_TRUE(allQueued().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "OS agent is already managed....do nothing.\n"));
}

TEST_F(Commands, StopManagingAnAgentThatIsUnmanagedAlreadyIsRefusedWith500AndQueuesNothing) {
  Agent* agent = managed(L"loose", L"loosed", 0, OpStopped);
  agent->setManagedState(Unmanaged);
  EXPECT_EQ(500, controller()->stopManage(L"loose"));
  EXPECT_TRUE(allQueued().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Stop manage failed. Agent loose not managed\n"));
}

TEST_F(Commands, StopManagingNeedsOneManagedRecordAmongTheAgentsOfTheName) {
  Agent* loose = managed(L"pair", L"paird", 0, OpStopped);
  loose->setManagedState(WatchdogManaged);
  Agent* held = managed(L"pair", L"paird", 8, OpRunning);
  EXPECT_EQ(0, controller()->stopManage(L"pair"));
  EXPECT_EQ((std::vector<Queued>{{agent_unmanaged, Managed, held}}), allQueued());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Stop manage failed. Agent pair not managed\n"));
}

TEST_F(Commands, StopManagingAnUnknownNameIsRefusedWith501AndAnUnmanagedOSAgentWith500) {
  EXPECT_EQ(501, controller()->stopManage(L"nobody"));
  OSAgentRecord host(L"Host agent", Unmanaged, 0);
  EXPECT_EQ(500, controller()->stopManage(L"Host agent"));
  EXPECT_TRUE(allQueued().empty());
  EXPECT_FALSE(controller()->isDisarmed());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Stop management failed. Agent nobody not found\n"));
  EXPECT_EQ(1,
            qortest::countOccurrences(trace(), "Stop management failed. Agent Host agent is not managed.\n"));
}

TEST_F(Commands, StopManagingTheOSAgentDisarmsSavesEachStateUnmanagesTheManagedAndStopsTheWatchdog) {
  qortest::traceTo(dir.file("trace"), 128 | 256 | 146);
  OSAgentRecord host(L"Host agent", WatchdogManaged, 2);
  host.agent()->setOperatingState(OpRunning);
  host.agent()->setProcID(4711);
  Agent* loose = managed(L"loose", L"loosed", 0, OpStopped);
  loose->setManagedState(Unmanaged);
  Agent* guard = managed(L"Watchdog", L"qorwd", 31, OpRunning);
  asTheWatchdogsPolicy(guard);
  Agent* busy = managed(L"busy", L"busyd", 32, OpRunning);

  EXPECT_EQ(0, controller()->stopManage(L"Host agent"));
  EXPECT_TRUE(controller()->isDisarmed());
  // The disarm comes first and names no agent here: no record is the watchdog process's.
  EXPECT_EQ((std::vector<Queued>{{disarm_complete, -1, nullptr},
                                 {agent_stop_cmd, OpRunning, guard},
                                 {agent_unmanaged, Managed, guard},
                                 {agent_unmanaged, Managed, busy}}),
            allQueued());
  // Silent: the agents' own events tell the listeners.
  EXPECT_TRUE(messagesQueued().empty());
  EXPECT_EQ(Unmanaged, loose->getSavedState());
  EXPECT_EQ(Managed, guard->getSavedState());
  EXPECT_EQ(Managed, busy->getSavedState());
  EXPECT_EQ(Unmanaged, host.agent()->getManagedState());
  EXPECT_EQ(0, host.agent()->getProcID());
  EXPECT_EQ(OpUnknown, host.agent()->getOperatingState());
  EXPECT_EQ(0, host.agent()->getDailyRestartCount());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Stop the watchdog\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Saving state 0\n"));
  EXPECT_EQ(2, qortest::countOccurrences(trace(), "Saving state 1\n"));
}

TEST_F(Commands, StartManagingTheUnmanagedOSAgentRearmsAndManagesAgainOnlyWhatWasManaged) {
  qortest::traceTo(dir.file("trace"), 128 | 256 | 146);
  OSAgentRecord host(L"Host agent", Unmanaged, 0);
  ControllerTestAccess::setDisarmed(true);
  Agent* before = managed(L"before", L"befored", 0, OpStopped);
  before->setManagedState(Unmanaged);
  before->setSavedState(Managed);
  Agent* operatorsChoice = managed(L"kept out", L"keptd", 0, OpStopped);
  operatorsChoice->setManagedState(Unmanaged);
  operatorsChoice->setSavedState(Unmanaged);

  EXPECT_EQ(0, controller()->startManage(L"Host agent"));
  EXPECT_FALSE(controller()->isDisarmed());
  EXPECT_EQ(WatchdogManaged, host.agent()->getManagedState());
  EXPECT_EQ((std::vector<Queued>{{rearm_complete, -1, nullptr}, {agent_managed, Unmanaged, before}}),
            allQueued());
  EXPECT_TRUE(messagesQueued().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Saved state is 1\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Saved state is 0\n"));
}

TEST_F(Commands, StoppingAndStartingManagementOfTheOSAgentComesBackToTheSameAgents) {
  OSAgentRecord host(L"Host agent", WatchdogManaged, 0);
  Agent* kept = managed(L"kept", L"keptd", 5, OpRunning);
  Agent* loose = managed(L"loose", L"loosed", 0, OpStopped);
  loose->setManagedState(Unmanaged);
  EXPECT_EQ(0, controller()->stopManage(L"Host agent"));
  allQueued();
  // What the state machine would do with the unmanaged event.
  kept->setManagedState(Unmanaged);
  EXPECT_EQ(404, controller()->startManage(L"kept"));
  EXPECT_EQ(0, controller()->startManage(L"Host agent"));
  EXPECT_EQ((std::vector<Queued>{{rearm_complete, -1, nullptr}, {agent_managed, Unmanaged, kept}}),
            allQueued());
}
