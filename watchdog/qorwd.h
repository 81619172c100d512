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
class AgentOpEvent;
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

  // ---- Actions (watchdog/qorwd.cpp, second half) ----------------------------
  // The initiate_ operations run on the command handler thread with the list
  // locked, right after the state machine has put the agent in state 3 or 6;
  // they look after the dependent agents and hand the slow part to a worker
  // thread, which gets its own copy of `event`; the caller keeps the event.
  // Requires (all three): managedEndpointProcesses locked by the caller.
  // true when no worker was wanted (action flag clear) or one was started.
  bool initiate_Stop(AgentOpEvent* event);
  // A start status: 0 when a worker was started, the dependents' status when
  // one of them is not fit, 7 when the worker could not be started.
  int initiate_Start(AgentOpEvent* event);
  bool initiate_Recycle(AgentOpEvent* event);

  // The slow halves, on a worker thread with no lock held, on the worker's
  // private copy of the agent. `message` receives the text that the script's
  // return code chose. stop returns the stop's return code, start a start
  // status.
  int stop(std::wstring& message);
  int start(std::wstring& message);

  // Asks every dependent agent that is stopped to start, and returns the
  // status of the last dependent that is not fit to run (0 when all are).
  // Requires: managedEndpointProcesses locked by the caller, except on a
  // recycle's worker thread, where nothing else can reach the copy.
  int startDependentAgents() const;
  // Asks every running agent that depends on this one to stop.
  // Requires: managedEndpointProcesses locked by the caller.
  void stopDependentAgents() const;
  // Waits, sweep after sweep, for the dependent agents to run. Requires: no
  // list lock held by the caller; it takes the lock once per dependent.
  int startDependentAgentsStatus() const;

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
  // One start attempt: the config script, then the start script or the
  // service's start. Sets the attempt's start status; returns its return code.
  int startAttempt(std::wstring& message, int& status, const LOG1_Context& trace);

  Controller* controller;
  Agent* agent;        // not owned
  QorCmd* cmdManager;  // the process-wide command manager; not owned
  int32_t startRetryCount;
};

#endif  // QOR_WATCHDOG_QORWD_H
