// Process matching: from an agent to its process (openApplication and
// applicationMatch), from the process table to a policy (getPolicyProcesses,
// processMatch, compareProcess), and the collection of an agent's figures
// once its process is known.
#include "watchdog/qormatch.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <string>

#include "agents/qoragt.h"
#include "cap/qorconv.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorlock.h"
#include "platform/log1.h"
#include "watchdog/qorcmdlnx.h"
#include "watchdog/qorinst.h"
#include "watchdog/qorlnx.h"

QOR_TRACE_UNIT();

namespace {

// Two product codes of database agents, exempt from every directory test; an
// application agent whose instance only the suite's tool knows; the
// watchdog's own policy, whose descendants are not collected.
const std::wstring kCodeQF = L"qf";
const std::wstring kCodeQG = L"qg";
const std::wstring kCodeQH = L"qh";
const std::wstring kCodeQD = L"qd";
const std::wstring kNoInstance = L"None";

constexpr int kConversionBuffer = 2096;

// A policy's RegexMatcher is one object, reset for each use; a match from
// inside a command's poll loop can meet one from discovery on the same policy.
QorMutex regexMutex(QorMutex::kNeverDestroyed);

bool isDatabaseCode(const Policy* policy) {
  return policy->getProductCode() == kCodeQF || policy->getProductCode() == kCodeQG;
}

// The part before the last "/"; empty when there is none.
std::wstring beforeLastSlashOrEmpty(const std::wstring& path) {
  size_t slash = path.rfind(L'/');
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

// What non-null handle openApplication gives: it only means "found".
char foundMarker;

// Whether the live list has an agent with process id `pid`. Read under the
// list lock: the caller's if it holds it, otherwise taken here.
bool alreadyManaged(int pid) {
  Controller* controller = Controller::getController();
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  criteria[1] = std::to_wstring(pid);
  std::vector<Agent*> found =
      controller->getManagedEndpointProcesses()->isLockedByCaller()
          ? controller->getManagedEndpointProcess(Controller::MATCH_PROC_ID, criteria)
          : controller->getManagedEndpointProcessLOCK(Controller::MATCH_PROC_ID, criteria);
  return !found.empty();
}

// The first group of a hit as wide text.
std::wstring groupText(const icu::UnicodeString& group) {
  wchar_t buffer[kConversionBuffer];
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToWCS(buffer, kConversionBuffer, &length, group.getBuffer(), group.length(), &status);
  if (U_FAILURE(status) || length >= kConversionBuffer) return std::wstring();
  return std::wstring(buffer, length);
}

// Whether the last place of `instance` in the command line ends a word: at
// the end, or before a quotation mark, a blank, a full stop or a slash. A
// prefix of a longer word there is no match.
bool instanceEndsAWord(const std::wstring& commandLine, const std::wstring& instance) {
  QOR_TRACE_FUNCTION();
  size_t at = commandLine.rfind(instance);
  if (at == std::wstring::npos) return false;
  QOR_TRACE_DETAIL("Found inst name substr in command parms. pos: %d, inst.size: %d\n", static_cast<int>(at),
                   static_cast<int>(instance.size()));
  size_t end = at + instance.size();
  return end == commandLine.size() || commandLine[end] == L'"' || commandLine[end] == L' ' ||
         commandLine[end] == L'.' || commandLine[end] == L'/';
}

}  // namespace

// ---------------------------------------------------------------------------
// Command lines

bool QorCmd::compareCommandLine(const std::wstring& commandLine, Policy* policy, std::wstring& instance) {
  QOR_TRACE_FUNCTION();
  if (!policy->getProcRegEx()) {
    QOR_TRACE_DETAIL("Command line is not a reg expr. Verify if it matches.\n");
    return QOR_TRACE_RETURN(commandLine == policy->getCommandLine());
  }
  QOR_TRACE_DETAIL("Command line is a reg expr. Verify if it matches.\n");
  ConvertedText<char, kConversionBuffer> utf8;
  int length = 0;
  int error = 0;
  if (utf8.adopt(qor_u_strToUTF8(utf8.buffer(), utf8.capacity(), &length, commandLine.c_str(),
                                 static_cast<int>(commandLine.size()), &error)) == nullptr) {
    QOR_TRACE_DETAIL("Error converting process command line.\n");
    return QOR_TRACE_RETURN(false);
  }
  icu::UnicodeString text = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.get(), length));

  QorMutexLock lock(&regexMutex);
  icu::RegexMatcher* matcher = policy->getRegexMatcher();
  // A pattern that did not compile leaves no matcher: nothing matches it.
  if (matcher == nullptr) return QOR_TRACE_RETURN(false);
  matcher->reset(text);
  UErrorCode status = U_ZERO_ERROR;
  bool hit = matcher->find(0, status) && U_SUCCESS(status);
  if (!hit) return QOR_TRACE_RETURN(false);
  QOR_TRACE_DETAIL("Match found.\n");
  status = U_ZERO_ERROR;
  icu::UnicodeString group = matcher->group(1, status);
  if (U_FAILURE(status)) {
    QOR_TRACE_DETAIL("Failure retrieving instance name from command line.\n");
    return QOR_TRACE_RETURN(true);
  }
  if (group.isEmpty()) {
    QOR_TRACE_DETAIL("No instance name available.\n");
    return QOR_TRACE_RETURN(true);
  }
  QOR_TRACE_DETAIL("Instance name available.\n");
  std::wstring found = groupText(group);
  if (instance.empty()) {
    instance = found;
    return QOR_TRACE_RETURN(true);
  }
  if (instance != found) {
    QOR_TRACE_DETAIL("Instance name does not match this agent.\n");
    return QOR_TRACE_RETURN(false);
  }
  return QOR_TRACE_RETURN(true);
}

