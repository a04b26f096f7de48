// Where the setup package lies: the server's definition file, the legacy
// layouts per platform, and the commands that install it.
#include <boost/filesystem/path.hpp>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "KXLog.h"
#include "ShellCommand.h"
#include "Updater.h"

namespace {

bool endsWith(const std::string& s, const char* suffix) {
  const std::string tail(suffix);
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string joinPath(const std::string& dir, const std::string& name) {
  return (boost::filesystem::path(dir) / name).string();
}

const utils::AgentSetupDef& emptySetupCfg() {
  static const utils::AgentSetupDef empty{};
  return empty;
}

const char* const kServiceStop = "systemctl stop kxagent";
const char* const kServiceStart = "systemctl start kxagent";
const char* const kMacLaunchDaemon = "/Library/LaunchDaemons/com.kxagent.plist";

struct ProbeTable {
  const char* archText;
  std::vector<const char*> entries;
};

const ProbeTable kDirCandidates[] = {
    {"amd64", {"/macosx/amd64", "/macosx"}},
    {"x86_64", {"/macosx/amd64", "/macosx"}},
    {"arm64", {"/macosx/arm64", "/macosx-arm64", "/macosx"}},
    {"aarch64", {"/macosx/arm64", "/macosx-arm64", "/macosx"}},
};

const ProbeTable kFileCandidates[] = {
    {"amd64", {"setup.pkg", "setup.dmg", "Tova_x64.pkg", "Tova_x64.dmg", "Quillmap.dmg"}},
    {"x86_64", {"setup.pkg", "setup.dmg", "Tova_x64.pkg", "Tova_x64.dmg", "Quillmap.dmg"}},
    {"arm64", {"setup.pkg", "setup.dmg", "Tova_ARM64.pkg", "Tova_ARM64.dmg", "Quillmap.dmg"}},
    {"aarch64", {"setup.pkg", "setup.dmg", "Tova_ARM64.pkg", "Tova_ARM64.dmg", "Quillmap.dmg"}},
};

template <size_t N>
const std::vector<const char*>* findCandidates(const ProbeTable (&table)[N], const std::string& archText) {
  for (const ProbeTable& row : table) {
    if (archText == row.archText) return &row.entries;
  }
  return nullptr;
}

}  // namespace

utils::SetuParameter Updater::getAgentSetup() {
  using Fill = void (Updater::*)(utils::SetuParameter&);
  // The per-platform step for this run's os, Linux, macOS or Windows.
  const auto fillFor = [this](Fill linux, Fill mac, Fill windows) -> Fill {
    switch (os) {
      case utils::Linux:
        return linux;
      case utils::Macosx:
        return mac;
      case utils::Windows:
        return windows;
      default:
        throw SetupError(SetupError::NotOffered, "Unknow OS");
    }
  };

  const std::string url = serverUrl + "/agent_setup_def.json";
  std::string body;
  std::map<std::string, std::string> headers;
  const int r = httpClient.get(url, body, headers);
  utils::SetuParameter p;
  definitionUsed = r == 0;
  if (r == 0) {
    const utils::AgentSetupDef def = parseAgentSetupCfg(body);
    // Once the server publishes a definition file it is authoritative: no
    // silent fall back to guessed layouts. The setup name becomes a file of
    // ours in the temporary directory: a path ("../x") would land elsewhere.
    // How it reaches a command line is ShellCommand's concern.
    const char* const unusable = "Fail to parse agent_setup_def file";
    if (def.setup.empty()) {
      throw SetupError(parseError.empty() ? SetupError::NotOffered : SetupError::Unreadable, unusable, parseError);
    }
    if (const std::string problem = utils::fileNameProblem(def.setup); !problem.empty()) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Refused setup name " << utils::logText(def.setup) << ": " << problem);
      throw SetupError(SetupError::Refused, unusable, "setup name " + utils::logText(def.setup) + ": " + problem);
    }
    KXLOG(KXLM_ROOT, KXLL_DBG, "Use agent setup definition file");
    const std::string base = serverUrl + def.path + "/";
    p.setupName = def.setup;
    p.setupUrl = base + utils::urlSegment(def.setup);
    p.hashUrl = base + utils::urlSegment(def.hash);
    p.versionUrl = base + utils::urlSegment(def.version);
    p.setupPath = joinPath(tempDir, def.setup);
    distrib = utils::stringToAgentDistrib(def.setup);
    (this->*fillFor(&Updater::fillInstallSetupParamForLinux, &Updater::fillInstallSetupParamForMacOSX,
                    &Updater::fillInstallSetupParamForWindows))(p);
  } else {
    KXLOG(KXLM_ROOT, KXLL_WRN, "Failed to get agent setup definition file - use legacy definition");
    (this->*fillFor(&Updater::fillDefaultSetupParamForLinux, &Updater::fillDefaultSetupParamForMacOSX,
                    &Updater::fillDefaultSetupParamForWindows))(p);
  }
  return p;
}

