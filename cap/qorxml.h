// The streaming validator of CAP files: the parsed element tree (XMLElement), a
// tree of constraints that says which elements may follow each other, how often,
// with which attributes and values (XMLConstraints and its subclasses), and the
// value parsers. The CAP file processor drives it from the expat callbacks.
// A constraint tree and an element tree are used by one thread at a time.
#ifndef QOR_CAP_QORXML_H
#define QOR_CAP_QORXML_H

#include <list>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "cap/qorconv.h"
#include "cap/qorpol.h"

// Result codes of the XML work: of the constraint checks, of a parse of a CAP
// file and of its mapping into a Policy. Any other positive code is expat's own
// (an XML_Error of expat.h, all below 45). The numbers are shown to the people who
// write CAP files and must not change.
enum : int {
  XML_NO_PLATFORM_MATCH = -1000,                 // no subagent is meant for this platform
  XML_NO_MATCH = -1,                             // no match here: try the next candidate
  XML_OK = 0,                                    // accepted
  XML_NO_READ_BUFFER = 45,                       // expat gave no buffer to read into
  XML_OPEN_FAILED = 46,                          // the file could not be opened
  XML_READ_FAILED = 47,                          // the stream failed while reading
  XML_CONVERSION_FAILED = QOR_CONVERSION_ERROR,  // 48: a name or text was not valid UTF-8
  XML_MAX_OCCURS_EXCEEDED = 55,                  // too many occurrences
  XML_MIN_OCCURS_NOT_MET = 56,                   // a required element did not come
  XML_UNEXPECTED_TAG = 57,                       // an element out of place
  XML_ATTRIBUTE_NOT_ALLOWED = 59,                // an unknown attribute (58 is not used)
  XML_VALUE_NOT_ALLOWED = 60,                    // a value outside the constraint
  XML_ATTRIBUTE_MISSING = 61,                    // a required attribute did not come
  XML_ABSTRACT_TYPE_UNKNOWN = 62,                // an xsi:type without a derived form
  XML_HANDLER_EXCEPTION = 63,                    // an exception was caught in a handler
  XML_BAD_REGEX = 70,                            // a commandLine regular expression does not compile
};

// One parsed element. Copies are deep, except assignment, which copies nothing.
class XMLElement {
 public:
  using Attribute = std::pair<std::wstring, std::wstring>;
  using Attributes = std::list<Attribute>;
  using Children = std::list<XMLElement>;

  XMLElement();
  XMLElement(XMLElement* parent, const wchar_t* name);
  // Deep for texts and lists, keeps the parent pointer, and sorts the copy's
  // attributes.
  XMLElement(const XMLElement& other);
  // Kept: assignment copies nothing; elements are copied into lists, never assigned over each other.
  XMLElement& operator=(const XMLElement& other);
  virtual ~XMLElement();

  // Appends; a duplicate name is expat's to reject, not this tree's.
  void addAttribute(const wchar_t* name, const wchar_t* value);
  void sortAttributes() { atts->sort(); }
  void setValue(const wchar_t* text, int length) { value->assign(text, static_cast<size_t>(length)); }
  void appendValue(const wchar_t* text, int length) { value->append(text, static_cast<size_t>(length)); }

  XMLElement* getParent() const { return parent; }
  const std::wstring& getName() const { return *name; }
  const std::wstring& getValue() const { return *value; }
  Attributes& getAtts() { return *atts; }
  const Attributes& getAtts() const { return *atts; }
  Children& getChildren() { return *children; }
  const Children& getChildren() const { return *children; }

  // Where the element's start tag stands in its file (line from 1, column from
  // 0, as expat counts), for messages about the element; 0 when not parsed.
  void setPosition(int line, int column) {
    lineNumber = line;
    columnNumber = column;
  }
  int getLineNumber() const { return lineNumber; }
  int getColumnNumber() const { return columnNumber; }

  // Equal parents, names, values, attributes and children. Parents are compared
  // up the chain only, so that two equal trees never compare each other forever.
  bool operator==(const XMLElement& other) const;
  bool operator!=(const XMLElement& other) const { return !(*this == other); }
  // True only when both the name and the value are smaller.
  bool operator<(const XMLElement& other) const;

  // The tree as XML text in UTF-8, for diagnostics; depth 0 starts with the
  // XML declaration.
  void toStream(std::ostream& out, int depth) const;
  static void toStream(std::ostream& out, const Children& elements, int depth);

