#include "cap/qorxml.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "cap/qorcapschema.h"
#include "cap/qorconv.h"
#include "platform/log1.h"
#include "support/qortest.h"

namespace {

using Atts = std::vector<std::pair<std::wstring, std::wstring>>;

XMLElementConstraintsList sequenceOf(std::initializer_list<const XMLElementConstraints*> items) {
  XMLElementConstraintsList list;
  for (const XMLElementConstraints* item : items) list.push_back(pimpl<XMLElementConstraints>(*item));
  return list;
}

// Feeds start and end tags to a constraint tree the way the file processor's
// handlers do: a stack of the constraints of the open elements, the top
// constraint at the bottom.
class TagFeeder {
 public:
  explicit TagFeeder(XMLElementConstraints& top)
      : document(nullptr, L"APlaceHolderParent"), current(&document) {
    top.reset();
    stack.push_back(&top);
  }

  int start(const std::wstring& name, const Atts& atts = {}) {
    current->getChildren().emplace_back(current, name.c_str());
    current = &current->getChildren().back();
    for (const auto& att : atts) current->addAttribute(att.first.c_str(), att.second.c_str());
    current->sortAttributes();
    XMLElementConstraints* matched = nullptr;
    int result = stack.back()->checkStartLevel(*current, &matched);
    stack.push_back(matched);
    return result;
  }

  int end(const std::wstring& value = L"") {
    current->setValue(value.c_str(), static_cast<int>(value.size()));
    int result = stack.back()->checkEnd(*current, current->getName().c_str());
    stack.pop_back();
    current = current->getParent();
    return result;
  }

  // A whole element with text and no children.
  int leaf(const std::wstring& name, const std::wstring& value = L"", const Atts& atts = {}) {
    int result = start(name, atts);
    return result != XML_OK ? result : end(value);
  }

 private:
  XMLElement document;
  XMLElement* current;
  std::vector<XMLElementConstraints*> stack;
};

// A parent P with the children A (1..1), B (0..1) and C (1..1), under a top.
class SequenceTest : public ::testing::Test {
 protected:
  SequenceTest() : top(makeTop()), feeder(top) {
    traceFile = dir.file("trace");
    qortest::traceTo(traceFile, QOR_TL_ERROR | QOR_TL_DETAIL);
  }

  static XMLElementConstraints makeTop() {
    XMLElementConstraints a(L"A", 1, 1, nullptr, nullptr);
    XMLElementConstraints b(L"B", 0, 1, nullptr, nullptr);
    XMLElementConstraints c(L"C", 1, 1, nullptr, nullptr);
    XMLElementConstraints p(L"P", 1, 1, nullptr, nullptr, {}, sequenceOf({&a, &b, &c}));
    return XMLElementConstraints(L"TOP", 1, 1, nullptr, nullptr, {}, sequenceOf({&p}));
  }

  std::string trace() { return qortest::readFile(traceFile); }

  qortest::TempDir dir;
  std::string traceFile;
  XMLElementConstraints top;
  TagFeeder feeder;
};

// The numbers are what people who write CAP files see and look up; a name may
// move, its number may not.
TEST(XMLResultCodes, KeepTheirNumbers) {
  EXPECT_EQ(-1000, XML_NO_PLATFORM_MATCH);
  EXPECT_EQ(-1, XML_NO_MATCH);
  EXPECT_EQ(0, XML_OK);
  EXPECT_EQ(45, XML_NO_READ_BUFFER);
  EXPECT_EQ(46, XML_OPEN_FAILED);
  EXPECT_EQ(47, XML_READ_FAILED);
  EXPECT_EQ(48, XML_CONVERSION_FAILED);
  EXPECT_EQ(48, QOR_CONVERSION_ERROR);
  EXPECT_EQ(55, XML_MAX_OCCURS_EXCEEDED);
  EXPECT_EQ(56, XML_MIN_OCCURS_NOT_MET);
  EXPECT_EQ(57, XML_UNEXPECTED_TAG);
  EXPECT_EQ(59, XML_ATTRIBUTE_NOT_ALLOWED);
  EXPECT_EQ(60, XML_VALUE_NOT_ALLOWED);
  EXPECT_EQ(61, XML_ATTRIBUTE_MISSING);
  EXPECT_EQ(62, XML_ABSTRACT_TYPE_UNKNOWN);
  EXPECT_EQ(63, XML_HANDLER_EXCEPTION);
  EXPECT_EQ(70, XML_BAD_REGEX);
}

TEST_F(SequenceTest, RequiredFirstAndLastWithOptionalLeftOutIsAccepted) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"C"));
  EXPECT_EQ(XML_OK, feeder.end());
  EXPECT_EQ("", takeXMLConstraintMessage());
}

