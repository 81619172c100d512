#include "cap/qorcapschema.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cap/qorconv.h"
#include "cap/qorxmlproc.h"
#include "capfiles.h"
#include "support/qortest.h"

namespace {

struct Shape {
  std::wstring name;
  int minOccurs;
  int maxOccurs;
};

std::vector<Shape> childrenOf(const XMLElementConstraints& constraint) {
  std::vector<Shape> shapes;
  for (const pimpl<XMLElementConstraints>& child : constraint.getChildConstraints()) {
    shapes.push_back({child->getName(), child->getMinOccurrs(), child->getMaxOccurrs()});
  }
  return shapes;
}

void expectShapes(const std::vector<Shape>& expected, const XMLElementConstraints& constraint) {
  std::vector<Shape> actual = childrenOf(constraint);
  ASSERT_EQ(expected.size(), actual.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].name, actual[i].name) << i;
    EXPECT_EQ(expected[i].minOccurs, actual[i].minOccurs) << qor_utf8(expected[i].name);
    EXPECT_EQ(expected[i].maxOccurs, actual[i].maxOccurs) << qor_utf8(expected[i].name);
  }
}

const XMLElementConstraints& child(const XMLElementConstraints& parent, const std::wstring& name) {
  for (const pimpl<XMLElementConstraints>& candidate : parent.getChildConstraints()) {
    if (candidate->getName() == name) return *candidate;
  }
  ADD_FAILURE() << "no child " << qor_utf8(name);
  return parent;
}

std::vector<std::pair<std::wstring, bool>> attributesOf(const XMLElementConstraints& constraint) {
  std::vector<std::pair<std::wstring, bool>> attributes;
  for (const XMLAttributeConstraints& attribute : constraint.getAttributeConstraints()) {
    attributes.emplace_back(attribute.getName(), attribute.isRequired());
  }
  return attributes;
}

using Attributes = std::vector<std::pair<std::wstring, bool>>;

}  // namespace

TEST(CapSchemaTree, TopStandsForTheDocumentWithSubagentsAsItsChild) {
  std::unique_ptr<XMLElementConstraints> top(XMLElementConstraints::createCAP());
  EXPECT_EQ(L"ROOTNOMATCHJ", top->getName());
  EXPECT_EQ(1, top->getMinOccurrs());
  EXPECT_EQ(1, top->getMaxOccurrs());
  expectShapes({{L"subagents", 1, 1}}, *top);
  const XMLElementConstraints& subagents = child(*top, L"subagents");
  EXPECT_EQ(Attributes({{L"xmlns", true}, {L"xmlns:xsi", true}, {L"xsi:schemaLocation", true}}),
            attributesOf(subagents));
  expectShapes({{L"subagent", 1, 20}}, subagents);
  EXPECT_EQ(Attributes({{L"id", true}}), attributesOf(child(subagents, L"subagent")));
}

TEST(CapSchemaTree, SubagentChildrenComeInTheirFixedOrder) {
  std::unique_ptr<XMLElementConstraints> top(XMLElementConstraints::createCAP());
  const XMLElementConstraints& subagent = child(child(*top, L"subagents"), L"subagent");
  expectShapes({{L"agentName", 1, 1},
                {L"instance", 0, 1},
                {L"process", 0, 1},
                {L"procName", 0, 1},
                {L"productCode", 0, 1},
                {L"agentType", 1, 1},
                {L"agentPath", 1, 1},
                {L"agentVersionScript", 0, 1},
                {L"agentBuildNumberScript", 0, 1},
                {L"serviceName", 0, 1},
                {L"platform", 1, 1},
                {L"checkFrequency", 0, 1},
                {L"cpuThreshold", 0, 1},
                {L"memoryThreshold", 0, 1},
                {L"dependentAgent", 0, 500},
                {L"managerType", 1, 1},
                {L"maxRestarts", 1, 1},
                {L"startScript", 0, 1},
                {L"stopScript", 0, 1},
                {L"availabilityStatusScript", 0, 1},
                {L"configScript", 0, 1}},
               subagent);
}

