// The Controller's agent commands: what an operator's request turns into.
// Here, the lookup of live agents by a mask of fields that they all share,
// and the commands built on it.
#include <cwchar>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "interfaces/qorsockclient.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

// One row of the mask: its bit, the entry of the criteria it reads, and the
// agent's field, as text or as a number.
struct MatchRow {
  int bit;
  int index;
  std::wstring (Agent::*text)() const;
  long (*number)(const Agent&);
};

long procIdOf(const Agent& agent) { return agent.getProcID(); }
long operatingStateOf(const Agent& agent) { return agent.getOperatingState(); }
long guidOf(const Agent& agent) { return agent.getGUID(); }

const MatchRow kMatchRows[] = {
    {Controller::MATCH_NAME, 0, &Agent::getName, nullptr},
    {Controller::MATCH_ID, 3, &Agent::getID, nullptr},
    {Controller::MATCH_PROC_ID, 1, nullptr, procIdOf},
    {Controller::MATCH_INSTANCE_PROC_NAME, 2, &Agent::getInstanceProcName, nullptr},
    {Controller::MATCH_OPERATING_STATE, 4, nullptr, operatingStateOf},
    {Controller::MATCH_INSTANCE_NAME, 5, &Agent::getInstanceName, nullptr},
    {Controller::MATCH_SERVICE_INSTANCE_NAME, 6, &Agent::getServiceInstanceName, nullptr},
    {Controller::MATCH_GUID, 7, nullptr, guidOf},
};
static_assert(sizeof kMatchRows / sizeof kMatchRows[0] == Controller::MATCH_CRITERIA_COUNT,
              "one row for each bit of the mask");

}  // namespace

std::vector<Agent*> Controller::getManagedEndpointProcess(int mask, const std::wstring* criteria) {
  // The numbers are read once, before the walk.
  long numbers[MATCH_CRITERIA_COUNT] = {0};
  for (const MatchRow& row : kMatchRows) {
    if ((mask & row.bit) != 0 && row.number != nullptr) {
      numbers[row.index] = wcstol(criteria[row.index].c_str(), nullptr, 10);
    }
  }
  std::vector<Agent*> found;
  for (Agent* agent : managedEndpointProcesses) {
    bool taken = true;
    for (const MatchRow& row : kMatchRows) {
      if ((mask & row.bit) == 0) continue;
      if (row.text != nullptr) {
        taken = taken && (agent->*row.text)() == criteria[row.index];
      } else {
        taken = taken && row.number(*agent) == numbers[row.index];
      }
    }
    if (taken) found.push_back(agent);
  }
  return found;
}

std::vector<Agent*> Controller::getManagedEndpointProcessLOCK(int mask, const std::wstring* criteria) {
  QOR_TRACE_FUNCTION();
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return std::vector<Agent*>();
  }
  std::vector<Agent*> found = getManagedEndpointProcess(mask, criteria);
  managedEndpointProcesses.unlockList();
  return found;
}

// ---- Operator commands ------------------------------------------------------------
// None of them does the work: each finds the agent, checks that the request
// makes sense in the agent's present state, and queues an event that the
// state machine carries out later. 0 means accepted, not done. The list stays
// locked from the lookup to the event, so that the state tested is the state
// the event was made for.

