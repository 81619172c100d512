// Linux process inspection: the figures of processes read from /proc.
#include "include/qorapi.h"

uint64_t qor_hz = 100;
