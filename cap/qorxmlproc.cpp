#include "cap/qorxmlproc.h"

#include <cxxabi.h>
#include <sys/stat.h>
#include <unicode/regex.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <new>
#include <vector>

#include "cap/qorcapschema.h"
#include "cap/qorconv.h"
#include "platform/log1.h"
#include "watchdog/qorunx.h"

QOR_TRACE_UNIT();

namespace {

constexpr int NAME_UNITS = 128;

// Converts expat's UTF-8 into wide text, in a stack buffer when the text fits.
class WideText {
 public:
  WideText(const char* utf8, int length) {
    text.adopt(qor_u_strFromUTF8(text.buffer(), text.capacity(), &textLength, utf8, length, &error));
  }

  bool ok() const { return error == 0 && text.get() != nullptr; }
  int code() const { return error != 0 ? error : XML_CONVERSION_FAILED; }
  const wchar_t* get() const { return text.get(); }
  int length() const { return textLength; }

 private:
  ConvertedText<wchar_t, NAME_UNITS> text;
  int textLength = 0;
  int error = 0;
};

qor_xml_userdata_t* userDataOf(void* userData) { return static_cast<qor_xml_userdata_t*>(userData); }

const char* orEmpty(const char* text) { return text != nullptr ? text : ""; }

// What a user is told about errors whose traces do not explain them.
std::string explanationOf(int code) {
  switch (code) {
    case XML_CONVERSION_FAILED:
      return "A name or text of the document could not be converted from UTF-8.";
    case XML_HANDLER_EXCEPTION:
      return "An unexpected exception while processing the document.";
    default:
      return std::string("Error ") + std::to_string(code) + " while processing the document.";
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// XMLErrorInfo

void XMLErrorInfo::setError(int code, XML_Parser parser, const std::wstring& fileName) {
  QOR_TRACE_FUNCTION();
  std::string explanation = takeXMLConstraintMessage();
  long byte = static_cast<long>(XML_GetCurrentByteIndex(parser));
  int line = static_cast<int>(XML_GetCurrentLineNumber(parser));
  int column = static_cast<int>(XML_GetCurrentColumnNumber(parser));
  if (code < XML_MAX_OCCURS_EXCEEDED || code > XML_ABSTRACT_TYPE_UNKNOWN || explanation.empty()) {
    explanation = explanationOf(code);
  }
  recordError(code, byte, line, column, explanation);
  QOR_TRACE_ERROR("Error %d parsing xml file %s.", code, qor_utf8(fileName).c_str());
  QOR_TRACE_ERROR("Error parsing buffer at byte %d, line %d and column %d", static_cast<int>(byte), line,
                  column);
  XML_SetElementHandler(parser, nullptr, nullptr);
  XML_SetCharacterDataHandler(parser, nullptr);
  XML_SetXmlDeclHandler(parser, nullptr);
}

void XMLErrorInfo::recordError(int code, long byte, int line, int column, const std::string& text) {
  if (error) return;
  error = true;
  errorCode = code;
  byteIndex = byte;
  lineNumber = line;
  columnNumber = column;
  errorText = text;
}

// ---------------------------------------------------------------------------
// The expat handlers. None lets an exception into expat: a failure becomes
// XML_HANDLER_EXCEPTION. The unwinding of a cancelled thread is let through.

void qorStartElement(void* userData, const XML_Char* name, const XML_Char** atts) {
  QOR_TRACE_FUNCTION();
  qor_xml_userdata_t* data = userDataOf(userData);
  try {
    QOR_TRACE_DETAIL("qorStartElement():inName:%s", name);
    for (const XML_Char** att = atts; *att != nullptr; ++att)
      QOR_TRACE_DETAIL("qorStartElement():atts:%s", *att);

    WideText wideName(name, -1);
    if (!wideName.ok()) {
      data->errorInfo.setError(wideName.code(), data->parser, *data->fileName);
      return;
    }
    XMLElement* parent = data->currentElement;
    parent->getChildren().emplace_back(parent, wideName.get());
    XMLElement* element = &parent->getChildren().back();
    element->setPosition(static_cast<int>(XML_GetCurrentLineNumber(data->parser)),
                         static_cast<int>(XML_GetCurrentColumnNumber(data->parser)));
    data->currentElement = element;

    if (atts[0] != nullptr) {
      // Kept: an attribute that cannot be converted ends the list unreported; the checks see it as absent.
      for (const XML_Char** att = atts; att[0] != nullptr && att[1] != nullptr; att += 2) {
        WideText attName(att[0], -1);
        WideText attValue(att[1], -1);
        if (!attName.ok() || !attValue.ok()) break;
        element->addAttribute(attName.get(), attValue.get());
      }
      element->sortAttributes();
    }

    XMLElementConstraints* matched = nullptr;
    XMLElementConstraints* level = data->constraintStack->top();
    int result = level != nullptr ? level->checkStartLevel(*element, &matched) : XML_UNEXPECTED_TAG;
    if (result != XML_OK) data->errorInfo.setError(result, data->parser, *data->fileName);
    data->constraintStack->push(matched);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    QOR_TRACE_ERROR("An unexpected exception while processing the document.");
    data->errorInfo.setError(XML_HANDLER_EXCEPTION, data->parser, *data->fileName);
  }
}

void qorEndElement(void* userData, const XML_Char* name) {
  QOR_TRACE_FUNCTION();
  qor_xml_userdata_t* data = userDataOf(userData);
  try {
    QOR_TRACE_DETAIL("qorEndElement():inName:%s", name);
    XMLElementConstraints* constraint = data->constraintStack->top();
    WideText wideName(name, -1);
    int result = XML_OK;
    if (!wideName.ok()) {
      result = wideName.code();
    } else if (constraint != nullptr) {
      result = constraint->checkEnd(*data->currentElement, wideName.get());
    }
    if (result != XML_OK) data->errorInfo.setError(result, data->parser, *data->fileName);
    data->constraintStack->pop();
    data->currentElement = data->currentElement->getParent();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    QOR_TRACE_ERROR("An unexpected exception while processing the document.");
    data->errorInfo.setError(XML_HANDLER_EXCEPTION, data->parser, *data->fileName);
  }
}

void qorCharacterDataHandlerCopy(void* userData, const XML_Char* text, int length) {
  QOR_TRACE_FUNCTION();
  qor_xml_userdata_t* data = userDataOf(userData);
  try {
    QOR_TRACE_DETAIL("qorCharacterDataHandlerCopy:len:%d:s<%.*s>", length, length, text);
    WideText wide(text, length);
    // Kept: text that cannot be converted is dropped without an error.
    if (wide.ok()) data->currentElement->appendValue(wide.get(), wide.length());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    QOR_TRACE_ERROR("An unexpected exception while processing the document.");
    data->errorInfo.setError(XML_HANDLER_EXCEPTION, data->parser, *data->fileName);
  }
}

void qorCharacterDataHandlerIgnore(void* /*userData*/, const XML_Char* text, int length) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("qorCharacterDataHandlerIgnore:len:%d:s<%.*s>", length, length, text);
}

void qorXmlDeclHandler(void* /*userData*/, const XML_Char* version, const XML_Char* encoding,
                       int /*standalone*/) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("qorXmlDeclHandler:version:<%s>", orEmpty(version));
  QOR_TRACE_DETAIL("qorXmlDeclHandler:encoding:<%s>", orEmpty(encoding));
}

// ---------------------------------------------------------------------------
// XMLprocessor

XMLprocessor::XMLprocessor() : parser(nullptr), constraints(nullptr) { create(); }

XMLprocessor::XMLprocessor(const char* /*unused*/) : XMLprocessor() {}

XMLprocessor::~XMLprocessor() { freeMemory(); }

void XMLprocessor::create() {
  QOR_TRACE_FUNCTION();
  try {
    parser = XML_ParserCreate(nullptr);
    if (parser == nullptr) {
      QOR_TRACE_ERROR("Could not create XML parser.");
      throw std::bad_alloc();
    }
    constraints = XMLElementConstraints::createCAP();
  } catch (const std::bad_alloc&) {
    QOR_TRACE_ERROR("Could not allocate memory.");
    freeMemory();
    throw;
  }
}

void XMLprocessor::freeMemory() {
  if (parser != nullptr) XML_ParserFree(parser);
  parser = nullptr;
  delete constraints;
  constraints = nullptr;
}

int XMLprocessor::parse(const std::wstring& path, XMLElement& top) {
  QOR_TRACE_FUNCTION();
  // The steps trace under parse's name, whichever writes the line.
  const LOG1_Context trace = QOR_TRACE_CONTEXT();
  qor_xml_userdata_t userData{};
  std::ifstream stream;
  std::wstring fileName;
  std::stack<XMLElementConstraints*> constraintStack;
  setUpParser(path, top, fileName, constraintStack, userData);

  int result = XML_OK;
  try {
    std::vector<char> narrowPath;
    if (!narrowFileName(path, narrowPath, trace)) return QOR_TRACE_RETURN(XML_OPEN_FAILED);
    result = openFile(path, narrowPath, stream, trace);
    result = feedFile(path, stream, userData, result, trace);
  } catch (...) {
    QOR_TRACE_ERROR("Error processing document.");
    XML_SetUserData(parser, nullptr);
    throw;
  }
  stream.close();
  XML_SetUserData(parser, nullptr);
  return QOR_TRACE_RETURN(result);
}

// Forgets the last parse and readies the parser and the constraint tree for a
// new one into `top`, with the user data that the handlers work on.
void XMLprocessor::setUpParser(const std::wstring& path, XMLElement& top, std::wstring& fileName,
                               std::stack<XMLElementConstraints*>& constraintStack,
                               qor_xml_userdata_t& userData) {
  lastError = XMLErrorInfo();
  takeXMLConstraintMessage();  // nothing of an earlier parse explains this one

  XML_ParserReset(parser, nullptr);
  constraints->reset();

  fileName = path;
  constraintStack.push(constraints);
  userData.parser = parser;
  userData.fileName = &fileName;
  userData.currentElement = &top;
  userData.constraintStack = &constraintStack;
  XML_SetUserData(parser, &userData);
  XML_SetElementHandler(parser, qorStartElement, qorEndElement);
  XML_SetCharacterDataHandler(parser, qorCharacterDataHandlerCopy);
  XML_SetXmlDeclHandler(parser, qorXmlDeclHandler);
}

// The file name in this locale's narrow form, for opening; false when the
// locale cannot spell it.
bool XMLprocessor::narrowFileName(const std::wstring& path, std::vector<char>& narrowPath,
                                  const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  narrowPath.assign(path.size() * 4 + 1, '\0');
  if (wcstombs(narrowPath.data(), path.c_str(), narrowPath.size()) != static_cast<size_t>(-1)) return true;
  // A name this locale cannot spell cannot be opened either; there is no
  // stream to wait on, so this is given up at once.
  QOR_TRACE_ERROR("Error opening xml stream %s", qor_utf8(path).c_str());
  lastError.recordError(XML_OPEN_FAILED, 0, 0, 0, "The file name cannot be converted for opening.");
  return false;
}

// Opens the file for reading: XML_OK, or XML_OPEN_FAILED with a stream that
// reads nothing.
int XMLprocessor::openFile(const std::wstring& path, const std::vector<char>& narrowPath,
                           std::ifstream& stream, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  stream.open(narrowPath.data(), std::ios::in | std::ios::binary);
  if (stream.is_open()) return XML_OK;
  // Kept: a stream that failed to open reads nothing and never ends, so the parse never returns.
  // It reports neither end of file nor a bad state. Callers check that the file opens first.
  QOR_TRACE_ERROR("Error opening xml stream %s", qor_utf8(path).c_str());
  return XML_OPEN_FAILED;
}

// Feeds the file to expat block by block up to its end or the first error.
// The result is that error's code, or at the end of the file `result`, the
// outcome of the opening.
int XMLprocessor::feedFile(const std::wstring& path, std::ifstream& stream,
                           const qor_xml_userdata_t& userData, int result, const LOG1_Context& trace) {
  for (;;) {
    int count = 0;
    int readResult = readBlock(path, stream, &count, trace);
    if (readResult != XML_OK) return readResult;
    bool atEnd = stream.eof();
    XML_Status status = XML_ParseBuffer(parser, count, atEnd ? XML_TRUE : XML_FALSE);
    if (userData.errorInfo.isError()) {
      lastError = userData.errorInfo;
      return userData.errorInfo.getErrorCode();
    }
    if (status == XML_STATUS_ERROR) return expatError(path, trace);
    if (atEnd) return result;
  }
}

// Reads the next block of the file into expat's buffer: XML_OK with the number
// of bytes read, or the code of what failed.
int XMLprocessor::readBlock(const std::wstring& path, std::ifstream& stream, int* count,
                            const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  void* buffer = XML_GetBuffer(parser, BUFF_SIZE);
  if (buffer == nullptr) {
    QOR_TRACE_ERROR("Error allocating buffer of size %d for reading xml file %s", BUFF_SIZE,
                    qor_utf8(path).c_str());
    lastError.recordError(XML_NO_READ_BUFFER, 0, 0, 0, "No memory to read the file into.");
    return XML_NO_READ_BUFFER;
  }
  stream.read(static_cast<char*>(buffer), BUFF_SIZE);
  *count = static_cast<int>(stream.gcount());
  if (stream.bad()) {
    QOR_TRACE_ERROR("Error reading the xml document %s.", qor_utf8(path).c_str());
    lastError.recordError(XML_READ_FAILED, 0, 0, 0, "The file could not be read.");
    return XML_READ_FAILED;
  }
  return XML_OK;
}

// expat found the file not well-formed: its own code is the result, recorded
// with the position where expat stood.
int XMLprocessor::expatError(const std::wstring& path, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  XML_Error code = XML_GetErrorCode(parser);
  int result = static_cast<int>(code);
  long byte = static_cast<long>(XML_GetCurrentByteIndex(parser));
  int line = static_cast<int>(XML_GetCurrentLineNumber(parser));
  int column = static_cast<int>(XML_GetCurrentColumnNumber(parser));
  QOR_TRACE_ERROR("Error %d parsing xml document %s.", result, qor_utf8(path).c_str());
  QOR_TRACE_ERROR("The error string is: %s", orEmpty(XML_ErrorString(code)));
  QOR_TRACE_ERROR("Error parsing buffer at byte %d, line %d and column %d", static_cast<int>(byte), line,
                  column);
  lastError.recordError(result, byte, line, column, orEmpty(XML_ErrorString(code)));
  return result;
}

// ---------------------------------------------------------------------------
// From a parsed subagent to a Policy

namespace {

// What the mapping of one subagent needs besides the element in hand.
struct MappingContext {
  Policy& policy;
  const std::wstring& path;
  XMLErrorInfo& error;
};

using MapElement = int (*)(XMLElement& element, MappingContext& context);

struct MappingRow {
  const std::wstring& name;
  MapElement map;
};

const std::wstring* attributeValue(const XMLElement& element, const std::wstring& name) {
  for (const XMLElement::Attribute& attribute : element.getAtts()) {
    if (attribute.first == name) return &attribute.second;
  }
  return nullptr;
}

int mapAgentName(XMLElement& element, MappingContext& context) {
  context.policy.setAgentNameElement(element.getValue());
  return XML_OK;
}

int mapInstance(XMLElement& element, MappingContext& context) {
  for (XMLElement& child : element.getChildren()) {
    if (child.getName() != ELEMENT_NAME_NAME) continue;
    context.policy.setGeneric(false);
    context.policy.addInstance(child.getValue());
  }
  return XML_OK;
}

// Kept: without a regex attribute the element is ignored; a literal command line needs regex="false".
int mapCommandLine(XMLElement& element, MappingContext& context) {
  QOR_TRACE_FUNCTION();
  Policy& policy = context.policy;
  std::wstring expanded = ReplaceEnvVariables(element.getValue());
  int result = XML_OK;
  for (const XMLElement::Attribute& attribute : element.getAtts()) {
    if (attribute.first != ATTRIBUTE_NAME_REGEX) continue;
    if (attribute.second != ATTRIBUTE_NAME_REGEX_TRUEB && attribute.second != ATTRIBUTE_NAME_REGEX_TRUES) {
      policy.setCommandLine(expanded);
      continue;
    }
    policy.setProcRegEx(true);
    ConvertedText<char, 2096> utf8;
    int length = 0;
    int error = 0;
    if (utf8.adopt(qor_u_strToUTF8(utf8.buffer(), utf8.capacity(), &length, expanded.c_str(), -1, &error)) ==
        nullptr) {
      continue;
    }
    icu::UnicodeString pattern(utf8.get());
    UErrorCode status = U_ZERO_ERROR;
    icu::RegexMatcher* matcher = new icu::RegexMatcher(pattern, 0, status);
    QOR_TRACE_DETAIL("Test of commandLine expression %s.\n", qor_utf8(expanded).c_str());
    if (!U_FAILURE(status)) {
      policy.setCommandLine(expanded);
      policy.setRegexMatcher(matcher);
      continue;
    }
    delete matcher;
    // The matcher reports no position; a compile of the pattern alone does.
    UParseError where{};
    UErrorCode again = U_ZERO_ERROR;
    delete icu::RegexPattern::compile(pattern, 0, where, again);
    char text[2600];
    snprintf(text, sizeof text, "Regular Expression Error: %s, %d, %s at offset %d.",
             qor_utf8(expanded).c_str(), static_cast<int>(status), u_errorName(status),
             static_cast<int>(where.offset));
    QOR_TRACE_ERROR("Error: detected in defintion of commandLine in file %s.\n",
                    qor_utf8(context.path).c_str());
    QOR_TRACE_ERROR("%s\n", text);
    context.error.recordError(XML_BAD_REGEX, 0, element.getLineNumber(), element.getColumnNumber(), text);
    result = XML_BAD_REGEX;
  }
  return result;
}

int mapProcess(XMLElement& element, MappingContext& context) {
  context.policy.setProcRegEx(false);
  int result = XML_OK;
  for (XMLElement& child : element.getChildren()) {
    if (child.getName() == ELEMENT_NAME_PROCNAME) {
      context.policy.setProcName(child.getValue());
    } else if (child.getName() == ELEMENT_NAME_COMMANDLINE) {
      result = mapCommandLine(child, context);
    }
  }
  return result;
}

// The top-level process name stands for a process without a command line.
// Kept: a matcher compiled before for a process element is left in place.
int mapProcName(XMLElement& element, MappingContext& context) {
  context.policy.setProcName(element.getValue());
  context.policy.setProcRegEx(false);
  context.policy.setCommandLine(L"");
  return XML_OK;
}

int mapProductCode(XMLElement& element, MappingContext& context) {
  context.policy.setProductCode(element.getValue());
  return XML_OK;
}

int mapAgentType(XMLElement& element, MappingContext& context) {
  const XMLValueMap* entry = findValueMap(ELEMENT_VALUES_AGENTTYPE, element.getValue());
  if (entry != nullptr)
    context.policy.setAgentTypeElement(static_cast<const XMLValueMap_AgentType*>(entry)->getType());
  return XML_OK;
}

int mapAgentPath(XMLElement& element, MappingContext& context) {
  context.policy.setAgentPathElement(element.getValue());
  return XML_OK;
}

int mapVersionScript(XMLElement& element, MappingContext& context) {
  return parseScript(element, context.policy.getAgentVersionScript());
}

int mapBuildNumberScript(XMLElement& element, MappingContext& context) {
  return parseScript(element, context.policy.getAgentBuildNumberScript());
}

int mapServiceName(XMLElement& element, MappingContext& context) {
  context.policy.setServiceName(element.getValue());
  return XML_OK;
}

int mapPlatform(XMLElement& element, MappingContext& context) {
  Policy& policy = context.policy;
  for (const XMLElement::Attribute& attribute : element.getAtts()) {
    if (attribute.first == ATTRIBUTE_NAME_XSI_TYPE) {
      if (attribute.second == ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMWINDOWS)
        policy.setOsTypeAsEnum(PlatformWindows);
      if (attribute.second == ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMLINUX) policy.setOsTypeAsEnum(PlatformLinux);
      if (attribute.second == ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMUNIX) policy.setOsTypeAsEnum(PlatformUnix);
    } else if (attribute.first == ATTRIBUTE_NAME_ARCH) {
      policy.setArchElement(attribute.second);
    }
  }
  for (XMLElement& child : element.getChildren()) {
    if (child.getName() == ELEMENT_NAME_VERSIONSTRING) policy.setOsVersion(child.getValue());
    if (child.getName() == ELEMENT_NAME_NAME) policy.setOsName(child.getValue());
    if (child.getName() == ELEMENT_NAME_KERNELRELEASE) policy.setKernelRelease(child.getValue());
  }
  return XML_OK;
}

int mapCheckFrequency(XMLElement& element, MappingContext& context) {
  int result = XML_OK;
  unsigned long seconds = 0;
  parsePosIntMod5(element.getValue(), &result, &seconds);
  context.policy.setCheckFrequencyElement(static_cast<int>(seconds));
  return XML_OK;
}

int mapCpuThreshold(XMLElement& element, MappingContext& context) {
  QOR_TRACE_FUNCTION();
  int result = XML_OK;
  unsigned long percent = 0;
  parsePosInt(element.getValue(), &result, &percent);
  if (percent > 100) {
    QOR_TRACE_DETAIL(
        "CPU threshold input of %d is above valid maximum of 100. Corrective action: CPU threshold set to "
        "100.",
        static_cast<int>(percent));
    percent = 100;
  }
  context.policy.setCPUThreshold(static_cast<long>(percent));
  return XML_OK;
}

int mapMemoryThreshold(XMLElement& element, MappingContext& context) {
  int result = XML_OK;
  std::pair<unsigned long, MemoryUnit> size(0, MEM_BYTES);
  parseMemorySize(element.getValue(), &result, &size);
  context.policy.setMemoryThreshold(static_cast<long>(size.first), size.second);
  return XML_OK;
}

int mapDependentAgent(XMLElement& element, MappingContext& context) {
  context.policy.setDependentAgent(element.getValue());
  return XML_OK;
}

int mapManagerType(XMLElement& element, MappingContext& context) {
  const XMLValueMap* entry = findValueMap(ELEMENT_VALUES_MANAGERTYPE, element.getValue());
  if (entry != nullptr) {
    context.policy.setManagerTypeElement(static_cast<const XMLValueMap_ManagerType*>(entry)->getType());
  }
  return XML_OK;
}

int mapMaxRestarts(XMLElement& element, MappingContext& context) {
  int result = XML_OK;
  unsigned long restarts = 0;
  parseNonNegInt(element.getValue(), &result, &restarts);
  context.policy.setMaxRestartElement(static_cast<int>(restarts));
  return XML_OK;
}

int mapStartScript(XMLElement& element, MappingContext& context) {
  context.policy.getStartScript()->setIsStartCommand();
  return parseScript(element, context.policy.getStartScript());
}

int mapStopScript(XMLElement& element, MappingContext& context) {
  context.policy.getStopScript()->setIsStopCommand();
  return parseScript(element, context.policy.getStopScript());
}

int mapAvailabilityStatusScript(XMLElement& element, MappingContext& context) {
  return parseScript(element, context.policy.getAvailabilityStatusScript());
}

int mapConfigScript(XMLElement& element, MappingContext& context) {
  return parseScript(element, context.policy.getConfigScript());
}

// The children of a subagent and what each gives the Policy. Built on first
// use, when the name constants are certain to exist.
const std::vector<MappingRow>& mappingTable() {
  static const std::vector<MappingRow> table = {
      {ELEMENT_NAME_AGENTNAME, mapAgentName},
      {ELEMENT_NAME_INSTANCE, mapInstance},
      {ELEMENT_NAME_PROCESS, mapProcess},
      {ELEMENT_NAME_PROCNAME, mapProcName},
      {ELEMENT_NAME_PRODUCTCODE, mapProductCode},
      {ELEMENT_NAME_AGENTTYPE, mapAgentType},
      {ELEMENT_NAME_AGENTPATH, mapAgentPath},
      {ELEMENT_NAME_VERSIONSCRIPT, mapVersionScript},
      {ELEMENT_NAME_BUILDNUMSCRIPT, mapBuildNumberScript},
      {ELEMENT_NAME_SERVICENAME, mapServiceName},
      {ELEMENT_NAME_PLATFORM, mapPlatform},
      {ELEMENT_NAME_CHECKFREQUENCY, mapCheckFrequency},
      {ELEMENT_NAME_CPUTHRESHOLD, mapCpuThreshold},
      {ELEMENT_NAME_MEMORYTHRESHOLD, mapMemoryThreshold},
      {ELEMENT_NAME_DEPENDENTAGENT, mapDependentAgent},
      {ELEMENT_NAME_MANAGERTYPE, mapManagerType},
      {ELEMENT_NAME_MAXRESTARTS, mapMaxRestarts},
      {ELEMENT_NAME_STARTSCRIPT, mapStartScript},
      {ELEMENT_NAME_STOPSCRIPT, mapStopScript},
      {ELEMENT_NAME_AVAILABILITYSTATUSSCRIPT, mapAvailabilityStatusScript},
      {ELEMENT_NAME_CONFIGSCRIPT, mapConfigScript},
  };
  return table;
}

int mapSubagent(XMLElement& subagent, MappingContext& context) {
  QOR_TRACE_FUNCTION();
  const std::wstring* id = attributeValue(subagent, ATTRIBUTE_NAME_ID);
  if (id != nullptr) context.policy.setSubagentID(*id);
  QOR_TRACE_DETAIL("XMLprocessor::parse:Found a subagent match with id %s in file %s.",
                   qor_utf8(id != nullptr ? *id : std::wstring()).c_str(), qor_utf8(context.path).c_str());
  int result = XML_OK;
  for (auto child = subagent.getChildren().begin(); result == XML_OK && child != subagent.getChildren().end();
       ++child) {
    for (const MappingRow& row : mappingTable()) {
      if (row.name == child->getName()) {
        result = row.map(*child, context);
        break;
      }
    }
  }
  return result;
}

}  // namespace

int XMLprocessor::parse(const std::wstring& path, Policy& policy) {
  QOR_TRACE_FUNCTION();
  XMLElement top(nullptr, L"APlaceHolderParent");
  int result = parse(path, top);
  policy.setCAPFileName(path);

  // Kept: a 2048-byte buffer: a longer path is cut short before its stat.
  std::vector<char> narrowPath(2048, '\0');
  struct stat status;
  if (wcstombs(narrowPath.data(), path.c_str(), narrowPath.size() - 1) != static_cast<size_t>(-1) &&
      stat(narrowPath.data(), &status) == 0) {
    policy.setCAPFileModifyTimestamp(static_cast<long>(status.st_mtime));
  } else {
    QOR_TRACE_ERROR("Error %i obtaining CAP file %s statistics.", errno, qor_utf8(path).c_str());
  }

  if (result != XML_OK) return QOR_TRACE_RETURN(result);
  if (top.getChildren().empty()) return QOR_TRACE_RETURN(XML_OK);

  MappingContext context{policy, path, lastError};
  bool matched = false;
  XMLElement& subagents = top.getChildren().front();
  for (auto subagent = subagents.getChildren().begin();
       !matched && result == XML_OK && subagent != subagents.getChildren().end(); ++subagent) {
    matched = isSubagentPlatformMatch(*subagent, path);
    if (matched) result = mapSubagent(*subagent, context);
  }
  if (!matched) {
    QOR_TRACE_DETAIL("Did not find an appropriate platform match for defintions in file %s.",
                     qor_utf8(path).c_str());
    result = XML_NO_PLATFORM_MATCH;
    lastError.recordError(result, 0, 0, 0, "No subagent of the file is meant for this platform.");
  }
  return QOR_TRACE_RETURN(result);
}

int parseScript(XMLElement& element, QorScript* script) {
  QOR_TRACE_FUNCTION();
  for (XMLElement& child : element.getChildren()) {
    if (child.getName() == ELEMENT_NAME_COMMAND) {
      script->setOriginalCommand(child.getValue());
      continue;
    }
    if (child.getName() != ELEMENT_NAME_RETURNCODELIST) continue;
    for (XMLElement& returnCode : child.getChildren()) {
      if (returnCode.getName() != ELEMENT_NAME_RETURNCODE) continue;
      // Text that is not a number counts as code 0.
      int code = static_cast<int>(wcstol(returnCode.getValue().c_str(), nullptr, 10));
      const std::wstring* type = attributeValue(returnCode, ATTRIBUTE_NAME_TYPE);
      const std::wstring* msgID = attributeValue(returnCode, ATTRIBUTE_NAME_MSGID);
      std::wstring message = msgID != nullptr ? *msgID : std::wstring();
      if (type != nullptr && *type == ATTRIBUTE_VALUE_TYPE_OK) {
        script->addSuccessRC(code, message);
      } else if (type != nullptr && *type == ATTRIBUTE_VALUE_TYPE_ERROR) {
        script->addErrorRC(code, message);
      } else {
        QOR_TRACE_DETAIL("Unknown return code type %s.",
                         qor_utf8(type != nullptr ? *type : std::wstring()).c_str());
      }
    }
  }
  return QOR_TRACE_RETURN(XML_OK);
}
