// Snapshots of the agent lists for other threads, and the iterator through
// which the host reads them. An iterator touches no shared state after its
// construction.
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "include/qorapi.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/qorsockserv.h"
#include "platform/log1.h"
#include "watchdog/qorwd.h"

QOR_TRACE_UNIT();

bool Controller::getManagedEndpointSnapshot(std::vector<Agent*>* agents) {
  QOR_TRACE_FUNCTION();
  if (!managedEndpointProcesses.lockList()) return false;
  if (!managedEndpointProcesses.empty()) {
    QOR_TRACE_STORY("Snapshot of agent being taken #agents: %d \n",
                    static_cast<int>(managedEndpointProcesses.size()));
    for (Agent* agent : managedEndpointProcesses) agents->push_back(new Agent(*agent, false));
  }
  managedEndpointProcesses.unlockList();
  return true;
}

bool Controller::getManagedEndpointAndPolicySnapshot(std::vector<Agent*>* agents,
                                                     std::vector<Policy*>* policiesOut) {
  QOR_TRACE_FUNCTION();
  if (!managedEndpointProcesses.lockList()) return false;
  std::vector<std::wstring> seenIds;
  for (Agent* agent : managedEndpointProcesses) {
    if (agent->getManagedState() != Managed) continue;
    agents->push_back(new Agent(*agent, false));
    Policy* policy = agent->getPolicy();
    if (policy == nullptr) continue;
    std::wstring id = policy->getSubagentID();
    bool seen = false;
    for (const std::wstring& known : seenIds) seen = seen || known == id;
    if (!seen) {
      policiesOut->push_back(policy);
      seenIds.push_back(id);
    }
  }
  managedEndpointProcesses.unlockList();
  return true;
}

// Brings a copy of the OS agent's record up to date: its process from /proc,
// and its restart count and last check from the watchdog process, which is
// the one that counts. A failed query keeps the old values. Whether the
// process was found.
bool Controller::refreshWatchedRecord(Agent* agent) {
  QOR_TRACE_FUNCTION();
  Watchdog* watchdog = agent->getWatchdog();
  if (watchdog != nullptr) watchdog->collectProcessData();
  if (agent->getProcID() == 0) {
    agent->setOperatingState(OpUnknown);
    return false;
  }
  agent->setOperatingState(OpRunning);
  if (watchdog != nullptr) watchdog->collectRuntimeData();
  agent->resetChecked();
  std::string answer;
  const int result = sendWDQuery(std::string("622") + " " + "QUERY" + " " + "HEALTH_INFO", answer);
  if (result != 0) return true;
  QOR_TRACE_STORY("Result of query: %d, %s \n", result, answer.c_str());
  takeHealthInfo(agent, answer);
  return true;
}

// "<count>|<mday> <mon> <year> <hour> <min> <sec> <isdst>", the date left
// out when the watchdog process has no check recorded.
void Controller::takeHealthInfo(Agent* agent, const std::string& answer) {
  QOR_TRACE_FUNCTION();
  const std::string::size_type bar = answer.find('|');
  if (bar == std::string::npos) return;
  int count = 0;
  if (sscanf(answer.c_str(), "%d", &count) == 1) {
    QOR_TRACE_STORY("setting daily restart count to: %d\n", count);
    agent->setDailyRestartCount(count);
  }
  if (bar + 3 >= answer.size()) return;
  struct tm date;
  if (readWireDate(answer.c_str() + bar + 1, date) != 7) return;
  QOR_TRACE_STORY("date %d %d %d %d %d %d %d\n", date.tm_mday, date.tm_mon, date.tm_year, date.tm_hour,
                  date.tm_min, date.tm_sec, date.tm_isdst);
  agent->setCheckTime(mktime(&date));
}

