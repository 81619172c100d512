// The command manager's base: the one door through which the service runs
// scripts, reads the process table and matches processes to agents. QorCmd
// holds the time-out and the lock that serialises the suite's own tool, and
// maps a script's return code; QorCmdUNIX and QorCmdLinux add the layers below.
// One instance from GetCmdManager, shared by all threads; safe from any thread.
#ifndef QOR_WATCHDOG_QORCMD_H
#define QOR_WATCHDOG_QORCMD_H

#include <cstdint>
#include <string>
#include <vector>

#include "core/qorlock.h"

class Agent;
class Controller;
class Policy;
class QorProcess;
class QorScript;

// What executeCmd returns for a command that did not finish in time. Every
// caller tests for this very value.
constexpr int QOR_CMD_TIMED_OUT = 999999;

// Markers of the suite's own start and stop tool, whose runs are serialised.
extern const std::wstring ZEL_CMD_STR;
extern const std::wstring AGENT_INST_CMD_STR;
extern const std::wstring AGENT_INST_CMD_START;
extern const std::wstring AGENT_INST_CMD_STOP;

// What openApplication hands back: non-null means that the process was found.
typedef void* QorAppHandle;

class QorCmd {
 public:
  // Reads the time-out from QOR_CMD_TIMEOUT, once.
  QorCmd();
  QorCmd(const QorCmd&) = delete;
  QorCmd& operator=(const QorCmd&) = delete;

  // The process table, as new records that the caller owns.
  virtual void getRunningProcesses(std::vector<QorProcess*>& processes) = 0;
  // The records of `all` that belong to `policy`, appended to `matched`; the
  // records stay owned by the caller.
  virtual void getPolicyProcesses(Policy* policy, std::vector<QorProcess*> all,
                                  std::vector<QorProcess*>& matched) = 0;
  // Runs `command` through the shell, with the poll loop and the time-out.
  virtual int executeCmd(const std::wstring& command, std::string& output, QorScript* script,
                         Agent* agent) = 0;
  virtual int systemStart(const std::wstring& name, Agent* agent) = 0;
  virtual int systemStop(const std::wstring& name) = 0;
  // 4 up, 2 down, 0 when the service has no status script.
  virtual int getSystemOperatingState(const std::wstring& name) = 0;
  // Always 0.
  virtual int appStop(const std::wstring& name, int pid, Policy* policy) = 0;
  // 4 when the process is found, else 2; `pid` comes back with the process found.
  virtual int getAppOperatingState(std::wstring processName, std::wstring instanceName, std::wstring path,
                                   int& pid, Policy* policy) = 0;
  virtual void collectProcessData(Agent* agent, std::wstring processName, std::wstring instance) = 0;
  // `lastChecked` may be null.
  virtual void collectRuntimeData(Agent* agent, long* lastChecked) = 0;
  virtual void cleanUpDefunctProcesses() = 0;
  virtual bool serializeCommand(const std::wstring& command) = 0;

  // The one entry for running a script: expands the per-run variables, gives
  // up the list lock for the length of the command if the calling thread holds
  // it, serialises the suite's tool, and maps the return code through the
  // script's maps. `agent` may be null. `output` keeps what it held when the
  // command printed nothing.
  int executeCmd(QorScript* script, std::wstring& output, std::wstring& msgID, Agent* agent);
  // The same, for the callers that have no use for the message id.
  int executeCmd(QorScript* script, std::wstring& output, Agent* agent) {
    std::wstring msgID;
    return executeCmd(script, output, msgID, agent);
  }

  // Refreshes the agent's process data; true when its process runs.
  bool isAppRunning(Agent* agent);
  // Finds the agent's process and fills its process fields.
  void collectProcessData(Agent* agent);
  // Compares a live command line with the policy's text or pattern; a
  // pattern's first group may fill an empty `instance`.
  bool compareCommandLine(const std::wstring& commandLine, Policy* policy, std::wstring& instance);

  int getTimeout() const { return timeout; }

 protected:
  // The manager lives until the process ends and is never deleted through
  // this class.
  ~QorCmd();

  int32_t timeout;
  Controller* controller;  // not owned
  QorMutex cmdMutex;
};

// The process-wide command manager, made at the first call.
QorCmd* GetCmdManager();

#endif  // QOR_WATCHDOG_QORCMD_H
