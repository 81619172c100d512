#include "watchdog/qorwd.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "platform/osv1.h"
#include "watchdog/qorcmd.h"

QOR_TRACE_UNIT();

int32_t WD_START_RETRY_COUNT = 3;
int32_t WD_START_RETRY_INTERVAL = 3;
int32_t WD_STATUS_RETRY_COUNT = 1;

Watchdog::Watchdog()
    : controller(Controller::getController()),
      agent(nullptr),
      cmdManager(GetCmdManager()),
      startRetryCount(WD_START_RETRY_COUNT) {}

Watchdog::Watchdog(const Watchdog& source)
    : controller(Controller::getController()),
      agent(nullptr),
      cmdManager(source.cmdManager),
      startRetryCount(source.startRetryCount) {}

Watchdog::~Watchdog() = default;

namespace {

// The name the process table knows the agent by: its instance process name,
// or its process name when it has none.
std::wstring processNameOf(const Agent* agent) {
  std::wstring name = agent->getInstanceProcName();
  return name.empty() ? agent->getProcName() : name;
}

int dayOfYear(time_t when) {
  struct tm local;
  localtime_r(&when, &local);
  return local.tm_yday;
}

// A time as the traces show it, ending in a line feed of its own.
std::string timeText(time_t when) {
  char buffer[32] = {0};
  return ctime_r(&when, buffer) != nullptr ? std::string(buffer) : std::string("\n");
}

// A figure cut to an int for a trace. Through long long, so that a memory
// size beyond the range of int wraps instead of being undefined.
int cutToInt(double value) { return static_cast<int>(static_cast<long long>(value)); }

// The states in which the agent's process is not there to be checked.
bool isDownState(int state) { return state == OpStopped || state == OpStopping; }

}  // namespace

int Watchdog::getOperatingState() {
  // The process id found is not taken into the record here.
  int pid = agent->getProcID();
  return cmdManager->getAppOperatingState(processNameOf(agent), agent->getInstanceName(), agent->getPath(),
                                          pid, agent->getPolicy());
}

void Watchdog::collectProcessData() { cmdManager->collectProcessData(agent); }

void Watchdog::processOpStateEvent(int opState, int eventID, const std::wstring& text) const {
  AgentOpEvent* event = new AgentOpEvent();
  event->setAgent(agent);
  event->setOpState(opState);
  event->setEventTypeID(eventID);
  event->setUserMessage(text);
  event->processEvent();
}

// ---- The scheduled check ----------------------------------------------------

void Watchdog::checkAvailability() {
  QOR_TRACE_FUNCTION();
  // The steps trace under checkAvailability's name, whichever writes the line.
  const LOG1_Context trace = QOR_TRACE_CONTEXT();
  const time_t now = time(nullptr);
  if (!isDue(now, trace)) return;
  QOR_TRACE_STATUS("Agent %s checked at %s", agent->getshortID().c_str(), timeText(now).c_str());

  int rc = 0;
  std::wstring output;
  std::wstring msgID;
  const int state = findState(rc, output, msgID, trace);
  if (rc == QOR_CMD_TIMED_OUT) {
    // A hung status command says nothing about the agent: no event.
    QOR_TRACE_STATUS("Availability command timed out for agent %s, check next cycle.\n",
                     agent->getshortID().c_str());
  } else if (isDownState(state)) {
    reportDown(rc, output, msgID, trace);
  } else if (state == OpRunning) {
    reportUp(msgID, trace);
  }
  // The time the check began, so that a long script does not push the next
  // check out.
  agent->setCheckTime(now);
}

