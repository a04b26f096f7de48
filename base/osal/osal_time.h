#pragma once

// Milliseconds since the epoch from the wall clock. Returns 0, or -1 (logged).
int osal_getMs(unsigned long long* ms);

// Sleeps ms milliseconds. Returns 0, or -1 when the sleep failed. Lives in a
// file of its own so that a test can link a recording replacement.
int osal_doSleep(unsigned int ms);
