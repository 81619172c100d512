// Sets what only the service's own start, its shutdown and the OS agent's
// supervision set otherwise: the time the service started, the disarm flag and
// the shutdown flag, and the event cache. One definition for every test file of an executable, since
// Controller names this class as its friend. Used on the test's main thread or
// on a thread the test starts; the flags are atomic.
#ifndef QOR_TESTS_SUPPORT_CONTROLLERACCESS_H
#define QOR_TESTS_SUPPORT_CONTROLLERACCESS_H

#include <ctime>

#include "core/qorctrl.h"

class ControllerTestAccess {
 public:
  static void setStartup(time_t when) { Controller::getController()->startup = when; }
  static void setWatchdogListChecked(time_t when) { Controller::getController()->watchdogListChecked = when; }
  static void setDisarmed(bool on) { Controller::getController()->disarmed.store(on); }
  // The watchdog process's event cache without a started service; null takes it away.
  static void setWDCache(Message_Cache* cache) {
    Controller::getController()->wdCache.store(cache, std::memory_order_release);
  }
  static void setShuttingDown(bool on) {
    Controller::getController()->shuttingDown.store(on, std::memory_order_release);
  }
};

#endif  // QOR_TESTS_SUPPORT_CONTROLLERACCESS_H
