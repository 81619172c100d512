#include "cap/qorpol.h"

#include <gtest/gtest.h>
#include <unicode/regex.h>

#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/qorunx.h"

// Reaches the fields that no setter writes, so that a copy can be given a
// source whose fields differ the way a running service makes them differ.
class PolicyTestAccess {
 public:
  static void setAgentPath(Policy& policy, const std::wstring& path) { policy.agentPath = path; }
  static void setAgentPort(Policy& policy, int port) { policy.agentPort = port; }
  static void setDefaultZELInstance(Policy& policy) { policy.defaultZELInstance = true; }
};

namespace {

using Names = std::vector<std::wstring>;

// A policy is filled in place: returning one by value would go through the
// copy constructor, which is not a plain copy.
void makeSpecific(Policy& policy, const std::wstring& agentName, const Names& instances) {
  policy.setAgentNameElement(agentName);
  policy.setGeneric(false);
  for (const std::wstring& name : instances) policy.addInstance(name);
}

icu::RegexMatcher* compile(const char* pattern, uint32_t flags = 0) {
  UErrorCode status = U_ZERO_ERROR;
  icu::RegexMatcher* matcher = new icu::RegexMatcher(icu::UnicodeString(pattern), flags, status);
  EXPECT_FALSE(U_FAILURE(status)) << u_errorName(status);
  return matcher;
}

}  // namespace

TEST(PolicyRecord, EnumerationsKeepTheirNumbers) {
  EXPECT_EQ(0, ZEL_UNIX);
  EXPECT_EQ(1, Console);
  EXPECT_EQ(2, WinService);
  EXPECT_EQ(3, DiscoverZEL);
  EXPECT_EQ(4, DiscoverBIN);
  EXPECT_EQ(5, LnxService);
  EXPECT_EQ(6, UnixDaemon);
  EXPECT_EQ(7, ZEL_Windows);
  EXPECT_EQ(0, NotManaged);
  EXPECT_EQ(1, TeoServices);
  EXPECT_EQ(2, WatchDog);
  EXPECT_EQ(3, External);
  EXPECT_EQ(0, PlatformUnset);
  EXPECT_EQ(1, PlatformWindows);
  EXPECT_EQ(2, PlatformLinux);
  EXPECT_EQ(3, PlatformUnix);
  EXPECT_EQ(0, MEM_BYTES);
  EXPECT_EQ(10, MEM_KB);
  EXPECT_EQ(20, MEM_MB);
  EXPECT_EQ(30, MEM_GB);
}

TEST(PolicyRecord, AgentTypeTextsStopBeforeTheWindowsSuiteType) {
  EXPECT_EQ(7, AGENT_TYPE_STRING_COUNT);
  EXPECT_STREQ("ZEL UNIX", AgentTypeString[ZEL_UNIX]);
  EXPECT_STREQ("Console", AgentTypeString[Console]);
  EXPECT_STREQ("Windows Service", AgentTypeString[WinService]);
  EXPECT_STREQ("Discover ZEL", AgentTypeString[DiscoverZEL]);
  EXPECT_STREQ("Discover Binary", AgentTypeString[DiscoverBIN]);
  EXPECT_STREQ("Linux Service", AgentTypeString[LnxService]);
  EXPECT_STREQ("Unix Daemon", AgentTypeString[UnixDaemon]);
}

TEST(PolicyRecord, SentinelTextsStandForNoInstanceAndNoAnswer) {
  EXPECT_EQ(L"<not configured>", ZEL_AGENT_NOT_CONFIGURED);
  EXPECT_EQ(L"<command timed out>", QOR_CMD_TIMEOUT_STRING);
}

