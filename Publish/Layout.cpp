// kx-publish layout: the tree a static web server serves as an update server.
// Every location comes from the updater's own tables and resolution code, so
// the tree is where every client looks.
#include <boost/filesystem.hpp>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "Manifest.h"
#include "Publish.h"
#include "Setup.h"
#include "utils.h"

namespace fs = boost::filesystem;

namespace publish {
namespace {

struct Package {
  Platform platform;
  int distrib = utils::None;
  std::string source;  // the file given
  std::string name;    // its name on the server
  std::string dir;     // its directory on the server, "/linux/amd64"
};

bool kindFitsOs(int distrib, int os) {
  switch (os) {
    case utils::Windows:
      return distrib == utils::Exe;
    case utils::Macosx:
      return distrib == utils::Pkg || distrib == utils::Dmg;
    default:
      return distrib == utils::Deb || distrib == utils::Rpm || distrib == utils::Spk;
  }
}

// Where a client without a definition file looks: the legacy layouts, and
// on macOS the first directory and package name its probe tries.
void placeLegacy(Package& pkg) {
  const setup::Platform platform{pkg.platform.os, pkg.platform.arch, pkg.distrib};
  if (platform.os == utils::Macosx) {
    const std::string archText = utils::agentArchToString(platform.arch);
    pkg.dir = setup::probeDirectories(archText)->front();
    for (const char* name : *setup::probePackages(archText)) {
      if (utils::stringToAgentDistrib(name) != pkg.distrib) continue;
      pkg.name = name;
      return;
    }
    throw std::logic_error("the probe tries no " + pkg.name);
  }
  const Expected<utils::SetuParameter, setup::SetupFailure> p = setup::legacyParams(platform, "", "");
  if (!p.ok() || p->setupUrl.empty()) {
    throw std::invalid_argument(pkg.platform.name + " " + pkg.name + " has no legacy layout: use --definition");
  }
  pkg.dir = fs::path(p->setupUrl).parent_path().string();
  pkg.name = p->setupName;
}

nlohmann::json definitionOf(const std::vector<Package>& packages) {
  nlohmann::json entries = nlohmann::json::array();
  for (const Package& pkg : packages) {
    entries.push_back(
        {{"name", pkg.platform.name + " " + utils::agentDistribToString(static_cast<utils::AgentDistrib>(pkg.distrib))},
         {"path", pkg.dir},
         {"setup", pkg.name},
         {"version", "version_long.txt"},
         {"hash", pkg.name + ".md5"},
         {"os", pkg.platform.os},
         {"arch", pkg.platform.arch},
         {"enable", true}});
  }
  // Read back as each client reads it: its own entry must be the one it takes.
  const std::string text = entries.dump(2);
  for (const Package& pkg : packages) {
    const setup::Platform platform{pkg.platform.os, pkg.platform.arch,
                                   pkg.platform.os == utils::Windows ? utils::Exe : pkg.distrib};
    const Expected<utils::AgentSetupDef, std::string> def = setup::pickEntry(platform, text);
    if (!def.ok() || def->setup != pkg.name || def->path != pkg.dir) {
      throw std::logic_error("a " + pkg.platform.name + " client would not take " + pkg.name);
    }
  }
  return entries;
}

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path.string(), std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

struct Request {
  std::string outDir, version, signKey, stages;
  int expiresDays = 90;
  int healthSeconds = 0;
  bool definition = false, paused = false;
  std::vector<Package> packages;
};

// The command line; 0, or the exit status of its refusal.
int parseRequest(const std::vector<std::string>& args, Request& r) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const size_t eq = a.find('=');
    if (a == "--version" && i + 1 < args.size()) {
      r.version = args[++i];
    } else if (a == "--definition") {
      r.definition = true;
    } else if (a == "--sign" && i + 1 < args.size()) {
      r.signKey = args[++i];
    } else if (a == "--expires" && i + 1 < args.size()) {
      if ((r.expiresDays = parseDays(args[++i])) <= 0)
        return refuse("--expires '" + args[i] + "' is not a number of days");
    } else if (a == "--rollout" && i + 1 < args.size()) {
      r.stages = args[++i];
    } else if (a == "--paused") {
      r.paused = true;
    } else if (a == "--health" && i + 1 < args.size()) {
      const int seconds = parseDays(args[++i]);
      if (seconds < 1 || seconds > 3600) return refuse("--health '" + args[i] + "' is not 1 to 3600 seconds");
      r.healthSeconds = seconds;
    } else if (a.rfind("--", 0) != 0 && eq != std::string::npos) {
      Package pkg;
      if (!parsePlatform(a.substr(0, eq), pkg.platform)) return usage("unknown platform " + a.substr(0, eq));
      pkg.source = a.substr(eq + 1);
      pkg.name = fs::path(pkg.source).filename().string();
      r.packages.push_back(pkg);
    } else if (r.outDir.empty() && a.rfind("--", 0) != 0) {
      r.outDir = a;
    } else {
      return usage("unexpected argument " + a);
    }
  }
  if (r.outDir.empty() || r.packages.empty()) return usage("layout needs an output directory and at least one package");
  if (r.signKey.empty() && (!r.stages.empty() || r.paused || r.healthSeconds > 0)) {
    return usage("--rollout, --paused and --health need --sign: only a signed release carries them");
  }
  if (!isPublishableVersion(r.version))
    return refuse("version '" + r.version + "' is not four numbers such as 7.3.0.0");
  return 0;
}

