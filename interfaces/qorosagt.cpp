// The Controller's view of the OS agent, the process this service lives in
// and which only the watchdog process can supervise: whether it is managed,
// and the remote deploy markers. Any thread; no lock of its own.
#include <cstdio>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "interfaces/qorsockclient.h"
#include "platform/log1.h"
#include "watchdog/qorunx.h"

QOR_TRACE_UNIT();

namespace {

// The first record of `agents` whose policy is the OS agent's, or null.
template <typename Agents>
Agent* firstOSAgentRecord(Controller& controller, const Agents& agents) {
  for (Agent* agent : agents) {
    if (agent->getPolicy() != nullptr && controller.isOSAgent(agent->getPolicy())) return agent;
  }
  return nullptr;
}

}  // namespace

bool Controller::isOSAgentManaged() {
  std::vector<Agent*> copies;
  getWatchDogListSnapshot(&copies, false);
  bool managed = false;
  for (Agent* copy : copies) {
    if (!managed && copy->getPolicy() != nullptr && isOSAgent(copy->getPolicy()) && copy->isManaged()) {
      managed = true;
    }
    delete copy;
  }
  return managed;
}

bool Controller::checkRemoteDeploy(Policy* policy, bool remove) {
  QOR_TRACE_FUNCTION();
  // Kept: the directory entries end in "/" already, so the slash of the name is doubled.
  const std::wstring name = L"/" + policy->getProductCode() + L".dy";
  for (const std::wstring& directory : capDirPaths) {
    const std::wstring marker = directory + name;
    if (!FileExists(marker)) continue;
    if (remove) DeleteFile(marker);
    return true;
  }
  return false;
}

bool Controller::isOSAgent(const std::wstring& name, bool& managed, int& restartCount,
                           ManagerType& managerType) {
  QOR_TRACE_FUNCTION();
  managed = false;
  std::vector<Agent*> copies;
  getWatchDogListSnapshot(&copies, false);
  bool found = false;
  for (Agent* copy : copies) {
    if (found || copy->getName() != name) continue;
    found = true;
    restartCount = copy->getDailyRestartCount();
    if (copy->getPolicy() != nullptr)
      managerType = static_cast<ManagerType>(copy->getPolicy()->getManagerTypeElement());
    managed = copy->isManaged();
  }
  for (Agent* copy : copies) delete copy;
  return found;
}

bool Controller::isOSAgent(const std::wstring& name, bool& managed) {
  int restartCount = 0;
  ManagerType managerType = NotManaged;
  return isOSAgent(name, managed, restartCount, managerType);
}

bool Controller::isOSAgentPC(const std::wstring& productCode, bool& managed) {
  QOR_TRACE_FUNCTION();
  managed = false;
  std::vector<Agent*> copies;
  getWatchDogListSnapshot(&copies, false);
  Agent* os = firstOSAgentRecord(*this, copies);
  // The copies are freed on every path, also when the code is another one.
  const bool found = os != nullptr && os->getPolicy()->getProductCode() == productCode;
  if (found) managed = os->isManaged();
  for (Agent* copy : copies) delete copy;
  return found;
}

// The OS agent's record changes its managed state only here, once the CAP
// file and the state file have given it one.
void Controller::manageOSAgent() {
  QOR_TRACE_FUNCTION();
  if (!watchdogList.lockList()) return;
  if (Agent* agent = firstOSAgentRecord(*this, watchdogList)) {
    agent->setManagedState(WatchdogManaged);
    QOR_TRACE_DETAIL("OS agent set to managed %d", static_cast<int>(agent->getManagedState()));
  }
  watchdogList.unlockList();
}

void Controller::unmanageOSAgent() {
  QOR_TRACE_FUNCTION();
  if (!watchdogList.lockList()) return;
  if (Agent* agent = firstOSAgentRecord(*this, watchdogList)) {
    // Unmanaged, nothing is known about its process any longer.
    agent->setManagedState(Unmanaged);
    agent->setProcID(0);
    agent->setOperatingState(OpUnknown);
    agent->resetDailyRestartCount();
    QOR_TRACE_DETAIL("OS agent set to unmanaged %d", static_cast<int>(agent->getManagedState()));
  }
  watchdogList.unlockList();
}

void Controller::disarm(bool silent) {
  QOR_TRACE_FUNCTION();
  // While disarmed, agents found down are not restarted.
  disarmed.store(true, std::memory_order_release);
  WatchdogEvent* event = new WatchdogEvent();
  event->setEventTypeID(disarm_complete);
  event->setAgent(getWatchdogAgent());
  // An embedder's disarm tells the listeners that nothing guards the OS
  // agent now; the one that goes with unmanaging it says so through the
  // events of the agents.
  if (!silent) RawEvent::logUnreliableMessage(event);
  event->processEvent();
}

void Controller::rearm() {
  QOR_TRACE_FUNCTION();
  disarmed.store(false, std::memory_order_release);
  WatchdogEvent* event = new WatchdogEvent();
  event->setEventTypeID(rearm_complete);
  event->processEvent();
}

Agent* Controller::getWatchdogAgent() {
  QOR_TRACE_FUNCTION();
  std::wstring criteria[MATCH_CRITERIA_COUNT];
  for (Agent* agent : getManagedEndpointProcessLOCK(0, criteria)) {
    if (agent->isWatchDogAgent()) return agent;
  }
  return nullptr;
}

// The watchdog process forgets its counts when it restarts; the embedded
// service keeps them in its state file, so qorwd asks it at start.
void Controller::updateOSAgent() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_ERROR("Get OS Agent Restart Count.\n");
  std::string answer;
  const int result = sendTEOQuery("622 QUERY OS_RESTART_COUNT", answer);
  QOR_TRACE_STORY("Result of query: %d, %s \n", result, answer.c_str());
  // With the OS agent down the count stays what the CAP processing gave it.
  if (result != 0) return;
  const std::string::size_type bar = answer.find('|');
  if (bar == std::string::npos) return;
  int count = 0;
  if (sscanf(answer.substr(0, bar).c_str(), "%d", &count) != 1) return;
  QOR_TRACE_STORY("attempting to set daily restart count to: %d\n", count);
  if (!managedEndpointProcesses.lockList()) return;
  if (Agent* agent = firstOSAgentRecord(*this, managedEndpointProcesses)) {
    QOR_TRACE_DETAIL("Set OS agent restart count %d", count);
    agent->setDailyRestartCount(count);
  }
  managedEndpointProcesses.unlockList();
}