namespace {

// The lookup of start, recycle and reset: by name, and by the instance when
// one is named, otherwise by the process name.
int commandCriteria(std::wstring* criteria, const std::wstring& name, const std::wstring& process,
                    const std::wstring& instance) {
  criteria[0] = name;
  if (!instance.empty()) {
    criteria[5] = instance;
    return Controller::MATCH_NAME | Controller::MATCH_INSTANCE_NAME;
  }
  criteria[2] = process;
  return Controller::MATCH_NAME | Controller::MATCH_INSTANCE_PROC_NAME;
}

int addProcessId(std::wstring* criteria, int mask, int pid) {
  if (pid == -1) return mask;
  criteria[1] = std::to_wstring(pid);
  return mask | Controller::MATCH_PROC_ID;
}

bool isBusy(const Agent* agent) {
  return agent->getOperatingState() == OpStarting || agent->getOperatingState() == OpStopping;
}

// Clears the day's restarts and tells the listeners straight away: the state
// machine has nothing to do with a reset.
void resetCountAndTell(Agent* agent) {
  agent->resetDailyRestartCount();
  AgentOpEvent reset;
  reset.setEventTypeID(agent_count_reset);
  reset.setAgent(agent);
  reset.logMessage();
}

AgentOpEvent* commandFor(Agent* agent, TEOEvents id) {
  AgentOpEvent* event = new AgentOpEvent();
  event->setEventTypeID(id);
  event->setAgent(agent);
  event->setOpState(agent->getOperatingState());
  return event;
}

}  // namespace

int Controller::stopAgent(const std::wstring& name, const std::wstring& process, int pid) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_STATUS("Stop agent %s (pid %d)\n", QOR_N(name), pid);
  QOR_TRACE_STORY("Lookup agent: %s, process: %s\t%d \n", QOR_N(name), QOR_N(process), pid);
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[0] = name;
  criteria[2] = process;
  // Kept: the name takes no part in the lookup of a stop; the process name alone does.
  const int mask = addProcessId(criteria, MATCH_INSTANCE_PROC_NAME, pid);
  int result = 202;
  bool found = false;
  if (managedEndpointProcesses.lockList()) {
    for (Agent* agent : getManagedEndpointProcess(mask, criteria)) {
      found = true;
      result = stopOne(agent);
    }
    managedEndpointProcesses.unlockList();
  } else {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
  }
  if (found) return result;
  bool managed = false;
  if (isOSAgent(name, managed)) {
    QOR_TRACE_ERROR("Stop agent failed. Agent %s, is OS Agent\n", QOR_N(name));
    return 203;
  }
  QOR_TRACE_ERROR("Stop agent failed. Agent %s, pid %d not found\n", QOR_N(name), pid);
  return 202;
}

int Controller::stopOne(Agent* agent) {
  QOR_TRACE_FUNCTION();
  if (agent->getManagedState() != Managed) {
    QOR_TRACE_ERROR("Stop agent failed. Agent %s not managed\n", QOR_N(agent->getName()));
    return 200;
  }
  if (isBusy(agent) || agent->getOperatingState() == OpManuallyStopped) {
    QOR_TRACE_ERROR("Stop agent failed. Agent %s already being started or stopped.\n",
                    QOR_N(agent->getName()));
    return 201;
  }
  AgentOpEvent* event = commandFor(agent, agent_stop_cmd);
  // Nothing guards the OS agent while the watchdog process is stopped.
  if (agent->isWatchDogAgent()) RawEvent::logUnreliableMessage(event);
  event->processEvent();
  return 0;
}

int Controller::startAgent(const std::wstring& name, bool resetCount, const std::wstring& process,
                           const std::wstring& instance) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_STATUS("Start agent %s\n", QOR_N(name));
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  const int mask = commandCriteria(criteria, name, process, instance);
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
  } else {
    std::vector<Agent*> agents = getManagedEndpointProcess(mask, criteria);
    const int result = agents.empty() ? -1 : startOne(pickToStart(agents), resetCount);
    managedEndpointProcesses.unlockList();
    if (result != -1) return result;
  }
  bool managed = false;
  if (isOSAgent(name, managed)) {
    QOR_TRACE_ERROR("Start agent failed. Agent %s is OS Agent %s\n", QOR_N(name), QOR_N(name));
    return 103;
  }
  QOR_TRACE_ERROR("Start agent failed. Agent %s not found -- Process not found %s\n", QOR_N(name),
                  QOR_N(process));
  return 102;
}

// Of several records of a console program, the one without a process: the
// instance that is down. When all run, the last.
Agent* Controller::pickToStart(const std::vector<Agent*>& agents) {
  if (agents.front()->getType() != Console) return agents.front();
  for (Agent* agent : agents) {
    if (agent->getProcID() == 0) return agent;
  }
  return agents.back();
}

