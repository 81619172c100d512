#include "core/qorworkers.h"

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "watchdog/qorwd.h"
#include "watchdog/qorwdproc.h"

QOR_TRACE_UNIT();

WorkerThreadVector::WorkerThreadVector() { pthread_cond_init(&emptyCondition, nullptr); }

WorkerThreadVector::~WorkerThreadVector() { pthread_cond_destroy(&emptyCondition); }

bool WorkerThreadVector::lockWorkerThreads() {
  QOR_TRACE_FUNCTION();
  return QOR_LOCK_TRACED(vectorMutex);
}

bool WorkerThreadVector::unlockWorkerThreads() {
  QOR_TRACE_FUNCTION();
  return QOR_UNLOCK_TRACED(vectorMutex);
}

bool WorkerThreadVector::addThread(pthread_t thread) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("new worker thread added %d", static_cast<int>(thread));
  threads.push_back(thread);
  return true;
}

bool WorkerThreadVector::eraseThread(pthread_t thread) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Removing thread from vector: %d", static_cast<int>(thread));
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return false;
  }
  bool found = false;
  for (auto it = threads.begin(); it != threads.end(); ++it) {
    if (pthread_equal(*it, thread)) {
      threads.erase(it);
      found = true;
      break;
    }
  }
  if (threads.empty()) {
    int rc = pthread_cond_signal(&emptyCondition);
    if (rc != 0) {
      QOR_TRACE_ERROR("Error: pthread_cond_signal failed. rc=%d", rc);
    } else {
      QOR_TRACE_QUEUE("Waiting reader(s) signalled.\n");
    }
  }
  unlockWorkerThreads();
  return found;
}

void WorkerThreadVector::cancelThreads() {
  QOR_TRACE_FUNCTION();
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return;
  }
  while (!threads.empty()) {
    pthread_cancel(threads.front());
    threads.erase(threads.begin());
  }
  unlockWorkerThreads();
}

bool WorkerThreadVector::isVectorEmpty() {
  QOR_TRACE_FUNCTION();
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return false;
  }
  bool empty = threads.empty();
  unlockWorkerThreads();
  return empty;
}

bool WorkerThreadVector::waitOnEmpty() {
  QOR_TRACE_FUNCTION();
  if (!lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector");
    return false;
  }
  for (;;) {
    int rc = vectorMutex.wait(&emptyCondition);
    if (rc == 0) break;
    if (rc == EINTR) {
      QOR_TRACE_STORY("system interrupt received while waiting...retrying\n");
      continue;
    }
    // Kept: the lock stays held on this path, as callers of this wait expect.
    QOR_TRACE_ERROR("Error: pthread_cond_wait failed. rc=%d \n", rc);
    return false;
  }
  unlockWorkerThreads();
  QOR_TRACE_QUEUE("Successfully completed wait for empty worker vector.\n");
  return true;
}

// ---- The workers ----------------------------------------------------------------

namespace {

// Keeps a shutdown's cancel away while the worker holds the list or the
// vector lock: a worker cancelled there would leave the lock taken for good.
// The cancel still comes, at the first cancellation point afterwards.
class CancelPause {
 public:
  CancelPause() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous); }
  ~CancelPause() { pthread_setcancelstate(previous, nullptr); }
  CancelPause(const CancelPause&) = delete;
  CancelPause& operator=(const CancelPause&) = delete;

 private:
  int previous = PTHREAD_CANCEL_ENABLE;
};

using WorkerEntry = void* (*)(void*);

WorkerEntry entryFor(TEOEvents command) {
  switch (command) {
    case agent_start_cmd:
      return startCmdThreadEntry;
    case agent_stop_cmd:
      return stopCmdThreadEntry;
    case agent_recycle_cmd:
      return recycleCmdThreadEntry;
    default:
      return nullptr;
  }
}

// Whether the worker has something to act on, and may.
bool mayAct(const Controller* controller, const AgentOpEvent* event, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  if (controller->isShuttingDown()) return false;
  if (event == nullptr) {
    QOR_TRACE_ERROR("start/stop/recycle agent failed. Event is null\n");
    return false;
  }
  // An agent without a checker has no way to run its scripts.
  if (event->getAgent() == nullptr || event->getAgent()->getWatchdog() == nullptr) {
    QOR_TRACE_ERROR("start/stop/recycle agent failed. Agent ptr is null\n");
    return false;
  }
  return true;
}

