// The update run: lock, version check, verified download, installation.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>

#include "KXLog.h"
#include "KXSys.h"
#include "ShellCommand.h"
#include "Updater.h"
#include "Version.h"
#include "osal_file.h"
#include "osal_sysinfo.h"

namespace {

constexpr int kDownloadAttempts = 3;
constexpr long long kLockLifetimeMs = 3600000;
// No run of ours writes a time this far ahead; a clock set back by hours
// stays within it.
constexpr long long kLockFutureMs = 24 * kLockLifetimeMs;
// A lock file holds thirteen digits; anything near this long was not written
// by a run of ours.
constexpr size_t kLockLineMax = 4096;
const char* const kLockFileName = "upgrade_ovk.lock";

// The last version without the display libraries; upgrades across it need
// them installed first.
const Version kXcbVersion(7, 2, 0, 0);

const char* const kAptXcbLine =
    "apt-get install -y"
    "             libxrender1"
    "             libxcb1"
    "             libxcb-render0"
    "             libxcb-render-util0"
    "             libxcb-shape0"
    "             libxcb-randr0"
    "             libxcb-xfixes0"
    "             libxcb-xkb1"
    "             libxcb-sync1"
    "             libxcb-shm0"
    "             libxcb-icccm4"
    "             libxcb-keysyms1"
    "             libxcb-image0"
    "             libxcb-util1"
    "             libxcb-cursor0"
    "             libxkbcommon0"
    "             libxkbcommon-x11-0"
    "             libfontconfig1"
    "             libfreetype6"
    "             libxext6"
    "             libx11-xcb1"
    "             libsm6"
    "             libice6";

const char* const kDnfXcbLine =
    "dnf install -y "
    "\t\t\tlibXrender "
    "\t\t\tlibxcb "
    "\t\t\txcb-util "
    "\t\t\txcb-util-keysyms "
    "\t\t\txcb-util-image "
    "\t\t\txcb-util-renderutil "
    "\t\t\txcb-util-cursor "
    "\t\t\txcb-util-wm "
    "\t\t\tlibxkbcommon "
    "\t\t\tlibxkbcommon-x11 "
    "\t\t\tfontconfig "
    "\t\t\tfreetype "
    "\t\t\tlibXext "
    "\t\t\tlibX11-xcb "
    "\t\t\tlibSM "
    "\t\t\tlibICE";

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

// Why a lock file in place is none a run of ours wrote, or "".
std::string foreignLock(const struct stat& st) {
  if (st.st_uid != 0 && st.st_uid != geteuid()) return "it belongs to another user";
  if (st.st_nlink != 1) return "it has other names";
  return std::string();
}

// Removes the file at path if it is still the one fd refers to, so that a
// lock another run has just put there is left alone.
void removeIfSame(const std::string& path, int fd) {
  struct stat mine {};
  struct stat there {};
  if (fd < 0 || (fstat(fd, &mine) == 0 && lstat(path.c_str(), &there) == 0 && mine.st_dev == there.st_dev &&
                 mine.st_ino == there.st_ino)) {
    unlink(path.c_str());
  }
}

// Up to kLockLineMax + 1 bytes of the first line: enough to tell a line that
// is too long, without reading a huge planted file whole. A directory reads
// as empty.
std::string readFirstLine(int fd) {
  std::string text(kLockLineMax + 1, '\0');
  size_t got = 0;
  while (got < text.size()) {
    const ssize_t n = read(fd, &text[got], text.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    const size_t end = got + static_cast<size_t>(n);
    if (std::memchr(&text[got], '\n', static_cast<size_t>(n)) != nullptr) {
      got = end;
      break;
    }
    got = end;
  }
  text.resize(got);
  return text;
}

// While the agent is stopped, SIGTERM, SIGINT and SIGQUIT are only noted:
// whoever sent one still gets the process ended, but after the start
// command has run, never with the agent left down. Handled rather than
// blocked, so that the commands themselves start with default handling.
volatile sig_atomic_t g_heldSignal = 0;
extern "C" void holdSignal(int sig) { g_heldSignal = sig; }

class TerminationHeldBack {
 public:
  TerminationHeldBack() {
    struct sigaction hold {};
    hold.sa_handler = holdSignal;
    sigemptyset(&hold.sa_mask);
    for (size_t i = 0; i < kCount; ++i) sigaction(kSignals[i], &hold, &_previous[i]);
  }
  ~TerminationHeldBack() {
    for (size_t i = 0; i < kCount; ++i) sigaction(kSignals[i], &_previous[i], nullptr);
    if (g_heldSignal != 0) raise(g_heldSignal);
  }
  TerminationHeldBack(const TerminationHeldBack&) = delete;
  TerminationHeldBack& operator=(const TerminationHeldBack&) = delete;

 private:
  static constexpr size_t kCount = 3;
  static constexpr int kSignals[kCount] = {SIGTERM, SIGINT, SIGQUIT};
  struct sigaction _previous[kCount] {};
};

std::string localDate(long long ms) {
  const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
  std::tm tm{};
  char buffer[100] = {};
  if (localtime_r(&seconds, &tm) != nullptr) std::strftime(buffer, sizeof buffer, "%d-%m-%Y %H:%M:%S", &tm);
  return buffer;
}

}  // namespace

// ---- instance lock ------------------------------------------------------------

long long Updater::lockTime(const std::string& content) {
  std::string text = content.substr(0, content.find('\n'));
  if (text.size() > kLockLineMax) throw std::length_error("lock file line too long");
  text.resize(std::strlen(text.c_str()));  // a NUL ends the number, as it always has
  boost::algorithm::trim(text);
  return std::stoll(text, nullptr, 10);
}

bool Updater::checkLockFile() {
  try {
    const std::string dir = boost::filesystem::temp_directory_path().string();
    lockFilePath = (boost::filesystem::path(dir) / kLockFileName).string();
    KXLOG(KXLM_ROOT, KXLL_NFY, "Lock file is [" << lockFilePath << "]");
    // In a directory where others could swap the file, there is no lock to
    // trust; the run itself stops at the same check.
    if (!utils::directoryProblem(dir).empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    const char* path = lockFilePath.c_str();
    // Twice at most: what is in the way is replaced once.
    for (int round = 0; round < 2; ++round) {
      if (const int fd = createLock(lockFilePath); fd >= 0) {
        lockFd = fd;
        return true;
      }
      if (errno != EEXIST) break;
      // Never blocks (a FIFO) and never follows a link.
      int opened = open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
      if (opened < 0 && errno == EISDIR) opened = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
      Descriptor fd(opened);
      struct stat st {};
      if ((fd.get() >= 0 ? fstat(fd.get(), &st) : lstat(path, &st)) != 0) {
        if (errno == ENOENT) continue;  // removed by the run that held it
        break;
      }
      if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        // A link, FIFO or socket is no lock any run of ours wrote: it would
        // only switch the one-run-at-a-time guard off. Ours takes its place.
        KXLOG(KXLM_ROOT, KXLL_ERR, "Lock file is not a regular file - replaced");
        removeIfSame(lockFilePath, fd.get());
        continue;
      }
      if (const std::string foreign = foreignLock(st); !foreign.empty() && S_ISREG(st.st_mode)) {
        KXLOG(KXLM_ROOT, KXLL_ERR, "Replaced lock file " << lockFilePath << ": " << foreign);
        removeIfSame(lockFilePath, fd.get());
        continue;
      }
      // A run that is still going holds the lock, whatever time the file
      // shows.
      const bool held = S_ISREG(st.st_mode) && flock(fd.get(), LOCK_EX | LOCK_NB) != 0;
      const long long stored = lockTime(readFirstLine(fd.get()));
      // "now - stored > lifetime", turned around: the subtraction overflows
      // for a stored time far in the past, which is just a stale lock.
      const long long now = static_cast<long long>(KXSys::timeMs());
      const bool future = stored > now && stored - now > kLockFutureMs;
      if (!held && (stored < now - kLockLifetimeMs || future)) {
        if (future) {
          KXLOG(KXLM_ROOT, KXLL_ERR,
                "Replaced lock file " << lockFilePath << ": its time " << localDate(stored)
                                      << " lies more than a day ahead");
        }
        if (!writeTime(fd.get())) KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
        lockFd = fd.release();
        return true;
      }
      // A time in the future counts as fresh too: refused until an hour
      // after it.
      KXLOG(KXLM_ROOT, KXLL_NFY,
            "Another instance of has been launched less than one hour ago "
                << localDate(stored) << " : lock file location is " << lockFilePath);
      return false;
    }
    KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
    return true;
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "checkLockFile error : " << e.what());
    return false;
  }
}

