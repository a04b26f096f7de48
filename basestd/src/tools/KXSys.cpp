#include "KXSys.h"

#include <openssl/err.h>
#include <openssl/rand.h>

#include <atomic>

#include "KXLog.h"
#include "KXTerm.h"
#include "osal_time.h"

namespace {
constexpr unsigned int kSliceMs = 1000;
std::atomic<bool> g_randomSeeded{false};
}  // namespace

unsigned long long KXSys::timeMs() {
  unsigned long long ms = 0;
  if (osal_getMs(&ms) != 0) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "timeMs: Cannot get time in ms");
    return 0;
  }
  return ms;
}

int KXSys::sleepMs(unsigned int ms, KXTermIntf* term, const char* reason) {
  const char* why = reason != nullptr ? reason : "";
  KXLOG(KXLM_OSAL, KXLL_INF, "sleep " << ms << " ms : \"" << why << "\"");
  unsigned int remaining = ms;
  while (remaining > 0) {
    const unsigned int slice = remaining < kSliceMs ? remaining : kSliceMs;
    if (term != nullptr && term->chkTerminate()) {
      KXLOG(KXLM_OSAL, KXLL_INF, "Sleep interrupted due to requested termination : \"" << why << "\"");
      return SleepInterrupted;
    }
    remaining -= slice;
    if (osal_doSleep(slice) != 0) {
      KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot sleep " << slice << " ms");
      return SleepFailed;
    }
  }
  return SleepDone;
}

int KXSys::sleep(unsigned int s, KXTermIntf* term, const char* reason) {
  const char* why = reason != nullptr ? reason : "";
  KXLOG(KXLM_OSAL, KXLL_INF, "sleep " << s << " s : \"" << why << "\"");
  for (unsigned int i = 0; i < s; ++i) {
    if (term != nullptr && term->chkTerminate()) {
      KXLOG(KXLM_OSAL, KXLL_INF, "Sleep interrupted due to requested termination : \"" << why << "\"");
      return SleepInterrupted;
    }
    const int rc = sleepMs(kSliceMs, term, reason);
    if (rc != SleepDone) return rc;
  }
  return SleepDone;
}

void KXSys::_initRandom() {
  if (g_randomSeeded.exchange(true)) return;
  const unsigned long long now = timeMs();
  RAND_seed(&now, sizeof now);
}

uint32_t KXSys::KXRand() {
  _initRandom();
  uint32_t value = 0;
  const int rc = RAND_bytes(reinterpret_cast<unsigned char*>(&value), sizeof value);
  if (rc == -1) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "random (init): RAND_bytes error (not supported by the current RAND method)");
    return 0;
  }
  if (rc != 1) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "random (init): RAND_bytes error : " << ERR_get_error());
    return 0;
  }
  return value;
}

TimeoutTerminator::TimeoutTerminator(unsigned long long timeoutMs) { reset(timeoutMs); }

void TimeoutTerminator::reset(unsigned long long timeoutMs) {
  _startMs = KXSys::timeMs();
  _timeoutMs = timeoutMs;
}

bool TimeoutTerminator::chkTerminate() { return KXSys::timeMs() - _startMs >= _timeoutMs; }
