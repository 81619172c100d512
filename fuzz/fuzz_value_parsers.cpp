// Fuzz target: the value parsers of the CAP format and the allowed-value tables.
// The first byte chooses what is tried and how the rest becomes text: through
// the UTF-8 conversion that expat's text goes through, or byte by byte. Stops
// the run (trap) when a parser leaves a code other than 0 or 60, when its two
// forms disagree, when it accepts a number its rule refuses, or when a table's
// checkValue disagrees with a plain search of the table.
#include <cstddef>
#include <cstdint>
#include <string>

#include "cap/qorcapschema.h"
#include "cap/qorxml.h"
#include "fuzz/fuzzenv.h"

namespace {

bool isCode(int result) { return result == XML_OK || result == XML_VALUE_NOT_ALLOWED; }

struct WholeNumberParser {
  void (*twoArguments)(const std::wstring&, int*);
  void (*threeArguments)(const std::wstring&, int*, unsigned long*);
  bool (*rule)(long);
};

const WholeNumberParser WHOLE_NUMBER_PARSERS[] = {
    {parsePosInt, parsePosInt, [](long n) { return n >= 1; }},
    {parsePosIntMod5, parsePosIntMod5, [](long n) { return n >= 5 && n % 5 == 0; }},
    {parseNonNegInt, parseNonNegInt, [](long n) { return n >= 0; }},
};

void tryWholeNumber(const WholeNumberParser& parser, const std::wstring& text, int selector) {
  int shortResult = -2;
  parser.twoArguments(text, &shortResult);
  int result = -2;
  unsigned long number = 12345;
  parser.threeArguments(text, &result, &number);
  if (!isCode(result)) qorfuzz::stop("a whole-number parser left an undefined code", selector);
  if (result != shortResult) qorfuzz::stop("the two forms of a whole-number parser disagree", selector);
  if (result == XML_OK && !parser.rule(static_cast<long>(number)))
    qorfuzz::stop("a whole-number parser accepted a number its rule refuses", selector);
  // The schema's constraints run the two-argument form through checkValue.
  XMLConstraints constraint(L"value", parser.twoArguments, nullptr);
  if (constraint.checkValue(L"value", text) != result)
    qorfuzz::stop("checkValue disagrees with its parser", selector);
}

void tryMemorySize(const std::wstring& text, int selector) {
  int shortResult = -2;
  parseMemorySize(text, &shortResult);
  int result = -2;
  std::pair<unsigned long, MemoryUnit> size(12345, static_cast<MemoryUnit>(7));
  parseMemorySize(text, &result, &size);
  if (!isCode(result)) qorfuzz::stop("parseMemorySize left an undefined code", selector);
  if (result != shortResult) qorfuzz::stop("the two forms of parseMemorySize disagree", selector);
  bool knownUnit =
      size.second == MEM_BYTES || size.second == MEM_KB || size.second == MEM_MB || size.second == MEM_GB;
  if (!knownUnit) qorfuzz::stop("parseMemorySize gave an unknown unit", selector);
  if (result != XML_OK && size.second != MEM_BYTES) qorfuzz::stop("a refused size carries a unit", selector);
}

const XMLValueMap* const* const TABLES[] = {
    ELEMENT_VALUES_AGENTTYPE,
    ELEMENT_VALUES_MANAGERTYPE,
    ELEMENT_VALUES_OSNAME,
    ATTRIBUTE_VALUES_XSI_TYPE_PLATFORMS,
    ATTRIBUTE_VALUES_XMLNS,
    ATTRIBUTE_VALUES_XMLNS_XSI,
    ATTRIBUTE_VALUES_XSI_SCHEMALOCATION,
    ATTRIBUTE_VALUES_TYPE,
    ATTRIBUTE_VALUES_ARCH,
};
constexpr int TABLE_COUNT = static_cast<int>(sizeof TABLES / sizeof TABLES[0]);

void tryTable(int index, const std::wstring& text, int selector) {
  const XMLValueMap* const* table = TABLES[index];
  XMLConstraints constraint(L"name", nullptr, table);
  const XMLValueMap* entry = findValueMap(table, text);
  int expected = entry != nullptr ? XML_OK : XML_VALUE_NOT_ALLOWED;
  if (constraint.checkValue(L"name", text) != expected)
    qorfuzz::stop("checkValue disagrees with its table", selector);
  if (constraint.checkValue(text + L"x", text) != XML_NO_MATCH)
    qorfuzz::stop("checkValue matched another name", selector);
  if (entry == nullptr) return;
  if (table == ELEMENT_VALUES_AGENTTYPE) {
    int type = static_cast<const XMLValueMap_AgentType*>(entry)->getType();
    if (type < ZEL_UNIX || type > ZEL_Windows)
      qorfuzz::stop("an agent type outside its enumeration", selector);
  } else if (table == ELEMENT_VALUES_MANAGERTYPE) {
    int type = static_cast<const XMLValueMap_ManagerType*>(entry)->getType();
    if (type < NotManaged || type > External)
      qorfuzz::stop("a manager type outside its enumeration", selector);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  qorfuzz::setFixedEnvironment();
  return 0;
}

// Selector: bit 7 picks the UTF-8 conversion; the low bits pick the parser,
// or one of the tables.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  int selector = data[0];
  std::wstring text =
      qorfuzz::wideText(reinterpret_cast<const char*>(data + 1), size - 1, (selector & 0x80) != 0);
  int choice = (selector & 0x7f) % (4 + TABLE_COUNT);
  if (choice < 3) {
    tryWholeNumber(WHOLE_NUMBER_PARSERS[choice], text, selector);
  } else if (choice == 3) {
    tryMemorySize(text, selector);
  } else {
    tryTable(choice - 4, text, selector);
  }
  return 0;
}
