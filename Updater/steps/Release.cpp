// Signed releases in the update run: the pinned keys, the release fetched
// and verified before anything is stopped, and the download checked against
// it. Without a key file none of this runs and nothing more is requested.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

#include "KXLog.h"
#include "Steps.h"
#include "TrustedFile.h"

namespace steps {

namespace {

const char* const kKeysName = "update-keys";
const char* const kSerialName = "update-serial";
const char* const kManifestName = "release.json";

Failure refused(const std::string& input, const std::string& reason) { return releaseRefusal(input, reason); }

// The last serial accepted: none yet is 0. A file that is there but not
// root's alone, or not a number, could be an attempt to go back.
Expected<int64_t> lastSerial(const std::string& configDir) {
  const std::string path = configDir + "/" + kSerialName;
  const std::optional<trusted::Identity> id = configDir.empty() ? std::nullopt : trusted::atPath(path);
  if (!id) return int64_t{0};
  if (const std::string problem = guardProblem(configDir, *id); !problem.empty()) return refused(path, problem);
  const std::optional<std::string> text = trusted::readBounded(path, 32);
  char* end = nullptr;
  const long long serial = text ? std::strtoll(text->c_str(), &end, 10) : -1;
  if (!text || serial < 0 || end == text->c_str()) return refused(path, "it holds no serial");
  return int64_t{serial};
}

// "it cannot be fetched (404)", or with libcurl's reason when no answer came.
std::string unfetched(const HttpClient::Result& answer) {
  return "it cannot be fetched (" + (answer.code > 0 ? std::to_string(answer.code) : answer.error) + ")";
}

// The served release, verified against the keys and the last serial
// accepted (read once both files are in).
Expected<release::Release> fetchRelease(HttpClient& client, const std::string& serverUrl, const Keys& keys,
                                        const std::string& configDir) {
  const std::string url = serverUrl + "/" + kManifestName;
  std::map<std::string, std::string> headers;
  std::string manifest;
  std::string signature;
  if (HttpClient::Result r = client.get(url, manifest, headers, release::kMaxManifest); r.code != 0) {
    return refused(url, unfetched(r));
  }
  if (HttpClient::Result r = client.get(url + ".minisig", signature, headers, release::kMaxSignature); r.code != 0) {
    return refused(url + ".minisig", unfetched(r));
  }
  const Expected<int64_t> last = lastSerial(configDir);
  if (!last.ok()) return last.failure();
  release::Verified verified =
      release::verifyRelease(manifest, signature, keys.keys, static_cast<int64_t>(std::time(nullptr)), *last);
  if (!verified.ok) return refused(url, verified.reason);
  return std::move(verified.release);
}

}  // namespace

// The check that failed, and for which input (a URL masked as the log masks
// it): one ERR line, result 12.
Failure releaseRefusal(const std::string& input, const std::string& reason) {
  KXLOG(KXLM_ROOT, KXLL_ERR, "Release check failed for " << utils::logUrl(input) << ": " << reason);
  return Failure(Result::ReleaseRefused, "release check failed for " + utils::logUrl(input), reason);
}

// A file that guards the machine's updates must be a regular file of root's
// (or ours) that nobody else can write, in a directory nobody else can
// change.
std::string guardProblem(const std::string& dir, const trusted::Identity& id) {
  if (std::string problem = utils::directoryProblem(dir); !problem.empty()) return problem;
  const unsigned rules = trusted::kRegular | trusted::kOwnedByRootOrUs | trusted::kNotWritableByOthers;
  return trusted::said(trusted::flawOf(id, rules));
}

Expected<Keys> loadPinnedKeys(const std::string& configDir) {
  Keys keys;
  if (configDir.empty()) return keys;
  const std::string path = configDir + "/" + kKeysName;
  const std::optional<trusted::Identity> id = trusted::atPath(path);
  if (!id) {
    if (errno == ENOENT || errno == ENOTDIR) return keys;
    return refused(path, std::string("it cannot be examined (") + std::strerror(errno) + ")");
  }
  keys.pinned = true;
  if (const std::string problem = guardProblem(configDir, *id); !problem.empty()) return refused(path, problem);
  const std::optional<std::string> text = trusted::readBounded(path, release::kMaxSignature);
  if (!text) return refused(path, "it cannot be read");
  if (const std::string problem = release::parsePublicKeys(*text, keys.keys); !problem.empty()) {
    return refused(path, problem);
  }
  return keys;
}

std::string packagePath(const std::string& serverUrl, const utils::SetuParameter& p) {
  std::string path =
      p.setupUrl.compare(0, serverUrl.size(), serverUrl) == 0 ? p.setupUrl.substr(serverUrl.size()) : p.setupUrl;
  path.erase(0, path.find_first_not_of('/'));
  return utils::urlDecoded(path);
}

std::string platformProblem(const release::Entry& entry, const Platform& platform, const std::string& path) {
  const std::string own = platform.name();
  if (entry.os.empty() && entry.arch.empty() && entry.kind.empty()) {
    // Signed before entries named their platform: only where this machine
    // would look without a definition file can it be meant for this machine.
    const std::vector<std::string> legacy = setup::legacyPaths(platform);
    if (std::find(legacy.begin(), legacy.end(), path) != legacy.end()) return std::string();
    return "the release names no platform for it, and it is not where " + own + " looks by itself";
  }
  const std::string named = utils::logText(entry.os + "/" + entry.arch + " " + entry.kind);
  return named == own ? std::string() : "the release lists it for " + named + ", not for " + own;
}

Expected<SignedEntry> checkRelease(HttpClient& client, const std::string& serverUrl, const std::string& configDir,
                                   const Keys& keys, const Setup& setup, const Version& available) {
  const Expected<release::Release> r = fetchRelease(client, serverUrl, keys, configDir);
  if (!r.ok()) return r.failure();
  const std::string path = packagePath(serverUrl, setup.params);
  const release::Entry* entry = release::findEntry(*r, path);
  if (entry == nullptr) return refused(path, "the release has no entry for it");
  if (const std::string problem = platformProblem(*entry, setup.platform, path); !problem.empty()) {
    return refused(path, problem);
  }
  if (entry->version != available.toString()) {
    return refused(path, "the release signs version " + utils::logText(entry->version) + ", the server offers " +
                             available.toString());
  }
  KXLOG(KXLM_ROOT, KXLL_NFY,
        "Release " << r->serial << " signed by key " << r->keyId << " until " << release::utcText(r->expires)
                   << " lists " << path);
  return SignedEntry{*entry, r->serial, path, r->revoked};
}

Status matchRelease(const SignedEntry& signedEntry, uint64_t size) {
  if (size == signedEntry.entry.size) return Passed();
  return refused(signedEntry.path, "its size " + std::to_string(size) + " is not the release's " +
                                       std::to_string(signedEntry.entry.size));
}

Status acceptRelease(const SignedEntry& signedEntry, const HttpClient::Landed& landed, const std::string& configDir) {
  if (Status s = matchRelease(signedEntry, landed.size); !s.ok()) return s;
  if (landed.sha256 != signedEntry.entry.sha256) {
    return refused(signedEntry.path,
                   "its SHA-256 " + landed.sha256 + " is not the release's " + signedEntry.entry.sha256);
  }
  // Only a release that verified in full moves the serial on.
  if (configDir.empty()) return Passed();
  const std::string serialPath = configDir + "/" + kSerialName;
  if (const std::string problem = utils::replaceFile(serialPath, std::to_string(signedEntry.serial) + "\n");
      !problem.empty()) {
    return refused(serialPath, problem);
  }
  return Passed();
}

}  // namespace steps
