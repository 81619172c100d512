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
  std::wstring getName() const { return identity.name; }
  void setName(const std::wstring& text) { identity.name = text; }
  OperatingStates getOperatingState() const { return standing.operatingState; }
  // States without a process (0, 1, 2, 5) clear the process and its figures.
  void setOperatingState(OperatingStates state);
  void setOperatingState(int state) { setOperatingState(static_cast<OperatingStates>(state)); }
  ManagedStates getManagedState() const { return standing.managedState; }
  // Managed, by this service or by the watchdog process.
  bool isManaged() const {
    return standing.managedState == Managed || standing.managedState == WatchdogManaged;
  }
  void setManagedState(ManagedStates state) { standing.managedState = state; }
  void setManagedState(int state) { standing.managedState = static_cast<ManagedStates>(state); }

  int getDailyRestartCount() const { return restarts.count; }
  void setDailyRestartCount(int count) { restarts.count = count; }
  void resetDailyRestartCount();
  bool reportCountExceeded() const { return restarts.reportCountExceeded; }
  void resetReportCountExceeded();
  bool reportRestartFailure() const { return restarts.reportRestartFailure; }
  void resetReportRestartFailure() { restarts.reportRestartFailure = false; }
  bool isCountExceeded() const { return restarts.countExceeded; }
  std::wstring getVersion() const { return identity.version; }

  std::wstring getID() const { return identity.id; }
  // Every change of the id goes through here, so that shortID follows it.
  void setID(const std::wstring& text);
  std::string getshortID() const { return identity.shortID; }
  int getProcID() const { return pids.procID; }
  void setProcID(int pid) { pids.procID = pid; }
  long getParentProcID() const { return pids.parentProcID; }
  void setParentProcID(long pid) { pids.parentProcID = pid; }
  std::wstring getProcName() const { return identity.procName; }
  void setProcName(const std::wstring& text) { identity.procName = text; }
  std::wstring getPath() const { return identity.path; }
  // Expands variables in the text first.
  void setPath(const std::wstring& text);
  std::wstring getInstanceProcName() const { return instance.instanceProcName; }
  void setInstanceProcName(const std::wstring& text) { instance.instanceProcName = text; }
  std::wstring getServiceInstanceName() const { return instance.serviceInstanceName; }
  void setServiceInstanceName(const std::wstring& text) { instance.serviceInstanceName = text; }
  std::wstring getInstanceName() const { return instance.instanceName; }
  void setInstanceName(const std::wstring& text) { instance.instanceName = text; }
  AgentType getType() const { return identity.type; }
  void setType(AgentType agentType) { identity.type = agentType; }
  void setType(int agentType) { identity.type = static_cast<AgentType>(agentType); }
  Policy* getPolicy() const { return policy; }
  void setPolicy(Policy* owned) { policy = owned; }
  std::wstring getCmdLine() const { return instance.cmdLine; }
  void setCmdLine(const std::wstring& text) { instance.cmdLine = text; }
  std::wstring getAgentVersion() const { return instance.agentVersion; }
  void setAgentVersion(const std::wstring& text) { instance.agentVersion = text; }
  std::wstring getAgentBuildNumber() const { return instance.agentBuildNumber; }
  void setAgentBuildNumber(const std::wstring& text) { instance.agentBuildNumber = text; }
  std::wstring getUserName() const { return instance.userName; }
  void setUserName(const std::wstring& text) { instance.userName = text; }
  Watchdog* getWatchdog() const { return watchdog; }
  void setWatchdog(Watchdog* owned) { watchdog = owned; }
  unsigned long getCheckMask() const { return checks.mask; }
  void setCheckMask(unsigned long mask) { checks.mask = mask; }

  // Process figures. CPU times are in clock ticks; the percentages divide by
  // timeInterval and are 0 while it is 0.
  void setKernelCPU(unsigned long long value);
  void setUserCPU(unsigned long long value);
  void setTimeInterval(unsigned long long value) { figures.timeInterval = value; }
  void setTimeIntervalInSec(unsigned int value) { figures.timeIntervalInSec = value; }
  unsigned int getHandleCount() const { return figures.handleCount; }
  unsigned int getThreadCount() const { return figures.threadCount; }
  void setThreadCount(unsigned int count) { figures.threadCount = count; }
  unsigned long getMemSizeBytes() const { return figures.memSizeBytes; }
  void setMemSizeBytes(unsigned long bytes) { figures.memSizeBytes = bytes; }
  unsigned long getMemSizePages() const { return figures.memSizePages; }
  void setMemSizePages(unsigned long pages) { figures.memSizePages = pages; }
  void setPageFaults(unsigned int count);
  unsigned long getResidentSetSize() const { return figures.residentSetSize; }
  void setResidentSetSize(unsigned long size) { figures.residentSetSize = size; }
  unsigned long getVMSize() const { return figures.vmSize; }
  void addKernelCPU(unsigned long long value) { totals.kernelCPU += value; }
  void addUserCPU(unsigned long long value) { totals.userCPU += value; }
  void addMemSizeBytes(unsigned long bytes) { totals.memSizeSum += bytes; }

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
  void resetChecked() { checks.checked = false; }
  bool availCheckRetryEnabled() const { return checks.availCheckRetry; }
  void setAvailCheckRetry() { checks.availCheckRetry = true; }
  void resetAvailCheckRetry() { checks.availCheckRetry = false; }
  ManagedStates getSavedState() const { return standing.savedState; }
  void setSavedState(ManagedStates state) { standing.savedState = state; }
  void setSavedState(int state) { standing.savedState = static_cast<ManagedStates>(state); }

  // Runs the policy's version and build scripts into agentVersion and
  // agentBuildNumber. A list lock held by the caller is given up while each runs.
  void setAgentInformation();
  // For agents of the suite, the user configured in the run-as files.
  void setZELUserName();
  // Takes the identity of its policy: id, the policy itself (not owned while
  // listed), name, process name, path and type.
  void setIdentityFrom(Policy* source);
  // The process is this agent's: by instance name for suite agents, by
  // instance process name for every other type.
  bool match(QorProcess* process) const;
  // Names the instance this record of `process` stands for: an unnamed
  // instance of a service by the policy's service name; a named one, or any
  // suite instance, by its instance name, which a policy outside the suite
  // learns as one of its own.
  void nameInstanceAs(QorProcess* process, Policy* policy);
  // A suite agent with no instance yet: it holds the place until discovery.
  bool isZELInstanceHolder() const;
  bool isWatchDogAgent() const;
  // Takes what a look at the process found on a copy of this record: the
  // operating state, process ids and figures, check time and restart count.
  // Lets a caller look at the process with no list lock held.
  void takeObservationsFrom(const Agent& copy) {
    standing.operatingState = copy.standing.operatingState;
    restarts.count = copy.restarts.count;
    pids = copy.pids;
    figures = copy.figures;
    previous = copy.previous;
    totals = copy.totals;
    checks.lastChecked = copy.checks.lastChecked;
    checks.checked = copy.checks.checked;
  }

 private:
  // Where the agent stands with the service; the copy keeps it, and
  // setOperatingState changes the operating state alone.
  struct Standing {
    OperatingStates operatingState = OpUnknown;
    ManagedStates managedState = Unmanaged;
    ManagedStates savedState = Unmanaged;
  };

  // The day's restarts and whether their messages are still due. A new day or
  // an operator's reset puts the whole group back to these values.
  struct DailyRestarts {
    int count = 0;
    bool reportCountExceeded = true;
    bool reportRestartFailure = true;
    bool countExceeded = false;
  };

  // What the CAP file and the service call the agent. Kept in every state.
  struct Identity {
    std::wstring name;
    std::wstring version;  // the record layout; versionString in a new agent
    std::wstring id;
    std::string shortID;  // id in UTF-8, kept in step by setID
    std::wstring procName;
    std::wstring path;
    AgentType type = ZEL_UNIX;
  };

  // What discovery and the agent's own scripts tell about its instance. Kept
  // when the process goes.
  struct InstanceTexts {
    std::wstring instanceProcName;
    std::wstring serviceInstanceName;
    std::wstring instanceName;
    std::wstring cmdLine;
    std::wstring agentVersion;
    std::wstring agentBuildNumber;
    std::wstring userName;
  };

  // The process found for the agent. Cleared with the figures.
  struct ProcessIds {
    int procID = 0;
    long parentProcID = 0;
  };

  // The latest sample of the process. Cleared in every state without one.
  struct ProcessFigures {
    unsigned long long kernelCPU = 0;
    unsigned long long userCPU = 0;
    unsigned long long timeInterval = 0;
    unsigned int timeIntervalInSec = 0;
    unsigned int handleCount = 0;  // Kept: stays 0, no setter exists
    unsigned int threadCount = 0;
    unsigned long memSizeBytes = 0;
    unsigned long memSizePages = 0;
    unsigned int pageFaults = 0;
    unsigned long residentSetSize = 0;
    unsigned long vmSize = 0;  // Kept: stays 0, no setter exists
  };

  // The counters of the sample before, which turn the latest into rates.
  // Cleared with the figures.
  struct PreviousSample {
    unsigned long long kernelCPU = 0;
    unsigned long long userCPU = 0;
    unsigned int pageFaults = 0;
  };

  // The process with its children, summed over a cycle, with the sums of the
  // cycle before. Kept through every change of state.
  struct Totals {
    unsigned long long prevKernelCPU = 0;
    unsigned long long prevUserCPU = 0;
    unsigned long long kernelCPU = 0;
    unsigned long long userCPU = 0;
    unsigned long memSizeSum = 0;
    unsigned long long cpuPercent = 0;
    unsigned long memSizeBytes = 0;
  };

  // When the agent is checked: the cycles of its mask, the last check, and
  // whether a failed status is being tried again.
  struct CheckState {
    unsigned long mask = 0;
    time_t lastChecked = 0;
    bool checked = false;
    bool availCheckRetry = false;
  };

  // Agents are made on one thread at a time; atomic all the same, so that a
  // test or a later caller on another thread cannot hand out one guid twice.
  static std::atomic<int> guid_counter;

  int guid;
  Standing standing;
  DailyRestarts restarts;
  Identity identity;
  InstanceTexts instance;
  ProcessIds pids;
  ProcessFigures figures;
  PreviousSample previous;
  Totals totals;
  CheckState checks;
  // Neither is copied as a value: a copy gets a Policy of its own, and a
  // Watchdog of its own only when it is deep.
  Policy* policy = nullptr;
  Watchdog* watchdog = nullptr;
};

#endif  // QOR_AGENTS_QORAGT_H
