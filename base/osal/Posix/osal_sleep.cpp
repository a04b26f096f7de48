#include <unistd.h>

#include "osal_time.h"

int osal_doSleep(unsigned int ms) { return usleep(static_cast<useconds_t>(ms) * 1000U) == 0 ? 0 : -1; }