utils::AgentSetupDef Updater::parseAgentSetupCfg(const std::string& body) {
  parseError.clear();
  try {
    const nlohmann::json root = nlohmann::json::parse(body, nullptr, true, false);
    // The matching rules differ per platform on purpose: ".exe" anywhere on
    // Windows, the file name's ending on Linux where the entry's os is not
    // looked at, and no file name check on macOS.
    for (const nlohmann::json& entry : root) {
      utils::AgentSetupDef def = entry.get<utils::AgentSetupDef>();
      if (!def.enable || def.arch != arch) continue;
      bool fits = false;
      switch (os) {
        case utils::Windows:
          fits = def.os == utils::Windows && distrib == utils::Exe && def.setup.find(".exe") != std::string::npos;
          break;
        case utils::Macosx:
          fits = def.os == utils::Macosx;
          break;
        case utils::Linux:
          fits = (distrib == utils::Deb && endsWith(def.setup, ".deb")) ||
                 (distrib == utils::Rpm && endsWith(def.setup, ".rpm")) ||
                 (distrib == utils::Spk && endsWith(def.setup, ".spk"));
          break;
        default:
          break;
      }
      if (fits) return def;
    }
  } catch (const nlohmann::json::parse_error& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Parsing error : " << utils::logText(e.what()));
    // The parser quotes what it last read, which is the server's body: that
    // stays in the log, never in what travels on to the run record.
    parseError = "not JSON (byte " + std::to_string(e.byte) + ")";
  } catch (const std::exception& e) {
    parseError = utils::logText(e.what());
    KXLOG(KXLM_ROOT, KXLL_ERR, "Parsing error : " << parseError);
  }
  return emptySetupCfg();
}

void Updater::fillDefaultSetupParamForWindows(utils::SetuParameter& p) {
  const std::string base = serverUrl + "/windows/amd64/";
  p.setupName = "setup.exe";
  p.setupUrl = base + p.setupName;
  p.versionUrl = base + "version_long.txt";
  p.hashUrl = base + p.setupName + ".md5";
  p.setupPath = joinPath(tempDir, p.setupName);
  fillInstallSetupParamForWindows(p);
}

void Updater::fillDefaultSetupParamForLinux(utils::SetuParameter& p) {
  const char* name = nullptr;
  if (distrib == utils::Rpm) {
    name = "setup.rpm";
  } else if (distrib == utils::Deb) {
    name = "setup.deb";
  } else {
    throw SetupError(SetupError::NotOffered, "Unsupported distribution");
  }
  p.setupName = name;
  p.setupPath = joinPath(tempDir, p.setupName);
  const char* dir = nullptr;
  if (arch == utils::X64) {
    dir = "/linux/amd64/";
  } else if (arch == utils::Arm64) {
    dir = "/linux/aarch64/";
  } else {
    // Other architectures have no legacy layout; the run then fails on its
    // empty URLs rather than here.
    return;
  }
  const std::string base = serverUrl + dir;
  p.setupUrl = base + p.setupName;
  p.versionUrl = base + "version_long.txt";
  p.hashUrl = base + p.setupName + ".md5";
  fillInstallSetupParamForLinux(p);
}