void Updater::removeLockFile() {
  KXLOG(KXLM_ROOT, KXLL_NFY, "Remove lock file");
  std::remove(lockFilePath.c_str());
  releaseLock();
}

void Updater::releaseLock() {
  if (lockFd >= 0) close(lockFd);
  lockFd = -1;
}

// ---- the run --------------------------------------------------------------------

const char* resultMeaning(int code) {
  switch (code) {
    case 0:
      return "nothing to do, update done, or another instance holds the lock";
    case 1:
      return "not running as root";
    case 2:
      return "version file, HEAD request or setup download failed";
    case 3:
      return "architecture unknown";
    case 4:
      return "current version not parseable";
    case 5:
      return "published version not parseable";
    case 6:
      return "wrong size after the last attempt";
    case 7:
      return "size not determinable, or wrong MD5 after the last attempt";
    case 9:
      return "disk image could not be attached";
    case 11:
      return "no temporary directory, no verified file, or an exception in the run";
    case 12:
      return "a signed release was required and a check of it failed";
    default:
      return "unknown result";
  }
}

Outcome Updater::update(const std::string& url, const std::string& version) {
  KXLOG(KXLM_ROOT, KXLL_NFY, "Check Update");
  KXLOG(KXLM_ROOT, KXLL_NFY, "Current version : " << version);
  KXLOG(KXLM_ROOT, KXLL_NFY, "Udpate server : " << utils::logUrl(url));
  if (!checkLockFile()) {
    record.action = "locked";
    return record.outcome = Outcome::failed(0, "another instance holds the lock");
  }
  Outcome outcome = runSteps(url, version);
  if (!outcome.ok()) record.action = "failed";
  // Only a failure that a retry may cure (no root, server unreachable)
  // frees the lock at once; anything else waits out the hour.
  // A refused release is the server's fault as much as a failed request.
  if (outcome.code == 1 || outcome.code == 2 || outcome.code == 12 || restartOnly) removeLockFile();
  record.outcome = outcome;
  return outcome;
}

