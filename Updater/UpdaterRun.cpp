// The update run: lock, version check, verified download, installation.
#include <fcntl.h>
#include <signal.h>
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
#include "Updater.h"
#include "Version.h"
#include "osal_file.h"
#include "osal_sysinfo.h"

namespace {

constexpr int kDownloadAttempts = 3;
constexpr long long kLockLifetimeMs = 3600000;
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

// Writes the current time; false when the file cannot be opened. A hard
// link, a link or another user's file in the lock's place is replaced, never
// written through.
bool writeTime(int fd) {
  const std::string text = std::to_string(KXSys::timeMs()) + "\n";
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return written;
}

bool writeLockFile(const std::string& path) {
  int fd = -1;
  return osal_openOwned(path.c_str(), O_TRUNC, &fd) == 0 && writeTime(fd);
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
    if (!utils::tempDirProblem(dir).empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    const char* path = lockFilePath.c_str();
    // Creating it exclusively is the check that no other run holds it.
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0) {
      if (!writeTime(fd)) KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    if (errno != EEXIST) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    // Never blocks (a FIFO) and never follows a link.
    fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat st {};
    if ((fd >= 0 ? fstat(fd, &st) : lstat(path, &st)) != 0) {
      if (fd >= 0) close(fd);
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
      // A link, FIFO or socket is no lock any run of ours wrote: it would
      // only switch the one-run-at-a-time guard off. Ours takes its place.
      if (fd >= 0) close(fd);
      KXLOG(KXLM_ROOT, KXLL_WRN, "Lock file is not a regular file - replaced");
      if (!writeLockFile(lockFilePath)) KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    if (fd < 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    const std::string content = readFirstLine(fd);
    close(fd);
    const long long stored = lockTime(content);
    // "now - stored > lifetime", turned around: the subtraction overflows for
    // a stored time far in the past, which is just a stale lock.
    const long long now = static_cast<long long>(KXSys::timeMs());
    if (stored < now - kLockLifetimeMs) {
      if (!writeLockFile(lockFilePath)) KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to open lock file");
      return true;
    }
    // A time in the future counts as fresh too: refused until an hour after it.
    KXLOG(KXLM_ROOT, KXLL_NFY,
          "Another instance of has been launched less than one hour ago "
              << localDate(stored) << " : lock file location is " << lockFilePath);
    return false;
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "checkLockFile error : " << e.what());
    return false;
  }
}

void Updater::removeLockFile() {
  KXLOG(KXLM_ROOT, KXLL_NFY, "Remove lock file");
  std::remove(lockFilePath.c_str());
}

// ---- the run --------------------------------------------------------------------

int Updater::checkAndUpdate(const std::string& url, const std::string& version) {
  KXLOG(KXLM_ROOT, KXLL_NFY, "Check Update");
  KXLOG(KXLM_ROOT, KXLL_NFY, "Current version : " << version);
  KXLOG(KXLM_ROOT, KXLL_NFY, "Udpate server : " << utils::logUrl(url));
  if (!checkLockFile()) return 0;
  const int result = doCheckAndUpdate(url, version);
  // Only a failure that a retry may cure (no root, server unreachable)
  // frees the lock at once; anything else waits out the hour.
  if (result == 1 || result == 2 || restartOnly) removeLockFile();
  return result;
}

int Updater::doCheckAndUpdate(const std::string& url, const std::string& version) {
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
      return 1;
    }

    const Version current = Version::parse(version);
    if (current.isInvalid()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid current version " << version);
      return 4;
    }

    tempDir = utils::getTempDir();
    if (tempDir.empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Cannot get temp directory location");
      return 11;
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "tempdir is [" << tempDir << "]");

    std::string archText = utils::getArch();
    if (archText.empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Cannot get architecture");
      return 3;
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
      return 3;
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "arch  is [" << archText << "]");

    utils::SetuParameter p = getAgentSetup();
    if (emulated) p.installCmd = "arch -arch arm64 " + p.installCmd;

    KXLOG(KXLM_ROOT, KXLL_NFY, "version url = " << utils::logUrl(p.versionUrl));
    KXLOG(KXLM_ROOT, KXLL_NFY, "setup url   = " << utils::logUrl(p.setupUrl));
    KXLOG(KXLM_ROOT, KXLL_NFY, "setup path  = " << p.setupPath);
    KXLOG(KXLM_ROOT, KXLL_NFY, "hash url    = " << utils::logUrl(p.hashUrl));
    KXLOG(KXLM_ROOT, KXLL_NFY, "star cmd    = " << p.startCmd);
    KXLOG(KXLM_ROOT, KXLL_NFY, "stop cmd    = " << p.stopCmd);
    KXLOG(KXLM_ROOT, KXLL_NFY, "install cmd = " << p.installCmd);

    Version available;
    if (const int r = fetchAvailableVersion(p, available); r != 0) return r;
    if (!(current < available)) {
      KXLOG(KXLM_ROOT, KXLL_NFY, "Current version is up to date. Nothing to do");
      return 0;
    }
    const std::string expectedMd5 = fetchExpectedMd5(p);
    unsigned long long expectedSize = 0;
    if (const int r = fetchExpectedSize(p, expectedSize); r != 0) return r;
    if (const int r = downloadVerified(p, expectedSize, expectedMd5); r != 0) return r;

    if (os == utils::Macosx && distrib == utils::Dmg) {
      std::string pkgPath;
      if (utils::mountAndGetPkgPath(p.packageName, p.setupPath, p.mountedDevice, pkgPath) != 0) {
        KXLOG(KXLM_ROOT, KXLL_ERR, "Unable to attach setup");
        return 9;
      }
      p.installCmd += "\"" + pkgPath + "\"";
    }

    installAgent(p, current, available);
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Update done");
    return 0;
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Exception : " << utils::logText(e.what()));
    return 11;
  }
}

