// Agents for an accepted CAP file: the running processes of its policy are
// matched against the records that the state file kept from the last run, the
// records that are new are made, and each agent passes once through its
// management event on its way into managedEndpointProcesses. Runs on the
// command handler thread with the discovery lock and the managed list's lock
// held; a script run on the way gives the list lock up for its length.
#include <cwctype>
#include <memory>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorinst.h"

QOR_TRACE_UNIT();

// The working sets of one reconcile. None of the collections owns its agents:
// every agent ends in managedEndpointProcesses. The process records do belong
// here, or to the Controller's table of the initial scan.
struct Controller::Reconciliation {
  explicit Reconciliation(Policy* accepted) : policy(accepted) {}
  // Freed here, with the reconcile: the process table read for it, and the placeholder (a unique_ptr).
  ~Reconciliation() {
    for (QorProcess* process : allProcesses) delete process;
  }
  Reconciliation(const Reconciliation&) = delete;
  Reconciliation& operator=(const Reconciliation&) = delete;

  Policy* policy;
  ManagedProcessList persistedCollection;  // state file records not matched yet
  ManagedProcessList updatedCollection;    // matched records, and copies of them
  ManagedProcessList newCollection;        // agents with nothing persisted behind them
  std::vector<QorProcess*> runningInstances;
  std::vector<QorProcess*> allProcesses;
  std::unique_ptr<QorProcess> placeholder;
};

