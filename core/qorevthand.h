// The event and the queue that carries it. Every change to the service's state
// travels as an Event through the command queue; what comes out of it travels
// through the message queue to the listeners. Any thread may push; each queue
// has one consumer thread. Whoever pushes an event gives it away.
#ifndef QOR_CORE_QOREVTHAND_H
#define QOR_CORE_QOREVTHAND_H

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <string>
#include <vector>

#include "core/qorlock.h"

// The flat record of an event, with no pointers: what listeners and the
// watchdog process's cache receive.
struct EventData {
  time_t eventTime = 0;
  std::wstring agentName;
  int operatingState = -1;
  int managedState = -1;
  std::wstring instanceProcName;
  int agentType = -1;
  int osType = -1;
  std::wstring osVersion;
  int procID = -1;
  int spareValue = -1;  // Kept: written by nothing; keeps the record's shape
  int eventID = 0;
  std::wstring userMessage;
};

class Event {
 public:
  Event();
  Event(const Event& other);
  virtual ~Event();

  // Applies the event on the command handler thread. The base does nothing.
  virtual void doCommandProcessing();
  // The text for the log; empty in the base.
  virtual std::wstring getLogMessage();
  // A new event of the same class; null in the base. `shallow` copies of agent
  // events carry an agent without its watchdog.
  virtual Event* makeCopy(bool shallow);
  // The flat record of the event; the base fills the defaults only.
  virtual void getEventData(EventData& data);

  // Queues the event on the command queue; ownership goes with it.
  void processEvent();

  int getEventTypeID() const { return eventTypeID; }
  void setEventTypeID(int id) { eventTypeID = id; }
  time_t getEventTime() const { return eventTime; }
  void setEventTime(time_t time) { eventTime = time; }
  void suppressMessages() { suppressed = true; }
  void allowMessages() { suppressed = false; }
  bool messagesSuppressed() const { return suppressed; }
  std::wstring getUserMessage() const { return userMessage; }
  // An empty text leaves the old one in place.
  void setUserMessage(const std::wstring& message);

 protected:
  // The defaults of the flat record: the event's own time, id and message, -1
  // and empty text for the agent fields.
  void initData(EventData& data);
  // Sets the message as it stands, an empty one included; for events rebuilt
  // from a flat record.
  void assignUserMessage(const std::wstring& message) { userMessage = message; }

 private:
  int eventTypeID;
  time_t eventTime;
  bool suppressed;
  std::wstring userMessage;
};

// A queue with one consumer. The queue mutex guards the vector; the consumer
// waits on the condition with it held.
class EventHandler {
 public:
  EventHandler();
  ~EventHandler();
  EventHandler(const EventHandler&) = delete;
  EventHandler& operator=(const EventHandler&) = delete;

  // Takes ownership, appends and signals. Any thread.
  // Kept: a push after shutdown is accepted, and the event stays in the queue for good.
  bool pushEvent(Event* event);

  // Requires: the queue mutex held by the caller (the consumer).
  bool isQueueEmpty() QOR_REQUIRES(queueMutex);
  // Requires: the queue mutex held by the caller (the consumer).
  Event* popEvent() QOR_REQUIRES(queueMutex);
  // Requires: the queue mutex held by the caller (the consumer), who holds it
  // again when the wait returns.
  bool waitOnEventQueue() QOR_REQUIRES(queueMutex);

  bool lockEventQueue() QOR_TRY_ACQUIRE(true, queueMutex);
  bool unlockEventQueue() QOR_RELEASE(queueMutex);

  // Marks the queue finished for good and wakes the consumer.
  void requestShutdown();
  bool isShutdownRequested() const { return shutdownRequested.load(std::memory_order_acquire); }

 protected:
  // The consumer loop shared by both queues; `deliver` handles a taken event.
  void runLoop(void (*deliver)(EventHandler* self, Event* event));

 private:
  QorMutex queueMutex;
  std::vector<Event*> eventQueue QOR_GUARDED_BY(queueMutex);
  pthread_cond_t queueCondition;
  // Written under the shutdown mutex; read by the consumer with or without the
  // queue mutex, hence atomic.
  std::atomic<bool> shutdownRequested;
  QorMutex shutdownMutex;
  pthread_cond_t shutdownCondition;  // Kept: initialised and destroyed, never waited on
};

#endif  // QOR_CORE_QOREVTHAND_H
