#include "qornotify.h"

#include <chrono>

#include "qorapi.h"

#if QOR_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace qornotify {

namespace {

// Nothing comes back that the programs could act on: without a manager
// listening the message is simply not sent.
void send(const std::string& message) {
#if QOR_HAVE_SYSTEMD
  sd_notify(0, message.c_str());
#else
  (void)message;
#endif
}

}  // namespace

void ready(const std::string& status) { send(status.empty() ? "READY=1" : "READY=1\nSTATUS=" + status); }

void stopping() { send("STOPPING=1\nSTATUS=stopping"); }

void status(const std::string& text) { send("STATUS=" + text); }

unsigned long long takeWatchdogPeriodUs() {
#if QOR_HAVE_SYSTEMD
  uint64_t periodUs = 0;
  // With 1, WATCHDOG_USEC and WATCHDOG_PID leave the environment.
  if (sd_watchdog_enabled(1, &periodUs) > 0) return periodUs;
#endif
  return 0;
}

WatchdogPinger::WatchdogPinger(QOR_QueryService* service, unsigned long long periodUs)
    : service_(service), periodUs_(periodUs) {
  if (periodUs_ > 0) thread_ = std::thread([this] { loop(); });
}

void WatchdogPinger::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void WatchdogPinger::loop() {
  const auto half = std::chrono::microseconds(periodUs_ / 2);
  // A handler on one event for a whole period is taken for hung. A status
  // script may legitimately hold it up to its time-out, which is why the
  // unit's period is longer than that.
  const long limitMs = static_cast<long>(periodUs_ / 1000);
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    const long busyMs = service_->getCommandHandlerBusyMs();
    if (busyMs >= 0 && busyMs < limitMs) send("WATCHDOG=1");
    if (wake_.wait_for(lock, half, [this] { return stopping_; })) return;
  }
}

}  // namespace qornotify
