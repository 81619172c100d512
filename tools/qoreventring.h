// The last 1000 events qorhost's listeners heard, numbered from 1, and a count
// per event id, for the control endpoint. Listeners push from the service's
// message thread, HTTP workers copy out; the lock is held only for that, so a
// slow client never holds up a listener: the ring drops the oldest.
#ifndef QOR_TOOLS_QOREVENTRING_H
#define QOR_TOOLS_QOREVENTRING_H

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "qorapi.h"

namespace qorring {

struct HeardEvent {
  uint64_t seq = 0;
  time_t time = 0;
  int id = 0;
  std::string agent;  // UTF-8; empty for events of no agent (CAP files, the watchdog)
  std::string text;   // the log text, UTF-8
  bool alert = false;
};

class EventRing {
 public:
  static constexpr size_t kCapacity = 1000;

  explicit EventRing(size_t capacity = kCapacity) : capacity_(capacity) {}

  // Appends an event and gives it the next number.
  void push(time_t time, int id, const std::string& agent, const std::string& text, bool alert);
  // Marks the newest event as an alert when it is the one `id` and `time` name
  // (the log listener heard it first) and names its agent; otherwise appends
  // the alert as an event of its own, with `text`.
  void markAlert(time_t time, int id, const std::string& agent, const std::string& text);

  struct Slice {
    std::vector<HeardEvent> events;  // oldest first
    uint64_t last = 0;               // the newest number given, 0 when none
  };
  // The kept events numbered above `since`.
  Slice since(uint64_t since) const;
  // How many events of each id were heard, dropped ones included.
  std::map<int, uint64_t> counts() const;

 private:
  // Numbers and keeps a new event, dropping the oldest past the capacity.
  // Requires: mutex_ held.
  void append(time_t time, int id, const std::string& agent, const std::string& text, bool alert);

  const size_t capacity_;
  mutable std::mutex mutex_;
  std::deque<HeardEvent> events_;
  uint64_t last_ = 0;
  std::map<int, uint64_t> counts_;
};

// UTF-8 of wide text (UTF-32 on this platform), whatever the locale; a code
// point that is not a character becomes U+FFFD.
std::string utf8(const std::wstring& text);

// The agent an event's log text names: the text before " Operational Event: ",
// " Management Event: " or " Availability checked at ", without the instance
// fragment " - INSTANCE -"; empty for other texts.
std::string agentOfLogText(const std::string& text);

// Listeners that feed a ring; register both on the service.
class RingLogListener : public QOR_LogListener {
 public:
  explicit RingLogListener(EventRing& ring) : ring_(ring) {}
  void AlertMe() override;

 private:
  EventRing& ring_;
};

class RingAlertListener : public QOR_AlertListener {
 public:
  explicit RingAlertListener(EventRing& ring) : ring_(ring) {}
  void AlertMe() override;

 private:
  EventRing& ring_;
};

}  // namespace qorring

#endif  // QOR_TOOLS_QOREVENTRING_H
