// The event classes of the service, their ids and message tables. Events are
// made on any thread, applied on the command handler thread, and copied to the
// message queue for the listeners. An event belongs to one thread at a time.
#ifndef QOR_CORE_QOREVT_H
#define QOR_CORE_QOREVT_H

#include <string>

#include "core/qorevthand.h"

// Ids of events; only the numbers cross process and file borders.
enum TEOEvents {
  cap_added = 0,
  cap_removed = 1,
  agent_managed = 2,
  agent_unmanaged = 3,
  agent_stop_cmd = 4,
  agent_start_cmd = 5,
  agent_restart_failed = 6,
  agent_started = 7,
  agent_stopped_abnormally = 8,
  agent_maintenance = 9,
  agent_stopped = 10,
  agent_stop_failed = 11,
  agent_restart_exceeded = 12,
  agent_start_failed = 13,
  agent_not_found = 14,
  cap_init_complete = 15,
  agent_memory_exceeded = 16,
  agent_cpu_exceeded = 17,
  disarm_complete = 18,
  rearm_complete = 19,
  agent_health_check = 20,
  agent_restart_disabled = 21,
  agent_initial_start = 22,
  agent_not_configured = 23,
  agent_start_after_failure = 24,
  agent_recycle_cmd = 25,
  agent_count_reset = 26,
  watchdog_unreliable = 27,
};

constexpr int TEO_MESSAGE_COUNT = 28;
constexpr int START_MESSAGE_COUNT = 8;

// The text of each event id, and of each start status.
extern const std::wstring TEOMessages[TEO_MESSAGE_COUNT];
extern const std::wstring StartMessages[START_MESSAGE_COUNT];

// The row of TEOMessages for an id; empty for an id outside the table.
std::wstring teoMessage(int id);
// The row of StartMessages for a start status; empty outside the table.
std::wstring startMessage(int status);

// A CAP file found, added or removed; id 15 marks the end of the initial scan.
class CAPFileEvent : public Event {
 public:
  CAPFileEvent();
  CAPFileEvent(const CAPFileEvent& other);
  ~CAPFileEvent() override;

  void doCommandProcessing() override;
  std::wstring getLogMessage() override;
  Event* makeCopy(bool shallow) override;
  void getEventData(EventData& data) override;

  std::wstring getCAPFileName() const { return capFileName; }
  void setCAPFileName(const std::wstring& name) { capFileName = name; }
  int getCAPState() const { return capState; }
  void setCAPState(int state) { capState = state; }
  bool getInitialDiscovery() const { return initialDiscovery; }
  void setInitialDiscovery() { initialDiscovery = true; }

 private:
  std::wstring capFileName;
  int capState;  // 0 added, 1 removed
  bool initialDiscovery;
};

#endif  // QOR_CORE_QOREVT_H
