#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <set>

#include "KXStreamLogger.h"
#include "osal_sync.h"

// Module of a log statement; the value indexes KXLog::moduleTags.
enum KXLogMType : unsigned int {
  KXLM_ROOT,
  KXLM_DBWR,
  KXLM_AGGR,
  KXLM_FMGR,
  KXLM_HPSF,
  KXLM_SCAN,
  KXLM_CHDB,
  KXLM_TKDB,
  KXLM_CHGM,
  KXLM_FDRV,
  KXLM_CMMT,
  KXLM_FLTM,
  KXLM_NETW,
  KXLM_RSTR,
  KXLM_RLDB,
  KXLM_OSAL,
  KXLM_PRFS,
  KXLM_EXCP,
  KXLM_SPEC,
  KXLM_KELP,
  KXLM_CLUP,
  KXLM_ERRS,
  KXLM_INTF,
  KXLM_MIRR,
  KXLM_IDLE,
  KXLM_BLCK,
  KXLM_SADM,
  KXLM_TOOL,
  KXLM_ADTI,
  KXLM_MVMT,
  KXLM_MVAG,
  KXLM_CTXM,
  KXLM_PROC,
  KXLM_BRSH,
  KXLM_SHSS,
  KXLM_EVTS,
  KXLM_VOLS,
  KXLM_REPL,
  KXLM_ASVC,
  KXLM_AAPI,
  KXLM_ADST,
  KXLM_AGST,
  KXLM_WEBR,
  KXLM_HTTP,
  KXLM_SMTP,
  KXLM_ALLO,
  KXLM_THRD,
  KXLM_AFIL,
  KXLM_ABMR,
  KXLM_WEBS,
  KXLM_SHTD,
  KXLM_MULT,
  KXLM_HIST,
  KXLM_RBRA,
  KXLM_COUNT
};

// Levels: the lower, the more important. A statement is produced when its
// module's configured level is at least the statement's level.
enum KXLogLevel : int {
  KXLL_NFY = 0,
  KXLL_EL2 = 1,
  KXLL_ERR = 2,
  KXLL_WRN = 3,
  KXLL_INF = 4,
  KXLL_DBG = 5,
};

// Marker base of the library's pure interfaces.
struct kx_interface_base_qualifier {};

// Makes a class non-copyable.
class kx_no_duplic {
 protected:
  kx_no_duplic() = default;
  ~kx_no_duplic() = default;

 public:
  kx_no_duplic(const kx_no_duplic&) = delete;
  kx_no_duplic& operator=(const kx_no_duplic&) = delete;
};

class KXLockIntf {
 public:
  virtual ~KXLockIntf() = default;
  virtual void lock() = 0;
  virtual void unlock() = 0;
};

// A mutex that never logs and degrades to no locking when it could not be
// made: the logger must keep working even then.
class KXMutexSilent : public KXLockIntf, private kx_no_duplic {
 public:
  KXMutexSilent() = default;
  ~KXMutexSilent() override;
  // Returns the pthread code; the lock is active only after a 0.
  int init();
  void lock() noexcept override;
  void unlock() noexcept override;

 private:
  OSAL_Mutex _mx;
  bool _ready = false;
};

// Serialises the creation of the logger singleton. Its mutex is constant-
// initialised, so it is ready before any code of the process runs.
class KXSingletonMutex : public KXLockIntf {
 public:
  constexpr KXSingletonMutex() noexcept : _mx(OSAL_Mutex::staticInit) {}
  void lock() noexcept override;
  void unlock() noexcept override;

  static bool ready;
  static KXSingletonMutex _mutex;

 private:
  OSAL_Mutex _mx;
};

// A destination for finished log lines. Called with the logger's lock held,
// so an implementation needs no lock of its own; it must not log itself.
class KXLogCb : public kx_interface_base_qualifier {
 public:
  virtual ~KXLogCb() = default;
  virtual void log(unsigned int pid, unsigned long long tid, const char* module, const char* level, const char* file,
                   int line, const char* function, const char* message) = 0;
};

class KXLog {
 public:
  // The default sink: one line per message on standard output.
  class KXLogDefCb : public KXLogCb {
   public:
    void log(unsigned int pid, unsigned long long tid, const char* module, const char* level, const char* file,
             int line, const char* function, const char* message) override;
  };