TEST_F(SequenceTest, AllThreeInOrderAreAccepted) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"B"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"C"));
  EXPECT_EQ(XML_OK, feeder.end());
}

TEST_F(SequenceTest, LastBeforeFirstMissesTheFirst) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, feeder.start(L"C"));
  EXPECT_EQ("The minimum occurrences constraint for A has not been met.", takeXMLConstraintMessage());
  EXPECT_EQ(1,
            qortest::countOccurrences(trace(), "The minimum occurrences constraint for A has not been met."));
}

TEST_F(SequenceTest, OptionalElementTwiceExceedsItsMaximum) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"B"));
  EXPECT_EQ(XML_MAX_OCCURS_EXCEEDED, feeder.start(L"B"));
  EXPECT_EQ("The maxiumum occurrences constraint for B has been exceeded.", takeXMLConstraintMessage());
}

TEST_F(SequenceTest, SkippedOptionalElementCannotReturn) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"C"));
  EXPECT_EQ(XML_UNEXPECTED_TAG, feeder.start(L"B"));
  EXPECT_EQ("The tag B is unexpected.", takeXMLConstraintMessage());
}

TEST_F(SequenceTest, FirstAloneMissesTheLastAtTheParentsEndTag) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, feeder.end());
  EXPECT_EQ("The minimum occurrences constraint for C has not been met.", takeXMLConstraintMessage());
}

TEST_F(SequenceTest, UnknownElementWhileARequiredSiblingIsDueNamesTheSibling) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, feeder.start(L"X"));
  EXPECT_EQ("The minimum occurrences constraint for A has not been met.", takeXMLConstraintMessage());
}

TEST_F(SequenceTest, UnknownElementAfterTheLastIsUnexpected) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"C"));
  EXPECT_EQ(XML_UNEXPECTED_TAG, feeder.start(L"X"));
  EXPECT_EQ("The tag X is unexpected.", takeXMLConstraintMessage());
}

TEST_F(SequenceTest, UnmatchedStartGivesNoConstraint) {
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"C"));
  XMLElement stray(nullptr, L"X");
  XMLElementConstraints* matched = &top;
  const XMLElementConstraints& p = *top.getChildConstraints().front();
  EXPECT_EQ(XML_UNEXPECTED_TAG, const_cast<XMLElementConstraints&>(p).checkStartLevel(stray, &matched));
  EXPECT_EQ(nullptr, matched);
}

TEST(ConstraintEngine, RepeatedElementRestartsItsChildrensSequence) {
  XMLElementConstraints a(L"A", 1, 1, nullptr, nullptr);
  XMLElementConstraints p(L"P", 1, 2, nullptr, nullptr, {}, sequenceOf({&a}));
  XMLElementConstraints top(L"TOP", 1, 1, nullptr, nullptr, {}, sequenceOf({&p}));
  TagFeeder feeder(top);
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
  EXPECT_EQ(XML_OK, feeder.end());
  ASSERT_EQ(XML_OK, feeder.start(L"P"));
  EXPECT_EQ(XML_MIN_OCCURS_NOT_MET, feeder.end());
  EXPECT_EQ("The minimum occurrences constraint for A has not been met.", takeXMLConstraintMessage());
}

TEST(ConstraintEngine, RepeatedElementMayRepeatItsChildren) {
  XMLElementConstraints a(L"A", 1, 1, nullptr, nullptr);
  XMLElementConstraints p(L"P", 1, 2, nullptr, nullptr, {}, sequenceOf({&a}));
  XMLElementConstraints top(L"TOP", 1, 1, nullptr, nullptr, {}, sequenceOf({&p}));
  TagFeeder feeder(top);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(XML_OK, feeder.start(L"P"));
    EXPECT_EQ(XML_OK, feeder.leaf(L"A"));
    EXPECT_EQ(XML_OK, feeder.end());
  }
  EXPECT_EQ(XML_MAX_OCCURS_EXCEEDED, feeder.start(L"P"));
}