Outcome Updater::runSteps(const std::string& url, const std::string& version) {
  // Each failure is logged at ERR by the step that meets it; the outcome
  // carries the same fact up as a value.
  try {
    serverUrl = url;
    os = utils::getOS();
    KXLOG(KXLM_ROOT, KXLL_NFY, "OS is [" << utils::agentOSToString(os) << "]");
    if (os == utils::Windows) {
      distrib = utils::Exe;
    } else if (os == utils::Linux) {
      distrib = utils::isDebian() ? utils::Deb : utils::Rpm;
      KXLOG(KXLM_ROOT, KXLL_NFY,
            "distrib is [" << utils::agentDistribToString(static_cast<utils::AgentDistrib>(distrib)) << "]");
    }

    if (!utils::checkAdmin()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Need priveledged user or root user");
      return Outcome::failed(1, "not running as root");
    }

    const Version current = Version::parse(version);
    if (current.isInvalid()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid current version " << version);
      return Outcome::failed(4, "invalid current version " + utils::logText(version));
    }

    tempDir = utils::getTempDir();
    if (tempDir.empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Cannot get temp directory location");
      return Outcome::failed(11, "no usable temporary directory");
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "tempdir is [" << tempDir << "]");

    std::string archText = utils::getArch();
    if (archText.empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Cannot get architecture");
      return Outcome::failed(3, "architecture unknown");
    }
    arch = utils::stringToAgentArch(archText);
    bool emulated = false;
    if (arch == utils::X64 && isEmulation()) {
      // Translated on an Arm machine: fetch and install the native package.
      archText = "arm64";
      arch = utils::Arm64;
      emulated = true;
    }
    if (arch == utils::Unknown) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid architecture");
      return Outcome::failed(3, "invalid architecture " + utils::logText(archText));
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "arch  is [" << archText << "]");
    // A machine that pins release keys must have usable ones before it asks
    // the server anything: it never falls back to unsigned updates.
    if (Outcome o = loadPinnedKeys(); !o.ok()) return o;

    utils::SetuParameter p = getAgentSetup();
    if (emulated) p.installCmd = "arch -arch arm64 " + p.installCmd;
    record.packageUrl = p.setupUrl;

    KXLOG(KXLM_ROOT, KXLL_NFY, "version url = " << utils::logUrl(p.versionUrl));
    KXLOG(KXLM_ROOT, KXLL_NFY, "setup url   = " << utils::logUrl(p.setupUrl));
    KXLOG(KXLM_ROOT, KXLL_NFY, "setup path  = " << p.setupPath);
    KXLOG(KXLM_ROOT, KXLL_NFY, "hash url    = " << utils::logUrl(p.hashUrl));
    KXLOG(KXLM_ROOT, KXLL_NFY, "star cmd    = " << p.startCmd);
    KXLOG(KXLM_ROOT, KXLL_NFY, "stop cmd    = " << p.stopCmd);
    KXLOG(KXLM_ROOT, KXLL_NFY, "install cmd = " << p.installCmd);

    Version available;
    if (Outcome o = fetchAvailableVersion(p, available); !o.ok()) return o;
    record.offeredVersion = available.toString();
    if (!(current < available)) {
      KXLOG(KXLM_ROOT, KXLL_NFY, "Current version is up to date. Nothing to do");
      record.action = "up to date";
      return Outcome();
    }
    if (keysPinned) {
      if (Outcome o = checkRelease(p, available); !o.ok()) return o;
    }
    const std::string expectedMd5 = fetchExpectedMd5(p);
    unsigned long long expectedSize = 0;
    if (Outcome o = fetchExpectedSize(p, expectedSize); !o.ok()) return o;
    record.packageSize = expectedSize;
    if (keysPinned) {
      if (Outcome o = matchRelease(p, expectedSize); !o.ok()) return o;  // before a byte is downloaded
    }
    if (Outcome o = downloadVerified(p, expectedSize, expectedMd5); !o.ok()) return o;
    if (keysPinned) {
      if (Outcome o = acceptRelease(p); !o.ok()) {
        removeDownload(p);
        return o;
      }
    }

    if (os == utils::Macosx && distrib == utils::Dmg) {
      // hdiutil reads the image by its path: it must still be the file that
      // was verified.
      if (const std::string problem = landedProblem(p); !problem.empty()) {
        KXLOG(KXLM_ROOT, KXLL_ERR, "Refused setup file " << p.setupPath << ": " << problem);
        return Outcome::failed(11, "setup file " + p.setupPath + " " + problem);
      }
      std::string pkgPath;
      if (utils::mountAndGetPkgPath(p.packageName, p.setupPath, p.mountedDevice, pkgPath) != 0) {
        KXLOG(KXLM_ROOT, KXLL_ERR, "Unable to attach setup");
        return Outcome::failed(9, "disk image could not be attached");
      }
      p.installCmd += utils::ShellCommand::doubleQuoted(pkgPath);
    }

    if (Outcome o = installAgent(p, current, available); !o.ok()) return o;
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Update done");
    record.action = restartOnly ? "restarted" : "updated";
    return Outcome();
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Exception : " << utils::logText(e.what()));
    const auto* setup = dynamic_cast<const SetupError*>(&e);
    return Outcome::failed(
        11, utils::logText(e.what()) + (setup != nullptr && !setup->detail.empty() ? ": " + setup->detail : ""));
  }
}

