#include "core/qorctrl.h"

#include <cerrno>

#include "agents/qoragt.h"
#include "cap/qorunx.h"
#include "cap/qorxmlproc.h"
#include "core/qorcmdhand.h"
#include "core/qorlock.h"
#include "core/qormsghand.h"
#include "core/qorutil.h"
#include "interfaces/qormsgcache.h"
#include "interfaces/qorsockserv.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

Controller* Controller::pCtrlrInstance = nullptr;
bool Controller::isWatchDog = false;
std::atomic<bool> Controller::bRecycleOS{false};

namespace {

// The mutex is ready from its constructor; the condition needs its init.
void initRendezvous(Rendezvous& rendezvous) { pthread_cond_init(&rendezvous.condition, nullptr); }

void destroyRendezvous(Rendezvous& rendezvous) { pthread_cond_destroy(&rendezvous.condition); }

void setRendezvous(Rendezvous& rendezvous) {
  QorMutexLock lock(&rendezvous.mutex);
  rendezvous.flag = true;
  pthread_cond_signal(&rendezvous.condition);
}

void clearRendezvous(Rendezvous& rendezvous) {
  QorMutexLock lock(&rendezvous.mutex);
  rendezvous.flag = false;
}

// The usual wait: an interruption ends the wait unless the story level is on,
// in which case it is traced and the wait goes on; any other result waits again.
// Kept: the two waits treat an interruption differently (see below), and the request wait traces no rc.
void waitStandard(Rendezvous& rendezvous, bool traceRc) {
  QOR_TRACE_FUNCTION();
  QorMutexLock lock(&rendezvous.mutex);
  while (!rendezvous.flag) {
    int rc = rendezvous.mutex.wait(&rendezvous.condition);
    if (traceRc) QOR_TRACE_STORY("rc from wait %d\n", rc);
    if (rc == EINTR) {
      if (!QOR_TRACE_ON(QOR_TL_STORY)) break;
      QOR_TRACE_STORY("system interrupt received while waiting...retrying\n");
    }
  }
}

// The discovery wait of shutdown differs on purpose.
// Kept: an interruption waits again, and any other result, success included, ends the wait at once.
void waitOnceUnlessInterrupted(Rendezvous& rendezvous) {
  QOR_TRACE_FUNCTION();
  QorMutexLock lock(&rendezvous.mutex);
  while (!rendezvous.flag) {
    int rc = rendezvous.mutex.wait(&rendezvous.condition);
    if (rc != EINTR) break;
    QOR_TRACE_STORY("system interrupt received while waiting...retrying\n");
  }
}

}  // namespace

Controller::Controller()
    : xmlProcessor(new XMLprocessor()),
      watchdogListChecked(time(nullptr)),
      watchdogDataValid(false),
      wdCache(nullptr),
      teoThread(),
      threadRequest(NO_THREAD_REQUEST),
      shuttingDown(false),
      messageHandler(new MessageHandler()),
      messageHandlerThread(),
      commandHandler(new CommandHandler()),
      commandHandlerThread(),
      fileChangeThread(),
      availabilityThread(),
      discoveryThread(),
      socketServerThread(),
      avSleeping(false),
      diSleeping(false),
      disarmed(false),
      startup(0),
      discoveryInterval(0),
      zelDiscoveryInterval(600) {
  QOR_TRACE_FUNCTION();
  initRendezvous(startupRendezvous);
  pthread_cond_init(&requestCondition, nullptr);
  initRendezvous(shutdownRendezvous);
  initRendezvous(avRendezvous);
  initRendezvous(diRendezvous);
  initRendezvous(initialDiscoveryRendezvous);

  // The discovery thread runs only when asked for.
  // Kept: a suite listing interval below the discovery interval is ignored, leaving 600.
  int value = 0;
  if (QOR_GetEnvironmentAsInt("QOR_DISCOVERY_INTERVAL", value) && value > discoveryInterval) {
    discoveryInterval = value;
  }
  if (QOR_GetEnvironmentAsInt("QOR_ZEL_DISCOVERY_INTERVAL", value) && value >= discoveryInterval) {
    zelDiscoveryInterval = value;
  }
}

Controller::~Controller() {
  destroyRendezvous(startupRendezvous);
  pthread_cond_destroy(&requestCondition);
  destroyRendezvous(shutdownRendezvous);
  destroyRendezvous(avRendezvous);
  destroyRendezvous(diRendezvous);
  destroyRendezvous(initialDiscoveryRendezvous);
  // The lists never own their agents.
  managedEndpointProcesses.clear();
  watchdogList.clear();
  delete commandHandler;
  delete messageHandler;
  delete xmlProcessor;
}

