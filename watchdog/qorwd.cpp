#include "watchdog/qorwd.h"

#include <algorithm>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
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
