#include <gtest/gtest.h>

#include <climits>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

Agent* makeAgent(const std::wstring& id, Policy* policy, ManagedStates state = Managed) {
  Agent* agent = new Agent();
  agent->setID(id);
  agent->setName(L"name of " + id);
  agent->setManagedState(state);
  agent->setPolicy(policy);
  return agent;
}

Policy* makePolicy(const std::wstring& id) {
  Policy* policy = new Policy();
  policy->setSubagentID(id);
  return policy;
}

void addToList(ManagedProcessList* list, Agent* agent) {
  list->lockList();
  list->push_back(agent);
  list->unlockList();
}

// A started service on an empty CAP directory; agents are put in the lists by hand.
class IteratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QOR_CAP_DIR", dir.path().c_str(), 1);
    service = QOR_QueryService::initQueryService();
    service->startQueryService();
  }
  void TearDown() override { service->releaseQueryService(false); }

  ManagedProcessList* managed() { return Controller::getController()->getManagedEndpointProcesses(); }

  qortest::TempDir dir;
  QOR_QueryService* service = nullptr;
};

}  // namespace

TEST_F(IteratorTest, AnEmptySystemEndsAtOnceAndAnswersTheInvalidValues) {
  QOR_AgentIterator* iterator = service->getAgentIterator(false);
  ASSERT_NE(nullptr, iterator);
  EXPECT_FALSE(iterator->getNextAgentEntry());
  EXPECT_TRUE(iterator->invalidPos());
  EXPECT_EQ(L"", iterator->getAgentName());
  EXPECT_EQ(-1, iterator->getManagedState());
  EXPECT_EQ(0, iterator->getMemoryThresholdUnit());
  EXPECT_EQ(ULONG_MAX, iterator->getMemoryThreshold());
  EXPECT_EQ(ULONG_MAX, iterator->getWorkingSetSize());
  EXPECT_EQ(ULONG_MAX, iterator->getVMSize());
  EXPECT_EQ(-1, iterator->getProcessID());
  EXPECT_EQ(L"0000000000000001", iterator->getBuildDate());
  long untouched = 7;
  EXPECT_FALSE(iterator->getCAPFileModifyTimestamp(untouched));
  EXPECT_EQ(7, untouched);
  service->releaseAgentIterator(iterator);
  service->releaseAgentIterator(nullptr);
}

TEST_F(IteratorTest, ThreeAgentsThenTheEndForGood) {
  Policy* policy = makePolicy(L"p");
  for (const wchar_t* id : {L"a", L"b", L"c"}) addToList(managed(), makeAgent(id, new Policy(*policy)));
  delete policy;
  QOR_AgentIterator* iterator = service->getAgentIterator(false);
  // Before the first step no record is read.
  EXPECT_EQ(L"", iterator->getAgentName());
  std::vector<std::wstring> names;
  while (iterator->getNextAgentEntry()) names.push_back(iterator->getAgentName());
  EXPECT_EQ(std::vector<std::wstring>({L"name of a", L"name of b", L"name of c"}), names);
  EXPECT_EQ(L"", iterator->getAgentName());
  EXPECT_EQ(-1, iterator->getManagedState());
  EXPECT_FALSE(iterator->getNextAgentEntry());
  EXPECT_EQ(L"0000000000000001", iterator->getBuildDate());
  service->releaseAgentIterator(iterator);
}

TEST_F(IteratorTest, TheSnapshotDoesNotSeeLaterChanges) {
  Agent* agent = makeAgent(L"a", makePolicy(L"a"));
  addToList(managed(), agent);
  QOR_AgentIterator* iterator = service->getAgentIterator(false);
  managed()->lockList();
  agent->setName(L"renamed");
  managed()->unlockList();
  ASSERT_TRUE(iterator->getNextAgentEntry());
  EXPECT_EQ(L"name of a", iterator->getAgentName());
  service->releaseAgentIterator(iterator);
}

