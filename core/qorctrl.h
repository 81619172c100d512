// The Controller: the one object that owns the running service, its agent
// lists, policies, both event queues, every long-lived thread and the
// rendezvous on which those threads start and stop. Reached from every unit
// through Controller::getController().
// Kept: created once and never destroyed, so a pointer to it never goes stale.
//
// The class is defined across several files in four folders; the members
// below are grouped by the file that defines them, named above each group.
// doc/architecture.md tells the threads, the queues and the life of an event.
//
// Concurrency contract
// --------------------
// Lock order, outermost first; a thread holding one lock may only take locks
// further down this list:
//   1. the discovery mutex (lockDiscovery/tryLockDiscovery), held by a CAP
//      event for its whole processing and by discovery for a whole cycle;
//   2. the lock of managedEndpointProcesses (ManagedProcessList::lockList);
//   3. the lock of watchdogList;
//   4. leaf locks: an event queue, a listener list, the worker vector, the
//      message cache, the small caches of the process layer. Each guards its
//      own data, and code holding one takes no other lock, with one
//      exception: listeners run with the listener locks held, and an
//      embedder's listener may read the lists through the iterator. So code
//      holding a list lock never takes a listener lock; it pushes an event
//      on the message queue instead.
// The two list locks record their owner: QorCmd::executeCmd gives the list up
// for the length of a command and takes it back, so the list may change during
// any command. The list lock is never held while waiting for cmdMutex.
//
// Who changes what:
//   - the command handler thread changes agents, the lists and the policies,
//     one event at a time, with the list locked;
//   - a command worker acts on its private deep copy of the agent and reports
//     by raising an event that finds the live agent again by guid;
//   - the availability thread and the discovery thread only read the lists
//     under their lock and push events;
//   - every other thread (the embedder's, the socket server) reads through
//     snapshots (deep copies) and acts by queueing events.
// Members that need a lock held say so with a "Requires:" line.
#ifndef QOR_CORE_QORCTRL_H
#define QOR_CORE_QORCTRL_H

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <string>
#include <vector>

#include "agents/qorproclist.h"
#include "cap/qorpol.h"
#include "core/qorevt.h"
#include "core/qorlock.h"
#include "core/qorworkers.h"

class XMLprocessor;
class Message_Cache;
class MessageHandler;
class CommandHandler;
class Agent;
class Policy;
class QorProcess;
class AgentOpEvent;
class AgentMgmtEvent;
class AgentAVCheckEvent;
class CAPFileEvent;
struct LOG1_Context;

// A flag set under a mutex and announced with one signal. The mutex is held
// only around the flag.
struct Rendezvous {
  QorMutex mutex;
  pthread_cond_t condition;
  bool flag QOR_GUARDED_BY(mutex) = false;
};

// Thread entries, each defined beside the loop it runs.
void* TEOThreadEntry(void* unused);  // core/qorctrl.cpp
void* AVThreadEntry(void* unused);   // agents/qoravail.cpp
void* DIThreadEntry(void* unused);   // interfaces/qordisc.cpp
// Command workers, each given its private AgentOpEvent (core/qorworkers.cpp).
void* startCmdThreadEntry(void* event);
void* stopCmdThreadEntry(void* event);
void* recycleCmdThreadEntry(void* event);

class Controller {
 public:
  // What the TEO thread is asked through the request rendezvous.
  enum ThreadRequest : int {
    NO_THREAD_REQUEST = 0,
    SHUTDOWN_REQUEST = 1,  // the only request there is
  };

  // Finding agents by a mask of fields (interfaces/qoragtcmd.cpp).
  // Each bit of the mask names one field of the agent and the entry of the
  // eight criteria that it is compared with. A mask of 0 takes every agent.
  // Kept: the bit order and the entry order differ.
  enum MatchField : int {
    MATCH_NAME = 1,                    // criteria[0], getName
    MATCH_ID = 2,                      // criteria[3], getID
    MATCH_PROC_ID = 4,                 // criteria[1] as a number, getProcID
    MATCH_INSTANCE_PROC_NAME = 8,      // criteria[2], getInstanceProcName
    MATCH_OPERATING_STATE = 16,        // criteria[4] as a number, getOperatingState
    MATCH_INSTANCE_NAME = 32,          // criteria[5], getInstanceName
    MATCH_SERVICE_INSTANCE_NAME = 64,  // criteria[6], getServiceInstanceName
    MATCH_GUID = 128,                  // criteria[7] as a number, getGUID
  };
  static constexpr int MATCH_CRITERIA_COUNT = 8;

