#include "watchdog/qorinst.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmd.h"

namespace {

using Names = std::vector<std::wstring>;

// Commands of the suite's tool must end within the loop's second pass; one
// that sleeps 3 seconds has timed out.
void fastCommands() {
  MIN_CMD_TIMEOUT = 3;
  unsetenv("QOR_CMD_TIMEOUT");
}

// Records of processes, owned by the test.
struct Processes {
  std::vector<std::unique_ptr<QorProcess>> owned;
  std::vector<QorProcess*> list;

  QorProcess* add(int pid, const std::wstring& procName = L"agentd") {
    owned.emplace_back(new QorProcess());
    owned.back()->setProcID(pid);
    owned.back()->setInstanceProcName(procName);
    list.push_back(owned.back().get());
    return owned.back().get();
  }
};

// A line of the tool's running list: product, host, pid, kind, state, instance.
std::string runningLine(const std::string& code, int pid, const std::string& instance) {
  return code + " host " + std::to_string(pid) + " agent " + code + ".running " + instance + "\n";
}

}  // namespace

TEST(InstanceScripts, TheRunningInstancesCommandKeepsTheCodesRunningLines) {
  setenv("MARLOWHOME", "/opt/suite", 1);
  QorScript script;
  CreateVexinfRunningInstancesScript(L"qa", &script);
  EXPECT_EQ(
      L"/opt/suite/bin/vexinf -r | awk 'NR > 6' | grep -iw qa | grep \"\\.running\" 2>/dev/null | "
      L"awk {'print $3\" \"$6'}",
      script.getCommand());
  EXPECT_TRUE(script.isSuccessRC(0));
  EXPECT_EQ(L"", script.getSuccessRCMsg(0));
}

TEST(InstanceScripts, TheDatabaseVariantSplitsTheJoinedField) {
  setenv("MARLOWHOME", "/opt/suite", 1);
  QorScript script;
  CreateVexinfRunningInstancesScript(L"qe", &script);
  EXPECT_EQ(
      L"/opt/suite/bin/vexinf -r | awk 'NR > 6' | grep -iw qe | grep \"\\.running\" 2>/dev/null | "
      L"sed \"s/_/ /\" | awk '{print $3\" \"$7}'",
      script.getCommand());
}

TEST(InstanceScripts, TheConfiguredInstancesCommandPrintsTheSecondColumn) {
  setenv("MARLOWHOME", "/opt/suite", 1);
  QorScript script;
  CreateZELInstancesScript(L"qa", &script);
  EXPECT_EQ(L"/opt/suite/bin/vexinf -o qa 2>/dev/null | awk 'NR > 6' | grep -iw qa | awk {'print $2'}",
            script.getCommand());
  EXPECT_TRUE(script.isSuccessRC(0));
}

TEST(InstanceScripts, TheToolsRunningListBecomesPidAndInstanceLines) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("r", runningLine("qa", 4242, "db1") + runningLine("qb", 4343, "other") +
                        "qa host 4444 agent qa.stopped db3\n" + runningLine("QA", 4545, "db2"));
  Policy policy;
  CreateVexinfRunningInstancesScript(L"qa", policy.getVexinfRunningInstancesScript());
  EXPECT_EQ(L"4242 db1\n4545 db2\n", GetVexinfRunningInstances(&policy));
}

TEST(InstanceScripts, TheDatabaseVariantTakesTheInstanceBehindTheUnderscore) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("r", "qe host 555 agent qe.running SID_inst1\n");
  Policy policy;
  CreateVexinfRunningInstancesScript(L"qe", policy.getVexinfRunningInstancesScript());
  EXPECT_EQ(L"555 inst1\n", GetVexinfRunningInstances(&policy));
}

TEST(InstanceScripts, AFailingRunningListGivesNoOutput) {
  fastCommands();
  Policy policy;
  policy.getVexinfRunningInstancesScript()->setOriginalCommand(L"echo 1 db1; exit 2");
  EXPECT_EQ(L"", GetVexinfRunningInstances(&policy));
}

TEST(ConfiguredInstances, ALessThanLineMeansNotConfiguredAndEmptiesTheList) {
  fastCommands();
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  proctest::FakeSuite suite;
  suite.answer("o", "qa <none>\n");
  Policy policy;
  policy.addInstance(L"old1");
  policy.setProductCode(L"qa");
  EXPECT_EQ(Names(), policy.getInstances());
  EXPECT_TRUE(policy.hasDefaultZELInstance());
  EXPECT_EQ(Names{ZEL_AGENT_NOT_CONFIGURED}, GetZELInstances(&policy));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "No configured instances present for agent qa.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Deleting instance old1 for agent qa.\n"));
}

