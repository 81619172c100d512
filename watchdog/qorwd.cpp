// The per-agent checker and actor.
#include "include/qorapi.h"

int32_t WD_START_RETRY_COUNT = 3;
int32_t WD_START_RETRY_INTERVAL = 3;
int32_t WD_STATUS_RETRY_COUNT = 1;
