#include "core/qorevthand.h"

#include <cerrno>

#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

Event::Event() : eventTypeID(0), eventTime(0), suppressed(false), userMessage(L"N/A") {}

Event::Event(const Event& other) = default;

Event::~Event() = default;

void Event::doCommandProcessing() {}

std::wstring Event::getLogMessage() { return std::wstring(); }

Event* Event::makeCopy(bool /*shallow*/) { return nullptr; }

void Event::getEventData(EventData& data) { initData(data); }

void Event::processEvent() { Controller::getController()->getCommandHandler()->pushEvent(this); }

void Event::setUserMessage(const std::wstring& message) {
  if (!message.empty()) userMessage = message;
}

void Event::initData(EventData& data) {
  data.eventTime = eventTime;
  data.agentName.clear();
  data.operatingState = -1;
  data.managedState = -1;
  data.instanceProcName.clear();
  data.agentType = -1;
  data.osType = -1;
  data.osVersion.clear();
  data.procID = -1;
  data.spareValue = -1;
  data.eventID = eventTypeID;
  data.userMessage = userMessage;
}

EventHandler::EventHandler() : shutdownRequested(false) {
  pthread_cond_init(&queueCondition, nullptr);
  pthread_cond_init(&shutdownCondition, nullptr);
}

// Kept: events still queued are left alone: they are neither processed nor deleted.
EventHandler::~EventHandler() {
  pthread_cond_destroy(&shutdownCondition);
  pthread_cond_destroy(&queueCondition);
}

bool EventHandler::pushEvent(Event* event) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_QUEUE("Event Type. rc=%d", event->getEventTypeID());
  if (!lockEventQueue()) return false;  // Kept: the event is lost, neither queued nor deleted
  eventQueue.push_back(event);
  int rc = pthread_cond_signal(&queueCondition);
  if (rc != 0) {
    QOR_TRACE_ERROR("Error: pthread_cond_signal failed. rc=%d", rc);
  } else {
    QOR_TRACE_QUEUE("Waiting reader(s) signalled.\n");
  }
  return unlockEventQueue();
}

bool EventHandler::isQueueEmpty() { return eventQueue.empty(); }

Event* EventHandler::popEvent() {
  if (eventQueue.empty()) return nullptr;
  Event* event = eventQueue.front();
  eventQueue.erase(eventQueue.begin());
  return event;
}

bool EventHandler::waitOnEventQueue() {
  QOR_TRACE_FUNCTION();
  for (;;) {
    int rc = queueMutex.wait(&queueCondition);
    if (rc == 0) {
      QOR_TRACE_QUEUE("Successfully completed wait for event queue.\n");
      return true;
    }
    if (rc == EINTR) {
      QOR_TRACE_QUEUE("system interrupt received while waiting...retrying\n");
      continue;
    }
    QOR_TRACE_ERROR("Error: pthread_cond_wait failed. rc=%d \n", rc);
    return false;
  }
}

bool EventHandler::lockEventQueue() {
  QOR_TRACE_FUNCTION();
  return QOR_LOCK_TRACED(queueMutex);
}

bool EventHandler::unlockEventQueue() {
  QOR_TRACE_FUNCTION();
  return QOR_UNLOCK_TRACED(queueMutex);
}

void EventHandler::requestShutdown() {
  QOR_TRACE_FUNCTION();
  if (!QOR_LOCK_TRACED(shutdownMutex)) return;
  shutdownRequested.store(true, std::memory_order_release);
  shutdownMutex.unlock();

  if (!lockEventQueue()) return;
  int rc = pthread_cond_signal(&queueCondition);
  if (rc != 0) {
    QOR_TRACE_ERROR("Error: pthread_cond_signal failed. rc=%d", rc);
  } else {
    QOR_TRACE_QUEUE("Waiting reader(s) signalled.\n");
  }
  unlockEventQueue();
}

void EventHandler::runLoop(void (*deliver)(EventHandler* self, Event* event)) {
  QOR_TRACE_FUNCTION();
  for (;;) {
    if (isShutdownRequested()) return;
    if (!lockEventQueue()) continue;

    QOR_TRACE_QUEUE("Waiting for event queue not empty.\n");
    bool waitFailed = false;
    while (isQueueEmpty()) {
      waitFailed = !waitOnEventQueue();
      if (isShutdownRequested()) {
        QOR_TRACE_QUEUE("Unblocking due to shutdown requested");
        break;
      }
      if (waitFailed) {
        QOR_TRACE_QUEUE("Unblocking due to error in wait.");
        break;
      }
    }
    Event* event = nullptr;
    if (!waitFailed && !isShutdownRequested()) {
      QOR_TRACE_QUEUE("Event queue is not empty.\n");
      event = popEvent();
    }
    unlockEventQueue();

    // Kept: an event taken just before the flag was set is lost with the rest, never processed.
    if (isShutdownRequested()) {
      QOR_TRACE_QUEUE("Exiting handler due to shutdown");
      return;
    }
    if (waitFailed) {
      QOR_TRACE_QUEUE("Exiting handler due to error");
      return;
    }
    if (event == nullptr) continue;
    deliver(this, event);
  }
}
