#include "core/qorevt.h"

#include "core/qorctrl.h"
#include "core/qormsghand.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

// Row 9 is never raised; it keeps the numbering, spelling and all.
const std::wstring TEOMessages[TEO_MESSAGE_COUNT] = {
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
static_assert(sizeof(TEOMessages) / sizeof(TEOMessages[0]) == 28, "one message per event id");

const std::wstring StartMessages[START_MESSAGE_COUNT] = {
    L"Start successfully.",                // 0
    L"Dependent agent id not found.",      // 1
    L"Dependent agent path invalid.",      // 2
    L"Dependent agent not managed.",       // 3
    L"Dependent agent manually stopped.",  // 4
    L"Agent config script failed.",        // 5
    L"Start script not found.",            // 6
    L"Agent start script failed.",         // 7
};
static_assert(sizeof(StartMessages) / sizeof(StartMessages[0]) == 8, "one message per start status");

std::wstring teoMessage(int id) {
  return id >= 0 && id < TEO_MESSAGE_COUNT ? TEOMessages[id] : std::wstring();
}

std::wstring startMessage(int status) {
  return status >= 0 && status < START_MESSAGE_COUNT ? StartMessages[status] : std::wstring();
}

CAPFileEvent::CAPFileEvent() : capState(0), initialDiscovery(false) {}

CAPFileEvent::CAPFileEvent(const CAPFileEvent& other)
    : Event(other),
      capFileName(other.capFileName),
      capState(other.capState),
      initialDiscovery(other.initialDiscovery) {}

CAPFileEvent::~CAPFileEvent() = default;

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
      // The change of policies and agents joins with CAP state processing.
      list->unlockList();
    }
    controller->unlockDiscovery();
  }
  if (messagesSuppressed()) {
    QOR_TRACE_DETAIL("Message suppressed for event id %d.", getEventTypeID());
    return;
  }
  controller->getMessageHandler()->pushEvent(new CAPFileEvent(*this));
}

std::wstring CAPFileEvent::getLogMessage() {
  return capFileName + L" CAP File Event: " + teoMessage(getEventTypeID());
}

Event* CAPFileEvent::makeCopy(bool /*shallow*/) { return new CAPFileEvent(*this); }

void CAPFileEvent::getEventData(EventData& data) { initData(data); }