// The look at the process goes through the process matching, which takes the
// lock of managedEndpointProcesses, and the query may wait on the socket: both
// work on a copy with no list lock held, since commands take
// managedEndpointProcesses first and watchdogList second. What they found is
// written back under the lock, if the record is still in the list.
void Controller::refreshWatchedRecords() {
  QOR_TRACE_FUNCTION();
  std::vector<std::pair<Agent*, Agent*>> work;
  if (!watchdogList.lockList()) return;
  for (Agent* agent : watchdogList) {
    if (agent->getManagedState() != WatchdogManaged) continue;
    const time_t now = time(nullptr);
    // A last refresh that lies ahead means the clock was set back: the data
    // is as old as nobody knows, so it is refreshed rather than kept for as
    // long as the clock went back.
    const double since = difftime(now, watchdogListChecked);
    if (since >= 0.0 && since <= 30.0 && watchdogDataValid) continue;
    watchdogListChecked = now;
    work.emplace_back(agent, new Agent(*agent, false));
  }
  watchdogList.unlockList();
  for (auto& pair : work) {
    const bool found = refreshWatchedRecord(pair.second);
    if (watchdogList.lockList()) {
      for (Agent* agent : watchdogList) {
        if (agent != pair.first) continue;
        agent->takeObservationsFrom(*pair.second);
        if (found) watchdogDataValid = true;
      }
      watchdogList.unlockList();
    }
    delete pair.second;
  }
}

bool Controller::getWatchDogListSnapshot(std::vector<Agent*>* agents, bool update) {
  QOR_TRACE_FUNCTION();
  if (update) refreshWatchedRecords();
  if (!watchdogList.lockList()) return false;
  if (!watchdogList.empty()) {
    QOR_TRACE_STORY("Snapshot of agent watchdog list being taken #agents: %d. Update = %d \n",
                    static_cast<int>(watchdogList.size()), update ? 1 : 0);
  }
  for (Agent* agent : watchdogList) {
    if (agent->getManagedState() != WatchdogManaged) {
      agent->setOperatingState(OpUnknown);
      agents->push_back(new Agent(*agent, false));
      continue;
    }
    // Seen from outside, the OS agent is simply managed.
    Agent* copy = new Agent(*agent, false);
    copy->setManagedState(Managed);
    agents->push_back(copy);
  }
  watchdogList.unlockList();
  return true;
}

QOR_AgentIterator* QOR_QueryService::getAgentIterator(bool includeWatchdog) {
  QOR_TRACE_FUNCTION();
  if (!m_bIsStarted) return nullptr;
  QOR_AgentIterator* iterator = new QOR_AgentIterator();
  if (includeWatchdog) {
    QOR_TRACE_STORY("Taking watchdog snapshot.\n");
    std::vector<Agent*> watched;
    Controller::getController()->getWatchDogListSnapshot(&watched, true);
    if (!watched.empty()) {
      QOR_TRACE_STORY("Watchdog in list copied: %d\n", static_cast<int>(watched.size()));
      iterator->snapshot().insert(iterator->snapshot().end(), watched.begin(), watched.end());
      iterator->rewind();
    } else {
      QOR_TRACE_STORY("No watchdogs in list\n");
    }
  }
  return iterator;
}

void QOR_QueryService::releaseAgentIterator(QOR_AgentIterator* iterator) { delete iterator; }

QOR_AgentIterator::QOR_AgentIterator() : atStart(false) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_STORY("Taking snapshot.\n");
  Controller::getController()->getManagedEndpointSnapshot(&agents);
  position = agents.end();
  if (!agents.empty()) {
    atStart = true;
    QOR_TRACE_STORY("Agents in list: %d\n", static_cast<int>(agents.size()));
  } else {
    QOR_TRACE_STORY("No Agents in list\n");
  }
}

QOR_AgentIterator::~QOR_AgentIterator() {
  for (Agent* agent : agents) delete agent;
  agents.clear();
}

void QOR_AgentIterator::rewind() {
  atStart = !agents.empty();
  // Appending may have moved the vector: the position is set anew.
  position = agents.end();
}

