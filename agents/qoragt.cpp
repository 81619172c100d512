#include "agents/qoragt.h"

#include "cap/qorconv.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorunx.h"
#include "watchdog/qorusr.h"
#include "watchdog/qorwd.h"

QOR_TRACE_UNIT();

const std::wstring versionString = L"6.2.2.2";

std::atomic<int> Agent::guid_counter{0};

Agent::Agent() : guid(++guid_counter) { identity.version = versionString; }

Agent::Agent(const Agent& source, bool shallow)
    : guid(source.guid),
      standing(source.standing),
      restarts(source.restarts),
      identity(source.identity),
      instance(source.instance),
      pids(source.pids),
      figures(source.figures),
      previous(source.previous),
      totals(source.totals),
      checks(source.checks),
      policy(source.policy != nullptr ? new Policy(*source.policy) : nullptr),
      watchdog(nullptr) {
  QOR_TRACE_FUNCTION();
  if (source.watchdog != nullptr && !shallow) {
    watchdog = new Watchdog(*source.watchdog);
    watchdog->setAgent(this);
    QOR_TRACE_DETAIL("Deep copy made, watchdog set.\n");
  }
}

Agent::~Agent() {
  delete watchdog;
  watchdog = nullptr;
  delete policy;
  policy = nullptr;
}

void Agent::setOperatingState(OperatingStates state) {
  standing.operatingState = state;
  if (state != OpStopped && state != OpManuallyStopped && state != OpUnknown && state != OpNotFound) return;
  // No process any more: its id and figures go; the totals stay.
  pids = ProcessIds{};
  figures = ProcessFigures{};
  previous = PreviousSample{};
}

void Agent::resetDailyRestartCount() { restarts = DailyRestarts{}; }

void Agent::resetReportCountExceeded() {
  restarts.reportCountExceeded = false;
  restarts.countExceeded = true;
}

void Agent::setID(const std::wstring& text) {
  identity.id = text;
  ConvertedText<char, 1024> utf8;
  int length = 0;
  int error = 0;
  utf8.adopt(qor_u_strToUTF8(utf8.buffer(), utf8.capacity(), &length, text.c_str(), -1, &error));
  // A text that does not convert leaves the old short id in place.
  if (utf8.get() != nullptr && error == 0) identity.shortID = utf8.get();
}

void Agent::setPath(const std::wstring& text) { identity.path = ReplaceEnvVariables(text); }

void Agent::setKernelCPU(unsigned long long value) {
  previous.kernelCPU = figures.kernelCPU;
  figures.kernelCPU = value;
}

void Agent::setUserCPU(unsigned long long value) {
  previous.userCPU = figures.userCPU;
  figures.userCPU = value;
}

void Agent::setPageFaults(unsigned int count) {
  previous.pageFaults = figures.pageFaults;
  figures.pageFaults = count;
}

unsigned long long Agent::getKernelCPUPercent() const {
  if (figures.timeInterval == 0) return 0;
  return (figures.kernelCPU - previous.kernelCPU) * 100 / figures.timeInterval;
}

unsigned long long Agent::getUserCPUPercent() const {
  if (figures.timeInterval == 0) return 0;
  return (figures.userCPU - previous.userCPU) * 100 / figures.timeInterval;
}

unsigned long long Agent::getCPUPercent() const { return getKernelCPUPercent() + getUserCPUPercent(); }

unsigned long long Agent::getPageFaultsPerSec() const {
  if (figures.timeIntervalInSec == 0) return 0;
  return (figures.pageFaults - previous.pageFaults) / figures.timeIntervalInSec;
}

unsigned long long Agent::getTotalCPUPercent() const {
  return totals.cpuPercent != 0 ? totals.cpuPercent : getCPUPercent();
}

unsigned long Agent::getTotalMemSizeBytes() const {
  return totals.memSizeBytes != 0 ? totals.memSizeBytes : figures.memSizeBytes;
}

void Agent::resetTotalCounters() {
  totals.prevKernelCPU = totals.kernelCPU;
  totals.kernelCPU = 0;
  totals.prevUserCPU = totals.userCPU;
  totals.userCPU = 0;
  totals.memSizeSum = 0;
}

void Agent::calculateTotalCounters() {
  totals.memSizeBytes = totals.memSizeSum;
  if (figures.timeInterval == 0) {
    totals.cpuPercent = 0;
    return;
  }
  totals.cpuPercent = ((totals.kernelCPU - totals.prevKernelCPU) + (totals.userCPU - totals.prevUserCPU)) *
                      100 / figures.timeInterval;
}

bool Agent::getLastChecked(time_t& when) const {
  if (!checks.checked) return false;
  when = checks.lastChecked;
  return true;
}

void Agent::setCheckTime(time_t when) {
  checks.lastChecked = when;
  checks.checked = true;
}

namespace {

// Runs one of the agent's information scripts; the first line of its output.
// The return code is not looked at.
std::wstring firstOutputLine(QorScript* script, Agent* agent) {
  std::wstring output;
  GetCmdManager()->executeCmd(script, output, agent);
  return output.substr(0, output.find(L'\n'));
}

}  // namespace

void Agent::setAgentInformation() {
  QOR_TRACE_FUNCTION();
  if (policy == nullptr) return;
  // Each script runs on the caller's thread; a list lock that the caller
  // holds is given up while it runs.
  if (!policy->getAgentVersionScript()->empty()) {
    instance.agentVersion = firstOutputLine(policy->getAgentVersionScript(), this);
    QOR_TRACE_DETAIL("agentVersion = %s\n", QOR_N(instance.agentVersion));
  }
  if (!policy->getAgentBuildNumberScript()->empty()) {
    instance.agentBuildNumber = firstOutputLine(policy->getAgentBuildNumberScript(), this);
    QOR_TRACE_DETAIL("agentBuildNumber = %s\n", QOR_N(instance.agentBuildNumber));
  }
}

void Agent::setZELUserName() {
  // Only the suite's agents have run-as files; any other agent learns its
  // user from its process.
  if (policy != nullptr && policy->isZELAgent()) ZELUserProcessor::collectZELUser(*this);
}

void Agent::nameInstanceAs(QorProcess* process, Policy* policy) {
  if (!policy->isZELAgent() && process->getInstanceName().empty()) {
    if (!policy->isConsole()) setServiceInstanceName(policy->getServiceName());
    return;
  }
  setInstanceName(process->getInstanceName());
  if (!policy->isZELAgent()) policy->addInstance(process->getInstanceName());
}

bool Agent::match(QorProcess* process) const {
  if (identity.type == ZEL_UNIX || identity.type == ZEL_Windows) {
    return instance.instanceName == process->getInstanceName();
  }
  return instance.instanceProcName == process->getInstanceProcName();
}

bool Agent::isZELInstanceHolder() const {
  return (identity.type == ZEL_UNIX || identity.type == ZEL_Windows) && instance.instanceName.empty();
}

void Agent::setIdentityFrom(Policy* source) {
  setID(source->getSubagentID());
  setPolicy(source);
  setName(source->buildAgentName());
  setProcName(source->getProcName());
  setPath(source->getAgentPath());
  setType(source->getAgentTypeElement());
}

bool Agent::isWatchDogAgent() const { return identity.id == L"qorwd"; }