// ---- the steps from the version file to a verified package ------------------------

namespace {
// "404", or libcurl's reason when no answer came.
std::string answerOf(const HttpClient& client) {
  const HttpClient::Result& r = client.lastResult();
  return r.code > 0 ? std::to_string(r.code) : r.error;
}
}  // namespace

Outcome Updater::fetchAvailableVersion(const utils::SetuParameter& p, Version& available) {
  std::string versionText;
  if (os == utils::Macosx && !p.versionText.empty()) {
    versionText = p.versionText;
  } else {
    std::map<std::string, std::string> headers;
    const int c = httpClient.get(p.versionUrl, versionText, headers);
    if (c != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to download version:  [" << c << "]");
      return Outcome::failed(2, "version file " + utils::logUrl(p.versionUrl) + ": " + answerOf(httpClient));
    }
  }
  available = Version::parse(versionText);
  if (available.isInvalid()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid version_long.txt " << utils::logText(versionText));
    // The body stays in the log: the record, read by tools, carries none of
    // it (a redirect may have made it an internal service's answer).
    return Outcome::failed(5, "published version is not four numbers");
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Available version is " << available);
  return Outcome();
}

std::string Updater::fetchExpectedMd5(const utils::SetuParameter& p, std::string* file) {
  // The hash file holds "<sum> <file name>"; without a blank there is no
  // usable sum and the download is checked on its size alone.
  std::string body;
  std::map<std::string, std::string> headers;
  const int c = httpClient.get(p.hashUrl, body, headers);
  if (c != 0) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "No file signature available (skip verification): [" << c << "]");
    return std::string();
  }
  if (file != nullptr) *file = body;
  const size_t blank = body.find(' ');
  if (blank == std::string::npos) return std::string();
  std::string sum = body.substr(0, blank);
  KXLOG(KXLM_ROOT, KXLL_NFY, "Downloaded md5 is " << utils::logText(sum));
  return sum;
}

