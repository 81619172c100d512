// What all UNIX platforms share in the command manager: the fork and pipe of
// a command with its one-second poll loop, the children left running, the stop
// of a process by signal, and the matching of processes to agents. Used through
// GetCmdManager from any thread; the list of children left running is guarded.
#ifndef QOR_WATCHDOG_QORCMDUNX_H
#define QOR_WATCHDOG_QORCMDUNX_H

#include <cstdio>
#include <string>
#include <vector>

#include "cap/qorpol.h"
#include "core/qorlock.h"
#include "watchdog/qorcmd.h"

// The shell that runs every command: "/bin/sh". A pointer rather than an
// array so that a test can point it at a shell that is not there.
extern const char* SH_PATH;

// Starts `command` under SH_PATH with its standard output on a pipe; null when
// the pipe or the fork failed. `pid` receives the shell's process id.
FILE* qor_popen(const char* command, int& pid);
// Closes the stream and waits for the shell; the raw wait status, or -1.
int qor_pclose(FILE* stream, int pid);

class QorCmdUNIX : public QorCmd {
 public:
  QorCmdUNIX();

  using QorCmd::collectProcessData;
  using QorCmd::executeCmd;

  void getPolicyProcesses(Policy* policy, std::vector<QorProcess*> all,
                          std::vector<QorProcess*>& matched) override;
  int executeCmd(const std::wstring& command, std::string& output, QorScript* script, Agent* agent) override;
  int systemStart(const std::wstring& name, Agent* agent) override;
  int systemStop(const std::wstring& name) override;
  int getSystemOperatingState(const std::wstring& name) override;
  int appStop(const std::wstring& name, int pid, Policy* policy) override;
  int getAppOperatingState(std::wstring processName, std::wstring instanceName, std::wstring path, int& pid,
                           Policy* policy) override;
  void collectProcessData(Agent* agent, std::wstring processName, std::wstring instance) override;
  void collectRuntimeData(Agent* agent, long* lastChecked) override;
  void cleanUpDefunctProcesses() override;
  bool serializeCommand(const std::wstring& command) override;

  // Adds the figures of one process to the agent's counters; returns the
  // process's start time in clock ticks since boot.
  virtual long collectRuntimeData(int pid, Agent* agent, bool mainProcess) = 0;
  // Finds the process of `processName` (and `instance`) under `path`; with a
  // `pid` of 0 it scans for the first unmanaged one. The name and instance may
  // be rewritten by the match. Pair a non-null handle with closeApplication.
  virtual QorAppHandle openApplication(std::wstring& processName, std::wstring path, std::wstring& instance,
                                       int& pid, std::wstring& commandLine, Policy* policy) = 0;
  virtual void closeApplication(QorAppHandle handle) = 0;
  // Clock ticks since boot, read once for the life of the process.
  virtual unsigned long getUpTime() = 0;
  // All descendants of `pid`, depth first.
  virtual std::vector<int> getChildProcesses(int pid) = 0;
  virtual std::wstring getUserID(int pid, QorAppHandle handle) = 0;
  virtual QorScript getSystemStartScript(const std::wstring& name) = 0;
  virtual QorScript getSystemStopScript(const std::wstring& name) = 0;
  virtual QorScript getSystemIsUpScript(const std::wstring& name) = 0;
  virtual bool processMatch(Policy* policy, std::wstring directory, std::wstring processName,
                            QorProcess* process) = 0;

  // The name of a user id, cached; "NOT_AVAILABLE" when it has none.
  std::wstring idToUserName(int id);
  // Whether the process `pid` with `commandLine` is the application `appName`
  // (and `instance`) under `path`. On a match `appName` may become the
  // executable's full name and an empty `instance` may be filled. With
  // `checkManaged` a process that an agent already has does not match; the
  // list is then read under its lock, taken here unless the caller holds it.
  bool applicationMatch(int pid, const std::wstring& commandLine, std::wstring& appName,
                        std::wstring& instance, const std::wstring& path, bool checkManaged, Policy* policy);
  // Whether a process record of the table belongs to the policy, by directory
  // and name, or by the policy's command line.
  bool compareProcess(Policy* policy, const std::wstring& directory, const std::wstring& processName,
                      QorProcess* process);

  // A copy of the process ids of children left running, for inspection.
  std::vector<int> getDefunctProcesses();

 protected:
  ~QorCmdUNIX();

  // Clock ticks since boot, taken at the first need and kept: 0 until then.
  static QorMutex upTimeMutex;
  static unsigned long upTime QOR_GUARDED_BY(upTimeMutex);

 private:
  struct PollOutcome;
  // Reads the command's output as it comes, waiting at most a second at a
  // time, until one of its ends.
  void pollCommand(FILE* stream, int pid, QorScript* script, Agent* agent, std::string& output,
                   PollOutcome& end);
  // The exit status of a command that ended by itself.
  int finishCommand(FILE* stream, int pid, const PollOutcome& end);
  // The result of a command that did not end by itself: 0 when its start or
  // stop is seen to have worked, else -1.
  int abandonCommand(FILE* stream, int pid, QorScript* script, Agent* agent, const PollOutcome& end);
  // Hands a child that is left running, and the read end of its pipe, to
  // cleanUpDefunctProcesses.
  void addDefunctProcess(int pid, FILE* stream);
  // Keeps the read end of a pipe whose writer may live on, so that it is not
  // hit by SIGPIPE; drained and closed once every writer has gone.
  void keepStream(FILE* stream);

  // Children left running, to be reaped later: appended to by any thread
  // that runs a command, walked by the discovery thread and the watchdog's
  // main loop. Guarded by defunctMutex, as is keptStreams.
  QorMutex defunctMutex;
  std::vector<int> defunctProcesses QOR_GUARDED_BY(defunctMutex);
  std::vector<FILE*> keptStreams QOR_GUARDED_BY(defunctMutex);
};

#endif  // QOR_WATCHDOG_QORCMDUNX_H