  virtual ~Controller();

  // ---- core/qorctrl.cpp: the singleton, startup, shutdown, threads -------

  // The singleton, created on the first call; that call must come before any
  // thread of the service starts.
  static Controller* getController();

  // Startup and shutdown of the whole service. Each blocks until done; each
  // runs once in the life of the process.
  void startTEOThread();
  void requestShutdown();
  // The body of the TEO thread.
  void TEOThreadExecution();

  bool startDetachedThread(pthread_t* thread, void* (*entry)(void*), void* argument);
  bool startMessageHandler();
  bool startCommandHandler();
  bool startAvailabilityChecker();
  bool startDiscoveryThread();
  bool startSocketServer();
  bool startFileChangeHandler();

  // Called on the command handler thread when it reaches the scan's last event.
  void signalInitialDiscoveryComplete();
  void signalStartupComplete();
  void signalAVShutdownComplete();
  void signalDIShutdownComplete();

  // The outermost lock: taken before the list lock, never while holding it.
  bool lockDiscovery() QOR_TRY_ACQUIRE(true, discoveryMutex);
  bool unlockDiscovery() QOR_RELEASE(discoveryMutex);
  // The discovery thread never waits for the mutex: false when it is taken.
  // Kept: a cycle that finds it taken is skipped, not delayed.
  bool tryLockDiscovery() QOR_TRY_ACQUIRE(true, discoveryMutex);

  // ---- cap/qorcapstate.cpp: CAP files come and go ------------------------

  // Queues the initial scan of the CAP directories, last of all the event that
  // releases the TEO thread. On the TEO thread, before any CAP event runs.
  void initialDiscovery();
  // Requires: the discovery mutex and managedEndpointProcesses locked by the
  // caller (the command handler thread).
  void ProcessCAPStateChange(CAPFileEvent* event) QOR_REQUIRES(discoveryMutex);
  // true when the file parsed into `policy`. No lock.
  bool ParseCAPFile(const std::wstring& path, Policy& policy);
  // The generic and specific rules between policies of one agent name.
  // Requires: managedEndpointProcesses locked by the caller.
  void processPolicyInstances(Policy* policy, TEOEvents event);
  // Takes out of the list the agents of instances that a specific policy took.
  // Requires: managedEndpointProcesses locked by the caller.
  void removeAgentExceptionInstances(Policy* policy);
  // The OS agent's policy: managed by the watchdog, or one of the OS agents'
  // codes. No lock.
  bool isOSAgent(Policy* policy);

  // ---- cap/qorrecon.cpp: agents for an accepted policy --------------------

  // The second half of an added CAP file: matches running processes against
  // the records of the state file, makes the agents that are new, and passes
  // each through its management event into managedEndpointProcesses.
  // Requires (all five): the discovery mutex and managedEndpointProcesses
  // locked by the caller (the command handler thread).
  void reconcile(Policy* policy, CAPFileEvent* event) QOR_REQUIRES(discoveryMutex);
  // Brings in the state file's records that matched a running instance.
  void updatePersistedAgentCollection(ManagedProcessList& list, Policy* policy);
  // Brings in the state file's records that matched nothing running.
  void addRemainingPersistedAgents(ManagedProcessList& list, Policy* policy);
  // Brings in agents made for running instances with no record behind them.
  void addNewAgentCollection(ManagedProcessList& list, Policy* policy, bool checkOSAgent);
  // Makes agents for named instances that have none.
  void addMissingInstances(std::vector<std::wstring> names, Policy* policy, bool checkOSAgent);

  // ---- agents/qorfst.cpp: the state file -----------------------------------

  // Appends to `list` the records of the state file whose id is the policy's
  // subagent id; they have no policy and no Watchdog yet. The caller owns
  // them. Requires: managedEndpointProcesses locked by the caller, which keeps
  // it apart from PersistTEO.
  void ReadAgent(ManagedProcessList& list, Policy* policy);

  // ---- agents/qoravail.cpp: the availability cycle -----------------------