Outcome Updater::fetchExpectedSize(const utils::SetuParameter& p, unsigned long long& size) {
  const std::string url = utils::logUrl(p.setupUrl);
  if (os == utils::Macosx && p.setupSize != 0) {
    size = p.setupSize;
  } else {
    std::map<std::string, std::string> headers;
    const int c = httpClient.head(p.setupUrl, headers);
    if (c != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to get HEAD for " << url << ": [" << c << " ]");
      return Outcome::failed(2, "package " + url + ": " + answerOf(httpClient));
    }
    if (utils::getContentLength(headers, size) != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to determine file size");
      return Outcome::failed(7, "package " + url + " has no size");
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "File size for " << url << " is " << size << " bytes");
  }
  // A size the download would then be allowed to fill, refused before a
  // byte of it is written.
  std::string problem;
  const unsigned long long room = utils::freeSpace(tempDir);
  if (size > kMaxPackageSize) {
    problem = std::to_string(size) + " bytes is above the ceiling of " + std::to_string(kMaxPackageSize) + " bytes";
  } else if (room < kFreeSpaceMargin || size > room - kFreeSpaceMargin) {
    problem = std::to_string(size) + " bytes do not fit in " + tempDir + " (" + std::to_string(room) + " bytes free)";
  }
  if (problem.empty()) return Outcome();
  KXLOG(KXLM_ROOT, KXLL_ERR, "Refused size of " << url << ": " << problem);
  return Outcome::failed(7, "package " + url + ": " + problem);
}

Outcome Updater::downloadVerified(const utils::SetuParameter& p, unsigned long long expectedSize,
                                  const std::string& expectedMd5) {
  std::map<std::string, std::string> headers;
  enum class Verdict { NotTried, WrongSize, WrongHash, Accepted } verdict = Verdict::NotTried;
  for (int attempt = 0; attempt < kDownloadAttempts && verdict != Verdict::Accepted; ++attempt) {
    const int c = httpClient.download(p.setupUrl, p.setupPath, headers, expectedSize, &landed,
                                      (expectedMd5.empty() ? 0U : HttpClient::kMd5) | downloadSums);
    if (c != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "'Fail to download setup file: [" << c << "]");
      removeDownload(p);
      return Outcome::failed(2, "download of " + utils::logUrl(p.setupUrl) + ": " + answerOf(httpClient));
    }
    // The size of what was written, from the descriptor that wrote it.
    const unsigned long long n = landed.size;
    KXLOG(KXLM_ROOT, KXLL_NFY, "Setup downloaded [" << n << " bytes]");
    if (n != expectedSize) {
      // Not deleted: the next download overwrites it.
      KXLOG(KXLM_ROOT, KXLL_WRN,
            "Downloaded size is " << n << " bytes. Expected size is " << expectedSize << " bytes - try again");
      verdict = Verdict::WrongSize;
      continue;
    }
    if (expectedMd5.empty()) {
      verdict = Verdict::Accepted;
      continue;
    }
    // Hashed as it was written, from the same descriptor.
    if (landed.md5 == expectedMd5) {
      KXLOG(KXLM_ROOT, KXLL_NFY, "Computed md5 is " << landed.md5);
      verdict = Verdict::Accepted;
    } else {
      KXLOG(KXLM_ROOT, KXLL_WRN,
            "Re-download setup file because current one has a wrong hash: " << landed.md5 << " vs "
                                                                            << utils::logText(expectedMd5));
      removeDownload(p);
      verdict = Verdict::WrongHash;
    }
  }
  if (verdict == Verdict::Accepted) return Outcome();
  removeDownload(p);
  switch (verdict) {
    case Verdict::WrongHash:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid setup md5");
      return Outcome::failed(7, "MD5 of the download differs from the published sum");
    case Verdict::WrongSize:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid setup size");
      return Outcome::failed(
          6, "the download has another size than the " + std::to_string(expectedSize) + " bytes announced");
    default:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to download setup");
      return Outcome::failed(11, "no verified download");
  }
}

