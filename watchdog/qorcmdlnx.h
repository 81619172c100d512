// The Linux leaf of the command manager: the walks of /proc (the process
// table, a process's descendants, its owner, its figures), the match of a
// process to an agent, and the scripts of system services. Made once by
// GetCmdManager and shared by all threads; it keeps no state of its own.
#ifndef QOR_WATCHDOG_QORCMDLNX_H
#define QOR_WATCHDOG_QORCMDLNX_H

#include <string>
#include <vector>

#include "watchdog/qorcmdunx.h"

class QorCmdLinux : public QorCmdUNIX {
 public:
  QorCmdLinux();
  ~QorCmdLinux();

  using QorCmdUNIX::collectRuntimeData;

  // One record per process, with directory and executable name only: the
  // command line is read later, when a match needs it.
  void getRunningProcesses(std::vector<QorProcess*>& processes) override;
  long collectRuntimeData(int pid, Agent* agent, bool mainProcess) override;
  QorAppHandle openApplication(std::wstring& processName, std::wstring path, std::wstring& instance, int& pid,
                               std::wstring& commandLine, Policy* policy) override;
  void closeApplication(QorAppHandle handle) override;
  unsigned long getUpTime() override;
  // Empty in watchdog mode, which collects no children.
  std::vector<int> getChildProcesses(int pid) override;
  std::wstring getUserID(int pid, QorAppHandle handle) override;
  QorScript getSystemStartScript(const std::wstring& name) override;
  QorScript getSystemStopScript(const std::wstring& name) override;
  QorScript getSystemIsUpScript(const std::wstring& name) override;
  bool processMatch(Policy* policy, std::wstring directory, std::wstring processName,
                    QorProcess* process) override;

  // How many other processes have `commandLine`: the thread count on kernels
  // whose status file does not tell it.
  int getThreadChildProcessCount(int pid, const std::wstring& commandLine);
};

#endif  // QOR_WATCHDOG_QORCMDLNX_H
