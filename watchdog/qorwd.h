// The per-agent checker and actor that every supervised agent owns. It reports
// what it finds as events and never sets an agent's state itself. A Watchdog
// is used on the command handler thread with the list locked, or by a worker
// on its private deep copy of the agent.
#ifndef QOR_WATCHDOG_QORWD_H
#define QOR_WATCHDOG_QORWD_H

#include <cstdint>
#include <ctime>
#include <string>

class Agent;
class Controller;
class QorCmd;
struct LOG1_Context;

class Watchdog {
 public:
  Watchdog();
  // A copy has no agent until setAgent; it shares the command manager.
  Watchdog(const Watchdog& source);
  virtual ~Watchdog();
  Watchdog& operator=(const Watchdog&) = delete;

  // One scheduled check: resets the daily restart count on a new day, skips
  // an agent whose check frequency has not elapsed, finds whether the agent is
  // up, and reports what needs doing as an event. Sets the check time unless
  // skipped. Requires: managedEndpointProcesses locked by the caller (the
  // command handler thread); a status script gives the lock up while it runs.
  void checkAvailability();
  // Refreshes the counters of a running agent and reports a CPU or memory
  // figure above the policy's threshold. Called by checkAvailability only.
  // Requires: managedEndpointProcesses locked by the caller.
  void checkHealth();
  // Kept: an empty hook with no caller; it stays a declared operation.
  void checkOther() const {}
  // Refreshes the agent's counters outside a check and sets its check time.
  // Requires: the lock of the list that holds the agent, held by the caller.
  void collectRuntimeData();

  // The live state of the agent's process, 2 (down) or 4 (up), whatever the
  // record says. Runs no script; reads the process table.
  int getOperatingState();
  // Finds the agent's process and fills process id, instance names, command
  // line and user.
  void collectProcessData();
  // Tells the state machine what happened to the agent: posts an AgentOpEvent
  // with this agent on the command queue and returns at once.
  void processOpStateEvent(int opState, int eventID, const std::wstring& text) const;

  // A Windows service, a Linux service or a Unix daemon: checked through the
  // system's service query when the policy has no status script.
  bool isSystemService() const;
  // Whether the agent's executable can be opened for reading.
  bool ExecPathExists();

  void setAgent(Agent* watched) { agent = watched; }
  Agent* getAgent() const { return agent; }
  int32_t getStartRetryCount() const { return startRetryCount; }
  QorCmd* getCmdManager() const { return cmdManager; }
  Controller* getOwner() const { return controller; }

 private:
  // The tests of the health check measure through a command manager of their
  // own where a real process cannot show CPU time to the stat reader.
  friend class WatchdogTestAccess;

  // The steps of checkAvailability, in the order it takes them.
  // Resets the daily count on a new day; false when the check is skipped.
  bool isDue(time_t now, const LOG1_Context& trace);
  void resetOnNewDay(int nowDay, int otherDay, const LOG1_Context& trace);
  // The state the agent is found in, 2 or 4; `rc` is the status script's code.
  int findState(int& rc, std::wstring& output, std::wstring& msgID, const LOG1_Context& trace);
  int runStatusScript(std::wstring& output, std::wstring& msgID, const LOG1_Context& trace);
  void reportDown(int rc, const std::wstring& output, const std::wstring& msgID, const LOG1_Context& trace);
  void reportUp(const std::wstring& msgID, const LOG1_Context& trace);
  // The counters of the process and its children since the last check.
  void refreshRuntimeData();

  Controller* controller;
  Agent* agent;        // not owned
  QorCmd* cmdManager;  // the process-wide command manager; not owned
  int32_t startRetryCount;
};

#endif  // QOR_WATCHDOG_QORWD_H
