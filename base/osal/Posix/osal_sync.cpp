#include "osal_sync.h"

#include <errno.h>
#include <sys/time.h>

#include "KXLog.h"

namespace {
constexpr long kNsPerSec = 1000000000L;
}

int MillisecsToAbsoluteTimespec(unsigned int ms, struct timespec* ts) {
  struct timeval now {};
  if (gettimeofday(&now, nullptr) != 0 || now.tv_sec < 0 || now.tv_usec < 0 || now.tv_usec >= 1000000) {
    KXLOG(KXLM_OSAL, KXLL_ERR,
          "Incoherent values (tv_sec = " << static_cast<long long>(now.tv_sec)
                                         << ", tv_usec = " << static_cast<long long>(now.tv_usec) << ")");
    return -1;
  }
  long long nsec = static_cast<long long>(ms % 1000) * 1000000LL + static_cast<long long>(now.tv_usec) * 1000LL;
  ts->tv_sec = now.tv_sec + static_cast<time_t>(ms / 1000) + static_cast<time_t>(nsec / kNsPerSec);
  ts->tv_nsec = static_cast<long>(nsec % kNsPerSec);
  return 0;
}

// ---- OSAL_Mutex ---------------------------------------------------------------

int OSAL_Mutex::initSilent() noexcept {
  if (_initialized) return EBUSY;
  int rc = pthread_mutex_init(&_mx, nullptr);
  if (rc == 0) _initialized = true;
  return rc;
}

int OSAL_Mutex::lockSilent() noexcept { return _initialized ? pthread_mutex_lock(&_mx) : EINVAL; }

int OSAL_Mutex::unlockSilent() noexcept { return _initialized ? pthread_mutex_unlock(&_mx) : EINVAL; }

int OSAL_Mutex::destroySilent() noexcept {
  if (!_initialized) return EINVAL;
  int rc = pthread_mutex_destroy(&_mx);
  if (rc == 0) _initialized = false;
  return rc;
}

int OSAL_Mutex::initMutex(const char* name) {
  if (_initialized) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::initMutex - Cannot initialize mutex (already initialized) " << name);
    return -1;
  }
  int rc = initSilent();
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::initMutex - Cannot initialize mutex (" << rc << ") " << name);
    return -1;
  }
  return 0;
}

int OSAL_Mutex::lockMutex() {
  if (!_initialized) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::lockMutex - Invalid handle");
    return -1;
  }
  int rc = pthread_mutex_lock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::lockMutex - Cannot lock mutex (" << rc << ")");
    return -1;
  }
  return 0;
}

int OSAL_Mutex::unlockMutex() {
  if (!_initialized) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::unlockMutex - Invalid handle");
    return -1;
  }
  int rc = pthread_mutex_unlock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::unlockMutex - Cannot unlock mutex (" << rc << ")");
    return -1;
  }
  return 0;
}

int OSAL_Mutex::destroyMutex() {
  int rc = destroySilent();
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::destroyMutex - Cannot cleanup mutex (" << rc << ")");
    return -1;
  }
  return 0;
}

// ---- OSAL_Event ---------------------------------------------------------------

int OSAL_Event::initEvent() {
  if (_initialized) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::initEvent - Cannot initialize event (already initialized)");
    return -1;
  }
  int rc = pthread_mutex_init(&_mx, nullptr);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::initEvent - Cannot initialize mutex (" << rc << ")");
    return -1;
  }
  pthread_condattr_t attr;
  rc = pthread_condattr_init(&attr);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::initEvent - Cannot initialize condition attribute (" << rc << ")");
    pthread_mutex_destroy(&_mx);
    return -1;
  }
  rc = pthread_cond_init(&_cond, &attr);
  pthread_condattr_destroy(&attr);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::initEvent - Cannot initialize condition (" << rc << ")");
    pthread_mutex_destroy(&_mx);
    return -1;
  }
  _initialized = true;
  _notified = false;
  KXLOG(KXLM_OSAL, KXLL_DBG, "OSAL_Event::initEvent - Event initialized (" << static_cast<const void*>(this) << ")");
  return 0;
}

int OSAL_Event::waitForNotification(unsigned int timeoutMs) {
  if (!_initialized) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::waitForNotification - Invalid handle");
    return Failed;
  }
  int rc = pthread_mutex_lock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::waitForNotification - Cannot lock mutex (" << rc << ")");
    return Failed;
  }
  int result = Notified;
  if (_notified) {
    KXLOG(KXLM_OSAL, KXLL_DBG,
          "OSAL_Event::waitForNotification - already notified (" << static_cast<const void*>(this) << ")");
  } else {
    struct timespec ts {};
    if (MillisecsToAbsoluteTimespec(timeoutMs, &ts) != 0) {
      result = Failed;
    } else {
      KXLOG(KXLM_OSAL, KXLL_DBG,
            "OSAL_Event::waitForNotification (ts.tv_sec = " << static_cast<long long>(ts.tv_sec)
                                                            << " ; ts.tv_nsec = " << ts.tv_nsec << ")");
      while (!_notified && result == Notified) {
        rc = pthread_cond_timedwait(&_cond, &_mx, &ts);
        if (rc == ETIMEDOUT) {
          KXLOG(KXLM_OSAL, KXLL_DBG, "OSAL_Event::waitForNotification - Timed out (" << timeoutMs << ")");
          result = TimedOut;
        } else if (rc != 0) {
          KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::waitForNotification - Cannot wait for notification (" << rc << ")");
          result = Failed;
        }
      }
    }
  }
  rc = pthread_mutex_unlock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::waitForNotification - Cannot unlock mutex (" << rc << ")");
    return Failed;
  }
  return result;
}

