// The initialisers of the synchronisation objects when the system refuses
// one of its steps: the pthread initialisers are linked through wrappers
// (--wrap) that fail the call they are told to, as a system short of memory
// would.
#include <gtest/gtest.h>

#include <pthread.h>

#include <cerrno>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "osal_sync.h"

namespace {
// 1 the mutex, 2 the condition attribute, 3 the condition: the next such
// call fails with ENOMEM.
int failing = 0;
int refuse(int which) {
  if (failing != which) return 0;
  failing = 0;
  return ENOMEM;
}
}  // namespace

extern "C" {
int __real_pthread_mutex_init(pthread_mutex_t* m, const pthread_mutexattr_t* a);
int __real_pthread_condattr_init(pthread_condattr_t* a);
int __real_pthread_cond_init(pthread_cond_t* c, const pthread_condattr_t* a);
int __wrap_pthread_mutex_init(pthread_mutex_t* m, const pthread_mutexattr_t* a) {
  const int rc = refuse(1);
  return rc != 0 ? rc : __real_pthread_mutex_init(m, a);
}
int __wrap_pthread_condattr_init(pthread_condattr_t* a) {
  const int rc = refuse(2);
  return rc != 0 ? rc : __real_pthread_condattr_init(a);
}
int __wrap_pthread_cond_init(pthread_cond_t* c, const pthread_condattr_t* a) {
  const int rc = refuse(3);
  return rc != 0 ? rc : __real_pthread_cond_init(c, a);
}
}

// Each step refused in turn: -1 and the line naming the step, and the same
// object initialises afterwards, as nothing of the failed attempt was kept.
TEST(SyncFaults, EachRefusedStepIsMinusOneNamedAndLeavesTheObjectUsable) {
  ScopedLogCapture cap("OSAL:5;");
  OSAL_Mutex m;
  OSAL_Event ev;
  OSAL_Semaphore sem;
  std::vector<int> got;
  failing = 1;
  got.push_back(m.initMutex("m"));
  got.push_back(m.initMutex("m"));
  for (int step = 1; step <= 3; ++step) {
    failing = step;
    got.push_back(ev.initEvent());
    failing = step;
    got.push_back(sem.init(1));
  }
  got.push_back(ev.initEvent());
  got.push_back(sem.init(1));
  got.push_back(ev.notify());
  got.push_back(sem.trywait());
  EXPECT_EQ(got, std::vector<int>({-1, 0, -1, -1, -1, -1, -1, -1, 0, 0, 0, 0}));
  std::string said;
  for (const auto& line : cap.lines()) said += line.level + " " + line.message.substr(0, line.message.find(" (")) + ";";
  EXPECT_EQ(said,
            "ERR OSAL_Mutex::initMutex - Cannot initialize mutex;"
            "ERR OSAL_Event::initEvent - Cannot initialize mutex;ERR OSAL_Semaphore::init - Cannot initialize mutex;"
            "ERR OSAL_Event::initEvent - Cannot initialize condition attribute;"
            "ERR OSAL_Semaphore::init - Cannot initialize condition attribute;"
            "ERR OSAL_Event::initEvent - Cannot initialize condition;"
            "ERR OSAL_Semaphore::init - Cannot initialize condition;"
            "DBG OSAL_Event::initEvent - Event initialized;DBG OSAL_Event::notify - Notify;");
  EXPECT_EQ(ev.destroyEvent() + m.destroyMutex(), 0);
}