int Controller::startOne(Agent* agent, bool resetCount) {
  QOR_TRACE_FUNCTION();
  if (agent->getManagedState() != Managed) {
    QOR_TRACE_ERROR("Start agent failed. Agent %s not managed\n", QOR_N(agent->getName()));
    return 100;
  }
  // An agent stopped by an operator may be started again.
  if (isBusy(agent)) {
    QOR_TRACE_ERROR("Start agent failed. Agent %s already being started or stopped.\n",
                    QOR_N(agent->getName()));
    return 101;
  }
  AgentOpEvent* event = commandFor(agent, agent_start_cmd);
  if (resetCount) resetCountAndTell(agent);
  event->processEvent();
  return 0;
}

int Controller::recycleAgent(const std::wstring& name, const std::wstring& process,
                             const std::wstring& instance, int pid) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_STATUS("Recycle agent %s\n", QOR_N(name));
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  const int mask = addProcessId(criteria, commandCriteria(criteria, name, process, instance), pid);
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
  } else {
    std::vector<Agent*> agents = getManagedEndpointProcess(mask, criteria);
    const int result = agents.empty() ? -1 : recycleOne(agents.front());
    managedEndpointProcesses.unlockList();
    if (result != -1) return result;
  }
  bool managed = false;
  if (!isOSAgent(name, managed)) {
    QOR_TRACE_ERROR("Recycle agent failed. Agent %s not found -- Process not found %s\n", QOR_N(name),
                    QOR_N(process));
    return 302;
  }
  if (!managed) {
    QOR_TRACE_ERROR("Recycle agent failed. OS agent is not managed\n");
    return 300;
  }
  // The OS agent's record lives in the watchdog process, which recycles it.
  QOR_TRACE_ERROR("Recycle OS Agent. Agent %s is OS Agent %s\n", QOR_N(name), QOR_N(name));
  setRecycleOS(true);
  const int rc = sendWDCommand("622 RECYCLE");
  QOR_TRACE_STORY("Result of command: %d, %s \n", rc, "622 RECYCLE");
  if (rc == 0) return 0;
  setRecycleOS(false);
  return -1;
}

int Controller::recycleOne(Agent* agent) {
  QOR_TRACE_FUNCTION();
  if (!agent->isManaged()) {
    QOR_TRACE_ERROR("Recycle agent failed. Agent %s not managed\n", QOR_N(agent->getName()));
    return 300;
  }
  if (isBusy(agent)) {
    QOR_TRACE_ERROR("Recycle agent failed. Agent %s already being started or stopped.\n",
                    QOR_N(agent->getName()));
    return 301;
  }
  commandFor(agent, agent_recycle_cmd)->processEvent();
  return 0;
}

int Controller::resetAgentRestartCount(const std::wstring& name, const std::wstring& process,
                                       const std::wstring& instance) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_STATUS("Reset agent restart count %s\n", QOR_N(name));
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  const int mask = commandCriteria(criteria, name, process, instance);
  // The one command that keeps the list across its whole decision.
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return -1;
  }
  std::vector<Agent*> agents = getManagedEndpointProcess(mask, criteria);
  const int result = agents.empty() ? resetOSAgentCount(name, process) : resetOne(agents.front());
  managedEndpointProcesses.unlockList();
  return result;
}

int Controller::resetOne(Agent* agent) {
  QOR_TRACE_FUNCTION();
  if (!agent->isManaged()) {
    QOR_TRACE_ERROR("Reset agent count failed. Agent %s not managed\n", QOR_N(agent->getName()));
    return 600;
  }
  // The state comes first: a starting agent with a count of 0 is busy, not done.
  if (isBusy(agent)) {
    QOR_TRACE_ERROR("Reset agent count failed. Agent %s is being started or stopped.\n",
                    QOR_N(agent->getName()));
    return 602;
  }
  if (agent->getDailyRestartCount() == 0) {
    QOR_TRACE_ERROR("Reset OS Agent Restart Count. Count is already 0 %d\n", 0);
    return 603;
  }
  resetCountAndTell(agent);
  return 0;
}