int OSAL_Event::notify() {
  if (!_initialized) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::notify - Invalid handle");
    return -1;
  }
  int rc = pthread_mutex_lock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::notify - Cannot lock mutex (" << rc << ")");
    return -1;
  }
  int result = 0;
  if (_notified) {
    KXLOG(KXLM_OSAL, KXLL_DBG, "OSAL_Event::notify - Already notified (" << static_cast<const void*>(this) << ")");
  } else {
    _notified = true;
    KXLOG(KXLM_OSAL, KXLL_DBG, "OSAL_Event::notify - Notify (" << static_cast<const void*>(this) << ")");
    rc = pthread_cond_broadcast(&_cond);
    if (rc != 0) {
      KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Mutex::notify - Cannot notify (" << rc << ")");
      result = -1;
    }
  }
  rc = pthread_mutex_unlock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Event::notify - Cannot unlock mutex (" << rc << ")");
    return -1;
  }
  return result;
}

int OSAL_Event::destroyEvent() {
  if (!_initialized) return -1;
  pthread_cond_destroy(&_cond);
  pthread_mutex_destroy(&_mx);
  _initialized = false;
  return 0;
}

// ---- OSAL_Semaphore -------------------------------------------------------------

OSAL_Semaphore::~OSAL_Semaphore() {
  if (_initialized) {
    pthread_cond_destroy(&_cond);
    pthread_mutex_destroy(&_mx);
  }
}

int OSAL_Semaphore::init(unsigned int count) {
  if (_initialized) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::init - Cannot initialize semaphore (already initialized)");
    return -1;
  }
  int rc = pthread_mutex_init(&_mx, nullptr);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::init - Cannot initialize mutex (" << rc << ")");
    return -1;
  }
  pthread_condattr_t attr;
  rc = pthread_condattr_init(&attr);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::init - Cannot initialize condition attribute (" << rc << ")");
    pthread_mutex_destroy(&_mx);
    return -1;
  }
  rc = pthread_cond_init(&_cond, &attr);
  pthread_condattr_destroy(&attr);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::init - Cannot initialize condition (" << rc << ")");
    pthread_mutex_destroy(&_mx);
    return -1;
  }
  _count = count < kMaxCount ? count : kMaxCount;
  _initialized = true;
  return 0;
}

int OSAL_Semaphore::wait() {
  int rc = pthread_mutex_lock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::wait - Cannot lock mx (" << rc << ")");
    return -1;
  }
  int result = 0;
  while (_count == 0) {
    rc = pthread_cond_wait(&_cond, &_mx);
    if (rc != 0) {
      KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::wait - pthread_cond_wait failed (" << rc << ")");
      result = -1;
      break;
    }
  }
  if (result == 0) --_count;
  rc = pthread_mutex_unlock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::wait - Cannot unlock mx (" << rc << ")");
    return -1;
  }
  return result;
}

int OSAL_Semaphore::timedwait(unsigned int timeoutMs) {
  struct timespec ts {};
  if (MillisecsToAbsoluteTimespec(timeoutMs, &ts) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::timedwait - MillisecsToAbsoluteTimespec failed");
    return -1;
  }
  KXLOG(KXLM_OSAL, KXLL_DBG,
        "OSAL_Semaphore::timedwait (ts.tv_sec = " << static_cast<long long>(ts.tv_sec)
                                                  << " ; ts.tv_nsec = " << ts.tv_nsec << ")");
  int rc = pthread_mutex_lock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::timedwait - Cannot lock mx (" << rc << ")");
    return -1;
  }
  int result = 0;
  while (_count == 0) {
    rc = pthread_cond_timedwait(&_cond, &_mx, &ts);
    if (rc == ETIMEDOUT) {
      result = 1;
      break;
    }
    if (rc != 0) {
      KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::timedwait - pthread_cond_wait failed (" << rc << ")");
      result = -1;
      break;
    }
  }
  if (result == 0) --_count;
  rc = pthread_mutex_unlock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::timedwait - Cannot unlock mx (" << rc << ")");
    return -1;
  }
  return result;
}

int OSAL_Semaphore::trywait() {
  int rc = pthread_mutex_lock(&_mx);
  if (rc != 0) {
    // The wait wording is what operators grep for; kept for trywait too.
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::wait - Cannot lock mx (" << rc << ")");
    return -1;
  }
  int result = 1;
  if (_count > 0) {
    --_count;
    result = 0;
  }
  rc = pthread_mutex_unlock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::trywait - Cannot unlock mx (" << rc << ")");
    return -1;
  }
  return result;
}

int OSAL_Semaphore::post() {
  int rc = pthread_mutex_lock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::post - Cannot lock mx (" << rc << ")");
    return -1;
  }
  int result = 0;
  if (_count >= kMaxCount) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::post - Cannot increment count");
    result = -1;
  } else {
    ++_count;
    rc = pthread_cond_signal(&_cond);
    if (rc != 0) {
      KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::post - Cannot post(" << rc << ")");
      result = -1;
    }
  }
  rc = pthread_mutex_unlock(&_mx);
  if (rc != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "OSAL_Semaphore::post - Cannot unlock mx (" << rc << ")");
    return -1;
  }
  return result;
}

unsigned int OSAL_Semaphore::count() {
  pthread_mutex_lock(&_mx);
  unsigned int c = _count;
  pthread_mutex_unlock(&_mx);
  return c;
}
