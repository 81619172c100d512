#include "watchdog/qorusr.h"

#include <pwd.h>
#include <unicode/ustring.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorlock.h"
#include "core/qorutil.h"
#include "platform/hlx.h"
#include "platform/log1.h"
#include "watchdog/qorunx.h"

QOR_TRACE_UNIT();

const std::wstring ZELUserProcessor::kGeneralRunAsFile = L"$MARLOWHOME/config/hmvrunas.cfg";

namespace {

const char kEntryStart[] = "<productCode>";
const char kEntryEnd[] = "</agent>";
const char kBlankLine[] = "\n\n";
// A user of this name stands for no real user: the instance says nothing.
const wchar_t kNoUser[] = L"zeluser";
// The instance name of a suite agent that has no instances of its own.
const wchar_t kNoInstance[] = L"None";

// The trimmed text of the first descendant of `element` named `tag`; empty
// when there is none.
std::wstring firstText(const HLX::DOMElement* element, const char* tag, bool* present = nullptr) {
  std::wstring result;
  HLX::DOMNodeList nodes = element->getElementsByTagName(tag);
  HLX::DOMNode* node = nodes.getLength() > 0 ? nodes.item(0) : nullptr;
  if (present != nullptr) *present = node != nullptr && node->getNodeType() == 1;
  if (node == nullptr || node->getNodeType() != 1) return result;
  HLX::String text = static_cast<HLX::DOMElement*>(node)->getElementText();
  icu::UnicodeString units(text.getData(), text.length());
  uToWstring(units, result);
  return result;
}

}  // namespace

void uToWstring(icu::UnicodeString& text, std::wstring& result) {
  text.trim();
  // A name longer than the buffer is cut at its end rather than read past it.
  wchar_t buffer[ZELUserProcessor::kTextCapacity];
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToWCS(buffer, ZELUserProcessor::kTextCapacity, &length, text.getBuffer(), text.length(), &status);
  if (status == U_BUFFER_OVERFLOW_ERROR || status == U_STRING_NOT_TERMINATED_WARNING) {
    result.assign(buffer, static_cast<size_t>(ZELUserProcessor::kTextCapacity));
  } else if (U_FAILURE(status)) {
    result.clear();
  } else {
    result.assign(buffer, static_cast<size_t>(length));
  }
}

std::wstring ZELUserProcessor::hostRunAsFile(const std::wstring& hostName) {
  return L"$MARLOWHOME/config/" + hostName + L"_hlxrunas.cfg";
}

void ZELUserProcessor::collectZELUser(Agent& agent) {
  QOR_TRACE_FUNCTION();
  ZELUserProcessor processor;
  HLX::String host = HLX::Util::getHostName();
  HLX::CharStar hostText = host.c_str();
  const std::wstring hostName = qor_mbstowcs(static_cast<char*>(hostText));
  if (processor.getUserInfo(ReplaceEnvVariables(hostRunAsFile(hostName)), agent)) return;
  // The host's own file is missing or does not name this agent.
  processor.getUserInfo(ReplaceEnvVariables(kGeneralRunAsFile), agent);
}

bool ZELUserProcessor::getUserInfo(const std::wstring& path, Agent& agent) {
  QOR_TRACE_FUNCTION();
  const std::string narrowPath = qor_narrow(path);
  QOR_TRACE_DETAIL("Parsing file: %s", narrowPath.c_str());
  char* raw = nullptr;
  HLX::Util::readFile(narrowPath.c_str(), &raw);
  std::unique_ptr<char[]> owned(raw);
  if (raw == nullptr) {
    QOR_TRACE_ERROR("Error reading file %s", narrowPath.c_str());
    return false;
  }
  // Up to the first zero byte, as the file is a text.
  const std::string contents(raw);
  bool result = false;
  size_t pos = 0;
  while (!result) {
    pos = contents.find(kEntryStart, pos);
    if (pos == std::string::npos) break;
    // An entry ends before the next "</agent>"; without one, at a blank line
    // or the end of the file.
    // Kept: an entry without "</agent>" is the last one read, even when more
    // entries follow its blank line.
    const size_t blank = contents.find(kBlankLine, pos);
    std::string entry = contents.substr(pos, blank == std::string::npos ? std::string::npos : blank - pos);
    const size_t end = contents.find(kEntryEnd, pos);
    if (end != std::string::npos) entry = contents.substr(pos, end - pos);
    result = parseProdCodeEntry(entry, agent);
    pos = end;
  }
  return result;
}