  // The availability thread's loop. Holds no lock across its sleep, which is
  // what lets shutdown cancel it there.
  void AvailChecking();
  // Requires: managedEndpointProcesses locked by the caller (the command
  // handler thread), with the event's agent confirmed in the list.
  void ProcessAvCheck(AgentAVCheckEvent* event);
  // The tests of the checks set the service's start and the disarm flag,
  // which only the service's own start and the OS agent's supervision change.
  friend class ControllerTestAccess;

  // ---- agents/qortrans.cpp: agent state transitions ----------------------

  // What the events do to an agent's operating and managed state.
  // Requires: managedEndpointProcesses locked by the caller (the command
  // handler thread), with the event's agent confirmed in the list.
  void ProcessOpStateChange(AgentOpEvent* event);
  void ProcessMgmtStateChange(AgentMgmtEvent* event);

  // ---- core/qorworkers.cpp: command workers ------------------------------

  // Hands a start (5), stop (4) or recycle (25) to a worker thread of its
  // own, with a deep copy of `event`; the caller keeps its event. false when
  // shutting down, or when the copy or the thread cannot be made. Called on
  // the command handler thread by the Watchdog's initiate_ operations.
  bool cmdExecutionThread(TEOEvents command, AgentOpEvent* event);
  // The body of a worker: runs the scripts with no lock held, turns the event
  // into its result and raises it for the live agent, found again by guid.
  // Consumes `event`. Requires: no list lock held by the caller.
  void commandExecution(TEOEvents command, AgentOpEvent* event);

  // ---- interfaces/qoriter.cpp: snapshots for other threads ---------------

  // Deep copies of the agents; the caller owns them. Each takes and releases
  // the list lock itself: false, with the vectors unchanged, when the list
  // cannot be locked. Requires: no list lock held by the caller.
  bool getManagedEndpointSnapshot(std::vector<Agent*>* agents);
  // Managed agents only, and one live (not copied) policy per subagent id.
  bool getManagedEndpointAndPolicySnapshot(std::vector<Agent*>* agents, std::vector<Policy*>* policiesOut);
  // The OS agent's record, as the host sees it: managed when the watchdog
  // process manages it.
  bool getWatchDogListSnapshot(std::vector<Agent*>* agents, bool update);

  // ---- interfaces/qoragtcmd.cpp: finding agents --------------------------

  // The live agents of managedEndpointProcesses that meet every criterion of
  // the mask, in list order. `criteria` points at MATCH_CRITERIA_COUNT strings.
  // Requires: managedEndpointProcesses locked by the caller.
  std::vector<Agent*> getManagedEndpointProcess(int mask, const std::wstring* criteria);
  // The same, taking and releasing the list lock; empty when the lock cannot
  // be had. Requires: no list lock held by the caller.
  std::vector<Agent*> getManagedEndpointProcessLOCK(int mask, const std::wstring* criteria);

  // An operator's commands. Each finds the agent, checks that the request
  // fits its present state and queues the event that carries it out: 0 means
  // accepted. Every refusal has a code of the command's own hundred (start
  // 1xx, stop 2xx, recycle 3xx, reset 6xx) and one error trace.
  // Requires (all): no list lock held by the caller.
  // `pid` -1 stands for any process.
  int stopAgent(const std::wstring& name, const std::wstring& process, int pid);
  int startAgent(const std::wstring& name, bool resetCount, const std::wstring& process,
                 const std::wstring& instance);
  int recycleAgent(const std::wstring& name, const std::wstring& process, const std::wstring& instance,
                   int pid);
  int resetAgentRestartCount(const std::wstring& name, const std::wstring& process,
                             const std::wstring& instance);

  // Taking an agent in (refused with 401, 404 or -1) or out (500, 501) of
  // management.
  // Naming the OS agent manages or unmanages the whole service through
  // StartManageTEO or StopManageTEO. startManage takes the discovery mutex.
  // Requires (both): no lock held by the caller.
  int startManage(const std::wstring& name);
  int stopManage(const std::wstring& name);
  // Out of management with the OS agent: disarms, saves every agent's managed
  // state and unmanages the managed ones. Back in: rearms and manages again
  // the agents whose saved state was Managed. Requires: no list lock held.
  void StopManageTEO();
  void StartManageTEO();

  // ---- interfaces/qorosagt.cpp: the OS agent ------------------------------

