// The discovery thread: at a fixed interval, keeps the agent records in step
// with the instances that really run. Embedded mode only.
#include <algorithm>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "platform/log1.h"
#include "platform/osv1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorinst.h"

QOR_TRACE_UNIT();

namespace {

// Records and policies that discovery took out, freed by the command handler
// when it reaches this event: it takes events one at a time, so the event it
// was working on when they were taken out, which may have been running one
// of their scripts with the list given up, is over by then. Nothing to apply
// and nothing to tell the listeners.
class DiscardedRecords : public Event {
 public:
  DiscardedRecords(std::vector<Agent*> agents, std::vector<Policy*> policies)
      : agents_(std::move(agents)), policies_(std::move(policies)) {}
  ~DiscardedRecords() override {
    for (Agent* agent : agents_) {
      // Its policy, when no other record uses it, is among policies_.
      agent->setPolicy(nullptr);
      delete agent;
    }
    for (Policy* policy : policies_) delete policy;
  }
  DiscardedRecords(const DiscardedRecords&) = delete;
  DiscardedRecords& operator=(const DiscardedRecords&) = delete;

 private:
  std::vector<Agent*> agents_;
  std::vector<Policy*> policies_;
};

void queueManaged(Agent* agent, ManagedStates state) {
  AgentMgmtEvent* event = new AgentMgmtEvent();
  event->setEventTypeID(agent_managed);
  event->setMgmtState(state);
  event->setAgent(agent);
  event->processEvent();
}

// The suite's own watchdog policy; discovery has nothing to find for it.
bool onlyWatchdogPolicies(const std::vector<Policy*>& policies) {
  return std::all_of(policies.begin(), policies.end(),
                     [](Policy* policy) { return policy->getProductCode() == L"qd"; });
}

}  // namespace

void* DIThreadEntry(void* /*unused*/) {
  Controller::getController()->runDiscovery();
  return nullptr;
}

void Controller::runDiscovery() {
  QOR_TRACE_FUNCTION();
  GetCmdManager();
  QOR_TRACE_DETAIL("Discovery interval: %d seconds\n", discoveryInterval);
  QOR_TRACE_DETAIL("ZEL Discovery interval: %d seconds\n", zelDiscoveryInterval);
  time_t lastZELDiscovery = time(nullptr);
  while (!isShuttingDown()) {
    QOR_TRACE_DETAIL("Going to sleep for: %d\n", discoveryInterval);
    if (!isShuttingDown()) {
      diSleeping.store(true, std::memory_order_release);
      OSV1_Sleep(discoveryInterval);
      diSleeping.store(false, std::memory_order_release);
    }
    if (isShuttingDown()) break;
    QOR_TRACE_DETAIL("test if discovery mutex is locked -- to allow management/add cap has to execute\n");
    // Kept: a cycle that finds the mutex taken is lost, the slow step with it.
    if (!tryLockDiscovery()) {
      QOR_TRACE_DETAIL("discovery lock not available skipping discovery\n");
      continue;
    }
    QOR_TRACE_DETAIL("lockDiscovery\n");
    discoveryCycle(lastZELDiscovery);
    unlockDiscovery();
  }
  signalDIShutdownComplete();
}

void Controller::discoveryCycle(time_t& lastZELDiscovery) {
  QOR_TRACE_FUNCTION();
  std::vector<Agent*> managedAgents;
  std::vector<Policy*> managedPolicies;
  getManagedEndpointAndPolicySnapshot(&managedAgents, &managedPolicies);
  QOR_TRACE_DETAIL("managedAgents: %d. managedPolicy: %d\n", static_cast<int>(managedAgents.size()),
                   static_cast<int>(managedPolicies.size()));
  if (onlyWatchdogPolicies(managedPolicies)) {
    QOR_TRACE_DETAIL("No agents or only watchdog being managed skip discovery\n");
  } else {
    discoverProcesses(managedPolicies, managedAgents);
  }
  for (Agent* agent : managedAgents) delete agent;

  // Kept: the slow step comes only at the end of a cycle that had the mutex.
  const time_t now = time(nullptr);
  if (difftime(now, lastZELDiscovery) > zelDiscoveryInterval && !isShuttingDown()) {
    lastZELDiscovery = now;
    discoveryZELInstances();
  }
  GetCmdManager()->cleanUpDefunctProcesses();
  releaseDiscarded();
}

