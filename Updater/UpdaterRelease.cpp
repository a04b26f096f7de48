// Signed releases in the update run: the pinned keys, the release fetched
// and verified before anything is stopped, and the download checked against
// it. Without a key file none of this runs and nothing more is requested.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "KXLog.h"
#include "Updater.h"
#include "utils.h"

namespace {

const char* const kKeysName = "update-keys";
const char* const kSerialName = "update-serial";
const char* const kManifestName = "release.json";

// The check that failed, and for which input (a URL masked as the log masks
// it): one ERR line, result 12.
Outcome refused(const std::string& input, const std::string& reason) {
  KXLOG(KXLM_ROOT, KXLL_ERR, "Release check failed for " << utils::logUrl(input) << ": " << reason);
  return Outcome::failed(12, "release check failed for " + utils::logUrl(input) + ": " + reason);
}

// Why a file that guards the machine's updates could be another's doing, or
// "": it must be a regular file of root's (or ours) that nobody else can
// write, in a directory nobody else can change.
std::string guardProblem(const std::string& dir, const struct stat& st) {
  if (std::string problem = utils::directoryProblem(dir); !problem.empty()) return problem;
  if (!S_ISREG(st.st_mode)) return "it is not a regular file";
  if (st.st_uid != 0 && st.st_uid != geteuid()) return "it belongs to another user";
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others can write to it";
  return std::string();
}

// At most max + 1 bytes of the file, read without following a link.
bool readSmall(const std::string& path, size_t max, std::string& text) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  text.assign(max + 1, '\0');
  size_t got = 0;
  while (got < text.size()) {
    const ssize_t n = read(fd, &text[got], text.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  close(fd);
  text.resize(got);
  return true;
}

}  // namespace

Outcome Updater::loadPinnedKeys() {
  keysPinned = false;
  pinnedKeys.clear();
  if (configDir.empty()) return Outcome();
  const std::string path = configDir + "/" + kKeysName;
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return Outcome();
    return refused(path, std::string("it cannot be examined (") + std::strerror(errno) + ")");
  }
  keysPinned = true;
  if (const std::string problem = guardProblem(configDir, st); !problem.empty()) return refused(path, problem);
  std::string text;
  if (!readSmall(path, release::kMaxSignature, text)) return refused(path, "it cannot be read");
  if (const std::string problem = release::parsePublicKeys(text, pinnedKeys); !problem.empty()) {
    return refused(path, problem);
  }
  return Outcome();
}

std::string Updater::packagePath(const utils::SetuParameter& p) const {
  std::string path =
      p.setupUrl.compare(0, serverUrl.size(), serverUrl) == 0 ? p.setupUrl.substr(serverUrl.size()) : p.setupUrl;
  path.erase(0, path.find_first_not_of('/'));
  return utils::urlDecoded(path);
}

