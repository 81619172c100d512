#include "core/qorevt.h"

#include <ctime>
#include <cwchar>
#include <functional>
#include <iterator>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qormsghand.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

// Kept: row 9 is never raised; it keeps the numbering, spelling and all.
const std::wstring TEOMessages[] = {
    L"Agent added to system - CAP file found.",         // 0
    L"Agent removed from system - CAP file removed.",   // 1
    L"Agent now managed.",                              // 2
    L"Agent now unmanaged.",                            // 3
    L"Agent stop command received.",                    // 4
    L"Agent start command received.",                   // 5
    L"Agent restart failed - ",                         // 6
    L"Agent started successfully.",                     // 7
    L"Agent stopped abnormally.",                       // 8
    L"Agent maintanance??",                             // 9
    L"Agent stopped successfully.",                     // 10
    L"Agent manual stop failed.",                       // 11
    L"Agent exceeded restart tries.",                   // 12
    L"Agent manual start failed - ",                    // 13
    L"Agent not found",                                 // 14
    L"Agent CAP file initialization completed",         // 15
    L"Agent exceeded policy defined memory threshold",  // 16
    L"Agent exceeded policy defined CPU threshold",     // 17
    L"Disarm completed successfully",                   // 18
    L"Rearm completed successfully",                    // 19
    L"Agent health check",                              // 20
    L"Agent restart disabled - disarm mode active",     // 21
    L"Agent initial start",                             // 22
    L"Agent not configured",                            // 23
    L"Agent start after failure",                       // 24
    L"Agent recycle command received",                  // 25
    L"Agent daily restart count reset",                 // 26
    L"Teo Services watchdog not reliable",              // 27
};
static_assert(std::size(TEOMessages) == TEO_MESSAGE_COUNT, "one message per event id");

const std::wstring StartMessages[] = {
    L"Start successfully.",                // 0
    L"Dependent agent id not found.",      // 1
    L"Dependent agent path invalid.",      // 2
    L"Dependent agent not managed.",       // 3
    L"Dependent agent manually stopped.",  // 4
    L"Agent config script failed.",        // 5
    L"Start script not found.",            // 6
    L"Agent start script failed.",         // 7
};
static_assert(std::size(StartMessages) == START_MESSAGE_COUNT, "one message per start status");

std::wstring teoMessage(int id) {
  return id >= 0 && id < TEO_MESSAGE_COUNT ? TEOMessages[id] : std::wstring();
}

std::wstring startMessage(int status) {
  return status >= 0 && status < START_MESSAGE_COUNT ? StartMessages[status] : std::wstring();
}

namespace {

// " - instance -" when the agent has an instance name, else nothing.
std::wstring instanceFragment(const Agent* agent) {
  if (agent == nullptr || agent->getInstanceName().empty()) return std::wstring();
  return L" - " + agent->getInstanceName() + L" -";
}

std::wstring agentName(const Agent* agent) { return agent != nullptr ? agent->getName() : std::wstring(); }

void fillAgentFields(EventData& data, const Agent* agent) {
  data.agentName = agent->getName();
  data.operatingState = agent->getOperatingState();
  data.managedState = agent->getManagedState();
  data.instanceProcName = agent->getInstanceProcName();
  data.agentType = agent->getType();
  const Policy* policy = agent->getPolicy();
  if (policy != nullptr) {
    data.osType = policy->getOsTypeAsEnum();
    data.osVersion = policy->getOsVersion();
  }
  data.procID = agent->getProcID();
}

MessageHandler* messageQueue() { return Controller::getController()->getMessageHandler(); }

// With the list locked, runs `apply` when the event's agent is still listed;
// otherwise drops the event: no agent and no message. Nothing happens when the
// list cannot be locked.
void applyIfListed(AgentEvent* event, const std::function<void(Controller*)>& apply) {
  QOR_TRACE_FUNCTION();
  Controller* controller = Controller::getController();
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  if (!list->lockList()) return;
  if (list->inList(event->getAgent())) {
    apply(controller);
  } else {
    QOR_TRACE_DETAIL("Invalid/deleted agent in process list-- event ignored.");
    event->setAgent(nullptr);
    event->suppressMessages();
  }
  list->unlockList();
}

// Puts the event's message on the message queue unless it is suppressed; the
// message is made only when it is sent.
void passOn(Event* event, const std::function<Event*()>& makeMessage) {
  QOR_TRACE_FUNCTION();
  if (event->messagesSuppressed()) {
    QOR_TRACE_DETAIL("Message suppressed for event id %d.", event->getEventTypeID());
    return;
  }
  messageQueue()->pushEvent(makeMessage());
}

}  // namespace

