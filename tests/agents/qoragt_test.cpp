#include "agents/qoragt.h"

#include <gtest/gtest.h>

#include "watchdog/qorwd.h"

namespace {

// An agent with a policy of its own and a few figures, as the lists hold them.
Agent* makeAgent(const std::wstring& id = L"qa1") {
  Agent* agent = new Agent();
  agent->setID(id);
  agent->setName(L"Agent " + id);
  Policy* policy = new Policy();
  policy->setSubagentID(id);
  policy->setCheckFrequencyElement(60);
  agent->setPolicy(policy);
  agent->setProcID(4321);
  agent->setOperatingState(OpRunning);
  return agent;
}

// Figures that setOperatingState clears.
void giveFigures(Agent& agent) {
  agent.setProcID(1234);
  agent.setParentProcID(1);
  agent.setKernelCPU(100);
  agent.setKernelCPU(150);
  agent.setUserCPU(40);
  agent.setUserCPU(60);
  agent.setTimeInterval(100);
  agent.setTimeIntervalInSec(10);
  agent.setThreadCount(7);
  agent.setMemSizeBytes(4096);
  agent.setMemSizePages(1);
  agent.setPageFaults(10);
  agent.setPageFaults(110);
  agent.setResidentSetSize(55);
}

// Gives every field that a setter reaches a value of its own, none of them a
// default, and the guid of a new agent.
Agent* makeFullAgent() {
  Agent* agent = new Agent();
  agent->setName(L"Agent qf9");
  agent->setID(L"qf9");
  agent->setManagedState(Managed);
  agent->setSavedState(WatchdogManaged);
  agent->setDailyRestartCount(3);
  agent->resetReportCountExceeded();
  agent->resetReportRestartFailure();
  agent->setProcName(L"server");
  agent->setPath(L"/opt/qf9/bin");
  agent->setInstanceProcName(L"/opt/qf9/bin/server");
  agent->setServiceInstanceName(L"svc9");
  agent->setInstanceName(L"inst9");
  agent->setType(UnixDaemon);
  agent->setCmdLine(L"server -x");
  agent->setAgentVersion(L"9.1");
  agent->setAgentBuildNumber(L"b42");
  agent->setUserName(L"qfuser");
  agent->setCheckMask(90);
  Policy* policy = new Policy();
  policy->setSubagentID(L"qf9");
  agent->setPolicy(policy);

  agent->setProcID(4321);
  agent->setParentProcID(17);
  agent->setKernelCPU(100);
  agent->setKernelCPU(400);
  agent->setUserCPU(50);
  agent->setUserCPU(250);
  agent->setTimeInterval(1000);
  agent->setTimeIntervalInSec(5);
  agent->setPageFaults(20);
  agent->setPageFaults(120);
  agent->setThreadCount(7);
  agent->setMemSizeBytes(4096);
  agent->setMemSizePages(3);
  agent->setResidentSetSize(55);

  // Totals of one cycle, then the sums of the next: every total differs.
  agent->addKernelCPU(600);
  agent->addUserCPU(400);
  agent->addMemSizeBytes(2000);
  agent->calculateTotalCounters();
  agent->resetTotalCounters();
  agent->addKernelCPU(700);
  agent->addUserCPU(500);
  agent->addMemSizeBytes(3000);

  agent->setCheckTime(1234);
  agent->setAvailCheckRetry();
  agent->setOperatingState(OpRunning);
  return agent;
}

// The process figures that makeFullAgent gives.
void expectFullProcessFigures(const Agent& agent) {
  EXPECT_EQ(4321, agent.getProcID());
  EXPECT_EQ(17, agent.getParentProcID());
  EXPECT_EQ(30u, agent.getKernelCPUPercent());  // (400 - 100) * 100 / 1000
  EXPECT_EQ(20u, agent.getUserCPUPercent());    // (250 - 50) * 100 / 1000
  EXPECT_EQ(50u, agent.getCPUPercent());
  EXPECT_EQ(20u, agent.getPageFaultsPerSec());  // (120 - 20) / 5
  EXPECT_EQ(7u, agent.getThreadCount());
  EXPECT_EQ(4096u, agent.getMemSizeBytes());
  EXPECT_EQ(3u, agent.getMemSizePages());
  EXPECT_EQ(55u, agent.getResidentSetSize());
  EXPECT_EQ(0u, agent.getHandleCount());
  EXPECT_EQ(0u, agent.getVMSize());
}

void expectNoProcessFigures(const Agent& agent) {
  EXPECT_EQ(0, agent.getProcID());
  EXPECT_EQ(0, agent.getParentProcID());
  EXPECT_EQ(0u, agent.getKernelCPUPercent());
  EXPECT_EQ(0u, agent.getUserCPUPercent());
  EXPECT_EQ(0u, agent.getCPUPercent());
  EXPECT_EQ(0u, agent.getPageFaultsPerSec());
  EXPECT_EQ(0u, agent.getThreadCount());
  EXPECT_EQ(0u, agent.getMemSizeBytes());
  EXPECT_EQ(0u, agent.getMemSizePages());
  EXPECT_EQ(0u, agent.getResidentSetSize());
  EXPECT_EQ(0u, agent.getHandleCount());
  EXPECT_EQ(0u, agent.getVMSize());
}

// Every other field that makeFullAgent gives. The sums of the running cycle
// and of the one before show only in a new total, so this ends by computing
// one over an interval of 1000.
void expectFullRest(Agent& agent) {
  EXPECT_EQ(L"Agent qf9", agent.getName());
  EXPECT_EQ(L"qf9", agent.getID());
  EXPECT_EQ("qf9", agent.getshortID());
  EXPECT_EQ(L"6.2.2.2", agent.getVersion());
  EXPECT_EQ(Managed, agent.getManagedState());
  EXPECT_EQ(WatchdogManaged, agent.getSavedState());
  EXPECT_EQ(3, agent.getDailyRestartCount());
  EXPECT_FALSE(agent.reportCountExceeded());
  EXPECT_TRUE(agent.isCountExceeded());
  EXPECT_FALSE(agent.reportRestartFailure());
  EXPECT_EQ(L"server", agent.getProcName());
  EXPECT_EQ(L"/opt/qf9/bin", agent.getPath());
  EXPECT_EQ(L"/opt/qf9/bin/server", agent.getInstanceProcName());
  EXPECT_EQ(L"svc9", agent.getServiceInstanceName());
  EXPECT_EQ(L"inst9", agent.getInstanceName());
  EXPECT_EQ(UnixDaemon, agent.getType());
  EXPECT_EQ(L"server -x", agent.getCmdLine());
  EXPECT_EQ(L"9.1", agent.getAgentVersion());
  EXPECT_EQ(L"b42", agent.getAgentBuildNumber());
  EXPECT_EQ(L"qfuser", agent.getUserName());
  EXPECT_EQ(90u, agent.getCheckMask());
  ASSERT_NE(nullptr, agent.getPolicy());
  EXPECT_EQ(L"qf9", agent.getPolicy()->getSubagentID());
  time_t when = 0;
  EXPECT_TRUE(agent.getLastChecked(when));
  EXPECT_EQ(1234, when);
  EXPECT_TRUE(agent.availCheckRetryEnabled());

  EXPECT_EQ(100u, agent.getTotalCPUPercent());     // (600 + 400) * 100 / 1000
  EXPECT_EQ(2000u, agent.getTotalMemSizeBytes());  // the sum of the first cycle
  agent.setTimeInterval(1000);
  agent.calculateTotalCounters();
  EXPECT_EQ(20u, agent.getTotalCPUPercent());      // (700 - 600 + 500 - 400) * 100 / 1000
  EXPECT_EQ(3000u, agent.getTotalMemSizeBytes());  // the sum of the running cycle
}

}  // namespace

