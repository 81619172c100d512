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

// The text of each event id, and of each start status. Declared without their
// bound so that the definitions' row counts are what the size checks see.
extern const std::wstring TEOMessages[];
extern const std::wstring StartMessages[];

// The row of TEOMessages for an id; empty for an id outside the table.
std::wstring teoMessage(int id);
// The row of StartMessages for a start status; empty outside the table.
std::wstring startMessage(int status);

class Agent;

// An event about one agent. A plain copy shares the agent and never owns it.
class AgentEvent : public Event {
 public:
  AgentEvent();
  AgentEvent(const AgentEvent& other);
  ~AgentEvent() override;

  void getEventData(EventData& data) override;

  Agent* getAgent() const { return agent; }
  // Changes the pointer only; ownership stays as it was.
  void setAgent(Agent* newAgent) { agent = newAgent; }
  void setAgent(Agent* newAgent, bool owns) {
    agent = newAgent;
    ownsAgent = owns;
  }
  bool isAgentOwned() const { return ownsAgent; }

 protected:
  // A new agent copied from this event's agent (with `shallow` passed on), or
  // null when the event has none.
  Agent* copyAgent(bool shallow) const;

 private:
  Agent* agent;
  bool ownsAgent;
};

// An operational change of an agent, or a command for it.
class AgentOpEvent : public AgentEvent {
 public:
  AgentOpEvent();
  AgentOpEvent(const AgentOpEvent& other);

  void doCommandProcessing() override;
  std::wstring getLogMessage() override;
  Event* makeCopy(bool shallow) override;

  // Puts a copy straight on the message queue, without processing; the
  // caller keeps this event.
  void logMessage();

  int getOpState() const { return opState; }
  void setOpState(int state) { opState = state; }
  int getStartStatus() const { return startStatus; }
  void setStartStatus(int status) { startStatus = status; }
  bool getIncrementFlag() const { return incrementFlag; }
  void setIncrementFlag(bool flag) { incrementFlag = flag; }
  bool getActionFlag() const { return actionFlag; }
  void setActionFlag(bool flag) { actionFlag = flag; }

 private:
  int opState;
  int startStatus;  // index into StartMessages; meaningful with ids 6 and 13
  bool incrementFlag;
  bool actionFlag;
};

// A change of an agent's management.
class AgentMgmtEvent : public AgentOpEvent {
 public:
  AgentMgmtEvent();
  // Takes over mgmtState only: a copy never says it is a new agent.
  AgentMgmtEvent(const AgentMgmtEvent& other);

  void doCommandProcessing() override;
  std::wstring getLogMessage() override;
  Event* makeCopy(bool shallow) override;

  int getMgmtState() const { return mgmtState; }
  void setMgmtState(int state) { mgmtState = state; }
  bool isNewAgent() const { return newAgent; }
  void setNewAgent(bool created) { newAgent = created; }

 private:
  int mgmtState;
  bool newAgent;
};

// A request to check one agent's availability; id 20. Sends no message.
class AgentAVCheckEvent : public AgentEvent {
 public:
  AgentAVCheckEvent();
  AgentAVCheckEvent(const AgentAVCheckEvent& other) = default;

  void doCommandProcessing() override;
  std::wstring getLogMessage() override;
  Event* makeCopy(bool shallow) override;

  time_t getCheckTime() const { return checkTime; }
  void setCheckTime(time_t when) { checkTime = when; }

 private:
  time_t checkTime;
};

// The CAP state of a CAPFileEvent: whether its file came or went.
constexpr int CAP_FILE_ADDED = 0;
constexpr int CAP_FILE_REMOVED = 1;

// A CAP file found, added or removed; id 15 marks the end of the initial scan.
// The agent, when there is one, is a shallow copy for the message, always owned.
class CAPFileEvent : public Event {
 public:
  CAPFileEvent();
  CAPFileEvent(const CAPFileEvent& other);
  ~CAPFileEvent() override;
  CAPFileEvent& operator=(const CAPFileEvent&) = delete;

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
  Agent* getAgent() const { return agent; }
  // Takes ownership; an agent set before is deleted.
  void setAgent(Agent* owned);

 private:
  std::wstring capFileName;
  int capState;  // CAP_FILE_ADDED or CAP_FILE_REMOVED
  Agent* agent;
  bool initialDiscovery;
};

// The result of a disarm or rearm. A copy has no agent.
class WatchdogEvent : public Event {
 public:
  WatchdogEvent();
  WatchdogEvent(const WatchdogEvent& other);

  void doCommandProcessing() override;
  std::wstring getLogMessage() override;
  Event* makeCopy(bool shallow) override;
  void getEventData(EventData& data) override;

  Agent* getAgent() const { return agent; }
  void setAgent(Agent* watched) { agent = watched; }

 private:
  Agent* agent;  // not owned
};

// A flat record with a ready log text: events that come from the watchdog
// process's cache, and the warning that nothing guards the OS agent.
class RawEvent : public Event {
 public:
  explicit RawEvent(const EventData& data);

  std::wstring getLogMessage() override { return logMessageText; }
  Event* makeCopy(bool shallow) override;
  void getEventData(EventData& data) override { data = eventData; }

  void setLogMessage(const std::wstring& text) { logMessageText = text; }
  // The stored record, for changes before the event is sent.
  EventData& record() { return eventData; }

  // Puts a copy straight on the message queue; the caller keeps this event.
  void logMessage();
  // Tells the listeners, with id 27, that nothing guards the OS agent, using
  // the agent fields of `event`.
  static void logUnreliableMessage(Event* event);

 private:
  EventData eventData;
  std::wstring logMessageText;
};

#endif  // QOR_CORE_QOREVT_H