TEST_F(IteratorTest, GettersOfOneEntry) {
  Policy* policy = makePolicy(L"qx");
  policy->setDependentAgent(L"qa");
  policy->setDependentAgent(L"qb");
  policy->setMemoryThreshold(2, MEM_MB);
  policy->setCPUThreshold(80);
  policy->setServiceName(L"policy service");
  Agent* agent = makeAgent(L"qx", policy);
  agent->setMemSizeBytes(1023);
  agent->setProcID(77);
  agent->setOperatingState(OpRunning);
  addToList(managed(), agent);

  QOR_AgentIterator* iterator = service->getAgentIterator(false);
  ASSERT_TRUE(iterator->getNextAgentEntry());
  EXPECT_EQ(L"qx", iterator->getSubagentID());
  EXPECT_EQ(L"qa,qb", iterator->getDependencies());
  EXPECT_EQ(2097152u, iterator->getMemoryThreshold());
  EXPECT_EQ(2, iterator->getMemoryThresholdValue());
  EXPECT_EQ(20, iterator->getMemoryThresholdUnit());
  EXPECT_EQ(80, iterator->getCPUThreshold());
  EXPECT_EQ(0u, iterator->getWorkingSetSize());
  EXPECT_EQ(77, iterator->getProcessID());
  EXPECT_EQ(OpRunning, iterator->getOperationalStatus());
  EXPECT_EQ(L"policy service", iterator->getServiceName());
  EXPECT_EQ(L"", iterator->getIPAddress());
  EXPECT_EQ(L"", iterator->getHostName());
  long untouched = 5;
  EXPECT_FALSE(iterator->getLastHealthCheck(untouched));
  EXPECT_EQ(5, untouched);
  service->releaseAgentIterator(iterator);
}

TEST_F(IteratorTest, AServiceInstanceFoundByDiscoveryWinsOverThePolicyName) {
  Policy* policy = makePolicy(L"qs");
  policy->setServiceName(L"policy service");
  Agent* agent = makeAgent(L"qs", policy);
  agent->setServiceInstanceName(L"found service");
  agent->setCheckTime(1234);
  addToList(managed(), agent);
  QOR_AgentIterator* iterator = service->getAgentIterator(false);
  ASSERT_TRUE(iterator->getNextAgentEntry());
  EXPECT_EQ(L"found service", iterator->getServiceName());
  long checked = 0;
  EXPECT_TRUE(iterator->getLastHealthCheck(checked));
  EXPECT_EQ(1234, checked);
  service->releaseAgentIterator(iterator);
}

TEST_F(IteratorTest, TheOsAgentComesLastAndLooksManaged) {
  Agent* osAgent = makeAgent(L"qb", makePolicy(L"qb"), WatchdogManaged);
  addToList(Controller::getController()->getWatchdogList(), osAgent);
  QOR_AgentIterator* iterator = service->getAgentIterator(true);
  ASSERT_TRUE(iterator->getNextAgentEntry());
  EXPECT_EQ(L"qb", iterator->getSubagentID());
  EXPECT_EQ(Managed, iterator->getManagedState());
  EXPECT_FALSE(iterator->getNextAgentEntry());
  service->releaseAgentIterator(iterator);

  QOR_AgentIterator* without = service->getAgentIterator(false);
  EXPECT_FALSE(without->getNextAgentEntry());
  service->releaseAgentIterator(without);
}

TEST_F(IteratorTest, TwoInstancesOfOnePolicyGiveTwoAgentsAndOnePolicy) {
  Policy* shared = makePolicy(L"qi");
  addToList(managed(), makeAgent(L"qi", shared));
  Agent* second = makeAgent(L"qi", shared);
  addToList(managed(), second);
  std::vector<Agent*> agents;
  std::vector<Policy*> policies;
  ASSERT_TRUE(Controller::getController()->getManagedEndpointAndPolicySnapshot(&agents, &policies));
  EXPECT_EQ(2u, agents.size());
  ASSERT_EQ(1u, policies.size());
  EXPECT_EQ(shared, policies[0]);
  for (Agent* agent : agents) delete agent;
  // The live agents share one policy: only one of them may delete it.
  managed()->lockList();
  second->setPolicy(nullptr);
  managed()->unlockList();
}

TEST(IteratorBeforeStart, NoIteratorBeforeTheServiceStarts) {
  qortest::TempDir dir;
  setenv("QOR_CAP_DIR", dir.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  EXPECT_EQ(nullptr, service->getAgentIterator(false));
  service->releaseQueryService(true);
}

TEST_F(IteratorTest, TheCapFileNameIsThePolicysAndEmptyAtABadPosition) {
  Policy* policy = makePolicy(L"p");
  policy->setCAPFileName(L"/etc/qor/cap/p.xml");
  addToList(managed(), makeAgent(L"a", policy));
  QOR_AgentIterator* iterator = service->getAgentIterator(false);
  EXPECT_EQ(L"", iterator->getCAPFileName());
  ASSERT_TRUE(iterator->getNextAgentEntry());
  EXPECT_EQ(L"/etc/qor/cap/p.xml", iterator->getCAPFileName());
  EXPECT_FALSE(iterator->getNextAgentEntry());
  EXPECT_EQ(L"", iterator->getCAPFileName());
  service->releaseAgentIterator(iterator);
}
