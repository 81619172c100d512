#include "watchdog/qorwd.h"

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "include/qorapi.h"
#include "watchdog/qorcmd.h"

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

}  // namespace

int Watchdog::getOperatingState() {
  // The process id found is not taken into the record here.
  int pid = agent->getProcID();
  return cmdManager->getAppOperatingState(processNameOf(agent), agent->getInstanceName(), agent->getPath(), pid,
                                          agent->getPolicy());
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
