#include "cap/qorpol.h"

#include <unicode/regex.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "core/qorutil.h"
#include "platform/log1.h"
#include "watchdog/qorinst.h"
#include "watchdog/qorunx.h"

QOR_TRACE_UNIT();

const char* const AgentTypeString[] = {
    "ZEL UNIX",         // ZEL_UNIX
    "Console",          // Console
    "Windows Service",  // WinService
    "Discover ZEL",     // DiscoverZEL
    "Discover Binary",  // DiscoverBIN
    "Linux Service",    // LnxService
    "Unix Daemon",      // UnixDaemon
};
static_assert(std::size(AgentTypeString) == AGENT_TYPE_STRING_COUNT, "one text per agent type 0 to 6");

const std::wstring ZEL_AGENT_NOT_CONFIGURED = L"<not configured>";
const std::wstring QOR_CMD_TIMEOUT_STRING = L"<command timed out>";

namespace {

bool contains(const std::vector<std::wstring>& names, const std::wstring& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// A matcher of its own for a copied policy, built from the pattern text of the
// source's; null when it does not compile.
icu::RegexMatcher* recompile(const icu::RegexMatcher* source) {
  if (source == nullptr) return nullptr;
  UErrorCode status = U_ZERO_ERROR;
  icu::RegexMatcher* matcher = new icu::RegexMatcher(source->pattern().pattern(), 0, status);
  if (U_FAILURE(status)) {
    delete matcher;
    return nullptr;
  }
  return matcher;
}

}  // namespace

// ---------------------------------------------------------------------------
// QorScript

void QorScript::setOriginalCommand(const std::wstring& text) {
  originalCommand = text;
  command = ReplaceEnvVariables(text);
}

void QorScript::addSuccessRC(int code, const std::wstring& msgID) {
  successRCs.insert(std::make_pair(code, msgID));
}

void QorScript::addErrorRC(int code, const std::wstring& msgID) {
  errorRCs.insert(std::make_pair(code, msgID));
}

std::wstring QorScript::getSuccessRCMsg(int code) const {
  auto found = successRCs.find(code);
  return found == successRCs.end() ? std::wstring() : found->second;
}

std::wstring QorScript::getErrorRCMsg(int code) const {
  auto found = errorRCs.find(code);
  return found == errorRCs.end() ? std::wstring() : found->second;
}

// ---------------------------------------------------------------------------
// Policy

Policy::Policy() = default;

Policy::Policy(const Policy& source)
    : subagentID(source.subagentID),
      shortSID(source.shortSID),
      CAPFileName(source.CAPFileName),
      CAPFileModifyTimestamp(source.CAPFileModifyTimestamp),
      CPUThreshold(source.CPUThreshold),
      memoryThresholdValue(source.memoryThresholdValue),
      memoryThresholdUnit(source.memoryThresholdUnit),
      maxRestartElement(source.maxRestartElement),
      managerTypeElement(source.managerTypeElement),
      agentNameElement(source.agentNameElement),
      // Kept: the copy takes the expanded path as its written one too; it never needs the written one.
      agentPathElement(source.agentPath),
      agentPath(source.agentPath),
      agentTypeElement(source.agentTypeElement),
      // Kept: the port is not carried over.
      agentPort(0),
      checkFrequencyElement(source.checkFrequencyElement),
      serviceName(source.serviceName),
      procName(source.procName),
      commandLine(source.commandLine),
      procRegEx(source.procRegEx),
      regexMatcher(recompile(source.regexMatcher)),
      dependentAgents(source.dependentAgents),
      productCode(source.productCode),
      osTypeAsEnum(source.osTypeAsEnum),
      osVersion(source.osVersion),
      osName(source.osName),
      kernelRelease(source.kernelRelease),
      archElement(source.archElement),
      agentVersionScript(source.agentVersionScript),
      agentBuildNumberScript(source.agentBuildNumberScript),
      startScript(source.startScript),
      stopScript(source.stopScript),
      availabilityStatusScript(source.availabilityStatusScript),
      configScript(source.configScript),
      vexinfRunningInstancesScript(source.vexinfRunningInstancesScript),
      zelInstancesScript(source.zelInstancesScript),
      instances(source.instances),
      // Kept: a copy has no exception instances: they belong to the live generic policy.
      // A copy that enumerated instances again would take them back in.
      exceptionInstances(),
      newInstances(source.newInstances),
      defaultZELInstance(source.defaultZELInstance),
      generic(source.generic) {}

Policy::~Policy() { delete regexMatcher; }

void Policy::setSubagentID(const std::wstring& id) {
  subagentID = id;
  shortSID = qor_narrow(id);
}

void Policy::setAgentPathElement(const std::wstring& path) {
  agentPathElement = path;
  agentPath = ReplaceEnvVariables(path);
}

void Policy::setAgentTypeElement(AgentType type) {
  QOR_TRACE_FUNCTION();
  agentTypeElement = type;
  if (type == WinService && !instances.empty()) {
    QOR_TRACE_DETAIL("Specific instances defined for Windows Service agent %s will be ignored.\n",
                     shortSID.c_str());
  }
}

void Policy::setRegexMatcher(icu::RegexMatcher* matcher) {
  if (matcher == regexMatcher) return;
  delete regexMatcher;
  regexMatcher = matcher;
}

double Policy::getMemoryThreshold() const {
  return std::ldexp(static_cast<double>(memoryThresholdValue), static_cast<int>(memoryThresholdUnit));
}

bool Policy::isDependentAgent(const std::wstring& id) const { return contains(dependentAgents, id); }

void Policy::setProductCode(const std::wstring& code) {
  productCode = code;
  CreateVexinfRunningInstancesScript(code, &vexinfRunningInstancesScript);
  CreateZELInstancesScript(code, &zelInstancesScript);
  loadZELInstances();
  newInstances = false;
}

bool Policy::isInstance(const std::wstring& name) const { return contains(instances, name); }

bool Policy::isExceptionInstance(const std::wstring& name) const {
  return contains(exceptionInstances, name);
}

void Policy::addInstance(const std::wstring& name) {
  QOR_TRACE_FUNCTION();
  if (isInstance(name)) return;
  instances.push_back(name);
  QOR_TRACE_DETAIL("Adding instance %s for agent %s.\n", QOR_N(name), QOR_N(productCode));
  newInstances = true;
}

void Policy::addExceptionInstances(Policy* specific) {
  QOR_TRACE_FUNCTION();
  for (const std::wstring& name : specific->instances) {
    auto found = std::find(instances.begin(), instances.end(), name);
    if (found != instances.end()) {
      instances.erase(found);
      QOR_TRACE_DETAIL("Removing instance %s from agent %s.\n", QOR_N(name), shortSID.c_str());
    }
    // Kept: appended in any case, so a repeated call lists a name twice.
    exceptionInstances.push_back(name);
    QOR_TRACE_DETAIL("Adding instance %s to exception list of agent %s.\n", QOR_N(name), shortSID.c_str());
  }
}

void Policy::removeExceptionInstances(Policy* specific) {
  QOR_TRACE_FUNCTION();
  for (const std::wstring& name : specific->instances) {
    auto found = std::find(exceptionInstances.begin(), exceptionInstances.end(), name);
    if (found == exceptionInstances.end()) continue;
    exceptionInstances.erase(found);
    QOR_TRACE_DETAIL("Removing exception instance %s from agent %s.\n", QOR_N(name), shortSID.c_str());
  }
}

std::wstring Policy::buildAgentName() const {
  if (generic) return agentNameElement;
  // Kept: with every instance gone this reads "name: ", the blank included.
  std::wstring name = agentNameElement + L": ";
  for (size_t i = 0; i < instances.size(); ++i) {
    if (i != 0) name += L", ";
    name += instances[i];
  }
  return name;
}
