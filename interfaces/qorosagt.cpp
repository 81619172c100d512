// The Controller's view of the OS agent, the process this service lives in
// and which only the watchdog process can supervise: whether it is managed,
// and the remote deploy markers. Any thread; no lock of its own.
#include <vector>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "watchdog/qorunx.h"

QOR_TRACE_UNIT();

bool Controller::isOSAgentManaged() {
  std::vector<Agent*> copies;
  getWatchDogListSnapshot(&copies, false);
  bool managed = false;
  for (Agent* copy : copies) {
    if (!managed && copy->getPolicy() != nullptr && isOSAgent(copy->getPolicy()) &&
        (copy->getManagedState() == Managed || copy->getManagedState() == WatchdogManaged)) {
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

bool Controller::isOSAgent(const std::wstring& name, bool& managed, int& restartCount, ManagerType& managerType) {
  QOR_TRACE_FUNCTION();
  managed = false;
  std::vector<Agent*> copies;
  getWatchDogListSnapshot(&copies, false);
  bool found = false;
  for (Agent* copy : copies) {
    if (found || copy->getName() != name) continue;
    found = true;
    restartCount = copy->getDailyRestartCount();
    if (copy->getPolicy() != nullptr) managerType = static_cast<ManagerType>(copy->getPolicy()->getManagerTypeElement());
    managed = copy->getManagedState() == Managed || copy->getManagedState() == WatchdogManaged;
  }
  for (Agent* copy : copies) delete copy;
  return found;
}

bool Controller::isOSAgent(const std::wstring& name, bool& managed) {
  int restartCount = 0;
  ManagerType managerType = NotManaged;
  return isOSAgent(name, managed, restartCount, managerType);
}
