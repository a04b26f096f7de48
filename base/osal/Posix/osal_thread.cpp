#include "osal_thread.h"

#include <unistd.h>

#include "KXLog.h"

const char* osal_qosToString(OSAL_QOS qos) {
  switch (qos) {
    case OSAL_QOS::unspecified:
      return "unspecified";
    case OSAL_QOS::efficiency:
      return "efficiency";
    case OSAL_QOS::performance:
      return "performance";
    case OSAL_QOS::default_:
      return "default";
  }
  return "";
}

uint32_t osal_getPid() { return static_cast<uint32_t>(getpid()); }

int osal_launchThread(void* (*fn)(void*), unsigned int stackSize, void* arg, const char* name, OSAL_QOS qos) {
  pthread_attr_t attr;
  int rc = pthread_attr_init(&attr);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot initialize thread attributes (" << rc << ") " << name);
    return -1;
  }
  int result = -1;
  size_t defaultStack = 0;
  rc = pthread_attr_getstacksize(&attr, &defaultStack);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot get stack size attribute (" << rc << ") " << name);
  } else if (stackSize != 0 && (rc = pthread_attr_setstacksize(&attr, stackSize)) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot set stack size thread attribute (" << rc << ") " << name);
  } else if (osal_applyQos(&attr, qos, name) == 0) {
    pthread_t thread;
    rc = pthread_create(&thread, &attr, fn, arg);
    if (rc != 0) {
      KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot create thread (" << rc << ") " << name);
    } else {
      pthread_detach(thread);
      result = 0;
    }
  }
  pthread_attr_destroy(&attr);
  return result;
}