int Controller::resetOSAgentCount(const std::wstring& name, const std::wstring& process) {
  QOR_TRACE_FUNCTION();
  bool managed = false;
  int count = 0;
  ManagerType managerType = NotManaged;
  if (!isOSAgent(name, managed, count, managerType)) {
    QOR_TRACE_ERROR("Reset restart count failed. Agent %s not found -- Process not found %s\n", QOR_N(name),
                    QOR_N(process));
    return 601;
  }
  if (!managed) {
    QOR_TRACE_ERROR("Reset agent count failed. OS agent not managed\n");
    return 600;
  }
  if (count == 0) {
    QOR_TRACE_ERROR("Reset OS Agent Restart Count. Count is already 0 %d\n", count);
    return 603;
  }
  QOR_TRACE_ERROR("Reset OS Agent Restart Count. Agent %s is OS Agent %s\n", QOR_N(name), QOR_N(name));
  const int rc = sendWDCommand("622 RESET_COUNT");
  QOR_TRACE_STORY("Result of command: %d, %s \n", rc, "622 RESET_COUNT");
  if (rc != 0) return -1;
  // The next snapshot with an update asks the watchdog process again.
  if (watchdogList.lockList()) {
    watchdogDataValid = false;
    watchdogList.unlockList();
  }
  return 0;
}

// ---- Management -------------------------------------------------------------------
// Taking agents in and out of management. Nothing may be managed while the
// OS agent is not: the watchdog process would not be there to restart the
// service that restarts them.

namespace {

AgentMgmtEvent* managementFor(Agent* agent, TEOEvents id) {
  AgentMgmtEvent* event = new AgentMgmtEvent();
  event->setEventTypeID(id);
  event->setAgent(agent);
  event->setMgmtState(agent->getManagedState());
  return event;
}

// Whether an agent has the name, with the policy of the first one, both read
// with the list locked.
bool firstPolicyOf(Controller* controller, const std::wstring* criteria, Policy*& policy) {
  QOR_TRACE_FUNCTION();
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  if (!list->lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return false;
  }
  std::vector<Agent*> agents = controller->getManagedEndpointProcess(Controller::MATCH_NAME, criteria);
  policy = agents.empty() ? nullptr : agents.front()->getPolicy();
  list->unlockList();
  return !agents.empty();
}

}  // namespace

int Controller::startManage(const std::wstring& name) {
  QOR_TRACE_FUNCTION();
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[0] = name;
  QOR_TRACE_STATUS("Start management for agent %s\n", QOR_N(name));
  QOR_TRACE_DETAIL("Lock discovery\n");
  // Held to the end, so that neither discovery nor a CAP file changes the
  // instances between the lookup and the events.
  if (!lockDiscovery()) return -1;
  Policy* policy = nullptr;
  int result = 401;
  if (firstPolicyOf(this, criteria, policy)) {
    // Brings the agent's instances up to date before the second lookup; the
    // record it may return gets its event there like every other.
    if (policy != nullptr) discoveryZELInstances(policy);
    result = manageFound(criteria);
  }
  if (result == 401) result = manageOSAgentByName(name);
  QOR_TRACE_DETAIL("Unlock discovery\n");
  unlockDiscovery();
  releaseDiscarded();
  return result;
}

int Controller::manageFound(const std::wstring* criteria) {
  QOR_TRACE_FUNCTION();
  // The list stays locked from the lookup to the last event: the command
  // handler changes these agents meanwhile, and may even delete them.
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return 401;
  }
  std::vector<Agent*> agents = getManagedEndpointProcess(MATCH_NAME, criteria);
  int result = 401;
  if (agents.empty()) {
    // Gone since the first lookup: the name may still be the OS agent's.
  } else if (!isOSAgentManaged()) {
    QOR_TRACE_ERROR("Start management failed. Cannot manage agents while os agent is unmanaged\n");
    result = 404;
  } else {
    // An agent already managed gets its event all the same; the state
    // machine decides by the state it finds.
    for (Agent* agent : agents) {
      managementFor(agent, agent_managed)->processEvent();
    }
    result = 0;
  }
  managedEndpointProcesses.unlockList();
  return result;
}