TEST(PolicyRecord, NewPolicyHoldsTheDefaults) {
  Policy policy;
  EXPECT_EQ(L"", policy.getSubagentID());
  EXPECT_EQ("", policy.getShortSID());
  EXPECT_EQ(0, policy.getCPUThreshold());
  EXPECT_EQ(0, policy.getMemoryThresholdValue());
  EXPECT_EQ(MEM_BYTES, policy.getMemoryThresholdUnit());
  EXPECT_EQ(0, policy.getMaxRestartElement());
  EXPECT_EQ(NotManaged, policy.getManagerTypeElement());
  EXPECT_EQ(0, policy.getAgentPort());
  EXPECT_EQ(0, policy.getCheckFrequencyElement());
  EXPECT_FALSE(policy.getProcRegEx());
  EXPECT_EQ(nullptr, policy.getRegexMatcher());
  EXPECT_EQ(PlatformUnset, policy.getOsTypeAsEnum());
  EXPECT_TRUE(policy.getStartScript()->empty());
  EXPECT_TRUE(policy.getStartScript()->emptyRCs());
  EXPECT_TRUE(policy.getInstances().empty());
  EXPECT_FALSE(policy.hasNewInstances());
  EXPECT_FALSE(policy.hasDefaultZELInstance());
  EXPECT_TRUE(policy.isGeneric());
}

TEST(PolicyRecord, SubagentIdIsKeptInBothForms) {
  Policy policy;
  policy.setSubagentID(L"demo.agent");
  EXPECT_EQ(L"demo.agent", policy.getSubagentID());
  EXPECT_EQ("demo.agent", policy.getShortSID());
}

TEST(PolicyRecord, PathIsKeptAsWrittenAndExpanded) {
  Policy policy;
  policy.setAgentPathElement(L"$QOR_EXAMPLES/bin");
  EXPECT_EQ(L"$QOR_EXAMPLES/bin", policy.getAgentPathElement());
  EXPECT_EQ(ReplaceEnvVariables(L"$QOR_EXAMPLES/bin"), policy.getAgentPath());
}

TEST(PolicyRecord, SpecificPolicyNamesItsInstancesAfterTheAgentName) {
  Policy policy;
  makeSpecific(policy, L"X", {L"a", L"b"});
  EXPECT_EQ(L"X: a, b", policy.buildAgentName());
}

TEST(PolicyRecord, SpecificPolicyWithoutInstancesKeepsColonAndBlank) {
  Policy policy;
  makeSpecific(policy, L"X", {});
  EXPECT_EQ(L"X: ", policy.buildAgentName());
}

TEST(PolicyRecord, GenericPolicyIsNamedByItsAgentNameAlone) {
  Policy policy;
  policy.setAgentNameElement(L"X");
  policy.addInstance(L"a");
  policy.addInstance(L"b");
  ASSERT_TRUE(policy.isGeneric());
  EXPECT_EQ(L"X", policy.buildAgentName());
}

TEST(PolicyRecord, AddingAnInstanceMarksItNewAndTracesIt) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  Policy policy;
  policy.setProductCode(L"xy");
  ASSERT_FALSE(policy.hasNewInstances());
  policy.addInstance(L"inst1");
  EXPECT_TRUE(policy.hasNewInstances());
  EXPECT_TRUE(policy.isInstance(L"inst1"));
  EXPECT_EQ(Names({L"inst1"}), policy.getInstances());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Adding instance inst1 for agent xy.\n"));
}

TEST(PolicyRecord, AddingPresentInstanceLeavesNewFlagUnchanged) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  Policy policy;
  policy.addInstance(L"a");
  policy.newInstancesProcessed();
  ASSERT_FALSE(policy.hasNewInstances());
  policy.addInstance(L"a");
  EXPECT_FALSE(policy.hasNewInstances());
  EXPECT_EQ(Names({L"a"}), policy.getInstances());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "Adding instance a "));
}

TEST(PolicyRecord, SecondSuccessCodeKeepsTheFirstMessage) {
  QorScript script;
  script.addSuccessRC(0, L"first");
  script.addSuccessRC(0, L"second");
  EXPECT_TRUE(script.isSuccessRC(0));
  EXPECT_EQ(L"first", script.getSuccessRCMsg(0));
  EXPECT_FALSE(script.emptyRCs());
}

TEST(PolicyRecord, SecondErrorCodeKeepsTheFirstMessage) {
  QorScript script;
  script.addErrorRC(3, L"first");
  script.addErrorRC(3, L"second");
  EXPECT_TRUE(script.isErrorRC(3));
  EXPECT_FALSE(script.isSuccessRC(3));
  EXPECT_EQ(L"first", script.getErrorRCMsg(3));
}