namespace {

// A process that should run but does not: it lets the instance step make the
// record of an agent that is down.
std::unique_ptr<QorProcess> makePlaceholder(Policy* policy) {
  std::unique_ptr<QorProcess> placeholder(new QorProcess());
  placeholder->setInstanceProcName(policy->getProcName());
  placeholder->setProcID(0);
  return placeholder;
}

// `name` holds `part`, letters compared without their case.
bool containsIgnoringCase(const std::wstring& name, const std::wstring& part) {
  std::wstring upperName(name);
  std::wstring upperPart(part);
  for (wchar_t& c : upperName) c = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
  for (wchar_t& c : upperPart) c = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
  return upperName.find(upperPart) != std::wstring::npos;
}

// Step 2 of reconcile: the processes of the policy, from the initial scan's
// table when there is one, otherwise from a table read here.
void findRunningInstances(std::vector<QorProcess*>& scanTable, std::vector<QorProcess*>& allProcesses,
                          Policy* policy, std::vector<QorProcess*>& runningInstances) {
  QOR_TRACE_FUNCTION();
  QorCmd* manager = GetCmdManager();
  if (scanTable.empty()) {
    manager->getRunningProcesses(allProcesses);
    manager->getPolicyProcesses(policy, allProcesses, runningInstances);
  } else {
    manager->getPolicyProcesses(policy, scanTable, runningInstances);
  }
  QOR_TRACE_DETAIL("Running instance count: %d \n", static_cast<int>(runningInstances.size()));
}

// Step 3 of reconcile: the main process must be represented, by a process of
// its name or by a placeholder. A suite agent that runs in instances needs
// none. Returns the placeholder added, if any; the vector only points at it.
std::unique_ptr<QorProcess> representMainProcess(Policy* policy, std::vector<QorProcess*>& runningInstances) {
  QOR_TRACE_FUNCTION();
  const int found = static_cast<int>(runningInstances.size());
  std::unique_ptr<QorProcess> placeholder;
  if (runningInstances.empty()) {
    placeholder = makePlaceholder(policy);
    QOR_TRACE_DETAIL("No instances so adding main proc to instance list: %d \n", found);
  } else if (!policy->isZELAgent()) {
    for (QorProcess* process : runningInstances) {
      if (containsIgnoringCase(process->getInstanceProcName(), policy->getProcName())) {
        QOR_TRACE_DETAIL("procName is running\n");
        return placeholder;
      }
    }
    placeholder = makePlaceholder(policy);
    QOR_TRACE_DETAIL("Running proc not found instance count: %d \n", found);
  }
  if (placeholder != nullptr) runningInstances.push_back(placeholder.get());
  return placeholder;
}

// Step 2.3 of the instance step: the record stands for the running process and
// takes its instance name and process id.
void takeOverRunningProcess(Agent* record, QorProcess* process, Policy* policy) {
  QOR_TRACE_FUNCTION();
  if (record->getInstanceName().empty() && !process->getInstanceName().empty()) {
    record->setInstanceName(process->getInstanceName());
    if (!policy->isZELAgent()) policy->addInstance(process->getInstanceName());
  }
  if (record->getOperatingState() == OpUnknown) {
    QOR_TRACE_DETAIL("Found a matching Unmanaged agent, adding to persistedCollection\n");
    return;
  }
  QOR_TRACE_DETAIL("Testing for matching procID, instance=%d, agent=%d\n", process->getProcID(),
                   record->getProcID());
  if (record->getProcID() != process->getProcID()) {
    record->setProcID(process->getProcID());
    QOR_TRACE_DETAIL("Found a matching inst name but different procID, adding to persistedCollection\n");
  } else {
    QOR_TRACE_DETAIL("Found a matching procID, adding to persistedCollection\n");
  }
}

// Step 3.1 of the instance step: a new instance inherits the counters of the
// last persisted record looked at.
Agent* copyOfRecord(Agent* candidate, Policy* policy) {
  candidate->setPolicy(policy);
  // Kept: the copy keeps the record's guid, as every copy of an agent does.
  Agent* copy = new Agent(*candidate, true);
  // Freed here: the copy's private Policy, as the copy points at the live one on its way into the list.
  delete copy->getPolicy();
  copy->setPolicy(policy);
  return copy;
}

// Step 3.2 of the instance step: the name of the running executable when it
// holds the policy's process name (without ".exe"), else that process name.
std::wstring instanceProcNameOf(QorProcess* process, Policy* policy) {
  QOR_TRACE_FUNCTION();
  const std::wstring procName = policy->getProcName();
  const std::wstring stem = procName.substr(0, procName.find(L".exe"));
  std::wstring name = process->getInstanceProcName();
  if (name.find(stem) == std::wstring::npos) name = procName;
  QOR_TRACE_DETAIL("agent instance proc name= %s,  policy proc name =%s\n", QOR_N(name), QOR_N(procName));
  return name;
}

// Applies a management event, with the agent's own managed state, to the agent.
// Requires: managedEndpointProcesses locked by the caller.
void applyManagement(Controller* controller, Agent* agent, AgentMgmtEvent& event) {
  event.setMgmtState(agent->getManagedState());
  event.setAgent(agent);
  controller->ProcessMgmtStateChange(&event);
}

// The loop shared by the two ways in for records of the state file: their
// persisted managed state decides, whatever the CAP file says now.
// Requires: managedEndpointProcesses locked by the caller.
void admitPersistedAgents(Controller* controller, ManagedProcessList& list, Policy* policy,
                          const char* traceText) {
  QOR_TRACE_FUNCTION();
  for (Agent* agent : list) {
    agent->setPolicy(policy);
    AgentMgmtEvent event;
    if (agent->getManagedState() == Managed) {
      event.setEventTypeID(agent_managed);
    } else if (agent->getManagedState() == Unmanaged) {
      agent->setProcID(0);
      event.setNewAgent(true);
      event.setEventTypeID(agent_unmanaged);
    }
    // Kept: a record persisted in any other managed state keeps the event's default id, which changes
    // nothing.
    agent->setZELUserName();
    applyManagement(controller, agent, event);
    QOR_TRACE_DETAIL("%s", traceText);
    controller->getManagedEndpointProcesses()->push_back(agent);
  }
}

// The criteria of a lookup by subagent id, and by instance name when one is given.
void idCriteria(std::wstring* criteria, Policy* policy, const std::wstring& instance = std::wstring()) {
  criteria[3] = policy->getSubagentID();
  criteria[5] = instance;
}

}  // namespace

void Controller::reconcile(Policy* policy, CAPFileEvent* event) {
  QOR_TRACE_FUNCTION();
  const bool initialScan = event->getInitialDiscovery();
  Reconciliation work(policy);
  // Only the start of the service reads the state file; the watchdog process never does here.
  if (initialScan && !isWatchDog) ReadAgent(work.persistedCollection, policy);
  findRunningInstances(runningProcesses, work.allProcesses, policy, work.runningInstances);
  work.placeholder = representMainProcess(policy, work.runningInstances);
  // May drop processes, the placeholder included; none is freed by it.
  GetInstanceNames(policy, work.runningInstances);
  for (size_t position = 0; position < work.runningInstances.size(); ++position) {
    reconcileInstance(work, position);
  }
  // This order is the order of the agents in the list.
  if (!work.updatedCollection.empty()) updatePersistedAgentCollection(work.updatedCollection, policy);
  if (!work.persistedCollection.empty()) addRemainingPersistedAgents(work.persistedCollection, policy);
  if (!work.newCollection.empty()) addNewAgentCollection(work.newCollection, policy, !initialScan);
  // Instances listed for a Windows service are ignored here.
  if (!policy->getInstances().empty() && !isOSAgent(policy) && policy->getAgentTypeElement() != WinService) {
    addMissingInstances(policy->getInstances(), policy, !initialScan);
  }
}

