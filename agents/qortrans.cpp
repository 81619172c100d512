// The state machine of an agent: what each event does to the agent's
// operating and managed state, on the command handler thread with the list
// locked. Each row group of the transition tables is one small function,
// dispatched from one switch.
#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "watchdog/qorwd.h"

QOR_TRACE_UNIT();

namespace {

// Raises an id 3 management event for `agent` with its own managed state:
// it is taken out of the running, and the listeners are told.
void raiseUnmanaged(Agent* agent) {
  AgentMgmtEvent* event = new AgentMgmtEvent();
  event->setEventTypeID(agent_unmanaged);
  event->setAgent(agent);
  event->setMgmtState(agent->getManagedState());
  event->processEvent();
}

// The executable's path is gone, and no default instance of a suite agent
// stands in for it.
bool pathMissing(const Agent* agent) {
  return !FileExists(agent->getPath()) && !agent->getPolicy()->hasDefaultZELInstance();
}

bool notConfigured(const Agent* agent) { return agent->getPolicy()->isZELAgentNotConfigured(); }

// Gives the agent its checker, which the availability cycle needs to look at it.
// An agent that comes under management a second time, as a reused instance
// holder or a moved installation does, has its old checker freed.
void attachWatchdog(Agent* agent) {
  delete agent->getWatchdog();
  Watchdog* watchdog = new Watchdog();
  watchdog->setAgent(agent);
  agent->setWatchdog(watchdog);
}

// The record takes the state of the live process; a running one also gets
// its process data.
void syncWithProcess(Agent* agent) {
  agent->setOperatingState(agent->getWatchdog()->getOperatingState());
  if (agent->getOperatingState() != OpStopped) agent->getWatchdog()->collectProcessData();
}

}  // namespace

// ---- Presence: operating states 0, 1 and 7, with or without a Watchdog ----

// Id 14: the executable is gone. The agent and every sibling instance of its
// policy leave the running.
void Controller::onAgentNotFound(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  agent->setOperatingState(OpNotFound);
  raiseUnmanaged(agent);
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[3] = agent->getPolicy()->getSubagentID();
  for (Agent* sibling : getManagedEndpointProcess(MATCH_ID, criteria)) {
    if (sibling == agent) continue;
    sibling->setOperatingState(OpUnknown);
    raiseUnmanaged(sibling);
  }
}

// Id 23: a suite agent is installed but has no instance to run.
void Controller::onAgentNotConfigured(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  if (!agent->getPolicy()->getInstances().empty()) return;
  agent->setOperatingState(OpNotConfigured);
  agent->setInstanceName(L"");
  agent->setInstanceProcName(agent->getProcName());
  raiseUnmanaged(agent);
}

void Controller::ProcessOpStateChange(AgentOpEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  QOR_TRACE_DETAIL("agent event op state = %d.\n", event->getOpState());
  QOR_TRACE_DETAIL("agent event id = %d.\n", event->getEventTypeID());
  QOR_TRACE_DETAIL("agent id = %s.\n", agent->getshortID().c_str());
  QOR_TRACE_DETAIL("agent pid = %d.\n", agent->getProcID());
  if (agent->getWatchdog() == nullptr) QOR_TRACE_DETAIL("agent watchdog is null.\n");

  switch (event->getOpState()) {
    case OpUnknown:
    case OpNotFound:
    case OpNotConfigured:
      if (event->getEventTypeID() == agent_not_found) onAgentNotFound(event);
      if (event->getEventTypeID() == agent_not_configured) onAgentNotConfigured(event);
      break;
    default:
      if (agent->getWatchdog() == nullptr) {
        QOR_TRACE_DETAIL("ignoring state change -- watchdog is null -- agent op state = %d.\n",
                         event->getOpState());
        break;
      }
      // Stand-in: the rows of operating states 2 to 6 (starts, stops, the
      // restart limit) come with the watchdog actions of watchdog/qorwd.cpp
      // and the command workers; until then such an event changes nothing
      // and its message goes out as it came.
      break;
  }
  QOR_TRACE_DETAIL("agent op state = %d.\n", agent->getOperatingState());
}

// ---- Management ------------------------------------------------------------

// Sets the event's id and the agent's present state on it, and lets the
// operating rows take it.
void Controller::forwardAs(AgentMgmtEvent* event, TEOEvents id) {
  event->setEventTypeID(id);
  event->setOpState(event->getAgent()->getOperatingState());
  ProcessOpStateChange(event);
}