TEST(PolicyRecord, AbsentReturnCodeHasAnEmptyMessage) {
  QorScript script;
  script.addSuccessRC(0, L"ok");
  EXPECT_EQ(L"", script.getSuccessRCMsg(1));
  EXPECT_EQ(L"", script.getErrorRCMsg(0));
  EXPECT_FALSE(script.isErrorRC(0));
}

TEST(PolicyRecord, ScriptKnowsStartAndStopCommands) {
  QorScript start;
  start.setIsStartCommand();
  EXPECT_TRUE(start.isStartCommand());
  EXPECT_FALSE(start.isStopCommand());
  QorScript stop;
  stop.setIsStopCommand();
  EXPECT_TRUE(stop.isStopCommand());
  EXPECT_FALSE(stop.isStartCommand());
  QorScript plain;
  EXPECT_FALSE(plain.isStartCommand());
  EXPECT_FALSE(plain.isStopCommand());
}

TEST(PolicyRecord, ScriptKeepsCommandAsWrittenAndExpanded) {
  QorScript script;
  EXPECT_TRUE(script.empty());
  script.setOriginalCommand(L"$HOME/start.sh");
  EXPECT_FALSE(script.empty());
  EXPECT_EQ(L"$HOME/start.sh", script.getOriginalCommand());
  EXPECT_EQ(ReplaceEnvVariables(L"$HOME/start.sh"), script.getCommand());
}

TEST(PolicyRecord, CommandGettersGiveTheTextAsWritten) {
  Policy policy;
  policy.getStartScript()->setOriginalCommand(L"start");
  policy.getStopScript()->setOriginalCommand(L"stop");
  policy.getAvailabilityStatusScript()->setOriginalCommand(L"status");
  policy.getConfigScript()->setOriginalCommand(L"config");
  EXPECT_EQ(L"start", policy.getStartCommand());
  EXPECT_EQ(L"stop", policy.getStopCommand());
  EXPECT_EQ(L"status", policy.getAvailabilityStatusCommand());
  EXPECT_EQ(L"config", policy.getConfigCommand());
}

TEST(PolicyRecord, MemoryThresholdOfTwoMegabytesIsGivenInBytes) {
  Policy policy;
  policy.setMemoryThreshold(2, MEM_MB);
  EXPECT_EQ(2097152.0, policy.getMemoryThreshold());
}

TEST(PolicyRecord, MemoryThresholdOfZeroIsZeroBytes) {
  Policy policy;
  policy.setMemoryThreshold(0, MEM_GB);
  EXPECT_EQ(0.0, policy.getMemoryThreshold());
  policy.setMemoryThreshold(100, MEM_BYTES);
  EXPECT_EQ(100.0, policy.getMemoryThreshold());
  policy.setMemoryThreshold(3, MEM_KB);
  EXPECT_EQ(3072.0, policy.getMemoryThreshold());
}

TEST(PolicyRecord, ProductCodeOnSpecificPolicyLoadsNoInstances) {
  Policy policy;
  makeSpecific(policy, L"X", {L"a"});
  ASSERT_TRUE(policy.hasNewInstances());
  policy.setProductCode(L"xy");
  EXPECT_EQ(L"xy", policy.getProductCode());
  EXPECT_EQ(Names({L"a"}), policy.getInstances());
  EXPECT_FALSE(policy.hasDefaultZELInstance());
  // Instances known when the product code is set never count as new.
  EXPECT_FALSE(policy.hasNewInstances());
}

TEST(PolicyRecord, WindowsServiceKeepsItsInstancesButTracesThatTheyAreIgnored) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  Policy policy;
  makeSpecific(policy, L"X", {L"a"});
  policy.setSubagentID(L"win.agent");
  policy.setAgentTypeElement(WinService);
  EXPECT_EQ(WinService, policy.getAgentTypeElement());
  EXPECT_EQ(Names({L"a"}), policy.getInstances());
  EXPECT_EQ(1, qortest::countOccurrences(
                   qortest::readFile(dir.file("trace")),
                   "Specific instances defined for Windows Service agent win.agent will be ignored.\n"));
}

