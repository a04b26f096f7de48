// kx-publish check: every platform's client replayed against a live server,
// through the updater's own resolution and download code, with the verdict an
// agent would reach.
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "KXLog.h"
#include "Manifest.h"
#include "Publish.h"
#include "Updater.h"
#include "Version.h"
#include "utils.h"

namespace publish {
namespace {

struct Target {
  const char* name;
  int os;
  int arch;
  int distrib;  // macOS: decided by the server
};

// Every platform and package kind a client knows.
const Target kTargets[] = {
    {"macos/amd64", utils::Macosx, utils::X64, utils::None},
    {"macos/arm64", utils::Macosx, utils::Arm64, utils::None},
    {"linux/amd64 deb", utils::Linux, utils::X64, utils::Deb},
    {"linux/amd64 rpm", utils::Linux, utils::X64, utils::Rpm},
    {"linux/amd64 spk", utils::Linux, utils::X64, utils::Spk},
    {"linux/arm64 deb", utils::Linux, utils::Arm64, utils::Deb},
    {"linux/arm64 rpm", utils::Linux, utils::Arm64, utils::Rpm},
    {"linux/arm64 spk", utils::Linux, utils::Arm64, utils::Spk},
    {"windows/amd64", utils::Windows, utils::X64, utils::Exe},
    {"windows/arm64", utils::Windows, utils::Arm64, utils::Exe},
};

struct Row {
  std::string platform, url, version, size, md5, verdict;
  int result = 0;  // the client's result code
  bool published = true;
  bool listed = false;  // named by the definition file: its absence is a fault
  bool ok = false;
};

// Keeps the updater's log lines off the terminal (the rows say what counts);
// download progress becomes one line on standard error.
class Capture : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char*, const char*, int, const char*,
           const char* message) override {
    const std::string text(message);
    if (text.rfind("Loading ", 0) == 0) {
      std::cerr << "\r" << label << ": downloading " << text.substr(8) << std::flush;
      progress = true;
    }
  }
  std::string label;
  bool progress = false;
};

// The latest request's failure as a reason: "package not found (404)", or
// "server unreachable (...)" when no answer came.
std::string failure(const HttpClient& client, const std::string& what) {
  const HttpClient::Result& r = client.lastResult();
  if (r.code < 0) return "server unreachable (" + r.error + ")";
  return what + (r.code == 404 ? " not found (404)" : " answered " + std::to_string(r.code));
}

// "linux/amd64 deb" -> "linux deb": the platforms that publish one kind.
std::string kindOf(const std::string& platform) {
  const size_t blank = platform.find(' ');
  return platform.substr(0, platform.find('/')) + (blank == std::string::npos ? "" : platform.substr(blank));
}

