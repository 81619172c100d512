// Command execution: the running of CAP scripts with their time-out.
#include "include/qorapi.h"

int32_t MIN_CMD_TIMEOUT = 30;
