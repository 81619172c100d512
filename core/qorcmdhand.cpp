#include "core/qorcmdhand.h"

#include <ctime>

#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

void processOne(EventHandler* /*self*/, Event* event) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_QUEUE("Event being processed.\n");
  event->setEventTime(time(nullptr));
  event->doCommandProcessing();
  delete event;
}

}  // namespace

void CommandHandler::runHandler() { runLoop(processOne); }

void* commandHandlerThreadEntry(void* handler) {
  static_cast<CommandHandler*>(handler)->runHandler();
  return nullptr;
}
