#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "KXLog.h"

// A sink that keeps every delivered line, for assertions on log output.
// Readers copy under the logger's lock, so a test can read while other
// threads still log.
class CaptureLogCb : public KXLogCb {
 public:
  struct Line {
    unsigned int pid;
    unsigned long long tid;
    std::string module, level, file;
    int line;
    std::string function, message;
  };

  void log(unsigned int pid, unsigned long long tid, const char* module, const char* level, const char* file, int line,
           const char* function, const char* message) override {
    _lines.push_back(Line{pid, tid, module, level, file, line, function, message});
  }
  std::vector<Line> lines() const {
    std::lock_guard<KXMutexSilent> guard(KXLog::getLogger()->lockObject());
    return _lines;
  }
  std::vector<std::string> messages() const;
  bool contains(const std::string& message) const;
  void reset() {
    std::lock_guard<KXMutexSilent> guard(KXLog::getLogger()->lockObject());
    _lines.clear();
  }

 private:
  std::vector<Line> _lines;
};

// Installs a CaptureLogCb as the logger's sink for the scope and sets the
// given levels; restores the previous sink and the default levels after.
class ScopedLogCapture {
 public:
  explicit ScopedLogCapture(const char* levels = "ROOT:9;");
  ~ScopedLogCapture();
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  CaptureLogCb& sink() { return _sink; }
  std::vector<std::string> messages() const { return _sink.messages(); }
  bool contains(const std::string& message) const { return _sink.contains(message); }

 private:
  CaptureLogCb _sink;
  KXLogCb* _previous;
};
