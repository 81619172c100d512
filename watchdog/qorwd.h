// The per-agent checker and actor that every supervised agent owns. It reports
// what it finds as events and never sets an agent's state itself. A Watchdog
// is used on the command handler thread with the list locked, or by a worker
// on its private deep copy of the agent.
#ifndef QOR_WATCHDOG_QORWD_H
#define QOR_WATCHDOG_QORWD_H

#include <cstdint>
#include <string>

class Agent;
class Controller;
class QorCmd;

class Watchdog {
 public:
  Watchdog();
  // A copy has no agent until setAgent; it shares the command manager.
  Watchdog(const Watchdog& source);
  virtual ~Watchdog();
  Watchdog& operator=(const Watchdog&) = delete;

  // The live state of the agent's process, 2 (down) or 4 (up), whatever the
  // record says. Runs no script; reads the process table.
  int getOperatingState();
  // Finds the agent's process and fills process id, instance names, command
  // line and user.
  void collectProcessData();
  // Tells the state machine what happened to the agent: posts an AgentOpEvent
  // with this agent on the command queue and returns at once.
  void processOpStateEvent(int opState, int eventID, const std::wstring& text) const;

  void setAgent(Agent* watched) { agent = watched; }
  Agent* getAgent() const { return agent; }
  int32_t getStartRetryCount() const { return startRetryCount; }
  QorCmd* getCmdManager() const { return cmdManager; }
  Controller* getOwner() const { return controller; }

 private:
  Controller* controller;
  Agent* agent;        // not owned
  QorCmd* cmdManager;  // the process-wide command manager; not owned
  int32_t startRetryCount;
};

#endif  // QOR_WATCHDOG_QORWD_H