TEST(AgentRecord, DefaultsOfANewAgent) {
  Agent agent;
  EXPECT_EQ(1, agent.getGUID());  // the first agent of the process
  EXPECT_EQ(L"", agent.getName());
  EXPECT_EQ(OpUnknown, agent.getOperatingState());
  EXPECT_EQ(Unmanaged, agent.getManagedState());
  EXPECT_EQ(0, agent.getDailyRestartCount());
  EXPECT_TRUE(agent.reportCountExceeded());
  EXPECT_TRUE(agent.reportRestartFailure());
  EXPECT_FALSE(agent.isCountExceeded());
  EXPECT_EQ(L"6.2.2.2", agent.getVersion());
  EXPECT_EQ(0, agent.getProcID());
  EXPECT_EQ(nullptr, agent.getPolicy());
  EXPECT_EQ(nullptr, agent.getWatchdog());
  EXPECT_EQ(0u, agent.getCheckMask());
  EXPECT_EQ(0u, agent.getHandleCount());
  EXPECT_EQ(0u, agent.getVMSize());
  time_t when = 77;
  EXPECT_FALSE(agent.getLastChecked(when));
  EXPECT_EQ(77, when);
  EXPECT_FALSE(agent.availCheckRetryEnabled());
  EXPECT_EQ(Unmanaged, agent.getSavedState());
  Agent second;
  EXPECT_EQ(2, second.getGUID());
}

