// Service control and installation: the agent is stopped, the package
// installed and the agent started again on every path, whatever signal
// arrives meanwhile.
#include <signal.h>

#include "KXLog.h"
#include "Steps.h"
#include "utils/ShellCommand.h"

namespace steps {

namespace {

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

bool isDiskImage(const Platform& platform) { return platform.os == utils::Macosx && platform.distrib == utils::Dmg; }

// Why the package must not be installed, logged; Passed when it may.
Status refusedSetup(const std::string& path, const std::string& problem) {
  if (problem.empty()) return Passed();
  KXLOG(KXLM_ROOT, KXLL_ERR, "Refused setup file " << path << ": " << problem);
  return Failure(Result::NoVerifiedFile, "setup file " + path + " " + problem);
}

// The installation between stop and start; a failure of the installer
// itself is logged and does not change the result.
Status upgrade(const Install& install) {
  KXLOG(KXLM_ROOT, KXLL_NFY, "Upgrading agent ...'");
  if (install.platform.os == utils::Linux && install.current <= kXcbVersion && kXcbVersion <= install.available) {
    installXcbDeps(install.platform.distrib);
  }
  // The installer reads the package by its path: the last moment to see
  // that the path still names the file that was verified. A disk image
  // was checked before it was attached.
  const utils::SetuParameter& p = install.params;
  Status kept = refusedSetup(
      p.setupPath, isDiskImage(install.platform) ? std::string() : landedProblem(p.setupPath, install.landed));
  if (!kept.ok()) return kept;
  if (const int installed = utils::runShell(p.installCmd); installed == 0) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Installed");
  } else {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to install agent : [" << installed << "]");
  }
  return Passed();
}

}  // namespace

Expected<utils::SetuParameter> prepareInstall(const Setup& setup, const HttpClient::Landed& landed, bool downgrade) {
  utils::SetuParameter p = setup.params;
  if (downgrade && setup.platform.os == utils::Linux && setup.platform.distrib == utils::Rpm) {
    p.installCmd = utils::ShellCommand("rpm").word("-U").word("--oldpackage").arg(p.setupPath).text();
  }
  if (!isDiskImage(setup.platform)) return p;
  // hdiutil reads the image by its path: it must still be the file that was
  // verified.
  if (Status s = refusedSetup(p.setupPath, landedProblem(p.setupPath, landed)); !s.ok()) return s.failure();
  std::string pkgPath;
  if (utils::mountAndGetPkgPath(p.packageName, p.setupPath, p.mountedDevice, pkgPath) != 0) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Unable to attach setup");
    return Failure(Result::NotAttached, "disk image could not be attached");
  }
  p.installCmd += utils::ShellCommand::doubleQuoted(pkgPath);
  return p;
}

Status installAgent(const Install& install) {
  const TerminationHeldBack held;
  const utils::SetuParameter& p = install.params;
  KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Stopping ....");
  if (const int stopped = utils::runShell(p.stopCmd); stopped == 0) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Stopped");
  } else {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to stop agent: [" << stopped << "]");
  }
  Status installed = install.restartOnly ? Status(Passed()) : upgrade(install);
  if (isDiskImage(install.platform)) utils::unmount(p.mountedDevice);
  // Reached on every path that stopped the agent: it must never stay down.
  if (const int started = utils::runShell(p.startCmd); started == 0) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Started");
  } else {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to re-start agent : [" << started << "]");
  }
  return installed;
}

const char* aptXcbLine() { return kAptXcbLine; }
const char* dnfXcbLine() { return kDnfXcbLine; }

void installXcbDeps(int distrib) {
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

}  // namespace steps
