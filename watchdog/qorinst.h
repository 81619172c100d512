// Instance enumeration of the suite's agents through the suite's status tool:
// the commands that list the configured and the running instances of a product
// code, their parsing, and the naming of found processes by instance. Used by
// Policy, discovery and the last resort of process matching. Safe from any
// thread; the cache of the tool's last output is guarded.
#ifndef QOR_WATCHDOG_QORINST_H
#define QOR_WATCHDOG_QORINST_H

#include <string>
#include <vector>

class Policy;
class QorProcess;
class QorScript;

// Fills `script` with the command that lists the running instances of `code`.
void CreateVexinfRunningInstancesScript(const std::wstring& code, QorScript* script);

// Fills `script` with the command that lists the configured instances of `code`.
void CreateZELInstancesScript(const std::wstring& code, QorScript* script);

// The configured instances, in order; ZEL_AGENT_NOT_CONFIGURED stands for a
// line in which the tool says it has none, and a list holding only
// QOR_CMD_TIMEOUT_STRING means that the tool did not answer in time.
std::vector<std::wstring> GetZELInstances(Policy* policy);

// Lines of process id, one blank and instance name; empty unless the tool
// succeeded.
std::wstring GetVexinfRunningInstances(Policy* policy);

// Names each process from the tool's output; drops (without freeing) the
// processes the tool does not know. True when every process kept got a name.
bool ParseVexinfOutput(const std::wstring& output, std::vector<QorProcess*>& processes);

// Names the processes found for a policy: suite agents by the tool, services
// by their service name, and filters them by the policy's instances. True when
// every process got its name.
bool GetInstanceNames(Policy* policy, std::vector<QorProcess*>& processes);

// The instance of one process, from the cached output of the tool; fetched
// anew (at most twice) when the cache does not know the process.
std::wstring GetZELInstanceName(Policy* policy, int pid);

// The service name of the policy; the second argument is not used.
std::wstring GetServiceInstanceName(Policy* policy, const std::wstring& unused);

#endif  // QOR_WATCHDOG_QORINST_H
