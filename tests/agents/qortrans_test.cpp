// The management rows and the presence rows of the agent state machine: what
// an agent_managed or agent_unmanaged event does to a record, with real CAP
// files, a real process under a name of its own and the real process table.
// Events are applied on the test's thread with the list locked, as the
// command handler applies them; what they raise stays on the queues.
#include <gtest/gtest.h>

#include <memory>

#include "agents/qoragt.h"
#include "cap/capfiles.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "include/qorapi.h"
#include "support/qortest.h"
#include "support/queues.h"
#include "watchdog/proctest.h"
#include "watchdog/qorwd.h"

namespace {

class Transitions : public ::testing::Test {
 protected:
  void SetUp() override {
    MIN_CMD_TIMEOUT = 3;
    qortest::traceTo(dir.file("trace"), 1);
    controller()->setCAPDirPaths({captest::wide(dir.path() + "/")});
  }
  void TearDown() override {
    drain(controller()->getCommandHandler());
    drain(controller()->getMessageHandler());
  }

  static Controller* controller() { return Controller::getController(); }
  ManagedProcessList* managed() { return controller()->getManagedEndpointProcesses(); }
  std::string trace() { return qortest::readFile(dir.file("trace")); }

  // A copy of sleep under its own name, running.
  std::string startProgram(const std::string& name) {
    exe = proctest::copyProgram("/bin/sleep", dir.file(name));
    process.reset(new proctest::Process({exe, "30"}));
    int pid = process->pid();
    EXPECT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, exe); }, 5000));
    return exe;
  }

  // A policy from a real CAP file for the program at `path`.
  Policy* policyFor(const std::string& path, const std::string& manager = "TeoServices",
                    const std::string& extra = "") {
    captest::Subagent subagent;
    subagent.id = "trans.agent";
    subagent.procName = "<procName>" + path.substr(path.rfind('/') + 1) + "</procName>";
    subagent.agentType = "<agentType>Console</agentType>";
    subagent.agentPath = "<agentPath>" + path + "</agentPath>";
    subagent.managerType = "<managerType>" + manager + "</managerType>";
    if (!extra.empty()) subagent.productCode = extra;
    Policy* policy = new Policy();
    EXPECT_EQ(XML_OK, captest::parseText(processor, dir, captest::document(subagent), *policy,
                                         "policy" + std::to_string(++files) + ".xml"));
    policies.emplace_back(policy);
    return policy;
  }

  // An agent of the policy in the managed list, as reconciliation makes it.
  Agent* listedAgent(Policy* policy, ManagedStates state = Unmanaged) {
    Agent* agent = new Agent();
    agent->setIdentityFrom(policy);
    agent->setManagedState(state);
    managed()->lockList();
    managed()->push_back(agent);
    managed()->unlockList();
    return agent;
  }

  // Applies a management event with the list locked, as doCommandProcessing does.
  void manage(AgentMgmtEvent& event, Agent* agent, TEOEvents id, int mgmtState, bool newAgent = false) {
    event.setEventTypeID(id);
    event.setAgent(agent);
    event.setMgmtState(mgmtState);
    event.setNewAgent(newAgent);
    managed()->lockList();
    controller()->ProcessMgmtStateChange(&event);
    managed()->unlockList();
  }

  static void drain(EventHandler* queue) {
    for (Event* event : qortest::takeEvents(queue)) delete event;
  }

  qortest::TempDir dir;
  XMLprocessor processor;
  std::vector<std::unique_ptr<Policy>> policies;
  std::unique_ptr<proctest::Process> process;
  std::string exe;
  int files = 0;
};

TEST_F(Transitions, AnUnmanagedAgentComingUnderManagementGetsItsWatchdogAndItsRunningProcess) {
  Policy* policy = policyFor(startProgram("qortransd"));
  Agent* agent = listedAgent(policy);
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Unmanaged);

  EXPECT_EQ(Managed, agent->getManagedState());
  ASSERT_NE(nullptr, agent->getWatchdog());
  EXPECT_EQ(agent, agent->getWatchdog()->getAgent());
  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(process->pid(), agent->getProcID());
  EXPECT_EQ(agent_managed, event.getEventTypeID());
  EXPECT_TRUE(managed()->isDirty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "agent mgmt state = 1.\n"));
}

