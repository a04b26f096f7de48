#include <sys/syscall.h>
#include <unistd.h>

#include "KXLog.h"
#include "osal_thread.h"

// Linux has no QoS classes for threads; the request is only recorded.
int osal_applyQos(pthread_attr_t* /*attr*/, OSAL_QOS qos, const char* name) {
  KXLOG(KXLM_OSAL, KXLL_DBG, "QoS " << osal_qosToString(qos) << " not supported on this platform for thread " << name);
  return 0;
}

uint64_t osal_getThreadID() {
  // A thread's id never changes; the system call is made once per thread.
  static thread_local const uint64_t tid = static_cast<uint64_t>(syscall(SYS_gettid));
  return tid;
}