bool QOR_AgentIterator::getNextAgentEntry() {
  if (agents.empty()) return false;
  if (atStart) {
    atStart = false;
    position = agents.begin();
    return true;
  }
  if (position == agents.end()) return false;
  ++position;
  return position != agents.end();
}

// Before the first step the position is the end, so every getter answers as
// at a bad position rather than reading a record that is not there.
bool QOR_AgentIterator::invalidPos() { return position == agents.end(); }

Agent* QOR_AgentIterator::current() { return invalidPos() ? nullptr : *position; }

namespace {

const Policy* policyOf(const Agent* agent) { return agent != nullptr ? agent->getPolicy() : nullptr; }

}  // namespace

bool QOR_AgentIterator::getCAPFileModifyTimestamp(long& timestamp) {
  const Policy* policy = policyOf(current());
  if (policy == nullptr) return false;
  timestamp = policy->getCAPFileModifyTimestamp();
  return true;
}

std::wstring QOR_AgentIterator::getCAPFileName() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getCAPFileName() : std::wstring();
}

bool QOR_AgentIterator::getLastHealthCheck(long& checkTime) {
  Agent* agent = current();
  if (agent == nullptr) return false;
  time_t when = 0;
  if (!agent->getLastChecked(when)) return false;
  checkTime = static_cast<long>(when);
  return true;
}

std::wstring QOR_AgentIterator::getSubagentID() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getSubagentID() : std::wstring();
}

int QOR_AgentIterator::getAgentType() { return current() ? current()->getType() : -1; }
std::wstring QOR_AgentIterator::getAgentName() { return current() ? current()->getName() : std::wstring(); }
std::wstring QOR_AgentIterator::getProcessName() {
  return current() ? current()->getProcName() : std::wstring();
}

std::wstring QOR_AgentIterator::getInstanceProcessName() {
  return current() ? current()->getInstanceProcName() : std::wstring();
}

std::wstring QOR_AgentIterator::getAgentPath() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getAgentPathElement() : std::wstring();
}

int QOR_AgentIterator::getManageType() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getManagerTypeElement() : -1;
}

int QOR_AgentIterator::getManagedState() { return current() ? current()->getManagedState() : -1; }
int QOR_AgentIterator::getOperationalStatus() { return current() ? current()->getOperatingState() : -1; }

std::wstring QOR_AgentIterator::getStartScript() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getStartCommand() : std::wstring();
}

std::wstring QOR_AgentIterator::getStopScript() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getStopCommand() : std::wstring();
}

std::wstring QOR_AgentIterator::getConfigScript() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getConfigCommand() : std::wstring();
}

std::wstring QOR_AgentIterator::getStatusScript() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getAvailabilityStatusCommand() : std::wstring();
}

int QOR_AgentIterator::getDailyCheckFreq() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getCheckFrequencyElement() : -1;
}

int QOR_AgentIterator::getMaxRestartsPerDay() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getMaxRestartElement() : -1;
}

int QOR_AgentIterator::getAgentHealthPort() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getAgentPort() : -1;
}

int QOR_AgentIterator::getOSType() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getOsTypeAsEnum() : -1;
}

std::wstring QOR_AgentIterator::getOSVersion() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getOsVersion() : std::wstring();
}

std::wstring QOR_AgentIterator::getOSName() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getOsName() : std::wstring();
}

std::wstring QOR_AgentIterator::getKernelRelease() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getKernelRelease() : std::wstring();
}

std::wstring QOR_AgentIterator::getDependencies() {
  const Policy* policy = policyOf(current());
  std::wstring joined;
  if (policy == nullptr) return joined;
  bool first = true;
  for (const std::wstring& entry : policy->getDependentAgents()) {
    if (!first) joined += L",";
    joined += entry;
    first = false;
  }
  return joined;
}