TEST_F(Transitions, AnAgentWhoseProgramDoesNotRunComesUnderManagementStopped) {
  std::string path = proctest::copyProgram("/bin/sleep", dir.file("qoridled"));
  Agent* agent = listedAgent(policyFor(path));
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Unmanaged);

  EXPECT_EQ(Managed, agent->getManagedState());
  EXPECT_NE(nullptr, agent->getWatchdog());
  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
}

TEST_F(Transitions, TheOSAgentComingUnderManagementIsManagedByTheWatchdogProcess) {
  std::string path = proctest::copyProgram("/bin/sleep", dir.file("qorosd"));
  Agent* agent = listedAgent(policyFor(path, "TeoServices", "<productCode>qa</productCode>"));
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Unmanaged);

  EXPECT_EQ(WatchdogManaged, agent->getManagedState());
  EXPECT_NE(nullptr, agent->getWatchdog());
}

TEST_F(Transitions, ManagingAnAgentTakesItsRemoteDeployMarkerAway) {
  std::string path = proctest::copyProgram("/bin/sleep", dir.file("qordeployd"));
  Agent* agent = listedAgent(policyFor(path, "TeoServices", "<productCode>zz</productCode>"));
  // The CAP directory entry ends in "/", and the marker's name begins with one.
  qortest::writeFile(dir.file("zz.dy"), "");
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Unmanaged);

  EXPECT_FALSE(qortest::fileExists(dir.file("zz.dy")));
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Deleting remote deploy control file <" + dir.path() + "//zz.dy>"));
}

TEST_F(Transitions, AnAgentWhosePathIsMissingIsForwardedAsNotFoundAndLeavesTheRunning) {
  Agent* agent = listedAgent(policyFor(dir.file("qorgoned")));
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Unmanaged);

  EXPECT_EQ(agent_not_found, event.getEventTypeID());
  EXPECT_EQ(OpUnknown, event.getOpState());
  EXPECT_EQ(OpNotFound, agent->getOperatingState());
  EXPECT_EQ(Unmanaged, agent->getManagedState());
  EXPECT_EQ(nullptr, agent->getWatchdog());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Error: Agent does not exist on system.\n"));

  std::vector<Event*> raised = qortest::takeEvents(controller()->getCommandHandler());
  ASSERT_EQ(1u, raised.size());
  AgentMgmtEvent* unmanaged = dynamic_cast<AgentMgmtEvent*>(raised[0]);
  ASSERT_NE(nullptr, unmanaged);
  EXPECT_EQ(agent_unmanaged, unmanaged->getEventTypeID());
  EXPECT_EQ(agent, unmanaged->getAgent());
  EXPECT_EQ(Unmanaged, unmanaged->getMgmtState());
  for (Event* e : raised) delete e;
}

TEST_F(Transitions, NotFoundTakesEverySiblingInstanceDownToUnknownAndRaisesUnmanagedForEach) {
  Policy* policy = policyFor(dir.file("qorgoned"));
  Agent* first = listedAgent(policy, Managed);
  Agent* second = listedAgent(policy, Managed);
  Agent* third = listedAgent(policy, Managed);
  second->setOperatingState(OpRunning);
  third->setOperatingState(OpStopped);

  AgentOpEvent event;
  event.setAgent(first);
  event.setOpState(OpUnknown);
  event.setEventTypeID(agent_not_found);
  managed()->lockList();
  controller()->ProcessOpStateChange(&event);
  managed()->unlockList();

  EXPECT_EQ(OpNotFound, first->getOperatingState());
  EXPECT_EQ(OpUnknown, second->getOperatingState());
  EXPECT_EQ(OpUnknown, third->getOperatingState());
  std::vector<Event*> raised = qortest::takeEvents(controller()->getCommandHandler());
  ASSERT_EQ(3u, raised.size());
  const Agent* expected[] = {first, second, third};
  for (size_t i = 0; i < raised.size(); ++i) {
    AgentMgmtEvent* unmanaged = dynamic_cast<AgentMgmtEvent*>(raised[i]);
    ASSERT_NE(nullptr, unmanaged);
    EXPECT_EQ(agent_unmanaged, unmanaged->getEventTypeID());
    EXPECT_EQ(expected[i], unmanaged->getAgent());
    EXPECT_EQ(Managed, unmanaged->getMgmtState());
    delete raised[i];
  }
}

