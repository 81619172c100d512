#include "cap/qorxml.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <sstream>

#include "cap/qorconv.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

// The explanation of the last violation on this thread; see takeXMLConstraintMessage.
thread_local std::string pendingMessage;

void noteMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void noteMessage(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  pendingMessage = text;
}

// A violation is traced where it is found and kept as the explanation of the
// error the processor is about to record.
#define QOR_XML_VIOLATION(...)    \
  do {                            \
    QOR_TRACE_ERROR(__VA_ARGS__); \
    noteMessage(__VA_ARGS__);     \
  } while (0)

void traceNoMemory() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_ERROR("Unable to allocate memory.");
}

std::list<std::wstring>* copyTable(const XMLValueMap* const* table) {
  if (table == nullptr) return nullptr;
  auto* values = new std::list<std::wstring>();
  for (const XMLValueMap* const* entry = table; *entry != nullptr; ++entry)
    values->push_back((*entry)->getValue());
  return values;
}

template <typename T>
std::unique_ptr<T> copyOf(const std::unique_ptr<T>& source) {
  return source ? std::unique_ptr<T>(new T(*source)) : std::unique_ptr<T>();
}

void writeIndent(std::ostream& out, int depth) {
  out << '\n';
  for (int i = 0; i < depth; ++i) out << '\t';
}

// Reads a signed whole number from the front of the text, the way every
// integer parser of the schema does, and leaves 60 or, when `accepts` takes
// the number, 0. The number is handed out in either case, 0 when none was read.
long parseWhole(const std::wstring& text, int* result, unsigned long* number, bool (*accepts)(long)) {
  std::wistringstream stream(text);
  long num = 0;
  stream >> num;
  if (stream.fail()) num = 0;
  *result = !stream.fail() && accepts(num) ? XML_OK : XML_VALUE_NOT_ALLOWED;
  if (number != nullptr) *number = static_cast<unsigned long>(num);
  return num;
}

bool isPositive(long number) { return number >= 1; }
bool isPositiveMultipleOfFive(long number) { return number >= 5 && number % 5 == 0; }
bool isNonNegative(long number) { return number >= 0; }

}  // namespace

// ---------------------------------------------------------------------------
// XMLElement
//
// A constructor's try block catches what its member initialisers throw; the
// exception is rethrown at the end of the handler, and the members already
// built are freed on the way.

