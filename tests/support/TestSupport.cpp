#include "TestSupport.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  _path = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kxtest.XXXXXX";
  if (mkdtemp(&_path[0]) == nullptr) throw std::runtime_error("cannot make a directory like " + _path);
}

TempDir::~TempDir() {
  boost::system::error_code ec;
  boost::filesystem::remove_all(_path, ec);
}

std::string readFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

void writeFile(const std::string& path, const std::string& content) {
  if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content)) {
    throw std::runtime_error("cannot write " + path);
  }
}

ScopedLogCapture::ScopedLogCapture(const char* levels) : _previous(KXLog::getLogger()->getLogCb()) {
  KXLog::getLogger()->setLevels(levels);
  KXLog::getLogger()->setLogCb(this);
}

ScopedLogCapture::~ScopedLogCapture() {
  KXLog::getLogger()->setLogCb(_previous);
  KXLog::getLogger()->setLevels("");
}

void ScopedLogCapture::log(unsigned int pid, unsigned long long tid, const char* module, const char* level,
                           const char* file, int line, const char* function, const char* message) {
  _lines.push_back(Line{pid, tid, module, level, file, line, function, message});
}

std::vector<ScopedLogCapture::Line> ScopedLogCapture::lines() const {
  std::lock_guard<KXMutexSilent> guard(KXLog::getLogger()->lockObject());
  return _lines;
}

std::vector<std::string> ScopedLogCapture::messages() const {
  std::vector<std::string> out;
  for (const Line& l : lines()) out.push_back(l.message);
  return out;
}

bool ScopedLogCapture::contains(const std::string& message) const {
  const auto all = messages();
  return std::find(all.begin(), all.end(), message) != all.end();
}