TEST(ConfiguredInstances, ATimeOutDeletesNothingAndStillSetsTheDefaultFlag) {
  fastCommands();
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  proctest::FakeSuite suite;
  suite.answer("o", "qa db9\n");
  suite.delay("o", 4);
  Policy policy;
  policy.addInstance(L"old1");
  policy.setProductCode(L"qa");
  EXPECT_EQ(Names{L"old1"}, policy.getInstances());
  EXPECT_TRUE(policy.hasDefaultZELInstance());
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Command timed out, pass back to calling routine"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Timeout in getting instances, check next cycle\n"));
}

TEST(ConfiguredInstances, NewNamesAreAddedAndNamesThatWentAreDeleted) {
  fastCommands();
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  proctest::FakeSuite suite;
  suite.answer("o", "qa db1\nqa db2\nqb elsewhere\n");
  Policy policy;
  policy.setProductCode(L"qa");
  EXPECT_EQ((Names{L"db1", L"db2"}), policy.getInstances());
  EXPECT_FALSE(policy.hasNewInstances());  // instances found with the code do not count as new

  suite.answer("o", "qa db2\nqa db3\n");
  policy.loadZELInstances();
  EXPECT_EQ((Names{L"db2", L"db3"}), policy.getInstances());
  EXPECT_TRUE(policy.hasNewInstances());
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Adding instance db3 for agent qa.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Deleting instance db1 for agent qa.\n"));
}

TEST(ConfiguredInstances, AnExceptionInstanceIsNotTakenBack) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("o", "qa db1\nqa db2\n");
  Policy owner;
  owner.setGeneric(false);
  owner.addInstance(L"db2");
  Policy generic;
  generic.addExceptionInstances(&owner);
  generic.setProductCode(L"qa");
  EXPECT_EQ(Names{L"db1"}, generic.getInstances());
}

TEST(ConfiguredInstances, AnEmptyAnswerEmptiesTheList) {
  fastCommands();
  proctest::FakeSuite suite;
  Policy policy;
  policy.addInstance(L"old1");
  policy.setProductCode(L"qa");
  EXPECT_EQ(Names(), policy.getInstances());
  EXPECT_FALSE(policy.hasDefaultZELInstance());
  EXPECT_EQ(1, suite.runs());
}

TEST(ConfiguredInstances, ANonGenericPolicyRunsNoTool) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("o", "qa db1\n");
  Policy policy;
  policy.setGeneric(false);
  policy.addInstance(L"mine");
  policy.setProductCode(L"qa");
  EXPECT_EQ(Names{L"mine"}, policy.getInstances());
  EXPECT_EQ(0, suite.runs());
  EXPECT_FALSE(policy.hasDefaultZELInstance());
}

TEST(ConfiguredInstances, ALastNameWithoutALineFeedIsLost) {
  fastCommands();
  Policy policy;
  policy.getZELInstancesScript()->setOriginalCommand(L"printf 'db1\\n<nothing>\\ndb3'");
  EXPECT_EQ((Names{L"db1", ZEL_AGENT_NOT_CONFIGURED}), GetZELInstances(&policy));
}

TEST(RunningInstances, AnOutputWithoutALastLineFeedKeepsItsLastName) {
  Processes processes;
  processes.add(101);
  processes.add(102);
  EXPECT_TRUE(ParseVexinfOutput(L"101 db1\n102 db2", processes.list));
  EXPECT_EQ(L"db1", processes.owned[0]->getInstanceName());
  EXPECT_EQ(L"db2", processes.owned[1]->getInstanceName());
}

TEST(RunningInstances, ProcessTwelveAlsoFindsTheLineOfProcess123) {
  Processes processes;
  processes.add(12);
  processes.add(123);
  EXPECT_TRUE(ParseVexinfOutput(L"123 inst\n", processes.list));
  ASSERT_EQ(2u, processes.list.size());
  EXPECT_EQ(L"inst", processes.owned[0]->getInstanceName());
  EXPECT_EQ(L"inst", processes.owned[1]->getInstanceName());
}

TEST(RunningInstances, AnUnknownProcessIsDroppedButNotFreed) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  Processes processes;
  processes.add(101, L"agentd");
  processes.add(777, L"strayd");
  EXPECT_TRUE(ParseVexinfOutput(L"101 db1\n", processes.list));
  EXPECT_EQ(std::vector<QorProcess*>{processes.owned[0].get()}, processes.list);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "skipping unknown process strayd (777).\n"));
}

TEST(RunningInstances, EmptyOutputNamesNothing) {
  Processes processes;
  processes.add(101);
  EXPECT_FALSE(ParseVexinfOutput(L"", processes.list));
  EXPECT_EQ(1u, processes.list.size());
}

