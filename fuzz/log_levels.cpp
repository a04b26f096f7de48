// Levels strings as a host hands them to the logger: the input up to its
// first NUL. Whatever the logger writes to standard error during the call is
// captured, because whether it reported a bad entry, and which one, is part
// of what is checked.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "FuzzSupport.h"
#include "KXLog.h"

namespace {

using fuzz::require;

constexpr int kDefault = 2;

// What the string should do, worked out without the logger: the levels it
// leaves, and where the first malformed entry starts (npos when none).
struct Expected {
  int levels[KXLM_COUNT];
  size_t badAt = std::string::npos;
};

Expected reparse(const std::string& s) {
  Expected e;
  for (int& l : e.levels) l = kDefault;
  // c_str() keeps every index below read within the terminator.
  const char* text = s.c_str();
  size_t i = 0;
  if (text[0] >= '0' && text[0] <= '9' && text[1] == ';') i = 2;
  for (;;) {
    const char c = text[i];
    if (c == '\0' || c == '\n' || c == '\r' || c == ' ') return e;
    bool good = true;
    for (size_t k = 0; k < 7 && good; ++k) {
      const char x = text[i + k];
      if (k < 4) {
        good = x >= 'A' && x <= 'Z';
      } else if (k == 4) {
        good = x == ':';
      } else if (k == 5) {
        good = x >= '0' && x <= '9';
      } else {
        good = x == ';';
      }
    }
    if (!good) {
      e.badAt = i;
      return e;
    }
    for (unsigned m = 0; m < KXLM_COUNT; ++m) {
      if (std::memcmp(KXLog::moduleTags[m], text + i, 4) == 0) e.levels[m] = text[i + 5] - '0';
    }
    i += 7;
  }
}

// Standard error goes to an unlinked file for the duration of one call.
class StderrCapture {
 public:
  StderrCapture() {
    char name[] = "/tmp/kx_fuzz_levels_XXXXXX";
    _fd = mkstemp(name);
    require(_fd >= 0, "a capture file can be made");
    unlink(name);
  }
  void begin() {
    std::fflush(stderr);
    require(ftruncate(_fd, 0) == 0 && lseek(_fd, 0, SEEK_SET) == 0, "the capture file can be emptied");
    _saved = dup(STDERR_FILENO);
    require(_saved >= 0 && dup2(_fd, STDERR_FILENO) >= 0, "standard error can be redirected");
  }
  std::string end() {
    std::cerr.flush();
    std::fflush(stderr);
    dup2(_saved, STDERR_FILENO);
    close(_saved);
    const off_t size = lseek(_fd, 0, SEEK_END);
    std::string text(static_cast<size_t>(size > 0 ? size : 0), '\0');
    if (!text.empty()) require(pread(_fd, &text[0], text.size(), 0) == size, "the capture file can be read");
    return text;
  }

 private:
  int _fd = -1;
  int _saved = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static KXLog* logger = [] {
    KXLog* l = KXLog::getLogger();
    l->setLogCb(nullptr);
    return l;
  }();
  static StderrCapture capture;

  const std::string raw(reinterpret_cast<const char*>(data), size);
  const std::string config(raw.c_str());
  const Expected expected = reparse(config);

  capture.begin();
  logger->setLevels(config.c_str());
  const std::string report = capture.end();

  for (unsigned m = 0; m < KXLM_COUNT; ++m) {
    const int level = logger->getLevel(static_cast<KXLogMType>(m));
    require(level >= 0 && level <= 9, "every level is 0 to 9");
    // Covers the reset as well: the previous input's levels must be gone.
    require(level == expected.levels[m], "exactly the modules named by accepted entries change, the others stay 2");
  }
  if (expected.badAt == std::string::npos) {
    require(report.empty(), "an accepted string reports nothing");
  } else {
    require(report == "KXLog::readConfig -> bad config ([...];" + config.substr(expected.badAt) + ")\n",
            "a rejected string reports its first bad entry and the rest, once");
  }
  return 0;
}