void Updater::fillDefaultSetupParamForMacOSX(utils::SetuParameter& p) {
  const std::string archText = utils::agentArchToString(arch);
  SetupInfo info;
  if (const int r = getSetupRootPath(serverUrl, archText, info); r != 0) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to get any correct setup paths");
    throw SetupError(r == 7 ? SetupError::NoSize : SetupError::NotOffered, "Failed to get any correct setup paths",
                     r == 7 ? "package " + utils::logUrl(info.setupUrl) + " has no size" : std::string());
  }
  const std::string base = info.rootPath + "/";
  p.setupName = info.fileName;
  p.setupUrl = base + p.setupName;
  p.hashUrl = base + p.setupName + ".md5";
  p.versionUrl = base + "version_long.txt";
  distrib = utils::stringToAgentDistrib(p.setupName);
  p.setupSize = info.setupSize;
  p.versionText = info.versionText;
  p.packageName = info.packageName;
  p.setupPath = joinPath(tempDir, p.setupName);
  fillInstallSetupParamForMacOSX(p);
}

void Updater::fillInstallSetupParamForWindows(utils::SetuParameter& p) {
  p.installCmd = utils::ShellCommand().arg(p.setupPath).word("/q").text();
  p.stopCmd = "net stop kxagent";
  p.startCmd = "net start kxagent";
}

void Updater::fillInstallSetupParamForLinux(utils::SetuParameter& p) {
  switch (distrib) {
    case utils::Spk:
      p.installCmd = utils::ShellCommand("synopkg").word("install").arg(p.setupPath).text();
      p.stopCmd = "synopkg stop tova";
      p.startCmd = "synopkg start tova";
      p.postInstallCmd = "/bin/sed -i 's/package/root/g' /var/packages/tova/conf/privilege";
      break;
    case utils::Rpm:
      p.installCmd = utils::ShellCommand("rpm").word("-U").arg(p.setupPath).text();
      p.stopCmd = kServiceStop;
      p.startCmd = kServiceStart;
      break;
    case utils::Deb:
      p.installCmd = utils::ShellCommand("dpkg").word("-i").arg(p.setupPath).text();
      p.stopCmd = kServiceStop;
      p.startCmd = kServiceStart;
      break;
    default:
      throw SetupError(SetupError::NotOffered, "Unsupported distribution");
  }
}

void Updater::fillInstallSetupParamForMacOSX(utils::SetuParameter& p) {
  // Only a flat package is named here; a disk image's package path is
  // appended, quoted, once the image is attached.
  utils::ShellCommand installer("installer");
  installer.word("-target").word("/").word("-pkg");
  p.installCmd = distrib == utils::Pkg ? installer.quoted(p.setupPath).text() : installer.text() + " ";
  p.stopCmd = std::string("launchctl unload ") + kMacLaunchDaemon;
  p.startCmd = std::string("launchctl load ") + kMacLaunchDaemon;
}

const std::vector<const char*>* Updater::probeDirectories(const std::string& archText) {
  return findCandidates(kDirCandidates, archText);
}

const std::vector<const char*>* Updater::probePackages(const std::string& archText) {
  return findCandidates(kFileCandidates, archText);
}

int Updater::getSetupRootPath(const std::string& serverUrl, const std::string& archText, SetupInfo& info) {
  const std::vector<const char*>* dirs = probeDirectories(archText);
  if (dirs == nullptr) return 3;
  std::string body;
  std::map<std::string, std::string> headers;
  for (const char* suffix : *dirs) {
    const std::string dir = serverUrl + suffix;
    if (httpClient.get(dir + "/version_long.txt", body, headers) == 0) {
      info.versionText = body;
      info.rootPath = dir;
      break;
    }
  }
  if (info.rootPath.empty()) return 5;
  const std::vector<const char*>* files = probePackages(archText);
  if (files == nullptr) return 3;
  for (const char* file : *files) {
    const std::string url = info.rootPath + "/" + file;
    if (httpClient.head(url, headers) != 0) continue;
    info.setupUrl = url;
    info.fileName = file;
    // As many leading characters as the extension is long ("setup.dmg"
    // gives "set"). Odd, but installed systems rely on exactly this name.
    const std::string name(file);
    const size_t dot = name.rfind('.');
    info.packageName = dot == std::string::npos ? name : name.substr(0, name.size() - dot - 1);
    if (utils::getContentLength(headers, info.setupSize) != 0) return 7;
    return 0;
  }
  // A directory with none of the packages still counts as found; the run
  // then fails later on the empty name.
  return 0;
}
