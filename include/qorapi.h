// The embedding interface of qor: the one header a host program includes.
// A host initialises the service, registers listeners, starts it, reads agents
// through iterators, sends commands, and releases it. Lifetime calls come from
// one thread; iterators, commands and listener registration from any thread.
#ifndef QOR_INCLUDE_QORAPI_H
#define QOR_INCLUDE_QORAPI_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#define QOR_EXPORT __attribute__((visibility("default")))

class Agent;
class Event;

// What a log listener is told of each event.
struct QOR_LogData {
  time_t eventTime = 0;
  int eventID = 0;
  std::wstring logMessage;
};

// What an alert listener is told of an alert event: the flat record of the event.
struct QOR_AlertData {
  time_t eventTime = 0;
  std::wstring agentName;
  int operatingState = -1;
  int managedState = -1;
  std::wstring instanceProcName;
  int agentType = -1;
  int osType = -1;
  std::wstring osVersion;
  int procID = -1;
  int spareValue = -1;
  int eventID = 0;
  std::wstring userMessage;
};

// Derive from these and override AlertMe. The field is filled just before each
// call and is valid during it only. AlertMe runs on the service's message
// thread: it must return soon and must not (de)register listeners of its kind.
// The object belongs to the host and must outlive its registration.
class QOR_EXPORT QOR_LogListener {
 public:
  virtual void AlertMe() {}
  QOR_LogData logData;
};

class QOR_EXPORT QOR_AlertListener {
 public:
  virtual void AlertMe() {}
  QOR_AlertData alertData;
};

// A read-only snapshot of the agents, taken when the iterator is made. Call
// getNextAgentEntry before the first getter. A getter at a bad position answers
// -1 for numbers, the empty string for text (see each getter's note otherwise).
class QOR_EXPORT QOR_AgentIterator {
 public:
  QOR_AgentIterator();
  ~QOR_AgentIterator();
  QOR_AgentIterator(const QOR_AgentIterator&) = delete;
  QOR_AgentIterator& operator=(const QOR_AgentIterator&) = delete;

  bool getNextAgentEntry();
  bool invalidPos();

  bool getCAPFileModifyTimestamp(long& timestamp);
  std::wstring getCAPFileName();  // the path of the agent's CAP file
  bool getLastHealthCheck(long& checkTime);
  std::wstring getSubagentID();
  int getAgentType();
  std::wstring getAgentName();
  std::wstring getProcessName();
  std::wstring getInstanceProcessName();
  std::wstring getAgentPath();
  int getManageType();
  int getManagedState();
  int getOperationalStatus();
  std::wstring getStartScript();
  std::wstring getStopScript();
  std::wstring getConfigScript();
  std::wstring getStatusScript();
  int getDailyCheckFreq();
  int getMaxRestartsPerDay();
  int getAgentHealthPort();
  int getOSType();
  std::wstring getOSVersion();
  std::wstring getOSName();
  std::wstring getKernelRelease();
  std::wstring getDependencies();
  long getMemoryThresholdValue();
  int getMemoryThresholdUnit();        // 0 at a bad position
  unsigned long getMemoryThreshold();  // all bits set at a bad position
  long getCPUThreshold();
  std::wstring getIPAddress();
  std::wstring getHostName();
  long getProcessID();
  std::wstring getCommandLine();
  std::wstring getBuildDate();  // "0000000000000001" at any position
  std::wstring getAgentBuildNumber();
  std::wstring getAgentVersion();
  int getDailyRestartCount();
  long getUserCPU();
  long getSystemCPU();
  long getCPUUsage();
  long getPageFaults();
  long getThreadCount();
  long getHandleCount();
  std::wstring getServiceName();
  std::wstring getZELInstanceName();
  unsigned long getWorkingSetSize();  // all bits set at a bad position
  long getParentProcessID();
  long getResidentSetSize();
  long getTotalMemorySize();
  unsigned long getVMSize();  // all bits set at a bad position
  std::wstring getProcessUser();

  // Used by the service to build the snapshot: the records, and a return to
  // the state before the first step after records were added.
  std::vector<Agent*>& snapshot() { return agents; }
  void rewind();

 private:
  Agent* current();

  std::vector<Agent*> agents;
  std::vector<Agent*>::iterator position;
  bool atStart;
};

// The door of the library. Order of use: set QOR_CAP_DIR and QOR_IP_DIR;
// initQueryService (or initWatchdogService); register listeners;
// startQueryService; use; deregister; releaseQueryService once per init.
class QOR_EXPORT QOR_QueryService {
 public:
  static QOR_QueryService* initQueryService();
  static QOR_QueryService* initWatchdogService();
  static bool isStarted();
  static bool isInitialized();
  // Hours that the watchdog process keeps events: 24, or QOR_CACHE_LIMIT.
  static int getCacheLimit();

  // Blocks until the service is up. Does nothing when already started or not initialised.
  void startQueryService();
  // false when nothing is left to release. With persistOnly the state file is
  // written and the service's threads keep running.
  bool releaseQueryService(bool persistOnly);

