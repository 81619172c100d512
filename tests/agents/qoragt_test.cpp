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
