// The CAP file processor: reads a CAP file with expat in blocks, validates it
// against the CAP schema while it is read, picks the first subagent whose
// platform matches this machine and fills a Policy from it. Used by the
// Controller (one processor for the service's life) and by qorctl. A processor
// parses one file at a time and is not reentrant.
#ifndef QOR_CAP_QORXMLPROC_H
#define QOR_CAP_QORXMLPROC_H

#include <expat.h>

#include <iosfwd>
#include <stack>
#include <string>
#include <vector>

#include "cap/qorplatform.h"
#include "cap/qorpol.h"
#include "cap/qorxml.h"

// The size of the blocks in which a file is read.
constexpr int BUFF_SIZE = 4096;

struct LOG1_Context;

// The first error of a parse: its code, where expat stood, and a sentence that
// explains it to the person who wrote the file.
class XMLErrorInfo {
 public:
  bool isError() const { return error; }
  int getErrorCode() const { return errorCode; }
  long getByteIndex() const { return byteIndex; }
  // Line from 1 and column from 0, as expat counts them.
  int getLineNumber() const { return lineNumber; }
  int getColumnNumber() const { return columnNumber; }
  const std::string& getErrorText() const { return errorText; }

  // Called from a handler: records the error and the parser's position unless
  // an error is recorded already, traces it in any case, and turns the
  // handlers off so that the rest of the block is only checked for
  // well-formedness.
  void setError(int code, XML_Parser parser, const std::wstring& fileName);
  // Records an error found outside the handlers, unless one is recorded.
  void recordError(int code, long byte, int line, int column, const std::string& text);

 private:
  bool error = false;
  int errorCode = 0;
  long byteIndex = 0;
  int lineNumber = 0;
  int columnNumber = 0;
  std::string errorText;
};

// The expat user data of one parse.
struct qor_xml_userdata_t {
  XML_Parser parser;
  std::wstring* fileName;
  XMLElement* currentElement;
  std::stack<XMLElementConstraints*>* constraintStack;
  XMLErrorInfo errorInfo;
};

class XMLprocessor {
 public:
  XMLprocessor();
  // Kept: the argument plays no part; the form exists for callers that name a file.
  explicit XMLprocessor(const char* unused);
  XMLprocessor(const XMLprocessor&) = delete;
  XMLprocessor& operator=(const XMLprocessor&) = delete;
  virtual ~XMLprocessor();

  // Parses and validates the file into children of `top`. XML_OK when the file
  // is valid; else the first error's code. A file that cannot be opened is never
  // given up on: callers make sure it can be opened first.
  int parse(const std::wstring& path, XMLElement& top);
  // Parses the file and fills `policy` from the first subagent for this
  // platform. XML_OK, an error code, XML_BAD_REGEX for a bad commandLine
  // expression, or XML_NO_PLATFORM_MATCH when no subagent is for this platform.
  // The policy is usable only with XML_OK.
  int parse(const std::wstring& path, Policy& policy);

  // The first error of the last parse, with its explanation.
  const XMLErrorInfo& getLastError() const { return lastError; }

 private:
  void create();
  void freeMemory();

  // The steps of a parse into an element tree, in the order parse takes them;
  // they write their trace lines under parse's own name.
  void setUpParser(const std::wstring& path, XMLElement& top, std::wstring& fileName,
                   std::stack<XMLElementConstraints*>& constraintStack, qor_xml_userdata_t& userData);
  bool narrowFileName(const std::wstring& path, std::vector<char>& narrowPath, const LOG1_Context& trace);
  int openFile(const std::wstring& path, const std::vector<char>& narrowPath, std::ifstream& stream,
               const LOG1_Context& trace);
  int feedFile(const std::wstring& path, std::ifstream& stream, const qor_xml_userdata_t& userData,
               int result, const LOG1_Context& trace);
  int readBlock(const std::wstring& path, std::ifstream& stream, int* count, const LOG1_Context& trace);
  int expatError(const std::wstring& path, const LOG1_Context& trace);

  XML_Parser parser;
  XMLElementConstraints* constraints;
  XMLErrorInfo lastError;
};

// Fills `script` from a script element: its command and return codes. Always 0.
int parseScript(XMLElement& element, QorScript* script);

// The expat handlers; `userData` is the qor_xml_userdata_t of the parse.
void qorStartElement(void* userData, const XML_Char* name, const XML_Char** atts);
void qorEndElement(void* userData, const XML_Char* name);
void qorCharacterDataHandlerCopy(void* userData, const XML_Char* text, int length);
// Kept: never installed by parse; it only traces what it is given.
void qorCharacterDataHandlerIgnore(void* userData, const XML_Char* text, int length);
void qorXmlDeclHandler(void* userData, const XML_Char* version, const XML_Char* encoding, int standalone);

#endif  // QOR_CAP_QORXMLPROC_H
