// The parsed definition of one supervised agent (Policy) and of one runnable
// command with the meaning of its return codes (QorScript), with the numbered
// enumerations the whole service exchanges as integers. Filled by the CAP file
// processor, read by agents, watchdogs and the API. No lock of its own: changes
// after parsing happen with the discovery and agent list locks held.
#ifndef QOR_CAP_QORPOL_H
#define QOR_CAP_QORPOL_H

#include <unicode/uversion.h>

#include <map>
#include <string>
#include <vector>

U_NAMESPACE_BEGIN
class RegexMatcher;
U_NAMESPACE_END

// How the agent is run and how its instances are found. The numbers are stored
// and exchanged as they stand.
enum AgentType {
  ZEL_UNIX = 0,
  Console = 1,
  WinService = 2,
  DiscoverZEL = 3,
  DiscoverBIN = 4,
  LnxService = 5,
  UnixDaemon = 6,
  ZEL_Windows = 7,
};

// Who looks after the agent.
enum ManagerType {
  NotManaged = 0,
  TeoServices = 1,
  WatchDog = 2,
  External = 3,
};

// The platform family named by the xsi:type of a CAP file's platform element.
enum OSType {
  PlatformUnset = 0,
  PlatformWindows = 1,
  PlatformLinux = 2,
  PlatformUnix = 3,
};

// The power of two that turns a stored memory figure into bytes.
enum MemoryUnit {
  MEM_BYTES = 0,
  MEM_KB = 10,
  MEM_MB = 20,
  MEM_GB = 30,
};

// Display texts of the agent types 0 to 6.
// Kept: no text for ZEL_Windows (7); only the system-service types 2, 5 and 6 are ever printed.
constexpr int AGENT_TYPE_STRING_COUNT = 7;
extern const char* const AgentTypeString[];

// The instance name the instance enumeration gives when the product has no
// configured instance, and the output a timed-out command gives in place of text.
extern const std::wstring ZEL_AGENT_NOT_CONFIGURED;
extern const std::wstring QOR_CMD_TIMEOUT_STRING;

// One command of an agent and what its return codes mean. A value type.
class QorScript {
 public:
  // Stores the text as written and, in `command`, its environment expansion.
  void setOriginalCommand(const std::wstring& text);
  std::wstring getOriginalCommand() const { return originalCommand; }
  // The text that is run.
  std::wstring getCommand() const { return command; }

  void setIsStartCommand() { commandKind = 1; }
  void setIsStopCommand() { commandKind = 2; }
  bool isStartCommand() const { return commandKind == 1; }
  bool isStopCommand() const { return commandKind == 2; }

  // A code that is already present keeps its first message.
  void addSuccessRC(int code, const std::wstring& msgID);
  void addErrorRC(int code, const std::wstring& msgID);
  bool isSuccessRC(int code) const { return successRCs.count(code) != 0; }
  bool isErrorRC(int code) const { return errorRCs.count(code) != 0; }
  // The message of a code, or empty when the code is absent.
  std::wstring getSuccessRCMsg(int code) const;
  std::wstring getErrorRCMsg(int code) const;

  bool empty() const { return command.empty(); }
  bool emptyRCs() const { return successRCs.empty() && errorRCs.empty(); }

 private:
  std::wstring originalCommand;
  std::wstring command;
  int commandKind = 0;  // 0 ordinary, 1 start, 2 stop
  std::map<int, std::wstring> successRCs;
  std::map<int, std::wstring> errorRCs;
};

class Policy {
 public:
  Policy();
  // A working duplicate for an agent's deep copy. Unlike a member-wise copy it
  // takes the expanded path into both path fields, leaves the exception
  // instances and the port behind, and compiles its own regular expression.
  Policy(const Policy& source);
  Policy& operator=(const Policy&) = delete;
  virtual ~Policy();

  // Stores the ID and its narrow form.
  void setSubagentID(const std::wstring& id);
  std::wstring getSubagentID() const { return subagentID; }
  std::string getShortSID() const { return shortSID; }

