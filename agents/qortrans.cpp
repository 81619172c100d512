// The state machine of an agent: what each event does to the agent's
// operating and managed state, on the command handler thread with the list
// locked. Each row group of the transition tables is one small function,
// dispatched from one table each.
#include <initializer_list>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "watchdog/qorwd.h"
#include "watchdog/qorwdproc.h"

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

// ---- Operating states 2 to 6: commands, starts, stops, the restart limit -------
// C is the agent's daily restart count, M the policy's limit. A first start
// is not charged to C; a restart is, when it has succeeded (3, 7 with the
// increment flag), and each failed start is, when it is retried (3, 6).

namespace {

bool isSuiteAgent(const Agent* agent) { return agent->getPolicy()->isZELAgent(); }

// The agent's process is gone: the record drops its process id with it.
void recordDown(Agent* agent, OperatingStates state) {
  agent->setOperatingState(state);
  agent->setProcID(0);
}

// Both the event and the agent move to `state`.
void moveTo(AgentOpEvent* event, OperatingStates state) {
  event->setOpState(state);
  event->getAgent()->setOperatingState(state);
}

// A start that failed at once, before any worker ran: the event says why,
// and a plain copy of it comes back to the state machine as the failure.
AgentOpEvent* markFailedStart(AgentOpEvent* event, int status, TEOEvents id) {
  event->setStartStatus(status);
  event->setEventTypeID(id);
  return new AgentOpEvent(*event);
}

void raiseRestart(Agent* agent) {
  AgentOpEvent* restart = new AgentOpEvent();
  restart->setAgent(agent);
  restart->setEventTypeID(agent_start_after_failure);
  restart->setOpState(OpStopping);
  restart->processEvent();
}

}  // namespace

// 2 or 5, id 5 or 25: a command to start, or a report of one (action flag clear).
void Controller::onCommandToStart(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  moveTo(event, OpStarting);
  if (!event->getActionFlag()) return;
  if (isSuiteAgent(agent) && !isWatchDog) event->suppressMessages();
  if (event->getEventTypeID() == agent_recycle_cmd) {
    agent->getWatchdog()->initiate_Recycle(event);
    return;
  }
  const int status = agent->getWatchdog()->initiate_Start(event);
  if (status != 0) markFailedStart(event, status, agent_start_failed)->processEvent();
}

// 2 or 5, id 7: the agent came up by itself.
void Controller::onCameUp(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  agent->setOperatingState(OpRunning);
  agent->getWatchdog()->collectProcessData();
  checkRemoteDeploy(agent->getPolicy(), true);
}

// 2 or 5, id 8: found down. The restart follows as its own event; this one
// goes on to the listeners.
void Controller::onFoundDown(AgentOpEvent* event) { raiseRestart(event->getAgent()); }

// 2 or 5, id 22: the first start of an agent found stopped.
void Controller::onFirstStart(AgentOpEvent* event) { startWithLimit(event, false); }

// 2 or 5, id 21: down while disarmed; nothing restarts it.
void Controller::onDisarmedDown(AgentOpEvent* event) { recordDown(event->getAgent(), OpStopped); }

// 3, id 6: a start failed; it is retried, and charged, while the limit allows.
void Controller::onStartFailed(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  const int count = agent->getDailyRestartCount();
  const int limit = agent->getPolicy()->getMaxRestartElement();
  if (count < limit) {
    agent->setDailyRestartCount(count + 1);
    moveTo(event, OpStarting);
    const int status = agent->getWatchdog()->initiate_Start(event);
    if (status != 0) markFailedStart(event, status, agent_restart_failed)->processEvent();
  } else if (count == limit) {
    limitLadderInPlace(event);
  }
}

// 3, id 7: started. A restart is charged now that it has succeeded.
void Controller::onStarted(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  if (event->getIncrementFlag()) agent->setDailyRestartCount(agent->getDailyRestartCount() + 1);
  agent->getWatchdog()->collectProcessData();
  agent->setOperatingState(OpRunning);
  checkRemoteDeploy(agent->getPolicy(), true);
}

// 3 or 6, id 12: the day's restarts are used up.
void Controller::onLimitReached(AgentOpEvent* event) {
  QOR_TRACE_FUNCTION();
  Agent* agent = event->getAgent();
  QOR_TRACE_ERROR("Agent id %s restart count exceeded and will not be restarted.", agent->getshortID().c_str());
  recordDown(agent, OpStopped);
}

