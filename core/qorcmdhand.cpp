#include "core/qorcmdhand.h"

#include <time.h>

#include <ctime>

#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

void processOne(EventHandler* self, Event* event) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_QUEUE("Event being processed.\n");
  CommandHandler* handler = static_cast<CommandHandler*>(self);
  handler->markBusy(CommandHandler::nowMs());
  event->setEventTime(time(nullptr));
  event->doCommandProcessing();
  delete event;
  handler->markBusy(0);
}

}  // namespace

void CommandHandler::runHandler() {
  runLoop(processOne);
  markBusy(nowMs());
}

long long CommandHandler::nowMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long ms = static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  return ms > 0 ? ms : 1;
}

long long CommandHandler::busyMilliseconds() const {
  const long long since = busySince.load(std::memory_order_relaxed);
  if (since == 0) return 0;
  const long long busy = nowMs() - since;
  return busy > 0 ? busy : 0;
}

void* commandHandlerThreadEntry(void* handler) {
  static_cast<CommandHandler*>(handler)->runHandler();
  return nullptr;
}
