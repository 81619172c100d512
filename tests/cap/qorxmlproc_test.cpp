#include "cap/qorxmlproc.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unicode/regex.h>

#include "capfiles.h"
#include "core/qorctrl.h"
#include "platform/log1.h"
#include "support/qortest.h"

namespace {

using Names = std::vector<std::wstring>;

class CapFileProcessor : public ::testing::Test {
 protected:
  CapFileProcessor() { qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL | QOR_TL_ERROR); }

  int parse(const std::string& content) { return captest::parseText(processor, dir, content, policy); }
  int parse(const captest::Subagent& subagent) { return parse(captest::document(subagent)); }
  std::string trace() { return qortest::readFile(dir.file("trace")); }
  std::wstring path() const { return captest::wide(dir.file("agent.xml")); }

  qortest::TempDir dir;
  XMLprocessor processor;
  Policy policy;
  captest::Subagent agent;
};

TEST_F(CapFileProcessor, MinimalSubagentFillsThePolicy) {
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"test.agent", policy.getSubagentID());
  EXPECT_EQ("test.agent", policy.getShortSID());
  EXPECT_EQ(L"Test agent", policy.getAgentNameElement());
  EXPECT_EQ(Console, policy.getAgentTypeElement());
  EXPECT_EQ(L"/usr/bin", policy.getAgentPathElement());
  EXPECT_EQ(L"/usr/bin", policy.getAgentPath());
  EXPECT_EQ(PlatformLinux, policy.getOsTypeAsEnum());
  EXPECT_EQ(TeoServices, policy.getManagerTypeElement());
  EXPECT_EQ(3, policy.getMaxRestartElement());
  EXPECT_TRUE(policy.isGeneric());
  EXPECT_EQ(0, policy.getCheckFrequencyElement());
  EXPECT_EQ(0, policy.getCPUThreshold());
  EXPECT_EQ(0.0, policy.getMemoryThreshold());
  EXPECT_TRUE(policy.getStartScript()->empty());
  EXPECT_EQ(path(), policy.getCAPFileName());
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "XMLprocessor::parse:Found a subagent match with id test.agent in file " +
                                dir.file("agent.xml") + "."));
}

TEST_F(CapFileProcessor, FileTimeBecomesTheModifyTimestamp) {
  captest::parseText(processor, dir, captest::document(agent), policy);
  struct stat status;
  ASSERT_EQ(0, stat(dir.file("agent.xml").c_str(), &status));
  EXPECT_EQ(static_cast<long>(status.st_mtime), policy.getCAPFileModifyTimestamp());
}

