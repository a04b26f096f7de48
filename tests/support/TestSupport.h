#pragma once
// What the unit tests share: a directory of their own, whole-file reads and
// writes, and the log lines the code under test delivered.
#include <stdlib.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "KXLog.h"

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it.
class TempDir {
 public:
  TempDir() : _path(boost::filesystem::temp_directory_path().string() + "/kxtest.XXXXXX") {
    if (mkdtemp(&_path[0]) == nullptr) throw std::runtime_error("cannot make " + _path);
  }
  ~TempDir() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

// Empty when the file cannot be read.
inline std::string readFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

inline void writeFile(const std::string& path, const std::string& content) {
  if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content)) throw std::runtime_error(path);
}

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
  explicit ScopedLogCapture(const char* levels = "ROOT:9;") : _previous(KXLog::getLogger()->getLogCb()) {
    KXLog::getLogger()->setLevels(levels);
    KXLog::getLogger()->setLogCb(this);
  }
  ~ScopedLogCapture() override {
    KXLog::getLogger()->setLogCb(_previous);
    KXLog::getLogger()->setLevels("");
  }
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;
  void log(unsigned int pid, unsigned long long tid, const char* module, const char* level, const char* file, int line,
           const char* function, const char* message) override {
    _lines.push_back(Line{pid, tid, module, level, file, line, function, message});
  }
  std::vector<Line> lines() const {
    const std::lock_guard<KXMutexSilent> guard(KXLog::getLogger()->lockObject());
    return _lines;
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const Line& l : lines()) out.push_back(l.message);
    return out;
  }
  bool contains(const std::string& message) const {
    const auto all = messages();
    return std::find(all.begin(), all.end(), message) != all.end();
  }

 private:
  std::vector<Line> _lines;
  KXLogCb* _previous;
};
