#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "CaptureLogCb.h"
#include "KXThread.h"
#include "osal_sync.h"
#include "osal_thread.h"

namespace {

TEST(Mutex, SecondInitAndUninitialisedUseAreRefused) {
  ScopedLogCapture cap("OSAL:5;");
  OSAL_Mutex m;
  EXPECT_EQ(m.lockMutex(), -1);
  EXPECT_EQ(m.unlockMutex(), -1);
  ASSERT_EQ(m.initMutex("m"), 0);
  EXPECT_EQ(m.initMutex("m"), -1);
  EXPECT_EQ(m.lockMutex(), 0);
  EXPECT_EQ(m.unlockMutex(), 0);
  EXPECT_EQ(m.destroyMutex(), 0);
  const auto msgs = cap.messages();
  ASSERT_EQ(msgs.size(), 3u);
  EXPECT_EQ(msgs[0], "OSAL_Mutex::lockMutex - Invalid handle");
  EXPECT_EQ(msgs[1], "OSAL_Mutex::unlockMutex - Invalid handle");
  EXPECT_EQ(msgs[2].rfind("OSAL_Mutex::initMutex - Cannot initialize mutex (already initialized)", 0), 0u);
}

TEST(Mutex, ExcludesConcurrentIncrements) {
  OSAL_Mutex m;
  ASSERT_EQ(m.initMutex("counter"), 0);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        m.lockMutex();
        ++counter;
        m.unlockMutex();
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, 40000);
  m.destroyMutex();
}

TEST(Event, IsStickyOnceNotified) {
  ScopedLogCapture cap("OSAL:5;");
  OSAL_Event ev;
  ASSERT_EQ(ev.initEvent(), 0);
  EXPECT_EQ(ev.initEvent(), -1);
  EXPECT_EQ(ev.waitForNotification(0), OSAL_Event::TimedOut);
  EXPECT_EQ(ev.notify(), 0);
  EXPECT_EQ(ev.notify(), 0);
  // A huge time-out returns at once after notify.
  EXPECT_EQ(ev.waitForNotification(0xFFFFFFFFu), OSAL_Event::Notified);
  EXPECT_TRUE(cap.contains("OSAL_Event::initEvent - Cannot initialize event (already initialized)"));
  bool already = false, timedOut = false;
  for (const auto& m : cap.messages()) {
    already |= m.rfind("OSAL_Event::notify - Already notified (", 0) == 0;
    timedOut |= m.rfind("OSAL_Event::waitForNotification - Timed out (", 0) == 0;
  }
  EXPECT_TRUE(already);
  EXPECT_TRUE(timedOut);
  ev.destroyEvent();
}

TEST(Event, WakesEveryWaiter) {
  OSAL_Event ev;
  ASSERT_EQ(ev.initEvent(), 0);
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      if (ev.waitForNotification(600000) == OSAL_Event::Notified) ++woken;
    });
  }
  ev.notify();
  for (auto& th : waiters) th.join();
  EXPECT_EQ(woken.load(), 4);
  ev.destroyEvent();
}

TEST(Event, UninitialisedIsRefused) {
  ScopedLogCapture cap("OSAL:5;");
  OSAL_Event ev;
  EXPECT_EQ(ev.waitForNotification(1), OSAL_Event::Failed);
  EXPECT_EQ(ev.notify(), -1);
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"OSAL_Event::waitForNotification - Invalid handle",
                                                      "OSAL_Event::notify - Invalid handle"}));
}

TEST(Semaphore, CountsAndCapsAt0x7FFF) {
  ScopedLogCapture cap("OSAL:5;");
  OSAL_Semaphore sem;
  ASSERT_EQ(sem.init(2), 0);
  EXPECT_EQ(sem.init(1), -1);
  EXPECT_EQ(sem.trywait(), 0);
  EXPECT_EQ(sem.wait(), 0);
  EXPECT_EQ(sem.trywait(), 1);
  EXPECT_EQ(sem.timedwait(0), 1);

  OSAL_Semaphore full;
  ASSERT_EQ(full.init(0x7FFF), 0);
  EXPECT_EQ(full.post(), -1);
  EXPECT_EQ(full.count(), 0x7FFFu);
  EXPECT_TRUE(cap.contains("OSAL_Semaphore::post - Cannot increment count"));
  EXPECT_TRUE(cap.contains("OSAL_Semaphore::init - Cannot initialize semaphore (already initialized)"));
}

TEST(Semaphore, PostReleasesOneWaiterEach) {
  OSAL_Semaphore sem;
  ASSERT_EQ(sem.init(0), 0);
  std::atomic<int> passed{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      if (sem.wait() == 0) ++passed;
    });
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sem.post(), 0);
  for (auto& th : waiters) th.join();
  EXPECT_EQ(passed.load(), 3);
  EXPECT_EQ(sem.count(), 0u);
}

TEST(Threads, QosNames) {
  EXPECT_STREQ(osal_qosToString(OSAL_QOS::unspecified), "unspecified");
  EXPECT_STREQ(osal_qosToString(OSAL_QOS::efficiency), "efficiency");
  EXPECT_STREQ(osal_qosToString(OSAL_QOS::performance), "performance");
  EXPECT_STREQ(osal_qosToString(OSAL_QOS::default_), "default");
  EXPECT_STREQ(osal_qosToString(static_cast<OSAL_QOS>(4)), "");
}

struct ThreadRun {
  OSAL_Event done;
  uint64_t tid = 0;
  bool throwIt = false;
};

void threadBody(void* p) {
  auto* run = static_cast<ThreadRun*>(p);
  const bool throwIt = run->throwIt;  // run may be gone once notified
  run->tid = osal_getThreadID();
  run->done.notify();
  if (throwIt) throw 42;
}

TEST(Threads, LaunchedThreadRunsWithItsOwnIdAndSurvivesExceptions) {
  ScopedLogCapture cap("THRD:5;");
  for (bool throwIt : {false, true}) {
    ThreadRun run;
    run.throwIt = throwIt;
    ASSERT_EQ(run.done.initEvent(), 0);
    ASSERT_EQ(KXThread::launchThread(&threadBody, &run, "worker", OSAL_QOS::efficiency, 256 * 1024), 0);
    ASSERT_EQ(run.done.waitForNotification(600000), OSAL_Event::Notified);
    EXPECT_NE(run.tid, 0u);
    EXPECT_NE(run.tid, osal_getThreadID());
    // The thread is detached; wait for its report before the event goes.
    if (throwIt) {
      const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (!cap.contains("Exception occured during thread execution") && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::yield();
      }
      EXPECT_TRUE(cap.contains("Exception occured during thread execution"));
    }
    run.done.destroyEvent();
  }
}

TEST(Threads, ImpossibleStackSizeFailsCleanly) {
  ScopedLogCapture cap("OSAL:5;EXCP:5;");
  ThreadRun run;
  EXPECT_EQ(KXThread::launchThread(&threadBody, &run, "tiny", OSAL_QOS::default_, 1), -1);
  EXPECT_TRUE(cap.contains("NET: launchThread: Cannot launch thread"));
}

}  // namespace