bool isLowerHex32(const std::string& s) {
  return s.size() == 32 && s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

Row fail(Row row, int result, const std::string& why) {
  row.result = result;
  row.verdict = "result " + std::to_string(result) + ": " + why;
  return row;
}

// The client's reasons speak of "this machine"; here it is the client
// replayed.
std::string asReplayed(std::string reason) {
  const std::string machine = "this machine";
  if (const size_t at = reason.find(machine); at != std::string::npos) reason.replace(at, machine.size(), "the client");
  return reason;
}

Row notPublished(Row row) {
  row.published = false;
  row.ok = true;
  row.verdict = "not published";
  return row;
}

// A package whose version or hash file is not served beside it: clients
// would fail, or install it unchecked.
Row halfPublished(Row row, const std::string& what) {
  row.verdict = "half published: " + what;
  return row;
}

// A macOS client found no directory with a version file: a package in one
// of the places it probes is then published without it.
std::string macPackageWithoutVersion(Updater& u, const std::string& server, int arch) {
  const std::string archText = utils::agentArchToString(arch);
  std::map<std::string, std::string> headers;
  for (const char* dir : *Updater::probeDirectories(archText)) {
    for (const char* name : *Updater::probePackages(archText)) {
      if (u.httpClient.head(server + dir + "/" + name, headers) == 0) return server + dir + "/version_long.txt";
    }
  }
  return std::string();
}

// What a client learns of its package before it downloads it.
struct Facts {
  Version available;
  std::string md5;
  HttpClient::Result hashAnswer;
  std::string recordedVersion;  // as the MD5 file records it; "" when it does not
  unsigned long long recordedSize = 0;
  unsigned long long size = 0;
};

// The client's resolution of its package; a finished row when it ends there.
std::optional<Row> resolve(Updater& u, const Target& t, const std::string& server, Row& row, utils::SetuParameter& p) {
  try {
    p = u.getAgentSetup();
  } catch (const Updater::SetupError& e) {
    if (u.httpClient.lastResult().code < 0) return fail(row, 11, failure(u.httpClient, ""));
    switch (e.kind) {
      case Updater::SetupError::Unreadable:
        return fail(row, 11, "definition file cannot be read (" + e.detail + ")");
      case Updater::SetupError::Refused:
        return fail(row, 11, e.detail + ", clients refuse it");
      case Updater::SetupError::NoSize:
        return fail(row, 11, e.detail);
      case Updater::SetupError::NotOffered:
        break;
    }
    if (t.os == utils::Macosx && !u.definitionUsed) {
      if (const std::string missing = macPackageWithoutVersion(u, server, t.arch); !missing.empty()) {
        return halfPublished(row, "version file " + utils::logUrl(missing) + " is missing");
      }
    }
    return notPublished(row);
  }
  row.listed = u.definitionUsed;
  row.url = p.setupUrl;
  if (p.setupName.empty()) {
    return fail(row, 2, "no package in " + utils::logUrl(p.versionUrl.substr(0, p.versionUrl.rfind('/'))));
  }
  return std::nullopt;
}

// The version, MD5 and size steps; a finished row when the client ends there.
std::optional<Row> fetchFacts(Updater& u, Row& row, const utils::SetuParameter& p, Facts& f) {
  Outcome o = u.fetchAvailableVersion(p, f.available);
  if (o.code == 2 && !row.listed && u.httpClient.lastResult().code == 404) {
    // Linux kinds share one legacy directory and its version file.
    std::map<std::string, std::string> headers;
    if (u.httpClient.head(p.setupUrl, headers) == 0) {
      return halfPublished(row, "version file " + utils::logUrl(p.versionUrl) + " is missing");
    }
    return notPublished(row);
  }
  if (o.code == 2) return fail(row, 2, failure(u.httpClient, "version file"));
  if (o.code == 5) return fail(row, 5, "published version is not four numbers");
  row.version = f.available.toString();

  std::string hashFile;
  f.md5 = u.fetchExpectedMd5(p, &hashFile);
  f.hashAnswer = u.httpClient.lastResult();
  row.md5 = f.md5.empty() ? "none" : isLowerHex32(f.md5) ? "ok" : "bad";
  // What the package was published as, where kx-publish wrote it down.
  const size_t note = hashFile.find("\n# version ");
  char recordedVersion[64] = {};
  if (note != std::string::npos &&
      std::sscanf(hashFile.c_str() + note, "\n# version %63s size %llu", recordedVersion, &f.recordedSize) == 2) {
    f.recordedVersion = recordedVersion;
  }

  o = u.fetchExpectedSize(p, f.size);
  if (o.code == 2) return fail(row, 2, failure(u.httpClient, "package"));
  if (o.code == 7) {
    const size_t colon = o.reason.find(": ");
    return fail(row, 7, colon == std::string::npos ? o.reason : o.reason.substr(colon + 2));
  }
  row.size = std::to_string(f.size);
  return std::nullopt;
}

// The package held to the release and to its hash file; a finished row when
// that is where the client would end.
std::optional<Row> judge(Updater& u, Row& row, const utils::SetuParameter& p, const Facts& f,
                         const std::vector<release::PublicKey>* keys) {
  // Only a package that is there is held to the release: a kind nobody
  // published stays "not published".
  if (keys != nullptr) {
    u.keysPinned = true;
    u.pinnedKeys = *keys;
    if (Outcome r = u.checkRelease(p, f.available); !r.ok()) return fail(row, 12, asReplayed(r.reason));
    if (Outcome r = u.matchRelease(p, f.size); !r.ok()) return fail(row, 12, r.reason);
  }
  const HttpClient::Result& hash = f.hashAnswer;
  if (hash.code == 404) return halfPublished(row, "hash file " + utils::logUrl(p.hashUrl) + " is missing");
  if (hash.code != 0) {
    return halfPublished(row, "hash file " + utils::logUrl(p.hashUrl) + " cannot be fetched (" +
                                  (hash.code < 0 ? hash.error : std::to_string(hash.code)) + ")");
  }
  if (row.md5 == "bad") return fail(row, 7, "MD5 does not match (every client computes 32 lower-case digits)");
  if (!f.recordedVersion.empty() && f.recordedVersion != row.version) {
    row.verdict = "version bumped without its package (published as " + f.recordedVersion + ")";
    return row;
  }
  if (!f.recordedVersion.empty() && f.recordedSize != f.size) {
    row.verdict = "package changed after its MD5 file was written (" + std::to_string(f.recordedSize) + " bytes then)";
    return row;
  }
  return std::nullopt;
}

// The download and its checks; a finished row when they fail.
std::optional<Row> downloadOne(Updater& u, Row& row, const utils::SetuParameter& p, const Facts& f,
                               const std::vector<release::PublicKey>* keys, Capture& cap) {
  const Outcome o = u.downloadVerified(p, f.size, f.md5);
  if (cap.progress) std::cerr << "\n";
  cap.progress = false;
  boost::system::error_code ec;
  boost::filesystem::remove(p.setupPath, ec);
  if (o.code == 2) return fail(row, 2, failure(u.httpClient, "package"));
  if (o.code == 6) return fail(row, 6, "package size differs from its announced size");
  if (o.code == 7) return fail(row, 7, "MD5 does not match");
  if (keys != nullptr) {
    if (Outcome r = u.acceptRelease(p); !r.ok()) return fail(row, 12, r.reason);
  }
  if (!f.md5.empty()) row.md5 = "verified";
  return std::nullopt;
}

// keys: the publisher's public keys when the check is a signed client's.
Row checkOne(const Target& t, const std::string& server, const std::string& from, bool download, const std::string& tmp,
             const std::vector<release::PublicKey>* keys, Capture& cap) {
  Row row;
  row.platform = t.name;
  cap.label = t.name;
  // A client of that platform, fresh: nothing is probed but the server.
  Updater u;
  u.serverUrl = server;
  u.tempDir = tmp;
  u.os = t.os;
  u.arch = t.arch;
  u.distrib = t.distrib;
  utils::SetuParameter p;
  Facts f;
  if (std::optional<Row> done = resolve(u, t, server, row, p)) return *done;
  if (std::optional<Row> done = fetchFacts(u, row, p, f)) return *done;
  if (std::optional<Row> done = judge(u, row, p, f, keys)) return *done;
  if (download) {
    if (std::optional<Row> done = downloadOne(u, row, p, f, keys, cap)) return *done;
  }
  row.ok = true;
  if (from.empty()) {
    row.verdict = "would update to " + row.version;
  } else if (Version::parse(from) < f.available) {
    row.verdict = "would update " + from + " -> " + row.version;
  } else {
    row.verdict = "up to date";
  }
  return row;
}

// Linux clients of every kind share a legacy directory and its version
// file: a kind whose package is missing for every architecture is simply
// not published, while one missing for a single architecture is a fault.
void unpublishKindsMissingEverywhere(std::vector<Row>& rows) {
  const char* const missing = "result 2: package not found (404)";
  for (Row& r : rows) {
    bool elsewhere = false;
    for (const Row& other : rows) {
      elsewhere =
          elsewhere || (kindOf(other.platform) == kindOf(r.platform) && other.published && other.verdict != missing);
    }
    if (!elsewhere && !r.listed && r.verdict == missing) r = notPublished(r);
  }
}

// Every text of a row as a person or a JSON reader gets it, under the one
// escaping rule of the log: most of it comes from the server, and none of it
// may drive a terminal, break the JSON, or show an address's credentials.
Row shown(const Row& r) {
  Row out = r;
  for (std::string* text : {&out.platform, &out.version, &out.size, &out.md5, &out.verdict}) {
    *text = utils::logText(*text);
  }
  out.url = utils::logUrl(r.url);
  return out;
}

void print(const std::vector<Row>& rows, bool json) {
  std::vector<Row> shownRows;
  shownRows.reserve(rows.size());
  for (const Row& r : rows) shownRows.push_back(shown(r));
  if (json) {
    nlohmann::json out = nlohmann::json::array();
    for (const Row& r : shownRows) {
      out.push_back({{"platform", r.platform},
                     {"url", r.url},
                     {"version", r.version},
                     {"size", r.size},
                     {"md5", r.md5},
                     {"verdict", r.verdict},
                     {"published", r.published},
                     {"ok", r.ok}});
    }
    std::cout << out.dump(2) << "\n";
    return;
  }
  size_t url = 3;
  for (const Row& r : shownRows) url = std::max(url, r.url.size());
  const auto line = [url](const std::string& a, const std::string& b, const std::string& c, const std::string& d,
                          const std::string& e, const std::string& f) {
    std::cout << std::left << std::setw(17) << a << std::setw(static_cast<int>(url) + 2) << b << std::setw(12) << c
              << std::setw(11) << d << std::setw(10) << e << f << "\n";
  };
  line("PLATFORM", "URL", "VERSION", "SIZE", "MD5", "VERDICT");
  for (const Row& r : shownRows) line(r.platform, r.url, r.version, r.size, r.md5, r.verdict);
}

// The served release as a client that pins keys sees it, in one line; false
// when no such client would accept it. Expiring within two weeks is a
// warning: agents that run less often than that would start to fail.
bool checkSignedRelease(const std::string& server, const std::vector<release::PublicKey>& keys, std::ostream& out) {
  HttpClient client;
  std::map<std::string, std::string> headers;
  std::string manifest, signature;
  const std::string url = server + "/release.json";
  out << "release.json: ";
  if (client.get(url, manifest, headers, release::kMaxManifest) != 0) {
    out << "unsigned: " << utils::logText(failure(client, "release.json")) << "\n";
    return false;
  }
  if (client.get(url + ".minisig", signature, headers, release::kMaxSignature) != 0) {
    out << "unsigned: " << utils::logText(failure(client, "release.json.minisig")) << "\n";
    return false;
  }
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  const release::Verified v = release::verifyRelease(manifest, signature, keys, now, 0);
  if (!v.ok) {
    out << "refused: " << utils::logText(v.reason) << "\n";
    return false;
  }
  const int64_t days = (v.release.expires - now) / 86400;
  out << "serial " << v.release.serial << " signed by key " << v.release.keyId << " until "
      << release::utcText(v.release.expires)
      << (days < 14 ? ": warning: expires in " + std::to_string(days) + " days, sign it again" : ": ok") << "\n";
  return true;
}

}  // namespace