TEST(CapSchemaTree, NestedElementsHaveTheirOwnSequences) {
  std::unique_ptr<XMLElementConstraints> top(XMLElementConstraints::createCAP());
  const XMLElementConstraints& subagent = child(child(*top, L"subagents"), L"subagent");
  const XMLElementConstraints& instance = child(subagent, L"instance");
  expectShapes({{L"name", 0, 500}}, instance);
  EXPECT_EQ(Attributes({{L"regex", false}}), attributesOf(child(instance, L"name")));
  const XMLElementConstraints& process = child(subagent, L"process");
  expectShapes({{L"procName", 0, 1}, {L"commandLine", 0, 1}}, process);
  EXPECT_EQ(Attributes({{L"regex", false}}), attributesOf(child(process, L"commandLine")));
  for (const wchar_t* script : {L"agentVersionScript", L"agentBuildNumberScript", L"startScript",
                                L"stopScript", L"availabilityStatusScript", L"configScript"}) {
    const XMLElementConstraints& content = child(subagent, script);
    expectShapes({{L"command", 1, 1}, {L"returnCodeList", 0, 1}}, content);
    const XMLElementConstraints& list = child(content, L"returnCodeList");
    expectShapes({{L"returnCode", 1, 20}}, list);
    EXPECT_EQ(Attributes({{L"msg_id", false}, {L"type", true}}), attributesOf(child(list, L"returnCode")));
  }
}

TEST(CapSchemaTree, TablesKeepTheirOrderAndEnumerators) {
  std::vector<std::pair<std::wstring, AgentType>> agentTypes;
  for (const XMLValueMap* const* entry = ELEMENT_VALUES_AGENTTYPE; *entry != nullptr; ++entry) {
    agentTypes.emplace_back((*entry)->getValue(),
                            static_cast<const XMLValueMap_AgentType*>(*entry)->getType());
  }
  EXPECT_EQ((std::vector<std::pair<std::wstring, AgentType>>{{L"WinService", WinService},
                                                             {L"LnxService", LnxService},
                                                             {L"UnixDaemon", UnixDaemon},
                                                             {L"Console", Console},
                                                             {L"ZEL_UNIX", ZEL_UNIX},
                                                             {L"DiscoverZEL", DiscoverZEL},
                                                             {L"DiscoverBIN", DiscoverBIN},
                                                             {L"ZEL_Windows", ZEL_Windows}}),
            agentTypes);
  std::vector<std::pair<std::wstring, ManagerType>> managerTypes;
  for (const XMLValueMap* const* entry = ELEMENT_VALUES_MANAGERTYPE; *entry != nullptr; ++entry) {
    managerTypes.emplace_back((*entry)->getValue(),
                              static_cast<const XMLValueMap_ManagerType*>(*entry)->getType());
  }
  EXPECT_EQ((std::vector<std::pair<std::wstring, ManagerType>>{{L"TeoServices", TeoServices},
                                                               {L"WatchDog", WatchDog},
                                                               {L"External", External},
                                                               {L"NotManaged", NotManaged}}),
            managerTypes);
  std::vector<std::wstring> osNames;
  for (const XMLValueMap* const* entry = ELEMENT_VALUES_OSNAME; *entry != nullptr; ++entry) {
    osNames.push_back((*entry)->getValue());
  }
  EXPECT_EQ(
      (std::vector<std::wstring>{L"Windows 2000", L"Windows XP", L"Windows Vista", L"Windows Server 2003",
                                 L"Windows Server 2008", L"Linux", L"AIX", L"HP-UX", L"SunOS"}),
      osNames);
  EXPECT_EQ(L"SunOS", ELEMENT_VALUE_OSNAMESOLARIS);
  EXPECT_EQ(L"urn:qor:cap mdhcap.xsd", ATTRIBUTE_VALUES_XSI_SCHEMALOCATION[0]->getValue());
  EXPECT_EQ(nullptr, ATTRIBUTE_VALUES_XSI_SCHEMALOCATION[1]);
  EXPECT_EQ(L"urn:qor:cap", ATTRIBUTE_VALUES_XMLNS[0]->getValue());
  EXPECT_EQ(L"http://www.w3.org/2001/XMLSchema-instance", ATTRIBUTE_VALUES_XMLNS_XSI[0]->getValue());
}

