// The service's records of supervised agents (Agent) and of processes seen on
// the system (QorProcess), with the two state enumerations. Records have no
// lock: a live Agent is touched only with its list locked, except that its
// accessors may be read for trace; a copy belongs to whoever made it.
#ifndef QOR_AGENTS_QORAGT_H
#define QOR_AGENTS_QORAGT_H

#include <atomic>
#include <ctime>
#include <string>

#include "cap/qorpol.h"

class Watchdog;

// Whether the service looks after an agent.
enum ManagedStates {
  Unmanaged = 0,
  Managed = 1,
  WatchdogManaged = 2,  // the OS agent, supervised by the watchdog process
};

// What is known of an agent's process.
enum OperatingStates {
  OpUnknown = 0,
  OpNotFound = 1,
  OpStopped = 2,  // down, not by an operator's wish; due for a start
  OpStarting = 3,
  OpRunning = 4,
  OpManuallyStopped = 5,  // stopped by an operator; stays down
  OpStopping = 6,
  OpNotConfigured = 7,
};

// A process found on the system, compared against agents.
class QorProcess {
 public:
  int getProcID() const { return procID; }
  void setProcID(int id) { procID = id; }
  std::wstring getPath() const { return path; }
  void setPath(const std::wstring& text) { path = text; }
  std::wstring getInstanceProcName() const { return instanceProcName; }
  void setInstanceProcName(const std::wstring& name) { instanceProcName = name; }
  std::wstring getServiceInstanceName() const { return serviceInstanceName; }
  void setServiceInstanceName(const std::wstring& name) { serviceInstanceName = name; }
  std::wstring getInstanceName() const { return instanceName; }
  void setInstanceName(const std::wstring& name) { instanceName = name; }
  std::wstring getCmdName() const { return cmdName; }
  std::wstring getCmdLine() const { return cmdLine; }
  void setCmdLine(const std::wstring& line) { cmdLine = line; }

 private:
  int procID = 0;
  std::wstring path;
  std::wstring unusedText1;  // Kept: nothing reads or writes it; the record keeps its shape
  std::wstring instanceProcName;
  // Kept: nothing reads or writes unusedText2; the record keeps its shape.
  std::wstring unusedText2;
  std::wstring serviceInstanceName;
  std::wstring instanceName;
  std::wstring cmdName;  // Kept: stays empty, nothing sets it
  std::wstring cmdLine;
};

// The layout version written with every record of the state file.
extern const std::wstring versionString;

class Agent {
 public:
  // Takes the next guid of the process-wide counter; agents are created on
  // one thread at a time (the command handler, with the list locked).
  Agent();
  // Copies every field, guid included. The copy always owns a new Policy
  // copied from the source's, which must not be null; with `shallow` false it
  // also gets its own Watchdog, so that it can start and stop by itself.
  Agent(const Agent& source, bool shallow);
  // Deletes the Watchdog and the Policy it points to: whoever destroys a
  // listed agent whose Policy lives on nulls the pointer first.
  virtual ~Agent();
  // A plain copy would share the Policy and the Watchdog it deletes.
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  int getGUID() const { return guid; }
  std::wstring getName() const { return name; }
  void setName(const std::wstring& text) { name = text; }
  OperatingStates getOperatingState() const { return operatingState; }
  // States without a process (0, 1, 2, 5) clear the process and its figures.
  void setOperatingState(OperatingStates state);
  void setOperatingState(int state) { setOperatingState(static_cast<OperatingStates>(state)); }
  ManagedStates getManagedState() const { return managedState; }
  void setManagedState(ManagedStates state) { managedState = state; }
  void setManagedState(int state) { managedState = static_cast<ManagedStates>(state); }

  int getDailyRestartCount() const { return dailyRestartCount; }
  void setDailyRestartCount(int count) { dailyRestartCount = count; }
  void resetDailyRestartCount();
  bool reportCountExceeded() const { return reportCountExceededFlag; }
  void resetReportCountExceeded();
  bool reportRestartFailure() const { return reportRestartFailureFlag; }
  void resetReportRestartFailure() { reportRestartFailureFlag = false; }
  bool isCountExceeded() const { return countExceeded; }
  std::wstring getVersion() const { return version; }

  std::wstring getID() const { return id; }
  // Every change of the id goes through here, so that shortID follows it.
  void setID(const std::wstring& text);
  std::string getshortID() const { return shortID; }
  int getProcID() const { return procID; }
  void setProcID(int pid) { procID = pid; }
  long getParentProcID() const { return parentProcID; }
  void setParentProcID(long pid) { parentProcID = pid; }
  std::wstring getProcName() const { return procName; }
  void setProcName(const std::wstring& text) { procName = text; }
  std::wstring getPath() const { return path; }
  // Expands variables in the text first.
  void setPath(const std::wstring& text);
  std::wstring getInstanceProcName() const { return instanceProcName; }
  void setInstanceProcName(const std::wstring& text) { instanceProcName = text; }
  std::wstring getServiceInstanceName() const { return serviceInstanceName; }
  void setServiceInstanceName(const std::wstring& text) { serviceInstanceName = text; }
  std::wstring getInstanceName() const { return instanceName; }
  void setInstanceName(const std::wstring& text) { instanceName = text; }
  AgentType getType() const { return type; }
  void setType(AgentType agentType) { type = agentType; }
  void setType(int agentType) { type = static_cast<AgentType>(agentType); }
  Policy* getPolicy() const { return policy; }
  void setPolicy(Policy* owned) { policy = owned; }
  std::wstring getCmdLine() const { return cmdLine; }
  void setCmdLine(const std::wstring& text) { cmdLine = text; }
  std::wstring getAgentVersion() const { return agentVersion; }
  void setAgentVersion(const std::wstring& text) { agentVersion = text; }
  std::wstring getAgentBuildNumber() const { return agentBuildNumber; }
  void setAgentBuildNumber(const std::wstring& text) { agentBuildNumber = text; }
  std::wstring getUserName() const { return userName; }
  void setUserName(const std::wstring& text) { userName = text; }
  Watchdog* getWatchdog() const { return watchdog; }
  void setWatchdog(Watchdog* owned) { watchdog = owned; }
  unsigned long getCheckMask() const { return checkMask; }
  void setCheckMask(unsigned long mask) { checkMask = mask; }