long QOR_AgentIterator::getMemoryThresholdValue() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getMemoryThresholdValue() : -1;
}

int QOR_AgentIterator::getMemoryThresholdUnit() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getMemoryThresholdUnit() : 0;
}

unsigned long QOR_AgentIterator::getMemoryThreshold() {
  const Policy* policy = policyOf(current());
  if (policy == nullptr) return ULONG_MAX;
  double bytes = policy->getMemoryThreshold();
  // A threshold beyond what 64 bits hold saturates rather than overflow.
  if (bytes >= 18446744073709551615.0) return ULONG_MAX;
  return bytes <= 0.0 ? 0UL : static_cast<unsigned long>(bytes);
}

long QOR_AgentIterator::getCPUThreshold() {
  const Policy* policy = policyOf(current());
  return policy ? policy->getCPUThreshold() : -1;
}

std::wstring QOR_AgentIterator::getIPAddress() { return std::wstring(); }
std::wstring QOR_AgentIterator::getHostName() { return std::wstring(); }
long QOR_AgentIterator::getProcessID() { return current() ? static_cast<long>(current()->getProcID()) : -1; }
std::wstring QOR_AgentIterator::getCommandLine() {
  return current() ? current()->getCmdLine() : std::wstring();
}
std::wstring QOR_AgentIterator::getBuildDate() { return L"0000000000000001"; }

std::wstring QOR_AgentIterator::getAgentBuildNumber() {
  return current() ? current()->getAgentBuildNumber() : std::wstring();
}

std::wstring QOR_AgentIterator::getAgentVersion() {
  return current() ? current()->getAgentVersion() : std::wstring();
}
int QOR_AgentIterator::getDailyRestartCount() { return current() ? current()->getDailyRestartCount() : -1; }

long QOR_AgentIterator::getUserCPU() {
  return current() ? static_cast<long>(current()->getUserCPUPercent()) : -1;
}

long QOR_AgentIterator::getSystemCPU() {
  return current() ? static_cast<long>(current()->getKernelCPUPercent()) : -1;
}

long QOR_AgentIterator::getCPUUsage() {
  return current() ? static_cast<long>(current()->getCPUPercent()) : -1;
}

long QOR_AgentIterator::getPageFaults() {
  return current() ? static_cast<long>(current()->getPageFaultsPerSec()) : -1;
}

long QOR_AgentIterator::getThreadCount() {
  return current() ? static_cast<long>(current()->getThreadCount()) : -1;
}
long QOR_AgentIterator::getHandleCount() {
  return current() ? static_cast<long>(current()->getHandleCount()) : -1;
}

std::wstring QOR_AgentIterator::getServiceName() {
  Agent* agent = current();
  if (agent == nullptr) return std::wstring();
  // A service instance found by discovery wins over the policy's name.
  if (!agent->getServiceInstanceName().empty()) return agent->getServiceInstanceName();
  const Policy* policy = agent->getPolicy();
  return policy ? policy->getServiceName() : std::wstring();
}

std::wstring QOR_AgentIterator::getZELInstanceName() {
  return current() ? current()->getInstanceName() : std::wstring();
}

unsigned long QOR_AgentIterator::getWorkingSetSize() {
  return current() ? current()->getMemSizeBytes() / 1024 : ULONG_MAX;
}
long QOR_AgentIterator::getParentProcessID() { return current() ? current()->getParentProcID() : -1; }

long QOR_AgentIterator::getResidentSetSize() {
  return current() ? static_cast<long>(current()->getResidentSetSize()) : -1;
}

long QOR_AgentIterator::getTotalMemorySize() {
  return current() ? static_cast<long>(current()->getMemSizePages()) : -1;
}

unsigned long QOR_AgentIterator::getVMSize() { return current() ? current()->getVMSize() / 1024 : ULONG_MAX; }
std::wstring QOR_AgentIterator::getProcessUser() {
  return current() ? current()->getUserName() : std::wstring();
}
