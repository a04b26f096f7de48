#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HttpClient.h"
#include "Manifest.h"
#include "Outcome.h"
#include "Setup.h"
#include "TrustedFile.h"
#include "Version.h"

// The steps of an update run, in the order the run takes them. Each takes
// what it needs and returns what it learned, or a Failure with the run's
// result; each logs as the run always has, the failure at ERR where it is
// met. kx-publish check calls the same steps in the same order to judge a
// server as a client would.
namespace steps {

using setup::Platform;
using setup::Setup;

// What the run finds out about the machine before it asks the server
// anything.
struct Machine {
  Platform platform;  // os and, on Windows and Linux, the package kind
  Version current;    // the installed version
  std::string tempDir;
  std::string archText;  // as logged: "arm64" when an x86_64 build runs translated
  bool emulated = false;
};
// The operating system, root (1), the installed version (4), the temporary
// directory (11) and the architecture (3), in that order.
Expected<Machine> probeMachine(const std::string& installedVersion);

// The keys pinned in configDir/update-keys: none when there is no key file
// (or no configDir); 12 when there is one that is not root's alone or holds
// no usable key: such a machine never falls back to unsigned updates.
struct Keys {
  bool pinned = false;
  std::vector<release::PublicKey> keys;
};
Expected<Keys> loadPinnedKeys(const std::string& configDir);

// The setup for the machine (setup::resolve), with the native installer on a
// translated Mac, and the lines that show it in the log; 11 when there is
// none, after "Exception : " and its text.
Expected<Setup> resolveSetup(HttpClient& client, const std::string& serverUrl, const Machine& machine);

// The published version (from the macOS probe or the version file): 2
// (request failed) or 5 (not a version).
Expected<Version> fetchVersion(HttpClient& client, const Setup& setup);

// The signed release's entry for the package (release.json and its
// signature from serverUrl): 12 when either cannot be fetched, the release
// does not verify against the keys, has expired or is older than the serial
// last accepted in configDir, or has no entry for the package's path, one for
// another platform, or another version than the one published.
struct SignedEntry {
  release::Entry entry;
  int64_t serial = 0;
  std::string path;                  // the package's path as the release names it
  std::vector<std::string> revoked;  // versions that must not stay installed
};
Expected<SignedEntry> checkRelease(HttpClient& client, const std::string& serverUrl, const std::string& configDir,
                                   const Keys& keys, const Setup& setup, const Version& available);
// The package's path under the server's address as a release names it
// ("linux/amd64/setup.deb"): no leading "/", file names decoded.
std::string packagePath(const std::string& serverUrl, const utils::SetuParameter& p);
// Why a release's entry is not for the platform of the setup, or "". One
// that names no platform is taken only at a path of the platform's legacy
// layout.
std::string platformProblem(const release::Entry& entry, const Platform& platform, const std::string& path);

// The hash file: the sum up to its first blank ("" when there is none to
// check against: no blank, or the file could not be fetched), the file as
// served, and the answer of its request. Never a failure: without a sum the
// download is checked on its size alone.
struct HashFile {
  std::string sum;
  std::string body;
  HttpClient::Result answer;
};
HashFile fetchHashFile(HttpClient& client, const utils::SetuParameter& p);

// The package's size (from the probe or a HEAD request): 2 or 7 (none, or
// one refused: above kMaxPackageSize, or more than tempDir has room for).
constexpr unsigned long long kMaxPackageSize = 8ULL << 30;
constexpr unsigned long long kFreeSpaceMargin = 16ULL << 20;
Expected<uint64_t> fetchSize(HttpClient& client, const Setup& setup, const std::string& tempDir);

// Staged rollout (release::shareInForce, release::bucketOf).
// configDir/install-id: 32 lower-case hex digits, made from 128 random bits
// of the operating system the first time it is needed; one that is malformed
// is replaced (WRN); one that is not root's alone refused (12).
Expected<std::string> loadInstallId(const std::string& configDir);
// Whether the machine is offered the signed entry now (no rollout: always);
// when not, why, logged at NFY: its bucket, the share and the next stage, or
// that the rollout is paused.
struct Offer {
  bool offered = true;
  std::string why;
};
Expected<Offer> decideRollout(const std::string& configDir, const SignedEntry& signedEntry, int64_t now);
// The installed version is one the release revokes: the entry is offered at
// once, even when its version is lower.
bool isRevoked(const SignedEntry& signedEntry, const Version& installed);
// The refusal of a file that guards signed updates, and why such a file
// could be another's doing (""); shared by the release's files.
Failure releaseRefusal(const std::string& input, const std::string& reason);
std::string guardProblem(const std::string& dir, const trusted::Identity& id);

// A size against the signed entry's (12): the announced one before
// downloading, the landed one after.
Status matchRelease(const SignedEntry& signedEntry, uint64_t size);

// A signed download, whose size and SHA-256 are known before it starts,
// may continue a cut transfer: in the next attempt, and in the next run
// from the partial file kept in cacheDir for the entry with that SHA-256.
struct Resumable {
  std::string cacheDir;
  std::string sha256;
};
// Up to three downloads to p.setupPath until one has the size and, when a
// sum is given, the sum: 2 (a download failed), 6 (size), 7 (sum) or 11.
// The file of a failed download is removed. sums adds HttpClient::kSha256.
// With resumable, a transfer cut short is continued by the next attempt,
// and a run that ends without the whole file keeps what it has for the
// next. fetched adds the bytes received, whatever the outcome.
Expected<HttpClient::Landed> downloadVerified(HttpClient& client, const utils::SetuParameter& p, uint64_t size,
                                              const std::string& md5, unsigned sums, const Resumable* resumable,
                                              uint64_t& fetched,
                                              const HttpClient::Progress& progress = HttpClient::Progress());
// The partial file kept for the entry, moved to path (or, on another file
// system, named for the download to copy), and where the download continues
// it; nothing (and the file dropped) when it is for another entry or not a
// file of ours alone shorter than size.
HttpClient::Resume takePartial(const Resumable& resumable, const std::string& path, uint64_t size);
// The partial file kept in cacheDir and its record removed.
void dropPartial(const std::string& cacheDir);
// What landed at path kept for the next run, with the validator that lets
// it continue; removed when it cannot be kept.
void keepPartial(const Resumable& resumable, const std::string& path, const HttpClient::Landed& landed, uint64_t size);
// Why path is no longer the file that landed (another file put in its
// place, a link, a second name, writable by others), or "".
std::string landedProblem(const std::string& path, const HttpClient::Landed& landed);
// Removes path if it is still the file that landed, never one that
// something else put there.
void removeDownload(const std::string& path, const HttpClient::Landed& landed);

// After the download: its size and SHA-256 against the signed entry (12),
// then the release's serial remembered in configDir/update-serial.
Status acceptRelease(const SignedEntry& signedEntry, const HttpClient::Landed& landed, const std::string& configDir);

// The parameters that install the landed package: a disk image must still
// be the verified file (11) and is attached (9), which completes the install
// command with the package inside it and names the device to detach.
// downgrade: the package is older than the installed agent (a revoked
// version left), which rpm installs only when told so.
Expected<utils::SetuParameter> prepareInstall(const Setup& setup, const HttpClient::Landed& landed, bool downgrade);

// Stops the agent, installs the package (unless restartOnly), detaches a
// disk image and starts the agent again on every path, whatever signal
// arrives meanwhile. Failures of the commands are logged and do not change
// the result; a package that is no longer the verified file is not
// installed (11).
struct Install {
  Platform platform;
  utils::SetuParameter params;
  HttpClient::Landed landed;
  Version current;
  Version available;
  bool restartOnly = false;
};
Status installAgent(const Install& install);
// The health watch of a signed entry: the check of the platform's service
// ("systemctl is-active --quiet kxagent", "synopkg is_onoff tova",
// "launchctl list com.kxagent", "sc query kxagent") about once a second for
// seconds; false (logged) at the first non-zero status.
const char* healthCommand(const Platform& platform);
bool watchHealth(const Platform& platform, int seconds);
// The package cache (cacheDir, made root's alone and checked as the log
// directory is): the package this machine runs, kept after a signed install
// that stayed healthy, with its version and SHA-256, which is checked again
// before the file is used.
struct Cached {
  std::string name;  // the file's, in cacheDir
  std::string path;
  std::string version;
  std::string sha256;
};
std::optional<Cached> cachedPackage(const std::string& cacheDir);
// The cache directory, made root's alone where it is missing; "" or why it
// cannot be used.
std::string cacheProblem(const std::string& cacheDir);
// Keeps p's verified download as the installed package, replacing the one
// before; a failure is a WRN line, never the run's.
void keepInCache(const std::string& cacheDir, const utils::SetuParameter& p, const std::string& version,
                 const std::string& sha256);
// A package that failed its health check here (configDir/update-held): not
// installed again while the release offers it. heldSince is the time it
// failed, or "" when that package is not held.
void holdPackage(const std::string& configDir, const std::string& sha256);
std::string heldSince(const std::string& configDir, const std::string& sha256);

// Display libraries that agents from 7.2.0.0 on need on Linux, for the
// package kind.
void installXcbDeps(int distrib);
// The installation lines it runs, byte for byte.
const char* aptXcbLine();
const char* dnfXcbLine();

}  // namespace steps