// ---- the steps from the version file to a verified package ------------------------

int Updater::fetchAvailableVersion(const utils::SetuParameter& p, Version& available) {
  std::string versionText;
  if (os == utils::Macosx && !p.versionText.empty()) {
    versionText = p.versionText;
  } else {
    std::map<std::string, std::string> headers;
    const int c = httpClient.get(p.versionUrl, versionText, headers);
    if (c != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to download version:  [" << c << "]");
      return 2;
    }
  }
  available = Version::parse(versionText);
  if (available.isInvalid()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid version_long.txt " << utils::logText(versionText));
    return 5;
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Available version is " << available);
  return 0;
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

int Updater::fetchExpectedSize(const utils::SetuParameter& p, unsigned long long& size) {
  if (os == utils::Macosx && p.setupSize != 0) {
    size = p.setupSize;
    return 0;
  }
  std::map<std::string, std::string> headers;
  const int c = httpClient.head(p.setupUrl, headers);
  if (c != 0) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to get HEAD for " << utils::logUrl(p.setupUrl) << ": [" << c << " ]");
    return 2;
  }
  if (utils::getContentLength(headers, size) != 0) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to determine file size");
    return 7;
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "File size for " << utils::logUrl(p.setupUrl) << " is " << size << " bytes");
  return 0;
}

int Updater::downloadVerified(const utils::SetuParameter& p, unsigned long long expectedSize,
                              const std::string& expectedMd5) {
  std::map<std::string, std::string> headers;
  enum class Outcome { NotTried, WrongSize, WrongHash, Accepted } outcome = Outcome::NotTried;
  for (int attempt = 0; attempt < kDownloadAttempts && outcome != Outcome::Accepted; ++attempt) {
    std::string streamed;
    const int c =
        httpClient.download(p.setupUrl, p.setupPath, headers, expectedSize, expectedMd5.empty() ? nullptr : &streamed);
    if (c != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "'Fail to download setup file: [" << c << "]");
      return 2;
    }
    const unsigned long long n = boost::filesystem::file_size(p.setupPath);
    KXLOG(KXLM_ROOT, KXLL_NFY, "Setup downloaded [" << n << " bytes]");
    if (n != expectedSize) {
      // Not deleted: the next download overwrites it.
      KXLOG(KXLM_ROOT, KXLL_WRN,
            "Downloaded size is " << n << " bytes. Expected size is " << expectedSize << " bytes - try again");
      outcome = Outcome::WrongSize;
      continue;
    }
    if (expectedMd5.empty()) {
      outcome = Outcome::Accepted;
      continue;
    }
    // Hashed as it was written; read again only if that fell short.
    const std::string computed = streamed.empty() ? utils::computeMD5(p.setupPath) : streamed;
    if (computed == expectedMd5) {
      KXLOG(KXLM_ROOT, KXLL_NFY, "Computed md5 is " << computed);
      outcome = Outcome::Accepted;
    } else {
      KXLOG(KXLM_ROOT, KXLL_WRN,
            "Re-download setup file because current one has a wrong hash: " << computed << " vs "
                                                                            << utils::logText(expectedMd5));
      std::remove(p.setupPath.c_str());
      outcome = Outcome::WrongHash;
    }
  }
  switch (outcome) {
    case Outcome::Accepted:
      return 0;
    case Outcome::WrongHash:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid setup md5");
      return 7;
    case Outcome::WrongSize:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid setup size");
      return 6;
    default:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to download setup");
      return 11;
  }
}

// ---- service control ------------------------------------------------------------

void Updater::installAgent(const utils::SetuParameter& p, const Version& current, const Version& available) {
  const TerminationHeldBack held;
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
    const int installed = utils::runShell(p.installCmd);
    if (installed == 0) {
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