// 3, id 13: a commanded start failed; its message always goes out.
void Controller::onCommandedStartFailed(AgentOpEvent* event) {
  event->allowMessages();
  recordDown(event->getAgent(), OpStopped);
}

// 4, id 4, 25, 16, 17 or 8: a running agent must go down, to stay down (4),
// to be recycled (25) or to be restarted (8, 16, 17).
void Controller::onMustGoDown(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  const int id = event->getEventTypeID();
  const bool recycle = id == agent_recycle_cmd;
  moveTo(event, recycle ? OpStarting : OpStopping);
  if (isWatchDog) DisableWatchdogStop(agent->getPolicy());
  const bool commanded = id == agent_stop_cmd || recycle;
  if (event->getActionFlag() && isSuiteAgent(agent) && commanded && !isWatchDog) event->suppressMessages();
  if (recycle) {
    agent->getWatchdog()->initiate_Recycle(event);
  } else {
    agent->getWatchdog()->initiate_Stop(event);
  }
}

// 4, id 10: stopped by other means than a stop of this service.
void Controller::onStoppedElsewhere(AgentOpEvent* event) { recordDown(event->getAgent(), OpManuallyStopped); }

// 4, id 7: still running.
void Controller::onStillRunning(AgentOpEvent* event) { checkRemoteDeploy(event->getAgent()->getPolicy(), true); }

// 6, any id, before the rows below: a suite agent's stop results are heard.
void Controller::onStopResult(AgentOpEvent* event) {
  if (isSuiteAgent(event->getAgent()) && event->getEventTypeID() != agent_stopped) event->allowMessages();
}

// 6, id 10: stopped as asked.
void Controller::onStoppedAsAsked(AgentOpEvent* event) { recordDown(event->getAgent(), OpManuallyStopped); }

// 6, id 8: gone down while stopping.
void Controller::onStoppedDown(AgentOpEvent* event) { recordDown(event->getAgent(), OpStopped); }

// 6, id 11: the stop failed; the agent is taken to be still running, and the
// next check decides anew.
void Controller::onStopFailed(AgentOpEvent* event) { event->getAgent()->setOperatingState(OpRunning); }

// 6, id 24: stopped in order to be restarted.
void Controller::onStoppedForRestart(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  if (isWatchDog) EnableWatchdogStop(agent->getPolicy());
  agent->setProcID(0);
  startWithLimit(event, true);
}

// A start of ids 22 (first start) and 24 (restart) within the daily limit.
// `restart` tells the two apart: a restart is charged once it has succeeded,
// and its message is kept back for a suite agent in either mode.
void Controller::startWithLimit(AgentOpEvent* event, bool restart) {
  Agent* agent = event->getAgent();
  // The spare copy carries the limit's message when the count has run out.
  AgentOpEvent* spare = new AgentOpEvent(*event);
  const int count = agent->getDailyRestartCount();
  const int limit = agent->getPolicy()->getMaxRestartElement();
  if (count > limit) {
    delete spare;
    return;
  }
  if (count == limit) {
    recordDown(agent, OpStopped);
    limitLadderWithSpare(event, spare);
    return;
  }
  if (isSuiteAgent(agent) && (restart || !isWatchDog)) event->suppressMessages();
  if (restart) event->setIncrementFlag(true);
  moveTo(event, OpStarting);
  const int status = agent->getWatchdog()->initiate_Start(event);
  if (status != 0) {
    if (restart) event->allowMessages();
    AgentOpEvent* failure = markFailedStart(event, status, agent_restart_failed);
    if (!restart) failure->allowMessages();
    failure->processEvent();
  }
  delete spare;
}

// Once the count has run out: one event 12, then one more message, then
// silence until the count is reset. This form sends the 12 as the spare copy
// of the event, through the command queue, and consumes the spare.
void Controller::limitLadderWithSpare(AgentOpEvent* event, AgentOpEvent* spare) {
  Agent* agent = event->getAgent();
  if (agent->reportCountExceeded()) {
    spare->setEventTypeID(agent_restart_exceeded);
    commandHandler->pushEvent(spare);
    agent->resetReportCountExceeded();
    return;
  }
  if (agent->reportRestartFailure()) {
    agent->resetReportRestartFailure();
  } else {
    event->suppressMessages();
  }
  delete spare;
}

