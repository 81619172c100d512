#include "watchdog/qorwd.h"

#include "core/qorctrl.h"
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
