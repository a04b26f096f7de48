// The update run as a sequence of steps: each takes what the earlier ones
// learned and returns what it learned, or the failure that ends the run.
#include <ctime>
#include <exception>

#include "KXLog.h"
#include "KXSys.h"
#include "RunRecord.h"
#include "Updater.h"

int Updater::checkAndUpdate(const std::string& url, const std::string& version) {
  const auto startMs = static_cast<long long>(KXSys::timeMs());
  KXLOG(KXLM_ROOT, KXLL_NFY, "Check Update");
  KXLOG(KXLM_ROOT, KXLL_NFY, "Current version : " << version);
  KXLOG(KXLM_ROOT, KXLL_NFY, "Udpate server : " << utils::logUrl(url));
  const LockVerdict lock = takeLock();
  const RunEnd end = lock.proceed ? run(url, version) : RunEnd::locked(lock.why);
  if (end.freesLock(restartOnly)) removeLockFile();
  keepRecord(end, version, startMs);
  return end.exitStatus();
}

RunEnd Updater::run(const std::string& url, const std::string& version) {
  // Each failure is logged at ERR by the step that meets it; the failure
  // carries the same fact up as a value.
  Facts facts;
  try {
    serverUrl = url;
    const Expected<steps::Machine> machine = steps::probeMachine(version);
    if (!machine.ok()) return RunEnd::failed(machine.failure(), facts);
    os = machine->platform.os;
    distrib = machine->platform.distrib;
    tempDir = machine->tempDir;
    arch = machine->platform.arch;
    // A machine that pins release keys must have usable ones before it asks
    // the server anything: it never falls back to unsigned updates.
    const Expected<steps::Keys> keys = steps::loadPinnedKeys(_configDir);
    if (!keys.ok()) return RunEnd::failed(keys.failure(), facts);
    const Expected<setup::Setup> setup = steps::resolveSetup(httpClient, url, *machine);
    if (!setup.ok()) return RunEnd::failed(setup.failure(), facts);
    distrib = setup->platform.distrib;
    facts.packageUrl = setup->params.setupUrl;
    const Expected<Version> available = steps::fetchVersion(httpClient, *setup);
    if (!available.ok()) return RunEnd::failed(available.failure(), facts);
    facts.offeredVersion = available->toString();
    // A machine that pins keys reads the release even when up to date: its
    // own version may be revoked.
    std::optional<steps::SignedEntry> signedEntry;
    if (keys->pinned) {
      Expected<steps::SignedEntry> e = steps::checkRelease(httpClient, url, _configDir, *keys, *setup, *available);
      if (!e.ok()) return RunEnd::failed(e.failure(), facts);
      signedEntry = std::move(*e);
    }
    return decide(*machine, *setup, signedEntry, *available, facts);
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Exception : " << utils::logText(e.what()));
    return RunEnd::failed(Failure(Result::NoVerifiedFile, utils::logText(e.what())), facts);
  }
}

RunEnd Updater::decide(const steps::Machine& machine, const setup::Setup& setup,
                       const std::optional<steps::SignedEntry>& signedEntry, const Version& available, Facts& facts) {
  const bool revoked = signedEntry && steps::isRevoked(*signedEntry, machine.current);
  if (!(machine.current < available) && !revoked) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Current version is up to date. Nothing to do");
    return RunEnd::upToDate(
        "the installed " + machine.current.toString() + " is not older than the published " + facts.offeredVersion,
        facts);
  }
  if (signedEntry) {
    if (const std::string since = steps::heldSince(_configDir, signedEntry->entry.sha256); !since.empty()) {
      const std::string why = "Package of " + signedEntry->entry.version +
                              " failed its health check on this machine on " + since + ": not installed again";
      KXLOG(KXLM_ROOT, KXLL_NFY, why);
      return RunEnd::held(why, facts);
    }
  }
  if (revoked) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Installed version " << machine.current << " is revoked: going to " << available);
  } else if (signedEntry) {
    const Expected<steps::Offer> offer =
        steps::decideRollout(_configDir, *signedEntry, static_cast<int64_t>(std::time(nullptr)));
    if (!offer.ok()) return RunEnd::failed(offer.failure(), facts);
    if (!offer->offered) return RunEnd::waiting(offer->why, facts);
  }
  return update(machine, setup, signedEntry, available, facts);
}

