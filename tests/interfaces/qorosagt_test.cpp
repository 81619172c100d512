// The Controller's view of the OS agent: whether its record is managed, and
// the remote deploy markers in the CAP directories. Real files, real policies.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "support/qortest.h"
#include "support/queues.h"

namespace {

std::wstring wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

class OSAgent : public ::testing::Test {
 protected:
  Controller* controller() { return Controller::getController(); }

  // A record of the watchdog list with a policy of the product code.
  Agent* watchedRecord(const std::wstring& code, ManagedStates state) {
    Policy* policy = new Policy();
    policy->setProductCode(code);
    Agent* agent = new Agent();
    agent->setPolicy(policy);
    agent->setManagedState(state);
    ManagedProcessList* list = controller()->getWatchdogList();
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }

  Policy* policyOf(const std::wstring& code) {
    policies.emplace_back(new Policy());
    policies.back()->setProductCode(code);
    return policies.back().get();
  }

  std::vector<std::unique_ptr<Policy>> policies;
};

TEST_F(OSAgent, IsNotManagedWithAnEmptyWatchdogList) { EXPECT_FALSE(controller()->isOSAgentManaged()); }

TEST_F(OSAgent, IsManagedWhenItsRecordIsManagedByTheWatchdogProcess) {
  watchedRecord(L"qa", WatchdogManaged);
  EXPECT_TRUE(controller()->isOSAgentManaged());
}

TEST_F(OSAgent, IsManagedWhenAnyOSAgentRecordIsManaged) {
  watchedRecord(L"qb", Unmanaged);
  watchedRecord(L"zz", Managed);  // not an OS agent's code
  EXPECT_FALSE(controller()->isOSAgentManaged());
  watchedRecord(L"qc", Managed);
  EXPECT_TRUE(controller()->isOSAgentManaged());
}

TEST_F(OSAgent, ARemoteDeployMarkerIsFoundAndKeptWhenNotToBeRemoved) {
  qortest::TempDir cap;
  controller()->setCAPDirPaths({wide(cap.path() + "/")});
  qortest::writeFile(cap.file("zz.dy"), "");
  EXPECT_TRUE(controller()->checkRemoteDeploy(policyOf(L"zz"), false));
  EXPECT_TRUE(qortest::fileExists(cap.file("zz.dy")));
  EXPECT_FALSE(controller()->checkRemoteDeploy(policyOf(L"zy"), false));
}

TEST_F(OSAgent, RemovingTakesTheFirstDirectorysMarkerAndTheNextCallFindsTheLaterOne) {
  qortest::TempDir first;
  qortest::TempDir second;
  controller()->setCAPDirPaths({wide(first.path() + "/"), wide(second.path() + "/")});
  qortest::writeFile(first.file("zz.dy"), "");
  qortest::writeFile(second.file("zz.dy"), "");
  Policy* policy = policyOf(L"zz");

  EXPECT_TRUE(controller()->checkRemoteDeploy(policy, true));
  EXPECT_FALSE(qortest::fileExists(first.file("zz.dy")));
  EXPECT_TRUE(qortest::fileExists(second.file("zz.dy")));
  EXPECT_TRUE(controller()->checkRemoteDeploy(policy, true));
  EXPECT_FALSE(qortest::fileExists(second.file("zz.dy")));
  EXPECT_FALSE(controller()->checkRemoteDeploy(policy, true));
}

TEST_F(OSAgent, NoCapDirectoryMeansNoRemoteDeploy) {
  controller()->setCAPDirPaths({});
  EXPECT_FALSE(controller()->checkRemoteDeploy(policyOf(L"zz"), true));
}

// ---- The OS agent's record, disarm and rearm ---------------------------------

// The records of both lists of one test, freed at its end.
class Supervision : public OSAgent {
 protected:
  void SetUp() override { qortest::traceTo(dir.file("trace"), 128 | 1); }
  void TearDown() override {
    for (ManagedProcessList* list :
         {controller()->getWatchdogList(), controller()->getManagedEndpointProcesses()}) {
      list->lockList();
      list->clear();
      list->unlockList();
    }
    for (Event* event : qortest::takeEvents(controller()->getCommandHandler())) delete event;
    for (Event* event : qortest::takeEvents(controller()->getMessageHandler())) delete event;
  }
  Agent* record(ManagedProcessList* list, const std::wstring& id, const std::wstring& code,
                ManagerType type) {
    Policy* policy = new Policy();
    policy->setProductCode(code);
    policy->setManagerTypeElement(type);
    owned.emplace_back(new Agent());
    Agent* agent = owned.back().get();
    agent->setPolicy(policy);
    agent->setID(id);
    agent->setName(L"Agent " + id);
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }
  Agent* hostRecord(ManagedStates state) {
    Agent* host = record(controller()->getWatchdogList(), L"host", L"qb", WatchDog);
    host->setManagedState(state);
    host->setOperatingState(OpRunning);
    host->setProcID(4711);
    host->setDailyRestartCount(2);
    return host;
  }
  std::string trace() { return qortest::readFile(dir.file("trace")); }