void Controller::discoverProcesses(const std::vector<Policy*>& managedPolicies,
                                   const std::vector<Agent*>& managedAgents) {
  // The process table is read once per cycle and filtered per policy.
  std::vector<QorProcess*> all;
  GetCmdManager()->getRunningProcesses(all);
  for (Policy* policy : managedPolicies) {
    if (isShuttingDown()) break;
    discoverPolicyInstances(policy, all, managedAgents);
  }
  for (QorProcess* process : all) delete process;
}

void Controller::discoverPolicyInstances(Policy* policy, const std::vector<QorProcess*>& all,
                                         const std::vector<Agent*>& managedAgents) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Executing discovery for policy: %s\n", policy->getShortSID().c_str());
  std::vector<QorProcess*> running;
  GetCmdManager()->getPolicyProcesses(policy, all, running);
  if (running.empty()) return;
  std::vector<int> freed = mergeManagedInstances(getPolicyManagedAgents(policy, managedAgents), running);
  if (!running.empty()) {
    // The suite's tool runs only when unknown processes are left.
    const bool named = GetInstanceNames(policy, running);
    if (policy->isZELAgent() && !named) {
      QOR_TRACE_DETAIL(
          "Unable to retrieve ZEL status for all running processes. Skipping discovery for policy : %s\n",
          policy->getShortSID().c_str());
      return;
    }
  }
  for (QorProcess* process : running) {
    if (isShuttingDown()) break;
    Agent* agent = getManagedInstance(policy, process, freed);
    if (agent == nullptr) {
      // The other processes of this policy wait for the next cycle.
      QOR_TRACE_DETAIL("Skipping discovery for policy %s\n", policy->getShortSID().c_str());
      break;
    }
    QOR_TRACE_DETAIL("New instance discovered %s, pid %d\n", agent->getshortID().c_str(),
                     process->getProcID());
    announceDiscovered(agent, policy, QOR_TRACE_CONTEXT());
  }
}

void Controller::announceDiscovered(Agent* agent, Policy* policy, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  // The record is live: its policy changes and its state is read with the
  // list locked, so that no other thread sees it half done.
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return;
  }
  Policy* dropped = agent->getPolicy();
  agent->setPolicy(new Policy(*policy));
  // A reused record drops its old policy, which the cycle may still be
  // iterating: it is freed later, and only when nothing else points at it.
  discardPolicyIfUnused(dropped);
  const ManagedStates state = agent->getManagedState();
  managedEndpointProcesses.unlockList();
  queueManaged(agent, state);
}

std::vector<Agent*> Controller::getPolicyManagedAgents(Policy* policy, std::vector<Agent*> agents) {
  QOR_TRACE_FUNCTION();
  std::vector<Agent*> result;
  for (Agent* agent : agents) {
    if (agent->getPolicy() != nullptr && agent->getPolicy()->getSubagentID() == policy->getSubagentID()) {
      result.push_back(agent);
    }
  }
  QOR_TRACE_STORY("Total managed agents = %d. %s managed agents = %d.\n", static_cast<int>(agents.size()),
                  policy->getShortSID().c_str(), static_cast<int>(result.size()));
  return result;
}

std::vector<int> Controller::mergeManagedInstances(std::vector<Agent*> agents,
                                                   std::vector<QorProcess*>& running) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("Available instances %d - running instances %d\n", static_cast<int>(agents.size()),
                   static_cast<int>(running.size()));
  std::vector<int> freed;
  for (Agent* agent : agents) {
    const int pid = agent->getProcID();
    // A record without a process matches nothing: its 0 joins the freed
    // pids, which lets a stopped record take over a new process.
    auto known = std::find_if(running.begin(), running.end(),
                              [pid](QorProcess* process) { return pid != 0 && process->getProcID() == pid; });
    if (known != running.end()) {
      running.erase(known);
      QOR_TRACE_DETAIL("Instance PID %d already managed\n", pid);
    } else {
      QOR_TRACE_DETAIL("Instance PID %d no longer available\n", pid);
      freed.push_back(pid);
    }
  }
  return freed;
}

