#include "platform/int1.h"

#include <signal.h>

#include <cerrno>
#include <cstring>

namespace {

int systemSignal(int id) {
  switch (id) {
    case INT1_SIGILL:
      return SIGILL;
    case INT1_SIGINT:
      return SIGINT;
    case INT1_SIGTERM:
      return SIGTERM;
    default:
      return -1;
  }
}

}  // namespace

int INT1_Action(int id, INT1_Record* record, int /*flags*/) {
  int number = systemSignal(id);
  if (number < 0 || record == nullptr) {
    errno = EINVAL;
    return -1;
  }
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = record->handler;
  sigemptyset(&action.sa_mask);
  return sigaction(number, &action, nullptr) == 0 ? 0 : -1;
}

const char* INT1_SignalName(int signalNumber) {
  const char* name = strsignal(signalNumber);
  return name ? name : "Unknown signal";
}