void Controller::reconcileInstance(Reconciliation& work, size_t position) {
  QOR_TRACE_FUNCTION();
  QorProcess* process = work.runningInstances[position];
  QOR_TRACE_DETAIL("Loop through instance names: %d, %d \n", static_cast<int>(position),
                   process->getProcID());
  // 1. Nothing handled, no candidate.
  Agent* candidate = nullptr;
  bool dropped = false;
  // 2. A persisted record that stands for the process.
  Agent* record = takePersistedRecord(work, process, candidate, dropped);
  // 3. None: a new record, from the last persisted one when there was one.
  if (record == nullptr) {
    addInstanceRecord(work, process, candidate);
    return;
  }
  // 4. The record follows an installation that has moved.
  const bool moved = followMovedInstallation(work, record);
  if (!dropped) return;
  // Freed here when nothing can point at it; kept aside once its management event may have queued events for
  // it.
  record->setPolicy(nullptr);
  if (moved) {
    retiredAgents.push_back(record);
  } else {
    delete record;
  }
}

Agent* Controller::takePersistedRecord(Reconciliation& work, QorProcess* process, Agent*& candidate,
                                       bool& dropped) {
  QOR_TRACE_FUNCTION();
  ManagedProcessList& persisted = work.persistedCollection;
  for (auto it = persisted.begin(); it != persisted.end(); ++it) {
    Agent* record = *it;
    candidate = record;
    // 2.1 An unnamed suite process is the instance holder's.
    if (process->getInstanceName().empty() && work.policy->isZELAgent()) {
      QOR_TRACE_DETAIL("Instance holder match persisted agent\n");
      persisted.erase(it);
      work.updatedCollection.push_back(record);
      return record;
    }
    // 2.2 A named instance runs: the holder is of no use any more, and this
    // instance gets no record in this pass.
    if (!process->getInstanceName().empty() && record->isZELInstanceHolder()) {
      QOR_TRACE_DETAIL("Running instance match persisted agent instance holder. Delete instance holder\n");
      persisted.erase(it);
      dropped = true;
      return record;
    }
    // 2.3 The record of this very instance.
    if (record->match(process)) {
      takeOverRunningProcess(record, process, work.policy);
      persisted.erase(it);
      work.updatedCollection.push_back(record);
      return record;
    }
  }
  return nullptr;
}

void Controller::addInstanceRecord(Reconciliation& work, QorProcess* process, Agent* candidate) {
  QOR_TRACE_FUNCTION();
  Policy* policy = work.policy;
  // 3.1
  Agent* agent = candidate != nullptr ? copyOfRecord(candidate, policy) : new Agent();
  // 3.2
  agent->setInstanceProcName(instanceProcNameOf(process, policy));
  // 3.3
  agent->nameInstanceAs(process, policy);
  // 3.4
  agent->setProcID(process->getProcID());
  // 3.5
  if (candidate != nullptr) {
    work.updatedCollection.push_back(agent);
    QOR_TRACE_DETAIL("Copied new instance to persisted Collection\n");
  } else {
    work.newCollection.push_back(agent);
    QOR_TRACE_DETAIL("Copied new instance to new Collection\n");
  }
}

bool Controller::followMovedInstallation(Reconciliation& work, Agent* record) {
  QOR_TRACE_FUNCTION();
  Policy* policy = work.policy;
  if (record->getPath() == policy->getAgentPath()) return false;
  QOR_TRACE_DETAIL("Found a matching inst name but different path, update agent path\n");
  record->setPath(policy->getAgentPath());
  record->setOperatingState(OpUnknown);
  record->setPolicy(policy);
  AgentMgmtEvent event;
  const int managerType = policy->getManagerTypeElement();
  if (managerType == TeoServices || managerType == WatchDog) {
    event.setEventTypeID(agent_managed);
  } else {
    record->setProcID(0);
    event.setEventTypeID(agent_unmanaged);
  }
  applyManagement(this, record, event);
  return true;
}