  void setCAPFileName(const std::wstring& path) { CAPFileName = path; }
  std::wstring getCAPFileName() const { return CAPFileName; }
  void setCAPFileModifyTimestamp(long seconds) { CAPFileModifyTimestamp = seconds; }
  long getCAPFileModifyTimestamp() const { return CAPFileModifyTimestamp; }

  void setCPUThreshold(long percent) { CPUThreshold = percent; }
  long getCPUThreshold() const { return CPUThreshold; }
  void setMemoryThreshold(long value, MemoryUnit unit) {
    memoryThresholdValue = value;
    memoryThresholdUnit = unit;
  }
  long getMemoryThresholdValue() const { return memoryThresholdValue; }
  MemoryUnit getMemoryThresholdUnit() const { return memoryThresholdUnit; }
  // The threshold in bytes: the value times two to the power of the unit.
  double getMemoryThreshold() const;

  void setMaxRestartElement(int restarts) { maxRestartElement = restarts; }
  int getMaxRestartElement() const { return maxRestartElement; }
  void setManagerTypeElement(int type) { managerTypeElement = type; }
  int getManagerTypeElement() const { return managerTypeElement; }

  void setAgentNameElement(const std::wstring& name) { agentNameElement = name; }
  std::wstring getAgentNameElement() const { return agentNameElement; }
  // Stores the path as written and, in agentPath, its environment expansion.
  void setAgentPathElement(const std::wstring& path);
  std::wstring getAgentPathElement() const { return agentPathElement; }
  std::wstring getAgentPath() const { return agentPath; }

  // A Windows service with specific instances is traced: its instances are
  // ignored later, when agents are made from the policy.
  void setAgentTypeElement(AgentType type);
  AgentType getAgentTypeElement() const { return agentTypeElement; }
  int getAgentPort() const { return agentPort; }

  void setCheckFrequencyElement(int seconds) { checkFrequencyElement = seconds; }
  int getCheckFrequencyElement() const { return checkFrequencyElement; }
  void setServiceName(const std::wstring& name) { serviceName = name; }
  std::wstring getServiceName() const { return serviceName; }
  void setProcName(const std::wstring& name) { procName = name; }
  std::wstring getProcName() const { return procName; }
  void setCommandLine(const std::wstring& line) { commandLine = line; }
  std::wstring getCommandLine() const { return commandLine; }
  void setProcRegEx(bool isRegex) { procRegEx = isRegex; }
  bool getProcRegEx() const { return procRegEx; }
  // Takes ownership; a matcher held before is destroyed.
  void setRegexMatcher(icu::RegexMatcher* matcher);
  // Owned by the policy.
  icu::RegexMatcher* getRegexMatcher() const { return regexMatcher; }

  // Appends, in file order.
  void setDependentAgent(const std::wstring& id) { dependentAgents.push_back(id); }
  std::vector<std::wstring> getDependentAgents() const { return dependentAgents; }
  bool isDependentAgent(const std::wstring& id) const;

  // Stores the code, builds the two instance-listing scripts for it, and loads
  // the instances of a generic policy; instances found here do not count as new.
  void setProductCode(const std::wstring& code);
  std::wstring getProductCode() const { return productCode; }

  void setOsTypeAsEnum(OSType type) { osTypeAsEnum = type; }
  OSType getOsTypeAsEnum() const { return osTypeAsEnum; }
  void setOsVersion(const std::wstring& version) { osVersion = version; }
  std::wstring getOsVersion() const { return osVersion; }
  void setOsName(const std::wstring& name) { osName = name; }
  std::wstring getOsName() const { return osName; }
  void setKernelRelease(const std::wstring& release) { kernelRelease = release; }
  std::wstring getKernelRelease() const { return kernelRelease; }
  void setArchElement(const std::wstring& arch) { archElement = arch; }

