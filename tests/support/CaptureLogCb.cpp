#include "CaptureLogCb.h"

#include <algorithm>
#include <mutex>

void CaptureLogCb::log(unsigned int pid, unsigned long long tid, const char* module, const char* level,
                       const char* file, int line, const char* function, const char* message) {
  _lines.push_back(Line{pid, tid, module, level, file, line, function, message});
}

std::vector<CaptureLogCb::Line> CaptureLogCb::lines() const {
  std::lock_guard<KXMutexSilent> guard(KXLog::getLogger()->lockObject());
  return _lines;
}

std::vector<std::string> CaptureLogCb::messages() const {
  std::vector<std::string> out;
  for (const Line& l : lines()) out.push_back(l.message);
  return out;
}

bool CaptureLogCb::contains(const std::string& message) const {
  const auto all = messages();
  return std::find(all.begin(), all.end(), message) != all.end();
}

void CaptureLogCb::reset() {
  std::lock_guard<KXMutexSilent> guard(KXLog::getLogger()->lockObject());
  _lines.clear();
}

ScopedLogCapture::ScopedLogCapture(const char* levels) {
  KXLog* log = KXLog::getLogger();
  _previous = log->getLogCb();
  log->setLevels(levels);
  log->setLogCb(&_sink);
}

ScopedLogCapture::~ScopedLogCapture() {
  KXLog* log = KXLog::getLogger();
  log->setLogCb(_previous);
  log->setLevels("");
}
