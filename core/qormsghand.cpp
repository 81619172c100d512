#include "core/qormsghand.h"

#include "core/qorctrl.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

void sendOne(EventHandler* self, Event* event) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_QUEUE("Event being sent to listeners event type: %d\n", event->getEventTypeID());
  static_cast<MessageHandler*>(self)->notifyListeners(event);
  delete event;
}

// A management message points at the live agent, which it shows as it is
// when the copy is made; the copy reads it with the list locked, as every
// reader of a live agent must. Listener lock, then list lock: the order an
// embedder's listener reading through the iterator takes as well.
Event* copyForListener(Event* event) {
  ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
  const bool locked = list->lockList();
  Event* copy = event->makeCopy(true);
  if (locked) list->unlockList();
  return copy;
}

}  // namespace

MessageHandler::MessageHandler() = default;

MessageHandler::~MessageHandler() = default;

void MessageHandler::runHandler() { runLoop(sendOne); }

void MessageHandler::registerListener(EventListener listener) {
  QorMutexLock lock(&listenerMutex);
  listeners.push_back(listener);
}

void MessageHandler::deregisterListener(EventListener listener) {
  QorMutexLock lock(&listenerMutex);
  if (!listeners.empty()) {
    // Kept: the loop runs only while the iterator is at the end, so no listener is ever erased.
    for (auto it = listeners.begin(); it == listeners.end(); ++it) {
      if (*it == listener) {
        listeners.erase(it);
        break;
      }
    }
  }
}

void MessageHandler::notifyListeners(Event* event) {
  QOR_TRACE_FUNCTION();
  if (!lockListenerList()) return;
  for (EventListener listener : listeners) {
    QOR_TRACE_QUEUE("calling listener with event type: %d\n", event->getEventTypeID());
    Event* copy = copyForListener(event);
    // Only copyable events reach this queue; an event without a copy is not
    // handed out rather than handed out as null.
    if (copy != nullptr) listener(copy);
  }
  unlockListenerList();
}

bool MessageHandler::lockListenerList() {
  QOR_TRACE_FUNCTION();
  return QOR_LOCK_TRACED(listenerMutex);
}

bool MessageHandler::unlockListenerList() {
  QOR_TRACE_FUNCTION();
  return QOR_UNLOCK_TRACED(listenerMutex);
}

size_t MessageHandler::listenerCount() {
  QorMutexLock lock(&listenerMutex);
  return listeners.size();
}

void* messageHandlerThreadEntry(void* handler) {
  QOR_TRACE_FUNCTION();
  static_cast<MessageHandler*>(handler)->runHandler();
  QOR_TRACE_QUEUE("Exiting thread.\n");
  return nullptr;
}
