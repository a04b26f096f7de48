// The machine: operating system, root, installed version, temporary
// directory and architecture, in the order the run has always checked them.
#include "KXLog.h"
#include "Steps.h"
#include "osal_sysinfo.h"

namespace steps {

namespace {

// The operating system this build follows and, on Windows and Linux, the
// package kind; on macOS the kind comes from the package the server offers.
Platform probeOs() {
  Platform platform;
  platform.os = utils::getOS();
  KXLOG(KXLM_ROOT, KXLL_NFY, "OS is [" << utils::agentOSToString(platform.os) << "]");
  if (platform.os == utils::Windows) {
    platform.distrib = utils::Exe;
  } else if (platform.os == utils::Linux) {
    platform.distrib = utils::isDebian() ? utils::Deb : utils::Rpm;
    KXLOG(KXLM_ROOT, KXLL_NFY,
          "distrib is [" << utils::agentDistribToString(static_cast<utils::AgentDistrib>(platform.distrib)) << "]");
  }
  return platform;
}

// The architecture; translated on an Arm machine, the native one, so that
// the native package is fetched and installed.
Status probeArch(Machine& machine) {
  machine.archText = utils::getArch();
  if (machine.archText.empty()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Cannot get architecture");
    return Failure(Result::UnknownArch, "architecture unknown");
  }
  machine.platform.arch = utils::stringToAgentArch(machine.archText);
  if (machine.platform.arch == utils::X64 && isEmulation()) {
    machine.archText = "arm64";
    machine.platform.arch = utils::Arm64;
    machine.emulated = true;
  }
  if (machine.platform.arch == utils::Unknown) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid architecture");
    return Failure(Result::UnknownArch, "invalid architecture " + utils::logText(machine.archText));
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "arch  is [" << machine.archText << "]");
  return Passed();
}

}  // namespace

Expected<Machine> probeMachine(const std::string& installedVersion) {
  Machine machine;
  machine.platform = probeOs();
  if (!utils::checkAdmin()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Need priveledged user or root user");
    return Failure(Result::NotRoot, "not running as root");
  }
  machine.current = Version::parse(installedVersion);
  if (machine.current.isInvalid()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid current version " << installedVersion);
    return Failure(Result::BadCurrentVersion, "invalid current version " + utils::logText(installedVersion));
  }
  machine.tempDir = utils::getTempDir();
  if (machine.tempDir.empty()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Cannot get temp directory location");
    return Failure(Result::NoVerifiedFile, "no usable temporary directory");
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "tempdir is [" << machine.tempDir << "]");
  if (const Status arch = probeArch(machine); !arch.ok()) return arch.failure();
  return machine;
}

}  // namespace steps