void Controller::updatePersistedAgentCollection(ManagedProcessList& list, Policy* policy) {
  QOR_TRACE_FUNCTION();
  admitPersistedAgents(this, list, policy, "adding agent to process list from persisted.\n");
}

void Controller::addRemainingPersistedAgents(ManagedProcessList& list, Policy* policy) {
  QOR_TRACE_FUNCTION();
  // A persisted agent that does not run now keeps its record and its counters.
  admitPersistedAgents(this, list, policy, "adding agent to process list from list.\n");
}

void Controller::addNewAgentCollection(ManagedProcessList& list, Policy* policy, bool checkOSAgent) {
  QOR_TRACE_FUNCTION();
  for (Agent* agent : list) {
    agent->setIdentityFrom(policy);
    agent->setAgentInformation();
    agent->setZELUserName();

    int managerType = policy->getManagerTypeElement();
    std::wstring criteria[MATCH_CRITERIA_COUNT];
    idCriteria(criteria, policy);
    std::vector<Agent*> existing = getManagedEndpointProcess(MATCH_ID, criteria);
    // A further instance of a managed agent is managed too.
    if (!existing.empty() && existing.front()->getManagedState() == Managed) managerType = TeoServices;
    // Until the OS agent's management is settled, at startup, it does not count.
    const bool osAgentOK = checkOSAgent ? isOSAgentManaged() : true;

    AgentMgmtEvent event;
    if ((managerType == TeoServices || managerType == WatchDog) && osAgentOK) {
      event.setEventTypeID(agent_managed);
    } else {
      agent->setProcID(0);
      agent->setOperatingState(OpUnknown);
      event.setNewAgent(true);
      event.setEventTypeID(agent_unmanaged);
    }
    applyManagement(this, agent, event);
    QOR_TRACE_DETAIL("adding agent to process list from new.\n");
    managedEndpointProcesses.push_back(agent);
  }
}

void Controller::addMissingInstances(std::vector<std::wstring> names, Policy* policy, bool checkOSAgent) {
  QOR_TRACE_FUNCTION();
  if (names.empty()) return;
  int managed = policy->getManagerTypeElement() != NotManaged ? 1 : 0;
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  idCriteria(criteria, policy);
  std::vector<Agent*> existing = getManagedEndpointProcess(MATCH_ID, criteria);
  Agent* holder = nullptr;
  if (!existing.empty()) {
    if (existing.front()->isZELInstanceHolder()) {
      holder = existing.front();
      QOR_TRACE_DETAIL("Found ZEL instance holder.\n");
    } else {
      managed = existing.front()->getManagedState();
    }
  }
  if (checkOSAgent && !isOSAgentManaged()) managed = 0;

  for (const std::wstring& name : names) {
    idCriteria(criteria, policy, name);
    if (!getManagedEndpointProcess(MATCH_ID | MATCH_INSTANCE_NAME, criteria).empty()) {
      QOR_TRACE_DETAIL("Instance %s already managed.\n", QOR_N(name));
      continue;
    }
    QOR_TRACE_DETAIL("New instance %s to be managed.\n", QOR_N(name));
    // The first new instance takes over the holder, which is in the list already.
    const bool fromHolder = holder != nullptr;
    Agent* agent = fromHolder ? holder : new Agent();
    holder = nullptr;
    agent->setInstanceName(name);
    agent->setIdentityFrom(policy);
    agent->setInstanceProcName(policy->getProcName());
    agent->setAgentInformation();
    agent->setZELUserName();
    AgentMgmtEvent event;
    // Kept: only a managed state of exactly 1 makes the new instance managed.
    event.setEventTypeID(managed == 1 ? agent_managed : agent_unmanaged);
    agent->setOperatingState(OpUnknown);
    event.setNewAgent(true);
    applyManagement(this, agent, event);
    if (fromHolder) {
      QOR_TRACE_DETAIL("updating ZEL agent instance holder.\n");
    } else {
      QOR_TRACE_DETAIL("adding ZEL agent to process list.\n");
      managedEndpointProcesses.push_back(agent);
    }
  }
}