AgentEvent::AgentEvent() : agent(nullptr), ownsAgent(false) {}

AgentEvent::AgentEvent(const AgentEvent& other) : Event(other), agent(other.agent), ownsAgent(false) {}

AgentEvent::~AgentEvent() {
  if (ownsAgent) delete agent;
}

void AgentEvent::getEventData(EventData& data) {
  initData(data);
  // An event whose agent left the list has none; its record keeps the defaults.
  if (agent != nullptr) fillAgentFields(data, agent);
}

Agent* AgentEvent::copyAgent(bool shallow) const {
  return agent != nullptr ? new Agent(*agent, shallow) : nullptr;
}

AgentOpEvent::AgentOpEvent() : opState(0), startStatus(0), incrementFlag(false), actionFlag(true) {}

AgentOpEvent::AgentOpEvent(const AgentOpEvent& other)
    : AgentEvent(other),
      opState(other.opState),
      startStatus(other.startStatus),
      incrementFlag(other.incrementFlag),
      actionFlag(other.actionFlag) {}

void AgentOpEvent::doCommandProcessing() {
  // The message carries its own copy of the agent as this event left it. It
  // is made while the list is still locked: a worker that this event started
  // may change the live agent as soon as the list is free.
  Event* message = nullptr;
  applyIfListed(this, [this, &message](Controller* controller) {
    controller->ProcessOpStateChange(this);
    if (!messagesSuppressed()) message = makeCopy(true);
  });
  // Without the lock nothing was applied, and the copy is made as it stands.
  passOn(this, [this, message] { return message != nullptr ? message : makeCopy(true); });
}

std::wstring AgentOpEvent::getLogMessage() {
  std::wstring text = agentName(getAgent()) + instanceFragment(getAgent()) + L" Operational Event: " +
                      teoMessage(getEventTypeID());
  if (getEventTypeID() == agent_start_failed || getEventTypeID() == agent_restart_failed) {
    text += startMessage(startStatus);
  }
  std::wstring details = getUserMessage();
  if (!details.empty() && details != L"N/A") text += L" Details: " + details + L".";
  return text;
}

Event* AgentOpEvent::makeCopy(bool shallow) {
  AgentOpEvent* copy = new AgentOpEvent(*this);
  copy->setAgent(copyAgent(shallow), true);
  // Kept: startStatus is set a second time; the copy constructor has taken it already.
  copy->setStartStatus(startStatus);
  return copy;
}

void AgentOpEvent::logMessage() { messageQueue()->pushEvent(makeCopy(true)); }

AgentMgmtEvent::AgentMgmtEvent() : mgmtState(0), newAgent(false) {}

AgentMgmtEvent::AgentMgmtEvent(const AgentMgmtEvent& other)
    : AgentOpEvent(other), mgmtState(other.mgmtState), newAgent(false) {}

void AgentMgmtEvent::doCommandProcessing() {
  applyIfListed(this, [this](Controller* controller) { controller->ProcessMgmtStateChange(this); });
  // Kept: a plain copy, so the message shows the live agent as the message handler finds it.
  passOn(this, [this] { return new AgentMgmtEvent(*this); });
}

std::wstring AgentMgmtEvent::getLogMessage() {
  return agentName(getAgent()) + instanceFragment(getAgent()) + L" Management Event: " +
         teoMessage(getEventTypeID());
}

Event* AgentMgmtEvent::makeCopy(bool shallow) {
  AgentMgmtEvent* copy = new AgentMgmtEvent(*this);
  copy->setAgent(copyAgent(shallow), true);
  // Kept: startStatus is set a second time; the copy constructor has taken it already.
  copy->setStartStatus(getStartStatus());
  return copy;
}

AgentAVCheckEvent::AgentAVCheckEvent() : checkTime(0) { setEventTypeID(agent_health_check); }

