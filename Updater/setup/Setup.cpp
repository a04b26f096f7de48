// Where the setup package lies: the server's definition file, the legacy
// layouts per platform, the macOS server probe, and the commands that install
// the package.
#include "Setup.h"

#include <boost/filesystem/path.hpp>
#include <exception>
#include <nlohmann/json.hpp>

#include "KXLog.h"
#include "utils/ShellCommand.h"

namespace setup {

namespace {

const char* const kUnusable = "Fail to parse agent_setup_def file";
const char* const kNoPaths = "Failed to get any correct setup paths";
const char* const kServiceStop = "systemctl stop kxagent";
const char* const kServiceStart = "systemctl start kxagent";
const char* const kMacLaunchDaemon = "/Library/LaunchDaemons/com.kxagent.plist";

bool endsWith(const std::string& s, const char* suffix) {
  const std::string tail(suffix);
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string joinPath(const std::string& dir, const std::string& name) {
  return (boost::filesystem::path(dir) / name).string();
}

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

SetupFailure notOffered(const char* text, HttpClient::Result answer = {}) {
  return SetupFailure{SetupFailure::NotOffered, text, std::string(), std::move(answer), false};
}

// The matching rules differ per platform on purpose: ".exe" anywhere on
// Windows, the file name's ending on Linux where the entry's os is not looked
// at, and no file name check on macOS.
bool fits(const Platform& platform, const utils::AgentSetupDef& def) {
  if (!def.enable || def.arch != platform.arch) return false;
  switch (platform.os) {
    case utils::Windows:
      return def.os == utils::Windows && platform.distrib == utils::Exe && def.setup.find(".exe") != std::string::npos;
    case utils::Macosx:
      return def.os == utils::Macosx;
    case utils::Linux:
      return (platform.distrib == utils::Deb && endsWith(def.setup, ".deb")) ||
             (platform.distrib == utils::Rpm && endsWith(def.setup, ".rpm")) ||
             (platform.distrib == utils::Spk && endsWith(def.setup, ".spk"));
    default:
      return false;
  }
}

// Once the server publishes a definition file it is authoritative: no
// silent fall back to guessed layouts. The setup name becomes a file of ours
// in the temporary directory: a path ("../x") would land elsewhere. How it
// reaches a command line is ShellCommand's concern.
Expected<Setup, SetupFailure> fromDefinition(const std::string& body, const std::string& serverUrl,
                                             const std::string& tempDir, const Platform& platform,
                                             const HttpClient::Result& answer) {
  const Expected<utils::AgentSetupDef, std::string> def = pickEntry(platform, body);
  if (!def.ok()) return SetupFailure{SetupFailure::Unreadable, kUnusable, def.failure(), answer, true};
  if (def->setup.empty()) return SetupFailure{SetupFailure::NotOffered, kUnusable, std::string(), answer, true};
  if (const std::string problem = utils::fileNameProblem(def->setup); !problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Refused setup name " << utils::logText(def->setup) << ": " << problem);
    return SetupFailure{SetupFailure::Refused, kUnusable, "setup name " + utils::logText(def->setup) + ": " + problem,
                        answer, true};
  }
  KXLOG(KXLM_ROOT, KXLL_DBG, "Use agent setup definition file");
  const std::string base = serverUrl + def->path + "/";
  utils::SetuParameter p;
  p.setupName = def->setup;
  p.setupUrl = base + utils::urlSegment(def->setup);
  p.hashUrl = base + utils::urlSegment(def->hash);
  p.versionUrl = base + utils::urlSegment(def->version);
  p.setupPath = joinPath(tempDir, def->setup);
  Platform resolved = platform;
  resolved.distrib = utils::stringToAgentDistrib(def->setup);
  Expected<utils::SetuParameter, SetupFailure> full = withCommands(resolved, p);
  if (!full.ok()) return full.failure();
  return Setup{*full, resolved, true};
}

}  // namespace

Expected<Setup, SetupFailure> probedSetup(HttpClient& client, const std::string& serverUrl, const std::string& tempDir,
                                          const Platform& platform) {
  const Probe probe = probeServer(client, serverUrl, utils::agentArchToString(platform.arch));
  if (probe.code != 0) {
    KXLOG(KXLM_ROOT, KXLL_ERR, kNoPaths);
    if (probe.code != 7) return notOffered(kNoPaths, probe.lastAnswer);
    return SetupFailure{SetupFailure::NoSize, kNoPaths,
                        "package " + utils::logUrl(probe.info.setupUrl) + " has no size", probe.lastAnswer, false};
  }
  const std::string base = probe.info.rootPath + "/";
  utils::SetuParameter p;
  p.setupName = probe.info.fileName;
  p.setupUrl = base + p.setupName;
  p.hashUrl = base + p.setupName + ".md5";
  p.versionUrl = base + "version_long.txt";
  p.setupSize = probe.info.setupSize;
  p.versionText = probe.info.versionText;
  p.packageName = probe.info.packageName;
  p.setupPath = joinPath(tempDir, p.setupName);
  Platform resolved = platform;
  resolved.distrib = utils::stringToAgentDistrib(p.setupName);
  Expected<utils::SetuParameter, SetupFailure> full = withCommands(resolved, p);
  if (!full.ok()) return full.failure();
  return Setup{*full, resolved, false};
}

std::string Platform::name() const {
  return std::string(utils::agentOSWord(os)) + "/" + utils::agentArchToString(arch) + " " +
         utils::agentDistribToString(static_cast<utils::AgentDistrib>(distrib));
}

Failure SetupFailure::failure() const {
  return Failure(Result::NoVerifiedFile, utils::logText(text) + (detail.empty() ? "" : ": " + detail), answer);
}

Expected<Setup, SetupFailure> resolve(HttpClient& client, const std::string& serverUrl, const std::string& tempDir,
                                      const Platform& platform) {
  std::string body;
  std::map<std::string, std::string> headers;
  const HttpClient::Result answer = client.get(serverUrl + "/agent_setup_def.json", body, headers);
  if (answer.code == 0) return fromDefinition(body, serverUrl, tempDir, platform, answer);
  KXLOG(KXLM_ROOT, KXLL_WRN, "Failed to get agent setup definition file - use legacy definition");
  if (platform.os == utils::Macosx) return probedSetup(client, serverUrl, tempDir, platform);
  if (platform.os != utils::Linux && platform.os != utils::Windows) return notOffered("Unknow OS", answer);
  Expected<utils::SetuParameter, SetupFailure> p = legacyParams(platform, serverUrl, tempDir);
  if (!p.ok()) return p.failure();
  return Setup{*p, platform, false};
}

Expected<utils::AgentSetupDef, std::string> pickEntry(const Platform& platform, const std::string& body) {
  try {
    const nlohmann::json root = nlohmann::json::parse(body, nullptr, true, false);
    for (const nlohmann::json& entry : root) {
      const utils::AgentSetupDef def = entry.get<utils::AgentSetupDef>();
      if (fits(platform, def)) return def;
    }
    return utils::AgentSetupDef{};
  } catch (const nlohmann::json::parse_error& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Parsing error : " << utils::logText(e.what()));
    // The parser quotes what it last read, which is the server's body: that
    // stays in the log, never in what travels on to the run record.
    return "not JSON (byte " + std::to_string(e.byte) + ")";
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Parsing error : " << utils::logText(e.what()));
    return utils::logText(e.what());
  }
}

Expected<utils::SetuParameter, SetupFailure> legacyParams(const Platform& platform, const std::string& serverUrl,
                                                          const std::string& tempDir) {
  utils::SetuParameter p;
  std::string base;
  if (platform.os == utils::Windows) {
    base = serverUrl + "/windows/amd64/";
    p.setupName = "setup.exe";
  } else if (platform.distrib == utils::Rpm || platform.distrib == utils::Deb) {
    p.setupName = platform.distrib == utils::Rpm ? "setup.rpm" : "setup.deb";
    // Other architectures have no legacy layout; the run then fails on its
    // empty URLs rather than here.
    if (platform.arch != utils::X64 && platform.arch != utils::Arm64) {
      p.setupPath = joinPath(tempDir, p.setupName);
      return p;
    }
    base = serverUrl + (platform.arch == utils::X64 ? "/linux/amd64/" : "/linux/aarch64/");
  } else {
    return notOffered("Unsupported distribution");
  }
  p.setupUrl = base + p.setupName;
  p.versionUrl = base + "version_long.txt";
  p.hashUrl = base + p.setupName + ".md5";
  p.setupPath = joinPath(tempDir, p.setupName);
  return withCommands(platform, p);
}

Expected<utils::SetuParameter, SetupFailure> withCommands(const Platform& platform, utils::SetuParameter p) {
  using utils::ShellCommand;
  if (platform.os == utils::Windows) {
    p.installCmd = ShellCommand().arg(p.setupPath).word("/q").text();
    p.stopCmd = "net stop kxagent";
    p.startCmd = "net start kxagent";
  } else if (platform.os == utils::Macosx) {
    // Only a flat package is named here; a disk image's package path is
    // appended, quoted, once the image is attached.
    ShellCommand installer("installer");
    installer.word("-target").word("/").word("-pkg");
    p.installCmd = platform.distrib == utils::Pkg ? installer.quoted(p.setupPath).text() : installer.text() + " ";
    p.stopCmd = std::string("launchctl unload ") + kMacLaunchDaemon;
    p.startCmd = std::string("launchctl load ") + kMacLaunchDaemon;
  } else if (platform.os != utils::Linux) {
    return notOffered("Unknow OS");
  } else if (platform.distrib == utils::Spk) {
    p.installCmd = ShellCommand("synopkg").word("install").arg(p.setupPath).text();
    p.stopCmd = "synopkg stop tova";
    p.startCmd = "synopkg start tova";
    p.postInstallCmd = "/bin/sed -i 's/package/root/g' /var/packages/tova/conf/privilege";
  } else if (platform.distrib == utils::Rpm || platform.distrib == utils::Deb) {
    const bool rpm = platform.distrib == utils::Rpm;
    p.installCmd = ShellCommand(rpm ? "rpm" : "dpkg").word(rpm ? "-U" : "-i").arg(p.setupPath).text();
    p.stopCmd = kServiceStop;
    p.startCmd = kServiceStart;
  } else {
    return notOffered("Unsupported distribution");
  }
  return p;
}

const std::vector<const char*>* probeDirectories(const std::string& archText) {
  return findCandidates(kDirCandidates, archText);
}

const std::vector<const char*>* probePackages(const std::string& archText) {
  return findCandidates(kFileCandidates, archText);
}

Probe probeServer(HttpClient& client, const std::string& serverUrl, const std::string& archText) {
  Probe probe;
  const std::vector<const char*>* dirs = probeDirectories(archText);
  const std::vector<const char*>* files = probePackages(archText);
  if (dirs == nullptr || files == nullptr) return Probe{3, SetupInfo(), HttpClient::Result()};
  std::string body;
  std::map<std::string, std::string> headers;
  for (const char* suffix : *dirs) {
    const std::string dir = serverUrl + suffix;
    probe.lastAnswer = client.get(dir + "/version_long.txt", body, headers);
    if (probe.lastAnswer.code != 0) continue;
    probe.info.versionText = body;
    probe.info.rootPath = dir;
    break;
  }
  if (probe.info.rootPath.empty()) return Probe{5, SetupInfo(), probe.lastAnswer};
  for (const char* file : *files) {
    const std::string url = probe.info.rootPath + "/" + file;
    probe.lastAnswer = client.head(url, headers);
    if (probe.lastAnswer.code != 0) continue;
    probe.info.setupUrl = url;
    probe.info.fileName = file;
    // As many leading characters as the extension is long ("setup.dmg"
    // gives "set"). Odd, but installed systems rely on exactly this name.
    const std::string name(file);
    const size_t dot = name.rfind('.');
    probe.info.packageName = dot == std::string::npos ? name : name.substr(0, name.size() - dot - 1);
    if (utils::getContentLength(headers, probe.info.setupSize) != 0) probe.code = 7;
    return probe;
  }
  // A directory with none of the packages still counts as found; the run
  // then fails later on the empty name.
  return probe;
}

std::vector<std::string> legacyPaths(const Platform& platform) {
  std::vector<std::string> paths;
  if (platform.os == utils::Macosx) {
    const std::string archText = utils::agentArchToString(platform.arch);
    const std::vector<const char*>* dirs = probeDirectories(archText);
    const std::vector<const char*>* files = probePackages(archText);
    for (size_t d = 0; dirs != nullptr && files != nullptr && d < dirs->size(); ++d) {
      for (const char* name : *files) paths.push_back(std::string((*dirs)[d] + 1) + "/" + name);
    }
    return paths;
  }
  const Expected<utils::SetuParameter, SetupFailure> p = legacyParams(platform, "", "");
  if (p.ok() && !p->setupUrl.empty()) paths.push_back(p->setupUrl.substr(1));
  return paths;
}

}  // namespace setup
