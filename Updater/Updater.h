#pragma once

#include <optional>
#include <string>

#include "HttpClient.h"
#include "Outcome.h"
#include "Setup.h"
#include "Steps.h"
#include "utils.h"

// One update of the agent: takes the instance lock, runs the steps from the
// version check to the restarted agent (steps::), releases the lock and
// writes the run record as the run's end says. Single-threaded; one object
// per run.
//
// The public fields are the ones the design names; the run sets them as it
// learns them, for whoever reads them afterwards, but its steps pass what
// they learned to each other as values.
class Updater {
 public:
  using SetupInfo = setup::SetupInfo;

  // configDir: the agent's configuration directory ("<root>" or
  // "<root>.<instance>", where release keys are pinned), "" for none.
  // recordDir: where last-run.json goes (beside the log), "" for nowhere.
  // cacheDir: where a signed install keeps its package, made when needed.
  explicit Updater(bool restartOnly = false, std::string configDir = std::string(),
                   std::string recordDir = std::string(), std::string cacheDir = std::string())
      : restartOnly(restartOnly),
        _configDir(std::move(configDir)),
        _recordDir(std::move(recordDir)),
        _cacheDir(std::move(cacheDir)) {}
  // Lets go of the lock file, which stays for the next run to judge.
  virtual ~Updater() { releaseLock(); }
  Updater(const Updater&) = delete;
  Updater& operator=(const Updater&) = delete;

  // The whole run: takes the instance lock, runs doCheckAndUpdate, frees the
  // lock when the result says so (1, 2, 12) or always with restartOnly, and
  // writes the run record. Returns the run's result (0 when another instance
  // holds the lock).
  int checkAndUpdate(const std::string& url, const std::string& version);
  // Version check, verified download, service control: the run's result,
  // 0 (nothing to do, or done) or a failure code 1-12; never throws a
  // standard exception.
  int doCheckAndUpdate(const std::string& url, const std::string& version) { return run(url, version).exitStatus(); }

  // True when the run may go on: no lock file, a stale one (older than an
  // hour), or one that cannot be opened. The file then holds the current
  // time, and the run holds an advisory lock on it until it ends, so that a
  // second run finds it held whatever its age. False while another run's
  // lock is fresh, held or unreadable. A lock that is not a regular file,
  // not ours, or set more than a day ahead is replaced.
  bool checkLockFile();
  void removeLockFile();

  // Setup parameters for this run (setup::resolve): reads serverUrl,
  // tempDir, os, arch and distrib, sets distrib. Throws std::runtime_error
  // with the resolution's text when nothing usable is found.
  utils::SetuParameter getAgentSetup();
  // First enabled entry of the definition file that fits os, arch and
  // distrib, or an empty entry (setup empty) when none fits or the file
  // cannot be read.
  utils::AgentSetupDef parseAgentSetupCfg(const std::string& body);
  // Legacy layouts per platform; the macOS one probes the server. Throw
  // std::runtime_error as getAgentSetup does.
  void fillDefaultSetupParamForWindows(utils::SetuParameter& p);
  void fillDefaultSetupParamForLinux(utils::SetuParameter& p);
  void fillDefaultSetupParamForMacOSX(utils::SetuParameter& p);
  // Service and install commands; read p.setupPath and distrib.
  void fillInstallSetupParamForWindows(utils::SetuParameter& p);
  void fillInstallSetupParamForLinux(utils::SetuParameter& p);
  void fillInstallSetupParamForMacOSX(utils::SetuParameter& p);
  // The macOS probe of serverUrl (setup::probeServer): 0, 3, 5 or 7.
  int getSetupRootPath(const std::string& serverUrl, const std::string& archText, SetupInfo& info);
  // Display libraries that agents from 7.2.0.0 on need on Linux.
  void installXCBDeps() { steps::installXcbDeps(distrib); }

  bool restartOnly = false;
  std::string lockFilePath;
  HttpClient httpClient;
  std::string serverUrl;
  std::string tempDir;
  int arch = utils::Unknown;
  int os = 0;
  int distrib = utils::None;

 private:
  // Whether the run may go on and, when not, why (for the record).
  struct LockVerdict {
    bool proceed;
    std::string why;
  };
  LockVerdict takeLock();
  // The lock file already in place: replaced (nullopt, try again) or judged.
  std::optional<LockVerdict> judgePlacedLock();
  LockVerdict judgeLockTime(int fd, bool regular);
  void releaseLock();

  RunEnd run(const std::string& url, const std::string& version);
  // Whether to update: a newer version, or a revoked installed one; for a
  // signed entry with a rollout, whether it is offered to this machine yet.
  RunEnd decide(const steps::Machine& machine, const setup::Setup& setup,
                const std::optional<steps::SignedEntry>& signedEntry, const Version& available, Facts& facts);
  // From the package's sum to the restarted agent; adds what it learns to
  // facts.
  RunEnd update(const steps::Machine& machine, const setup::Setup& setup,
                const std::optional<steps::SignedEntry>& signedEntry, const Version& available, Facts& facts);
  // The new version failed its health watch: held from later runs, and the
  // cached package of the one before installed again (13, rolled back), or
  // none to go back to (13, failed; the new version stays started).
  RunEnd rollBack(const steps::Machine& machine, const setup::Setup& setup, const steps::SignedEntry& failed,
                  Facts& facts);
  setup::Platform platform() const { return setup::Platform{os, arch, distrib}; }
  void keepRecord(const RunEnd& end, const std::string& version, long long startMs) const;

  std::string _configDir;
  std::string _recordDir;
  std::string _cacheDir;
  // The open lock file while this run holds it, else -1.
  int _lock = -1;
};