XMLElement::XMLElement() try
    : parent(nullptr),
      name(new std::wstring()),
      value(new std::wstring()),
      atts(new Attributes()),
      children(new Children()) {
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLElement::XMLElement(XMLElement* parent, const wchar_t* name) try
    : parent(parent),
      name(new std::wstring(name)),
      value(new std::wstring()),
      atts(new Attributes()),
      children(new Children()) {
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLElement::XMLElement(const XMLElement& other) try
    : parent(other.parent),
      name(new std::wstring(*other.name)),
      value(new std::wstring(*other.value)),
      atts(new Attributes(*other.atts)),
      children(new Children(*other.children)),
      lineNumber(other.lineNumber),
      columnNumber(other.columnNumber) {
  atts->sort();
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLElement& XMLElement::operator=(const XMLElement& /*other*/) { return *this; }

XMLElement::~XMLElement() = default;

void XMLElement::addAttribute(const wchar_t* attributeName, const wchar_t* attributeValue) {
  atts->push_back(Attribute(attributeName, attributeValue));
}

bool XMLElement::sameParents(const XMLElement& other) const {
  for (const XMLElement *mine = parent, *theirs = other.parent;;
       mine = mine->parent, theirs = theirs->parent) {
    if (mine == theirs) return true;
    if (mine == nullptr || theirs == nullptr) return false;
    if (*mine->name != *theirs->name || *mine->value != *theirs->value || *mine->atts != *theirs->atts)
      return false;
  }
}

bool XMLElement::operator==(const XMLElement& other) const {
  if (this == &other) return true;
  return sameParents(other) && *name == *other.name && *value == *other.value && *atts == *other.atts &&
         *children == *other.children;
}

bool XMLElement::operator<(const XMLElement& other) const {
  return *name < *other.name && *value < *other.value;
}

void XMLElement::write(std::ostream& out, int depth) const {
  writeIndent(out, depth);
  out << '<' << *name;
  for (const Attribute& attribute : *atts) out << ' ' << attribute.first << "=\"" << attribute.second << '"';
  if (children->empty() && value->empty()) {
    out << "/>";
    return;
  }
  out << '>' << *value;
  if (!children->empty()) {
    for (const XMLElement& child : *children) child.write(out, depth + 1);
    writeIndent(out, depth);
  }
  out << "</" << *name << '>';
}

void XMLElement::toStream(std::ostream& out, int depth) const {
  if (depth == 0) out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  write(out, depth);
}

void XMLElement::toStream(std::ostream& out, const Children& elements, int depth) {
  if (depth == 0) out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  for (const XMLElement& element : elements) element.write(out, depth);
}

std::ostream& operator<<(std::ostream& out, const XMLElement& element) {
  element.toStream(out, 0);
  return out;
}

std::ostream& operator<<(std::ostream& out, const XMLElement::Children& elements) {
  XMLElement::toStream(out, elements, 0);
  return out;
}

std::ostream& operator<<(std::ostream& out, const std::wstring& text) { return out << qor_utf8(text); }

std::ostream& operator<<(std::ostream& out, const wchar_t* text) {
  return text == nullptr ? out : out << qor_utf8(std::wstring(text));
}

// ---------------------------------------------------------------------------
// Allowed values and value parsers

const XMLValueMap* findValueMap(const XMLValueMap* const* table, const std::wstring& text) {
  if (table == nullptr) return nullptr;
  for (const XMLValueMap* const* entry = table; *entry != nullptr; ++entry) {
    if ((*entry)->getValue() == text) return *entry;
  }
  return nullptr;
}

void parsePosInt(const std::wstring& text, int* result) { parsePosInt(text, result, nullptr); }

void parsePosInt(const std::wstring& text, int* result, unsigned long* number) {
  QOR_TRACE_FUNCTION();
  long num = parseWhole(text, result, number, isPositive);
  QOR_TRACE_DETAIL("parsePosInt:result:%d:num:%d.", *result, static_cast<int>(num));
}

void parsePosIntMod5(const std::wstring& text, int* result) { parsePosIntMod5(text, result, nullptr); }

void parsePosIntMod5(const std::wstring& text, int* result, unsigned long* number) {
  QOR_TRACE_FUNCTION();
  long num = parseWhole(text, result, number, isPositiveMultipleOfFive);
  QOR_TRACE_DETAIL("parsePosIntMod5:result:%d:num:%d.", *result, static_cast<int>(num));
}

void parseNonNegInt(const std::wstring& text, int* result) { parseNonNegInt(text, result, nullptr); }

void parseNonNegInt(const std::wstring& text, int* result, unsigned long* number) {
  QOR_TRACE_FUNCTION();
  long num = parseWhole(text, result, number, isNonNegative);
  QOR_TRACE_DETAIL("parseNonNegInt:result:%d:num:%d.", *result, static_cast<int>(num));
}

void parseMemorySize(const std::wstring& text, int* result) { parseMemorySize(text, result, nullptr); }

void parseMemorySize(const std::wstring& text, int* result, std::pair<unsigned long, MemoryUnit>* size) {
  QOR_TRACE_FUNCTION();
  *result = XML_VALUE_NOT_ALLOWED;
  MemoryUnit unit = MEM_BYTES;
  std::wistringstream stream(text);
  unsigned long numBytes = 0;
  stream >> numBytes;
  if (stream.fail()) {
    numBytes = 0;
  } else {
    QOR_TRACE_DETAIL("parseMemorySize:numBytes:%d", static_cast<int>(numBytes));
    // Three characters at most: a valid suffix has two, and a third tells
    // that the token is longer than any suffix.
    std::wstring suffix;
    stream.width(3);
    stream >> suffix;
    int numC = static_cast<int>(suffix.size());
    QOR_TRACE_DETAIL("parseMemorySize:numC:%d", numC);
    if (numC == 0) {
      *result = XML_OK;
    } else if (numC == 2 && suffix[1] == L'B') {
      switch (suffix[0]) {
        case L'K':
          unit = MEM_KB;
          *result = XML_OK;
          break;
        case L'M':
          unit = MEM_MB;
          *result = XML_OK;
          break;
        case L'G':
          unit = MEM_GB;
          *result = XML_OK;
          break;
        default:
          break;
      }
    }
  }
  if (size != nullptr) *size = std::make_pair(numBytes, unit);
  QOR_TRACE_DETAIL("parseMemorySize:result:%d:value:%d:unit:%d", *result, static_cast<int>(numBytes),
                   static_cast<int>(unit));
}

std::string takeXMLConstraintMessage() {
  std::string message;
  message.swap(pendingMessage);
  return message;
}

// ---------------------------------------------------------------------------
// XMLConstraints

XMLConstraints::XMLConstraints(const std::wstring& name, XMLValueParser parser,
                               const XMLValueMap* const* table) try
    : name(new std::wstring(name)), values(copyTable(table)), valueParser(parser) {
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLConstraints::XMLConstraints(const XMLConstraints& other) try
    : name(new std::wstring(*other.name)), values(copyOf(other.values)), valueParser(other.valueParser) {
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLConstraints& XMLConstraints::operator=(const XMLConstraints& other) {
  if (this != &other) {
    name.reset(new std::wstring(*other.name));
    values = copyOf(other.values);
    valueParser = other.valueParser;
  }
  return *this;
}

XMLConstraints::~XMLConstraints() = default;

XMLConstraints* XMLConstraints::clone() const { return new XMLConstraints(*this); }

bool XMLConstraints::operator==(const XMLConstraints& other) const {
  if (this == &other) return true;
  bool sameValues = values ? (other.values && *values == *other.values) : !other.values;
  return *name == *other.name && sameValues && valueParser == other.valueParser;
}

int XMLConstraints::checkValue(const std::wstring& checkedName, const std::wstring& value) {
  QOR_TRACE_FUNCTION();
  if (checkedName != *name) return XML_NO_MATCH;
  int result = XML_OK;
  if (valueParser != nullptr) {
    valueParser(value, &result);
    if (result != XML_OK) {
      QOR_XML_VIOLATION("The constraint for %s does not allow a value of :%s.", qor_utf8(*name).c_str(),
                        qor_utf8(value).c_str());
    }
  }
  // Kept: the comparison is exact, so white space around an allowed word rejects the value.
  if (values && std::find(values->begin(), values->end(), value) == values->end()) {
    result = XML_VALUE_NOT_ALLOWED;
    QOR_XML_VIOLATION("The constraint for %s does not allow a value of :%s.", qor_utf8(*name).c_str(),
                      qor_utf8(value).c_str());
  }
  return result;
}

// ---------------------------------------------------------------------------
// XMLElementConstraints

XMLElementConstraints::XMLElementConstraints(const std::wstring& name, int minOccurs, int maxOccurs,
                                             XMLValueParser parser, const XMLValueMap* const* table) try
    : XMLConstraints(name, parser, table),
      minOccurs(minOccurs),
      maxOccurs(maxOccurs),
      attributes(new XMLAttributeConstraintsList()),
      children(new XMLElementConstraintsList()),
      currentChild(children->begin()) {
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLElementConstraints::XMLElementConstraints(const std::wstring& name, int minOccurs, int maxOccurs,
                                             XMLValueParser parser, const XMLValueMap* const* table,
                                             const XMLAttributeConstraintsList& attributes,
                                             const XMLElementConstraintsList& children) try
    : XMLConstraints(name, parser, table),
      minOccurs(minOccurs),
      maxOccurs(maxOccurs),
      attributes(new XMLAttributeConstraintsList(attributes)),
      children(new XMLElementConstraintsList(children)),
      currentChild(this->children->begin()) {
  this->attributes->sort();
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLElementConstraints::XMLElementConstraints(const XMLElementConstraints& other) try
    : XMLConstraints(other),
      minOccurs(other.minOccurs),
      maxOccurs(other.maxOccurs),
      attributes(new XMLAttributeConstraintsList(*other.attributes)),
      children(new XMLElementConstraintsList(*other.children)),
      currentChild(children->begin()) {
  attributes->sort();
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLElementConstraints& XMLElementConstraints::operator=(const XMLElementConstraints& other) {
  if (this != &other) {
    XMLConstraints::operator=(other);
    minOccurs = other.minOccurs;
    maxOccurs = other.maxOccurs;
    attributes.reset(new XMLAttributeConstraintsList(*other.attributes));
    attributes->sort();
    children.reset(new XMLElementConstraintsList(*other.children));
    currentChild = children->begin();
  }
  return *this;
}

XMLElementConstraints::~XMLElementConstraints() = default;

XMLElementConstraints* XMLElementConstraints::clone() const { return new XMLElementConstraints(*this); }

void XMLElementConstraints::addConstraints(const XMLElementConstraints& other) {
  attributes->insert(attributes->end(), other.attributes->begin(), other.attributes->end());
  children->insert(children->end(), other.children->begin(), other.children->end());
}

void XMLElementConstraints::clearConstraints() {
  attributes->clear();
  children->clear();
  currentChild = children->begin();
}

int XMLElementConstraints::checkStartLevel(XMLElement& element, XMLElementConstraints** matched) {
  QOR_TRACE_FUNCTION();
  int result = XML_NO_MATCH;
  // A child that cannot take the element is passed for good.
  for (; currentChild != children->end(); ++currentChild) {
    result = (*currentChild)->checkStart(element);
    if (result != XML_NO_MATCH) break;
  }
  if (result == XML_NO_MATCH) {
    result = XML_UNEXPECTED_TAG;
    QOR_XML_VIOLATION("The tag %s is unexpected.", qor_utf8(element.getName()).c_str());
  }
  if (matched != nullptr) *matched = currentChild != children->end() ? &**currentChild : nullptr;
  return result;
}

int XMLElementConstraints::checkStart(XMLElement& element) {
  QOR_TRACE_FUNCTION();
  if (element.getName() != getName()) {
    // Another element: this one is done, and its occurrences must hold.
    int result = checkConstraints();
    return result != XML_OK ? result : XML_NO_MATCH;
  }

  int result = initOnMatchStart(element);
  ++count;
  if (count > maxOccurs) {
    result = XML_MAX_OCCURS_EXCEEDED;
    QOR_XML_VIOLATION("The maxiumum occurrences constraint for %s has been exceeded.",
                      qor_utf8(getName()).c_str());
  }

  // One forward pass over two lists sorted by name: an attribute that sorts
  // before the constraint in hand has no constraint, and a required constraint
  // that sorts before the attribute in hand was left out.
  auto constraint = attributes->begin();
  for (auto attribute = element.getAtts().begin(); result == XML_OK && attribute != element.getAtts().end();
       ++attribute) {
    result = XML_NO_MATCH;
    for (; constraint != attributes->end() && result == XML_NO_MATCH; ++constraint) {
      result = constraint->checkValue(attribute->first, attribute->second);
      if (result != XML_NO_MATCH) continue;
      if (attribute->first < constraint->getName()) {
        result = XML_ATTRIBUTE_NOT_ALLOWED;
        QOR_XML_VIOLATION("The attribute %s is not allowed.", qor_utf8(attribute->first).c_str());
      } else if (constraint->isRequired()) {
        result = XML_ATTRIBUTE_MISSING;
        QOR_XML_VIOLATION("The required attribute %s is missing.", qor_utf8(constraint->getName()).c_str());
      }
    }
    if (result == XML_NO_MATCH) {
      result = XML_ATTRIBUTE_NOT_ALLOWED;
      QOR_XML_VIOLATION("The attribute %s is not allowed.", qor_utf8(attribute->first).c_str());
    }
  }
  for (; result == XML_OK && constraint != attributes->end(); ++constraint) {
    if (constraint->isRequired()) {
      result = XML_ATTRIBUTE_MISSING;
      QOR_XML_VIOLATION("The required attribute %s is missing.", qor_utf8(constraint->getName()).c_str());
    }
  }
  return result;
}

int XMLElementConstraints::initOnMatchStart(XMLElement& /*element*/) {
  // Each occurrence of a repeated element starts its children's sequence anew.
  currentChild = children->begin();
  return XML_OK;
}

int XMLElementConstraints::checkEnd(XMLElement& element, const wchar_t* endName) {
  QOR_TRACE_FUNCTION();
  int result = XML_OK;
  if (getName() != endName) {
    result = XML_UNEXPECTED_TAG;
    QOR_XML_VIOLATION("The tag %s is unexpected.", qor_utf8(endName).c_str());
  } else {
    for (auto child = currentChild; result == XML_OK && child != children->end(); ++child) {
      result = (*child)->checkConstraints();
    }
    if (result == XML_OK) result = checkValue(element.getName(), element.getValue());
  }
  // The next occurrence starts clean; this constraint's own count stays for
  // the parent's test of its maximum.
  currentChild = children->begin();
  for (pimpl<XMLElementConstraints>& child : *children) child->reset();
  return result;
}

int XMLElementConstraints::checkConstraints() {
  QOR_TRACE_FUNCTION();
  if (count < minOccurs) {
    QOR_XML_VIOLATION("The minimum occurrences constraint for %s has not been met.",
                      qor_utf8(getName()).c_str());
    return XML_MIN_OCCURS_NOT_MET;
  }
  if (count > maxOccurs) {
    QOR_XML_VIOLATION("The maxiumum occurrences constraint for %s has been exceeded.",
                      qor_utf8(getName()).c_str());
    return XML_MAX_OCCURS_EXCEEDED;
  }
  return XML_OK;
}

void XMLElementConstraints::reset() {
  for (pimpl<XMLElementConstraints>& child : *children) child->reset();
  currentChild = children->begin();
  count = 0;
}

// ---------------------------------------------------------------------------
// XMLAbstractElementConstraints

XMLAbstractElementConstraints::XMLAbstractElementConstraints(const std::wstring& name, int minOccurs,
                                                             int maxOccurs, const XMLElementConstraints& base,
                                                             const DerivedForms& derived) try
    : XMLElementConstraints(name, minOccurs, maxOccurs, nullptr, nullptr), base(base), derived(derived) {
} catch (const std::bad_alloc&) {
  traceNoMemory();
}

XMLAbstractElementConstraints* XMLAbstractElementConstraints::clone() const {
  return new XMLAbstractElementConstraints(*this);
}

int XMLAbstractElementConstraints::initOnMatchStart(XMLElement& element) {
  QOR_TRACE_FUNCTION();
  static const std::wstring XSI_TYPE = L"xsi:type";
  const XMLElement::Attributes& atts = element.getAtts();
  auto type = std::find_if(atts.begin(), atts.end(), matchPairFirst<std::wstring, std::wstring>(XSI_TYPE));
  if (type == atts.end()) {
    QOR_XML_VIOLATION("The attribute %s is required for abstract structures.", qor_utf8(XSI_TYPE).c_str());
    return XML_ATTRIBUTE_MISSING;
  }
  auto form = std::find_if(derived.begin(), derived.end(),
                           matchPairFirst<std::wstring, XMLElementConstraints>(type->second));
  if (form == derived.end()) {
    QOR_XML_VIOLATION("The attribute %s was specified with a non supported value of %s.",
                      qor_utf8(XSI_TYPE).c_str(), qor_utf8(type->second).c_str());
    return XML_ABSTRACT_TYPE_UNKNOWN;
  }
  clearConstraints();
  addConstraints(base);
  addConstraints(form->second);
  sortConstraints();
  QOR_TRACE_DETAIL(
      "XMLAbstractElementConstraints::initOnMatchStart:Substituting derived structure %s for abstract "
      "structure %s .",
      qor_utf8(type->second).c_str(), qor_utf8(getName()).c_str());
  return XMLElementConstraints::initOnMatchStart(element);
}