Agent* Controller::getManagedInstance(Policy* policy, QorProcess* process, std::vector<int>& freed) {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("new instance discovered - PID %d\n", process->getProcID());
  if (!managedEndpointProcesses.lockList()) return nullptr;
  Agent* result = nullptr;
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[1] = std::to_wstring(process->getProcID());
  criteria[3] = policy->getSubagentID();
  if (startOrStopInProgress(policy)) {
    QOR_TRACE_DETAIL("Start/stop action in progress for policy %s.\n", policy->getShortSID().c_str());
  } else if (!getManagedEndpointProcess(MATCH_ID | MATCH_PROC_ID, criteria).empty()) {
    QOR_TRACE_DETAIL("Agent %d already up.\n", process->getProcID());
  } else {
    std::wstring procName = process->getInstanceProcName();
    if (procName.find(policy->getProcName()) == std::wstring::npos) procName = policy->getProcName();
    result = reuseFreedRecord(policy, process, procName, freed, QOR_TRACE_CONTEXT());
    if (result == nullptr) result = newInstanceRecord(policy, process, procName, QOR_TRACE_CONTEXT());
  }
  managedEndpointProcesses.unlockList();
  return result;
}

bool Controller::startOrStopInProgress(Policy* policy) {
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[3] = policy->getSubagentID();
  for (OperatingStates state : {OpStarting, OpStopping}) {
    criteria[4] = std::to_wstring(static_cast<int>(state));
    if (!getManagedEndpointProcess(MATCH_ID | MATCH_OPERATING_STATE, criteria).empty()) return true;
  }
  return false;
}

Agent* Controller::reuseFreedRecord(Policy* policy, QorProcess* process, const std::wstring& procName,
                                    std::vector<int>& freed, const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  Agent* result = nullptr;
  // Kept: every freed pid is used up here, also after a record has been
  // taken, so the processes after the first of a cycle get new records.
  while (!freed.empty()) {
    const int pid = freed.front();
    freed.erase(freed.begin());
    std::wstring criteria[MATCH_CRITERIA_COUNT];
    criteria[1] = std::to_wstring(pid);
    criteria[2] = procName;
    criteria[3] = policy->getSubagentID();
    int mask = MATCH_PROC_ID;
    if (policy->isZELAgent() || !process->getInstanceName().empty()) {
      mask |= MATCH_INSTANCE_NAME;
      criteria[5] = process->getInstanceName();
    } else if (!policy->isConsole()) {
      mask |= MATCH_SERVICE_INSTANCE_NAME;
      criteria[6] = process->getServiceInstanceName();
    }
    // Kept: the first search is not tied to the policy's subagent id.
    std::vector<Agent*> candidates = getManagedEndpointProcess(mask | MATCH_INSTANCE_PROC_NAME, criteria);
    if (candidates.empty()) {
      QOR_TRACE_DETAIL("No instances to reuse.\n");
      candidates = getManagedEndpointProcess(mask | MATCH_ID, criteria);
    }
    if (candidates.empty() && policy->isZELAgent()) {
      QOR_TRACE_DETAIL("No instances without instanceProcName to reuse.\n");
      std::vector<Agent*> ofPolicy = getManagedEndpointProcess(MATCH_ID, criteria);
      if (!ofPolicy.empty() && ofPolicy.front()->isZELInstanceHolder()) {
        QOR_TRACE_DETAIL("Will reuse the instance holder.\n");
        candidates = ofPolicy;
        policy->addInstance(process->getInstanceName());
      }
    }
    if (result != nullptr) continue;
    for (Agent* candidate : candidates) {
      const OperatingStates state = candidate->getOperatingState();
      if (policy->isConsole() && candidate->getInstanceName().empty() &&
          (state == OpManuallyStopped || state == OpStopping)) {
        QOR_TRACE_DETAIL("Cannot reuse - manually stopped / stopping process %s\n",
                         candidate->getshortID().c_str());
        continue;
      }
      QOR_TRACE_DETAIL("Replace process %s, pid %d to pid %d\n", candidate->getshortID().c_str(),
                       candidate->getProcID(), process->getProcID());
      candidate->setProcID(process->getProcID());
      candidate->setOperatingState(OpRunning);
      candidate->setPath(policy->getAgentPath());
      candidate->nameInstanceAs(process, policy);
      result = candidate;
      break;
    }
  }
  return result;
}