TEST(PolicyRecord, WindowsServiceWithoutInstancesTracesNothing) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  Policy policy;
  policy.setSubagentID(L"win.agent");
  policy.setAgentTypeElement(WinService);
  Policy console;
  makeSpecific(console, L"X", {L"a"});
  console.setAgentTypeElement(Console);
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "will be ignored"));
}

TEST(PolicyRecord, SuiteGroupIsTheTwoSuiteTypes) {
  Policy policy;
  for (AgentType type :
       {ZEL_UNIX, Console, WinService, DiscoverZEL, DiscoverBIN, LnxService, UnixDaemon, ZEL_Windows}) {
    policy.setAgentTypeElement(type);
    EXPECT_EQ(type == ZEL_UNIX || type == ZEL_Windows, policy.isZELAgent()) << type;
    EXPECT_EQ(type == Console, policy.isConsole()) << type;
  }
}

TEST(PolicyRecord, SuiteAgentWithoutInstancesIsNotConfigured) {
  Policy policy;
  policy.setAgentTypeElement(ZEL_UNIX);
  EXPECT_TRUE(policy.isZELAgentNotConfigured());
  policy.addInstance(L"a");
  EXPECT_FALSE(policy.isZELAgentNotConfigured());
  Policy console;
  console.setAgentTypeElement(Console);
  EXPECT_FALSE(console.isZELAgentNotConfigured());
}

TEST(PolicyRecord, DependentAgentsKeepFileOrderAndMatchExactly) {
  Policy policy;
  policy.setDependentAgent(L"b");
  policy.setDependentAgent(L"a");
  EXPECT_EQ(Names({L"b", L"a"}), policy.getDependentAgents());
  EXPECT_TRUE(policy.isDependentAgent(L"a"));
  EXPECT_FALSE(policy.isDependentAgent(L"A"));
  EXPECT_FALSE(policy.isDependentAgent(L"a "));
}

TEST(PolicyRecord, SpecificInstancesMoveToTheExceptionListOfTheGenericPolicy) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  Policy generic;
  generic.setSubagentID(L"gen");
  generic.addInstance(L"a");
  generic.addInstance(L"c");
  Policy specific;
  makeSpecific(specific, L"X", {L"a", L"b"});
  generic.addExceptionInstances(&specific);
  EXPECT_EQ(Names({L"c"}), generic.getInstances());
  EXPECT_TRUE(generic.isExceptionInstance(L"a"));
  EXPECT_TRUE(generic.isExceptionInstance(L"b"));
  EXPECT_FALSE(generic.isExceptionInstance(L"c"));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Removing instance a from agent gen.\n"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Removing instance b"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Adding instance a to exception list of agent gen.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Adding instance b to exception list of agent gen.\n"));
}

TEST(PolicyRecord, RemovingExceptionsTakesOneOccurrenceAndDoesNotRestoreInstances) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  Policy generic;
  generic.setSubagentID(L"gen");
  generic.addInstance(L"a");
  Policy specific;
  makeSpecific(specific, L"X", {L"a"});
  generic.addExceptionInstances(&specific);
  generic.addExceptionInstances(&specific);
  generic.removeExceptionInstances(&specific);
  // The name stood in the list twice; one removal leaves the second.
  EXPECT_TRUE(generic.isExceptionInstance(L"a"));
  generic.removeExceptionInstances(&specific);
  EXPECT_FALSE(generic.isExceptionInstance(L"a"));
  EXPECT_FALSE(generic.isInstance(L"a"));
  generic.removeExceptionInstances(&specific);
  EXPECT_EQ(2, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Removing exception instance a from agent gen.\n"));
}