  qortest::TempDir dir;
  std::vector<std::unique_ptr<Agent>> owned;
};

TEST_F(OSAgent, AWatchdogManagerMakesTheOSAgentWhateverTheProductCode) {
  Policy policy;
  policy.setManagerTypeElement(WatchDog);
  policy.setProductCode(L"qg");
  EXPECT_TRUE(controller()->isOSAgent(&policy));
}

TEST_F(OSAgent, AnOSAgentsProductCodeMakesTheOSAgentWhateverTheManager) {
  Policy policy;
  policy.setManagerTypeElement(External);
  policy.setProductCode(L"qb");
  EXPECT_TRUE(controller()->isOSAgent(&policy));
}

TEST_F(Supervision, ANameOfNoRecordIsNotTheOSAgentsAndLeavesTheCountAndTypeAlone) {
  hostRecord(WatchdogManaged);
  bool managed = true;
  int count = 17;
  ManagerType type = External;
  EXPECT_FALSE(controller()->isOSAgent(L"someone", managed, count, type));
  EXPECT_FALSE(managed);
  EXPECT_EQ(17, count);
  EXPECT_EQ(External, type);
  EXPECT_TRUE(controller()->isOSAgent(L"Agent host", managed, count, type));
  EXPECT_TRUE(managed);
  EXPECT_EQ(2, count);
  EXPECT_EQ(WatchDog, type);
}

TEST_F(Supervision, TheNameOfAnUnmanagedRecordIsTheOSAgentsButNotManaged) {
  hostRecord(Unmanaged);
  bool managed = true;
  EXPECT_TRUE(controller()->isOSAgent(L"Agent host", managed));
  EXPECT_FALSE(managed);
}

TEST_F(Supervision, OnLinuxTheCodeQaIsNotTheOSAgentsButQbIs) {
  hostRecord(WatchdogManaged);
  bool managed = true;
  EXPECT_FALSE(controller()->isOSAgentPC(L"qa", managed));
  EXPECT_FALSE(managed);
  EXPECT_TRUE(controller()->isOSAgentPC(L"qb", managed));
  EXPECT_TRUE(managed);
}

TEST_F(Supervision, NoOSAgentRecordMeansNoOSAgentsCode) {
  record(controller()->getWatchdogList(), L"other", L"zz", External);
  bool managed = true;
  EXPECT_FALSE(controller()->isOSAgentPC(L"zz", managed));
  EXPECT_FALSE(managed);
}

TEST_F(Supervision, UnmanagingTheOSAgentForgetsItsProcessAndCountAndASecondTimeChangesNothing) {
  Agent* other = record(controller()->getWatchdogList(), L"other", L"zz", External);
  other->setManagedState(Managed);
  Agent* host = hostRecord(WatchdogManaged);
  controller()->unmanageOSAgent();
  EXPECT_EQ(Unmanaged, host->getManagedState());
  EXPECT_EQ(0, host->getProcID());
  EXPECT_EQ(OpUnknown, host->getOperatingState());
  EXPECT_EQ(0, host->getDailyRestartCount());
  EXPECT_EQ(Managed, other->getManagedState());
  controller()->unmanageOSAgent();
  EXPECT_EQ(Unmanaged, host->getManagedState());
  EXPECT_EQ(0, host->getProcID());
  EXPECT_EQ(OpUnknown, host->getOperatingState());
  EXPECT_EQ(0, host->getDailyRestartCount());
  EXPECT_FALSE(controller()->isOSAgentManaged());
  EXPECT_EQ(2, qortest::countOccurrences(trace(), "OS agent set to unmanaged 0"));
}

TEST_F(Supervision, ManagingTheOSAgentGivesItsRecordToTheWatchdogProcess) {
  Agent* host = hostRecord(Unmanaged);
  controller()->manageOSAgent();
  EXPECT_EQ(WatchdogManaged, host->getManagedState());
  EXPECT_TRUE(controller()->isOSAgentManaged());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "OS agent set to managed 2"));
}