// ---------------------------------------------------------------------------
// From an agent to its process

bool QorCmdUNIX::applicationMatch(int pid, const std::wstring& commandLine, std::wstring& appName,
                                  std::wstring& instance, const std::wstring& path, bool checkManaged,
                                  Policy* policy) {
  QOR_TRACE_FUNCTION();
  bool match = false;
  const std::wstring policyDir = beforeLastSlashOrEmpty(path);
  QOR_TRACE_DETAIL("Application %s, instance %s, path = %s\n", QOR_N(appName), QOR_N(instance), QOR_N(path));
  const std::wstring exePath = GetExecutablePath(pid, policyDir);
  const std::wstring exeDir = beforeLastSlashOrEmpty(exePath);
  const std::wstring exeName = exePath.substr(exePath.rfind(L'/') + 1);  // all of it without a slash

  const bool directoryOK =
      policy == nullptr || isDatabaseCode(policy) || policyDir.empty() || policyDir == exeDir;
  const size_t namePos = directoryOK ? commandLine.find(appName) : std::wstring::npos;
  if (namePos != std::wstring::npos) {
    QOR_TRACE_DETAIL("Searching for running instance = %s, in command line = %s\n", QOR_N(appName),
                     QOR_N(commandLine));
    // Kept: any occurrence will do, also one inside a longer word: looser than compareProcess.
    match = true;
    if (namePos + appName.size() == commandLine.size()) {
      QOR_TRACE_DETAIL("Found app name at end of command line string.\n");
    } else {
      QOR_TRACE_DETAIL("Found app name before command parms.\n");
    }
    const bool hasPattern = policy != nullptr && !policy->getCommandLine().empty();
    if (!instance.empty()) {
      if (hasPattern) match = compareCommandLine(GetCommandLine(pid), policy, instance);
      if (match && instance != kNoInstance) match = instanceEndsAWord(commandLine, instance);
    } else if (hasPattern) {
      match = compareCommandLine(GetCommandLine(pid), policy, instance);
    } else {
      // Without an instance the executable's own name is needed: a mention of
      // the name among the parameters is not enough.
      match = exeName == appName;
    }
    if (!match && policy != nullptr && policy->getProductCode() == kCodeQH) {
      QOR_TRACE_DETAIL("SAP agent - run vexinf to get instance name.\n");
      match = GetZELInstanceName(policy, pid) == instance;
    }
    if (!match) {
      QOR_TRACE_DETAIL("This is only a partial match.\n");
    } else {
      QOR_TRACE_DETAIL("This is a match.\n");
      // The policy's name may be a stem: the caller learns the full name.
      if (exeName.find(appName) != std::wstring::npos) appName = exeName;
    }
  }
  if (match && checkManaged && alreadyManaged(pid)) {
    match = false;
    QOR_TRACE_DETAIL("Application %s (command %s) (pid %d) already managed.\n", QOR_N(appName),
                     QOR_N(commandLine), pid);
  }
  return QOR_TRACE_RETURN(match);
}

