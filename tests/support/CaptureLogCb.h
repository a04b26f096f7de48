#pragma once

#include <string>
#include <vector>

#include "KXLog.h"

// A sink that keeps every delivered line, for assertions on log output.
class CaptureLogCb : public KXLogCb {
 public:
  struct Line {
    unsigned int pid;
    unsigned long long tid;
    std::string module;
    std::string level;
    std::string file;
    int line;
    std::string function;
    std::string message;
  };

  void log(unsigned int pid, unsigned long long tid, const char* module, const char* level, const char* file, int line,
           const char* function, const char* message) override;

  // Copies, so a test can read while other threads still log.
  std::vector<Line> lines() const;
  std::vector<std::string> messages() const;
  bool contains(const std::string& message) const;
  void reset();

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
