// The Updater's own names for the setup resolution (setup::), on its fields.
#include <stdexcept>

#include "Updater.h"

namespace {

// The value, or the resolution's text as the exception these names have
// always thrown.
template <class T>
T orThrow(Expected<T, setup::SetupFailure> resolved) {
  if (!resolved.ok()) throw std::runtime_error(resolved.failure().text);
  return std::move(*resolved);
}

}  // namespace

utils::SetuParameter Updater::getAgentSetup() {
  const setup::Setup s = orThrow(setup::resolve(httpClient, serverUrl, tempDir, platform()));
  distrib = s.platform.distrib;
  return s.params;
}

utils::AgentSetupDef Updater::parseAgentSetupCfg(const std::string& body) {
  const Expected<utils::AgentSetupDef, std::string> def = setup::pickEntry(platform(), body);
  return def.ok() ? *def : utils::AgentSetupDef();
}

void Updater::fillDefaultSetupParamForWindows(utils::SetuParameter& p) {
  p = orThrow(setup::legacyParams(setup::Platform{utils::Windows, arch, distrib}, serverUrl, tempDir));
}

void Updater::fillDefaultSetupParamForLinux(utils::SetuParameter& p) {
  p = orThrow(setup::legacyParams(setup::Platform{utils::Linux, arch, distrib}, serverUrl, tempDir));
}

void Updater::fillDefaultSetupParamForMacOSX(utils::SetuParameter& p) {
  const setup::Setup s =
      orThrow(setup::probedSetup(httpClient, serverUrl, tempDir, setup::Platform{utils::Macosx, arch, distrib}));
  distrib = s.platform.distrib;
  p = s.params;
}

void Updater::fillInstallSetupParamForWindows(utils::SetuParameter& p) {
  p = orThrow(setup::withCommands(setup::Platform{utils::Windows, arch, distrib}, p));
}

void Updater::fillInstallSetupParamForLinux(utils::SetuParameter& p) {
  p = orThrow(setup::withCommands(setup::Platform{utils::Linux, arch, distrib}, p));
}

void Updater::fillInstallSetupParamForMacOSX(utils::SetuParameter& p) {
  p = orThrow(setup::withCommands(setup::Platform{utils::Macosx, arch, distrib}, p));
}

int Updater::getSetupRootPath(const std::string& serverUrl, const std::string& archText, SetupInfo& info) {
  setup::Probe probe = setup::probeServer(httpClient, serverUrl, archText);
  info = std::move(probe.info);
  return probe.code;
}