QorAppHandle QorCmdLinux::openApplication(std::wstring& processName, std::wstring path,
                                          std::wstring& instance, int& pid, std::wstring& commandLine,
                                          Policy* policy) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Open application -- input pid=%d\n", pid);
  const bool scanAll = pid == 0;
  std::vector<int> ids;
  // A known process id is the only candidate: it is never replaced by another
  // process of the same name, and the walk of /proc shrinks to a look at it.
  if (!(scanAll ? ReadProcessIDs(ids) : ReadProcessID(pid, ids))) {
    QOR_TRACE_ERROR("Error opening directory /proc, errno = %d\n", errno);
    return nullptr;
  }
  for (int id : ids) {
    std::wstring cmd = GetCommandLine(id);
    if (!applicationMatch(id, cmd, processName, instance, path, scanAll, policy)) continue;
    // Kept: a thread of an old kernel is passed over, but the match may have rewritten name and instance.
    if (IsThreadChildProcess(id, cmd)) continue;
    pid = id;
    commandLine = cmd;
    QOR_TRACE_DETAIL("Found application %s, pid = %d.\n", QOR_N(processName), id);
    return &foundMarker;
  }
  return nullptr;
}

void QorCmdLinux::closeApplication(QorAppHandle /*handle*/) {}

void QorCmd::collectProcessData(Agent* agent) {
  QOR_TRACE_FUNCTION();
  std::wstring instance = agent->getInstanceName();
  Policy* policy = agent->getPolicy();
  // The suite's status tool is asked before /proc is walked.
  if (policy != nullptr && policy->isZELAgent() && agent->getProcID() == 0) {
    agent->setProcID(GetZELInstanceProcID(agent));
  }
  QOR_TRACE_DETAIL("The agent's pid = %d\n", agent->getProcID());
  std::wstring processName = agent->getInstanceProcName();
  if (processName.empty()) processName = agent->getProcName();
  collectProcessData(agent, processName, instance);
}

void QorCmdUNIX::collectProcessData(Agent* agent, std::wstring processName, std::wstring instance) {
  QOR_TRACE_FUNCTION();
  Policy* policy = agent->getPolicy();
  int pid = agent->getProcID();
  std::wstring commandLine;
  QorAppHandle handle = openApplication(processName, agent->getPath(), instance, pid, commandLine, policy);
  if (handle == nullptr) {
    agent->setProcID(0);
    return;
  }
  agent->setInstanceProcName(processName);
  agent->setInstanceName(instance);
  agent->setCmdLine(commandLine);
  agent->setProcID(pid);
  // A suite agent keeps the user that its run-as settings name.
  if (agent->getUserName().empty() || policy == nullptr || !policy->isZELAgent()) {
    agent->setUserName(getUserID(pid, handle));
  }
  QOR_TRACE_DETAIL("Agent pid = %d, cmd line = %s\n", pid, QOR_N(commandLine));
  closeApplication(handle);
}

bool QorCmd::isAppRunning(Agent* agent) {
  QOR_TRACE_FUNCTION();
  // Without an agent there is nothing to look for.
  if (agent == nullptr) return QOR_TRACE_RETURN(false);
  collectProcessData(agent);
  if (agent->getProcID() == 0) return QOR_TRACE_RETURN(false);
  QOR_TRACE_DETAIL("Application %s running, pid = %d.\n", QOR_N(agent->getName()), agent->getProcID());
  return QOR_TRACE_RETURN(true);
}

int GetZELInstanceProcID(Agent* agent) {
  QOR_TRACE_FUNCTION();
  if (agent->getPolicy() == nullptr) return QOR_TRACE_RETURN(0);
  const std::wstring lines = GetVexinfRunningInstances(agent->getPolicy());
  const std::wstring instance = agent->getInstanceName();
  int pid = 0;
  // Lines of process id, one blank, instance name. The walk goes to the end:
  // the last line of the instance wins.
  size_t lineStart = 0;
  while (lineStart < lines.size()) {
    size_t lineEnd = lines.find(L'\n', lineStart);
    if (lineEnd == std::wstring::npos) lineEnd = lines.size();
    size_t blank = lines.find(L' ', lineStart);
    if (blank != std::wstring::npos && blank < lineEnd &&
        lines.compare(blank + 1, lineEnd - blank - 1, instance) == 0) {
      std::wstring number = lines.substr(lineStart, blank - lineStart);
      pid = static_cast<int>(wcstol(number.c_str(), nullptr, 10));
    }
    lineStart = lineEnd + 1;
  }
  return QOR_TRACE_RETURN(pid);
}

