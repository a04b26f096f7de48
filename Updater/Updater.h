#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "HttpClient.h"
#include "utils.h"

// One update of the agent: resolves where the setup package lies, checks
// versions, downloads and verifies the package, and drives the service
// control. Single-threaded; one object per run.
//
// The fields are the run's context. They are public because the command
// line and the tests set them up before the steps that read them.
class Updater {
 public:
  // What the macOS server probe found.
  struct SetupInfo {
    std::string rootPath;
    std::string setupUrl;
    std::string fileName;
    std::string packageName;
    std::string versionText;
    unsigned long long setupSize = 0;
  };

  explicit Updater(bool restartOnly = false) : restartOnly(restartOnly) {}
  virtual ~Updater() = default;
  Updater(const Updater&) = delete;
  Updater& operator=(const Updater&) = delete;

  // The whole run: takes the instance lock, runs doCheckAndUpdate and
  // releases the lock after results 1 and 2, or always with restartOnly.
  // Returns the run's result (0 when another instance holds the lock).
  int checkAndUpdate(const std::string& url, const std::string& version);

  // Version check, download with verification, service control. Returns
  // 0 (nothing to do, or done) or a failure code 1-11; never throws a
  // standard exception.
  int doCheckAndUpdate(const std::string& url, const std::string& version);

  // True when the run may go on: no lock file, a stale one (older than an
  // hour), or one that cannot be opened. The file then holds the current
  // time. False while another run's lock is fresh or unreadable.
  bool checkLockFile();
  void removeLockFile();
  // The time a lock file's content holds: its first line, cut at a NUL and
  // trimmed, as a base-10 count of milliseconds. Throws as std::stoll does,
  // and std::length_error for a first line of more than 4096 bytes.
  static long long lockTime(const std::string& content);

  // The run's steps from the version file to a verified package, shared with
  // the publishing tool so that it judges a server exactly as a client does.
  // Each logs as the run does and returns the run's result for its failure,
  // 0 when it succeeded. The published version (from the probe or the
  // version file): 0, 2 (request failed) or 5 (not a version).
  int fetchAvailableVersion(const utils::SetuParameter& p, Version& available);
  // The sum the server publishes, or "" when there is none to check against;
  // `file`, when given, receives the whole hash file as served.
  std::string fetchExpectedMd5(const utils::SetuParameter& p, std::string* file = nullptr);
  // The package's size (from the probe or a HEAD request): 0, 2 or 7.
  int fetchExpectedSize(const utils::SetuParameter& p, unsigned long long& size);
  // Up to three downloads to p.setupPath until one has the size and, when a
  // sum is given, the sum: 0, 2 (a download failed), 6 (size) or 7 (sum).
  int downloadVerified(const utils::SetuParameter& p, unsigned long long expectedSize, const std::string& expectedMd5);

  // Stops the agent, installs the package (unless restartOnly), detaches a
  // disk image and starts the agent again on every path. Failures are logged
  // and do not change the run's result.
  void installAgent(const utils::SetuParameter& p, const Version& current, const Version& available);

  // Display libraries that agents from 7.2.0.0 on need on Linux.
  void installXCBDeps();
  // The installation lines it runs, byte for byte.
  static const char* aptXcbLine();
  static const char* dnfXcbLine();

  // Setup parameters for this run: from the server's definition file when it
  // can be fetched (no fallback once it was), else from the legacy layouts.
  // Reads serverUrl, tempDir, os, arch; sets distrib. Throws
  // std::runtime_error when nothing usable is found.
  utils::SetuParameter getAgentSetup();

  // First enabled entry of the definition file that fits this system, or an
  // empty entry (setup empty) when none fits or the file cannot be read.
  utils::AgentSetupDef parseAgentSetupCfg(const std::string& body);

  // Legacy layouts per platform; the macOS one probes the server.
  void fillDefaultSetupParamForWindows(utils::SetuParameter& p);
  void fillDefaultSetupParamForLinux(utils::SetuParameter& p);
  void fillDefaultSetupParamForMacOSX(utils::SetuParameter& p);

  // Service and install commands; read p.setupPath and distrib.
  void fillInstallSetupParamForWindows(utils::SetuParameter& p);
  void fillInstallSetupParamForLinux(utils::SetuParameter& p);
  void fillInstallSetupParamForMacOSX(utils::SetuParameter& p);

  // Probes serverUrl for the first directory with a version file and the
  // first package that answers HEAD. Returns 0 (also when no package
  // answered), 3 (architecture not known), 5 (no directory) or 7 (package
  // without a size). At most three GETs and five HEADs.
  int getSetupRootPath(const std::string& serverUrl, const std::string& archText, SetupInfo& info);
  // What that probe tries, in order: directories under the server address and
  // package names in them; null for an architecture it does not know.
  static const std::vector<const char*>* probeDirectories(const std::string& archText);
  static const std::vector<const char*>* probePackages(const std::string& archText);

  bool restartOnly = false;
  std::string lockFilePath;
  HttpClient httpClient;
  std::string serverUrl;
  std::string tempDir;
  int arch = utils::Unknown;
  int os = 0;
  int distrib = utils::None;
};