// An element E with the attributes a (required), b (required), c (optional).
class AttributeTest : public ::testing::Test {
 protected:
  AttributeTest() : top(makeTop()), feeder(top) {}

  static XMLElementConstraints makeTop() {
    XMLElementConstraints e(L"E", 1, 1, nullptr, nullptr,
                            {XMLAttributeConstraints(L"c", false, nullptr, nullptr),
                             XMLAttributeConstraints(L"b", true, parsePosInt, nullptr),
                             XMLAttributeConstraints(L"a", true, nullptr, nullptr)},
                            {});
    return XMLElementConstraints(L"TOP", 1, 1, nullptr, nullptr, {}, sequenceOf({&e}));
  }

  XMLElementConstraints top;
  TagFeeder feeder;
};

TEST_F(AttributeTest, ConstraintsAreKeptSortedByName) {
  const XMLElementConstraints& e = *top.getChildConstraints().front();
  std::vector<std::wstring> names;
  for (const XMLAttributeConstraints& attribute : e.getAttributeConstraints())
    names.push_back(attribute.getName());
  EXPECT_EQ(std::vector<std::wstring>({L"a", L"b", L"c"}), names);
}

TEST_F(AttributeTest, AttributeOrderInTheDocumentDoesNotMatter) {
  EXPECT_EQ(XML_OK, feeder.start(L"E", {{L"c", L"x"}, {L"b", L"5"}, {L"a", L"y"}}));
}

TEST_F(AttributeTest, OptionalAttributeMayBeLeftOut) {
  EXPECT_EQ(XML_OK, feeder.start(L"E", {{L"b", L"5"}, {L"a", L"y"}}));
}

TEST_F(AttributeTest, MissingAttributeInTheMiddleBeforeALaterOneGives61) {
  EXPECT_EQ(XML_ATTRIBUTE_MISSING, feeder.start(L"E", {{L"c", L"x"}, {L"a", L"y"}}));
  EXPECT_EQ("The required attribute b is missing.", takeXMLConstraintMessage());
}

TEST_F(AttributeTest, MissingAttributeInTheMiddleWithNoneAfterGives61) {
  EXPECT_EQ(XML_ATTRIBUTE_MISSING, feeder.start(L"E", {{L"a", L"y"}}));
  EXPECT_EQ("The required attribute b is missing.", takeXMLConstraintMessage());
}

TEST_F(AttributeTest, UnknownAttributeSortingBetweenConstraintsIsNotAllowed) {
  EXPECT_EQ(XML_ATTRIBUTE_NOT_ALLOWED, feeder.start(L"E", {{L"a", L"y"}, {L"aa", L"z"}, {L"b", L"5"}}));
  EXPECT_EQ("The attribute aa is not allowed.", takeXMLConstraintMessage());
}

TEST_F(AttributeTest, UnknownAttributeAfterAllConstraintsIsNotAllowed) {
  EXPECT_EQ(XML_ATTRIBUTE_NOT_ALLOWED,
            feeder.start(L"E", {{L"a", L"y"}, {L"b", L"5"}, {L"c", L"x"}, {L"d", L"z"}}));
  EXPECT_EQ("The attribute d is not allowed.", takeXMLConstraintMessage());
}

TEST_F(AttributeTest, BadAttributeValueIsReportedAsAValueError) {
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, feeder.start(L"E", {{L"a", L"y"}, {L"b", L"0"}}));
  EXPECT_EQ("The constraint for b does not allow a value of :0.", takeXMLConstraintMessage());
}

TEST(ValueParsers, PositiveIntegerReadsTheNumberAtTheFront) {
  int result = -1;
  unsigned long number = 99;
  parsePosInt(L"12abc", &result, &number);
  EXPECT_EQ(XML_OK, result);
  EXPECT_EQ(12ul, number);
  parsePosInt(L"  7", &result, &number);
  EXPECT_EQ(XML_OK, result);
  EXPECT_EQ(7ul, number);
  parsePosInt(L"+3", &result);
  EXPECT_EQ(XML_OK, result);
}

TEST(ValueParsers, PositiveIntegerRejectsZeroNegativeAndText) {
  int result = -1;
  unsigned long number = 99;
  parsePosInt(L"0", &result, &number);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result);
  EXPECT_EQ(0ul, number);
  parsePosInt(L"-3", &result, &number);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result);
  // The rejected number is still handed out.
  EXPECT_EQ(static_cast<unsigned long>(-3L), number);
  parsePosInt(L"abc", &result, &number);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result);
  EXPECT_EQ(0ul, number);
  parsePosInt(L"", &result);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result);
}

