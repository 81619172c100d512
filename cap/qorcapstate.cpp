// The Controller's answer to CAP files: the initial scan at startup, and what
// a file's arrival or removal does to policies and agents. Runs on the command
// handler thread with the discovery lock and the lock of the managed list
// held; the watchdog list is locked only around its own reads and changes,
// never while a script runs.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "agents/qoragt.h"
#include "cap/qorunx.h"
#include "cap/qorxmlproc.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorwd.h"

QOR_TRACE_UNIT();

namespace {

// True when some agent of `list` carries `id`. Requires: `list` locked.
bool hasAgentWithId(ManagedProcessList& list, const std::wstring& id) {
  for (Agent* agent : list) {
    if (agent->getID() == id) return true;
  }
  return false;
}

bool belongsToFile(const Agent* agent, const std::wstring& capFileName) {
  return agent->getPolicy() != nullptr && agent->getPolicy()->getCAPFileName() == capFileName;
}

// An agent with the identity of a policy: its id, names, path and type.
Agent* agentFor(Policy* policy) {
  Agent* agent = new Agent();
  agent->setIdentityFrom(policy);
  return agent;
}

// The state file's restart count and managed state of the OS agent go to its
// new record, but only where the watchdog process is its declared manager.
// Requires: managedEndpointProcesses locked by the caller.
void takePersistedOSAgentState(Controller* controller, Agent* agent, Policy* policy) {
  ManagedProcessList persisted;
  controller->ReadAgent(persisted, policy);
  if (!persisted.empty() && policy->getManagerTypeElement() == WatchDog) {
    Agent* front = persisted.front();
    agent->setDailyRestartCount(front->getDailyRestartCount());
    agent->setManagedState(front->getManagedState());
  }
  // Every record read here is freed, the front one and any others alike:
  // none has a policy or a Watchdog yet, and nothing else points at them.
  for (Agent* record : persisted) delete record;
  persisted.clear();
}

}  // namespace

void Controller::initialDiscovery() {
  QOR_TRACE_FUNCTION();
  // One reading of the process table serves every file of the scan; it is
  // freed when the scan's last event has been handled.
  GetCmdManager()->getRunningProcesses(runningProcesses);
  for (const std::wstring& directory : capDirPaths) {
    for (const std::wstring& name : GetCAPDirFiles(directory)) {
      std::wstring path = directory + name;
      QOR_TRACE_DETAIL("FileName<%s>", QOR_N(path));
      CAPFileEvent* event = new CAPFileEvent();
      event->setCAPState(CAP_FILE_ADDED);
      event->setInitialDiscovery();
      event->setEventTypeID(cap_added);
      event->setCAPFileName(path);
      event->processEvent();
    }
  }
  CAPFileEvent* complete = new CAPFileEvent();
  complete->setEventTypeID(cap_init_complete);
  complete->processEvent();
}

namespace {

// A CAP file is a small document; anything this large is no CAP file, and
// its text would all be kept in memory by the parse.
constexpr off_t kLargestCapFile = 1 << 20;

// Whether `path` names a regular file of a CAP file's size that this process
// can open. The processor opens whatever it is given and stays in its read
// loop when the open fails, or in the open itself for a FIFO that no one
// writes, with the CAP locks held: every other agent would go unchecked. The
// look is taken without blocking, and each refusal is traced with its cause.
bool capFileCanBeParsed(const std::wstring& path) {
  QOR_TRACE_FUNCTION();
  const std::string narrow = qor_narrow(path);
  int fd = open(narrow.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    QOR_TRACE_ERROR("Cannot open the CAP file %s: %s\n", narrow.c_str(), strerror(errno));
    return false;
  }
  struct stat status;
  const bool known = fstat(fd, &status) == 0;
  const int error = errno;
  close(fd);
  if (!known) {
    QOR_TRACE_ERROR("Cannot look at the CAP file %s: %s\n", narrow.c_str(), strerror(error));
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    QOR_TRACE_ERROR("The CAP file %s is not a regular file\n", narrow.c_str());
    return false;
  }
  if (status.st_size > kLargestCapFile) {
    QOR_TRACE_ERROR("The CAP file %s is too large: %lld bytes\n", narrow.c_str(),
                    static_cast<long long>(status.st_size));
    return false;
  }
  return true;
}

}  // namespace

