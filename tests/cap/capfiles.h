// CAP documents for the tests of the CAP units: a subagent whose elements can
// each be replaced or added, written one element per line so that a test knows
// the line of each, and a parse of such a document from a real file.
#ifndef QOR_TESTS_CAP_CAPFILES_H
#define QOR_TESTS_CAP_CAPFILES_H

#include <string>
#include <vector>

#include "cap/qorxmlproc.h"
#include "support/qortest.h"

namespace captest {

// Line 1 of every document; the root start tag is line 2.
inline const char* declaration() { return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"; }

inline std::string rootStart(
    const std::string& attributes =
        "xmlns=\"urn:qor:cap\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
        "xsi:schemaLocation=\"urn:qor:cap mdhcap.xsd\"") {
  return "<subagents " + attributes + ">";
}

// One subagent, its elements in the order of the format. An empty text leaves
// the element out. Each element is one line; the subagent's start tag is the
// first line.
struct Subagent {
  std::string id = "test.agent";
  std::string agentName = "<agentName>Test agent</agentName>";
  std::string instance;
  std::string process;
  std::string procName;
  std::string productCode;
  std::string agentType = "<agentType>Console</agentType>";
  std::string agentPath = "<agentPath>/usr/bin</agentPath>";
  std::string agentVersionScript;
  std::string agentBuildNumberScript;
  std::string serviceName;
  std::string platform = "<platform xsi:type=\"PlatformLinux\"/>";
  std::string checkFrequency;
  std::string cpuThreshold;
  std::string memoryThreshold;
  std::string dependentAgent;
  std::string managerType = "<managerType>TeoServices</managerType>";
  std::string maxRestarts = "<maxRestarts>3</maxRestarts>";
  std::string startScript;
  std::string stopScript;
  std::string availabilityStatusScript;
  std::string configScript;

  std::string xml() const {
    std::string text = "<subagent id=\"" + id + "\">\n";
    for (const std::string* element : {&agentName,
                                       &instance,
                                       &process,
                                       &procName,
                                       &productCode,
                                       &agentType,
                                       &agentPath,
                                       &agentVersionScript,
                                       &agentBuildNumberScript,
                                       &serviceName,
                                       &platform,
                                       &checkFrequency,
                                       &cpuThreshold,
                                       &memoryThreshold,
                                       &dependentAgent,
                                       &managerType,
                                       &maxRestarts,
                                       &startScript,
                                       &stopScript,
                                       &availabilityStatusScript,
                                       &configScript}) {
      if (!element->empty()) text += *element + "\n";
    }
    return text + "</subagent>\n";
  }
};

// A whole document of the given subagents.
inline std::string document(const std::vector<Subagent>& subagents) {
  std::string text = std::string(declaration()) + "\n" + rootStart() + "\n";
  for (const Subagent& subagent : subagents) text += subagent.xml();
  return text + "</subagents>\n";
}

inline std::string document(const Subagent& subagent) { return document(std::vector<Subagent>{subagent}); }

// A script element with a command and, when given, return codes.
inline std::string script(const std::string& name, const std::string& command,
                          const std::string& returnCodes = std::string()) {
  std::string text = "<" + name + "><command>" + command + "</command>";
  if (!returnCodes.empty()) text += "<returnCodeList>" + returnCodes + "</returnCodeList>";
  return text + "</" + name + ">";
}

inline std::wstring wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

// Writes `content` to a file of `dir` and parses it into `policy`.
inline int parseText(XMLprocessor& processor, const qortest::TempDir& dir, const std::string& content,
                     Policy& policy, const std::string& name = "agent.xml") {
  qortest::writeFile(dir.file(name), content);
  return processor.parse(wide(dir.file(name)), policy);
}

// The same into an element tree, for what validation alone decides.
inline int parseTree(XMLprocessor& processor, const qortest::TempDir& dir, const std::string& content,
                     XMLElement& top, const std::string& name = "agent.xml") {
  qortest::writeFile(dir.file(name), content);
  return processor.parse(wide(dir.file(name)), top);
}

}  // namespace captest

#endif  // QOR_TESTS_CAP_CAPFILES_H