TEST(AgentRecord, ShallowCopyHasNoWatchdogAndAPolicyOfItsOwn) {
  Agent* source = makeAgent();
  Watchdog* watchdog = new Watchdog();
  watchdog->setAgent(source);
  source->setWatchdog(watchdog);

  Agent* copy = new Agent(*source, true);
  EXPECT_EQ(nullptr, copy->getWatchdog());
  ASSERT_NE(nullptr, copy->getPolicy());
  EXPECT_NE(source->getPolicy(), copy->getPolicy());
  EXPECT_EQ(L"qa1", copy->getPolicy()->getSubagentID());
  EXPECT_EQ(source->getGUID(), copy->getGUID());
  EXPECT_EQ(4321, copy->getProcID());
  delete copy;

  // The source lives on, whole.
  EXPECT_EQ(watchdog, source->getWatchdog());
  EXPECT_EQ(L"qa1", source->getPolicy()->getSubagentID());
  EXPECT_EQ(source, watchdog->getAgent());
  delete source;
}

TEST(AgentRecord, DeepCopyGetsAWatchdogOfItsOwnWatchingTheCopy) {
  Agent* source = makeAgent();
  Watchdog* watchdog = new Watchdog();
  watchdog->setAgent(source);
  source->setWatchdog(watchdog);
  Agent* copy = new Agent(*source, false);
  ASSERT_NE(nullptr, copy->getWatchdog());
  EXPECT_NE(watchdog, copy->getWatchdog());
  EXPECT_EQ(copy, copy->getWatchdog()->getAgent());
  EXPECT_NE(source->getPolicy(), copy->getPolicy());
  delete copy;
  EXPECT_EQ(source, watchdog->getAgent());
  delete source;
}

TEST(AgentRecord, DeepCopyOfAnAgentWithoutWatchdogHasNone) {
  Agent* source = makeAgent();
  Agent copy(*source, false);
  EXPECT_EQ(nullptr, copy.getWatchdog());
  delete source;
}

TEST(AgentRecord, ShallowAndDeepCopiesKeepEveryField) {
  Agent* source = makeFullAgent();
  Watchdog* watchdog = new Watchdog();
  watchdog->setAgent(source);
  source->setWatchdog(watchdog);

  for (bool shallow : {true, false}) {
    SCOPED_TRACE(shallow ? "shallow" : "deep");
    Agent copy(*source, shallow);
    EXPECT_EQ(source->getGUID(), copy.getGUID());
    EXPECT_EQ(OpRunning, copy.getOperatingState());
    EXPECT_NE(source->getPolicy(), copy.getPolicy());
    if (shallow) {
      EXPECT_EQ(nullptr, copy.getWatchdog());
    } else {
      ASSERT_NE(nullptr, copy.getWatchdog());
      EXPECT_NE(watchdog, copy.getWatchdog());
      EXPECT_EQ(&copy, copy.getWatchdog()->getAgent());
    }
    expectFullProcessFigures(copy);
    expectFullRest(copy);
  }
  // What was done to the copies left the source as it was.
  expectFullProcessFigures(*source);
  expectFullRest(*source);
  delete source;
}

TEST(AgentRecord, StatesWithoutAProcessClearItsFiguresAndKeepEverythingElse) {
  for (OperatingStates state : {OpUnknown, OpNotFound, OpStopped, OpManuallyStopped}) {
    SCOPED_TRACE(state);
    Agent* agent = makeFullAgent();
    agent->setOperatingState(state);
    EXPECT_EQ(state, agent->getOperatingState());
    expectNoProcessFigures(*agent);
    expectFullRest(*agent);
    // The sample before went too: with intervals again, there is still no rate.
    agent->setTimeIntervalInSec(5);
    EXPECT_EQ(0u, agent->getKernelCPUPercent());
    EXPECT_EQ(0u, agent->getUserCPUPercent());
    EXPECT_EQ(0u, agent->getPageFaultsPerSec());
    delete agent;
  }
}

TEST(AgentRecord, StatesWithAProcessKeepEveryField) {
  for (OperatingStates state : {OpStarting, OpRunning, OpStopping, OpNotConfigured}) {
    SCOPED_TRACE(state);
    Agent* agent = makeFullAgent();
    agent->setOperatingState(state);
    EXPECT_EQ(state, agent->getOperatingState());
    expectFullProcessFigures(*agent);
    expectFullRest(*agent);
    delete agent;
  }
}

