#include "FileKXLogCb.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <iostream>

uint32_t FileKXLogCb::g_cpt = 0;

namespace {
constexpr size_t kTimeSize = 100;
constexpr size_t kShortFileMax = 32;
constexpr uint32_t kExtraFlushEvery = 100;

// "ate" as well as "app": not every C library puts a stream just opened for
// appending at the end of the file, and the size check reads the position
// before the first write.
constexpr std::ios::openmode kAppend = std::ios::out | std::ios::app | std::ios::ate;

const char* orEmpty(const char* s) { return s != nullptr ? s : ""; }

// The log often lies in a shared temporary directory and the program runs as
// root: a link planted in the file's place would have every line appended to
// whatever it names. The file is found or made without following a link
// first; in a sticky directory a file made by root cannot be swapped by
// anyone else before the stream opens it.
void openAppending(std::ofstream& stream, const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    stream.setstate(std::ios::failbit);
    return;
  }
  ::close(fd);
  stream.open(path, kAppend);
}
}  // namespace

FileKXLogCb::FileKXLogCb(const std::string& path, bool echo) : path(path), echo(echo) { openAppending(stream, path); }

FileKXLogCb::~FileKXLogCb() {
  try {
    stream.flush();
    stream.close();
  } catch (...) {
    // The stream's exception mask is never set, so this is only a guard.
  }
}

std::string FileKXLogCb::shortFileName(const char* file) {
  const char* f = orEmpty(file);
  const char* slash = strrchr(f, '/');
  const char* backslash = strrchr(f, '\\');
  const char* sep = slash > backslash ? slash : backslash;
  if (sep != nullptr) return sep + 1;
  const size_t len = strlen(f);
  return len > kShortFileMax ? std::string(f + len - kShortFileMax) : std::string(f);
}

std::string FileKXLogCb::backupName(const std::string& path) {
  // Four characters go whatever the extension is: "agent_upd.log" gives
  // "agent_upd.bak", and a name without ".log" loses its tail all the same.
  const size_t keep = path.size() >= 4 ? path.size() - 4 : path.size();
  return path.substr(0, keep) + ".bak";
}

void FileKXLogCb::log(unsigned int /*pid*/, unsigned long long /*tid*/, const char* module, const char* level,
                      const char* file, int line, const char* /*function*/, const char* message) {
  char stamp[kTimeSize] = {};
  const time_t now = time(nullptr);
  struct tm local {};
  if (localtime_r(&now, &local) != nullptr) strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char lineNo[16];
  const auto conv = std::to_chars(lineNo, lineNo + sizeof lineNo, line);

  // The whole line is built first so that the size check can include it.
  std::string text;
  text.reserve(96 + strlen(orEmpty(message)));
  text.append("[").append(stamp).append("] - ");
  text.append(orEmpty(module)).append(":").append(orEmpty(level));
  text.append(" - [ (").append(shortFileName(file)).append(":");
  text.append(lineNo, conv.ptr).append(")] - ").append(orEmpty(message));

  // tellp() is -1 once the stream has failed, so a sink that could not
  // reopen never tries to roll again.
  const long long position = static_cast<long long>(stream.tellp());
  if (position + static_cast<long long>(text.size()) > kMaxSize) rollLogFiles();

  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  stream.put('\n');
  stream.flush();
  if (echo) {
    std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
    std::cout.put('\n');
    std::cout.flush();
  }
  if (++g_cpt % kExtraFlushEvery == 0) stream.flush();
}

void FileKXLogCb::rollLogFiles() {
  if (stream.is_open()) {
    stream.flush();
    const bool flushed = !stream.fail();
    stream.close();
    if (!flushed) stream.setstate(std::ios::failbit);
  } else {
    stream.setstate(std::ios::failbit);
  }
  // A failed rename leaves the file where it is; reopening appends to it and
  // the next line tries the roll again.
  rename(path.c_str(), backupName(path).c_str());
  openAppending(stream, path);
  if (stream.is_open()) stream.clear();
}
