#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agents/qoragt.h"
#include "core/qorctrl.h"

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
