#pragma once

#include <pthread.h>
#include <time.h>

// Fills *ts with the absolute wall-clock time ms milliseconds from now, as
// pthread_cond_timedwait expects it. Returns 0, or -1 (logged) when the clock
// gives incoherent values.
int MillisecsToAbsoluteTimespec(unsigned int ms, struct timespec* ts);

// A POSIX mutex that logs its failures. Not recursive. All operations return
// 0 on success and -1 otherwise.
class OSAL_Mutex {
 public:
  struct StaticInit {};
  // Statically initialised and ready from the start of the process, before
  // any dynamic initialiser runs; used for process-wide locks.
  static constexpr StaticInit staticInit{};

  OSAL_Mutex() noexcept = default;
  constexpr explicit OSAL_Mutex(StaticInit) noexcept : _mx PTHREAD_MUTEX_INITIALIZER, _initialized(true) {}
  OSAL_Mutex(const OSAL_Mutex&) = delete;
  OSAL_Mutex& operator=(const OSAL_Mutex&) = delete;

  int initMutex(const char* name);
  int lockMutex();
  int unlockMutex();
  int destroyMutex();

  // The same operations without any logging, for the logger's own lock: a
  // failure there must not recurse into the logger. They return the pthread
  // error code (0 on success, EINVAL when not initialised).
  int initSilent() noexcept;
  int lockSilent() noexcept;
  int unlockSilent() noexcept;
  int destroySilent() noexcept;

  bool isInitialized() const noexcept { return _initialized; }

 private:
  pthread_mutex_t _mx{};
  bool _initialized = false;
};

// A sticky one-shot event: once notified it stays notified, and every later
// wait returns at once. Wakes all waiters.
class OSAL_Event {
 public:
  enum WaitResult { Notified = 0, TimedOut = 1, Failed = -1 };

  OSAL_Event() noexcept = default;
  OSAL_Event(const OSAL_Event&) = delete;
  OSAL_Event& operator=(const OSAL_Event&) = delete;

  int initEvent();
  // Blocks until notified or timeoutMs elapsed; returns a WaitResult.
  int waitForNotification(unsigned int timeoutMs);
  int notify();
  int destroyEvent();

 private:
  pthread_mutex_t _mx{};
  pthread_cond_t _cond{};
  bool _initialized = false;
  bool _notified = false;
};

// Counting semaphore over a mutex and a condition variable; the count never
// exceeds kMaxCount. Operations return 0 on success, -1 on failure;
// timedwait returns 1 on time-out and trywait 1 when nothing was available.
class OSAL_Semaphore {
 public:
  static constexpr unsigned int kMaxCount = 0x7FFF;

  OSAL_Semaphore() noexcept = default;
  OSAL_Semaphore(const OSAL_Semaphore&) = delete;
  OSAL_Semaphore& operator=(const OSAL_Semaphore&) = delete;
  ~OSAL_Semaphore();

  int init(unsigned int count);
  int wait();
  int timedwait(unsigned int timeoutMs);
  int trywait();
  int post();
  unsigned int count();

 private:
  pthread_mutex_t _mx{};
  pthread_cond_t _cond{};
  unsigned int _count = 0;
  bool _initialized = false;
};
