#include "CaptureLogCb.h"

#include <algorithm>

std::vector<std::string> CaptureLogCb::messages() const {
  std::vector<std::string> out;
  for (const Line& l : lines()) out.push_back(l.message);
  return out;
}

bool CaptureLogCb::contains(const std::string& message) const {
  const auto all = messages();
  return std::find(all.begin(), all.end(), message) != all.end();
}

ScopedLogCapture::ScopedLogCapture(const char* levels) : _previous(KXLog::getLogger()->getLogCb()) {
  KXLog::getLogger()->setLevels(levels);
  KXLog::getLogger()->setLogCb(&_sink);
}

ScopedLogCapture::~ScopedLogCapture() {
  KXLog::getLogger()->setLogCb(_previous);
  KXLog::getLogger()->setLevels("");
}