TEST(PolicyRecord, CopyTakesTheExpandedPathIntoBothPathFields) {
  Policy source;
  source.setAgentPathElement(L"$QOR_EXAMPLES/bin/agent");
  // What the expansion makes of the variable on a configured host.
  PolicyTestAccess::setAgentPath(source, L"/opt/examples/bin/agent");
  Policy copy(source);
  EXPECT_EQ(L"/opt/examples/bin/agent", copy.getAgentPath());
  EXPECT_EQ(L"/opt/examples/bin/agent", copy.getAgentPathElement());
  EXPECT_EQ(L"$QOR_EXAMPLES/bin/agent", source.getAgentPathElement());
}

TEST(PolicyRecord, CopyOfPathWithVariableHasTheExpansionInBothFields) {
  Policy source;
  source.setAgentPathElement(L"$HOME/agent");
  Policy copy(source);
  EXPECT_EQ(ReplaceEnvVariables(L"$HOME/agent"), copy.getAgentPathElement());
  EXPECT_EQ(copy.getAgentPath(), copy.getAgentPathElement());
}

TEST(PolicyRecord, CopyOfGenericPolicyForgetsItsExceptionInstances) {
  Policy generic;
  generic.addInstance(L"a");
  generic.addInstance(L"c");
  Policy specific;
  makeSpecific(specific, L"X", {L"a"});
  generic.addExceptionInstances(&specific);
  ASSERT_TRUE(generic.isExceptionInstance(L"a"));
  Policy copy(generic);
  EXPECT_FALSE(copy.isExceptionInstance(L"a"));
  EXPECT_EQ(Names({L"c"}), copy.getInstances());
  EXPECT_TRUE(generic.isExceptionInstance(L"a"));
}

TEST(PolicyRecord, CopyDoesNotCarryThePort) {
  Policy source;
  PolicyTestAccess::setAgentPort(source, 8080);
  ASSERT_EQ(8080, source.getAgentPort());
  Policy copy(source);
  EXPECT_EQ(0, copy.getAgentPort());
}

TEST(PolicyRecord, CopyCompilesARegularExpressionOfItsOwn) {
  Policy source;
  source.setRegexMatcher(compile("sleep [0-9]+"));
  Policy copy(source);
  ASSERT_NE(nullptr, copy.getRegexMatcher());
  EXPECT_NE(source.getRegexMatcher(), copy.getRegexMatcher());
  EXPECT_EQ(source.getRegexMatcher()->pattern().pattern(), copy.getRegexMatcher()->pattern().pattern());
  EXPECT_EQ(0u, copy.getRegexMatcher()->pattern().flags());
  // The matcher keeps a reference to its input, which must outlive the search.
  icu::UnicodeString input("/bin/sleep 30");
  copy.getRegexMatcher()->reset(input);
  UErrorCode status = U_ZERO_ERROR;
  EXPECT_TRUE(copy.getRegexMatcher()->find(status));
}

TEST(PolicyRecord, CopyWhosePatternNoLongerCompilesHasNoMatcher) {
  Policy source;
  // Compiles only as a literal; without flags it is no valid expression.
  source.setRegexMatcher(compile("(", UREGEX_LITERAL));
  Policy copy(source);
  EXPECT_EQ(nullptr, copy.getRegexMatcher());
  EXPECT_NE(nullptr, source.getRegexMatcher());
}