  // Process figures. CPU times are in clock ticks; the percentages divide by
  // timeInterval and are 0 while it is 0.
  void setKernelCPU(unsigned long long value);
  void setUserCPU(unsigned long long value);
  void setTimeInterval(unsigned long long value) { timeInterval = value; }
  void setTimeIntervalInSec(unsigned int value) { timeIntervalInSec = value; }
  unsigned int getHandleCount() const { return handleCount; }
  unsigned int getThreadCount() const { return threadCount; }
  void setThreadCount(unsigned int count) { threadCount = count; }
  unsigned long getMemSizeBytes() const { return memSizeBytes; }
  void setMemSizeBytes(unsigned long bytes) { memSizeBytes = bytes; }
  unsigned long getMemSizePages() const { return memSizePages; }
  void setMemSizePages(unsigned long pages) { memSizePages = pages; }
  void setPageFaults(unsigned int count);
  unsigned long getResidentSetSize() const { return residentSetSize; }
  void setResidentSetSize(unsigned long size) { residentSetSize = size; }
  unsigned long getVMSize() const { return vmSize; }
  void addKernelCPU(unsigned long long value) { totalKernelCPU += value; }
  void addUserCPU(unsigned long long value) { totalUserCPU += value; }
  void addMemSizeBytes(unsigned long bytes) { memSizeSum += bytes; }

  unsigned long long getKernelCPUPercent() const;
  unsigned long long getUserCPUPercent() const;
  unsigned long long getCPUPercent() const;
  unsigned long long getPageFaultsPerSec() const;
  // The figures of the process with its children, falling back on the
  // process's own when the sum is exactly 0.
  unsigned long long getTotalCPUPercent() const;
  unsigned long getTotalMemSizeBytes() const;
  void resetTotalCounters();
  void calculateTotalCounters();

  // false when no check is recorded; otherwise the time of the last check.
  bool getLastChecked(time_t& when) const;
  void setCheckTime(time_t when);
  void resetChecked() { checked = false; }
  bool availCheckRetryEnabled() const { return availCheckRetry; }
  void setAvailCheckRetry() { availCheckRetry = true; }
  void resetAvailCheckRetry() { availCheckRetry = false; }
  ManagedStates getSavedState() const { return savedState; }
  void setSavedState(ManagedStates state) { savedState = state; }
  void setSavedState(int state) { savedState = static_cast<ManagedStates>(state); }

  // Runs the policy's version and build scripts into agentVersion and
  // agentBuildNumber. A list lock held by the caller is given up while each runs.
  void setAgentInformation();
  // For agents of the suite, the user configured in the run-as files.
  void setZELUserName();
  // The process is this agent's: by instance name for suite agents, by
  // instance process name for every other type.
  bool match(QorProcess* process) const;
  // A suite agent with no instance yet: it holds the place until discovery.
  bool isZELInstanceHolder() const;
  bool isWatchDogAgent() const;

 private:
  // Agents are made on one thread at a time; atomic all the same, so that a
  // test or a later caller on another thread cannot hand out one guid twice.
  static std::atomic<int> guid_counter;

  int guid;
  std::wstring name;
  OperatingStates operatingState = OpUnknown;
  ManagedStates managedState = Unmanaged;
  int dailyRestartCount = 0;
  bool reportCountExceededFlag = true;
  bool reportRestartFailureFlag = true;
  bool countExceeded = false;
  std::wstring version;
  std::wstring id;
  std::string shortID;
  int procID = 0;
  long parentProcID = 0;
  std::wstring procName;
  std::wstring path;
  std::wstring instanceProcName;
  std::wstring serviceInstanceName;
  std::wstring instanceName;
  AgentType type = ZEL_UNIX;
  Policy* policy = nullptr;
  std::wstring cmdLine;
  std::wstring agentVersion;
  std::wstring agentBuildNumber;
  std::wstring userName;
  Watchdog* watchdog = nullptr;
  unsigned long checkMask = 0;
  unsigned long long prevKernelCPU = 0;
  unsigned long long prevUserCPU = 0;
  unsigned long long kernelCPU = 0;
  unsigned long long userCPU = 0;
  unsigned long long timeInterval = 0;
  unsigned int timeIntervalInSec = 0;
  unsigned int handleCount = 0;  // Kept: stays 0, no setter exists
  unsigned int threadCount = 0;
  unsigned long memSizeBytes = 0;
  unsigned long memSizePages = 0;
  unsigned int prevPageFaults = 0;
  unsigned int pageFaults = 0;
  unsigned long residentSetSize = 0;
  unsigned long vmSize = 0;  // Kept: stays 0, no setter exists
  unsigned long long prevTotalKernelCPU = 0;
  unsigned long long prevTotalUserCPU = 0;
  unsigned long long totalKernelCPU = 0;
  unsigned long long totalUserCPU = 0;
  unsigned long memSizeSum = 0;
  unsigned long long totalCPUPercent = 0;
  unsigned long totalMemSizeBytes = 0;
  time_t lastChecked = 0;
  bool checked = false;
  bool availCheckRetry = false;
  ManagedStates savedState = Unmanaged;
};

#endif  // QOR_AGENTS_QORAGT_H