std::string Updater::landedProblem(const utils::SetuParameter& p) const {
  struct stat st {};
  if (lstat(p.setupPath.c_str(), &st) != 0) return "is gone";
  if (static_cast<uint64_t>(st.st_dev) != landed.device || static_cast<uint64_t>(st.st_ino) != landed.inode) {
    return "is another file than the one verified";
  }
  if (!S_ISREG(st.st_mode) || st.st_nlink != 1) return "has other names";
  if (st.st_uid != geteuid()) return "belongs to another user";
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "is writable by others";
  if (static_cast<uint64_t>(st.st_size) != landed.size) return "has changed its size";
  return std::string();
}

void Updater::removeDownload(const utils::SetuParameter& p) const {
  struct stat st {};
  if (landed.inode != 0 && lstat(p.setupPath.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_dev) == landed.device &&
      static_cast<uint64_t>(st.st_ino) == landed.inode) {
    std::remove(p.setupPath.c_str());
  }
}

// ---- service control ------------------------------------------------------------

Outcome Updater::installAgent(const utils::SetuParameter& p, const Version& current, const Version& available) {
  const TerminationHeldBack held;
  Outcome outcome;
  KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Stopping ....");
  const int stopped = utils::runShell(p.stopCmd);
  if (stopped == 0) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Stopped");
  } else {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to stop agent: [" << stopped << "]");
  }

  if (!restartOnly) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Upgrading agent ...'");
    if (os == utils::Linux && current <= kXcbVersion && kXcbVersion <= available) installXCBDeps();
    // The installer reads the package by its path: the last moment to see
    // that the path still names the file that was verified. A disk image
    // was checked before it was attached.
    const std::string problem = distrib == utils::Dmg ? std::string() : landedProblem(p);
    if (!problem.empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Refused setup file " << p.setupPath << ": " << problem);
      outcome = Outcome::failed(11, "setup file " + p.setupPath + " " + problem);
    } else if (const int installed = utils::runShell(p.installCmd); installed == 0) {
      KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Installed");
    } else {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to install agent : [" << installed << "]");
    }
  }

  if (os == utils::Macosx && distrib == utils::Dmg) utils::unmount(p.mountedDevice);

  // Reached on every path that stopped the agent: it must never stay down.
  const int started = utils::runShell(p.startCmd);
  if (started == 0) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Started");
  } else {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to re-start agent : [" << started << "]");
  }
  return outcome;
}

const char* Updater::aptXcbLine() { return kAptXcbLine; }
const char* Updater::dnfXcbLine() { return kDnfXcbLine; }

void Updater::installXCBDeps() {
  KXLOG(KXLM_ROOT, KXLL_NFY, "installXCBDeps ...");
  const char* line = nullptr;
  if (distrib == utils::Deb && utils::runShell("dpkg -S libX11 > /dev/null 2>&1") == 0) {
    line = kAptXcbLine;
  } else if (distrib == utils::Rpm && utils::runShell("rpm -q libX11 > /dev/null 2>&1") == 0) {
    line = kDnfXcbLine;
  }
  if (line == nullptr) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "X11 not found");
    return;
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Found x11");
  const int r = utils::runShell(line);
  KXLOG(KXLM_ROOT, KXLL_NFY, "Install xcb dependencies" << r);
}
