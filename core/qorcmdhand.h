// The command queue: every change to the service's state is applied here, on
// one thread, in order of arrival. Any thread pushes; the command handler
// thread consumes.
#ifndef QOR_CORE_QORCMDHAND_H
#define QOR_CORE_QORCMDHAND_H

#include <atomic>

#include "core/qorevthand.h"

class CommandHandler : public EventHandler {
 public:
  // The consumer loop: stamps each event, applies it and deletes it. Returns
  // when the queue is shut down.
  void runHandler();

  // Milliseconds spent so far on the event being applied; 0 while the
  // handler waits for one. Once the loop has ended the time counts from its
  // end, as if it were stuck there: a handler that is gone takes no event.
  // Any thread. A host's liveness probe reads it: every command, check and
  // change passes through this one thread, so one event that never ends
  // stops the whole service.
  long long busyMilliseconds() const;

  // The monotonic clock in milliseconds, never 0.
  static long long nowMs();
  // Records that an event began at `ms`, or with 0 that none is under way.
  void markBusy(long long ms) { busySince.store(ms, std::memory_order_relaxed); }

 private:
  std::atomic<long long> busySince{0};
};

// Thread entry; the argument is the CommandHandler.
void* commandHandlerThreadEntry(void* handler);

#endif  // QOR_CORE_QORCMDHAND_H