Controller* Controller::getController() {
  if (pCtrlrInstance == nullptr) pCtrlrInstance = new Controller();
  return pCtrlrInstance;
}

bool Controller::startDetachedThread(pthread_t* thread, void* (*entry)(void*), void* argument) {
  QOR_TRACE_FUNCTION();
  int rc = pthread_create(thread, nullptr, entry, argument);
  if (rc != 0) {
    QOR_TRACE_ERROR("ERROR: pthread_create() failed (rc %i)", rc);
    return false;
  }
  pthread_detach(*thread);
  return true;
}

bool Controller::startMessageHandler() {
  return startDetachedThread(&messageHandlerThread, messageHandlerThreadEntry, messageHandler);
}

bool Controller::startCommandHandler() {
  return startDetachedThread(&commandHandlerThread, commandHandlerThreadEntry, commandHandler);
}

bool Controller::startAvailabilityChecker() {
  return startDetachedThread(&availabilityThread, AVThreadEntry, nullptr);
}

bool Controller::startDiscoveryThread() {
  return startDetachedThread(&discoveryThread, DIThreadEntry, nullptr);
}

bool Controller::startSocketServer() {
  return startDetachedThread(&socketServerThread,
                             isWatchDog ? WatchdogSocketSrvThreadEntry : TEOSocketSrvThreadEntry, nullptr);
}

bool Controller::startFileChangeHandler() { return RegisterFileChangeHandlers(&fileChangeThread); }

void Controller::signalInitialDiscoveryComplete() {
  setRendezvous(initialDiscoveryRendezvous);
  // The process table of the initial scan is of no use once every CAP file
  // has been handled; later events read the table for themselves.
  for (QorProcess* process : runningProcesses) delete process;
  runningProcesses.clear();
}

void Controller::signalStartupComplete() { setRendezvous(startupRendezvous); }
void Controller::signalAVShutdownComplete() { setRendezvous(avRendezvous); }
void Controller::signalDIShutdownComplete() { setRendezvous(diRendezvous); }

// The analysis cannot follow a lock taken through the traced helper's result.
bool Controller::lockDiscovery() QOR_NO_THREAD_SAFETY_ANALYSIS {
  QOR_TRACE_FUNCTION();
  return QOR_LOCK_TRACED(discoveryMutex);
}

bool Controller::unlockDiscovery() QOR_NO_THREAD_SAFETY_ANALYSIS {
  QOR_TRACE_FUNCTION();
  return QOR_UNLOCK_TRACED(discoveryMutex);
}

bool Controller::tryLockDiscovery() QOR_NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_trylock(discoveryMutex.native()) == 0;
}

void Controller::startTEOThread() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_STORY("starting TEO thread.\n");
  startup = time(nullptr);
  clearRendezvous(startupRendezvous);
  startDetachedThread(&teoThread, TEOThreadEntry, nullptr);

  QOR_TRACE_STORY("Enter wait for TEO startup complete.\n");
  waitStandard(startupRendezvous, true);
  QOR_TRACE_STORY("startup complete message received.\n");
  // What the watchdog process saw while this service was down reaches the
  // listeners now, with the times at which it happened.
  if (!isWatchDog) Message_Cache::receiveCachedEvents();
}

void* TEOThreadEntry(void* /*unused*/) {
  Controller::getController()->TEOThreadExecution();
  return nullptr;
}

void Controller::TEOThreadExecution() {
  QOR_TRACE_FUNCTION();
  startMessageHandler();
  startCommandHandler();
  // The cache listens from before the initial discovery on, so that it sees
  // all that the command handler produces.
  if (isWatchDog) {
    wdCache.store(new Message_Cache(), std::memory_order_release);
    messageHandler->registerListener(Message_Cache::Listener);
  }

  clearRendezvous(initialDiscoveryRendezvous);
  initialDiscovery();
  waitStandard(initialDiscoveryRendezvous, true);

  // qorwd forgets its counts when it restarts; the embedded service kept them.
  if (isWatchDog) updateOSAgent();
  // With nobody to restart the service itself, restarting its agents would
  // promise more than it can keep: a service that comes up with its OS agent
  // unmanaged is disarmed and manages nothing until the OS agent is managed
  // again.
  if (!isWatchDog && !isOSAgentManaged()) StopManageTEO();

  // The order matters: the watcher starts with the scan's files already in
  // its list, and the cycle starts after every policy is known.
  startFileChangeHandler();
  startSocketServer();
  startAvailabilityChecker();
  if (!isWatchDog && discoveryInterval != 0) startDiscoveryThread();

  signalStartupComplete();

  shuttingDown.store(false, std::memory_order_release);
  QOR_TRACE_STORY("Enter loop for waiting for thread requests\n");
  requestLoop();
  QOR_TRACE_STORY("Exiting TEO execution thread\n");
}

