// The instance lock: one run at a time, and none within the hour after a run
// that ended without a clear outcome.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "KXLog.h"
#include "KXSys.h"
#include "LockFile.h"
#include "Manifest.h"
#include "TrustedFile.h"
#include "Updater.h"
#include "osal_file.h"

namespace {

constexpr long long kLockLifetimeMs = 3600000;
// No run of ours writes a time this far ahead; a clock set back by hours
// stays within it.
constexpr long long kLockFutureMs = 24 * kLockLifetimeMs;
const char* const kLockFileName = "upgrade_ovk.lock";
const char* const kUnopened = "Failed to open lock file";

// The current time as the whole content of fd, from its start.
bool writeTime(int fd) {
  const std::string text = std::to_string(KXSys::timeMs()) + "\n";
  return ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

// A descriptor closed with its scope unless it is let go.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : _fd(fd) {}
  ~Descriptor() {
    if (_fd >= 0) close(_fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return _fd; }
  int release() {
    const int fd = _fd;
    _fd = -1;
    return fd;
  }

 private:
  int _fd;
};

// A lock file of our own, made whole under a name of its own and then put in
// place only if nothing is there yet, so that no run ever reads a lock that
// another is still writing. Its descriptor, locked, or -1 with errno EEXIST
// when another lock is in place, or another errno when none can be made.
int createLock(const std::string& path) {
  const std::string fresh = path + "." + std::to_string(getpid());
  unlink(fresh.c_str());  // left by a run of the same number that died
  Descriptor fd(open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (fd.get() < 0) return -1;
  if (flock(fd.get(), LOCK_EX) != 0 || !writeTime(fd.get())) {
    const int err = errno;
    unlink(fresh.c_str());
    errno = err;
    return -1;
  }
  int placed = osal_renameNoReplace(fresh.c_str(), path.c_str());
  if (placed != 0 && (errno == EINVAL || errno == ENOSYS)) {
    // A file system that cannot rename without replacing: a hard link is
    // just as exclusive, at the price of a moment with two names.
    placed = link(fresh.c_str(), path.c_str());
  }
  const int err = errno;
  unlink(fresh.c_str());
  if (placed != 0) {
    errno = err;
    return -1;
  }
  return fd.release();
}

std::string localDate(long long ms) {
  const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
  std::tm tm{};
  char buffer[100] = {};
  if (localtime_r(&seconds, &tm) != nullptr) std::strftime(buffer, sizeof buffer, "%d-%m-%Y %H:%M:%S", &tm);
  return buffer;
}

// The lock in place, opened to be judged: never blocking (a FIFO), never
// through a link; a directory only for reading.
int openPlaced(const char* path) {
  const int fd = open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  return fd < 0 && errno == EISDIR ? open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : fd;
}

}  // namespace

namespace lockfile {

long long parseTime(const std::string& content) {
  std::string text = content.substr(0, content.find('\n'));
  if (text.size() > kLineMax) throw std::length_error("lock file line too long");
  text.resize(std::strlen(text.c_str()));  // a NUL ends the number, as it always has
  boost::algorithm::trim(text);
  return std::stoll(text, nullptr, 10);
}

}  // namespace lockfile

bool Updater::checkLockFile() { return takeLock().proceed; }

Updater::LockVerdict Updater::takeLock() {
  try {
    const std::string dir = boost::filesystem::temp_directory_path().string();
    lockFilePath = (boost::filesystem::path(dir) / kLockFileName).string();
    KXLOG(KXLM_ROOT, KXLL_NFY, "Lock file is [" << lockFilePath << "]");
    // In a directory where others could swap the file, there is no lock to
    // trust; the run itself stops at the same check.
    if (!utils::directoryProblem(dir).empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, kUnopened);
      return LockVerdict{true, std::string()};
    }
    // Twice at most: what is in the way is replaced once.
    for (int round = 0; round < 2; ++round) {
      if (const int fd = createLock(lockFilePath); fd >= 0) {
        _lock = fd;
        return LockVerdict{true, std::string()};
      }
      if (errno != EEXIST) break;
      if (std::optional<LockVerdict> verdict = judgePlacedLock(); verdict) return *verdict;
    }
    KXLOG(KXLM_ROOT, KXLL_ERR, kUnopened);
    return LockVerdict{true, std::string()};
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "checkLockFile error : " << e.what());
    return LockVerdict{false, std::string("the lock file cannot be read: ") + utils::logText(e.what())};
  }
}

std::optional<Updater::LockVerdict> Updater::judgePlacedLock() {
  Descriptor fd(openPlaced(lockFilePath.c_str()));
  const std::optional<trusted::Identity> id =
      fd.get() >= 0 ? trusted::ofDescriptor(fd.get()) : trusted::atPath(lockFilePath);
  if (!id) {
    if (errno == ENOENT) return std::nullopt;  // removed by the run that held it
    KXLOG(KXLM_ROOT, KXLL_ERR, kUnopened);
    return LockVerdict{true, std::string()};
  }
  if (!S_ISREG(id->mode) && !S_ISDIR(id->mode)) {
    // A link, FIFO or socket is no lock any run of ours wrote: it would
    // only switch the one-run-at-a-time guard off. Ours takes its place.
    KXLOG(KXLM_ROOT, KXLL_ERR, "Lock file is not a regular file - replaced");
    trusted::removeIfSame(lockFilePath, *id);
    return std::nullopt;
  }
  if (const trusted::Flaw flaw = trusted::flawOf(*id, trusted::kOwnedByRootOrUs | trusted::kOneLink);
      flaw != trusted::Flaw::None && S_ISREG(id->mode)) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Replaced lock file " << lockFilePath << ": " << trusted::said(flaw));
    trusted::removeIfSame(lockFilePath, *id);
    return std::nullopt;
  }
  LockVerdict verdict = judgeLockTime(fd.get(), S_ISREG(id->mode));
  if (verdict.proceed) _lock = fd.release();
  return verdict;
}

Updater::LockVerdict Updater::judgeLockTime(int fd, bool regular) {
  // A run that is still going holds the lock, whatever time the file shows.
  const bool held = regular && flock(fd, LOCK_EX | LOCK_NB) != 0;
  const long long stored = lockfile::parseTime(trusted::readBounded(fd, lockfile::kLineMax, true));
  // "now - stored > lifetime", turned around: the subtraction overflows for
  // a stored time far in the past, which is just a stale lock.
  const long long now = static_cast<long long>(KXSys::timeMs());
  const bool future = stored > now && stored - now > kLockFutureMs;
  if (!held && (stored < now - kLockLifetimeMs || future)) {
    if (future) {
      KXLOG(
          KXLM_ROOT, KXLL_ERR,
          "Replaced lock file " << lockFilePath << ": its time " << localDate(stored) << " lies more than a day ahead");
    }
    if (!writeTime(fd)) KXLOG(KXLM_ROOT, KXLL_ERR, kUnopened);
    return LockVerdict{true, std::string()};
  }
  // A time in the future counts as fresh too: refused until an hour after it.
  KXLOG(KXLM_ROOT, KXLL_NFY,
        "Another instance of has been launched less than one hour ago " << localDate(stored)
                                                                        << " : lock file location is " << lockFilePath);
  return LockVerdict{false, "another instance holds the lock since " + release::utcText(stored / 1000)};
}

void Updater::removeLockFile() {
  KXLOG(KXLM_ROOT, KXLL_NFY, "Remove lock file");
  std::remove(lockFilePath.c_str());
  releaseLock();
}

void Updater::releaseLock() {
  if (_lock >= 0) close(_lock);
  _lock = -1;
}