  // True when an OS agent's record is managed here or by the watchdog
  // process. Takes the watchdogList lock inside a snapshot only, so it may be
  // called with managedEndpointProcesses held.
  bool isOSAgentManaged();
  // Whether a remote deploy of the policy's agent is under way: a file named
  // by its product code and ".dy" in a CAP directory. With `remove`, the
  // first one found is deleted. No lock.
  bool checkRemoteDeploy(Policy* policy, bool remove);

  // Whether `name` is the name of the OS agent's record, with its managed
  // state, daily restart count and manager type (the last two are left as
  // they were when it is not). Works on a snapshot of watchdogList, so it may
  // be called with managedEndpointProcesses held.
  bool isOSAgent(const std::wstring& name, bool& managed, int& restartCount, ManagerType& managerType);
  bool isOSAgent(const std::wstring& name, bool& managed);
  // Whether `productCode` is the code of the OS agent's record, with its
  // managed state. On a snapshot, as above.
  bool isOSAgentPC(const std::wstring& productCode, bool& managed);
  // Give the OS agent's record in watchdogList its managed state
  // (WatchdogManaged), or take it away with its process and count. Take the
  // watchdogList lock themselves. Requires: no watchdogList lock held.
  void manageOSAgent();
  void unmanageOSAgent();
  // Disarm mode: agents found down are not restarted. Each raises its event
  // (18, 19); `silent` leaves out the warning to the listeners that nothing
  // guards the OS agent. Requires: no list lock held by the caller.
  void disarm(bool silent);
  void rearm();
  // The live record of the watchdog process in managedEndpointProcesses, or
  // null. Takes the list lock itself; the pointer outlives it.
  Agent* getWatchdogAgent();
  // Watchdog mode: take the OS agent's daily restart count from the embedded
  // service, which keeps it in its state file across restarts of qorwd.
  // Asks over .teo_sock first, then takes the managedEndpointProcesses lock
  // for the walk. Requires: no list lock held.
  void updateOSAgent();

  // ---- interfaces/qordisc.cpp: instance discovery ------------------------

  // The discovery thread's loop; embedded mode, and only when an interval is set.
  void runDiscovery();
  // One cycle after the lock: the process table pass for every managed
  // policy, the suite's instance lists when `lastZELDiscovery` is older than
  // their interval (it is then set to now), and the defunct clean-up.
  // Requires: the discovery mutex held by the caller, and no list lock.
  void discoveryCycle(time_t& lastZELDiscovery) QOR_REQUIRES(discoveryMutex);
  // The agents of `agents` whose policy has the subagent id of `policy`, in order.
  std::vector<Agent*> getPolicyManagedAgents(Policy* policy, std::vector<Agent*> agents);
  // Takes out of `running` the processes that one of `agents` already has;
  // returns the process ids of the agents whose process is not there (0 for
  // an agent without a process). No lock.
  std::vector<int> mergeManagedInstances(std::vector<Agent*> agents, std::vector<QorProcess*>& running);
  // The record that takes `process`: a record of a freed pid taken over, a
  // new record in the list, or null when this policy must wait for a later
  // cycle. Uses up `freed`. Requires: the discovery mutex held by the caller,
  // and no list lock.
  Agent* getManagedInstance(Policy* policy, QorProcess* process, std::vector<int>& freed)
      QOR_REQUIRES(discoveryMutex);
  // The suite's instance lists, for every policy (queues an id 2 event for
  // each record made an instance holder) or for one (returns that record, or
  // null). Requires (both): the discovery mutex held by the caller, and no
  // list lock.
  void discoveryZELInstances() QOR_REQUIRES(discoveryMutex);
  Agent* discoveryZELInstances(Policy* policy) QOR_REQUIRES(discoveryMutex);
  // Takes out the records of instances that the policy no longer lists; the
  // last record of the policy stays, as its instance holder, and is returned.
  // Requires: the discovery mutex and managedEndpointProcesses locked by the caller.
  Agent* verifyInstances(Policy* policy) QOR_REQUIRES(discoveryMutex);
  // Hands the records and policies that discovery took out to the command
  // handler, which frees them between two of its events: until then a command
  // of that thread, which runs with the list given up, may still use them.
  // Requires: no list lock held by the caller.
  void releaseDiscarded();

