#include "KXLog.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>

#include "osal_thread.h"

const char* const KXLog::moduleTags[KXLM_COUNT] = {
    "ROOT", "DBWR", "AGGR", "FMGR", "HPSF", "SCAN", "CHDB", "TKDB", "CHGM", "FDRV", "CMMT", "FLTM", "NETW", "RSTR",
    "RLDB", "OSAL", "PRFS", "EXCP", "SPEC", "KELP", "CLUP", "ERRS", "INTF", "MIRR", "IDLE", "BLCK", "SADM", "TOOL",
    "ADTI", "MVMT", "MVAG", "CTXM", "PROC", "BRSH", "SHSS", "EVTS", "VOLS", "REPL", "ASVC", "AAPI", "ADST", "AGST",
    "WEBR", "HTTP", "SMTP", "ALLO", "THRD", "AFIL", "ABMR", "WEBS", "SHTD", "MULT", "HIST", "RBRA"};

// Entry 8 really is "DGB": existing log readers match on it.
const char* const KXLog::levelNames[10] = {"NFY", "EL2", "ERR", "WRN", "INF", "DBG", "DBG", "DBG", "DGB", "DBG"};

namespace {
constexpr int kDefaultLevel = KXLL_ERR;
constexpr size_t kEntryLen = 7;  // "TAG:d;"

bool isEndOfConfig(char c) { return c == '\0' || c == '\n' || c == '\r' || c == ' '; }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The seven characters at p form "TAG:d;". Stops at the first mismatch, so
// it never reads past a terminating NUL.
bool isWellFormedEntry(const char* p) {
  for (size_t i = 0; i < 4; ++i) {
    if (!isUpper(p[i])) return false;
  }
  return p[4] == ':' && isDigit(p[5]) && p[6] == ';';
}

// Set while this thread constructs the singleton, so that anything logged
// from inside the constructor sees no logger instead of deadlocking.
thread_local bool t_constructing = false;
}  // namespace

// ---- locks ----------------------------------------------------------------

KXMutexSilent::~KXMutexSilent() {
  if (_ready) _mx.destroySilent();
}

int KXMutexSilent::init() {
  int rc = _mx.initSilent();
  _ready = (rc == 0);
  return rc;
}

void KXMutexSilent::lock() noexcept {
  if (_ready) _mx.lockSilent();
}

void KXMutexSilent::unlock() noexcept {
  if (_ready) _mx.unlockSilent();
}

bool KXSingletonMutex::ready = true;
KXSingletonMutex KXSingletonMutex::_mutex;

void KXSingletonMutex::lock() noexcept { _mx.lockSilent(); }
void KXSingletonMutex::unlock() noexcept { _mx.unlockSilent(); }

// ---- singleton --------------------------------------------------------------

std::atomic<KXLog*> KXLog::_singleton{nullptr};

KXLog* KXLog::getLogger() {
  KXLog* log = _singleton.load(std::memory_order_acquire);
  if (log != nullptr) return log;
  if (!KXSingletonMutex::ready || t_constructing) return nullptr;
  KXSingletonMutex::_mutex.lock();
  log = _singleton.load(std::memory_order_relaxed);
  if (log == nullptr) {
    t_constructing = true;
    try {
      log = new KXLog();
    } catch (...) {
      log = nullptr;
    }
    t_constructing = false;
    _singleton.store(log, std::memory_order_release);
  }
  KXSingletonMutex::_mutex.unlock();
  return log;
}

void KXLog::destroyLogger() {
  KXLog* log = _singleton.exchange(nullptr, std::memory_order_acq_rel);
  delete log;
}

KXLog::KXLog() : _cb(nullptr) {
  _lock.init();
  _cb.store(&_defCb, std::memory_order_relaxed);
  _init();
}

KXLog::~KXLog() = default;

void KXLog::_init() {
  for (auto& level : _levels) level.store(kDefaultLevel, std::memory_order_relaxed);
}

// ---- levels -----------------------------------------------------------------

void KXLog::setLevels(const char* config) {
  std::lock_guard<KXMutexSilent> guard(_lock);
  try {
    _init();
    const char* p = config != nullptr ? config : "";
    if (isDigit(p[0]) && p[1] == ';') p += 2;
    while (!isEndOfConfig(*p)) {
      if (!isWellFormedEntry(p)) {
        std::cerr << "KXLog::readConfig -> bad config ([...];" << p << ")" << std::endl;
        break;
      }
      const int level = p[5] - '0';
      for (unsigned m = 0; m < KXLM_COUNT; ++m) {
        if (std::strncmp(moduleTags[m], p, 4) == 0) _levels[m].store(level, std::memory_order_relaxed);
      }
      p += kEntryLen;
    }
  } catch (...) {
    std::fputs("KXLog::readConfig -> Undefined error\n", stderr);
  }
}

// ---- delivery ---------------------------------------------------------------

void KXLog::prepareLog(KXLogMType module, int level, const char* file, int line, const char* function) {
  KXLogCb* cb = _cb.load(std::memory_order_relaxed);
  if (cb == nullptr) return;
  // The statement ended the message with a NUL: the sink reads it in place.
  cb->log(osal_getPid(), osal_getThreadID(), moduleTags[module], levelNames[level], file, line, function,
          _stream.text());
}

void KXLog::KXLogDefCb::log(unsigned int pid, unsigned long long tid, const char* module, const char* level,
                            const char* file, int line, const char* /*function*/, const char* message) {
  std::cout << "0x" << std::hex << pid << ",0x" << tid << std::dec << " - " << module << ":" << level << " [ " << file
            << ":" << line << " ] - " << message << std::endl;
}

void KXLog::reportMissed(const char* function, int line) noexcept {
  std::fprintf(stderr, "Log error (missed): %s (line %d)\n", function != nullptr ? function : "", line);
  std::fflush(stderr);
}

// ---- per-thread ignore list -------------------------------------------------

void KXLog::ignoreDBErr(int code) {
  std::lock_guard<KXMutexSilent> guard(_lock);
  _ignore[osal_getThreadID()].insert(code);
}

void KXLog::unignoreDBErr(int code) {
  std::lock_guard<KXMutexSilent> guard(_lock);
  _ignore[osal_getThreadID()].erase(code);
}

bool KXLog::shouldIgnoreDBErr(int code) {
  std::lock_guard<KXMutexSilent> guard(_lock);
  return _ignore[osal_getThreadID()].count(code) != 0;
}