TEST(ValueParsers, PositiveIntegerTracesResultAndNumber) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  int result = -1;
  parsePosInt(L"12abc", &result);
  parsePosIntMod5(L"7", &result);
  parseNonNegInt(L"-1", &result);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "parsePosInt:result:0:num:12."));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "parsePosIntMod5:result:60:num:7."));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "parseNonNegInt:result:60:num:-1."));
}

TEST(ValueParsers, MultipleOfFiveRejectsZeroThreeAndSeven) {
  for (const wchar_t* text : {L"0", L"3", L"7", L"-5", L"x"}) {
    int result = -1;
    parsePosIntMod5(text, &result);
    EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result) << qor_utf8(text);
  }
}

TEST(ValueParsers, MultipleOfFiveAcceptsFiveAndSixty) {
  int result = -1;
  unsigned long number = 0;
  parsePosIntMod5(L"5", &result, &number);
  EXPECT_EQ(XML_OK, result);
  EXPECT_EQ(5ul, number);
  parsePosIntMod5(L"60", &result, &number);
  EXPECT_EQ(XML_OK, result);
  EXPECT_EQ(60ul, number);
}

TEST(ValueParsers, NonNegativeIntegerAcceptsZero) {
  int result = -1;
  unsigned long number = 9;
  parseNonNegInt(L"0", &result, &number);
  EXPECT_EQ(XML_OK, result);
  EXPECT_EQ(0ul, number);
  parseNonNegInt(L"-1", &result);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result);
  parseNonNegInt(L"none", &result);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result);
}

TEST(ValueParsers, MemorySizeAcceptsBytesAndTheThreeSuffixes) {
  struct Case {
    const wchar_t* text;
    unsigned long number;
    MemoryUnit unit;
  };
  for (const Case& c : {Case{L"100", 100, MEM_BYTES}, Case{L"100KB", 100, MEM_KB},
                        Case{L"100 KB", 100, MEM_KB}, Case{L"2MB", 2, MEM_MB}, Case{L"3GB", 3, MEM_GB}}) {
    int result = -1;
    std::pair<unsigned long, MemoryUnit> size(0, MEM_GB);
    parseMemorySize(c.text, &result, &size);
    EXPECT_EQ(XML_OK, result) << qor_utf8(c.text);
    EXPECT_EQ(c.number, size.first) << qor_utf8(c.text);
    EXPECT_EQ(c.unit, size.second) << qor_utf8(c.text);
  }
}

TEST(ValueParsers, MemorySizeRejectsOtherSuffixes) {
  for (const wchar_t* text : {L"100K", L"100kb", L"100TB", L"100KBX", L"KB", L"", L"100 B"}) {
    int result = -1;
    parseMemorySize(text, &result);
    EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result) << qor_utf8(text);
  }
}

TEST(ValueParsers, MemorySizeHandsOutTheNumberOfARejectedText) {
  int result = -1;
  std::pair<unsigned long, MemoryUnit> size(7, MEM_GB);
  parseMemorySize(L"100TB", &result, &size);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, result);
  EXPECT_EQ(100ul, size.first);
  EXPECT_EQ(MEM_BYTES, size.second);
  parseMemorySize(L"none", &result, &size);
  EXPECT_EQ(0ul, size.first);
}

TEST(ValueParsers, MemorySizeTracesItsSteps) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  int result = -1;
  parseMemorySize(L"100 MB", &result);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "parseMemorySize:numBytes:100"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "parseMemorySize:numC:2"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "parseMemorySize:result:0:value:100:unit:20"));
}

TEST(ConstraintValues, OtherNameIsNoMatch) {
  XMLConstraints constraint(L"agentType", nullptr, ELEMENT_VALUES_AGENTTYPE);
  EXPECT_EQ(XML_NO_MATCH, constraint.checkValue(L"agentPath", L"Console"));
}

TEST(ConstraintValues, AllowedWordIsAccepted) {
  XMLConstraints constraint(L"agentType", nullptr, ELEMENT_VALUES_AGENTTYPE);
  EXPECT_EQ(XML_OK, constraint.checkValue(L"agentType", L"Console"));
}