 private:
  void write(std::ostream& out, int depth) const;
  bool sameParents(const XMLElement& other) const;

  XMLElement* parent;
  std::unique_ptr<std::wstring> name;
  std::unique_ptr<std::wstring> value;
  std::unique_ptr<Attributes> atts;
  std::unique_ptr<Children> children;
  int lineNumber = 0;
  int columnNumber = 0;
};

std::ostream& operator<<(std::ostream& out, const XMLElement& element);
std::ostream& operator<<(std::ostream& out, const XMLElement::Children& elements);
std::ostream& operator<<(std::ostream& out, const std::wstring& text);
std::ostream& operator<<(std::ostream& out, const wchar_t* text);

// One allowed value, and the two forms that carry the enumerator of their text.
// Tables of them are null-terminated arrays built once and kept to the end.
class XMLValueMap {
 public:
  explicit XMLValueMap(const wchar_t* text) : value(text) {}
  virtual ~XMLValueMap() = default;
  const std::wstring& getValue() const { return value; }

 private:
  std::wstring value;
};

class XMLValueMap_AgentType : public XMLValueMap {
 public:
  XMLValueMap_AgentType(const wchar_t* text, AgentType type) : XMLValueMap(text), type(type) {}
  AgentType getType() const { return type; }

 private:
  AgentType type;
};

class XMLValueMap_ManagerType : public XMLValueMap {
 public:
  XMLValueMap_ManagerType(const wchar_t* text, ManagerType type) : XMLValueMap(text), type(type) {}
  ManagerType getType() const { return type; }

 private:
  ManagerType type;
};

// The entry of a null-terminated table whose text equals `text`, or null.
const XMLValueMap* findValueMap(const XMLValueMap* const* table, const std::wstring& text);

// A value parser: validates a text and leaves a result code, XML_OK or
// XML_VALUE_NOT_ALLOWED.
using XMLValueParser = void (*)(const std::wstring& text, int* result);

// Parsers of whole numbers read from the front of the text. The out-value is
// written also when the text is rejected.
// Kept: what follows the number is ignored, so "12abc" is accepted as 12.
void parsePosInt(const std::wstring& text, int* result);
void parsePosInt(const std::wstring& text, int* result, unsigned long* number);
void parsePosIntMod5(const std::wstring& text, int* result);
void parsePosIntMod5(const std::wstring& text, int* result, unsigned long* number);
void parseNonNegInt(const std::wstring& text, int* result);
void parseNonNegInt(const std::wstring& text, int* result, unsigned long* number);
// A number with no suffix (bytes) or "KB", "MB", "GB", a blank allowed between.
void parseMemorySize(const std::wstring& text, int* result);
void parseMemorySize(const std::wstring& text, int* result, std::pair<unsigned long, MemoryUnit>* size);

// The explanation of the last violation found by a check on this thread, taken
// once: the file processor attaches it to the error it records.
std::string takeXMLConstraintMessage();

// Base of all constraints: a name, the allowed values (none: any value) and a
// parser for the value.
class XMLConstraints {
 public:
  XMLConstraints(const std::wstring& name, XMLValueParser parser, const XMLValueMap* const* table);
  XMLConstraints(const XMLConstraints& other);
  XMLConstraints& operator=(const XMLConstraints& other);
  virtual ~XMLConstraints();
  virtual XMLConstraints* clone() const;

  // XML_NO_MATCH when `name` is not this constraint's; else XML_OK or
  // XML_VALUE_NOT_ALLOWED for the value.
  virtual int checkValue(const std::wstring& name, const std::wstring& value);

  const std::wstring& getName() const { return *name; }
  bool operator<(const XMLConstraints& other) const { return *name < *other.name; }
  bool operator==(const XMLConstraints& other) const;

 private:
  std::unique_ptr<std::wstring> name;
  std::unique_ptr<std::list<std::wstring>> values;  // null: any value
  XMLValueParser valueParser;
};

class XMLAttributeConstraints : public XMLConstraints {
 public:
  XMLAttributeConstraints(const std::wstring& name, bool required, XMLValueParser parser,
                          const XMLValueMap* const* table)
      : XMLConstraints(name, parser, table), required(required) {}
  bool isRequired() const { return required; }
  bool operator==(const XMLAttributeConstraints& other) const {
    return required == other.required && XMLConstraints::operator==(other);
  }