bool Watchdog::isDue(time_t now, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  time_t lastChecked = 0;
  if (!agent->getLastChecked(lastChecked)) {
    // A first check is compared with the service's start and never skipped.
    const int nowDay = dayOfYear(now);
    const int startDay = dayOfYear(controller->getStartup());
    QOR_TRACE_DETAIL("Day of year check (now)%d (teo_start)%d.\n", nowDay, startDay);
    resetOnNewDay(nowDay, startDay, trace);
    return true;
  }
  const int nowDay = dayOfYear(now);
  const int checkedDay = dayOfYear(lastChecked);
  QOR_TRACE_DETAIL("Day of year check (now)%d (checked)%d.\n", nowDay, checkedDay);
  // Kept: the count is reset before the frequency test, so a skipped check may already have reset it.
  resetOnNewDay(nowDay, checkedDay, trace);

  const double elapsed = difftime(now, lastChecked);
  if (elapsed < 0.0) {
    // The wall clock was set back past the last check. Measured from a check
    // that seems to lie ahead, the agent would wait out the whole change, an
    // hour for a clock set back an hour, before it were checked again. It is
    // checked now, and its schedule starts afresh from this check.
    QOR_TRACE_DETAIL("Agent %s was last checked %f sec ahead of now: the clock was set back, checking now.\n",
                     agent->getshortID().c_str(), -elapsed);
    QOR_TRACE_DETAIL("Now(%s) ", timeText(now).c_str());
    QOR_TRACE_DETAIL("LastChecked(%s)", timeText(lastChecked).c_str());
    return true;
  }
  QOR_TRACE_DETAIL("Agent %s was last checked %f sec ago.\n", agent->getshortID().c_str(), elapsed);
  QOR_TRACE_DETAIL("Now(%s) ", timeText(now).c_str());
  QOR_TRACE_DETAIL("LastChecked(%s)", timeText(lastChecked).c_str());
  if (static_cast<double>(agent->getPolicy()->getCheckFrequencyElement()) > elapsed) {
    QOR_TRACE_DETAIL("Agent being skipped.\n");
    return false;
  }
  return true;
}

// Kept: only the day of the year counts: a check a year later on the same day keeps the count.
void Watchdog::resetOnNewDay(int nowDay, int otherDay, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  if (nowDay == otherDay) return;
  QOR_TRACE_STATUS("Reset restart count for agent %s new day %d.\n", agent->getshortID().c_str(), nowDay);
  agent->resetDailyRestartCount();
}

int Watchdog::findState(int& rc, std::wstring& output, std::wstring& msgID, const LOG1_Context& trace) {
  Policy* policy = agent->getPolicy();
  const bool noScript = policy->getAvailabilityStatusScript()->empty();
  if (noScript && isSystemService()) {
    std::wstring name = agent->getServiceInstanceName();
    if (name.empty()) name = policy->getServiceName();
    const int state = cmdManager->getSystemOperatingState(name);
    // 0: the platform has no such query, and the process table decides.
    if (state != 0) return state;
  }
  if (noScript) {
    // Kept: the instance process name goes in even when empty, with no fall back on the process name.
    int pid = agent->getProcID();
    return cmdManager->getAppOperatingState(agent->getInstanceProcName(), agent->getInstanceName(),
                                            agent->getPath(), pid, policy);
  }
  rc = runStatusScript(output, msgID, trace);
  if (rc == QOR_CMD_TIMED_OUT) return OpUnknown;
  return rc == 0 ? OpRunning : OpStopped;
}

// Runs the status script, once more after each time-out while retries are
// left; the retry flag doubles the next run's time-out and keeps the cycle's
// checks of this agent back meanwhile.
int Watchdog::runStatusScript(std::wstring& output, std::wstring& msgID, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  // A negative count still runs the script once: without a run the agent
  // would read as up.
  const int retries = std::max<int32_t>(0, WD_STATUS_RETRY_COUNT);
  QorScript* script = agent->getPolicy()->getAvailabilityStatusScript();
  int rc = 0;
  for (int tries = 0; tries <= retries;) {
    rc = cmdManager->executeCmd(script, output, msgID, agent);
    agent->resetAvailCheckRetry();
    if (rc != QOR_CMD_TIMED_OUT) break;
    ++tries;
    if (tries <= retries) {
      QOR_TRACE_STATUS("Status command timed out. Will retry once.\n");
      agent->setAvailCheckRetry();
    }
  }
  return rc;
}