TEST_F(Supervision, TheWatchdogAgentIsTheFirstRecordOfTheWatchdogProcess) {
  EXPECT_EQ(nullptr, controller()->getWatchdogAgent());
  record(controller()->getManagedEndpointProcesses(), L"other", L"zz", External);
  Agent* first = record(controller()->getManagedEndpointProcesses(), L"qorwd", L"qd", External);
  record(controller()->getManagedEndpointProcesses(), L"qorwd", L"qd", External);
  EXPECT_EQ(first, controller()->getWatchdogAgent());
}

TEST_F(Supervision, ADisarmWithoutAWatchdogRecordHasNoAgentAndStillWarnsTheListeners) {
  controller()->disarm(false);
  EXPECT_TRUE(controller()->isDisarmed());
  std::vector<Event*> commands = qortest::takeEvents(controller()->getCommandHandler());
  ASSERT_EQ(1u, commands.size());
  EXPECT_EQ(disarm_complete, commands[0]->getEventTypeID());
  ASSERT_NE(nullptr, dynamic_cast<WatchdogEvent*>(commands[0]));
  EXPECT_EQ(nullptr, dynamic_cast<WatchdogEvent*>(commands[0])->getAgent());
  EXPECT_EQ(L" Watchdog Event: Disarm completed successfully", commands[0]->getLogMessage());
  std::vector<Event*> messages = qortest::takeEvents(controller()->getMessageHandler());
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(watchdog_unreliable, messages[0]->getEventTypeID());
  EXPECT_EQ(L"Teo Services watchdog not reliable", messages[0]->getLogMessage());
  EventData data;
  messages[0]->getEventData(data);
  EXPECT_EQ(L"Watchdog Disarm", data.userMessage);
  for (Event* event : commands) delete event;
  for (Event* event : messages) delete event;
}

TEST_F(Supervision, ADisarmNamesTheWatchdogRecordAndASilentOneWarnsNobody) {
  Agent* guard = record(controller()->getManagedEndpointProcesses(), L"qorwd", L"qd", External);
  controller()->disarm(true);
  std::vector<Event*> commands = qortest::takeEvents(controller()->getCommandHandler());
  ASSERT_EQ(1u, commands.size());
  ASSERT_NE(nullptr, dynamic_cast<WatchdogEvent*>(commands[0]));
  EXPECT_EQ(guard, dynamic_cast<WatchdogEvent*>(commands[0])->getAgent());
  EXPECT_TRUE(qortest::takeEvents(controller()->getMessageHandler()).empty());
  for (Event* event : commands) delete event;
}

TEST_F(Supervision, ARearmClearsTheFlagAndNamesNoAgent) {
  record(controller()->getManagedEndpointProcesses(), L"qorwd", L"qd", External);
  controller()->disarm(true);
  for (Event* event : qortest::takeEvents(controller()->getCommandHandler())) delete event;
  controller()->rearm();
  EXPECT_FALSE(controller()->isDisarmed());
  std::vector<Event*> commands = qortest::takeEvents(controller()->getCommandHandler());
  ASSERT_EQ(1u, commands.size());
  EXPECT_EQ(rearm_complete, commands[0]->getEventTypeID());
  ASSERT_NE(nullptr, dynamic_cast<WatchdogEvent*>(commands[0]));
  EXPECT_EQ(nullptr, dynamic_cast<WatchdogEvent*>(commands[0])->getAgent());
  EXPECT_EQ(L" Watchdog Event: Rearm completed successfully", commands[0]->getLogMessage());
  EXPECT_TRUE(qortest::takeEvents(controller()->getMessageHandler()).empty());
  for (Event* event : commands) delete event;
}

}  // namespace
