// What qorhost and qorwd tell a service manager that started them: ready,
// stopping, a status line, and the watchdog's keep-alive pings while the
// service's command handler still takes events. Without libsystemd at build
// time, or outside a unit that asks for notifications, every call does nothing.
#ifndef QOR_TOOLS_QORNOTIFY_H
#define QOR_TOOLS_QORNOTIFY_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class QOR_QueryService;

namespace qornotify {

// The service is up. `status` (optional) is a one-line summary for
// `systemctl status`.
void ready(const std::string& status = std::string());
// The stop has begun.
void stopping();
// One status line, whenever it changes.
void status(const std::string& text);

// The watchdog period the service manager asked for, in microseconds; 0 when
// none was asked for (or it was meant for another process). Takes the
// variables out of the environment, so that the agents started later do not
// see them: call it once, on the main thread, before the service starts.
unsigned long long takeWatchdogPeriodUs();

// Sends a keep-alive ping every half period from a thread of its own, but
// only while the command handler is alive: waiting for an event, or on its
// current one for less than the period. A handler stuck longer lets the pings
// stop, and the service manager restarts the program. With a period of 0 no
// thread is made. Stop it (or destroy it) before the service is released.
class WatchdogPinger {
 public:
  WatchdogPinger(QOR_QueryService* service, unsigned long long periodUs);
  ~WatchdogPinger() { stop(); }
  WatchdogPinger(const WatchdogPinger&) = delete;
  WatchdogPinger& operator=(const WatchdogPinger&) = delete;

  // Ends and joins the thread; again does nothing.
  void stop();

 private:
  void loop();

  QOR_QueryService* service_;
  unsigned long long periodUs_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace qornotify

#endif  // QOR_TOOLS_QORNOTIFY_H
