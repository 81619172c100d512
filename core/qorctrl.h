// The Controller: the one object that owns the running service, its agent
// lists, policies, both event queues, every long-lived thread and the
// rendezvous on which those threads start and stop. Reached from every unit
// through Controller::getController(); created once and never destroyed.
#ifndef QOR_CORE_QORCTRL_H
#define QOR_CORE_QORCTRL_H

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <string>
#include <vector>

#include "agents/qorproclist.h"
#include "core/qorevt.h"
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

// A flag set under a mutex and announced with one signal.
struct Rendezvous {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  bool flag = false;
};

// Thread entries.
void* TEOThreadEntry(void* unused);
void* AVThreadEntry(void* unused);
void* DIThreadEntry(void* unused);

class Controller {
 public:
  virtual ~Controller();

  // The singleton, created on the first call; that call must come before any
  // thread of the service starts.
  static Controller* getController();
  static bool isWatchDogMode() { return isWatchDog; }
  // Chooses watchdog mode for good; before InitializeTEO.
  static void setWatchDogMode() { isWatchDog = true; }
  static bool isRecycleOS() { return bRecycleOS.load(); }
  static void setRecycleOS(bool recycling) { bRecycleOS.store(recycling); }

  // Startup and shutdown of the whole service. Each blocks until done.
  void startTEOThread();
  void requestShutdown();
  bool isShuttingDown() const { return shuttingDown.load(std::memory_order_acquire); }

  // The body of the TEO thread.
  void TEOThreadExecution();

  bool startDetachedThread(pthread_t* thread, void* (*entry)(void*), void* argument);
  bool startMessageHandler();
  bool startCommandHandler();
  bool startAvailabilityChecker();
  bool startDiscoveryThread();
  bool startSocketServer();
  bool startFileChangeHandler();

  void signalInitialDiscoveryComplete();
  void signalStartupComplete();
  void signalAVShutdownComplete();
  void signalDIShutdownComplete();

  bool lockDiscovery();
  bool unlockDiscovery();
  // The discovery thread never waits for the mutex: false when it is taken.
  bool tryLockDiscovery();

  // Queues the initial scan of the CAP directories, last of all the event that
  // releases the TEO thread.
  void initialDiscovery();

  // What the events do, on the command handler thread with the list locked.
  void ProcessOpStateChange(AgentOpEvent* event);
  void ProcessMgmtStateChange(AgentMgmtEvent* event);
  void ProcessAvCheck(AgentAVCheckEvent* event);
  // Also with the discovery lock held.
  void ProcessCAPStateChange(CAPFileEvent* event);
  // true when the file parsed into `policy`.
  bool ParseCAPFile(const std::wstring& path, Policy& policy);
  // The generic and specific rules between policies of one agent name.
  void processPolicyInstances(Policy* policy, TEOEvents event);
  // Takes out of the list the agents of instances that a specific policy took.
  void removeAgentExceptionInstances(Policy* policy);
  // The OS agent's policy: managed by the watchdog, or one of the OS agents' codes.
  bool isOSAgent(Policy* policy);

  // Deep copies of the agents for other threads; the caller owns them. false,
  // with the vectors unchanged, when the list cannot be locked.
  bool getManagedEndpointSnapshot(std::vector<Agent*>* agents);
  // Managed agents only, and one live (not copied) policy per subagent id.
  bool getManagedEndpointAndPolicySnapshot(std::vector<Agent*>* agents, std::vector<Policy*>* policiesOut);
  // The OS agent's record, as the host sees it: managed when the watchdog
  // process manages it.
  bool getWatchDogListSnapshot(std::vector<Agent*>* agents, bool update);

  // The availability and discovery loops.
  void AvailChecking();
  void runDiscovery();

  ManagedProcessList* getManagedEndpointProcesses() { return &managedEndpointProcesses; }
  ManagedProcessList* getWatchdogList() { return &watchdogList; }
  MessageHandler* getMessageHandler() { return messageHandler; }
  CommandHandler* getCommandHandler() { return commandHandler; }
  WorkerThreadVector* getWorkerThreads() { return &workerThreads; }
  XMLprocessor* getXMLProcessor() { return xmlProcessor; }
  Message_Cache* getWDCache() { return wdCache; }
  std::vector<Policy*>& getPolicies() { return policies; }
  std::vector<QorProcess*>& getRunningProcesses() { return runningProcesses; }

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

  // Finding agents by a mask of fields.
  // Each bit of the mask names one field of the agent and the entry of the
  // eight criteria that it is compared with; the bit order and the entry
  // order differ. A mask of 0 takes every agent.
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
  // The live agents of managedEndpointProcesses that meet every criterion of
  // the mask, in list order. `criteria` points at MATCH_CRITERIA_COUNT strings.
  // Requires: managedEndpointProcesses locked by the caller.
  std::vector<Agent*> getManagedEndpointProcess(int mask, const std::wstring* criteria);
  // The same, taking and releasing the list lock; empty when the lock cannot
  // be had.
  std::vector<Agent*> getManagedEndpointProcessLOCK(int mask, const std::wstring* criteria);

 private:
  Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  void shutdownTEO();
  void capFileAdded(CAPFileEvent* event);
  void capFileRemoved(CAPFileEvent* event);
  void addOSAgentRecord(CAPFileEvent* event, Policy* policy);
  void requestLoop();
  void waitForAVShutdown();
  void waitForDIShutdown();

  static Controller* pCtrlrInstance;
  static bool isWatchDog;
  static std::atomic<bool> bRecycleOS;

  XMLprocessor* xmlProcessor;
  ManagedProcessList managedEndpointProcesses;
  ManagedProcessList watchdogList;
  time_t watchdogListChecked;
  bool watchdogDataValid;
  Message_Cache* wdCache;
  pthread_t teoThread;
  Rendezvous startupRendezvous;  // startupComplete
  pthread_mutex_t requestMutex;
  pthread_cond_t requestCondition;
  int threadRequest;  // 1, the only code: shutdown
  std::atomic<bool> shuttingDown;
  Rendezvous shutdownRendezvous;          // shutdownComplete
  Rendezvous avRendezvous;                // avShutdownComplete
  Rendezvous diRendezvous;                // diShutdownComplete
  Rendezvous initialDiscoveryRendezvous;  // initialDiscoveryComplete
  WorkerThreadVector workerThreads;
  MessageHandler* messageHandler;
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
  std::vector<std::wstring> capDirPaths;
  std::wstring teoDirPath;
  std::atomic<bool> disarmed;
  time_t startup;
  int discoveryInterval;
  int zelDiscoveryInterval;
  pthread_mutex_t discoveryMutex;
  std::vector<Policy*> policies;
  std::vector<QorProcess*> runningProcesses;
  // Agents taken out of the list for a specific policy's instances: kept, not
  // destroyed, since an event on its way may still point at one.
  std::vector<Agent*> retiredAgents;
};

#endif  // QOR_CORE_QORCTRL_H
