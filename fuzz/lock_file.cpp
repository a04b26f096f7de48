// The instance lock: the input is the lock file's content, written into a
// temporary directory of this process that TMPDIR names. An empty input
// means no lock file at all. An input "@<offset>" followed by anything holds
// the current time plus that many milliseconds and then the rest, so that the
// one-hour boundary is within the fuzzer's reach.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "KXLog.h"
#include "KXSys.h"
#include "Updater.h"

namespace {

constexpr long long kHourMs = 3600000;

class Lines : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char* level, const char*, int, const char*,
           const char* message) override {
    all.push_back(std::string(level) + " " + message);
  }
  bool any(const std::string& prefix) const {
    for (const std::string& l : all) {
      if (l.compare(0, prefix.size(), prefix) == 0) return true;
    }
    return false;
  }
  std::vector<std::string> all;
};

std::string g_dir;
std::string g_lock;

void cleanUp() {
  std::remove(g_lock.c_str());
  rmdir(g_dir.c_str());
}

// abort skips atexit, and the content is in the crash input anyway.
void require(bool ok, const char* invariant) {
  if (ok) return;
  std::fprintf(stderr, "broken invariant: %s\n", invariant);
  if (!g_dir.empty()) cleanUp();
  std::abort();
}

void makeDirectory() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kx_fuzz_lock_XXXXXX";
  require(mkdtemp(&pattern[0]) != nullptr, "a temporary directory can be made");
  g_dir = pattern;
  g_lock = g_dir + "/upgrade_ovk.lock";
  setenv("TMPDIR", g_dir.c_str(), 1);
  std::atexit(cleanUp);
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// The stored time as a base-10 signed 64-bit conversion of the trimmed first
// line reads it: a sign, digits, and whatever follows ignored. False when
// there is no number or it does not fit.
bool storedTime(const std::string& content, long long& stored) {
  std::string line = content.substr(0, content.find('\n'));
  line = std::string(line.c_str());  // text stops at a NUL
  size_t i = 0;
  while (i < line.size() && isBlank(line[i])) ++i;
  bool negative = false;
  if (i < line.size() && (line[i] == '+' || line[i] == '-')) negative = line[i++] == '-';
  if (i >= line.size() || line[i] < '0' || line[i] > '9') return false;
  __int128 value = 0;
  for (; i < line.size() && line[i] >= '0' && line[i] <= '9'; ++i) {
    value = value * 10 + (line[i] - '0');
    if (value > static_cast<__int128>(LLONG_MAX) + 1) return false;
  }
  if (negative) value = -value;
  if (value > LLONG_MAX || value < LLONG_MIN) return false;
  stored = static_cast<long long>(value);
  return true;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void requireFreshTime(long long before, long long after) {
  const std::string now = readAll(g_lock);
  require(now.size() == 14 && now.back() == '\n' && now.find_first_not_of("0123456789") == 13,
          "a taken lock holds 13 digits and a newline");
  const long long written = std::atoll(now.c_str());
  require(written >= before && written <= after, "a taken lock holds the time of the call");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Lines* sink = [] {
    makeDirectory();
    auto* s = new Lines;
    KXLog::getLogger()->setLevels("ROOT:9;");
    KXLog::getLogger()->setLogCb(s);
    return s;
  }();
  sink->all.clear();

  std::string content(reinterpret_cast<const char*>(data), size);
  if (!content.empty() && content[0] == '@') {
    char* end = nullptr;
    errno = 0;
    const long long offset = std::strtoll(content.c_str() + 1, &end, 10);
    if (errno != 0 || offset < -(1LL << 50) || offset > (1LL << 50)) return 0;
    const size_t used = static_cast<size_t>(end - content.c_str());
    content = std::to_string(static_cast<long long>(KXSys::timeMs()) + offset) + content.substr(used);
  }

  std::remove(g_lock.c_str());
  if (!content.empty()) {
    std::ofstream(g_lock, std::ios::binary) << content;
    require(readAll(g_lock) == content, "the lock file can be written");
  }

  Updater updater;
  const auto before = static_cast<long long>(KXSys::timeMs());
  const bool taken = updater.checkLockFile();
  const auto after = static_cast<long long>(KXSys::timeMs());

  require(updater.lockFilePath == g_lock, "the lock lives in TMPDIR");
  require(!sink->any("ERR Failed to open lock file"), "a readable lock file is read");
  if (content.empty()) {
    require(taken, "without a lock file the run proceeds");
    requireFreshTime(before, after);
    return 0;
  }

  long long stored = 0;
  const bool number = storedTime(content, stored);
  if (!number) {
    require(!taken, "a lock file without a number refuses the run");
    require(sink->any("ERR checkLockFile error : "), "a lock file without a number is reported");
  } else {
    // The age is judged against a clock read somewhere between the two
    // readings around the call; only a time on the boundary may go either way.
    const __int128 minAge = static_cast<__int128>(before) - stored;
    const __int128 maxAge = static_cast<__int128>(after) - stored;
    if (minAge > kHourMs) require(taken, "a lock older than an hour is taken over");
    if (maxAge <= kHourMs) {
      require(!taken, "a lock at most an hour old refuses the run");
      require(sink->any("NFY Another instance of has been launched less than one hour ago "),
              "a refused run says when the other one started");
    }
  }
  if (taken) {
    requireFreshTime(before, after);
  } else {
    require(readAll(g_lock) == content, "a refused run leaves the lock file as it was");
  }
  return 0;
}