// The format as files on disk see it: each file is written, read by expat and
// checked against the schema tree.
class CapFormat : public ::testing::Test {
 protected:
  int validate(const std::string& content) {
    XMLElement top(nullptr, L"APlaceHolderParent");
    return captest::parseTree(processor, dir, content, top);
  }
  const XMLErrorInfo& error() const { return processor.getLastError(); }

  qortest::TempDir dir;
  XMLprocessor processor;
  captest::Subagent agent;
};

TEST_F(CapFormat, MinimalSubagentIsValid) {
  EXPECT_EQ(XML_OK, validate(captest::document(agent)));
  EXPECT_FALSE(error().isError());
}

TEST_F(CapFormat, RootOtherThanSubagentsMissesSubagents) {
  std::string content = std::string(captest::declaration()) + "\n<agents>\n</agents>\n";
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, validate(content));
  EXPECT_EQ("The minimum occurrences constraint for subagents has not been met.", error().getErrorText());
  EXPECT_EQ(2, error().getLineNumber());
  EXPECT_EQ(0, error().getColumnNumber());
}

TEST_F(CapFormat, TwentySubagentsAreAllowed) {
  EXPECT_EQ(XML_OK, validate(captest::document(std::vector<captest::Subagent>(20, agent))));
}

TEST_F(CapFormat, TwentyFirstSubagentExceedsTheMaximum) {
  EXPECT_EQ(XML_MAX_OCCURS_EXCEEDED, validate(captest::document(std::vector<captest::Subagent>(21, agent))));
  EXPECT_EQ("The maxiumum occurrences constraint for subagent has been exceeded.", error().getErrorText());
}

std::string returnCodes(int count) {
  std::string codes;
  for (int i = 0; i < count; ++i)
    codes += "<returnCode type=\"Error\">" + std::to_string(i + 1) + "</returnCode>";
  return codes;
}

TEST_F(CapFormat, TwentyReturnCodesAreAllowed) {
  agent.startScript = captest::script("startScript", "start", returnCodes(20));
  EXPECT_EQ(XML_OK, validate(captest::document(agent)));
}

TEST_F(CapFormat, TwentyFirstReturnCodeExceedsTheMaximum) {
  agent.startScript = captest::script("startScript", "start", returnCodes(21));
  EXPECT_EQ(XML_MAX_OCCURS_EXCEEDED, validate(captest::document(agent)));
  EXPECT_EQ("The maxiumum occurrences constraint for returnCode has been exceeded.", error().getErrorText());
}

TEST_F(CapFormat, KernelReleaseUnderUnixPlatformIsUnexpected) {
  agent.platform = "<platform xsi:type=\"PlatformUnix\"><kernelRelease>5</kernelRelease></platform>";
  EXPECT_EQ(XML_UNEXPECTED_TAG, validate(captest::document(agent)));
  EXPECT_EQ("The tag kernelRelease is unexpected.", error().getErrorText());
}

TEST_F(CapFormat, KernelReleaseUnderWindowsPlatformIsUnexpected) {
  agent.platform = "<platform xsi:type=\"PlatformWindows\"><kernelRelease>5</kernelRelease></platform>";
  EXPECT_EQ(XML_UNEXPECTED_TAG, validate(captest::document(agent)));
}

TEST_F(CapFormat, KernelReleaseUnderLinuxPlatformIsValid) {
  agent.platform =
      "<platform xsi:type=\"PlatformLinux\"><name>Linux</name><versionString>v</versionString>"
      "<kernelRelease>5</kernelRelease></platform>";
  EXPECT_EQ(XML_OK, validate(captest::document(agent)));
}

TEST_F(CapFormat, NameBehindVersionStringIsUnexpected) {
  agent.platform =
      "<platform xsi:type=\"PlatformLinux\"><versionString>v</versionString><name>Linux</name></platform>";
  EXPECT_EQ(XML_UNEXPECTED_TAG, validate(captest::document(agent)));
  EXPECT_EQ("The tag name is unexpected.", error().getErrorText());
}

