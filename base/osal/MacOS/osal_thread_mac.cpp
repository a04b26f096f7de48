#include <pthread/qos.h>

#include "KXLog.h"
#include "osal_thread.h"

namespace {
qos_class_t toQosClass(OSAL_QOS qos) {
  switch (qos) {
    case OSAL_QOS::unspecified:
      return QOS_CLASS_UNSPECIFIED;
    case OSAL_QOS::efficiency:
      return QOS_CLASS_BACKGROUND;
    case OSAL_QOS::performance:
      return QOS_CLASS_USER_INTERACTIVE;
    default:
      return QOS_CLASS_DEFAULT;
  }
}

const char* qosClassName(qos_class_t c) {
  switch (c) {
    case QOS_CLASS_UNSPECIFIED:
      return "QOS_CLASS_UNSPECIFIED";
    case QOS_CLASS_BACKGROUND:
      return "QOS_CLASS_BACKGROUND";
    case QOS_CLASS_USER_INTERACTIVE:
      return "QOS_CLASS_USER_INTERACTIVE";
    default:
      return "QOS_CLASS_DEFAULT";
  }
}
}  // namespace

int osal_applyQos(pthread_attr_t* attr, OSAL_QOS qos, const char* name) {
  const qos_class_t cls = toQosClass(qos);
  int rc = pthread_attr_set_qos_class_np(attr, cls, 0);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot set QoS thread attribute (" << rc << ") " << name);
    return -1;
  }
  KXLOG(KXLM_OSAL, KXLL_DBG, "Set QoS to " << qosClassName(cls) << " for thread " << name);
  return 0;
}

uint64_t osal_getThreadID() {
  uint64_t tid = 0;
  pthread_threadid_np(pthread_self(), &tid);
  return tid;
}
