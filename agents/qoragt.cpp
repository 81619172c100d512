#include "agents/qoragt.h"

#include "cap/qorconv.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorunx.h"
#include "watchdog/qorwd.h"

QOR_TRACE_UNIT();

const std::wstring versionString = L"6.2.2.2";

std::atomic<int> Agent::guid_counter{0};

Agent::Agent() : guid(++guid_counter), version(versionString) {}

Agent::Agent(const Agent& source, bool shallow)
    : guid(source.guid),
      name(source.name),
      operatingState(source.operatingState),
      managedState(source.managedState),
      dailyRestartCount(source.dailyRestartCount),
      reportCountExceededFlag(source.reportCountExceededFlag),
      reportRestartFailureFlag(source.reportRestartFailureFlag),
      countExceeded(source.countExceeded),
      version(source.version),
      id(source.id),
      shortID(source.shortID),
      procID(source.procID),
      parentProcID(source.parentProcID),
      procName(source.procName),
      path(source.path),
      instanceProcName(source.instanceProcName),
      serviceInstanceName(source.serviceInstanceName),
      instanceName(source.instanceName),
      type(source.type),
      policy(source.policy != nullptr ? new Policy(*source.policy) : nullptr),
      cmdLine(source.cmdLine),
      agentVersion(source.agentVersion),
      agentBuildNumber(source.agentBuildNumber),
      userName(source.userName),
      watchdog(nullptr),
      checkMask(source.checkMask),
      prevKernelCPU(source.prevKernelCPU),
      prevUserCPU(source.prevUserCPU),
      kernelCPU(source.kernelCPU),
      userCPU(source.userCPU),
      timeInterval(source.timeInterval),
      timeIntervalInSec(source.timeIntervalInSec),
      handleCount(source.handleCount),
      threadCount(source.threadCount),
      memSizeBytes(source.memSizeBytes),
      memSizePages(source.memSizePages),
      prevPageFaults(source.prevPageFaults),
      pageFaults(source.pageFaults),
      residentSetSize(source.residentSetSize),
      vmSize(source.vmSize),
      prevTotalKernelCPU(source.prevTotalKernelCPU),
      prevTotalUserCPU(source.prevTotalUserCPU),
      totalKernelCPU(source.totalKernelCPU),
      totalUserCPU(source.totalUserCPU),
      memSizeSum(source.memSizeSum),
      totalCPUPercent(source.totalCPUPercent),
      totalMemSizeBytes(source.totalMemSizeBytes),
      lastChecked(source.lastChecked),
      checked(source.checked),
      availCheckRetry(source.availCheckRetry),
      savedState(source.savedState) {
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
  operatingState = state;
  if (state != OpStopped && state != OpManuallyStopped && state != OpUnknown && state != OpNotFound) return;
  // No process any more: its id and figures go; the totals stay.
  procID = 0;
  parentProcID = 0;
  prevKernelCPU = 0;
  prevUserCPU = 0;
  kernelCPU = 0;
  userCPU = 0;
  timeInterval = 0;
  timeIntervalInSec = 0;
  handleCount = 0;
  threadCount = 0;
  memSizeBytes = 0;
  memSizePages = 0;
  prevPageFaults = 0;
  pageFaults = 0;
  residentSetSize = 0;
  vmSize = 0;
}

void Agent::resetDailyRestartCount() {
  dailyRestartCount = 0;
  countExceeded = false;
  reportCountExceededFlag = true;
  reportRestartFailureFlag = true;
}

void Agent::resetReportCountExceeded() {
  reportCountExceededFlag = false;
  countExceeded = true;
}

void Agent::setID(const std::wstring& text) {
  id = text;
  char buffer[1024];
  int length = 0;
  int error = 0;
  char* utf8 = qor_u_strToUTF8(buffer, sizeof buffer, &length, text.c_str(), -1, &error);
  // A text that does not convert leaves the old short id in place.
  if (utf8 != nullptr && error == 0) shortID = utf8;
  if (utf8 != buffer) delete[] utf8;
}

void Agent::setPath(const std::wstring& text) { path = ReplaceEnvVariables(text); }

void Agent::setKernelCPU(unsigned long long value) {
  prevKernelCPU = kernelCPU;
  kernelCPU = value;
}

void Agent::setUserCPU(unsigned long long value) {
  prevUserCPU = userCPU;
  userCPU = value;
}

void Agent::setPageFaults(unsigned int count) {
  prevPageFaults = pageFaults;
  pageFaults = count;
}

unsigned long long Agent::getKernelCPUPercent() const {
  if (timeInterval == 0) return 0;
  return (kernelCPU - prevKernelCPU) * 100 / timeInterval;
}

unsigned long long Agent::getUserCPUPercent() const {
  if (timeInterval == 0) return 0;
  return (userCPU - prevUserCPU) * 100 / timeInterval;
}

unsigned long long Agent::getCPUPercent() const { return getKernelCPUPercent() + getUserCPUPercent(); }

unsigned long long Agent::getPageFaultsPerSec() const {
  if (timeIntervalInSec == 0) return 0;
  return (pageFaults - prevPageFaults) / timeIntervalInSec;
}

unsigned long long Agent::getTotalCPUPercent() const {
  return totalCPUPercent != 0 ? totalCPUPercent : getCPUPercent();
}

unsigned long Agent::getTotalMemSizeBytes() const {
  return totalMemSizeBytes != 0 ? totalMemSizeBytes : memSizeBytes;
}

void Agent::resetTotalCounters() {
  prevTotalKernelCPU = totalKernelCPU;
  totalKernelCPU = 0;
  prevTotalUserCPU = totalUserCPU;
  totalUserCPU = 0;
  memSizeSum = 0;
}

void Agent::calculateTotalCounters() {
  totalMemSizeBytes = memSizeSum;
  if (timeInterval == 0) {
    totalCPUPercent = 0;
    return;
  }
  totalCPUPercent =
      ((totalKernelCPU - prevTotalKernelCPU) + (totalUserCPU - prevTotalUserCPU)) * 100 / timeInterval;
}

bool Agent::getLastChecked(time_t& when) const {
  if (!checked) return false;
  when = lastChecked;
  return true;
}

void Agent::setCheckTime(time_t when) {
  lastChecked = when;
  checked = true;
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
    agentVersion = firstOutputLine(policy->getAgentVersionScript(), this);
    QOR_TRACE_DETAIL("agentVersion = %s\n", QOR_N(agentVersion));
  }
  if (!policy->getAgentBuildNumberScript()->empty()) {
    agentBuildNumber = firstOutputLine(policy->getAgentBuildNumberScript(), this);
    QOR_TRACE_DETAIL("agentBuildNumber = %s\n", QOR_N(agentBuildNumber));
  }
}

void Agent::setZELUserName() {
  // Stand-in: the run-as files are read by ZELUserProcessor, which comes with
  // the run-as user resolution in watchdog/qorusr.cpp; until then the user
  // name stays as it is.
}

bool Agent::match(QorProcess* process) const {
  if (type == ZEL_UNIX || type == ZEL_Windows) return instanceName == process->getInstanceName();
  return instanceProcName == process->getInstanceProcName();
}

bool Agent::isZELInstanceHolder() const {
  return (type == ZEL_UNIX || type == ZEL_Windows) && instanceName.empty();
}

bool Agent::isWatchDogAgent() const { return id == L"qorwd"; }