// The same ladder without a spare: the event itself becomes the 12 and is
// taken by the state machine again. Kept: the agent stays in state 3 on the other two steps.
void Controller::limitLadderInPlace(AgentOpEvent* event) {
  Agent* agent = event->getAgent();
  if (agent->reportCountExceeded()) {
    event->setEventTypeID(agent_restart_exceeded);
    ProcessOpStateChange(event);
    agent->resetReportCountExceeded();
  } else if (agent->reportRestartFailure()) {
    agent->resetReportRestartFailure();
  } else {
    event->suppressMessages();
  }
}

// ---- The operating table ---------------------------------------------------------

namespace {

constexpr unsigned bitsOf(std::initializer_list<int> values) {
  unsigned bits = 0;
  for (int value : values) bits |= 1u << value;
  return bits;
}

constexpr unsigned kAnyId = ~0u;

}  // namespace

// One row of the table: the event's opState and id it takes, and what it
// does. The first row that takes an event decides, except that a row marked
// `goOn` lets the rows after it look as well.
struct Controller::OpRow {
  unsigned opStates;
  unsigned ids;
  void (Controller::*action)(AgentOpEvent*);
  bool goOn;
};

const Controller::OpRow Controller::kOpRows[] = {
    // opState       event id                                    action
    {bitsOf({2, 5}), bitsOf({5, 25}),                            &Controller::onCommandToStart,       false},
    {bitsOf({2, 5}), bitsOf({7}),                                &Controller::onCameUp,               false},
    {bitsOf({2, 5}), bitsOf({8}),                                &Controller::onFoundDown,            false},
    {bitsOf({2, 5}), bitsOf({22}),                               &Controller::onFirstStart,           false},
    {bitsOf({2, 5}), bitsOf({21}),                               &Controller::onDisarmedDown,         false},
    {bitsOf({3}),    bitsOf({6}),                                &Controller::onStartFailed,          false},
    {bitsOf({3}),    bitsOf({7}),                                &Controller::onStarted,              false},
    {bitsOf({3}),    bitsOf({12}),                               &Controller::onLimitReached,         false},
    {bitsOf({3}),    bitsOf({13}),                               &Controller::onCommandedStartFailed, false},
    {bitsOf({4}),    bitsOf({4, 25, 16, 17, 8}),                 &Controller::onMustGoDown,           false},
    {bitsOf({4}),    bitsOf({10}),                               &Controller::onStoppedElsewhere,     false},
    {bitsOf({4}),    bitsOf({7}),                                &Controller::onStillRunning,         false},
    {bitsOf({6}),    kAnyId,                                     &Controller::onStopResult,           true},
    {bitsOf({6}),    bitsOf({10}),                               &Controller::onStoppedAsAsked,       false},
    {bitsOf({6}),    bitsOf({8}),                                &Controller::onStoppedDown,          false},
    {bitsOf({6}),    bitsOf({11}),                               &Controller::onStopFailed,           false},
    {bitsOf({6}),    bitsOf({24}),                               &Controller::onStoppedForRestart,    false},
    {bitsOf({6}),    bitsOf({12}),                               &Controller::onLimitReached,         false},
};

void Controller::applyOpRow(AgentOpEvent* event) {
  const int opState = event->getOpState();
  const int id = event->getEventTypeID();
  // States and ids outside the table's range take no row.
  if (opState < 0 || opState > 31 || id < 0 || id > 31) return;
  for (const OpRow& row : kOpRows) {
    if ((row.opStates & (1u << opState)) == 0 || (row.ids & (1u << id)) == 0) continue;
    (this->*row.action)(event);
    if (!row.goOn) return;
  }
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
      applyOpRow(event);
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
      // An operator's manage raised while the agent was managed may come
      // after an unmanage that was queued before it. The agent is then taken
      // in as one that is not managed, as the later command asked: taken back
      // as one already managed, it would stay unmanaged with a checker and
      // the state of its process, and be started as another's dependent.
      if (unmanaged || (managed && agent->getManagedState() == Unmanaged)) {
        onBecomeManaged(event);
      } else if (managed) {
        onManagedAgentReturns(event);
      }
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