TEST_F(CapFileProcessor, EveryElementReachesItsField) {
  agent.instance = "<instance><name>one</name><name>two</name></instance>";
  agent.productCode = "<productCode>xy</productCode>";
  agent.agentType = "<agentType>UnixDaemon</agentType>";
  agent.agentVersionScript = captest::script("agentVersionScript", "version.sh");
  agent.agentBuildNumberScript = captest::script("agentBuildNumberScript", "build.sh");
  agent.serviceName = "<serviceName>svc</serviceName>";
  agent.platform = "<platform xsi:type=\"PlatformLinux\"><name>Linux</name></platform>";
  agent.checkFrequency = "<checkFrequency>60</checkFrequency>";
  agent.cpuThreshold = "<cpuThreshold>80</cpuThreshold>";
  agent.memoryThreshold = "<memoryThreshold>2 MB</memoryThreshold>";
  agent.dependentAgent = "<dependentAgent>b</dependentAgent><dependentAgent>a</dependentAgent>";
  agent.managerType = "<managerType>WatchDog</managerType>";
  agent.maxRestarts = "<maxRestarts>0</maxRestarts>";
  agent.startScript = captest::script("startScript", "start.sh",
                                      "<returnCode type=\"OK\" msg_id=\"started\">0</returnCode>"
                                      "<returnCode type=\"Error\" msg_id=\"failed\">2</returnCode>");
  agent.stopScript = captest::script("stopScript", "stop.sh");
  agent.availabilityStatusScript =
      captest::script("availabilityStatusScript", "status.sh", "<returnCode type=\"OK\">1</returnCode>");
  agent.configScript = captest::script("configScript", "config.sh");
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_FALSE(policy.isGeneric());
  EXPECT_EQ(Names({L"one", L"two"}), policy.getInstances());
  EXPECT_EQ(L"Test agent: one, two", policy.buildAgentName());
  // Instances known at parse time do not count as new.
  EXPECT_FALSE(policy.hasNewInstances());
  EXPECT_EQ(L"xy", policy.getProductCode());
  EXPECT_EQ(UnixDaemon, policy.getAgentTypeElement());
  EXPECT_EQ(L"version.sh", policy.getAgentVersionScript()->getOriginalCommand());
  EXPECT_EQ(L"build.sh", policy.getAgentBuildNumberScript()->getOriginalCommand());
  EXPECT_EQ(L"svc", policy.getServiceName());
  EXPECT_EQ(L"Linux", policy.getOsName());
  EXPECT_EQ(60, policy.getCheckFrequencyElement());
  EXPECT_EQ(80, policy.getCPUThreshold());
  EXPECT_EQ(2, policy.getMemoryThresholdValue());
  EXPECT_EQ(MEM_MB, policy.getMemoryThresholdUnit());
  EXPECT_EQ(2097152.0, policy.getMemoryThreshold());
  EXPECT_EQ(Names({L"b", L"a"}), policy.getDependentAgents());
  EXPECT_EQ(WatchDog, policy.getManagerTypeElement());
  EXPECT_EQ(0, policy.getMaxRestartElement());
  QorScript* start = policy.getStartScript();
  EXPECT_EQ(L"start.sh", policy.getStartCommand());
  EXPECT_EQ(L"start.sh", start->getCommand());
  EXPECT_TRUE(start->isStartCommand());
  EXPECT_EQ(L"started", start->getSuccessRCMsg(0));
  EXPECT_EQ(L"failed", start->getErrorRCMsg(2));
  EXPECT_TRUE(policy.getStopScript()->isStopCommand());
  EXPECT_EQ(L"stop.sh", policy.getStopCommand());
  EXPECT_TRUE(policy.getAvailabilityStatusScript()->isSuccessRC(1));
  EXPECT_EQ(L"", policy.getAvailabilityStatusScript()->getSuccessRCMsg(1));
  EXPECT_FALSE(policy.getAvailabilityStatusScript()->isStartCommand());
  EXPECT_EQ(L"config.sh", policy.getConfigCommand());
}

TEST_F(CapFileProcessor, TwoMatchingSubagentsGiveThePolicyOfTheFirst) {
  captest::Subagent second = agent;
  second.id = "second.agent";
  second.agentName = "<agentName>Second</agentName>";
  ASSERT_EQ(XML_OK, parse(captest::document(std::vector<captest::Subagent>{agent, second})));
  EXPECT_EQ(L"test.agent", policy.getSubagentID());
  EXPECT_EQ(L"Test agent", policy.getAgentNameElement());
}

TEST_F(CapFileProcessor, FirstSubagentForThisPlatformIsTaken) {
  captest::Subagent unix = agent;
  unix.id = "unix.agent";
  unix.platform = "<platform xsi:type=\"PlatformUnix\"/>";
  ASSERT_EQ(XML_OK, parse(captest::document(std::vector<captest::Subagent>{unix, agent})));
  EXPECT_EQ(L"test.agent", policy.getSubagentID());
}

TEST_F(CapFileProcessor, UnixOnlyFileHasNoPlatformMatch) {
  agent.platform = "<platform xsi:type=\"PlatformUnix\"/>";
  EXPECT_EQ(XML_NO_PLATFORM_MATCH, parse(agent));
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "Did not find an appropriate platform match for defintions in file " +
                                dir.file("agent.xml") + "."));
  // It is no validation error: nothing is traced as one.
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "parsing xml"));
  EXPECT_EQ(XML_NO_PLATFORM_MATCH, processor.getLastError().getErrorCode());
}

TEST_F(CapFileProcessor, ArchWithoutProcessorArchitectureDoesNotMatch) {
  unsetenv("PROCESSOR_ARCHITECTURE");
  agent.platform = "<platform xsi:type=\"PlatformLinux\" arch=\"AMD64\"/>";
  EXPECT_EQ(XML_NO_PLATFORM_MATCH, parse(agent));
}

TEST_F(CapFileProcessor, ArchEqualToProcessorArchitectureMatches) {
  setenv("PROCESSOR_ARCHITECTURE", "AMD64", 1);
  agent.platform = "<platform xsi:type=\"PlatformLinux\" arch=\"AMD64\"/>";
  EXPECT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"test.agent", policy.getSubagentID());
}