  // ---- Accessors, defined here -------------------------------------------

  static bool isWatchDogMode() { return isWatchDog; }
  // Chooses watchdog mode for good; before InitializeTEO.
  static void setWatchDogMode() { isWatchDog = true; }
  static bool isRecycleOS() { return bRecycleOS.load(); }
  static void setRecycleOS(bool recycling) { bRecycleOS.store(recycling); }
  bool isShuttingDown() const { return shuttingDown.load(std::memory_order_acquire); }

  // The lists carry their own owner-aware lock (see the contract above).
  ManagedProcessList* getManagedEndpointProcesses() { return &managedEndpointProcesses; }
  ManagedProcessList* getWatchdogList() { return &watchdogList; }
  MessageHandler* getMessageHandler() { return messageHandler; }
  CommandHandler* getCommandHandler() { return commandHandler; }
  WorkerThreadVector* getWorkerThreads() { return &workerThreads; }
  XMLprocessor* getXMLProcessor() { return xmlProcessor; }
  // The event cache, or null in embedded mode and after shutdown. Any thread.
  Message_Cache* getWDCache() { return wdCache.load(std::memory_order_acquire); }
  // Requires: managedEndpointProcesses locked by the caller.
  std::vector<Policy*>& getPolicies() { return policies; }
  // The process table of the initial scan; for the command handler thread
  // while it works through the scan's events.
  std::vector<QorProcess*>& getRunningProcesses() { return runningProcesses; }

  // Set before the service starts; read-only afterwards.
  std::vector<std::wstring> getCAPDirPaths() const { return capDirPaths; }
  void setCAPDirPaths(const std::vector<std::wstring>& paths) { capDirPaths = paths; }
  std::wstring getTEODirPath() const { return teoDirPath; }
  void setTEODirPath(const std::wstring& path) { teoDirPath = path; }

  bool isDisarmed() const { return disarmed.load(std::memory_order_acquire); }
  time_t getStartup() const { return startup; }
  int getDiscoveryInterval() const { return discoveryInterval; }
  int getZelDiscoveryInterval() const { return zelDiscoveryInterval; }
  bool isAVSleeping() const { return avSleeping.load(std::memory_order_acquire); }
  bool isDISleeping() const { return diSleeping.load(std::memory_order_acquire); }

 private:
  // ---- interfaces/qoriter.cpp: the OS agent's record in snapshots
  void refreshWatchedRecords();
  bool refreshWatchedRecord(Agent* agent);
  void takeHealthInfo(Agent* agent, const std::string& answer);
  Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  // ---- core/qorctrl.cpp ---------------------------------------------------
  void shutdownTEO();
  void requestLoop();
  void waitForAVShutdown();
  // Watchdog mode, step 5 of shutdownTEO: the cache's listener out, the cache deleted.
  void deleteWDCache();
  void waitForDIShutdown();

  // ---- cap/qorcapstate.cpp ------------------------------------------------
  // Requires: the discovery mutex and managedEndpointProcesses locked by the
  // caller; each takes the watchdogList lock itself, around its own reads and
  // changes only.
  void capFileAdded(CAPFileEvent* event) QOR_REQUIRES(discoveryMutex);
  void capFileRemoved(CAPFileEvent* event) QOR_REQUIRES(discoveryMutex);
  void addOSAgentRecord(CAPFileEvent* event, Policy* policy);

  // ---- cap/qorrecon.cpp ---------------------------------------------------
  // The collections and process records of one reconcile, freed with it.
  struct Reconciliation;
  // The instance step: one running process against the state file's records,
  // and its numbered parts. Requires (all): the discovery mutex and
  // managedEndpointProcesses locked by the caller (the command handler thread).
  void reconcileInstance(Reconciliation& work, size_t position);
  // Step 2: the record that stands for the process, moved to the updated
  // collection or, with `dropped`, out of every collection; null when none
  // does. `candidate` ends as the last record looked at.
  Agent* takePersistedRecord(Reconciliation& work, QorProcess* process, Agent*& candidate, bool& dropped);
  // Step 3: a record made for a process that no persisted record stands for.
  void addInstanceRecord(Reconciliation& work, QorProcess* process, Agent* candidate);
  // Step 4: true when the record's installation had moved and its management
  // event has run.
  bool followMovedInstallation(Reconciliation& work, Agent* record);