bool Controller::ParseCAPFile(const std::wstring& path, Policy& policy) {
  if (!capFileCanBeParsed(path)) return false;
  return xmlProcessor->parse(path, policy) == 0;
}

bool Controller::isOSAgent(Policy* policy) {
  if (policy->getManagerTypeElement() == WatchDog) return true;
  std::wstring code = policy->getProductCode();
  return code == L"qa" || code == L"qb" || code == L"qc";
}

void Controller::ProcessCAPStateChange(CAPFileEvent* event) {
  if (event->getCAPState() == CAP_FILE_ADDED && event->getEventTypeID() == cap_added) {
    capFileAdded(event);
  } else if (event->getCAPState() == CAP_FILE_REMOVED && event->getEventTypeID() == cap_removed) {
    capFileRemoved(event);
  }
}

void Controller::capFileAdded(CAPFileEvent* event) {
  QOR_TRACE_FUNCTION();
  Policy* policy = new Policy();
  if (!ParseCAPFile(event->getCAPFileName(), *policy)) {
    QOR_TRACE_ERROR("ParseCAPFile failed.\n");
    delete policy;
    return;
  }
  // Kept: a second file with an id is ignored, also after the first goes, until it is removed and added.
  // The first file wins for as long as it has agents; a policy without any agent does not block its id.
  bool duplicate = hasAgentWithId(managedEndpointProcesses, policy->getSubagentID());
  if (!duplicate && watchdogList.lockList()) {
    duplicate = hasAgentWithId(watchdogList, policy->getSubagentID());
    watchdogList.unlockList();
  }
  if (duplicate) {
    QOR_TRACE_DETAIL("Duplicate subagent ID found, ignoring this subagent. CAP file: %s\n",
                     QOR_N(event->getCAPFileName()));
    delete policy;
    return;
  }
  if (!isWatchDog && isOSAgent(policy)) {
    // The service runs inside the OS agent and cannot supervise itself.
    addOSAgentRecord(event, policy);
    return;
  }
  if (isWatchDog && !isOSAgent(policy)) {
    QOR_TRACE_DETAIL("WatchDog monitors only the OS Agent. Ignoring CAP file: %s \n",
                     QOR_N(event->getCAPFileName()));
    delete policy;
    return;
  }
  processPolicyInstances(policy, cap_added);
  policies.push_back(policy);
  reconcile(policy, event);
}

void Controller::addOSAgentRecord(CAPFileEvent* event, Policy* policy) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Agent does not monitor itself. Watchdog CAP file: %s \n", QOR_N(event->getCAPFileName()));
  Agent* agent = agentFor(policy);
  agent->setInstanceProcName(policy->getProcName());
  if (policy->isZELAgent()) agent->setInstanceName(L"None");
  agent->setAgentInformation();
  agent->setManagedState(policy->getManagerTypeElement() == WatchDog ? WatchdogManaged : Unmanaged);
  Watchdog* watchdog = new Watchdog();
  watchdog->setAgent(agent);
  agent->setWatchdog(watchdog);

  takePersistedOSAgentState(this, agent, policy);
  if (agent->getManagedState() == Unmanaged) {
    AgentMgmtEvent unmanaged;
    unmanaged.setAgent(agent);
    unmanaged.setMgmtState(Unmanaged);
    RawEvent::logUnreliableMessage(&unmanaged);
  }
  if (watchdogList.lockList()) {
    watchdogList.push_back(agent);
    watchdogList.unlockList();
  }
}

