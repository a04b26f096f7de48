#include "FileKXLogCb.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <iostream>

#include "osal_file.h"

uint32_t FileKXLogCb::g_cpt = 0;

namespace {
constexpr size_t kShortFileMax = 32;

const char* orEmpty(const char* s) { return s != nullptr ? s : ""; }

// All of it or nothing more: a line cut by a full disk is not retried, but a
// short write from a signal is.
bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}
}  // namespace

FileKXLogCb::FileKXLogCb(const std::string& path, bool echo) : path(path), echo(echo) { open(); }

FileKXLogCb::~FileKXLogCb() {
  if (_fd >= 0) ::close(_fd);
}

void FileKXLogCb::open() {
  _fd = -1;
  _size = -1;
  int fd = -1;
  const char* replaced = nullptr;
  if (path.empty() || osal_openOwned(path.c_str(), O_APPEND, &fd, &replaced, 0600) != 0) return;
  struct stat st {};
  if (fstat(fd, &st) != 0) {
    ::close(fd);
    return;
  }
  // A log written before logs were private goes on, but no longer for
  // every local user to read: it holds server addresses and answers.
  if ((st.st_mode & 077) != 0) fchmod(fd, st.st_mode & 0700);
  _fd = fd;
  _size = static_cast<long long>(st.st_size);
  // Said in the file itself: the sink cannot log through the logger, which
  // may be holding its lock to call it.
  if (replaced != nullptr) {
    const std::string note = "Replaced " + path + ": it was " + replaced;
    log(0, 0, "ROOT", "ERR", KX_LOG_FILE, __LINE__, "open", note.c_str());
  }
}

namespace {
const char* shortName(const char* file) {
  const char* f = orEmpty(file);
  const char* slash = strrchr(f, '/');
  const char* backslash = strrchr(f, '\\');
  const char* sep = slash > backslash ? slash : backslash;
  if (sep != nullptr) return sep + 1;
  const size_t len = strlen(f);
  return len > kShortFileMax ? f + len - kShortFileMax : f;
}
}  // namespace

std::string FileKXLogCb::shortFileName(const char* file) { return shortName(file); }

std::string FileKXLogCb::backupName(const std::string& path) {
  // Four characters go whatever the extension is: "agent_upd.log" gives
  // "agent_upd.bak", and a name without ".log" loses its tail all the same.
  const size_t keep = path.size() >= 4 ? path.size() - 4 : path.size();
  return path.substr(0, keep) + ".bak";
}

void FileKXLogCb::log(unsigned int /*pid*/, unsigned long long /*tid*/, const char* module, const char* level,
                      const char* file, int line, const char* /*function*/, const char* message) {
  const time_t now = time(nullptr);
  if (now != _stampSecond) {
    struct tm local {};
    _stamp[0] = '\0';
    if (localtime_r(&now, &local) != nullptr) strftime(_stamp, sizeof _stamp, "%Y-%m-%d %H:%M:%S", &local);
    _stampSecond = now;
  }
  char lineNo[16];
  const auto conv = std::to_chars(lineNo, lineNo + sizeof lineNo, line);

  // The whole line is built first so that the size check can include it,
  // in a buffer that is kept: no allocation per line.
  std::string& text = _line;
  text.clear();
  text.append("[").append(_stamp).append("] - ");
  text.append(orEmpty(module)).append(":").append(orEmpty(level));
  text.append(" - [ (").append(shortName(file)).append(":");
  text.append(lineNo, conv.ptr).append(")] - ").append(orEmpty(message));

  // _size is -1 once the sink has failed, so a sink that could not reopen
  // never tries to roll again.
  if (_size + static_cast<long long>(text.size()) > kMaxSize) rollLogFiles();

  text.push_back('\n');
  if (_fd >= 0) {
    if (writeAll(_fd, text.data(), text.size())) _size += static_cast<long long>(text.size());
  }
  if (echo) {
    std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
    std::cout.flush();
  }
  ++g_cpt;
}

void FileKXLogCb::rollLogFiles() {
  if (_fd >= 0) ::close(_fd);
  // A failed rename leaves the file where it is; reopening appends to it and
  // the next line tries the roll again.
  rename(path.c_str(), backupName(path).c_str());
  open();
}