TEST(AgentRecord, CopyOfAnAgentWithoutPolicyHasNone) {
  Agent source;
  Agent copy(source, true);
  EXPECT_EQ(nullptr, copy.getPolicy());
}

TEST(AgentRecord, RunningKeepsTheProcessAndStoppedClearsIt) {
  Agent agent;
  giveFigures(agent);
  agent.addKernelCPU(500);
  agent.addMemSizeBytes(8192);
  agent.setOperatingState(OpRunning);
  EXPECT_EQ(1234, agent.getProcID());
  EXPECT_EQ(7u, agent.getThreadCount());

  agent.setOperatingState(OpStopped);
  EXPECT_EQ(OpStopped, agent.getOperatingState());
  EXPECT_EQ(0, agent.getProcID());
  EXPECT_EQ(0, agent.getParentProcID());
  EXPECT_EQ(0u, agent.getKernelCPUPercent());
  EXPECT_EQ(0u, agent.getUserCPUPercent());
  EXPECT_EQ(0u, agent.getPageFaultsPerSec());
  EXPECT_EQ(0u, agent.getThreadCount());
  EXPECT_EQ(0u, agent.getMemSizeBytes());
  EXPECT_EQ(0u, agent.getMemSizePages());
  EXPECT_EQ(0u, agent.getResidentSetSize());
  // The totals are left alone.
  agent.calculateTotalCounters();
  EXPECT_EQ(8192u, agent.getTotalMemSizeBytes());
}

TEST(AgentRecord, EveryStateWithoutAProcessClearsIt) {
  for (OperatingStates state : {OpUnknown, OpNotFound, OpStopped, OpManuallyStopped}) {
    Agent agent;
    giveFigures(agent);
    agent.setOperatingState(state);
    EXPECT_EQ(0, agent.getProcID()) << state;
  }
  for (OperatingStates state : {OpStarting, OpRunning, OpStopping, OpNotConfigured}) {
    Agent agent;
    giveFigures(agent);
    agent.setOperatingState(state);
    EXPECT_EQ(1234, agent.getProcID()) << state;
  }
}

TEST(AgentRecord, PercentagesDivideByTheIntervalInWholeNumbers) {
  Agent agent;
  giveFigures(agent);
  agent.setTimeInterval(300);
  EXPECT_EQ(16u, agent.getKernelCPUPercent());  // 50 * 100 / 300
  EXPECT_EQ(6u, agent.getUserCPUPercent());     // 20 * 100 / 300
  EXPECT_EQ(22u, agent.getCPUPercent());        // each truncated by itself
  EXPECT_EQ(10u, agent.getPageFaultsPerSec());  // 100 / 10
}

TEST(AgentRecord, EveryPercentageIsZeroWhileTheIntervalIsZero) {
  Agent agent;
  giveFigures(agent);
  agent.setTimeInterval(0);
  agent.setTimeIntervalInSec(0);
  agent.addKernelCPU(1000);
  agent.calculateTotalCounters();
  EXPECT_EQ(0u, agent.getKernelCPUPercent());
  EXPECT_EQ(0u, agent.getUserCPUPercent());
  EXPECT_EQ(0u, agent.getCPUPercent());
  EXPECT_EQ(0u, agent.getPageFaultsPerSec());
  EXPECT_EQ(0u, agent.getTotalCPUPercent());
}

TEST(AgentRecord, TotalsOfProcessAndChildren) {
  Agent agent;
  giveFigures(agent);  // own figures: 50 + 20 over 100
  agent.addKernelCPU(30);
  agent.addUserCPU(20);
  agent.addMemSizeBytes(1000);
  agent.addMemSizeBytes(24);
  agent.calculateTotalCounters();
  EXPECT_EQ(50u, agent.getTotalCPUPercent());  // (30 + 20) * 100 / 100
  EXPECT_EQ(1024u, agent.getTotalMemSizeBytes());

  agent.resetTotalCounters();
  agent.addKernelCPU(40);
  agent.addUserCPU(30);
  agent.calculateTotalCounters();
  EXPECT_EQ(20u, agent.getTotalCPUPercent());      // (40 - 30 + 30 - 20) * 100 / 100
  EXPECT_EQ(4096u, agent.getTotalMemSizeBytes());  // no children's sum: the process's own
}