TEST(RunningInstances, AProcessWithPidZeroIsNamedEmptyAndTheAnswerIsFalse) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("r", runningLine("qa", 4242, "db1"));
  Policy policy;
  CreateVexinfRunningInstancesScript(L"qa", policy.getVexinfRunningInstancesScript());
  Processes processes;
  QorProcess* zero = processes.add(0);
  zero->setInstanceName(L"stale");
  processes.add(4242);
  EXPECT_FALSE(GetInstanceNames(&policy, processes.list));
  ASSERT_EQ(2u, processes.list.size());
  EXPECT_EQ(L"", processes.owned[0]->getInstanceName());
  EXPECT_EQ(L"db1", processes.owned[1]->getInstanceName());
}

TEST(RunningInstances, NoAnswerFromTheToolNamesEveryProcessEmpty) {
  fastCommands();
  proctest::FakeSuite suite;
  Policy policy;
  CreateVexinfRunningInstancesScript(L"qa", policy.getVexinfRunningInstancesScript());
  Processes processes;
  processes.add(4242)->setInstanceName(L"stale");
  EXPECT_FALSE(GetInstanceNames(&policy, processes.list));
  ASSERT_EQ(1u, processes.list.size());
  EXPECT_EQ(L"", processes.owned[0]->getInstanceName());
}

TEST(RunningInstances, APolicyThatNamesItsInstancesKeepsOnlyThose) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("r", runningLine("qa", 4242, "db1") + runningLine("qa", 4343, "db2"));
  Policy policy;
  policy.setGeneric(false);
  policy.addInstance(L"db2");
  CreateVexinfRunningInstancesScript(L"qa", policy.getVexinfRunningInstancesScript());
  Processes processes;
  processes.add(4242);
  processes.add(4343);
  EXPECT_TRUE(GetInstanceNames(&policy, processes.list));
  EXPECT_EQ(std::vector<QorProcess*>{processes.owned[1].get()}, processes.list);
}

TEST(RunningInstances, AGenericConsolePolicyLeavesInstancesThatAnotherPolicyNamesToIt) {
  Policy owner;
  owner.setGeneric(false);
  owner.addInstance(L"db2");
  Policy policy;
  policy.setAgentTypeElement(Console);
  policy.addExceptionInstances(&owner);
  Processes processes;
  processes.add(1)->setInstanceName(L"db1");
  processes.add(2)->setInstanceName(L"db2");
  EXPECT_TRUE(GetInstanceNames(&policy, processes.list));
  EXPECT_EQ(std::vector<QorProcess*>{processes.owned[0].get()}, processes.list);
}

TEST(RunningInstances, AnInstanceTheToolDoesNotKnowCostsTwoFetchesEachTime) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("r", runningLine("qa", 4242, "db1"));
  Policy policy;
  CreateVexinfRunningInstancesScript(L"qa", policy.getVexinfRunningInstancesScript());
  EXPECT_EQ(L"", GetZELInstanceName(&policy, 999));
  EXPECT_EQ(2, suite.runs());
  EXPECT_EQ(L"", GetZELInstanceName(&policy, 999));
  EXPECT_EQ(4, suite.runs());
  // The cache now holds the last answer: a known process costs nothing.
  EXPECT_EQ(L"db1", GetZELInstanceName(&policy, 4242));
  EXPECT_EQ(4, suite.runs());
}

TEST(ServiceInstances, AServiceAgentWithOneProcessAndNoServiceNameKeepsIt) {
  Policy policy;
  policy.setAgentTypeElement(LnxService);
  Processes processes;
  processes.add(10)->setServiceInstanceName(L"stale");
  EXPECT_FALSE(GetInstanceNames(&policy, processes.list));
  ASSERT_EQ(1u, processes.list.size());
  EXPECT_EQ(L"", processes.owned[0]->getServiceInstanceName());
}

TEST(ServiceInstances, AServiceAgentWithTwoProcessesAndNoServiceNameDropsBoth) {
  Policy policy;
  policy.setAgentTypeElement(LnxService);
  Processes processes;
  processes.add(10);
  processes.add(11);
  EXPECT_TRUE(GetInstanceNames(&policy, processes.list));
  EXPECT_TRUE(processes.list.empty());
}

TEST(ServiceInstances, EachProcessIsNamedAfterTheService) {
  Policy policy;
  policy.setAgentTypeElement(UnixDaemon);
  policy.setServiceName(L"httpd");
  Processes processes;
  processes.add(10);
  processes.add(11);
  EXPECT_TRUE(GetInstanceNames(&policy, processes.list));
  ASSERT_EQ(2u, processes.list.size());
  EXPECT_EQ(L"httpd", processes.owned[0]->getServiceInstanceName());
  EXPECT_EQ(L"httpd", processes.owned[1]->getServiceInstanceName());
  EXPECT_EQ(L"httpd", GetServiceInstanceName(&policy, L"ignored"));
}