TEST_F(CapFileProcessor, ArchOtherThanProcessorArchitectureDoesNotMatch) {
  setenv("PROCESSOR_ARCHITECTURE", "AMD64", 1);
  agent.platform = "<platform xsi:type=\"PlatformLinux\" arch=\"x86\"/>";
  EXPECT_EQ(XML_NO_PLATFORM_MATCH, parse(agent));
}

TEST_F(CapFileProcessor, TopLevelProcNameAfterProcessLeavesTheMatcherInPlace) {
  agent.process =
      "<process><procName>first</procName><commandLine regex=\"true\">first .*</commandLine></process>";
  agent.procName = "<procName>second</procName>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"second", policy.getProcName());
  EXPECT_EQ(L"", policy.getCommandLine());
  EXPECT_FALSE(policy.getProcRegEx());
  ASSERT_NE(nullptr, policy.getRegexMatcher());
  EXPECT_EQ(icu::UnicodeString("first .*"), policy.getRegexMatcher()->pattern().pattern());
}

TEST_F(CapFileProcessor, RegexTrueSetsTextAndMatcher) {
  agent.process =
      "<process><procName>sleep</procName><commandLine regex=\"true\">sleep [0-9]+</commandLine></process>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"sleep", policy.getProcName());
  EXPECT_EQ(L"sleep [0-9]+", policy.getCommandLine());
  EXPECT_TRUE(policy.getProcRegEx());
  ASSERT_NE(nullptr, policy.getRegexMatcher());
  icu::RegexMatcher* matcher = policy.getRegexMatcher();
  // The matcher keeps a reference to its input, which must outlive the search.
  icu::UnicodeString input("/bin/sleep 600");
  matcher->reset(input);
  UErrorCode status = U_ZERO_ERROR;
  EXPECT_TRUE(matcher->find(status));
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Test of commandLine expression sleep [0-9]+.\n"));
}

TEST_F(CapFileProcessor, RegexOneCountsAsTrue) {
  agent.process = "<process><commandLine regex=\"1\">x+</commandLine></process>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_TRUE(policy.getProcRegEx());
  EXPECT_NE(nullptr, policy.getRegexMatcher());
}

TEST_F(CapFileProcessor, RegexFalseSetsOnlyTheText) {
  agent.process = "<process><commandLine regex=\"false\">sleep 600</commandLine></process>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"sleep 600", policy.getCommandLine());
  EXPECT_FALSE(policy.getProcRegEx());
  EXPECT_EQ(nullptr, policy.getRegexMatcher());
}

TEST_F(CapFileProcessor, CommandLineWithoutRegexSetsNothing) {
  agent.process = "<process><procName>sleep</procName><commandLine>sleep 600</commandLine></process>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"sleep", policy.getProcName());
  EXPECT_EQ(L"", policy.getCommandLine());
  EXPECT_FALSE(policy.getProcRegEx());
  EXPECT_EQ(nullptr, policy.getRegexMatcher());
}

TEST_F(CapFileProcessor, BadRegularExpressionFailsTheFileWith70) {
  agent.process = "<process><commandLine regex=\"true\">sleep (</commandLine></process>";
  EXPECT_EQ(XML_BAD_REGEX, parse(agent));
  EXPECT_EQ(nullptr, policy.getRegexMatcher());
  EXPECT_EQ(L"", policy.getCommandLine());
  std::string text = trace();
  EXPECT_EQ(1, qortest::countOccurrences(text, "Error: detected in defintion of commandLine in file " +
                                                   dir.file("agent.xml") + ".\n"));
  EXPECT_EQ(1, qortest::countOccurrences(text,
                                         "Regular Expression Error: sleep (, 66310, U_REGEX_MISMATCHED_PAREN "
                                         "at offset 7.\n"));
  const XMLErrorInfo& error = processor.getLastError();
  EXPECT_EQ(XML_BAD_REGEX, error.getErrorCode());
  EXPECT_EQ(5, error.getLineNumber());
  EXPECT_EQ("Regular Expression Error: sleep (, 66310, U_REGEX_MISMATCHED_PAREN at offset 7.",
            error.getErrorText());
}