// Every package's kind and place on the server; 0, or the exit status of
// the refusal of what clients would misread.
int placePackages(Request& r) {
  std::map<std::string, std::string> taken;  // server path -> argument that claimed it
  for (Package& pkg : r.packages) {
    if (const std::string problem = utils::fileNameProblem(pkg.name); !problem.empty()) {
      return refuse("file name '" + utils::logText(pkg.name) + "' is refused by clients: " + problem);
    }
    pkg.distrib = utils::stringToAgentDistrib(pkg.name);
    if (pkg.distrib == utils::None) return refuse("unknown package kind: " + pkg.name);
    if (!kindFitsOs(pkg.distrib, pkg.platform.os)) return refuse(pkg.name + " is no package for " + pkg.platform.name);
    if (!fs::is_regular_file(pkg.source)) return refuse("no such file: " + pkg.source);
    // One macOS package per architecture: its probe stops at the first.
    const std::string kind = pkg.platform.os == utils::Macosx ? "" : pkg.name.substr(pkg.name.rfind('.'));
    if (!taken.emplace(pkg.platform.name + kind, pkg.source).second) {
      return refuse("two packages for " + pkg.platform.name + (kind.empty() ? "" : " " + kind.substr(1)));
    }
    try {
      if (r.definition) {
        pkg.dir = "/" + pkg.platform.name;
      } else {
        placeLegacy(pkg);
      }
    } catch (const std::invalid_argument& e) {
      return refuse(e.what());
    }
    const std::string at = pkg.dir + "/" + pkg.name;
    const auto [it, fresh] = taken.emplace(at, pkg.platform.name);
    if (!fresh) return refuse(pkg.platform.name + " and " + it->second + " would both be " + at + ": use --definition");
  }
  return 0;
}

void writeTree(const Request& r) {
  for (const Package& pkg : r.packages) {
    const fs::path dir = fs::path(r.outDir) / pkg.dir;
    fs::create_directories(dir);
    fs::copy_file(pkg.source, dir / pkg.name, fs::copy_options::overwrite_existing);
    // The client takes the sum up to the first blank; the comment line, which
    // checksum tools skip too, records what was published, so that check can
    // tell a version bumped without its package, or a package changed after
    // its sum was written.
    writeFile(dir / (pkg.name + ".md5"), utils::computeMD5(pkg.source) + "  " + pkg.name + "\n# version " + r.version +
                                             " size " + std::to_string(fs::file_size(pkg.source)) + "\n");
    writeFile(dir / "version_long.txt", r.version + "\n");
    std::cout << pkg.platform.name << ": " << pkg.dir << "/" << pkg.name << "\n";
  }
  if (r.definition) {
    writeFile(fs::path(r.outDir) / "agent_setup_def.json", definitionOf(r.packages).dump(2) + "\n");
    std::cout << "definition: /agent_setup_def.json\n";
  }
}

std::vector<SignedFile> signedFiles(const Request& r) {
  std::vector<SignedFile> files;
  files.reserve(r.packages.size());
  for (const Package& pkg : r.packages) {
    files.push_back({pkg.dir.substr(1) + "/" + pkg.name, r.version, pkg.source, utils::agentOSWord(pkg.platform.os),
                     utils::agentArchToString(pkg.platform.arch),
                     utils::agentDistribToString(static_cast<utils::AgentDistrib>(pkg.distrib))});
  }
  return files;
}

// What agents are told to do with every package; 0, or the exit status of
// the refusal of the stages.
int policyOf(const Request& r, int64_t now, Policy& policy) {
  policy.healthSeconds = r.healthSeconds;
  std::vector<release::Stage> stages;
  if (!r.stages.empty()) {
    if (const std::string problem = parseStages(r.stages, now, stages); !problem.empty()) {
      return refuse("--rollout: " + problem);
    }
  } else if (r.paused) {
    stages.push_back({now, 10000});  // resumed, it is offered to all again
  }
  if (!stages.empty()) policy.rollout = release::Rollout{stages, r.paused};
  return 0;
}

}  // namespace

int layout(const std::vector<std::string>& args) {
  Request r;
  if (const int status = parseRequest(args, r); status != 0) return status;
  if (const int status = placePackages(r); status != 0) return status;
  // A key that cannot sign, or a serial that cannot grow, is found out
  // before anything is written.
  const Signer signer = r.signKey.empty() ? Signer() : prepareSigning(r.outDir, r.signKey);
  Policy policy;
  if (const int status = policyOf(r, signer.now, policy); status != 0) return status;
  writeTree(r);
  if (r.signKey.empty()) return 0;
  signRelease(r.outDir, signer, r.expiresDays, signedFiles(r), policy);
  if (policy.rollout || policy.healthSeconds > 0) {
    release::Entry every;
    every.rollout = policy.rollout;
    every.healthSeconds = policy.healthSeconds;
    std::cout << "every package: " << describeEntry(every, signer.now) << "\n";
  }
  return 0;
}

}  // namespace publish
