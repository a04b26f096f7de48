#pragma once

#include "osal_thread.h"

// Starts detached threads whose exceptions are caught and logged instead of
// ending the process.
class KXThread {
 public:
  using ThreadFn = void (*)(void* arg);

  // Runs fn(arg) on a new detached thread. Returns 0, or -1 (logged).
  static int launchThread(ThreadFn fn, void* arg, const char* name, OSAL_QOS qos = OSAL_QOS::default_,
                          unsigned int stackSize = 0);

  // Thread entry: runs the start record's function, frees the record.
  static void* threadMgrFunc(void* record);
};
