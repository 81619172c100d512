#include "watchdog/qorcmdlnx.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "watchdog/qorlnx.h"

QOR_TRACE_UNIT();

namespace {

QorCmd* cmdManager = nullptr;
std::once_flag cmdManagerOnce;

// Splits an executable's path at its last "/"; without one, both parts are
// the whole text.
void splitExecutable(const std::wstring& exePath, std::wstring& directory, std::wstring& name) {
  size_t slash = exePath.rfind(L'/');
  if (slash == std::wstring::npos) {
    directory = exePath;
    name = exePath;
    return;
  }
  directory = exePath.substr(0, slash);
  name = exePath.substr(slash + 1);
}

}  // namespace

QorMutex QorCmdUNIX::upTimeMutex(QorMutex::kNeverDestroyed);
unsigned long QorCmdUNIX::upTime = 0;

QorCmd* GetCmdManager() {
  // Made under call_once: a test or a late caller may ask first from any thread.
  std::call_once(cmdManagerOnce, [] { cmdManager = new QorCmdLinux; });
  return cmdManager;
}

QorCmdLinux::QorCmdLinux() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("QorCmdLinux created.\n");
}

QorCmdLinux::~QorCmdLinux() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("QorCmdLinux destroyed.\n");
}

int QorCmdLinux::getThreadChildProcessCount(int pid, const std::wstring& commandLine) {
  QOR_TRACE_FUNCTION();
  std::vector<int> ids;
  if (!ReadProcessIDs(ids)) {
    QOR_TRACE_ERROR("Error opening directory /proc, errno = %d\n", errno);
    return QOR_TRACE_RETURN(0);
  }
  int count = 0;
  for (int id : ids) {
    if (id != pid && GetCommandLine(id) == commandLine) ++count;
  }
  return QOR_TRACE_RETURN(count);
}

std::vector<int> QorCmdLinux::getChildProcesses(int pid) {
  QOR_TRACE_FUNCTION();
  std::vector<int> children;
  // The watchdog process stays small: it collects no children.
  if (Controller::isWatchDogMode()) return children;
  std::vector<int> ids;
  if (!ReadProcessIDs(ids)) {
    QOR_TRACE_ERROR("Error opening directory /proc, errno = %d\n", errno);
    return children;
  }
  for (int id : ids) {
    qor_proc_stat record;
    GetStatData(id, record, true);
    if (record.ppid != pid) continue;
    QOR_TRACE_DETAIL("Found child process - pid = %d.\n", id);
    children.push_back(id);
    std::vector<int> descendants = getChildProcesses(id);
    children.insert(children.end(), descendants.begin(), descendants.end());
  }
  return children;
}

void QorCmdLinux::getRunningProcesses(std::vector<QorProcess*>& processes) {
  QOR_TRACE_FUNCTION();
  std::vector<int> ids;
  if (!ReadProcessIDs(ids)) {
    QOR_TRACE_ERROR("Error opening directory /proc, errno = %d\n", errno);
    return;
  }
  for (int id : ids) {
    std::wstring directory;
    std::wstring name;
    splitExecutable(GetExecutablePath(id, L""), directory, name);
    QorProcess* process = new QorProcess();
    process->setPath(directory);
    process->setInstanceProcName(name);
    process->setProcID(id);
    processes.push_back(process);
  }
}

std::wstring QorCmdLinux::getUserID(int pid, QorAppHandle /*handle*/) {
  qor_status_stat record;
  GetStatusData(pid, record);
  return idToUserName(record.uid);
}

unsigned long QorCmdLinux::getUpTime() {
  QOR_TRACE_FUNCTION();
  // Kept: taken once and kept for the life of the process: it does not advance.
  QorMutexLock lock(&upTimeMutex);
  if (upTime != 0) return upTime;
  double seconds = 0.0;
  FILE* file = fopen("/proc/uptime", "r");
  if (file == nullptr) {
    QOR_TRACE_ERROR("Error: file open failed %s, errno = %d", "/proc/uptime", errno);
  } else {
    if (fscanf(file, "%lf", &seconds) != 1) seconds = 0.0;
    fclose(file);
  }
  upTime = static_cast<unsigned long>(seconds) * qor_hz;
  QOR_TRACE_DETAIL("up time < %.3f > conv to %lu.\n", seconds, upTime);
  return upTime;
}

long QorCmdLinux::collectRuntimeData(int pid, Agent* agent, bool mainProcess) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("collectRuntimeData -- input pid=%d %s\n", pid, mainProcess ? "" : "(child)");
  qor_proc_stat record;
  GetStatData(pid, record, false);
  const unsigned long long start = record.starttime;
  agent->addKernelCPU(record.stime);
  agent->addUserCPU(record.utime);
  if (mainProcess) {
    agent->setParentProcID(static_cast<long>(record.ppid));
    agent->setKernelCPU(record.stime);
    agent->setUserCPU(record.utime);
    agent->setPageFaults(static_cast<unsigned int>(record.minflt + record.majflt));
    agent->setResidentSetSize(static_cast<unsigned long>(record.rss));
    if (!Controller::isWatchDogMode()) {
      qor_status_stat status;
      GetStatusData(agent->getProcID(), status);
      if (status.threadsFound) {
        agent->setThreadCount(static_cast<unsigned int>(status.threads));
      } else {
        agent->setThreadCount(getThreadChildProcessCount(agent->getProcID(), agent->getCmdLine()));
      }
    }
  }
  // Kept: the size read is the main process's, added once more for each descendant, whose own never is.
  // The memory threshold is compared with this very sum.
  qor_memory_stat memory;
  GetStatMData(agent->getProcID(), memory);
  unsigned long bytes = static_cast<unsigned long>(memory.size) * static_cast<unsigned long>(getpagesize());
  agent->addMemSizeBytes(bytes);
  if (mainProcess) {
    agent->setMemSizePages(static_cast<unsigned long>(memory.size));
    agent->setMemSizeBytes(bytes);
  }
  return QOR_TRACE_RETURN(static_cast<long>(start));
}

namespace {

QorScript serviceScript(const std::wstring& command, const std::wstring& secondCode) {
  QorScript script;
  script.setOriginalCommand(command);
  script.addSuccessRC(0, L"Success");
  if (!secondCode.empty()) script.addSuccessRC(1, secondCode);
  return script;
}

}  // namespace

QorScript QorCmdLinux::getSystemStartScript(const std::wstring& name) {
  return serviceScript(L"/sbin/service " + name + L" start > /dev/null 2>&1", L"Already Started");
}

QorScript QorCmdLinux::getSystemStopScript(const std::wstring& name) {
  return serviceScript(L"/sbin/service " + name + L" stop", L"Already Stopped");
}

QorScript QorCmdLinux::getSystemIsUpScript(const std::wstring& name) {
  // Up when the status prints any line without the word "stop": the exit
  // code is grep's.
  return serviceScript(L"/sbin/service " + name + L" status | grep -v stop", L"");
}
