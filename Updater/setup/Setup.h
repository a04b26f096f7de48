#pragma once

#include <string>
#include <vector>

#include "HttpClient.h"
#include "Outcome.h"
#include "utils.h"

// Where the setup package of one platform lies on a server and how it is
// installed: the server's definition file, the legacy layouts and the macOS
// server probe. Free of any run: kx-publish and the fuzz targets use the
// tables with a Platform of their choosing.
namespace setup {

// The machine an update is for, in the codes of utils.
struct Platform {
  int os = 0;
  int arch = utils::Unknown;
  int distrib = utils::None;
  // As publishers and signed releases name it: "linux/amd64 deb".
  std::string name() const;
};

// What the macOS server probe found.
struct SetupInfo {
  std::string rootPath;
  std::string setupUrl;
  std::string fileName;
  std::string packageName;
  std::string versionText;
  unsigned long long setupSize = 0;
};

// The setup of one update: its parameters, the platform with the package
// kind they give, and whether the server's definition file named them.
struct Setup {
  utils::SetuParameter params;
  Platform platform;
  bool byDefinition = false;
};

// Why no setup could be resolved: text is what the run logs ("Fail to parse
// agent_setup_def file", ...), why and detail say which of the reasons behind
// one text it was, answer is the last request's.
struct SetupFailure {
  enum Why {
    NotOffered,  // nothing published for this platform and package kind
    Unreadable,  // a definition file that is no valid JSON or lacks a key
    Refused,     // a setup name no file of ours can have
    NoSize,      // the macOS probe found a package without a size
  };
  Why why = NotOffered;
  const char* text = "";
  std::string detail;
  HttpClient::Result answer;
  bool byDefinition = false;  // the server's definition file was read
  // The run's failure: result 11 with text and detail.
  Failure failure() const;
};

// The whole resolution, as a client of that platform does it: the definition
// file when the server has one (no fall back once it was fetched), else the
// legacy layout. Logs as the run does.
Expected<Setup, SetupFailure> resolve(HttpClient& client, const std::string& serverUrl, const std::string& tempDir,
                                      const Platform& platform);

// The macOS legacy layout, found by probing the server (probeServer).
Expected<Setup, SetupFailure> probedSetup(HttpClient& client, const std::string& serverUrl, const std::string& tempDir,
                                          const Platform& platform);

// First enabled entry of the definition file that fits the platform, an empty
// entry (setup empty) when none fits, or why the file cannot be read.
Expected<utils::AgentSetupDef, std::string> pickEntry(const Platform& platform, const std::string& body);

// Legacy layouts of Windows and Linux (serverUrl "" gives paths alone);
// "Unsupported distribution" for a Linux package kind without one.
Expected<utils::SetuParameter, SetupFailure> legacyParams(const Platform& platform, const std::string& serverUrl,
                                                          const std::string& tempDir);
// Service and install commands for p.setupPath and the platform's kind.
Expected<utils::SetuParameter, SetupFailure> withCommands(const Platform& platform, utils::SetuParameter p);

// The macOS probe of serverUrl: the first directory with a version file and
// the first package that answers HEAD. code 0 (also when no package
// answered), 3 (architecture not known), 5 (no directory) or 7 (package
// without a size). At most three GETs and five HEADs.
struct Probe {
  int code = 0;
  SetupInfo info;
  HttpClient::Result lastAnswer;
};
Probe probeServer(HttpClient& client, const std::string& serverUrl, const std::string& archText);
// What that probe tries, in order: directories under the server address and
// package names in them; null for an architecture it does not know.
const std::vector<const char*>* probeDirectories(const std::string& archText);
const std::vector<const char*>* probePackages(const std::string& archText);

// Where the platform looks without a definition file, as paths under the
// server's address ("linux/amd64/setup.deb"); every probe candidate on macOS.
std::vector<std::string> legacyPaths(const Platform& platform);

}  // namespace setup