TEST_F(CapFileProcessor, ReturnCodeThatIsNoNumberRegistersCodeZero) {
  agent.startScript =
      captest::script("startScript", "start", "<returnCode type=\"OK\" msg_id=\"m\">abc</returnCode>");
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_TRUE(policy.getStartScript()->isSuccessRC(0));
  EXPECT_EQ(L"m", policy.getStartScript()->getSuccessRCMsg(0));
}

TEST_F(CapFileProcessor, CpuThresholdAboveHundredIsStoredAsHundred) {
  agent.cpuThreshold = "<cpuThreshold>250</cpuThreshold>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(100, policy.getCPUThreshold());
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "CPU threshold input of 250 is above valid maximum of 100. "
                                         "Corrective action: CPU threshold set to 100."));
}

TEST_F(CapFileProcessor, CpuThresholdOfHundredIsKept) {
  agent.cpuThreshold = "<cpuThreshold>100</cpuThreshold>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(100, policy.getCPUThreshold());
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "CPU threshold input"));
}

TEST_F(CapFileProcessor, TextAroundElementsIsKeptWhereItBelongs) {
  agent.agentName = "<agentName>  spaced name  </agentName>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"  spaced name  ", policy.getAgentNameElement());
}

TEST_F(CapFileProcessor, SyntaxErrorInTheLastBlockGivesExpatsCodeAfterTheHandlersRan) {
  // Enough dependent agents to push the end of the file past the first block.
  for (int i = 0; i < 200; ++i)
    agent.dependentAgent += "<dependentAgent>agent" + std::to_string(i) + "</dependentAgent>";
  std::string content = captest::document(agent);
  ASSERT_GT(content.size(), static_cast<size_t>(2 * BUFF_SIZE));
  content.replace(content.rfind("</subagent>"), 11, "</subagentx>");
  qortest::writeFile(dir.file("agent.xml"), content);
  XMLElement top(nullptr, L"APlaceHolderParent");
  EXPECT_EQ(XML_ERROR_TAG_MISMATCH, processor.parse(path(), top));
  // The handlers built the tree of the earlier blocks.
  ASSERT_EQ(1u, top.getChildren().size());
  const XMLElement& subagents = top.getChildren().front();
  ASSERT_EQ(1u, subagents.getChildren().size());
  EXPECT_EQ(L"subagent", subagents.getChildren().front().getName());
  EXPECT_GT(subagents.getChildren().front().getChildren().size(), 200u);
  std::string text = trace();
  EXPECT_EQ(1, qortest::countOccurrences(text, "Error " + std::to_string(XML_ERROR_TAG_MISMATCH) +
                                                   " parsing xml document " + dir.file("agent.xml") + "."));
  EXPECT_EQ(1, qortest::countOccurrences(text, "The error string is: mismatched tag"));
  EXPECT_EQ(1, qortest::countOccurrences(text, "qorStartElement():inName:subagents"));
  const XMLErrorInfo& error = processor.getLastError();
  EXPECT_EQ(XML_ERROR_TAG_MISMATCH, error.getErrorCode());
  EXPECT_EQ("mismatched tag", error.getErrorText());
  // expat points at the name of the mismatched end tag.
  EXPECT_EQ(static_cast<long>(content.rfind("</subagentx>") + 2), error.getByteIndex());
}

TEST_F(CapFileProcessor, SyntaxErrorGivesTheSamePolicyCode) {
  EXPECT_EQ(XML_ERROR_TAG_MISMATCH,
            parse(std::string(captest::declaration()) + "\n" + captest::rootStart() + "</agents>\n"));
}

TEST_F(CapFileProcessor, ExpatsErrorIsTracedUnderTheNameParse) {
  EXPECT_EQ(XML_ERROR_NO_ELEMENTS, parse(std::string()));
  std::string text = trace();
  EXPECT_EQ(1, qortest::countOccurrences(text, "Error " + std::to_string(XML_ERROR_NO_ELEMENTS) +
                                                   " parsing xml document " + dir.file("agent.xml") + "."));
  for (const char* line :
       {" parsing xml document ", "The error string is: no element found", "Error parsing buffer at byte"}) {
    size_t at = text.find(line);
    ASSERT_NE(std::string::npos, at) << line;
    size_t lineStart = text.rfind('\n', at) + 1;
    EXPECT_NE(std::string::npos, text.substr(lineStart, at - lineStart).find(" qorxmlproc.cpp parse:"))
        << line;
  }
}