// The agent is down: the first row that applies decides what is asked for.
void Watchdog::reportDown(int rc, const std::wstring& output, const std::wstring& msgID,
                          const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  QOR_TRACE_STATUS("Agent was stopped or stopping.\n");
  const int recorded = agent->getOperatingState();
  const std::string id = agent->getshortID();
  if (recorded == OpManuallyStopped) {
    QOR_TRACE_STATUS("Agent was manually stopped and will not be restarted.\n");
  } else if (controller->isDisarmed()) {
    QOR_TRACE_STATUS("Disarm mode active. Agent is stopped and will not be restarted.\n");
    processOpStateEvent(OpStopped, agent_restart_disabled, std::wstring());
  } else if (!ExecPathExists()) {
    QOR_TRACE_ERROR("Error: Agent does not exist on system.\n");
    processOpStateEvent(OpNotFound, agent_not_found, msgID);
  } else if (recorded == OpStopped) {
    QOR_TRACE_STATUS("Starting agent %s for the first time.\n", id.c_str());
    processOpStateEvent(OpStopped, agent_initial_start, msgID);
  } else if (getOperatingState() == OpRunning) {
    QOR_TRACE_STATUS("Availability script failed but agent %s is still up, rc = %d, command output < %s >.\n",
                     id.c_str(), rc, qor_narrow(output).c_str());
    QOR_TRACE_STATUS("Restarting unhealthy agent %s.\n", id.c_str());
    processOpStateEvent(OpRunning, agent_stopped_abnormally, msgID);
  } else {
    QOR_TRACE_STATUS("Availability script failed and agent %s is down, rc = %d, command output < %s >.\n",
                     id.c_str(), rc, qor_narrow(output).c_str());
    QOR_TRACE_STATUS("Starting unavailable agent %s.\n", id.c_str());
    processOpStateEvent(OpStopped, agent_stopped_abnormally, msgID);
  }
}

void Watchdog::reportUp(const std::wstring& msgID, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  if (agent->getOperatingState() != OpRunning) {
    QOR_TRACE_STATUS("Sync agent operating state with actual running state.\n");
    // The event carries the state the record has now; the state machine
    // decides from it.
    processOpStateEvent(agent->getOperatingState(), agent_started, msgID);
  }
  // An agent known by its status script alone has no process to measure.
  if (agent->getProcID() != 0) checkHealth();
  controller->checkRemoteDeploy(agent->getPolicy(), true);
}

// ---- Health -------------------------------------------------------------------

void Watchdog::checkHealth() {
  QOR_TRACE_FUNCTION();
  refreshRuntimeData();
  Policy* policy = agent->getPolicy();
  const int pid = agent->getProcID();
  bool cpuExceeded = false;
  bool memoryExceeded = false;

  // Both limits are strict, and 0 switches a test off. Memory is not looked
  // at once the CPU is over.
  const double cpu = static_cast<double>(agent->getTotalCPUPercent());
  QOR_TRACE_DETAIL("Agent (pid %d), total cpu %E %%.\n", pid, cpu);
  const double cpuLimit = static_cast<double>(policy->getCPUThreshold());
  if (cpuLimit > 0.0 && cpu > cpuLimit) {
    QOR_TRACE_STATUS("Agent (pid = %d) will be restarted. CPU usage %d execeeded threshold of %d.\n", pid,
                     cutToInt(cpu), cutToInt(cpuLimit));
    cpuExceeded = true;
  } else {
    const double memory = static_cast<double>(agent->getTotalMemSizeBytes());
    QOR_TRACE_DETAIL("Agent pid %d, memory %E bytes.\n", pid, memory);
    const double memoryLimit = policy->getMemoryThreshold();
    if (memoryLimit > 0.0 && memory > memoryLimit) {
      QOR_TRACE_STATUS("Agent (pid = %d) will be restarted. Memory usage %d execeeded threshold of %d.\n",
                       pid, cutToInt(memory), cutToInt(memoryLimit));
      memoryExceeded = true;
    }
  }
  if (!cpuExceeded && !memoryExceeded) return;

  if (controller->isDisarmed()) {
    QOR_TRACE_STATUS("Disarm mode active. Agent has health problems but will not be restarted.\n");
    return;
  }
  if (memoryExceeded) {
    QOR_TRACE_STATUS("Invoking agent exceeds memory command.\n");
    processOpStateEvent(OpRunning, agent_memory_exceeded, std::wstring());
  } else {
    QOR_TRACE_STATUS("Invoking agent exceeds cpu command.\n");
    processOpStateEvent(OpRunning, agent_cpu_exceeded, std::wstring());
  }
}

