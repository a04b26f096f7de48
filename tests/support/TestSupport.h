#pragma once
// What the unit tests share: a directory of their own, whole-file reads and
// writes, and the log lines the code under test delivered.
#include <string>
#include <vector>

#include "KXLog.h"

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

// Empty when the file cannot be read; writeFile throws when it cannot write.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

// The logger's sink for its scope, at the given levels, keeping every line;
// the previous sink and the default levels come back after. Readers copy
// under the logger's lock, so a test can read while other threads still log.
class ScopedLogCapture : public KXLogCb {
 public:
  struct Line {
    unsigned int pid;
    unsigned long long tid;
    std::string module, level, file;
    int line;
    std::string function, message;
  };
  explicit ScopedLogCapture(const char* levels = "ROOT:9;");
  ~ScopedLogCapture() override;
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;
  void log(unsigned int pid, unsigned long long tid, const char* module, const char* level, const char* file, int line,
           const char* function, const char* message) override;
  std::vector<Line> lines() const;
  std::vector<std::string> messages() const;
  bool contains(const std::string& message) const;

 private:
  std::vector<Line> _lines;
  KXLogCb* _previous;
};