int Controller::manageOSAgentByName(const std::wstring& name) {
  QOR_TRACE_FUNCTION();
  bool managed = false;
  int count = 0;
  ManagerType managerType = NotManaged;
  if (!isOSAgent(name, managed, count, managerType)) {
    QOR_TRACE_ERROR("Start management failed. Agent %s not found\n", QOR_N(name));
    return 401;
  }
  if (managerType == NotManaged) {
    QOR_TRACE_ERROR("OS agent manager type is NotManage do not allow to manage.\n");
    return -1;
  }
  if (managed) {
    QOR_TRACE_ERROR("OS agent is already managed....do nothing.\n");
    return 0;
  }
  StartManageTEO();
  return 0;
}

int Controller::stopManage(const std::wstring& name) {
  QOR_TRACE_FUNCTION();
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[0] = name;
  int result = 500;
  bool found = false;
  QOR_TRACE_STATUS("Stop management for agent %s\n", QOR_N(name));
  // Locked from the lookup to the last event, as in startManage.
  if (managedEndpointProcesses.lockList()) {
    for (Agent* agent : getManagedEndpointProcess(MATCH_NAME, criteria)) {
      found = true;
      if (agent->getManagedState() == Managed) {
        managementFor(agent, agent_unmanaged)->processEvent();
        result = 0;
      } else {
        QOR_TRACE_ERROR("Stop manage failed. Agent %s not managed\n", QOR_N(agent->getName()));
      }
    }
    managedEndpointProcesses.unlockList();
  } else {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
  }
  if (found) return result;
  bool managed = false;
  if (!isOSAgent(name, managed)) {
    QOR_TRACE_ERROR("Stop management failed. Agent %s not found\n", QOR_N(name));
    return 501;
  }
  if (!managed) {
    QOR_TRACE_ERROR("Stop management failed. Agent %s is not managed.\n", QOR_N(name));
    return 500;
  }
  // Unmanaging the OS agent takes the whole service out of management.
  StopManageTEO();
  return 0;
}

void Controller::StopManageTEO() {
  QOR_TRACE_FUNCTION();
  disarm(true);
  unmanageOSAgent();
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return;
  }
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  for (Agent* agent : getManagedEndpointProcess(0, criteria)) {
    // The watchdog process's own policy: with the OS agent unmanaged nothing
    // is left for it to guard.
    if (agent->getPolicy() != nullptr && agent->getPolicy()->getProductCode() == L"qd") {
      commandFor(agent, agent_stop_cmd)->processEvent();
      QOR_TRACE_STORY("Stop the watchdog\n");
    }
    // Remembered so that managing the OS agent again brings back exactly the
    // agents that were managed, not those an operator had unmanaged.
    agent->setSavedState(agent->getManagedState());
    QOR_TRACE_STORY("Saving state %d\n", static_cast<int>(agent->getSavedState()));
    if (agent->getSavedState() == Managed) {
      managementFor(agent, agent_unmanaged)->processEvent();
    }
  }
  managedEndpointProcesses.unlockList();
}

void Controller::StartManageTEO() {
  QOR_TRACE_FUNCTION();
  manageOSAgent();
  rearm();
  // Locked over the walk: the command handler changes the agents meanwhile.
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return;
  }
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  for (Agent* agent : getManagedEndpointProcess(0, criteria)) {
    QOR_TRACE_STORY("Saved state is %d\n", static_cast<int>(agent->getSavedState()));
    if (agent->getSavedState() != Managed) continue;
    managementFor(agent, agent_managed)->processEvent();
  }
  managedEndpointProcesses.unlockList();
}