// Rates over the time since the last check; for an agent never checked, the
// lifetime average of its process.
void Watchdog::refreshRuntimeData() {
  time_t lastChecked = 0;
  const bool checked = agent->getLastChecked(lastChecked);
  long since = static_cast<long>(lastChecked);
  cmdManager->collectRuntimeData(agent, checked ? &since : nullptr);
}

void Watchdog::collectRuntimeData() {
  QOR_TRACE_FUNCTION();
  const time_t now = time(nullptr);
  refreshRuntimeData();
  agent->setCheckTime(now);
}

// ---- Small queries ------------------------------------------------------------

bool Watchdog::isSystemService() const {
  QOR_TRACE_FUNCTION();
  const AgentType type = agent->getType();
  if (type != WinService && type != LnxService && type != UnixDaemon) return false;
  QOR_TRACE_DETAIL("Agent is %s.\n", AgentTypeString[type]);
  return true;
}

bool Watchdog::ExecPathExists() {
  QOR_TRACE_FUNCTION();
  const std::wstring name = processNameOf(agent);
  const std::wstring path = agent->getPath();
  const size_t slash = path.rfind(L'/');
  // Kept: the file is opened for reading, so one that exists but cannot be read counts as missing.
  const std::wstring file = slash == std::wstring::npos ? name : path.substr(0, slash + 1) + name;
  return FileExists(file);
}

// ---- Actions ------------------------------------------------------------------
// A policy lists in its dependent agents the agents it needs: a start first
// starts what it lists, a stop first stops every agent that lists it.

namespace {

// The live agents whose subagent id is `id`, in list order: every instance of
// a dependent. The first one stands for the dependent.
// Requires: managedEndpointProcesses locked by the caller.
std::vector<Agent*> findDependents(Controller* controller, const std::wstring& id) {
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  criteria[3] = id;
  return controller->getManagedEndpointProcess(Controller::MATCH_ID, criteria);
}

// The first live agent whose subagent id is `id`, or null.
// Requires: managedEndpointProcesses locked by the caller.
Agent* findDependent(Controller* controller, const std::wstring& id) {
  std::vector<Agent*> found = findDependents(controller, id);
  return found.empty() ? nullptr : found.front();
}

// The name a service is started and stopped by: its instance's service name,
// or the policy's.
std::wstring serviceNameOf(const Agent* agent) {
  std::wstring name = agent->getServiceInstanceName();
  return name.empty() ? agent->getPolicy()->getServiceName() : name;
}

// Posts a state event on the dependent's own checker. An agent without one
// is not managed, and nothing could act on the event.
void askDependent(const Agent* dependent, int opState, int eventID) {
  if (dependent->getWatchdog() != nullptr)
    dependent->getWatchdog()->processOpStateEvent(opState, eventID, L"");
}

}  // namespace

bool Watchdog::initiate_Stop(AgentOpEvent* event) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Initiating stop of agent id (%s).\n", agent->getshortID().c_str());
  stopDependentAgents();
  // With the flag clear the caller only wanted the state recorded.
  if (event->getActionFlag() && !controller->cmdExecutionThread(agent_stop_cmd, event)) return false;
  return true;
}

int Watchdog::initiate_Start(AgentOpEvent* event) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Initiating starting of agent id (%s).\n", agent->getshortID().c_str());
  const int status = startDependentAgents();
  if (status != 0) return status;
  return controller->cmdExecutionThread(agent_start_cmd, event) ? 0 : 7;
}

bool Watchdog::initiate_Recycle(AgentOpEvent* event) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Initiating recycle of agent id (%s).\n", agent->getshortID().c_str());
  stopDependentAgents();
  // Kept: a recycle runs whatever the action flag says.
  return controller->cmdExecutionThread(agent_recycle_cmd, event);
}

void Watchdog::stopDependentAgents() const {
  QOR_TRACE_FUNCTION();
  const std::wstring id = agent->getID();
  for (Agent* entry : *controller->getManagedEndpointProcesses()) {
    if (entry == nullptr) {
      QOR_TRACE_DETAIL("Null agent returned in process list.\n");
      continue;
    }
    if (entry->getPolicy() == nullptr || !entry->getPolicy()->isDependentAgent(id)) continue;
    const int state = entry->getOperatingState();
    if (state == OpStarting || state == OpRunning) {
      askDependent(entry, OpRunning, agent_stop_cmd);
    } else {
      QOR_TRACE_DETAIL("Agent id %s was already stopped or stopping.\n", entry->getshortID().c_str());
    }
  }
}

