#include "cap/qorcapschema.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cap/qorconv.h"

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
