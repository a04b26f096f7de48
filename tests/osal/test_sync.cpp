#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "KXSys.h"
#include "KXTerm.h"
#include "KXThread.h"
#include "TestSupport.h"
#include "osal_sync.h"
#include "osal_time.h"

// Results are compared as one list, in call order; the levels of the log's
// lines too, so that a failure that goes unreported shows.
TEST(Sync, MutexEventAndSemaphoreResults) {
  ScopedLogCapture cap("OSAL:5;");
  OSAL_Mutex m;
  OSAL_Event ev;
  OSAL_Semaphore sem, full;
  EXPECT_EQ(std::vector<int>({m.lockMutex(), m.unlockMutex(), m.destroyMutex(), m.initMutex("m"), m.initMutex("m"),
                              m.lockMutex(), m.unlockMutex(), m.destroyMutex(), m.destroyMutex()}),
            std::vector<int>({-1, -1, -1, 0, -1, 0, 0, 0, -1}));
  EXPECT_EQ(std::vector<int>({ev.waitForNotification(1), ev.notify(), ev.initEvent(), ev.initEvent(),
                              ev.waitForNotification(0), ev.notify(), ev.notify(), ev.waitForNotification(~0u),
                              ev.destroyEvent(), ev.destroyEvent()}),
            std::vector<int>({OSAL_Event::Failed, -1, 0, -1, OSAL_Event::TimedOut, 0, 0, OSAL_Event::Notified, 0, -1}));
  EXPECT_EQ(
      std::vector<int>({sem.init(2), sem.init(1), sem.trywait(), sem.wait(), sem.trywait(), sem.timedwait(0),
                        sem.post(), sem.timedwait(0), full.init(0x7FFE), full.post(), full.post(), int(full.count())}),
      std::vector<int>({0, -1, 0, 0, 1, 1, 0, 0, 0, 0, -1, 0x7FFF}));
  std::string levels;
  for (const auto& line : cap.lines()) levels += line.level[0];
  EXPECT_EQ(levels, "EEEEEEEDEDDDDDEDDE");
}

// Whether the thread is asleep (in a wait), from the kernel's view of it.
bool asleep(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t end = text.rfind(')');
  return end != std::string::npos && text.compare(end, 3, ") S") == 0;
}

// A waiter is woken by the notification or the post of another thread, also
// from inside a wait with a deadline; the mutex keeps concurrent increments
// whole.
TEST(Sync, ThreadsWaitAndExclude) {
  OSAL_Mutex m;
  OSAL_Event ev;
  OSAL_Semaphore sem;
  ASSERT_EQ(m.initMutex("counter") + ev.initEvent() + sem.init(0), 0);
  long counter = 0;
  std::atomic<int> woken{0};
  std::atomic<pid_t> waiterTid{0};
  auto add = [&] {
    for (int i = 0; i < 10000; ++i) m.lockMutex(), ++counter, m.unlockMutex();
  };
  std::thread a(add), b(add), waiter([&] {
    waiterTid = static_cast<pid_t>(syscall(SYS_gettid));
    woken = ev.waitForNotification(600000) * 10 + sem.wait();
  });
  // Notified once the waiter sleeps in its wait, within a bound.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while ((waiterTid == 0 || !asleep(waiterTid)) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_TRUE(waiterTid != 0 && asleep(waiterTid)) << "the waiter never slept in its wait";
  EXPECT_EQ(ev.notify() + sem.post(), 0);
  a.join(), b.join(), waiter.join();
  EXPECT_EQ(std::vector<long>({counter, woken, sem.count()}), std::vector<long>({20000, OSAL_Event::Notified * 10, 0}));
  m.destroyMutex(), ev.destroyEvent();
}

void threadBody(void* tid) {
  static_cast<std::atomic<uint64_t>*>(tid)->store(osal_getThreadID());
  throw 42;
}

TEST(Threads, LaunchedThreadHasItsOwnIdAndSurvivesExceptions) {
  ScopedLogCapture cap("THRD:5;EXCP:5;");
  std::atomic<uint64_t> tid{0};
  ASSERT_EQ(KXThread::launchThread(&threadBody, &tid, "worker", OSAL_QOS::efficiency, 256 * 1024), 0);
  // Detached: its report is the only sign that it has finished.
  while (!cap.contains("Exception occured during thread execution")) std::this_thread::yield();
  EXPECT_TRUE(tid.load() != 0 && tid.load() != osal_getThreadID());
  EXPECT_EQ(KXThread::launchThread(&threadBody, &tid, "tiny", OSAL_QOS::default_, 1), -1);
  EXPECT_EQ(cap.messages().back(), "NET: launchThread: Cannot launch thread");
}

TEST(Time, ClockDeadlinesAndTerminator) {
  struct timeval before {};
  gettimeofday(&before, nullptr);
  unsigned long long ms = 0;
  ASSERT_EQ(osal_getMs(&ms), 0);
  const unsigned long long low = before.tv_sec * 1000ULL + before.tv_usec / 1000;
  EXPECT_TRUE(ms >= low && ms - low < 60000 && KXSys::timeMs() >= ms) << ms - low;
  for (unsigned int delay : {0u, 1u, 999u, 1000u, 1999u, 123456789u}) {
    struct timespec ts {};
    gettimeofday(&before, nullptr);
    ASSERT_EQ(MillisecsToAbsoluteTimespec(delay, &ts), 0);
    const long long ahead = (ts.tv_sec - before.tv_sec) * 1000LL + (ts.tv_nsec / 1000 - before.tv_usec) / 1000;
    EXPECT_TRUE(ts.tv_nsec >= 0 && ts.tv_nsec < 1000000000L && ahead >= delay && ahead < delay + 60000LL) << delay;
  }
  TimeoutTerminator later(3600 * 1000ULL), zero(0);
  EXPECT_TRUE(zero.chkTerminate() && !later.chkTerminate() && (later.reset(0), later.chkTerminate()));
}