  // ---- core/qorworkers.cpp ------------------------------------------------
  // The steps of commandExecution. runCommand runs the scripts and turns the
  // event into its result; true when a recycle's stop succeeded and its start
  // follows. deliverResult raises the result for the live agent unless that
  // agent has moved on; true when the event was raised.
  bool runCommand(TEOEvents command, AgentOpEvent* event, bool recycle);
  // Both trace under commandExecution's name.
  bool deliverResult(TEOEvents command, AgentOpEvent* event, bool recycle, const LOG1_Context& trace);
  // Requires: managedEndpointProcesses locked by the caller.
  bool resultStillFits(TEOEvents command, AgentOpEvent* event, const Agent* live, bool recycle,
                       const LOG1_Context& trace);

  // ---- interfaces/qoragtcmd.cpp --------------------------------------------
  // The decisions of the commands on one live agent.
  // Requires (all): managedEndpointProcesses locked by the caller.
  int stopOne(Agent* agent);
  Agent* pickToStart(const std::vector<Agent*>& agents);
  int startOne(Agent* agent, bool resetCount);
  int recycleOne(Agent* agent);
  int resetOne(Agent* agent);
  int resetOSAgentCount(const std::wstring& name, const std::wstring& process);
  // The two ends of startManage. Requires (both): the discovery mutex held
  // by the caller, and no list lock. manageFound looks the name up again and
  // queues the events with the list locked: 0, 404, or 401 when the name has
  // no agent any more. manageOSAgentByName answers for a name that no agent
  // of the list has: the OS agent's, or nobody's (401).
  int manageFound(const std::wstring* criteria);
  int manageOSAgentByName(const std::wstring& name);

  // ---- interfaces/qordisc.cpp ---------------------------------------------
  // The steps of a cycle and of getManagedInstance.
  // Requires (all): the discovery mutex held by the caller.
  void discoverProcesses(const std::vector<Policy*>& managedPolicies,
                         const std::vector<Agent*>& managedAgents) QOR_REQUIRES(discoveryMutex);
  void discoverPolicyInstances(Policy* policy, const std::vector<QorProcess*>& all,
                               const std::vector<Agent*>& managedAgents) QOR_REQUIRES(discoveryMutex);
  // Gives a discovered record a policy of its own and queues its id 2 event.
  // Requires: no list lock held by the caller.
  void announceDiscovered(Agent* agent, Policy* policy, const LOG1_Context& trace)
      QOR_REQUIRES(discoveryMutex);
  // Requires (these three): managedEndpointProcesses locked by the caller too.
  // The two that trace do so under getManagedInstance's name.
  bool startOrStopInProgress(Policy* policy) QOR_REQUIRES(discoveryMutex);
  Agent* reuseFreedRecord(Policy* policy, QorProcess* process, const std::wstring& procName,
                          std::vector<int>& freed, const LOG1_Context& trace) QOR_REQUIRES(discoveryMutex);
  Agent* newInstanceRecord(Policy* policy, QorProcess* process, const std::wstring& procName,
                           const LOG1_Context& trace) QOR_REQUIRES(discoveryMutex);
  // Requires: managedEndpointProcesses locked by the caller.
  // Keeps `policy` for releaseDiscarded when neither the list of policies nor
  // any listed or retired record points at it any more.
  void discardPolicyIfUnused(Policy* policy);