Outcome Updater::checkRelease(const utils::SetuParameter& p, const Version& available) {
  const std::string url = serverUrl + "/" + kManifestName;
  std::map<std::string, std::string> headers;
  std::string manifest;
  std::string signature;
  // Why the latest request brought no body: the status, or what went wrong.
  const auto unfetched = [this] {
    const HttpClient::Result& r = httpClient.lastResult();
    return "it cannot be fetched (" + (r.code > 0 ? std::to_string(r.code) : r.error) + ")";
  };
  if (httpClient.get(url, manifest, headers, release::kMaxManifest) != 0) return refused(url, unfetched());
  if (httpClient.get(url + ".minisig", signature, headers, release::kMaxSignature) != 0) {
    return refused(url + ".minisig", unfetched());
  }
  // The last serial accepted: none yet is 0. A file that is there but not
  // root's alone, or not a number, could be an attempt to go back.
  int64_t lastSerial = 0;
  const std::string serialPath = configDir + "/" + kSerialName;
  struct stat st {};
  if (!configDir.empty() && lstat(serialPath.c_str(), &st) == 0) {
    std::string text;
    if (const std::string problem = guardProblem(configDir, st); !problem.empty()) {
      return refused(serialPath, problem);
    }
    char* end = nullptr;
    if (!readSmall(serialPath, 32, text) || (lastSerial = std::strtoll(text.c_str(), &end, 10)) < 0 ||
        end == text.c_str()) {
      return refused(serialPath, "it holds no serial");
    }
  }
  signedRelease =
      release::verifyRelease(manifest, signature, pinnedKeys, static_cast<int64_t>(std::time(nullptr)), lastSerial);
  if (!signedRelease.ok) return refused(url, signedRelease.reason);
  const std::string path = packagePath(p);
  signedEntry = release::findEntry(signedRelease.release, path);
  if (signedEntry == nullptr) return refused(path, "the release has no entry for it");
  if (const std::string problem = platformProblem(*signedEntry, p); !problem.empty()) return refused(path, problem);
  if (signedEntry->version != available.toString()) {
    return refused(path, "the release signs version " + utils::logText(signedEntry->version) + ", the server offers " +
                             available.toString());
  }
  KXLOG(KXLM_ROOT, KXLL_NFY,
        "Release " << signedRelease.release.serial << " signed by key " << signedRelease.release.keyId << " until "
                   << release::utcText(signedRelease.release.expires) << " lists " << path);
  downloadSums = HttpClient::kSha256;
  return Outcome();
}

std::vector<std::string> Updater::legacyPaths() {
  std::vector<std::string> paths;
  if (os == utils::Macosx) {
    const std::string archText = utils::agentArchToString(arch);
    const auto* dirs = probeDirectories(archText);
    for (const char* dir : dirs != nullptr ? *dirs : std::vector<const char*>()) {
      for (const char* name : *probePackages(archText)) paths.push_back(std::string(dir + 1) + "/" + name);
    }
    return paths;
  }
  utils::SetuParameter p;
  try {
    os == utils::Windows ? fillDefaultSetupParamForWindows(p) : fillDefaultSetupParamForLinux(p);
  } catch (const std::runtime_error&) {
    return paths;  // a package kind with no legacy layout
  }
  if (!p.setupUrl.empty()) paths.push_back(packagePath(p));
  return paths;
}

std::string Updater::platformProblem(const release::Entry& entry, const utils::SetuParameter& p) {
  const std::string own = std::string(utils::agentOSWord(os)) + "/" + utils::agentArchToString(arch) + " " +
                          utils::agentDistribToString(utils::stringToAgentDistrib(p.setupName));
  if (entry.os.empty() && entry.arch.empty() && entry.kind.empty()) {
    // Signed before entries named their platform: only where this machine
    // would look without a definition file can it be meant for this machine.
    const std::vector<std::string> legacy = legacyPaths();
    if (std::find(legacy.begin(), legacy.end(), packagePath(p)) != legacy.end()) return std::string();
    return "the release names no platform for it, and it is not where " + own + " looks by itself";
  }
  const std::string named = utils::logText(entry.os + "/" + entry.arch + " " + entry.kind);
  return named == own ? std::string() : "the release lists it for " + named + ", this machine is " + own;
}

Outcome Updater::matchRelease(const utils::SetuParameter& p, uint64_t size) {
  if (size == signedEntry->size) return Outcome();
  return refused(packagePath(p),
                 "its size " + std::to_string(size) + " is not the release's " + std::to_string(signedEntry->size));
}

Outcome Updater::acceptRelease(const utils::SetuParameter& p) {
  const std::string path = packagePath(p);
  if (Outcome o = matchRelease(p, landed.size); !o.ok()) return o;
  if (landed.sha256 != signedEntry->sha256) {
    return refused(path, "its SHA-256 " + landed.sha256 + " is not the release's " + signedEntry->sha256);
  }
  // Only a release that verified in full moves the serial on.
  const std::string serialPath = configDir + "/" + kSerialName;
  if (configDir.empty()) return Outcome();
  if (const std::string problem = utils::replaceFile(serialPath, std::to_string(signedRelease.release.serial) + "\n");
      !problem.empty()) {
    return refused(serialPath, problem);
  }
  return Outcome();
}