 private:
  bool required;
};

// An owning holder that copies by clone, so that a list of them is a list of
// deep copies that keep their dynamic type.
template <typename T>
class pimpl {
 public:
  explicit pimpl(const T& source) : held(source.clone()) {}
  pimpl(const pimpl& other) : held(other.held->clone()) {}
  pimpl& operator=(const pimpl& other) {
    if (this != &other) {
      T* copy = other.held->clone();
      delete held;
      held = copy;
    }
    return *this;
  }
  virtual ~pimpl() { delete held; }
  T* operator->() const { return held; }
  T& operator*() const { return *held; }

 private:
  T* held;
};

// True for a pair whose first member equals the key.
template <typename K, typename V>
class matchPairFirst {
 public:
  explicit matchPairFirst(const K& key) : key(key) {}
  bool operator()(const std::pair<K, V>& pair) const { return pair.first == key; }

 private:
  K key;
};

class XMLElementConstraints;
using XMLElementConstraintsList = std::list<pimpl<XMLElementConstraints>>;
using XMLAttributeConstraintsList = std::list<XMLAttributeConstraints>;

// An element's place in its parent's sequence: its occurrences, its attributes
// (kept sorted by name) and the sequence of its children, with the streaming
// position in it. The count and position change while a file is parsed.
class XMLElementConstraints : public XMLConstraints {
 public:
  XMLElementConstraints(const std::wstring& name, int minOccurs, int maxOccurs, XMLValueParser parser,
                        const XMLValueMap* const* table);
  XMLElementConstraints(const std::wstring& name, int minOccurs, int maxOccurs, XMLValueParser parser,
                        const XMLValueMap* const* table, const XMLAttributeConstraintsList& attributes,
                        const XMLElementConstraintsList& children);
  // Copies start with count 0 and at the first child.
  XMLElementConstraints(const XMLElementConstraints& other);
  XMLElementConstraints& operator=(const XMLElementConstraints& other);
  ~XMLElementConstraints() override;
  XMLElementConstraints* clone() const override;

  int getMinOccurrs() const { return minOccurs; }
  int getMaxOccurrs() const { return maxOccurs; }
  int getCount() const { return count; }
  const XMLAttributeConstraintsList& getAttributeConstraints() const { return *attributes; }
  const XMLElementConstraintsList& getChildConstraints() const { return *children; }

  // Appends the other's attributes and children to this one's lists.
  void addConstraints(const XMLElementConstraints& other);
  void sortConstraints() { attributes->sort(); }
  void clearConstraints();

  // On the parent's constraint: matches `element` against the children from the
  // current position on. `matched` receives the matching child, or null with
  // XML_UNEXPECTED_TAG.
  int checkStartLevel(XMLElement& element, XMLElementConstraints** matched);
  // On a child constraint: -1 when `element` is not this one and may be passed.
  int checkStart(XMLElement& element);
  virtual int initOnMatchStart(XMLElement& element);
  // On the constraint of the element being closed: the children that never
  // came, then the element's value.
  int checkEnd(XMLElement& element, const wchar_t* name);
  int checkConstraints();
  void reset();

  // The whole CAP schema; the caller owns the result.
  static XMLElementConstraints* createCAP();

 private:
  int minOccurs;
  int maxOccurs;
  int count = 0;
  std::unique_ptr<XMLAttributeConstraintsList> attributes;
  std::unique_ptr<XMLElementConstraintsList> children;
  XMLElementConstraintsList::iterator currentChild;
};

// An element whose content depends on its xsi:type: until an element is matched
// it has no attributes and children of its own; the match puts the common base
// and the derived form of that type in place.
class XMLAbstractElementConstraints : public XMLElementConstraints {
 public:
  using DerivedForm = std::pair<std::wstring, XMLElementConstraints>;
  using DerivedForms = std::list<DerivedForm>;

  XMLAbstractElementConstraints(const std::wstring& name, int minOccurs, int maxOccurs,
                                const XMLElementConstraints& base, const DerivedForms& derived);
  XMLAbstractElementConstraints(const XMLAbstractElementConstraints& other) = default;
  XMLAbstractElementConstraints* clone() const override;
  int initOnMatchStart(XMLElement& element) override;

 private:
  XMLElementConstraints base;
  DerivedForms derived;
};

#endif  // QOR_CAP_QORXML_H