void Controller::capFileRemoved(CAPFileEvent* event) {
  QOR_TRACE_FUNCTION();
  const std::wstring capFileName = event->getCAPFileName();
  std::vector<Policy*> removal;
  for (;;) {
    auto found = std::find_if(managedEndpointProcesses.begin(), managedEndpointProcesses.end(),
                              [&](Agent* agent) { return belongsToFile(agent, capFileName); });
    if (found == managedEndpointProcesses.end()) break;
    Agent* agent = *found;
    QOR_TRACE_DETAIL("Found agent with matching policy cap file to remove. %s\n",
                     agent->getshortID().c_str());
    event->setAgent(new Agent(*agent, true));  // Kept: the message tells of the last agent found only
    if (agent->isWatchDogAgent()) RawEvent::logUnreliableMessage(event);
    managedEndpointProcesses.erase(found);
    if (std::find(removal.begin(), removal.end(), agent->getPolicy()) == removal.end()) {
      removal.push_back(agent->getPolicy());
    }
    // Other agents still share the policy until the pass ends.
    agent->setPolicy(nullptr);
    delete agent;
  }

  if (removal.empty()) {
    auto found = std::find_if(policies.begin(), policies.end(),
                              [&](Policy* policy) { return policy->getCAPFileName() == capFileName; });
    if (found != policies.end()) {
      QOR_TRACE_DETAIL("Found a agentless policy with matching policy cap file to remove. %s\n",
                       (*found)->getShortSID().c_str());
      removal.push_back(*found);
      Agent* temporary = agentFor(*found);
      event->setAgent(new Agent(*temporary, true));
      temporary->setPolicy(nullptr);
      delete temporary;
    }
  }

  // Kept: a file that was refused, and the OS agent's own file, leave nothing to remove: nobody is told.
  if (removal.empty()) event->suppressMessages();

  for (Policy* policy : removal) {
    auto listed = std::find(policies.begin(), policies.end(), policy);
    if (listed != policies.end()) {
      policies.erase(listed);
      QOR_TRACE_DETAIL("Found policy and removed from available policies list.\n");
    }
    if (!policy->isGeneric()) processPolicyInstances(policy, cap_removed);
    delete policy;
  }
}

void Controller::processPolicyInstances(Policy* policy, TEOEvents event) {
  QOR_TRACE_FUNCTION();
  for (Policy* other : policies) {
    if (other == policy || other->getAgentNameElement() != policy->getAgentNameElement()) continue;
    if (!policy->isGeneric()) {
      if (!other->isGeneric()) continue;
      if (event == cap_added) {
        // A specific policy wins its instances from the generic one.
        other->addExceptionInstances(policy);
        removeAgentExceptionInstances(other);
      } else if (event == cap_removed) {
        // ...and gives them back when it goes: the generic policy gets agents for them again.
        other->removeExceptionInstances(policy);
        addMissingInstances(policy->getInstances(), other, true);
      }
    } else if (event == cap_added) {
      if (!other->isGeneric()) {
        policy->addExceptionInstances(other);
        removeAgentExceptionInstances(policy);
      } else {
        // Kept: only traced; the second generic policy is kept all the same.
        QOR_TRACE_ERROR("Generic policy for agent %s already defined by agent %s.\n",
                        policy->getShortSID().c_str(), other->getShortSID().c_str());
      }
    }
  }
}

void Controller::removeAgentExceptionInstances(Policy* policy) {
  QOR_TRACE_FUNCTION();
  for (auto it = managedEndpointProcesses.begin(); it != managedEndpointProcesses.end();) {
    Agent* agent = *it;
    if (belongsToFile(agent, policy->getCAPFileName()) &&
        policy->isExceptionInstance(agent->getInstanceName())) {
      QOR_TRACE_DETAIL("Found agent with matching instance to remove. %s : %s\n", agent->getshortID().c_str(),
                       QOR_N(agent->getInstanceName()));
      it = managedEndpointProcesses.erase(it);
      // Kept: no event, and the record is not destroyed but kept aside, where an event may point at it.
      retiredAgents.push_back(agent);
    } else {
      ++it;
    }
  }
}