void Controller::requestLoop() {
  QOR_TRACE_FUNCTION();
  while (!isShuttingDown()) {
    {
      QorMutexLock lock(&requestMutex);
      while (threadRequest == NO_THREAD_REQUEST) {
        int rc = requestMutex.wait(&requestCondition);
        if (rc == EINTR) {
          if (!QOR_TRACE_ON(QOR_TL_STORY)) break;
          QOR_TRACE_STORY("system interrupt received while waiting...retrying\n");
        }
      }
      QOR_TRACE_STORY("Request received: %d \n", threadRequest);
      if (threadRequest == SHUTDOWN_REQUEST) {
        QOR_TRACE_STORY("Shutdown request received \n");
        shuttingDown.store(true, std::memory_order_release);
      }
      threadRequest = NO_THREAD_REQUEST;
    }

    if (isShuttingDown()) {
      QOR_TRACE_STORY("Processing shutdown request\n");
      shutdownTEO();
      QOR_TRACE_STORY("Signalling shutdown complete\n");
      setRendezvous(shutdownRendezvous);
    }
  }
}

void Controller::requestShutdown() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_STORY("Signalling shutdown request. \n");
  {
    QorMutexLock lock(&requestMutex);
    threadRequest = SHUTDOWN_REQUEST;
    pthread_cond_signal(&requestCondition);
  }

  // Kept: without a TEO thread to answer (no startup before), this waits for good.
  QOR_TRACE_STORY("Enter wait for shutdown complete.\n");
  waitStandard(shutdownRendezvous, true);
  QOR_TRACE_STORY("Shutdown complete message received.\n");
}

void Controller::shutdownTEO() {
  QOR_TRACE_FUNCTION();
  // Producers of events stop first, the queues last.
  QOR_TRACE_STORY("TEO Shutdown request.\n");
  QOR_TRACE_STORY("Shutdown filechange thread.\n");
  StopFileChangeHandlers();

  if (!workerThreads.isVectorEmpty()) {
    workerThreads.cancelThreads();
  } else {
    QOR_TRACE_STORY("No worker threads to shutdown.\n");
  }

  waitForAVShutdown();
  if (!isWatchDog && discoveryInterval != 0) waitForDIShutdown();

  if (isWatchDog) deleteWDCache();

  // Kept: neither handler thread is waited for; each leaves when it sees its queue shut.
  QOR_TRACE_STORY("Shutdown command handler thread.\n");
  commandHandler->requestShutdown();
  QOR_TRACE_STORY("Shutdown message handler thread.\n");
  messageHandler->requestShutdown();
}

void Controller::deleteWDCache() {
  QOR_TRACE_FUNCTION();
  messageHandler->deregisterListener(Message_Cache::Listener);
  // A listener stays registered for the life of the process, so an event that
  // the message handler still delivers would reach a deleted cache. The
  // pointer is nulled under the listener lock, which every delivery holds:
  // a delivery under way ends first, and a later one finds no cache.
  Message_Cache* cache = nullptr;
  if (messageHandler->lockListenerList()) {
    cache = wdCache.exchange(nullptr, std::memory_order_acq_rel);
    messageHandler->unlockListenerList();
  }
  delete cache;
}

void Controller::waitForAVShutdown() {
  QOR_TRACE_FUNCTION();
  // A thread inside its sleep holds no lock and may be cancelled there; one
  // inside a cycle is waited for until it sees shuttingDown.
  if (avSleeping.load(std::memory_order_acquire)) {
    pthread_cancel(availabilityThread);
    QOR_TRACE_STORY("AV thread cancelled.\n");
    return;
  }
  QOR_TRACE_STORY("Enter wait for AV shutdown complete.\n");
  waitStandard(avRendezvous, true);
  QOR_TRACE_STORY("Shutdown AV complete message received.\n");
}

void Controller::waitForDIShutdown() {
  QOR_TRACE_FUNCTION();
  if (diSleeping.load(std::memory_order_acquire)) {
    pthread_cancel(discoveryThread);
    QOR_TRACE_STORY("discovery thread cancelled.\n");
    return;
  }
  QOR_TRACE_STORY("Enter wait for discovery shutdown complete.\n");
  waitOnceUnlessInterrupted(diRendezvous);
  QOR_TRACE_STORY("Shutdown discovery complete message received.\n");
}