  static const char* const moduleTags[KXLM_COUNT];
  static const char* const levelNames[10];

  // The process-wide logger, created on first use; null only when the
  // singleton lock is not ready. The fast path takes no lock.
  static KXLog* getLogger();
  // Deletes the singleton (not the installed sink).
  static void destroyLogger();

  KXLog();
  virtual ~KXLog();
  KXLog(const KXLog&) = delete;
  KXLog& operator=(const KXLog&) = delete;

  // Parses "[d;]TAG:d;TAG:d;..." after resetting every module to ERR; bad
  // input is reported on standard error and never throws.
  void setLevels(const char* config);

  // Delivers the stream's text to the sink. The caller holds the lock and has
  // cleared and filled the stream (see KXLOG).
  void prepareLog(KXLogMType module, int level, const char* file, int line, const char* function);

  // Per-thread set of database error codes the thread expects.
  void ignoreDBErr(int code);
  void unignoreDBErr(int code);
  bool shouldIgnoreDBErr(int code);

  // Cheap enough to run before anything else of a statement: one table read.
  bool isEnabled(KXLogMType module, int level) const noexcept {
    return _levels[module].load(std::memory_order_relaxed) >= level && _cb.load(std::memory_order_relaxed) != nullptr;
  }
  int getLevel(KXLogMType module) const noexcept { return _levels[module].load(std::memory_order_relaxed); }

  // The sink is not owned; the host keeps it alive while it is installed.
  KXLogCb* getLogCb() const noexcept { return _cb.load(std::memory_order_relaxed); }
  void setLogCb(KXLogCb* cb) noexcept { _cb.store(cb, std::memory_order_relaxed); }

  KXMutexSilent& lockObject() noexcept { return _lock; }
  KXStreamLogger& stream() noexcept { return _stream; }

  // Standard-error report of a statement that threw; never throws itself.
  static void reportMissed(const char* function, int line) noexcept;

  static std::atomic<KXLog*> _singleton;

 private:
  void _init();

  KXMutexSilent _lock;
  // Read without the lock by every statement; relaxed atomics cost the same
  // as plain ints and keep the unlocked read well defined.
  std::atomic<int32_t> _levels[KXLM_COUNT];
  KXStreamLogger _stream;
  std::map<uint64_t, std::set<int>> _ignore;
  KXLogDefCb _defCb;
  std::atomic<KXLogCb*> _cb;
};

// Log lines name their source by its path from the repository root, set per
// file by the build (kx_log_file_names). Inside this tree a file without it
// does not compile, since a wrong name in the logs would go unnoticed. A
// program built against the installed library gets the file's base name:
// all of __FILE__ would leak the build machine's paths into every log.
#ifndef KX_LOG_FILE
#ifdef KX_LOG_FILE_REQUIRED
#error "KX_LOG_FILE is not set for this source: add its target to kx_log_file_names()"
#endif
constexpr const char* kxLogBaseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}
#define KX_LOG_FILE kxLogBaseName(__FILE__)
#endif

// The one logging statement: KXLOG(KXLM_ROOT, KXLL_ERR, "text [" << code << "]").
// The level is tested before the lock is taken and before any piece of msg
// is evaluated; whatever msg throws is reported on standard error and
// swallowed. msg is a chain of stream insertions, so it cannot be
// parenthesised.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define KXLOG(module, level, msg)                                          \
  do {                                                                     \
    KXLog* kx_log_ = KXLog::getLogger();                                   \
    if (kx_log_ != nullptr && kx_log_->isEnabled((module), (level))) {     \
      kx_log_->lockObject().lock();                                        \
      try {                                                                \
        KXStreamLogger& kx_os_ = kx_log_->stream();                        \
        kx_os_.clear();                                                    \
        kx_os_ << msg << '\0';                                             \
        kx_log_->prepareLog((module), (level), KX_LOG_FILE, __LINE__, ""); \
        kx_log_->lockObject().unlock();                                    \
      } catch (...) {                                                      \
        kx_log_->lockObject().unlock();                                    \
        KXLog::reportMissed(__func__, __LINE__);                           \
      }                                                                    \
    }                                                                      \
  } while (0)
// NOLINTEND(bugprone-macro-parentheses)