  // The scripts live inside the policy; the pointers are valid as long as it is.
  QorScript* getAgentVersionScript() { return &agentVersionScript; }
  QorScript* getAgentBuildNumberScript() { return &agentBuildNumberScript; }
  QorScript* getStartScript() { return &startScript; }
  QorScript* getStopScript() { return &stopScript; }
  QorScript* getAvailabilityStatusScript() { return &availabilityStatusScript; }
  QorScript* getConfigScript() { return &configScript; }
  QorScript* getVexinfRunningInstancesScript() { return &vexinfRunningInstancesScript; }
  QorScript* getZELInstancesScript() { return &zelInstancesScript; }
  // The commands as written, before substitution.
  std::wstring getStartCommand() const { return startScript.getOriginalCommand(); }
  std::wstring getStopCommand() const { return stopScript.getOriginalCommand(); }
  std::wstring getAvailabilityStatusCommand() const { return availabilityStatusScript.getOriginalCommand(); }
  std::wstring getConfigCommand() const { return configScript.getOriginalCommand(); }

  std::vector<std::wstring> getInstances() const { return instances; }
  bool isInstance(const std::wstring& name) const;
  bool isExceptionInstance(const std::wstring& name) const;
  // Appends a name not yet present and marks the instances as new.
  // Requires: on a listed policy, the discovery mutex and managedEndpointProcesses locked by the caller.
  void addInstance(const std::wstring& name);
  // Called on a generic policy: the instances of a specific policy of the same
  // agent leave this one's instances and join its exception list.
  // Requires: on a listed policy, the discovery mutex and managedEndpointProcesses locked by the caller.
  void addExceptionInstances(Policy* specific);
  // Undoes addExceptionInstances for a specific policy that went away; the
  // names do not return to the instances by this call.
  // Requires: on a listed policy, the discovery mutex and managedEndpointProcesses locked by the caller.
  void removeExceptionInstances(Policy* specific);
  bool hasNewInstances() const { return newInstances; }
  // Requires: on a listed policy, the discovery mutex and managedEndpointProcesses locked by the caller.
  void newInstancesProcessed() { newInstances = false; }
  bool hasDefaultZELInstance() const { return defaultZELInstance; }
  void setGeneric(bool isGeneric) { generic = isGeneric; }
  bool isGeneric() const { return generic; }
  // Keeps the instances of a generic suite policy in step with the suite's
  // configuration.
  // Requires: on a listed policy, the discovery mutex and managedEndpointProcesses locked by the caller.
  void loadZELInstances();

  bool isZELAgent() const { return agentTypeElement == ZEL_UNIX || agentTypeElement == ZEL_Windows; }
  bool isConsole() const { return agentTypeElement == Console; }
  bool isZELAgentNotConfigured() const { return isZELAgent() && instances.empty(); }

  // The display name: the agent name, and for a specific policy ": " and its
  // instances separated by ", ".
  std::wstring buildAgentName() const;

 private:
  std::wstring subagentID;
  std::string shortSID;
  std::wstring CAPFileName;
  long CAPFileModifyTimestamp = 0;
  long CPUThreshold = 0;
  long memoryThresholdValue = 0;
  MemoryUnit memoryThresholdUnit = MEM_BYTES;
  int maxRestartElement = 0;
  int managerTypeElement = NotManaged;
  std::wstring agentNameElement;
  std::wstring agentPathElement;
  std::wstring agentPath;
  AgentType agentTypeElement = ZEL_UNIX;
  // Kept: nothing sets the port.
  int agentPort = 0;
  int checkFrequencyElement = 0;
  std::wstring serviceName;
  std::wstring procName;
  std::wstring commandLine;
  bool procRegEx = false;
  icu::RegexMatcher* regexMatcher = nullptr;
  std::vector<std::wstring> dependentAgents;
  std::wstring productCode;
  OSType osTypeAsEnum = PlatformUnset;
  std::wstring osVersion;
  std::wstring osName;
  std::wstring kernelRelease;
  std::wstring archElement;
  QorScript agentVersionScript;
  QorScript agentBuildNumberScript;
  QorScript startScript;
  QorScript stopScript;
  QorScript availabilityStatusScript;
  QorScript configScript;
  QorScript vexinfRunningInstancesScript;
  QorScript zelInstancesScript;
  std::vector<std::wstring> instances;
  std::vector<std::wstring> exceptionInstances;
  bool newInstances = false;
  bool defaultZELInstance = false;
  bool generic = true;

  friend class PolicyTestAccess;
};

#endif  // QOR_CAP_QORPOL_H