// No message, whatever the flag says.
void AgentAVCheckEvent::doCommandProcessing() {
  applyIfListed(this, [this](Controller* controller) {
    checkTime = time(nullptr);
    controller->ProcessAvCheck(this);
  });
}

std::wstring AgentAVCheckEvent::getLogMessage() {
  wchar_t stamp[40] = {0};
  struct tm local;
  localtime_r(&checkTime, &local);
  wcsftime(stamp, 40, L"%c", &local);
  return agentName(getAgent()) + L" Availability checked at " + stamp;
}

Event* AgentAVCheckEvent::makeCopy(bool shallow) {
  AgentAVCheckEvent* copy = new AgentAVCheckEvent(*this);
  copy->setAgent(copyAgent(shallow), true);
  return copy;
}

CAPFileEvent::CAPFileEvent() : capState(CAP_FILE_ADDED), agent(nullptr), initialDiscovery(false) {}

CAPFileEvent::CAPFileEvent(const CAPFileEvent& other)
    : Event(other),
      capFileName(other.capFileName),
      capState(other.capState),
      agent(other.agent != nullptr ? new Agent(*other.agent, true) : nullptr),
      initialDiscovery(other.initialDiscovery) {}

CAPFileEvent::~CAPFileEvent() { delete agent; }

void CAPFileEvent::setAgent(Agent* owned) {
  if (owned == agent) return;
  delete agent;
  agent = owned;
}

void CAPFileEvent::doCommandProcessing() {
  QOR_TRACE_FUNCTION();
  Controller* controller = Controller::getController();
  if (getEventTypeID() == cap_init_complete) {
    QOR_TRACE_STORY("cap_init_complete event \n");
    controller->signalInitialDiscoveryComplete();
    return;
  }
  QOR_TRACE_DETAIL("lock discovery\n");
  if (controller->lockDiscovery()) {
    ManagedProcessList* list = controller->getManagedEndpointProcesses();
    if (list->lockList()) {
      controller->ProcessCAPStateChange(this);
      list->unlockList();
    }
    controller->unlockDiscovery();
  }
  passOn(this, [this] { return new CAPFileEvent(*this); });
}

std::wstring CAPFileEvent::getLogMessage() {
  return capFileName + L" CAP File Event: " + teoMessage(getEventTypeID());
}

Event* CAPFileEvent::makeCopy(bool /*shallow*/) { return new CAPFileEvent(*this); }

void CAPFileEvent::getEventData(EventData& data) {
  initData(data);
  if (agent != nullptr) fillAgentFields(data, agent);
}

WatchdogEvent::WatchdogEvent() : agent(nullptr) {}

WatchdogEvent::WatchdogEvent(const WatchdogEvent& other) : Event(other), agent(nullptr) {}

void WatchdogEvent::doCommandProcessing() {
  passOn(this, [this] { return new WatchdogEvent(*this); });
}

std::wstring WatchdogEvent::getLogMessage() { return L" Watchdog Event: " + teoMessage(getEventTypeID()); }

Event* WatchdogEvent::makeCopy(bool /*shallow*/) { return new WatchdogEvent(*this); }

void WatchdogEvent::getEventData(EventData& data) {
  initData(data);
  if (agent != nullptr) fillAgentFields(data, agent);
}

RawEvent::RawEvent(const EventData& data) : eventData(data) {
  setEventTypeID(data.eventID);
  setEventTime(data.eventTime);
  assignUserMessage(data.userMessage);
}

Event* RawEvent::makeCopy(bool /*shallow*/) {
  RawEvent* copy = new RawEvent(eventData);
  copy->setLogMessage(logMessageText);
  return copy;
}

void RawEvent::logMessage() { messageQueue()->pushEvent(makeCopy(true)); }

void RawEvent::logUnreliableMessage(Event* event) {
  EventData data;
  event->getEventData(data);
  data.eventID = watchdog_unreliable;
  RawEvent warning(data);
  warning.setLogMessage(teoMessage(watchdog_unreliable));
  // Kept: the user message and the time are set twice, on the event and on its record.
  if (event->getEventTypeID() == disarm_complete) {
    warning.setUserMessage(L"Watchdog Disarm");
    warning.record().userMessage = L"Watchdog Disarm";
  }
  time_t now = time(nullptr);
  warning.setEventTime(now);
  warning.record().eventTime = now;
  warning.logMessage();
}
