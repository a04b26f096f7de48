#pragma once

#include <pthread.h>

#include <cstdint>

// Quality-of-service class requested for a new thread. "default" is a C++
// keyword, hence the trailing underscore.
enum class OSAL_QOS : int { unspecified = 0, efficiency = 1, performance = 2, default_ = 3 };

// "unspecified", "efficiency", "performance", "default"; "" for other values.
const char* osal_qosToString(OSAL_QOS qos);

// Starts a detached thread running fn(arg); stackSize 0 keeps the default.
// Returns 0, or -1 after logging the failed step. Threads are never joined.
int osal_launchThread(void* (*fn)(void*), unsigned int stackSize, void* arg, const char* name, OSAL_QOS qos);

// Requests qos on attr where the platform has such classes; logs and does
// nothing where it has none. Returns 0 or -1 (logged).
int osal_applyQos(pthread_attr_t* attr, OSAL_QOS qos, const char* name);

uint32_t osal_getPid();

// System-wide identifier of the calling thread (what ps and the debugger
// show), not the pthread handle.
uint64_t osal_getThreadID();