  // A new iterator owned by the caller, or null when the service is not started.
  QOR_AgentIterator* getAgentIterator(bool includeWatchdog);
  void releaseAgentIterator(QOR_AgentIterator* iterator);

  bool registerAlertListener(QOR_AlertListener* listener);
  bool registerLogListener(QOR_LogListener* listener);
  bool deregisterAlertListener(QOR_AlertListener* listener);
  bool deregisterLogListener(QOR_LogListener* listener);

  // Commands: 0 when accepted, -1 when the service is not started, otherwise
  // the command's own code.
  int stopAgent(std::wstring name, std::wstring process, int pid);
  int startAgent(std::wstring name, bool resetCount, std::wstring process, std::wstring instance);
  int recycleAgent(std::wstring name, std::wstring process, std::wstring instance, int pid);
  int resetRestartCount(std::wstring name, std::wstring process, std::wstring instance);
  int startManagingAgent(std::wstring name);
  int stopManagingAgent(std::wstring name);

  // How long, in milliseconds, the command handler has been applying its
  // current event: 0 while it waits for one, -1 when the service is not
  // started. Every command, scheduled check and state change is applied on
  // that one thread, so a host's liveness probe (a service manager's
  // watchdog, say) can tell a hung service by a figure that only grows. A
  // check whose status script is slow legitimately keeps it busy for up to
  // the script's time-out.
  long getCommandHandlerBusyMs();

  // The listener the service gives its message queue; not for the host.
  static void ProcessEvent(Event* event);

  bool lockAlertListenerList();
  bool unlockAlertListenerList();
  bool lockLogListenerList();
  bool unlockLogListenerList();

 private:
  QOR_QueryService();
  ~QOR_QueryService();
  QOR_QueryService(const QOR_QueryService&) = delete;
  QOR_QueryService& operator=(const QOR_QueryService&) = delete;

  static QOR_QueryService* m_pQSInstance;
  static int m_referenceCount;
  // Read by commands and listener registration on any thread while the
  // embedder's lifetime thread sets or clears them.
  static std::atomic<bool> m_bIsStarted;
  static std::atomic<bool> m_bIsInitialized;

  // Each list is guarded by the mutex of its kind, which the lock and unlock
  // calls above take and give back; ProcessEvent holds it while it calls the
  // listeners.
  std::vector<QOR_AlertListener*> alertListeners;
  std::vector<QOR_LogListener*> logListeners;
  pthread_mutex_t alertListMutex;
  pthread_mutex_t logListMutex;
};

// Disarm and rearm of the watchdog process; the argument is ignored.
QOR_EXPORT void DisarmWatchdog(int ignored);
QOR_EXPORT void RearmWatchdog(int ignored);

// UTF-8 to wide text, and wide text to narrow text; the caller frees the
// result with delete[].
QOR_EXPORT wchar_t* QOR_u_strFromUTF8(const char* text);
QOR_EXPORT char* QOR_wcstombs(std::wstring text);

// Gives the variable `name` of the agent with product code `code` a value for
// "$name@code" in CAP files. A value the service already holds is kept.
QOR_EXPORT void QOR_SetZELAgentEnvironment(const std::wstring& code, const std::wstring& name,
                                           const std::wstring& value);

// The main loop of the qorwd program, and its last words. The loop returns on
// SIGINT, SIGTERM or SIGILL, and reopens the trace file on SIGHUP, which the
// service keeps blocked in its threads for the loop to take.
QOR_EXPORT void WatchdogMain();
QOR_EXPORT void stop_exit();

// The trace mask (a sum of 1, 2, 16, 64, 128, 256); a change takes effect at
// the next entry of each function.
QOR_EXPORT void QOR_SetTraceLevel(unsigned mask);
QOR_EXPORT unsigned QOR_GetTraceLevel();

// Opens QOR_TRACE_FILE anew at the same path and traces on there: what a host
// calls on SIGHUP, once logrotate has moved the file away. No trace line is
// lost or split. false, changing nothing, when traces go to standard error or
// the file cannot be opened (the old file then keeps the traces).
QOR_EXPORT bool QOR_ReopenTraceFile();

// Whether `fd` is the service manager's journal stream: not a terminal, and
// the device and inode that JOURNAL_STREAM names ("DEV:INODE"). The library
// asks it of standard error once, when it reads its trace settings, and then
// writes trace lines there with a priority ("<3>" errors, "<7>" the rest) and
// without their timestamp. A host asks it once at start for its own streams.
QOR_EXPORT bool QOR_IsJournalStream(int fd);

// Tunable constants; tests and hosts may change them before starting.
extern "C" {
QOR_EXPORT extern int32_t WD_START_RETRY_COUNT;     // start attempts after the first: 3
QOR_EXPORT extern int32_t WD_START_RETRY_INTERVAL;  // seconds between start attempts: 3
QOR_EXPORT extern int32_t WD_STATUS_RETRY_COUNT;    // extra status script runs after a time-out: 1
QOR_EXPORT extern int32_t MIN_CMD_TIMEOUT;          // floor and default of a command's time-out, seconds: 30
QOR_EXPORT extern uint64_t qor_hz;                  // clock ticks per second: 100
}

#endif  // QOR_INCLUDE_QORAPI_H
