#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "HttpClient.h"
#include "Manifest.h"
#include "Outcome.h"
#include "RunRecord.h"
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

  // Why no setup parameters could be resolved. what() is the text the run
  // logs ("Fail to parse agent_setup_def file", ...); kind and detail say
  // which of the reasons behind one text it was.
  class SetupError : public std::runtime_error {
   public:
    enum Kind {
      NotOffered,  // nothing published for this platform and package kind
      Unreadable,  // a definition file that is no valid JSON or lacks a key
      Refused,     // a setup name no file of ours can have
      NoSize,      // the macOS probe found a package without a size
    };
    SetupError(Kind kind, const char* text, std::string detail = std::string())
        : std::runtime_error(text), kind(kind), detail(std::move(detail)) {}
    Kind kind;
    std::string detail;
  };

  explicit Updater(bool restartOnly = false) : restartOnly(restartOnly) {}
  // Lets go of the lock file, which stays for the next run to judge.
  virtual ~Updater() { releaseLock(); }
  Updater(const Updater&) = delete;
  Updater& operator=(const Updater&) = delete;

  // The whole run: takes the instance lock, runs doCheckAndUpdate and
  // releases the lock after results 1 and 2, or always with restartOnly.
  // Returns the run's result (0 when another instance holds the lock).
  int checkAndUpdate(const std::string& url, const std::string& version) { return update(url, version).code; }
  // checkAndUpdate with the reason of a failure beside the result.
  Outcome update(const std::string& url, const std::string& version);

  // Version check, download with verification, service control. Returns
  // 0 (nothing to do, or done) or a failure code 1-11; never throws a
  // standard exception.
  int doCheckAndUpdate(const std::string& url, const std::string& version) { return runSteps(url, version).code; }
  Outcome runSteps(const std::string& url, const std::string& version);

  // True when the run may go on: no lock file, a stale one (older than an
  // hour), or one that cannot be opened. The file then holds the current
  // time, and the run holds an advisory lock on it until it ends, so that a
  // second run finds it held whatever its age. False while another run's
  // lock is fresh, held or unreadable. A lock that is not a regular file,
  // not ours, or set more than a day ahead is replaced.
  bool checkLockFile();
  void removeLockFile();
  void releaseLock();
  // The time a lock file's content holds: its first line, cut at a NUL and
  // trimmed, as a base-10 count of milliseconds. Throws as std::stoll does,
  // and std::length_error for a first line of more than 4096 bytes.
  static long long lockTime(const std::string& content);

  // The run's steps from the version file to a verified package, shared with
  // the publishing tool so that it judges a server exactly as a client does.
  // Each logs as the run does and returns the run's result for its failure.
  // The published version (from the probe or the version file): 2 (request
  // failed) or 5 (not a version).
  Outcome fetchAvailableVersion(const utils::SetuParameter& p, Version& available);
  // The sum the server publishes, or "" when there is none to check against;
  // `file`, when given, receives the whole hash file as served.
  std::string fetchExpectedMd5(const utils::SetuParameter& p, std::string* file = nullptr);
  // The package's size (from the probe or a HEAD request): 2 or 7 (none, or
  // one refused: above kMaxPackageSize, or more than the temporary
  // directory has room for).
  Outcome fetchExpectedSize(const utils::SetuParameter& p, unsigned long long& size);
  // Up to three downloads to p.setupPath until one has the size and, when a
  // sum is given, the sum: 2 (a download failed), 6 (size) or 7 (sum). The
  // file of a failed download is removed; the one accepted is remembered in
  // `landed`.
  Outcome downloadVerified(const utils::SetuParameter& p, unsigned long long expectedSize,
                           const std::string& expectedMd5);
  // Why p.setupPath is no longer the file that was downloaded and verified
  // (another file put in its place, a link, a second name, writable by
  // others), or "".
  std::string landedProblem(const utils::SetuParameter& p) const;
  // Removes p.setupPath if it is still the file this run downloaded, never
  // one that something else put there.
  void removeDownload(const utils::SetuParameter& p) const;

  // Signed releases, on a machine that pins keys (configDir/update-keys).
  // The pinned keys: 0 with pinned false when there is no key file, 12 when
  // there is one that is not root's alone or holds no usable key (never a
  // fall back to unsigned updates).
  Outcome loadPinnedKeys();
  // The signed release's entry for p's package (release.json and its
  // signature from the server): 12 when either cannot be fetched, the
  // release does not verify against the pinned keys, has expired or is
  // older than the last accepted one, or has no entry for the package's path
  // or another version than the one published.
  Outcome checkRelease(const utils::SetuParameter& p, const Version& available);
  // A size against the entry's (12): the announced one before downloading.
  Outcome matchRelease(const utils::SetuParameter& p, uint64_t size);
  // After the download: its size and SHA-256 against the entry (12), then
  // the release's serial remembered in configDir/update-serial.
  Outcome acceptRelease(const utils::SetuParameter& p);
  // The package's path under the server's address as a release names it
  // ("linux/amd64/setup.deb"): no leading "/", file names decoded.
  std::string packagePath(const utils::SetuParameter& p) const;
  // Why a release's entry is not for this machine (os, arch) and the kind of
  // p's package, or "". An entry that names no platform is taken only at a
  // path of this machine's own legacy layout (legacyPaths).
  std::string platformProblem(const release::Entry& entry, const utils::SetuParameter& p);
  // Where this machine looks without a definition file, as release paths.
  std::vector<std::string> legacyPaths();

  // Stops the agent, installs the package (unless restartOnly), detaches a
  // disk image and starts the agent again on every path. Failures of the
  // commands are logged and do not change the run's result; a package that
  // is no longer the verified file is not installed (11).
  Outcome installAgent(const utils::SetuParameter& p, const Version& current, const Version& available);

  // Largest package a server may announce; a bigger size is refused before
  // anything is downloaded. Room left beside a download in the temporary
  // directory, for the log and the system's own needs.
  static constexpr unsigned long long kMaxPackageSize = 8ULL << 30;
  static constexpr unsigned long long kFreeSpaceMargin = 16ULL << 20;

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
  // empty entry (setup empty) when none fits or the file cannot be read
  // (then parseError says why).
  utils::AgentSetupDef parseAgentSetupCfg(const std::string& body);
  std::string parseError;
  // Whether the last getAgentSetup took the server's definition file.
  bool definitionUsed = false;

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
  // The open lock file while this run holds it, else -1.
  int lockFd = -1;
  // The accepted download, as its descriptor saw it.
  HttpClient::Landed landed;
  // What the run learned and did, for the run record; update() fills all
  // but the times and the installed version.
  RunRecord record;
  // The agent's configuration directory ("<root>" or "<root>.<instance>"),
  // where release keys are pinned; set by the caller, "" for none.
  std::string configDir;
  bool keysPinned = false;
  std::vector<release::PublicKey> pinnedKeys;
  release::Verified signedRelease;
  const release::Entry* signedEntry = nullptr;
  // Sums a download computes beyond the MD5 (SHA-256 for a signed release).
  unsigned downloadSums = 0;
  HttpClient httpClient;
  std::string serverUrl;
  std::string tempDir;
  int arch = utils::Unknown;
  int os = 0;
  int distrib = utils::None;
};