int Watchdog::startDependentAgents() const {
  QOR_TRACE_FUNCTION();
  int status = 0;
  const std::vector<std::wstring> ids = agent->getPolicy()->getDependentAgents();
  QOR_TRACE_DETAIL("Size of dependency list = %d\n", static_cast<int>(ids.size()));
  if (ids.empty()) {
    QOR_TRACE_DETAIL("No dependencies found.\n");
    return 0;
  }
  for (const std::wstring& id : ids) {
    const std::string shortID = qor_narrow(id);
    QOR_TRACE_DETAIL("Dependent agent id = %s\n", shortID.c_str());
    // The trace counts every instance found, though only the first is looked at.
    const std::vector<Agent*> found = findDependents(controller, id);
    Agent* dependent = found.empty() ? nullptr : found.front();
    QOR_TRACE_DETAIL("Size of agentCollection = %d\n", static_cast<int>(found.size()));
    QOR_TRACE_DETAIL("Address of agent = %d\n", static_cast<int>(reinterpret_cast<intptr_t>(dependent)));
    if (dependent == nullptr) {
      QOR_TRACE_DETAIL("Dependent agent id %s not found\n", shortID.c_str());
      status = 1;
      continue;
    }
    switch (dependent->getOperatingState()) {
      case OpUnknown:
      case OpNotFound:
        QOR_TRACE_DETAIL("Agent id %s is UNMANAGED and will not be started.\n", shortID.c_str());
        status = dependent->getOperatingState() == OpNotFound ? 2 : 3;
        break;
      case OpStopped:
        // The state machine takes a running agent that stopped abnormally to
        // a restart, which is what a stopped dependent needs.
        QOR_TRACE_DETAIL("Starting dependent agent id %s.\n", shortID.c_str());
        askDependent(dependent, OpRunning, agent_stopped_abnormally);
        break;
      case OpStarting:
      case OpRunning:
        QOR_TRACE_DETAIL("Agent id %s was already started or starting.\n", shortID.c_str());
        break;
      case OpManuallyStopped:
      case OpStopping:
        QOR_TRACE_DETAIL("Agent id %s was stopped or stopping and will not be started.\n", shortID.c_str());
        status = 4;
        break;
      default:
        break;
    }
  }
  return status;
}

int Watchdog::startDependentAgentsStatus() const {
  QOR_TRACE_FUNCTION();
  const std::vector<std::wstring> ids = agent->getPolicy()->getDependentAgents();
  if (ids.empty()) {
    QOR_TRACE_DETAIL("No dependencies found.\n");
    return 0;
  }
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  int status = 7;
  bool retry = true;
  for (int sweeps = 0; retry && sweeps < WD_START_RETRY_COUNT; ++sweeps) {
    retry = false;
    for (const std::wstring& id : ids) {
      if (controller->isShuttingDown()) {
        QOR_TRACE_DETAIL("Shutdown in progress\n");
        break;
      }
      if (!list->lockList()) {
        retry = false;
        QOR_TRACE_ERROR("Unable to obtain process list lock.\n");
        continue;
      }
      const std::string shortID = qor_narrow(id);
      Agent* dependent = findDependent(controller, id);
      const int state = dependent != nullptr ? dependent->getOperatingState() : -1;
      if (dependent == nullptr) {
        QOR_TRACE_DETAIL("Dependent agent id %s not found\n", shortID.c_str());
        status = 1;
      } else if (state == OpUnknown || state == OpNotFound) {
        QOR_TRACE_DETAIL("Agent id %s is UNMANAGED or not found and start test is invalid.\n",
                         shortID.c_str());
        status = state == OpNotFound ? 2 : 3;
      } else if (state == OpStopped || state == OpManuallyStopped || state == OpStopping) {
        QOR_TRACE_DETAIL("Agent id %s was stopped or stopping is not started.\n", shortID.c_str());
        status = 4;
      } else if (state == OpStarting) {
        QOR_TRACE_DETAIL("Dependent agent is in startup mode, need to wait %s.\n", shortID.c_str());
        retry = true;
      } else if (state == OpRunning) {
        QOR_TRACE_DETAIL("Agent id %s was started.\n", shortID.c_str());
        status = 0;
      }
      list->unlockList();
    }
    if (controller->isShuttingDown()) {
      retry = false;
      QOR_TRACE_DETAIL("Shutdown in progress\n");
    }
    if (retry) {
      QOR_TRACE_DETAIL("Entering retry sleep for %d sec\n", WD_START_RETRY_INTERVAL);
      OSV1_Sleep(WD_START_RETRY_INTERVAL);
      QOR_TRACE_DETAIL("Woke up from retry sleep\n");
    }
  }
  return status;
}