RunEnd Updater::update(const steps::Machine& machine, const setup::Setup& setup,
                       const std::optional<steps::SignedEntry>& signedEntry, const Version& available, Facts& facts) {
  const steps::HashFile hashFile = steps::fetchHashFile(httpClient, setup.params);
  const Expected<uint64_t> size = steps::fetchSize(httpClient, setup, machine.tempDir);
  if (!size.ok()) return RunEnd::failed(size.failure(), facts);
  facts.packageSize = *size;
  if (signedEntry) {
    // Before a byte is downloaded.
    if (Status s = steps::matchRelease(*signedEntry, *size); !s.ok()) return RunEnd::failed(s.failure(), facts);
  }
  // A signed entry names the bytes before they arrive: a cut transfer may
  // be continued, also by the next run.
  const steps::Resumable resumable{_cacheDir, signedEntry ? signedEntry->entry.sha256 : std::string()};
  const Expected<HttpClient::Landed> landed = steps::downloadVerified(
      httpClient, setup.params, *size, hashFile.sum, signedEntry ? unsigned{HttpClient::kSha256} : 0U,
      signedEntry ? &resumable : nullptr, facts.bytesFetched);
  if (!landed.ok()) return RunEnd::failed(landed.failure(), facts);
  if (signedEntry) {
    if (Status s = steps::acceptRelease(*signedEntry, *landed, _configDir); !s.ok()) {
      steps::removeDownload(setup.params.setupPath, *landed);
      return RunEnd::failed(s.failure(), facts);
    }
  }
  const Expected<utils::SetuParameter> prepared = steps::prepareInstall(setup, *landed, available < machine.current);
  if (!prepared.ok()) return RunEnd::failed(prepared.failure(), facts);
  const steps::Install install{setup.platform, *prepared, *landed, machine.current, available, restartOnly};
  if (Status s = steps::installAgent(install); !s.ok()) return RunEnd::failed(s.failure(), facts);
  if (signedEntry && !restartOnly) {
    const int seconds = signedEntry->entry.healthSeconds;
    if (seconds > 0 && !steps::watchHealth(setup.platform, seconds)) {
      return rollBack(machine, setup, *signedEntry, facts);
    }
    steps::keepInCache(_cacheDir, setup.params, available.toString(), signedEntry->entry.sha256);
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Update done");
  return RunEnd::done(restartOnly, facts);
}

RunEnd Updater::rollBack(const steps::Machine& machine, const setup::Setup& setup, const steps::SignedEntry& failed,
                         Facts& facts) {
  steps::holdPackage(_configDir, failed.entry.sha256);
  const std::optional<steps::Cached> cached = steps::cachedPackage(_cacheDir);
  if (!cached || cached->sha256 == failed.entry.sha256) {
    // The agent stays started on the new version: better than none.
    const std::string why = "no package of " + machine.current.toString() + " to go back to";
    KXLOG(KXLM_ROOT, KXLL_ERR, "Rollback failed: " << why);
    return RunEnd::failed(Failure(Result::Unhealthy, why), facts);
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Rolling back to " << cached->version);
  setup::Setup back = setup;
  back.params.setupPath = cached->path;
  back.params.setupName = cached->name;
  const Expected<utils::SetuParameter, setup::SetupFailure> commands = setup::withCommands(back.platform, back.params);
  const std::optional<trusted::Identity> id = trusted::atPath(cached->path);
  if (!commands.ok() || !id)
    return RunEnd::failed(Failure(Result::Unhealthy, "the cached package cannot be used"), facts);
  back.params = *commands;
  HttpClient::Landed landed;
  landed.size = id->size;
  landed.device = id->device;
  landed.inode = id->inode;
  landed.sha256 = cached->sha256;
  const Expected<utils::SetuParameter> prepared = steps::prepareInstall(back, landed, true);
  if (!prepared.ok()) return RunEnd::failed(prepared.failure(), facts);
  const Version previous = Version::parse(cached->version);
  steps::installAgent({back.platform, *prepared, landed, Version::parse(failed.entry.version), previous, false});
  return RunEnd::rolledBack(
      "the new version " + failed.entry.version + " failed its health check; " + cached->version + " is back", facts);
}

void Updater::keepRecord(const RunEnd& end, const std::string& version, long long startMs) const {
  if (_recordDir.empty()) return;
  const RunRecord record{startMs, static_cast<long long>(KXSys::timeMs()), version, end};
  record.keep(_recordDir);
}