// mgmtState 0, id 2: an unmanaged agent comes under management.
void Controller::onBecomeManaged(AgentMgmtEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  if (pathMissing(agent)) {
    QOR_TRACE_DETAIL("Error: Agent does not exist on system.\n");
    forwardAs(event, agent_not_found);
    return;
  }
  if (notConfigured(agent)) {
    agent->setManagedState(Unmanaged);
    QOR_TRACE_DETAIL("ZEL Agent installed but no instances available.\n");
    forwardAs(event, agent_not_configured);
    return;
  }
  if (!isOSAgent(agent->getPolicy())) {
    agent->setManagedState(Managed);
    checkRemoteDeploy(agent->getPolicy(), true);
  } else {
    agent->setManagedState(WatchdogManaged);
  }
  attachWatchdog(agent);
  if (agent->isZELInstanceHolder()) {
    agent->setOperatingState(OpNotConfigured);
  } else {
    syncWithProcess(agent);
  }
}

// mgmtState 0, id 3: an unmanaged agent is looked at again.
void Controller::onStayUnmanaged(AgentMgmtEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  if (agent->isWatchDogAgent()) RawEvent::logUnreliableMessage(event);
  if (event->isNewAgent() && agent->getOperatingState() == OpUnknown) {
    agent->setProcID(0);
    return;
  }
  const bool configured = !notConfigured(agent);
  if (!FileExists(agent->getPath())) {
    QOR_TRACE_DETAIL("Agent path does not exist on system.\n");
    if (agent->getOperatingState() == OpNotFound) return;
    QOR_TRACE_DETAIL("Error: Agent does not exist on system.\n");
    if (agent->getOperatingState() == OpUnknown && configured) {
      AgentOpEvent* notFound = new AgentOpEvent();
      notFound->setAgent(agent);
      notFound->setOpState(agent->getOperatingState());
      notFound->setEventTypeID(agent_not_found);
      notFound->processEvent();
      return;
    }
    forwardAs(event, agent_not_found);
    return;
  }
  if (configured) {
    agent->setProcID(0);
    agent->setOperatingState(OpUnknown);
    return;
  }
  if (agent->getOperatingState() == OpNotConfigured) return;
  agent->setManagedState(Unmanaged);
  QOR_TRACE_DETAIL("ZEL Agent installed but no instances available.\n");
  forwardAs(event, agent_not_configured);
}

// mgmtState 1 or 2, id 3: management ends.
void Controller::onManagementEnds(AgentMgmtEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  agent->setManagedState(Unmanaged);
  if (agent->isWatchDogAgent()) RawEvent::logUnreliableMessage(event);
  if (agent->getOperatingState() == OpNotFound || agent->getOperatingState() == OpNotConfigured) return;
  delete agent->getWatchdog();
  agent->setWatchdog(nullptr);
  agent->setProcID(0);
  agent->setOperatingState(OpUnknown);
  agent->resetDailyRestartCount();
}

// mgmtState 1 or 2, id 2: an agent comes back with its managed state already
// set, as from the state file.
void Controller::onManagedAgentReturns(AgentMgmtEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  if (pathMissing(agent)) {
    QOR_TRACE_DETAIL("Error: Agent does not exist on system.\n");
    forwardAs(event, agent_not_found);
    return;
  }
  if (notConfigured(agent)) {
    QOR_TRACE_DETAIL("ZEL Agent installed but no instances available.\n");
    forwardAs(event, agent_not_configured);
    return;
  }
  attachWatchdog(agent);
  checkRemoteDeploy(agent->getPolicy(), true);
  // An agent that an operator stopped stays stopped across a restart.
  if (agent->getOperatingState() != OpManuallyStopped && !agent->isZELInstanceHolder()) {
    syncWithProcess(agent);
  }
}

void Controller::ProcessMgmtStateChange(AgentMgmtEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  QOR_TRACE_DETAIL("agent event mgmt state = %d.\n", event->getMgmtState());
  QOR_TRACE_DETAIL("agent event id = %d.\n", event->getEventTypeID());
  QOR_TRACE_DETAIL("agent id = %s.\n", agent->getshortID().c_str());
  QOR_TRACE_DETAIL("agent op state = %d.\n", agent->getOperatingState());
  QOR_TRACE_DETAIL("agent not configured = %d.\n", notConfigured(agent) ? 1 : 0);
  QOR_TRACE_DETAIL("agent has default instance = %d.\n", agent->getPolicy()->hasDefaultZELInstance() ? 1 : 0);

  const bool managed = event->getMgmtState() == Managed || event->getMgmtState() == WatchdogManaged;
  const bool unmanaged = event->getMgmtState() == Unmanaged;
  switch (event->getEventTypeID()) {
    case agent_managed:
      if (unmanaged) onBecomeManaged(event);
      if (managed) onManagedAgentReturns(event);
      break;
    case agent_unmanaged:
      if (unmanaged) onStayUnmanaged(event);
      if (managed) onManagementEnds(event);
      break;
    default:
      break;
  }
  managedEndpointProcesses.setDirty();
  QOR_TRACE_DETAIL("agent mgmt state = %d.\n", agent->getManagedState());
}