int Watchdog::stop(std::wstring& message) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Stopping agent id (%s).\n", agent->getshortID().c_str());
  Policy* policy = agent->getPolicy();
  QorScript* script = policy->getStopScript();
  if (isSystemService() && script->empty()) return cmdManager->systemStop(serviceNameOf(agent));
  if (!script->empty()) {
    std::wstring output;
    return cmdManager->executeCmd(script, output, message, agent);
  }
  return cmdManager->appStop(agent->getInstanceProcName(), agent->getProcID(), policy);
}

int Watchdog::start(std::wstring& message) {
  QOR_TRACE_FUNCTION();
  const LOG1_Context trace = QOR_TRACE_CONTEXT();
  QOR_TRACE_DETAIL("Starting agent id (%s).\n", agent->getshortID().c_str());
  QOR_TRACE_DETAIL("Agent opstate (%d).\n", agent->getOperatingState());
  int status = startDependentAgentsStatus();
  if (status != 0) {
    QOR_TRACE_ERROR("Failed to start agent id %s due to dependent agent error (%d).\n",
                    agent->getshortID().c_str(), status);
    return status;
  }
  // The back-off grows with each attempt: 0, 1, 2, ... times the interval.
  int rc = 0;
  for (int attempt = 0;;) {
    QOR_TRACE_DETAIL("Entering sleep for %d seconds\n", attempt * WD_START_RETRY_INTERVAL);
    OSV1_Sleep(attempt * WD_START_RETRY_INTERVAL);
    ++attempt;
    QOR_TRACE_DETAIL("Waking from sleep for start retry\n");
    QOR_TRACE_DETAIL("Agent opstate (%d).\n", agent->getOperatingState());
    rc = startAttempt(message, status, trace);
    // No way to start the agent at all: final, with no retry.
    if (status == 6) break;
    const bool retriesLeft = startRetryCount >= attempt;
    if (rc != 0 && retriesLeft) {
      if (controller->isDisarmed()) {
        QOR_TRACE_DETAIL("Disarm mode active. Agent start failed and no retry will be executed.\n");
      } else {
        QOR_TRACE_ERROR("Start command attempt %d failed for agent id %s. Will retry in %d seconds\n",
                        attempt, agent->getshortID().c_str(), attempt * WD_START_RETRY_INTERVAL);
      }
    }
    if (rc == 0 || !retriesLeft || controller->isDisarmed()) break;
  }
  if (rc != 0) QOR_TRACE_ERROR("Failed to start agent id %s.\n", agent->getshortID().c_str());
  return status;
}

int Watchdog::startAttempt(std::wstring& message, int& status, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  Policy* policy = agent->getPolicy();
  const std::string id = agent->getshortID();
  status = 0;
  QorScript* config = policy->getConfigScript();
  if (!config->empty()) {
    QOR_TRACE_DETAIL("Running config script for agent id %s\n", id.c_str());
    std::wstring output;
    const int rc = cmdManager->executeCmd(config, output, message, agent);
    if (rc != 0) {
      QOR_TRACE_ERROR("Failed to start agent id %s due to error in config script\n", id.c_str());
      status = 5;
      return rc;
    }
  }
  QorScript* script = policy->getStartScript();
  if (isSystemService() && script->empty()) {
    const int rc = cmdManager->systemStart(serviceNameOf(agent), agent);
    if (rc != 0) status = 7;
    return rc;
  }
  if (script->empty()) {
    QOR_TRACE_ERROR("Failed to start agent id %s. Start script not found\n", id.c_str());
    status = 6;
    return -1;
  }
  std::wstring output;
  const int rc = cmdManager->executeCmd(script, output, message, agent);
  if (rc != 0) status = 7;
  return rc;
}