Agent* Controller::newInstanceRecord(Policy* policy, QorProcess* process, const std::wstring& procName,
                                     const LOG1_Context& trace) {
  QOR_TRACE_AS(trace);
  QOR_TRACE_DETAIL("Creating new instance for process %s, pid %d \n", QOR_N(procName), process->getProcID());
  Agent* agent = new Agent();
  agent->setIdentityFrom(policy);
  agent->setInstanceProcName(procName);
  agent->nameInstanceAs(process, policy);
  agent->setProcID(process->getProcID());
  agent->setManagedState(Managed);
  QOR_TRACE_DETAIL("adding agent to process list from discovery.\n");
  managedEndpointProcesses.push_back(agent);
  return agent;
}

void Controller::discoveryZELInstances() {
  QOR_TRACE_FUNCTION();
  // A copy: the slow step of one policy gives the list up while the suite's
  // tool runs. The discovery mutex keeps the policies themselves alive.
  std::vector<Policy*> all;
  if (!managedEndpointProcesses.lockList()) return;
  all = policies;
  managedEndpointProcesses.unlockList();
  for (Policy* policy : all) {
    Agent* holder = discoveryZELInstances(policy);
    if (holder == nullptr) continue;
    if (!managedEndpointProcesses.lockList()) continue;
    const ManagedStates state = holder->getManagedState();
    managedEndpointProcesses.unlockList();
    queueManaged(holder, state);
  }
}

Agent* Controller::discoveryZELInstances(Policy* policy) {
  QOR_TRACE_FUNCTION();
  if (!policy->isZELAgent() || !policy->isGeneric()) return nullptr;
  if (!managedEndpointProcesses.lockList()) return nullptr;
  policy->loadZELInstances();
  if (policy->hasNewInstances()) {
    QOR_TRACE_DETAIL("Discovered new ZEL instances for agent %s\n", policy->getShortSID().c_str());
    addMissingInstances(policy->getInstances(), policy, true);
    policy->newInstancesProcessed();
  } else {
    QOR_TRACE_DETAIL("No new ZEL instance to add for agent %s\n", policy->getShortSID().c_str());
  }
  Agent* result = verifyInstances(policy);
  managedEndpointProcesses.unlockList();
  return result;
}

Agent* Controller::verifyInstances(Policy* policy) {
  QOR_TRACE_FUNCTION();
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  criteria[3] = policy->getSubagentID();
  int count = static_cast<int>(getManagedEndpointProcess(MATCH_ID, criteria).size());
  Agent* result = nullptr;
  if (count <= static_cast<int>(policy->getInstances().size())) return result;
  for (auto it = managedEndpointProcesses.begin(); it != managedEndpointProcesses.end();) {
    Agent* agent = *it;
    if (agent->getID() != policy->getSubagentID() || agent->isZELInstanceHolder() ||
        policy->isInstance(agent->getInstanceName())) {
      ++it;
      continue;
    }
    QOR_TRACE_DETAIL("Deleting ZEL instance %s from agent %s\n", QOR_N(agent->getInstanceName()),
                     policy->getShortSID().c_str());
    if (count == 1) {
      // The policy keeps one record, as the holder of its next instance.
      agent->setInstanceName(L"");
      agent->setOperatingState(OpUnknown);
      result = agent;
      ++it;
      continue;
    }
    --count;
    it = managedEndpointProcesses.erase(it);
    discardedAgents.push_back(agent);
    discardPolicyIfUnused(agent->getPolicy());
  }
  return result;
}

void Controller::discardPolicyIfUnused(Policy* policy) {
  if (policy == nullptr) return;
  auto uses = [policy](Agent* agent) { return agent->getPolicy() == policy; };
  if (std::find(policies.begin(), policies.end(), policy) != policies.end() ||
      std::any_of(managedEndpointProcesses.begin(), managedEndpointProcesses.end(), uses) ||
      std::any_of(retiredAgents.begin(), retiredAgents.end(), uses) ||
      std::find(discardedPolicies.begin(), discardedPolicies.end(), policy) != discardedPolicies.end()) {
    return;
  }
  discardedPolicies.push_back(policy);
}

void Controller::releaseDiscarded() {
  if (!managedEndpointProcesses.lockList()) return;
  std::vector<Agent*> agents;
  std::vector<Policy*> dropped;
  agents.swap(discardedAgents);
  dropped.swap(discardedPolicies);
  managedEndpointProcesses.unlockList();
  if (agents.empty() && dropped.empty()) return;
  (new DiscardedRecords(std::move(agents), std::move(dropped)))->processEvent();
}