void QorCmdUNIX::collectRuntimeData(Agent* agent, long* lastChecked) {
  QOR_TRACE_FUNCTION();
  agent->resetTotalCounters();
  long start = collectRuntimeData(agent->getProcID(), agent, true);
  if (lastChecked != nullptr) {
    // A last check that lies ahead, after the wall clock was set back, gives
    // no interval to measure over: 0, which leaves the rates at 0, rather than
    // a negative span cast to a count of seconds.
    const double since = difftime(time(nullptr), static_cast<time_t>(*lastChecked));
    unsigned int seconds = since > 0.0 ? static_cast<unsigned int>(since) : 0u;
    // Kept: seconds against counters in ticks: the CPU figure is 100 times a share (10000 for one CPU).
    agent->setTimeInterval(seconds);
    agent->setTimeIntervalInSec(seconds);
  } else {
    // Clock ticks since the process started: the first figures are a
    // lifetime average.
    agent->setTimeInterval(static_cast<uint32_t>(getUpTime() - static_cast<unsigned long>(start)));
    agent->setTimeIntervalInSec(0);
  }
  Policy* policy = agent->getPolicy();
  // A policy without thresholds does not need the walk of the descendants.
  bool thresholds =
      policy != nullptr && (policy->getCPUThreshold() > 0 || policy->getMemoryThreshold() > 0.0);
  if (thresholds && policy->getProductCode() != kCodeQD) {
    for (int child : getChildProcesses(agent->getProcID())) collectRuntimeData(child, agent, false);
  } else {
    QOR_TRACE_DETAIL("Skipping children data collection for policy %s\n",
                     policy != nullptr ? policy->getShortSID().c_str() : "");
  }
  agent->calculateTotalCounters();
}

// ---------------------------------------------------------------------------
// From the process table to a policy

void QorCmdUNIX::getPolicyProcesses(Policy* policy, std::vector<QorProcess*> all,
                                    std::vector<QorProcess*>& matched) {
  QOR_TRACE_FUNCTION();
  const std::wstring processName = policy->getProcName();
  const std::wstring agentPath = policy->getAgentPath();
  if (agentPath.find(L'/') == std::wstring::npos) return;
  const std::wstring directory = beforeLastSlashOrEmpty(agentPath);
  for (QorProcess* process : all) {
    // Kept: nothing fills the command name on Linux, so every process is a candidate.
    const std::wstring cmdName = process->getCmdName();
    if (!cmdName.empty() && cmdName.find(processName) == std::wstring::npos) continue;
    if (processMatch(policy, directory, processName, process)) matched.push_back(process);
  }
}

namespace {

// The process's command line, read once and kept on the record.
std::wstring commandLineOf(QorProcess* process) {
  std::wstring commandLine = process->getCmdLine();
  if (commandLine.empty()) {
    commandLine = GetCommandLine(process->getProcID());
    process->setCmdLine(commandLine);
  }
  return commandLine;
}

}  // namespace

bool QorCmdLinux::processMatch(Policy* policy, std::wstring directory, std::wstring processName,
                               QorProcess* process) {
  if (!compareProcess(policy, directory, processName, process)) return false;
  return !IsThreadChildProcess(process->getProcID(), commandLineOf(process));
}

bool QorCmdUNIX::compareProcess(Policy* policy, const std::wstring& directory,
                                const std::wstring& processName, QorProcess* process) {
  QOR_TRACE_FUNCTION();
  bool match = true;
  if (!isDatabaseCode(policy)) match = process->getPath() == directory;
  if (!match) return QOR_TRACE_RETURN(false);
  if (policy->getCommandLine().empty()) {
    // A suite agent's executable may extend its policy's process name.
    const std::wstring name = process->getInstanceProcName();
    match =
        policy->isZELAgent() ? name.compare(0, processName.size(), processName) == 0 : name == processName;
    return QOR_TRACE_RETURN(match);
  }
  std::wstring instance;
  match = compareCommandLine(commandLineOf(process), policy, instance);
  if (!instance.empty()) process->setInstanceName(instance);
  return QOR_TRACE_RETURN(match);
}