TEST_F(Transitions, ASuiteAgentWithoutInstancesIsNotConfigured) {
  std::string path = proctest::copyProgram("/bin/sleep", dir.file("qorsuited"));
  captest::Subagent subagent;
  subagent.id = "trans.suite";
  subagent.procName = "<procName>qorsuited</procName>";
  subagent.productCode = "<productCode>zq</productCode>";
  subagent.agentType = "<agentType>ZEL_UNIX</agentType>";
  subagent.agentPath = "<agentPath>" + path + "</agentPath>";
  proctest::FakeSuite suite;  // the instance list of the product is empty
  Policy* policy = new Policy();
  policies.emplace_back(policy);
  ASSERT_EQ(XML_OK, captest::parseText(processor, dir, captest::document(subagent), *policy, "suite.xml"));
  ASSERT_TRUE(policy->isZELAgentNotConfigured());

  Agent* agent = listedAgent(policy);
  agent->setInstanceName(L"old");
  agent->setInstanceProcName(L"other");
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Unmanaged);

  EXPECT_EQ(agent_not_configured, event.getEventTypeID());
  EXPECT_EQ(Unmanaged, agent->getManagedState());
  EXPECT_EQ(OpNotConfigured, agent->getOperatingState());
  EXPECT_EQ(L"", agent->getInstanceName());
  EXPECT_EQ(L"qorsuited", agent->getInstanceProcName());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "ZEL Agent installed but no instances available.\n"));
  std::vector<Event*> raised = qortest::takeEvents(controller()->getCommandHandler());
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_unmanaged, raised[0]->getEventTypeID());
  for (Event* e : raised) delete e;
}

TEST_F(Transitions, EndingManagementDropsTheWatchdogAndClearsProcessAndCount) {
  Agent* agent = listedAgent(policyFor(startProgram("qorendd")));
  AgentMgmtEvent managing;
  manage(managing, agent, agent_managed, Unmanaged);
  ASSERT_EQ(OpRunning, agent->getOperatingState());
  agent->setDailyRestartCount(2);

  AgentMgmtEvent ending;
  manage(ending, agent, agent_unmanaged, Managed);

  EXPECT_EQ(Unmanaged, agent->getManagedState());
  EXPECT_EQ(nullptr, agent->getWatchdog());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(OpUnknown, agent->getOperatingState());
  EXPECT_EQ(0, agent->getDailyRestartCount());
}

TEST_F(Transitions, ANewUnmanagedAgentInStateUnknownOnlyLosesItsProcessId) {
  Agent* agent = listedAgent(policyFor(startProgram("qornewd")));
  agent->setProcID(process->pid());
  agent->setInstanceName(L"kept");
  AgentMgmtEvent event;
  manage(event, agent, agent_unmanaged, Unmanaged, true);

  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(OpUnknown, agent->getOperatingState());
  EXPECT_EQ(Unmanaged, agent->getManagedState());
  EXPECT_EQ(L"kept", agent->getInstanceName());
  EXPECT_EQ(nullptr, agent->getWatchdog());
  EXPECT_EQ(agent_unmanaged, event.getEventTypeID());
}

TEST_F(Transitions, AnUnmanagedAgentLookedAtAgainIsResetWhenItsFileExists) {
  Agent* agent = listedAgent(policyFor(startProgram("qoragaind")));
  agent->setOperatingState(OpRunning);
  agent->setProcID(process->pid());
  AgentMgmtEvent event;
  manage(event, agent, agent_unmanaged, Unmanaged);

  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(OpUnknown, agent->getOperatingState());
}