// What a successful stop becomes, by the id of the event that asked for it.
TEOEvents afterStop(int id) {
  switch (id) {
    case agent_stop_cmd:
      return agent_stopped;
    case agent_stopped_abnormally:
    case agent_memory_exceeded:
    case agent_cpu_exceeded:
      return agent_start_after_failure;
    default:
      return agent_stopped_abnormally;
  }
}

}  // namespace

void* startCmdThreadEntry(void* event) {
  Controller::getController()->commandExecution(agent_start_cmd, static_cast<AgentOpEvent*>(event));
  return nullptr;
}

void* stopCmdThreadEntry(void* event) {
  Controller::getController()->commandExecution(agent_stop_cmd, static_cast<AgentOpEvent*>(event));
  return nullptr;
}

void* recycleCmdThreadEntry(void* event) {
  Controller::getController()->commandExecution(agent_recycle_cmd, static_cast<AgentOpEvent*>(event));
  return nullptr;
}

bool Controller::cmdExecutionThread(TEOEvents command, AgentOpEvent* event) QOR_NO_THREAD_SAFETY_ANALYSIS {
  QOR_TRACE_FUNCTION();
  if (isShuttingDown()) {
    QOR_TRACE_DETAIL("Start incomplete -- exiting shutdown in progress.");
    return false;
  }
  // The command is looked at before the copy is made, so that a command no
  // worker runs leaves no copy behind.
  WorkerEntry entry = entryFor(command);
  if (entry == nullptr) {
    QOR_TRACE_ERROR("Unsupported command attempted.");
    return false;
  }
  // Through the virtual copy, so that the worker's agent has a Watchdog and a
  // Policy of its own and belongs to the copy.
  AgentOpEvent* copy = static_cast<AgentOpEvent*>(event->makeCopy(false));
  if (copy == nullptr) {
    QOR_TRACE_ERROR("Start incomplete -- Error encountered copying event.");
    return false;
  }
  if (!workerThreads.lockWorkerThreads()) {
    QOR_TRACE_ERROR("Unable to lock worker thread vector and start thread");
    delete copy;
    return false;
  }
  // The worker cannot erase its id before it is added: it needs this lock.
  pthread_t worker;
  if (startDetachedThread(&worker, entry, copy)) {
    workerThreads.addThread(worker);
    workerThreads.unlockWorkerThreads();
    return true;
  }
  QOR_TRACE_ERROR("command incomplete -- Error starting thread.");
  delete copy;
  // Kept: the vector lock stays held on this path; no worker can be added or erased afterwards.
  return false;
}

void Controller::commandExecution(TEOEvents command, AgentOpEvent* event) {
  QOR_TRACE_FUNCTION();
  // The steps trace under this function's name.
  const LOG1_Context trace = QOR_TRACE_CONTEXT();
  const bool recycle = command == agent_recycle_cmd;
  // The worker owns its copy until the result is raised. A worker cancelled
  // at shutdown in the middle of its scripts unwinds through this guard, so
  // its copy is freed rather than left behind.
  std::unique_ptr<AgentOpEvent> owned(event);
  bool finished = false;
  // Once for a start or a stop; a recycle whose stop succeeded goes round
  // again to start.
  while (mayAct(this, event, trace)) {
    if (!runCommand(command, event, recycle)) {
      finished = true;
      break;
    }
    command = agent_start_cmd;
  }
  CancelPause pause;
  // Once raised, the event belongs to the command queue.
  if (finished && deliverResult(command, event, recycle, trace)) owned.release();
  if (!workerThreads.eraseThread(pthread_self())) QOR_TRACE_ERROR("Thread not removed from list -- error.\n");
}

