// The message queue: fans each event that came out of the command queue out
// to the listener functions, so that a slow listener never holds up the state
// machine. Any thread pushes; the message handler thread consumes and calls
// the listeners with the listener mutex held.
#ifndef QOR_CORE_QORMSGHAND_H
#define QOR_CORE_QORMSGHAND_H

#include <vector>

#include "core/qorevthand.h"
#include "core/qorlock.h"

// A listener gets a private copy of the event, which it owns and must delete.
// It runs with the listener mutex held: it must not (de)register listeners.
typedef void (*EventListener)(Event* event);

class MessageHandler : public EventHandler {
 public:
  MessageHandler();
  ~MessageHandler();

  // The consumer loop: gives each event to every listener, then deletes it.
  void runHandler();

  // The same function may be registered twice, and is then called twice.
  void registerListener(EventListener listener);
  // Leaves the list as it was: a listener, once registered, stays registered
  // for the life of the process.
  void deregisterListener(EventListener listener);
  void notifyListeners(Event* event);
  bool lockListenerList() QOR_TRY_ACQUIRE(true, listenerMutex);
  bool unlockListenerList() QOR_RELEASE(listenerMutex);

  // The number of listeners; for tests and diagnostics.
  size_t listenerCount();

 private:
  QorMutex listenerMutex;
  std::vector<EventListener> listeners QOR_GUARDED_BY(listenerMutex);
};

// Thread entry; the argument is the MessageHandler.
void* messageHandlerThreadEntry(void* handler);

#endif  // QOR_CORE_QORMSGHAND_H