TEST(ConstraintValues, BlanksAroundAnAllowedWordAreRejected) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  XMLConstraints constraint(L"agentType", nullptr, ELEMENT_VALUES_AGENTTYPE);
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, constraint.checkValue(L"agentType", L" Console"));
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, constraint.checkValue(L"agentType", L"Console\n"));
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, constraint.checkValue(L"agentType", L"console"));
  EXPECT_EQ(1,
            qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                      "The constraint for agentType does not allow a value of : Console."));
}

TEST(ConstraintValues, TableOverridesWhatTheParserAccepted) {
  static const XMLValueMap five(L"5");
  static const XMLValueMap* const table[] = {&five, nullptr};
  XMLConstraints constraint(L"n", parsePosInt, table);
  EXPECT_EQ(XML_OK, constraint.checkValue(L"n", L"5"));
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, constraint.checkValue(L"n", L"10"));
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, constraint.checkValue(L"n", L"0"));
}

TEST(ConstraintValues, NoParserAndNoTableAcceptAnything) {
  XMLConstraints constraint(L"agentName", nullptr, nullptr);
  EXPECT_EQ(XML_OK, constraint.checkValue(L"agentName", L""));
  EXPECT_EQ(XML_OK, constraint.checkValue(L"agentName", L"  any text  "));
}

TEST(ConstraintValues, EqualityComparesNamesValuesAndParser) {
  XMLConstraints a(L"x", parsePosInt, ATTRIBUTE_VALUES_TYPE);
  XMLConstraints same(L"x", parsePosInt, ATTRIBUTE_VALUES_TYPE);
  XMLConstraints otherParser(L"x", parseNonNegInt, ATTRIBUTE_VALUES_TYPE);
  XMLConstraints noTable(L"x", parsePosInt, nullptr);
  EXPECT_TRUE(a == same);
  EXPECT_FALSE(a == otherParser);
  EXPECT_FALSE(a == noTable);
  XMLAttributeConstraints required(L"x", true, nullptr, nullptr);
  XMLAttributeConstraints optional(L"x", false, nullptr, nullptr);
  EXPECT_FALSE(required == optional);
  EXPECT_TRUE(optional < XMLConstraints(L"y", nullptr, nullptr));
}

TEST(ConstraintValues, TablesFindTheirEnumerators) {
  auto agentType =
      static_cast<const XMLValueMap_AgentType*>(findValueMap(ELEMENT_VALUES_AGENTTYPE, L"LnxService"));
  ASSERT_NE(nullptr, agentType);
  EXPECT_EQ(LnxService, agentType->getType());
  auto managerType =
      static_cast<const XMLValueMap_ManagerType*>(findValueMap(ELEMENT_VALUES_MANAGERTYPE, L"WatchDog"));
  ASSERT_NE(nullptr, managerType);
  EXPECT_EQ(WatchDog, managerType->getType());
  EXPECT_EQ(nullptr, findValueMap(ELEMENT_VALUES_MANAGERTYPE, L"Watchdog"));
}

// The platform form of the schema, reached through its parents.
XMLElementConstraints& platformOf(XMLElementConstraints& top) {
  XMLElementConstraints& subagents = *top.getChildConstraints().front();
  XMLElementConstraints& subagent = *subagents.getChildConstraints().front();
  for (const pimpl<XMLElementConstraints>& child : subagent.getChildConstraints()) {
    if (child->getName() == L"platform") return *child;
  }
  ADD_FAILURE() << "no platform";
  return top;
}

TEST(AbstractConstraints, PlatformHasNoChildrenBeforeItsTypeIsSeen) {
  std::unique_ptr<XMLElementConstraints> cap(XMLElementConstraints::createCAP());
  XMLElementConstraints& platform = platformOf(*cap);
  EXPECT_TRUE(platform.getChildConstraints().empty());
  EXPECT_TRUE(platform.getAttributeConstraints().empty());
}

