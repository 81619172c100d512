#include "watchdog/qorinst.h"

#include <algorithm>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorlock.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"

QOR_TRACE_UNIT();

namespace {

// A database agent whose running-instance text joins two fields with an
// underscore: its instance is one column further.
const std::wstring kCodeQE = L"qe";

// The last output of the running-instances command.
// Kept: shared by all policies although it holds one policy's lines; a miss simply fetches anew.
QorMutex vexinfOutputMutex(QorMutex::kNeverDestroyed);
std::wstring vexinfOutput QOR_GUARDED_BY(vexinfOutputMutex);

void fillScript(QorScript* script, const std::wstring& command) {
  script->setOriginalCommand(command);
  script->addSuccessRC(0, L"");
}

bool contains(const std::vector<std::wstring>& names, const std::wstring& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

void CreateVexinfRunningInstancesScript(const std::wstring& code, QorScript* script) {
  // The tool's six header lines go, the lines of the code stay (as a whole
  // word, in any case), and of those the running ones. The third column is
  // the process id, the sixth (seventh for qe) the instance.
  std::wstring command = L"$MARLOWHOME/bin/vexinf -r | awk 'NR > 6' | grep -iw " + code;
  if (code == kCodeQE) {
    command += L" | grep \"\\.running\" 2>/dev/null | sed \"s/_/ /\" | awk '{print $3\" \"$7}'";
  } else {
    command += L" | grep \"\\.running\" 2>/dev/null | awk {'print $3\" \"$6'}";
  }
  fillScript(script, command);
}

void CreateZELInstancesScript(const std::wstring& code, QorScript* script) {
  fillScript(script, L"$MARLOWHOME/bin/vexinf -o " + code + L" 2>/dev/null | awk 'NR > 6' | grep -iw " +
                         code + L" | awk {'print $2'}");
}

std::wstring GetVexinfRunningInstances(Policy* policy) {
  std::wstring output;
  int rc = GetCmdManager()->executeCmd(policy->getVexinfRunningInstancesScript(), output, nullptr);
  return rc == 0 ? output : std::wstring();
}

std::vector<std::wstring> GetZELInstances(Policy* policy) {
  QOR_TRACE_FUNCTION();
  std::wstring output;
  int rc = GetCmdManager()->executeCmd(policy->getZELInstancesScript(), output, nullptr);
  std::vector<std::wstring> names;
  if (rc == QOR_CMD_TIMED_OUT) {
    QOR_TRACE_DETAIL("Command timed out, pass back to calling routine");
    names.push_back(QOR_CMD_TIMEOUT_STRING);
    return names;
  }
  // Kept: a last piece without a line feed is dropped, and with it its name.
  // A line that begins with "<" is how the tool says that it has nothing.
  size_t start = 0;
  for (size_t end = output.find(L'\n'); end != std::wstring::npos; end = output.find(L'\n', start)) {
    std::wstring line = output.substr(start, end - start);
    names.push_back(!line.empty() && line[0] == L'<' ? ZEL_AGENT_NOT_CONFIGURED : line);
    start = end + 1;
  }
  return names;
}

void Policy::loadZELInstances() {
  QOR_TRACE_FUNCTION();
  // A policy that names its instances has them from its CAP file.
  if (productCode.empty() || !generic) return;
  std::vector<std::wstring> names = GetZELInstances(this);
  bool timedOut = false;
  for (const std::wstring& name : names) {
    defaultZELInstance = true;
    if (name == ZEL_AGENT_NOT_CONFIGURED) {
      QOR_TRACE_DETAIL("No configured instances present for agent %s.\n", QOR_N(productCode));
    } else if (name == QOR_CMD_TIMEOUT_STRING) {
      QOR_TRACE_DETAIL("Timeout in getting instances, check next cycle\n");
      timedOut = true;
    } else if (!isInstance(name) && !isExceptionInstance(name)) {
      instances.push_back(name);
      QOR_TRACE_DETAIL("Adding instance %s for agent %s.\n", QOR_N(name), QOR_N(productCode));
      newInstances = true;
    }
  }
  // An unknown configuration must not delete anything.
  if (timedOut) return;
  for (auto it = instances.begin(); it != instances.end();) {
    if (contains(names, *it)) {
      ++it;
      continue;
    }
    QOR_TRACE_DETAIL("Deleting instance %s for agent %s.\n", QOR_N(*it), QOR_N(productCode));
    it = instances.erase(it);
  }
}

std::wstring GetServiceInstanceName(Policy* policy, const std::wstring& /*unused*/) {
  return policy->getServiceName();
}

bool ParseVexinfOutput(const std::wstring& output, std::vector<QorProcess*>& processes) {
  QOR_TRACE_FUNCTION();
  if (output.empty()) return QOR_TRACE_RETURN(false);
  bool result = true;
  for (auto it = processes.begin(); it != processes.end();) {
    QorProcess* process = *it;
    if (process->getProcID() == 0) {
      process->setInstanceName(L"");
      result = false;
      ++it;
      continue;
    }
    // Kept: a plain substring search: process 123 also hits a line of process 1234.
    const std::wstring digits = std::to_wstring(process->getProcID());
    size_t at = output.find(digits);
    if (at == std::wstring::npos) {
      QOR_TRACE_DETAIL("skipping unknown process %s (%d).\n", QOR_N(process->getInstanceProcName()),
                       process->getProcID());
      it = processes.erase(it);
      continue;
    }
    // The name stands one character behind the number the hit is part of, so
    // that an id that begins a longer one takes that line's name.
    size_t numberEnd = output.find_first_not_of(L"0123456789", at + digits.size());
    if (numberEnd == std::wstring::npos) numberEnd = output.size();
    size_t nameStart = std::min(numberEnd + 1, output.size());
    size_t nameEnd = output.find(L'\n', nameStart);
    process->setInstanceName(
        output.substr(nameStart, nameEnd == std::wstring::npos ? std::wstring::npos : nameEnd - nameStart));
    ++it;
  }
  return QOR_TRACE_RETURN(result);
}

namespace {

// Services are named by their service name.
// Kept: a lone process without a name stays, unnamed; of several, those without a name are dropped.
bool nameServiceProcesses(Policy* policy, std::vector<QorProcess*>& processes) {
  QOR_TRACE_FUNCTION();
  bool result = true;
  const bool single = processes.size() == 1;
  for (auto it = processes.begin(); it != processes.end();) {
    QorProcess* process = *it;
    std::wstring name = GetServiceInstanceName(policy, process->getInstanceProcName());
    if (!name.empty()) {
      process->setServiceInstanceName(name);
    } else if (single) {
      process->setServiceInstanceName(L"");
      result = false;
    } else {
      QOR_TRACE_DETAIL("skipping unknown process %s (%d).\n", QOR_N(process->getInstanceProcName()),
                       process->getProcID());
      it = processes.erase(it);
      continue;
    }
    ++it;
  }
  return result;
}

}  // namespace

bool GetInstanceNames(Policy* policy, std::vector<QorProcess*>& processes) {
  QOR_TRACE_FUNCTION();
  bool result = true;
  if (policy->isZELAgent()) {
    std::wstring output = GetVexinfRunningInstances(policy);
    if (!output.empty()) {
      result = ParseVexinfOutput(output, processes);
    } else {
      for (QorProcess* process : processes) process->setInstanceName(L"");
      result = false;
    }
  } else if (!policy->isConsole()) {
    return QOR_TRACE_RETURN(nameServiceProcesses(policy, processes));
  }
  // A policy that names its instances keeps those; a generic one leaves the
  // instances that another policy names to that one.
  for (auto it = processes.begin(); it != processes.end();) {
    const std::wstring instance = (*it)->getInstanceName();
    bool keep = policy->isGeneric() ? !policy->isExceptionInstance(instance) : policy->isInstance(instance);
    it = keep ? it + 1 : processes.erase(it);
  }
  return QOR_TRACE_RETURN(result);
}

std::wstring GetZELInstanceName(Policy* policy, int pid) {
  QOR_TRACE_FUNCTION();
  QorProcess process;
  process.setProcID(pid);
  bool found = false;
  for (int tries = 0; !found && tries < 2;) {
    QOR_TRACE_DETAIL("Look for pid %d.\n", pid);
    std::wstring cached;
    {
      QorMutexLock lock(&vexinfOutputMutex);
      cached = vexinfOutput;
    }
    std::vector<QorProcess*> single(1, &process);
    if (ParseVexinfOutput(cached, single) && !single.empty()) {
      found = true;
      continue;
    }
    QOR_TRACE_DETAIL("Cache does not contain pid %d. Get vexinf output again.\n", pid);
    // The tool runs without the cache locked: it may take up to the time-out.
    std::wstring fresh = GetVexinfRunningInstances(policy);
    {
      QorMutexLock lock(&vexinfOutputMutex);
      vexinfOutput = fresh;
    }
    ++tries;
  }
  return found ? process.getInstanceName() : std::wstring();
}
