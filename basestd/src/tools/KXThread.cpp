#include "KXThread.h"

#include <new>

#include "KXLog.h"

namespace {
struct StartRecord {
  KXThread::ThreadFn fn;
  void* arg;
};
}  // namespace

int KXThread::launchThread(ThreadFn fn, void* arg, const char* name, OSAL_QOS qos, unsigned int stackSize) {
  auto* record = new (std::nothrow) StartRecord{fn, arg};
  if (record == nullptr) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "launchThread: Memory allocation error");
    return -1;
  }
  if (osal_launchThread(&KXThread::threadMgrFunc, stackSize, record, name, qos) != 0) {
    delete record;
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "launchThread: Cannot launch thread");
    return -1;
  }
  return 0;
}

void* KXThread::threadMgrFunc(void* p) {
  auto* record = static_cast<StartRecord*>(p);
  const ThreadFn fn = record->fn;
  void* arg = record->arg;
  delete record;
  try {
    fn(arg);
  } catch (...) {
    KXLOG(KXLM_THRD, KXLL_ERR, "Exception occured during thread execution");
  }
  return nullptr;
}