TEST(AbstractConstraints, TypeSubstitutesBaseThenDerivedChildren) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  std::unique_ptr<XMLElementConstraints> cap(XMLElementConstraints::createCAP());
  XMLElementConstraints& platform = platformOf(*cap);
  XMLElement element(nullptr, L"platform");
  element.addAttribute(L"xsi:type", L"PlatformLinux");
  EXPECT_EQ(XML_OK, platform.checkStart(element));
  std::vector<std::wstring> children;
  for (const pimpl<XMLElementConstraints>& child : platform.getChildConstraints())
    children.push_back(child->getName());
  EXPECT_EQ(std::vector<std::wstring>({L"name", L"versionString", L"kernelRelease"}), children);
  std::vector<std::wstring> attributes;
  for (const XMLAttributeConstraints& attribute : platform.getAttributeConstraints())
    attributes.push_back(attribute.getName());
  EXPECT_EQ(std::vector<std::wstring>({L"arch", L"xsi:type"}), attributes);
  EXPECT_EQ(1,
            qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                      "XMLAbstractElementConstraints::initOnMatchStart:Substituting derived "
                                      "structure PlatformLinux for abstract structure platform ."));
}

TEST(AbstractConstraints, MissingTypeGives61WithItsOwnText) {
  std::unique_ptr<XMLElementConstraints> cap(XMLElementConstraints::createCAP());
  XMLElement element(nullptr, L"platform");
  element.addAttribute(L"arch", L"x86");
  EXPECT_EQ(XML_ATTRIBUTE_MISSING, platformOf(*cap).checkStart(element));
  EXPECT_EQ("The attribute xsi:type is required for abstract structures.", takeXMLConstraintMessage());
}

TEST(AbstractConstraints, TypeWithoutDerivedFormGives62BeforeTheValueCheck) {
  std::unique_ptr<XMLElementConstraints> cap(XMLElementConstraints::createCAP());
  XMLElement element(nullptr, L"platform");
  element.addAttribute(L"xsi:type", L"PlatformMac");
  EXPECT_EQ(XML_ABSTRACT_TYPE_UNKNOWN, platformOf(*cap).checkStart(element));
  EXPECT_EQ("The attribute xsi:type was specified with a non supported value of PlatformMac.",
            takeXMLConstraintMessage());
}

TEST(AbstractConstraints, CloneKeepsTheAbstractBehaviour) {
  XMLElementConstraints base(L"p", 1, 1, nullptr, nullptr,
                             {XMLAttributeConstraints(L"xsi:type", true, nullptr, nullptr)}, {});
  XMLElementConstraints child(L"k", 1, 1, nullptr, nullptr);
  XMLElementConstraints form(L"p", 0, 1, nullptr, nullptr, {}, sequenceOf({&child}));
  XMLAbstractElementConstraints::DerivedForms derived;
  derived.emplace_back(L"T", form);
  XMLAbstractElementConstraints abstract(L"p", 1, 1, base, derived);
  pimpl<XMLElementConstraints> held(abstract);
  pimpl<XMLElementConstraints> copy(held);
  XMLElement element(nullptr, L"p");
  element.addAttribute(L"xsi:type", L"T");
  EXPECT_EQ(XML_OK, copy->checkStart(element));
  EXPECT_EQ(1u, copy->getChildConstraints().size());
  EXPECT_TRUE(held->getChildConstraints().empty());
}

TEST(ElementConstraints, CopyStartsCountingAfresh) {
  XMLElementConstraints a(L"A", 0, 3, nullptr, nullptr);
  XMLElement element(nullptr, L"A");
  EXPECT_EQ(XML_OK, a.checkStart(element));
  EXPECT_EQ(1, a.getCount());
  XMLElementConstraints copy(a);
  EXPECT_EQ(0, copy.getCount());
  EXPECT_EQ(0, copy.getMinOccurrs());
  EXPECT_EQ(3, copy.getMaxOccurrs());
}

TEST(ElementConstraints, EndTagOfAnotherNameIsUnexpected) {
  XMLElementConstraints a(L"A", 0, 3, nullptr, nullptr);
  XMLElement element(nullptr, L"A");
  EXPECT_EQ(XML_UNEXPECTED_TAG, a.checkEnd(element, L"B"));
  EXPECT_EQ("The tag B is unexpected.", takeXMLConstraintMessage());
}

TEST(ElementConstraints, ValueIsCheckedAtTheEndTag) {
  XMLElementConstraints frequency(L"checkFrequency", 0, 1, parsePosIntMod5, nullptr);
  XMLElement element(nullptr, L"checkFrequency");
  element.setValue(L"12", 2);
  EXPECT_EQ(XML_OK, frequency.checkStart(element));
  EXPECT_EQ(XML_VALUE_NOT_ALLOWED, frequency.checkEnd(element, L"checkFrequency"));
  element.setValue(L"15", 2);
  EXPECT_EQ(XML_OK, frequency.checkEnd(element, L"checkFrequency"));
}

