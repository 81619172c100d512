#include "include/qorapi.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "cap/qorconv.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorlock.h"
#include "core/qorutil.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

// Ids that reach the alert listeners as well as the log listeners.
// Kept: id 13, the failed manual start, is no alert.
bool isAlertId(int id) {
  switch (id) {
    case cap_removed:
    case agent_restart_failed:
    case agent_stopped_abnormally:
    case agent_stop_failed:
    case agent_restart_exceeded:
    case agent_not_found:
    case agent_memory_exceeded:
    case agent_cpu_exceeded:
    case watchdog_unreliable:
      return true;
    default:
      return false;
  }
}

void fillAlertData(QOR_AlertData& alert, const EventData& data) {
  alert.eventTime = data.eventTime;
  alert.agentName = data.agentName;
  alert.operatingState = data.operatingState;
  alert.managedState = data.managedState;
  alert.instanceProcName = data.instanceProcName;
  alert.agentType = data.agentType;
  alert.osType = data.osType;
  alert.osVersion = data.osVersion;
  alert.procID = data.procID;
  alert.spareValue = data.spareValue;
  alert.eventID = data.eventID;
  alert.userMessage = data.userMessage;
}

// Removes the first registration of `listener`; false when it had none.
template <typename Listener>
bool eraseFirst(std::vector<Listener*>& listeners, Listener* listener) {
  auto found = std::find(listeners.begin(), listeners.end(), listener);
  if (found == listeners.end()) return false;
  listeners.erase(found);
  return true;
}

// The listener mutexes are declared bare by the exported header, which
// embedders compile without the library's own headers.
bool lockMutex(pthread_mutex_t* mutex) {
  QOR_TRACE_FUNCTION();
  return QOR_LOCK_TRACED(mutex);
}

bool unlockMutex(pthread_mutex_t* mutex) {
  QOR_TRACE_FUNCTION();
  return QOR_UNLOCK_TRACED(mutex);
}

}  // namespace

bool QOR_QueryService::lockAlertListenerList() { return lockMutex(&alertListMutex); }
bool QOR_QueryService::unlockAlertListenerList() { return unlockMutex(&alertListMutex); }
bool QOR_QueryService::lockLogListenerList() { return lockMutex(&logListMutex); }
bool QOR_QueryService::unlockLogListenerList() { return unlockMutex(&logListMutex); }

bool QOR_QueryService::registerAlertListener(QOR_AlertListener* listener) {
  if (!m_bIsInitialized || !lockAlertListenerList()) return false;
  alertListeners.push_back(listener);
  unlockAlertListenerList();
  return true;
}

bool QOR_QueryService::registerLogListener(QOR_LogListener* listener) {
  if (!m_bIsInitialized || !lockLogListenerList()) return false;
  logListeners.push_back(listener);
  unlockLogListenerList();
  return true;
}

bool QOR_QueryService::deregisterAlertListener(QOR_AlertListener* listener) {
  if (!m_bIsInitialized || !lockAlertListenerList()) return false;
  bool found = eraseFirst(alertListeners, listener);
  unlockAlertListenerList();
  return found;
}

bool QOR_QueryService::deregisterLogListener(QOR_LogListener* listener) {
  if (!m_bIsInitialized || !lockLogListenerList()) return false;
  bool found = eraseFirst(logListeners, listener);
  unlockLogListenerList();
  return found;
}

void QOR_QueryService::ProcessEvent(Event* event) {
  QOR_TRACE_FUNCTION();
  if (event == nullptr) return;
  QOR_QueryService* service = m_pQSInstance;
  // A release that only persisted may leave events on their way after the
  // instance is gone; they have no one to go to.
  if (service == nullptr) {
    delete event;
    return;
  }
  std::wstring message = event->getLogMessage();
  EventData data;
  event->getEventData(data);
  QOR_TRACE_STORY("Event Message = %s.\n", QOR_N(message));
  QOR_TRACE_STORY("Event Type = %d.\n", data.eventID);

  if (!service->lockLogListenerList()) {
    QOR_TRACE_ERROR("Unable to lock log listener list.\n");
  } else {
    QOR_TRACE_STORY("#Callback log listeners= %d.\n", static_cast<int>(service->logListeners.size()));
    for (QOR_LogListener* listener : service->logListeners) {
      QOR_TRACE_STORY("Calling log listener.\n");
      listener->logData.eventTime = data.eventTime;
      listener->logData.eventID = data.eventID;
      listener->logData.logMessage = message;
      listener->AlertMe();
    }
    service->unlockLogListenerList();
  }

  if (isAlertId(data.eventID)) {
    if (!service->lockAlertListenerList()) {
      QOR_TRACE_ERROR("Unable to lock alert listener list.\n");
    } else {
      QOR_TRACE_STORY("#Callback alert listeners= %d.\n", static_cast<int>(service->alertListeners.size()));
      for (QOR_AlertListener* listener : service->alertListeners) {
        QOR_TRACE_STORY("Calling alert listener.\n");
        fillAlertData(listener->alertData, data);
        listener->AlertMe();
      }
      service->unlockAlertListenerList();
    }
  }
  delete event;
}

int QOR_QueryService::getCacheLimit() {
  int hours = 0;
  if (QOR_GetEnvironmentAsInt("QOR_CACHE_LIMIT", hours)) return hours;
  return 24;
}

int QOR_QueryService::stopAgent(std::wstring name, std::wstring process, int pid) {
  if (!m_bIsStarted) return -1;
  return Controller::getController()->stopAgent(name, process, pid);
}

int QOR_QueryService::startAgent(std::wstring name, bool resetCount, std::wstring process,
                                 std::wstring instance) {
  if (!m_bIsStarted) return -1;
  return Controller::getController()->startAgent(name, resetCount, process, instance);
}

int QOR_QueryService::recycleAgent(std::wstring name, std::wstring process, std::wstring instance, int pid) {
  if (!m_bIsStarted) return -1;
  return Controller::getController()->recycleAgent(name, process, instance, pid);
}

int QOR_QueryService::resetRestartCount(std::wstring name, std::wstring process, std::wstring instance) {
  if (!m_bIsStarted) return -1;
  return Controller::getController()->resetAgentRestartCount(name, process, instance);
}

int QOR_QueryService::startManagingAgent(std::wstring name) {
  if (!m_bIsStarted) return -1;
  return Controller::getController()->startManage(name);
}

int QOR_QueryService::stopManagingAgent(std::wstring name) {
  if (!m_bIsStarted) return -1;
  return Controller::getController()->stopManage(name);
}

long QOR_QueryService::getCommandHandlerBusyMs() {
  if (!m_bIsStarted) return -1;
  return static_cast<long>(Controller::getController()->getCommandHandler()->busyMilliseconds());
}

void DisarmWatchdog(int /*ignored*/) { Controller::getController()->disarm(false); }

void RearmWatchdog(int /*ignored*/) { Controller::getController()->rearm(); }

void QOR_SetTraceLevel(unsigned mask) { LOG1_SetMask(mask); }

unsigned QOR_GetTraceLevel() { return LOG1_GetMask(); }

bool QOR_ReopenTraceFile() { return LOG1_ReopenFile(); }

bool QOR_IsJournalStream(int fd) { return LOG1_IsJournalStream(fd); }

char* QOR_wcstombs(std::wstring text) { return qor_wcstombs(text); }

wchar_t* QOR_u_strFromUTF8(const char* text) {
  // Given no room of its own, the conversion always answers with a new[]
  // array, which the caller owns, or null.
  int length = 0;
  int error = 0;
  return qor_u_strFromUTF8(nullptr, 0, &length, text, -1, &error);
}