TEST_F(CapFormat, MaxRestartsBeforeManagerTypeMissesManagerType) {
  agent.managerType = "";
  agent.configScript = "<managerType>TeoServices</managerType>";
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, validate(captest::document(agent)));
  EXPECT_EQ("The minimum occurrences constraint for managerType has not been met.", error().getErrorText());
}

TEST_F(CapFormat, CheckFrequencyTwelveFailsAtItsEndTag) {
  agent.checkFrequency = "<checkFrequency>12</checkFrequency>";
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, validate(captest::document(agent)));
  EXPECT_EQ("The constraint for checkFrequency does not allow a value of :12.", error().getErrorText());
  // Line 3 is the subagent, then agentName, agentType, agentPath, platform.
  EXPECT_EQ(8, error().getLineNumber());
  EXPECT_EQ(18, error().getColumnNumber());
}

TEST_F(CapFormat, CheckFrequencyFifteenIsValid) {
  agent.checkFrequency = "<checkFrequency>15</checkFrequency>";
  EXPECT_EQ(XML_OK, validate(captest::document(agent)));
}

TEST_F(CapFormat, EmptyReturnCodeListMissesReturnCode) {
  agent.stopScript = "<stopScript><command>stop</command><returnCodeList></returnCodeList></stopScript>";
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, validate(captest::document(agent)));
  EXPECT_EQ("The minimum occurrences constraint for returnCode has not been met.", error().getErrorText());
}

TEST_F(CapFormat, ScriptWithoutCommandMissesCommand) {
  agent.stopScript = "<stopScript></stopScript>";
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, validate(captest::document(agent)));
  EXPECT_EQ("The minimum occurrences constraint for command has not been met.", error().getErrorText());
}

TEST_F(CapFormat, ProcessWithNeitherChildIsValid) {
  agent.process = "<process></process>";
  EXPECT_EQ(XML_OK, validate(captest::document(agent)));
}

std::string withRoot(const std::string& rootAttributes, const captest::Subagent& agent) {
  return std::string(captest::declaration()) + "\n" + captest::rootStart(rootAttributes) + "\n" +
         agent.xml() + "</subagents>\n";
}

TEST_F(CapFormat, MissingSchemaLocationIsAMissingAttribute) {
  EXPECT_EQ(XML_ATTRIBUTE_MISSING,
            validate(withRoot("xmlns=\"urn:qor:cap\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"",
                              agent)));
  EXPECT_EQ("The required attribute xsi:schemaLocation is missing.", error().getErrorText());
}

TEST_F(CapFormat, OtherSchemaFileNameIsNotAllowed) {
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED,
            validate(withRoot("xmlns=\"urn:qor:cap\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                              "xsi:schemaLocation=\"urn:qor:cap other.xsd\"",
                              agent)));
  EXPECT_EQ("The constraint for xsi:schemaLocation does not allow a value of :urn:qor:cap other.xsd.",
            error().getErrorText());
}

TEST_F(CapFormat, OtherNamespaceIsNotAllowed) {
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED,
            validate(withRoot("xmlns=\"urn:other\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                              "xsi:schemaLocation=\"urn:qor:cap mdhcap.xsd\"",
                              agent)));
}

TEST_F(CapFormat, RootAttributesMayComeInAnyOrder) {
  EXPECT_EQ(XML_OK,
            validate(withRoot("xsi:schemaLocation=\"urn:qor:cap mdhcap.xsd\" "
                              "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns=\"urn:qor:cap\"",
                              agent)));
}

TEST_F(CapFormat, PlatformTypeOutsideTheDerivedFormsIsUnsupported) {
  agent.platform = "<platform xsi:type=\"PlatformMac\"/>";
  EXPECT_EQ(XML_ABSTRACT_TYPE_UNKNOWN, validate(captest::document(agent)));
  EXPECT_EQ("The attribute xsi:type was specified with a non supported value of PlatformMac.",
            error().getErrorText());
}

TEST_F(CapFormat, PlatformWithoutTypeIsAMissingAttribute) {
  agent.platform = "<platform arch=\"x86\"/>";
  EXPECT_EQ(XML_ATTRIBUTE_MISSING, validate(captest::document(agent)));
  EXPECT_EQ("The attribute xsi:type is required for abstract structures.", error().getErrorText());
}