TEST(XMLElementTree, CopyIsDeepKeepsTheParentAndSortsAttributes) {
  XMLElement parent(nullptr, L"parent");
  XMLElement element(&parent, L"e");
  element.addAttribute(L"b", L"2");
  element.addAttribute(L"a", L"1");
  element.getChildren().emplace_back(&element, L"child");
  XMLElement copy(element);
  EXPECT_EQ(&parent, copy.getParent());
  EXPECT_EQ(L"a", copy.getAtts().front().first);
  EXPECT_EQ(L"b", element.getAtts().front().first);
  copy.getChildren().front().appendValue(L"x", 1);
  EXPECT_EQ(L"", element.getChildren().front().getValue());
}

TEST(XMLElementTree, AssignmentCopiesNothing) {
  XMLElement target(nullptr, L"target");
  XMLElement source(nullptr, L"source");
  source.setValue(L"text", 4);
  target = source;
  EXPECT_EQ(L"target", target.getName());
  EXPECT_EQ(L"", target.getValue());
}

TEST(XMLElementTree, ValuePiecesAreAppended) {
  XMLElement element(nullptr, L"e");
  element.appendValue(L"ab", 2);
  element.appendValue(L"cdef", 2);
  EXPECT_EQ(L"abcd", element.getValue());
  element.setValue(L"xyz", 1);
  EXPECT_EQ(L"x", element.getValue());
}

TEST(XMLElementTree, EqualTreesCompareEqualWithoutEndlessRecursion) {
  XMLElement first(nullptr, L"root");
  first.getChildren().emplace_back(&first, L"child");
  XMLElement second(nullptr, L"root");
  second.getChildren().emplace_back(&second, L"child");
  EXPECT_TRUE(first == second);
  EXPECT_TRUE(first.getChildren().front() == second.getChildren().front());
  second.getChildren().front().appendValue(L"x", 1);
  EXPECT_FALSE(first == second);
  XMLElement orphan(nullptr, L"child");
  EXPECT_FALSE(orphan == first.getChildren().front());
}

TEST(XMLElementTree, LessNeedsBothNameAndValueSmaller) {
  XMLElement a(nullptr, L"a");
  a.setValue(L"1", 1);
  XMLElement b(nullptr, L"b");
  b.setValue(L"2", 1);
  XMLElement c(nullptr, L"c");
  c.setValue(L"0", 1);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(a < c);
  EXPECT_FALSE(b < a);
}

TEST(XMLElementTree, TreeIsWrittenAsIndentedXml) {
  XMLElement root(nullptr, L"root");
  root.addAttribute(L"id", L"r\u00e9");
  root.getChildren().emplace_back(&root, L"empty");
  root.getChildren().emplace_back(&root, L"text");
  root.getChildren().back().setValue(L"v", 1);
  std::ostringstream out;
  out << root;
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<root "
      "id=\"r\xc3\xa9\">\n\t<empty/>\n\t<text>v</text>\n</root>",
      out.str());
  std::ostringstream nested;
  root.toStream(nested, 1);
  EXPECT_EQ("\n\t<root id=\"r\xc3\xa9\">\n\t\t<empty/>\n\t\t<text>v</text>\n\t</root>", nested.str());
}

TEST(XMLElementTree, ListAndWideTextAreWrittenAsUtf8) {
  XMLElement root(nullptr, L"root");
  root.getChildren().emplace_back(&root, L"a");
  root.getChildren().emplace_back(&root, L"b");
  std::ostringstream out;
  out << root.getChildren();
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<a/>\n<b/>", out.str());
  std::ostringstream text;
  text << std::wstring(L"\u00fc") << L"x";
  EXPECT_EQ("\xc3\xbcx", text.str());
}

TEST(MatchPairFirst, FindsAPairByItsKey) {
  std::list<std::pair<std::wstring, std::wstring>> atts = {{L"a", L"1"}, {L"xsi:type", L"T"}};
  auto found =
      std::find_if(atts.begin(), atts.end(), matchPairFirst<std::wstring, std::wstring>(L"xsi:type"));
  ASSERT_NE(atts.end(), found);
  EXPECT_EQ(L"T", found->second);
  EXPECT_EQ(atts.end(),
            std::find_if(atts.begin(), atts.end(), matchPairFirst<std::wstring, std::wstring>(L"T")));
}

}  // namespace