  // ---- agents/qortrans.cpp ------------------------------------------------
  // The row groups of the two transition tables.
  // Requires (all): managedEndpointProcesses locked by the caller (the
  // command handler thread).
  void onAgentNotFound(AgentOpEvent* event);
  void onAgentNotConfigured(AgentOpEvent* event);
  // The operating rows, one per row group, dispatched from kOpRows.
  struct OpRow;
  static const OpRow kOpRows[];
  void applyOpRow(AgentOpEvent* event);
  void onCommandToStart(AgentOpEvent* event);
  void onCameUp(AgentOpEvent* event);
  void onFoundDown(AgentOpEvent* event);
  void onFirstStart(AgentOpEvent* event);
  void onDisarmedDown(AgentOpEvent* event);
  void onStartFailed(AgentOpEvent* event);
  void onStarted(AgentOpEvent* event);
  void onLimitReached(AgentOpEvent* event);
  void onCommandedStartFailed(AgentOpEvent* event);
  void onMustGoDown(AgentOpEvent* event);
  void onStoppedElsewhere(AgentOpEvent* event);
  void onStillRunning(AgentOpEvent* event);
  void onStopResult(AgentOpEvent* event);
  void onStoppedAsAsked(AgentOpEvent* event);
  void onStoppedDown(AgentOpEvent* event);
  void onStopFailed(AgentOpEvent* event);
  void onStoppedForRestart(AgentOpEvent* event);
  // Starts of ids 22 (`restart` false) and 24 within the daily limit, and the
  // two forms of the ladder of messages once the limit is reached.
  void startWithLimit(AgentOpEvent* event, bool restart);
  void limitLadderWithSpare(AgentOpEvent* event, AgentOpEvent* spare);
  void limitLadderInPlace(AgentOpEvent* event);
  void forwardAs(AgentMgmtEvent* event, TEOEvents id);
  void onBecomeManaged(AgentMgmtEvent* event);
  void onStayUnmanaged(AgentMgmtEvent* event);
  void onManagementEnds(AgentMgmtEvent* event);
  void onManagedAgentReturns(AgentMgmtEvent* event);

  // ---- State --------------------------------------------------------------
  // The members keep the order in which they are constructed.

  static Controller* pCtrlrInstance;
  static bool isWatchDog;  // set before any thread starts, read-only after
  static std::atomic<bool> bRecycleOS;

  XMLprocessor* xmlProcessor;  // used by the command handler thread only
  // Each list guards itself: lockList/unlockList.
  ManagedProcessList managedEndpointProcesses;
  ManagedProcessList watchdogList;
  // Guarded by the watchdogList lock.
  time_t watchdogListChecked;
  bool watchdogDataValid;
  // Watchdog mode: created and deleted by the TEO thread, read by the message
  // handler and the socket server threads, hence atomic.
  std::atomic<Message_Cache*> wdCache;
  pthread_t teoThread;
  Rendezvous startupRendezvous;  // startupComplete
  // The request rendezvous.
  QorMutex requestMutex;
  pthread_cond_t requestCondition;
  int threadRequest QOR_GUARDED_BY(requestMutex);  // a ThreadRequest
  // Flags read without a lock, hence atomic.
  std::atomic<bool> shuttingDown;
  Rendezvous shutdownRendezvous;          // shutdownComplete
  Rendezvous avRendezvous;                // avShutdownComplete
  Rendezvous diRendezvous;                // diShutdownComplete
  Rendezvous initialDiscoveryRendezvous;  // initialDiscoveryComplete
  WorkerThreadVector workerThreads;       // guards itself: a leaf lock
  MessageHandler* messageHandler;         // each queue guards itself: a leaf lock
  pthread_t messageHandlerThread;
  CommandHandler* commandHandler;
  pthread_t commandHandlerThread;
  pthread_t fileChangeThread;
  pthread_t availabilityThread;
  pthread_t discoveryThread;
  pthread_t socketServerThread;
  // Read by shutdown without a lock to decide between cancel and wait.
  std::atomic<bool> avSleeping;
  std::atomic<bool> diSleeping;
  // Set before the service starts; read-only afterwards.
  std::vector<std::wstring> capDirPaths;
  std::wstring teoDirPath;
  std::atomic<bool> disarmed;
  time_t startup;
  int discoveryInterval;
  int zelDiscoveryInterval;
  // The outermost lock; see the contract at the top.
  QorMutex discoveryMutex;
  // Guarded by the managedEndpointProcesses lock; changed on the command
  // handler thread only.
  std::vector<Policy*> policies;
  // Filled by the TEO thread before the initial scan's events are queued,
  // read and at the scan's end freed by the command handler thread.
  std::vector<QorProcess*> runningProcesses;
  // Agents taken out of the list for a specific policy's instances. Guarded by
  // the managedEndpointProcesses lock.
  // Kept: never destroyed, since an event on its way may still point at one.
  std::vector<Agent*> retiredAgents;
  // What discovery took out and releaseDiscarded hands on. Guarded by the
  // managedEndpointProcesses lock.
  std::vector<Agent*> discardedAgents;
  std::vector<Policy*> discardedPolicies;
};

#endif  // QOR_CORE_QORCTRL_H