bool Controller::runCommand(TEOEvents command, AgentOpEvent* event, bool recycle) {
  Agent* agent = event->getAgent();
  Watchdog* watchdog = agent->getWatchdog();
  std::wstring output;
  if (command == agent_start_cmd) {
    const int status = watchdog->start(output);
    if (status == 0) {
      event->setEventTypeID(agent_started);
      return false;
    }
    event->setStartStatus(status);
    event->setUserMessage(output);
    event->allowMessages();
    const bool commanded = event->getEventTypeID() == agent_start_cmd || recycle;
    event->setEventTypeID(commanded ? agent_start_failed : agent_restart_failed);
    return false;
  }

  if (watchdog->stop(output) != 0) {
    event->setUserMessage(output);
    if (recycle) {
      event->setOpState(OpStopping);
      agent->setOperatingState(OpStopping);
    }
    event->setEventTypeID(agent_stop_failed);
    if (isWatchDog) EnableWatchdogStop(agent->getPolicy());
    return false;
  }
  if (event->getEventTypeID() != agent_recycle_cmd) {
    event->setEventTypeID(afterStop(event->getEventTypeID()));
    return false;
  }
  // A recycle starts the agent's dependents before the agent itself. The
  // worker's copy points at live dependents, so the list is locked meanwhile.
  int status = 0;
  if (managedEndpointProcesses.lockList()) {
    status = watchdog->startDependentAgents();
    managedEndpointProcesses.unlockList();
  }
  if (status != 0) {
    event->setEventTypeID(agent_restart_failed);
    event->setStartStatus(status);
    return false;
  }
  agent->setProcID(0);
  if (isWatchDog) EnableWatchdogStop(agent->getPolicy());
  return true;
}

bool Controller::deliverResult(TEOEvents command, AgentOpEvent* event, bool recycle, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  if (isShuttingDown()) return false;
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Unable to lock managed process list to create agent event.");
    return false;
  }
  Agent* copy = event->getAgent();
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[7] = std::to_wstring(copy->getGUID());
  std::vector<Agent*> found = getManagedEndpointProcess(MATCH_GUID, criteria);
  if (found.empty()) {
    QOR_TRACE_DETAIL("No update agent required. Agent not found / Process not found %s(%s)\n",
                     qor_narrow(copy->getInstanceProcName()).c_str(), qor_narrow(copy->getInstanceName()).c_str());
    managedEndpointProcesses.unlockList();
    return false;
  }
  Agent* live = found.front();
  if (!resultStillFits(command, event, live, recycle, trace)) {
    QOR_TRACE_DETAIL("No update agent required. Agent already in correct state %s(%s)\n",
                     qor_narrow(copy->getInstanceProcName()).c_str(), qor_narrow(copy->getInstanceName()).c_str());
    managedEndpointProcesses.unlockList();
    return false;
  }
  // Only the process id is carried over; the state machine does the rest.
  live->setProcID(copy->getProcID());
  event->setAgent(live, false);
  delete copy;
  event->processEvent();
  managedEndpointProcesses.unlockList();
  return true;
}

// Keeps an outdated result, one whose agent has moved on while the scripts
// ran (an operator's command crossing an automatic restart), from disturbing
// it. May change the event's opState so that the state machine takes the
// right row.
bool Controller::resultStillFits(TEOEvents command, AgentOpEvent* event, const Agent* live, bool recycle,
                                 const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  const int expected = command == agent_start_cmd ? OpStarting : OpStopping;
  const int state = live->getOperatingState();
  QOR_TRACE_DETAIL("currstate: %d, agstate=%d \n", state, expected);
  if (state == expected) return true;
  const int id = event->getEventTypeID();
  QOR_TRACE_DETAIL("increment flag: %d, eventID: %d\n", event->getIncrementFlag() ? 1 : 0, id);
  if (state == OpManuallyStopped && id != agent_stopped) {
    event->setOpState(OpStopping);
    return true;
  }
  if (state == OpRunning && !(!event->getIncrementFlag() && id == agent_started && !recycle)) {
    event->setOpState(OpStarting);
    return true;
  }
  if (state == OpStopping && expected == OpStarting && event->getIncrementFlag()) {
    event->setOpState(OpStarting);
    return true;
  }
  if (id == agent_restart_failed) {
    event->allowMessages();
    return true;
  }
  return false;
}