TEST(AgentRecord, TotalCpuFallsBackOnTheProcessWhenTheSumIsExactlyZero) {
  Agent agent;
  giveFigures(agent);
  agent.calculateTotalCounters();
  EXPECT_EQ(70u, agent.getTotalCPUPercent());
}

TEST(AgentRecord, MatchByInstanceProcessNameForOrdinaryTypes) {
  Agent agent;
  agent.setType(Console);
  agent.setInstanceProcName(L"/opt/app/bin/server");
  agent.setInstanceName(L"one");
  QorProcess process;
  process.setInstanceProcName(L"/opt/app/bin/server");
  process.setInstanceName(L"two");
  EXPECT_TRUE(agent.match(&process));
  process.setInstanceProcName(L"/opt/app/bin/other");
  process.setInstanceName(L"one");
  EXPECT_FALSE(agent.match(&process));
}

TEST(AgentRecord, MatchByInstanceNameForSuiteAgents) {
  Agent agent;
  agent.setType(ZEL_UNIX);
  agent.setInstanceProcName(L"/opt/app/bin/server");
  agent.setInstanceName(L"one");
  QorProcess process;
  process.setInstanceProcName(L"/opt/app/bin/server");
  process.setInstanceName(L"two");
  EXPECT_FALSE(agent.match(&process));
  process.setInstanceName(L"one");
  process.setInstanceProcName(L"elsewhere");
  EXPECT_TRUE(agent.match(&process));
  agent.setType(ZEL_Windows);
  EXPECT_TRUE(agent.match(&process));
}

TEST(AgentRecord, ResetOfTheReportLeavesTheFailureMessageDue) {
  Agent agent;
  agent.setDailyRestartCount(3);
  agent.resetReportCountExceeded();
  EXPECT_FALSE(agent.reportCountExceeded());
  EXPECT_TRUE(agent.isCountExceeded());
  EXPECT_TRUE(agent.reportRestartFailure());
  agent.resetReportRestartFailure();
  EXPECT_FALSE(agent.reportRestartFailure());

  agent.resetDailyRestartCount();
  EXPECT_EQ(0, agent.getDailyRestartCount());
  EXPECT_FALSE(agent.isCountExceeded());
  EXPECT_TRUE(agent.reportCountExceeded());
  EXPECT_TRUE(agent.reportRestartFailure());
}

TEST(AgentRecord, IdKeepsItsUtf8FormInStep) {
  Agent agent;
  agent.setID(L"caf\u00e9");
  EXPECT_EQ(L"caf\u00e9", agent.getID());
  EXPECT_EQ("caf\xc3\xa9", agent.getshortID());
  agent.setID(L"qb");
  EXPECT_EQ("qb", agent.getshortID());
}

TEST(AgentRecord, CheckTimeIsValidOnlyOnceSet) {
  Agent agent;
  agent.setCheckTime(1000);
  time_t when = 0;
  EXPECT_TRUE(agent.getLastChecked(when));
  EXPECT_EQ(1000, when);
  agent.resetChecked();
  when = 5;
  EXPECT_FALSE(agent.getLastChecked(when));
  EXPECT_EQ(5, when);
}

TEST(AgentRecord, InstanceHolderAndWatchdogAgent) {
  Agent agent;
  agent.setType(ZEL_UNIX);
  EXPECT_TRUE(agent.isZELInstanceHolder());
  agent.setInstanceName(L"inst");
  EXPECT_FALSE(agent.isZELInstanceHolder());
  agent.setInstanceName(L"");
  agent.setType(Console);
  EXPECT_FALSE(agent.isZELInstanceHolder());
  agent.setType(ZEL_Windows);
  EXPECT_TRUE(agent.isZELInstanceHolder());

  EXPECT_FALSE(agent.isWatchDogAgent());
  agent.setID(L"qorwd");
  EXPECT_TRUE(agent.isWatchDogAgent());
}

TEST(ProcessRecord, DefaultsAndFields) {
  QorProcess process;
  EXPECT_EQ(0, process.getProcID());
  EXPECT_EQ(L"", process.getCmdName());
  process.setProcID(12);
  process.setPath(L"/bin/sleep");
  process.setCmdLine(L"sleep 100");
  process.setServiceInstanceName(L"svc");
  EXPECT_EQ(12, process.getProcID());
  EXPECT_EQ(L"/bin/sleep", process.getPath());
  EXPECT_EQ(L"sleep 100", process.getCmdLine());
  EXPECT_EQ(L"svc", process.getServiceInstanceName());
  EXPECT_EQ(L"", process.getCmdName());
}
