// The command queue: every change to the service's state is applied here, on
// one thread, in order of arrival. Any thread pushes; the command handler
// thread consumes.
#ifndef QOR_CORE_QORCMDHAND_H
#define QOR_CORE_QORCMDHAND_H

#include "core/qorevthand.h"

class CommandHandler : public EventHandler {
 public:
  // The consumer loop: stamps each event, applies it and deletes it. Returns
  // when the queue is shut down.
  void runHandler();
};

// Thread entry; the argument is the CommandHandler.
void* commandHandlerThreadEntry(void* handler);

#endif  // QOR_CORE_QORCMDHAND_H