bool ZELUserProcessor::parseProdCodeEntry(const std::string& entry, Agent& agent) {
  QOR_TRACE_FUNCTION();
  const std::string document = "<doc> " + entry + "</doc>";
  HLX::DOMParser parser(document.c_str());
  if (!parser.parse()) {
    QOR_TRACE_ERROR("Error parsing xml product code entry");
    QOR_TRACE_ERROR("Unable to parse entry %s", entry.c_str());
    return false;
  }
  HLX::DOMElement* root = parser.getDocument();
  // An entry begins with the element's start tag, so a well-formed one has it.
  const std::wstring code = firstText(root, "productCode");
  if (agent.getPolicy() == nullptr || code != agent.getPolicy()->getProductCode()) return false;
  return processUserInfo(root, agent);
}

bool ZELUserProcessor::processUserInfo(const HLX::DOMElement* root, Agent& agent) {
  QOR_TRACE_FUNCTION();
  bool found = false;
  HLX::DOMNodeList instances = root->getElementsByTagName("instance");
  for (unsigned int i = 0; i < instances.getLength(); ++i) {
    HLX::DOMNode* node = instances.item(i);
    if (node == nullptr || node->getNodeType() != 1) continue;
    const auto* instance = static_cast<const HLX::DOMElement*>(node);
    bool hasUser = false;
    const std::wstring user = firstText(instance, "user", &hasUser);
    // An instance without a user element names no one either.
    if (!hasUser || user == kNoUser) continue;
    const std::wstring name = firstText(instance, "name");
    const std::wstring agentInstance = agent.getInstanceName();
    if (name == agentInstance || (agentInstance == kNoInstance && name.empty())) {
      // No break: the last instance that applies decides.
      agent.setUserName(user);
      found = true;
    }
  }
  return found;
}

namespace {

// Filled as processes are inspected.
// Kept: never invalidated: a user renamed while the service runs keeps the old name.
// Never destroyed, like its mutex (and the current user below): a script
// worker may still ask while the process runs its exit handlers.
QorMutex idUserNamesMutex(QorMutex::kNeverDestroyed);
std::map<int, std::wstring>& idUserNames QOR_GUARDED_BY(idUserNamesMutex) =
    *new std::map<int, std::wstring>();

// getpwuid returns a static record that the next call overwrites.
QorMutex passwdMutex(QorMutex::kNeverDestroyed);

QorMutex currUserMutex(QorMutex::kNeverDestroyed);
std::wstring& currUser QOR_GUARDED_BY(currUserMutex) = *new std::wstring();

// Requires: idUserNamesMutex held.
void cacheUserName(int id, const std::wstring& name) QOR_REQUIRES(idUserNamesMutex) {
  QOR_TRACE_FUNCTION();
  if (name.empty()) return;
  QOR_TRACE_DETAIL("Adding userName %s (key = %d) to cache\n", QOR_N(name), id);
  idUserNames.insert(std::make_pair(id, name));
}

// Requires: idUserNamesMutex held.
std::wstring cachedUserName(int id) QOR_REQUIRES(idUserNamesMutex) {
  auto found = idUserNames.find(id);
  return found == idUserNames.end() ? std::wstring() : found->second;
}

}  // namespace

std::wstring GetIDUserName(int id) {
  QorMutexLock lock(&idUserNamesMutex);
  return cachedUserName(id);
}

void SetIDUserName(int id, const std::wstring& name) {
  QorMutexLock lock(&idUserNamesMutex);
  cacheUserName(id, name);
}

std::wstring GetUserNameFromID(int id) {
  QOR_TRACE_FUNCTION();
  QorMutexLock lock(&passwdMutex);
  errno = 0;
  struct passwd* entry = getpwuid(static_cast<uid_t>(id));
  if (entry == nullptr) {
    QOR_TRACE_ERROR("Error executing getpwuid - errno = %d", errno);
    return std::wstring();
  }
  return qor_mbstowcs(entry->pw_name);
}

std::wstring GetCurrentUser() {
  QorMutexLock lock(&currUserMutex);
  if (currUser.empty()) {
    currUser = QOR_GetEnvironment(L"USER");
    if (currUser.empty()) currUser = GetUserNameFromID(static_cast<int>(getuid()));
  }
  return currUser;
}