TEST_F(CapFormat, UnknownArchIsNotAllowed) {
  agent.platform = "<platform xsi:type=\"PlatformLinux\" arch=\"arm64\"/>";
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, validate(captest::document(agent)));
  EXPECT_EQ("The constraint for arch does not allow a value of :arm64.", error().getErrorText());
}

TEST_F(CapFormat, SecondSubagentNeedsItsOwnRequiredChildren) {
  captest::Subagent second = agent;
  second.agentName = "";
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET,
            validate(captest::document(std::vector<captest::Subagent>{agent, second})));
  EXPECT_EQ("The minimum occurrences constraint for agentName has not been met.", error().getErrorText());
}

TEST_F(CapFormat, AgentTypeWithALineBreakIsNotAllowed) {
  agent.agentType = "<agentType>Console\n</agentType>";
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, validate(captest::document(agent)));
  EXPECT_EQ("The constraint for agentType does not allow a value of :Console\n.", error().getErrorText());
}

TEST_F(CapFormat, SubagentWithoutIdIsAMissingAttribute) {
  std::string content = captest::document(agent);
  content.replace(content.find(" id=\"test.agent\""), 16, "");
  EXPECT_EQ(XML_ATTRIBUTE_MISSING, validate(content));
  EXPECT_EQ("The required attribute id is missing.", error().getErrorText());
}

TEST_F(CapFormat, UnknownAttributeIsNotAllowed) {
  agent.agentName = "<agentName lang=\"en\">Test</agentName>";
  EXPECT_EQ(XML_ATTRIBUTE_NOT_ALLOWED, validate(captest::document(agent)));
  EXPECT_EQ("The attribute lang is not allowed.", error().getErrorText());
}

TEST_F(CapFormat, ReturnCodeWithoutTypeIsAMissingAttribute) {
  agent.startScript = captest::script("startScript", "start", "<returnCode msg_id=\"m\">0</returnCode>");
  EXPECT_EQ(XML_ATTRIBUTE_MISSING, validate(captest::document(agent)));
  EXPECT_EQ("The required attribute type is missing.", error().getErrorText());
}

TEST_F(CapFormat, MemoryThresholdWithLowerCaseSuffixIsNotAllowed) {
  agent.memoryThreshold = "<memoryThreshold>100kb</memoryThreshold>";
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, validate(captest::document(agent)));
}

TEST_F(CapFormat, EveryOptionalElementInPlaceIsValid) {
  agent.instance = "<instance><name regex=\"false\">one</name><name>two</name></instance>";
  agent.process = "<process><procName>p</procName><commandLine regex=\"true\">p .*</commandLine></process>";
  agent.procName = "<procName>q</procName>";
  agent.productCode = "<productCode>xy</productCode>";
  agent.agentVersionScript = captest::script("agentVersionScript", "v");
  agent.agentBuildNumberScript = captest::script("agentBuildNumberScript", "b");
  agent.serviceName = "<serviceName>svc</serviceName>";
  agent.platform =
      "<platform xsi:type=\"PlatformLinux\" arch=\"AMD64\"><name>Linux</name><versionString>v</versionString>"
      "<kernelRelease>k</kernelRelease></platform>";
  agent.checkFrequency = "<checkFrequency>60</checkFrequency>";
  agent.cpuThreshold = "<cpuThreshold>90</cpuThreshold>";
  agent.memoryThreshold = "<memoryThreshold>512 MB</memoryThreshold>";
  agent.dependentAgent = "<dependentAgent>a</dependentAgent><dependentAgent>b</dependentAgent>";
  agent.managerType = "<managerType>NotManaged</managerType>";
  agent.maxRestarts = "<maxRestarts>0</maxRestarts>";
  agent.startScript =
      captest::script("startScript", "s", "<returnCode type=\"OK\" msg_id=\"m\">0</returnCode>");
  agent.stopScript = captest::script("stopScript", "t");
  agent.availabilityStatusScript = captest::script("availabilityStatusScript", "a");
  agent.configScript = captest::script("configScript", "c");
  EXPECT_EQ(XML_OK, validate(captest::document(agent)));
}