TEST_F(CapFileProcessor, EmptyFileHasNoElement) {
  EXPECT_EQ(XML_ERROR_NO_ELEMENTS, parse(std::string()));
  EXPECT_EQ("no element found", processor.getLastError().getErrorText());
}

TEST_F(CapFileProcessor, FirstErrorWinsOverALaterOneInTheSameBlock) {
  agent.checkFrequency = "<checkFrequency>12</checkFrequency>";
  std::string content = captest::document(agent);
  content.replace(content.rfind("</subagents>"), 12, "</subagentsx>");
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, parse(content));
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, processor.getLastError().getErrorCode());
  EXPECT_EQ(8, processor.getLastError().getLineNumber());
  std::string text = trace();
  EXPECT_EQ(1, qortest::countOccurrences(text, "Error " + std::to_string(XML_VALUE_NOT_ALLOWED) +
                                                   " parsing xml file " + dir.file("agent.xml") + "."));
  EXPECT_EQ(1, qortest::countOccurrences(text, "Error parsing buffer at byte "));
}

TEST_F(CapFileProcessor, FailedFileIsFollowedByACorrectParse) {
  captest::Subagent broken = agent;
  broken.agentType = "";
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET,
            captest::parseText(processor, dir, captest::document(broken), policy, "broken.xml"));
  EXPECT_EQ(XML_ERROR_TAG_MISMATCH,
            captest::parseText(processor, dir,
                               std::string(captest::declaration()) + "\n" + captest::rootStart() + "</x>",
                               policy, "bad.xml"));
  Policy good;
  EXPECT_EQ(XML_OK, captest::parseText(processor, dir, captest::document(agent), good, "good.xml"));
  EXPECT_EQ(L"test.agent", good.getSubagentID());
  EXPECT_FALSE(processor.getLastError().isError());
}

TEST_F(CapFileProcessor, DeclarationIsTraced) {
  ASSERT_EQ(XML_OK, parse(agent));
  std::string text = trace();
  EXPECT_EQ(1, qortest::countOccurrences(text, "qorXmlDeclHandler:version:<1.0>"));
  EXPECT_EQ(1, qortest::countOccurrences(text, "qorXmlDeclHandler:encoding:<UTF-8>"));
}

TEST_F(CapFileProcessor, NonAsciiTextArrivesAsWideText) {
  agent.agentName = "<agentName>Agent \xc3\xa9t\xc3\xa9 \xe2\x82\xac</agentName>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(L"Agent \u00e9t\u00e9 \u20ac", policy.getAgentNameElement());
}

TEST_F(CapFileProcessor, LongTextIsKeptWhole) {
  std::string name(3000, 'n');
  agent.agentName = "<agentName>" + name + "</agentName>";
  ASSERT_EQ(XML_OK, parse(agent));
  EXPECT_EQ(std::wstring(3000, L'n'), policy.getAgentNameElement());
}

TEST(ScriptMapping, UnknownReturnCodeTypeIsTracedAndIgnored) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  XMLElement script(nullptr, L"startScript");
  script.getChildren().emplace_back(&script, L"command");
  script.getChildren().back().setValue(L"run", 3);
  script.getChildren().emplace_back(&script, L"returnCodeList");
  XMLElement& list = script.getChildren().back();
  list.getChildren().emplace_back(&list, L"returnCode");
  list.getChildren().back().setValue(L"4", 1);
  list.getChildren().back().addAttribute(L"type", L"Warning");
  QorScript target;
  EXPECT_EQ(XML_OK, parseScript(script, &target));
  EXPECT_EQ(L"run", target.getOriginalCommand());
  EXPECT_TRUE(target.emptyRCs());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Unknown return code type Warning."));
}

}  // namespace

TEST(ControllerProcessor, ControllerOwnsOneProcessorThatReadsCapFiles) {
  qortest::TempDir dir;
  XMLprocessor* processor = Controller::getController()->getXMLProcessor();
  ASSERT_NE(nullptr, processor);
  EXPECT_EQ(processor, Controller::getController()->getXMLProcessor());
  Policy policy;
  EXPECT_EQ(XML_OK, captest::parseText(*processor, dir, captest::document(captest::Subagent()), policy));
  EXPECT_EQ(L"test.agent", policy.getSubagentID());
}