TEST_F(Transitions, AnUnmanagedAgentInStateUnknownWhoseFileIsGoneRaisesNotFound) {
  Agent* agent = listedAgent(policyFor(dir.file("qorlostd")));
  AgentMgmtEvent event;
  manage(event, agent, agent_unmanaged, Unmanaged);

  EXPECT_EQ(agent_unmanaged, event.getEventTypeID());
  std::vector<Event*> raised = qortest::takeEvents(controller()->getCommandHandler());
  ASSERT_EQ(1u, raised.size());
  AgentOpEvent* notFound = dynamic_cast<AgentOpEvent*>(raised[0]);
  ASSERT_NE(nullptr, notFound);
  EXPECT_EQ(nullptr, dynamic_cast<AgentMgmtEvent*>(raised[0]));
  EXPECT_EQ(agent_not_found, notFound->getEventTypeID());
  EXPECT_EQ(OpUnknown, notFound->getOpState());
  EXPECT_EQ(agent, notFound->getAgent());
  for (Event* e : raised) delete e;
  std::string text = trace();
  EXPECT_EQ(1, qortest::countOccurrences(text, "Agent path does not exist on system.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(text, "Error: Agent does not exist on system.\n"));
}

TEST_F(Transitions, AManagedAgentReturningFromTheStateFileKeepsAManualStop) {
  Agent* agent = listedAgent(policyFor(startProgram("qorkeptd")), Managed);
  agent->setOperatingState(OpManuallyStopped);
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Managed);

  EXPECT_EQ(Managed, agent->getManagedState());
  EXPECT_NE(nullptr, agent->getWatchdog());
  EXPECT_EQ(OpManuallyStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
}

TEST_F(Transitions, AManagedAgentReturningFromTheStateFileTakesTheStateOfItsProcess) {
  Agent* agent = listedAgent(policyFor(startProgram("qorbackd")), Managed);
  agent->setOperatingState(OpStopped);
  AgentMgmtEvent event;
  manage(event, agent, agent_managed, Managed);

  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(process->pid(), agent->getProcID());
}

// Two operators' commands crossing: a manage raised while the agent was
// still managed, applied after an unmanage that was queued before it.
TEST_F(Transitions, AManageRaisedWhileManagedButAppliedAfterAnUnmanageTakesTheAgentInAgain) {
  Agent* agent = listedAgent(policyFor(startProgram("qorcrossd")));
  AgentMgmtEvent first;
  manage(first, agent, agent_managed, Unmanaged);
  ASSERT_EQ(Managed, agent->getManagedState());
  AgentMgmtEvent ending;
  manage(ending, agent, agent_unmanaged, Managed);
  ASSERT_EQ(Unmanaged, agent->getManagedState());
  ASSERT_EQ(nullptr, agent->getWatchdog());

  AgentMgmtEvent late;
  manage(late, agent, agent_managed, Managed);

  EXPECT_EQ(Managed, agent->getManagedState());
  ASSERT_NE(nullptr, agent->getWatchdog());
  EXPECT_EQ(agent, agent->getWatchdog()->getAgent());
  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(process->pid(), agent->getProcID());
  EXPECT_EQ(agent_managed, late.getEventTypeID());
}

TEST_F(Transitions, TheWatchdogRecordIsReportedUnreliableOnEveryUnmanagedEvent) {
  for (int mgmtState : {static_cast<int>(Unmanaged), static_cast<int>(Managed)}) {
    Agent* agent = listedAgent(policyFor(startProgram("qorwdrecd")), static_cast<ManagedStates>(mgmtState));
    agent->setID(L"qorwd");
    AgentMgmtEvent event;
    manage(event, agent, agent_unmanaged, mgmtState);
    std::vector<Event*> messages = qortest::takeEvents(controller()->getMessageHandler());
    ASSERT_EQ(1u, messages.size()) << "mgmtState " << mgmtState;
    EXPECT_EQ(watchdog_unreliable, messages[0]->getEventTypeID());
    for (Event* e : messages) delete e;
    process.reset();
  }
}

TEST_F(Transitions, AnOperatingEventForAnAgentWithoutWatchdogChangesNothing) {
  Agent* agent = listedAgent(policyFor(startProgram("qornowdd")), Managed);
  agent->setOperatingState(OpRunning);
  agent->setProcID(process->pid());
  AgentOpEvent event;
  event.setAgent(agent);
  event.setOpState(OpStopped);
  event.setEventTypeID(agent_stopped_abnormally);
  managed()->lockList();
  controller()->ProcessOpStateChange(&event);
  managed()->unlockList();

  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(process->pid(), agent->getProcID());
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "ignoring state change -- watchdog is null -- agent op state = 2.\n"));
}

}  // namespace