TEST(PolicyRecord, CopyKeepsEveryOtherField) {
  Policy source;
  source.setSubagentID(L"id");
  source.setCAPFileName(L"/tmp/a.xml");
  source.setCAPFileModifyTimestamp(1234);
  source.setCPUThreshold(50);
  source.setMemoryThreshold(3, MEM_KB);
  source.setMaxRestartElement(4);
  source.setManagerTypeElement(TeoServices);
  source.setAgentNameElement(L"Name");
  source.setAgentTypeElement(UnixDaemon);
  source.setCheckFrequencyElement(15);
  source.setServiceName(L"svc");
  source.setProcName(L"proc");
  source.setCommandLine(L"proc -x");
  source.setProcRegEx(true);
  source.setDependentAgent(L"dep");
  source.setProductCode(L"xy");
  source.setOsTypeAsEnum(PlatformLinux);
  source.setOsVersion(L"v");
  source.setOsName(L"Linux");
  source.setKernelRelease(L"6.1");
  source.setGeneric(false);
  source.addInstance(L"i1");
  PolicyTestAccess::setDefaultZELInstance(source);
  source.getStartScript()->setOriginalCommand(L"start");
  source.getStartScript()->setIsStartCommand();
  source.getStartScript()->addSuccessRC(0, L"ok");
  source.getStopScript()->setOriginalCommand(L"stop");
  source.getAvailabilityStatusScript()->addErrorRC(2, L"down");
  source.getConfigScript()->setOriginalCommand(L"config");
  source.getAgentVersionScript()->setOriginalCommand(L"version");
  source.getAgentBuildNumberScript()->setOriginalCommand(L"build");
  source.getVexinfRunningInstancesScript()->setOriginalCommand(L"running");
  source.getZELInstancesScript()->setOriginalCommand(L"configured");

  Policy copy(source);
  EXPECT_EQ(L"id", copy.getSubagentID());
  EXPECT_EQ("id", copy.getShortSID());
  EXPECT_EQ(L"/tmp/a.xml", copy.getCAPFileName());
  EXPECT_EQ(1234, copy.getCAPFileModifyTimestamp());
  EXPECT_EQ(50, copy.getCPUThreshold());
  EXPECT_EQ(3, copy.getMemoryThresholdValue());
  EXPECT_EQ(MEM_KB, copy.getMemoryThresholdUnit());
  EXPECT_EQ(4, copy.getMaxRestartElement());
  EXPECT_EQ(TeoServices, copy.getManagerTypeElement());
  EXPECT_EQ(L"Name", copy.getAgentNameElement());
  EXPECT_EQ(UnixDaemon, copy.getAgentTypeElement());
  EXPECT_EQ(15, copy.getCheckFrequencyElement());
  EXPECT_EQ(L"svc", copy.getServiceName());
  EXPECT_EQ(L"proc", copy.getProcName());
  EXPECT_EQ(L"proc -x", copy.getCommandLine());
  EXPECT_TRUE(copy.getProcRegEx());
  EXPECT_EQ(nullptr, copy.getRegexMatcher());
  EXPECT_EQ(Names({L"dep"}), copy.getDependentAgents());
  EXPECT_EQ(L"xy", copy.getProductCode());
  EXPECT_EQ(PlatformLinux, copy.getOsTypeAsEnum());
  EXPECT_EQ(L"v", copy.getOsVersion());
  EXPECT_EQ(L"Linux", copy.getOsName());
  EXPECT_EQ(L"6.1", copy.getKernelRelease());
  EXPECT_FALSE(copy.isGeneric());
  EXPECT_EQ(Names({L"i1"}), copy.getInstances());
  EXPECT_TRUE(copy.hasNewInstances());
  EXPECT_TRUE(copy.hasDefaultZELInstance());
  EXPECT_EQ(L"start", copy.getStartCommand());
  EXPECT_TRUE(copy.getStartScript()->isStartCommand());
  EXPECT_EQ(L"ok", copy.getStartScript()->getSuccessRCMsg(0));
  EXPECT_EQ(L"stop", copy.getStopCommand());
  EXPECT_EQ(L"down", copy.getAvailabilityStatusScript()->getErrorRCMsg(2));
  EXPECT_EQ(L"config", copy.getConfigCommand());
  EXPECT_EQ(L"version", copy.getAgentVersionScript()->getOriginalCommand());
  EXPECT_EQ(L"build", copy.getAgentBuildNumberScript()->getOriginalCommand());
  EXPECT_EQ(L"running", copy.getVexinfRunningInstancesScript()->getOriginalCommand());
  EXPECT_EQ(L"configured", copy.getZELInstancesScript()->getOriginalCommand());
  EXPECT_NE(source.getStartScript(), copy.getStartScript());
}

TEST(PolicyRecord, NewMatcherReplacesTheOneHeldBefore) {
  Policy policy;
  policy.setRegexMatcher(compile("a"));
  icu::RegexMatcher* second = compile("b");
  policy.setRegexMatcher(second);
  EXPECT_EQ(second, policy.getRegexMatcher());
  policy.setRegexMatcher(second);
  EXPECT_EQ(second, policy.getRegexMatcher());
}