int check(const std::vector<std::string>& args) {
  std::string server, from, keyFile;
  bool download = false, json = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--from" && i + 1 < args.size()) {
      from = args[++i];
      if (!isPublishableVersion(from)) return refuse("--from '" + from + "' is not four numbers such as 7.2.5.0");
    } else if (args[i] == "--download") {
      download = true;
    } else if (args[i] == "--key" && i + 1 < args.size()) {
      keyFile = args[++i];
    } else if (args[i] == "--json") {
      json = true;
    } else if (server.empty() && args[i].rfind("--", 0) != 0) {
      server = args[i];
    } else {
      return usage("unexpected argument " + args[i]);
    }
  }
  if (server.empty()) return usage("check needs the server's address");
  // As the updater's command line does: one trailing slash goes.
  if (server.back() == '/') server.pop_back();
  std::vector<release::PublicKey> keys;
  if (!keyFile.empty()) {
    if (const std::string problem = release::parsePublicKeys(readText(keyFile), keys); !problem.empty()) {
      return refuse(keyFile + ": " + problem);
    }
  }

  const boost::filesystem::path tmp =
      boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("kx-publish-%%%%%%%%");
  boost::filesystem::create_directory(tmp);
  Capture cap;
  KXLog* log = KXLog::getLogger();
  log->setLevels("ROOT:5;");
  log->setLogCb(&cap);
  std::vector<Row> rows;
  for (const Target& t : kTargets) {
    rows.push_back(checkOne(t, server, from, download, tmp.string(), keyFile.empty() ? nullptr : &keys, cap));
  }
  log->setLogCb(nullptr);
  boost::system::error_code ec;
  boost::filesystem::remove_all(tmp, ec);

  unpublishKindsMissingEverywhere(rows);
  print(rows, json);
  // Beside the rows, so that a --json reader still gets one array.
  bool allOk = keyFile.empty() || checkSignedRelease(server, keys, json ? std::cerr : std::cout);
  bool anyPublished = false;
  for (const Row& r : rows) {
    anyPublished = anyPublished || r.published;
    allOk = allOk && r.ok;
  }
  return anyPublished && allOk ? 0 : 1;
}

}  // namespace publish
