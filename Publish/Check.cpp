// kx-publish check: every platform's client replayed against a live server,
// through the updater's own resolution and download code, with the verdict an
// agent would reach.
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "KXLog.h"
#include "Manifest.h"
#include "Publish.h"
#include "Setup.h"
#include "Steps.h"
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
  int result = 0;           // the client's result code
  int status = 0;           // the HTTP status of the request it failed on, if any
  int os = 0, distrib = 0;  // the client's, as its target gives them
  bool published = true;
  bool listed = false;  // named by the definition file: its absence is a fault
  bool ok = false;
  std::optional<release::Entry> entry;  // the signed release's, when it holds
  int bucket = -1;                      // the --install-id machine's, for the entry
  bool offered = false;
};

// What every client of one check is given.
struct Options {
  std::string server, from, tmp;
  bool download = false;
  const steps::Keys* keys = nullptr;  // the publisher's keys, for a signed client
  std::string installId;              // a machine to place in each rollout
  std::vector<std::string> revoked;   // by the served release
  int64_t now = 0;
};

// Keeps the updater's log lines off the terminal: the rows say what counts.
class Quiet : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char*, const char*, int, const char*,
           const char*) override {}
};

// A request's failure as a reason: "package not found (404)", or "server
// unreachable (...)" when no answer came.
std::string failure(const HttpClient::Result& r, const std::string& what) {
  if (r.code < 0) return "server unreachable (" + r.error + ")";
  return what + (r.code == 404 ? " not found (404)" : " answered " + std::to_string(r.code));
}

// The platforms that publish one kind: "linux deb" for both architectures.
bool sameKind(const Row& a, const Row& b) { return a.os == b.os && a.distrib == b.distrib; }

bool isLowerHex32(const std::string& s) {
  return s.size() == 32 && s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

Row fail(Row row, Result result, const std::string& why, int status = 0) {
  row.result = static_cast<int>(result);
  row.status = status;
  row.verdict = "result " + std::to_string(row.result) + ": " + why;
  return row;
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

setup::Platform platformOf(const Target& t) { return setup::Platform{t.os, t.arch, t.distrib}; }

// A macOS client found no directory with a version file: a package in one
// of the places it probes is then published without it.
std::string macPackageWithoutVersion(HttpClient& http, const std::string& server, int arch) {
  const std::string archText = utils::agentArchToString(arch);
  std::map<std::string, std::string> headers;
  for (const char* dir : *setup::probeDirectories(archText)) {
    for (const char* name : *setup::probePackages(archText)) {
      if (http.head(server + dir + "/" + name, headers).code == 0) return server + dir + "/version_long.txt";
    }
  }
  return std::string();
}

// The row of a client that found no setup.
Row unresolved(HttpClient& http, const Target& t, const Options& o, const Row& row, const setup::SetupFailure& f) {
  if (f.answer.code < 0) return fail(row, Result::NoVerifiedFile, failure(f.answer, ""));
  switch (f.why) {
    case setup::SetupFailure::Unreadable:
      return fail(row, Result::NoVerifiedFile, "definition file cannot be read (" + f.detail + ")");
    case setup::SetupFailure::Refused:
      return fail(row, Result::NoVerifiedFile, f.detail + ", clients refuse it");
    case setup::SetupFailure::NoSize:
      return fail(row, Result::NoVerifiedFile, f.detail);
    case setup::SetupFailure::NotOffered:
      break;
  }
  if (t.os == utils::Macosx && !f.byDefinition) {
    if (const std::string missing = macPackageWithoutVersion(http, o.server, t.arch); !missing.empty()) {
      return halfPublished(row, "version file " + utils::logUrl(missing) + " is missing");
    }
  }
  return notPublished(row);
}

// The row of a client whose version step failed.
Row noVersion(HttpClient& http, const Row& row, const setup::Setup& s, const Failure& f) {
  if (f.result() == Result::RequestFailed && !row.listed && f.answer().code == 404) {
    // Linux kinds share one legacy directory and its version file.
    std::map<std::string, std::string> headers;
    if (http.head(s.params.setupUrl, headers).code == 0) {
      return halfPublished(row, "version file " + utils::logUrl(s.params.versionUrl) + " is missing");
    }
    return notPublished(row);
  }
  if (f.result() == Result::RequestFailed) {
    return fail(row, f.result(), failure(f.answer(), "version file"), f.answer().code);
  }
  return fail(row, f.result(), "published version is not four numbers");
}

// What the MD5 file says, beside the sum: the version and size kx-publish
// recorded in its comment line, when it did.
struct Recorded {
  std::string version;
  unsigned long long size = 0;
};
Recorded recordedIn(const std::string& hashFile) {
  Recorded r;
  const size_t note = hashFile.find("\n# version ");
  char version[64] = {};
  if (note != std::string::npos &&
      std::sscanf(hashFile.c_str() + note, "\n# version %63s size %llu", version, &r.size) == 2) {
    r.version = version;
  }
  return r;
}

// The verdict of the hash file and the recorded facts, once the size is
// known; nullopt when they hold.
std::optional<Row> judgeHashFile(Row& row, const setup::Setup& s, const steps::HashFile& hash, uint64_t size) {
  if (hash.answer.code == 404)
    return halfPublished(row, "hash file " + utils::logUrl(s.params.hashUrl) + " is missing");
  if (hash.answer.code != 0) {
    return halfPublished(row, "hash file " + utils::logUrl(s.params.hashUrl) + " cannot be fetched (" +
                                  (hash.answer.code < 0 ? hash.answer.error : std::to_string(hash.answer.code)) + ")");
  }
  if (row.md5 == "bad") {
    return fail(row, Result::NoSizeOrWrongMd5, "MD5 does not match (every client computes 32 lower-case digits)");
  }
  const Recorded recorded = recordedIn(hash.body);
  if (!recorded.version.empty() && recorded.version != row.version) {
    row.verdict = "version bumped without its package (published as " + recorded.version + ")";
    return row;
  }
  if (!recorded.version.empty() && recorded.size != size) {
    row.verdict = "package changed after its MD5 file was written (" + std::to_string(recorded.size) + " bytes then)";
    return row;
  }
  return std::nullopt;
}

// The download and its checks, progress on standard error; nullopt when
// they pass.
std::optional<Row> downloadOne(HttpClient& http, Row& row, const setup::Setup& s, uint64_t size, const std::string& md5,
                               const std::optional<steps::SignedEntry>& signedEntry) {
  bool progressed = false;
  const auto progress = [&](int percent) {
    std::cerr << "\r" << utils::logText(row.platform) << ": downloading " << percent << "%" << std::flush;
    progressed = true;
  };
  uint64_t fetched = 0;
  const Expected<HttpClient::Landed> landed = steps::downloadVerified(
      http, s.params, size, md5, signedEntry ? unsigned{HttpClient::kSha256} : 0U, nullptr, fetched, progress);
  if (progressed) std::cerr << "\n";
  boost::system::error_code ec;
  boost::filesystem::remove(s.params.setupPath, ec);
  if (!landed.ok()) {
    const Failure& f = landed.failure();
    if (f.result() == Result::RequestFailed) return fail(row, f.result(), failure(f.answer(), "package"));
    if (f.result() == Result::WrongSize) return fail(row, f.result(), "package size differs from its announced size");
    return fail(row, f.result(), "MD5 does not match");
  }
  if (signedEntry) {
    // No serial is remembered: the publisher's machine is no client.
    if (Status a = steps::acceptRelease(*signedEntry, *landed, ""); !a.ok()) {
      return fail(row, a.failure().result(), a.failure().reason());
    }
  }
  if (!md5.empty()) row.md5 = "verified";
  return std::nullopt;
}

// The signed release's entry, for a package that is there: a kind nobody
// published stays "not published" rather than failing the release check.
std::optional<Row> signedEntryOf(HttpClient& http, const Options& o, Row& row, const setup::Setup& s,
                                 const Version& available, std::optional<steps::SignedEntry>& out) {
  if (o.keys == nullptr) return std::nullopt;
  const Expected<steps::SignedEntry> e = steps::checkRelease(http, o.server, "", *o.keys, s, available);
  if (e.ok()) {
    out = *e;
    row.entry = e->entry;
    return std::nullopt;
  }
  std::map<std::string, std::string> headers;
  const HttpClient::Result there = http.head(s.params.setupUrl, headers);
  if (there.code == 404) return fail(row, Result::RequestFailed, failure(there, "package"), there.code);
  return fail(row, e.failure().result(), e.failure().reason());
}

// Whether the --install-id machine is offered the entry now, and if not,
// what it waits for.
void placeMachine(Row& row, const Options& o) {
  const release::Rollout r = row.entry->rollout.value_or(release::Rollout{{{0, 10000}}, false});
  const int share = release::shareInForce(r, o.now);
  row.bucket = release::bucketOf(o.installId, row.entry->version);
  row.offered = row.bucket < share;
  const std::string place = "bucket " + std::to_string(row.bucket) + " of " + percentText(share);
  if (row.offered) {
    row.verdict += " (offered: " + place + ")";
    return;
  }
  row.verdict = "waiting: " + place + (r.paused ? ", paused" : "");
  for (const release::Stage& s : r.stages) {
    if (!r.paused && s.at > o.now && row.bucket < s.basisPoints) {
      row.verdict += ", offered from " + release::utcText(s.at);
      return;
    }
  }
  if (!r.paused) row.verdict += ", no later stage reaches it";
}

// What the client would do, given what it was offered.
Row verdictOf(Row row, const Options& o, const Version& available) {
  row.ok = true;
  // A revoked version goes to its entry at once, even to a lower one.
  if (std::find(o.revoked.begin(), o.revoked.end(), o.from) != o.revoked.end()) {
    row.verdict = "would update " + o.from + " -> " + row.version + " at once: " + o.from + " is revoked";
    row.offered = true;
  } else if (!o.from.empty() && !(Version::parse(o.from) < available)) {
    row.verdict = "up to date";
  } else {
    row.verdict = o.from.empty() ? "would update to " + row.version : "would update " + o.from + " -> " + row.version;
    if (!o.installId.empty() && row.entry) placeMachine(row, o);
  }
  return row;
}

// One platform's client, fresh: nothing is probed but the server, and it
// takes the run's steps in the run's order.
Row replay(const Target& t, const Options& o, Row row) {
  HttpClient http;
  const Expected<setup::Setup, setup::SetupFailure> s = setup::resolve(http, o.server, o.tmp, platformOf(t));
  if (!s.ok()) return unresolved(http, t, o, row, s.failure());
  row.listed = s->byDefinition;
  row.url = s->params.setupUrl;
  if (s->params.setupName.empty()) {
    const std::string dir = s->params.versionUrl.substr(0, s->params.versionUrl.rfind('/'));
    return fail(row, Result::RequestFailed, "no package in " + utils::logUrl(dir));
  }
  const Expected<Version> available = steps::fetchVersion(http, *s);
  if (!available.ok()) return noVersion(http, row, *s, available.failure());
  row.version = available->toString();
  std::optional<steps::SignedEntry> signedEntry;
  if (std::optional<Row> done = signedEntryOf(http, o, row, *s, *available, signedEntry)) return *done;
  const steps::HashFile hash = steps::fetchHashFile(http, s->params);
  row.md5 = hash.sum.empty() ? "none" : isLowerHex32(hash.sum) ? "ok" : "bad";
  const Expected<uint64_t> size = steps::fetchSize(http, *s, o.tmp);
  if (!size.ok()) {
    const Failure& f = size.failure();
    if (f.result() == Result::RequestFailed)
      return fail(row, f.result(), failure(f.answer(), "package"), f.answer().code);
    return fail(row, f.result(), f.problem());
  }
  row.size = std::to_string(*size);
  if (signedEntry) {
    if (Status m = steps::matchRelease(*signedEntry, *size); !m.ok())
      return fail(row, m.failure().result(), m.failure().reason());
  }
  if (std::optional<Row> done = judgeHashFile(row, *s, hash, *size)) return *done;
  if (o.download) {
    if (std::optional<Row> done = downloadOne(http, row, *s, *size, hash.sum, signedEntry)) return *done;
  }
  return verdictOf(row, o, *available);
}

// Whatever goes wrong in one row is that row's failure, never the table's.
Row checkOne(const Target& t, const Options& o) {
  Row row;
  row.platform = t.name;
  row.os = t.os;
  row.distrib = t.distrib;
  try {
    return replay(t, o, row);
  } catch (const std::exception& e) {
    return fail(row, Result::NoVerifiedFile, utils::logText(e.what()));
  }
}

// Linux clients of every kind share a legacy directory and its version
// file: a kind whose package is missing for every architecture is simply
// not published, while one missing for a single architecture is a fault.
void unpublishKindsMissingEverywhere(std::vector<Row>& rows) {
  const auto missing = [](const Row& r) {
    return r.result == static_cast<int>(Result::RequestFailed) && r.status == 404;
  };
  for (Row& r : rows) {
    bool elsewhere = false;
    for (const Row& other : rows) {
      elsewhere = elsewhere || (sameKind(other, r) && other.published && !missing(other));
    }
    if (!elsewhere && !r.listed && missing(r)) r = notPublished(r);
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

// The share the row's signed entry offers now, for the table: "100%",
// "paused", "25% until 2026-12-01T00:00:00Z"; "" without an entry.
std::string rolloutColumn(const Row& r, int64_t now) {
  if (!r.entry) return std::string();
  if (!r.entry->rollout) return "100%";
  if (r.entry->rollout->paused) return "paused";
  const std::optional<int64_t> next = release::nextStageAt(*r.entry->rollout, now);
  return percentText(release::shareInForce(*r.entry->rollout, now)) +
         (next ? " until " + release::utcText(*next) : std::string());
}

// The same for JSON: the percent in force, the next stage and the pause.
nlohmann::json rolloutJson(const Row& r, int64_t now) {
  if (!r.entry) return nullptr;
  const release::Rollout rollout = r.entry->rollout.value_or(release::Rollout{{{0, 10000}}, false});
  const int share = release::shareInForce(rollout, now);
  const std::optional<int64_t> next = release::nextStageAt(rollout, now);
  return {{"percent", share % 100 == 0 ? nlohmann::json(share / 100) : nlohmann::json(share / 100.0)},
          {"next", next ? nlohmann::json(release::utcText(*next)) : nlohmann::json(nullptr)},
          {"paused", rollout.paused}};
}

void printJson(const std::vector<Row>& rows, const Options& o) {
  nlohmann::json out = nlohmann::json::array();
  for (const Row& r : rows) {
    out.push_back({{"platform", r.platform},
                   {"url", r.url},
                   {"version", r.version},
                   {"size", r.size},
                   {"md5", r.md5},
                   {"verdict", r.verdict},
                   {"published", r.published},
                   {"ok", r.ok}});
    if (o.keys != nullptr) out.back()["rollout"] = rolloutJson(r, o.now);
    if (!o.installId.empty() && r.entry) out.back()["offered"] = r.offered;
    if (!o.installId.empty() && r.bucket >= 0) out.back()["bucket"] = r.bucket;
  }
  std::cout << out.dump(2) << "\n";
}

void print(const std::vector<Row>& rows, bool json, const Options& o) {
  std::vector<Row> shownRows;
  shownRows.reserve(rows.size());
  for (const Row& r : rows) shownRows.push_back(shown(r));
  if (json) return printJson(shownRows, o);
  size_t url = 3, rollout = 0;
  for (const Row& r : shownRows) url = std::max(url, r.url.size());
  // Only a signed release has a rollout to show.
  for (const Row& r : shownRows) rollout = std::max(rollout, rolloutColumn(r, o.now).size());
  if (o.keys != nullptr) rollout = std::max(rollout, size_t{7});
  const auto line = [url, rollout](const std::string& a, const std::string& b, const std::string& c,
                                   const std::string& d, const std::string& e, const std::string& g,
                                   const std::string& f) {
    std::cout << std::left << std::setw(17) << a << std::setw(static_cast<int>(url) + 2) << b << std::setw(12) << c
              << std::setw(11) << d << std::setw(10) << e;
    if (rollout > 0) std::cout << std::setw(static_cast<int>(rollout) + 2) << g;
    std::cout << f << "\n";
  };
  line("PLATFORM", "URL", "VERSION", "SIZE", "MD5", "ROLLOUT", "VERDICT");
  for (const Row& r : shownRows) line(r.platform, r.url, r.version, r.size, r.md5, rolloutColumn(r, o.now), r.verdict);
}

// The served release as a client that pins keys sees it, in one line; false
// when no such client would accept it. Expiring within two weeks is a
// warning: agents that run less often than that would start to fail.
bool checkSignedRelease(const std::string& server, const std::vector<release::PublicKey>& keys, std::ostream& out,
                        std::vector<std::string>& revoked) {
  HttpClient client;
  std::map<std::string, std::string> headers;
  std::string manifest, signature;
  const std::string url = server + "/release.json";
  out << "release.json: ";
  if (const HttpClient::Result r = client.get(url, manifest, headers, release::kMaxManifest); r.code != 0) {
    out << "unsigned: " << utils::logText(failure(r, "release.json")) << "\n";
    return false;
  }
  if (const HttpClient::Result r = client.get(url + ".minisig", signature, headers, release::kMaxSignature);
      r.code != 0) {
    out << "unsigned: " << utils::logText(failure(r, "release.json.minisig")) << "\n";
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
  for (const std::string& version : v.release.revoked) {
    out << "revoked " << utils::logText(version) << ": machines on it update at once\n";
  }
  revoked = v.release.revoked;
  return true;
}

// The command line; 0, or the exit status of its refusal.
struct Command {
  Options options;
  std::string keyFile;
  bool json = false;
};
int parseCheck(const std::vector<std::string>& args, Command& c) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--from" && i + 1 < args.size()) {
      c.options.from = args[++i];
      if (!isPublishableVersion(c.options.from)) {
        return refuse("--from '" + c.options.from + "' is not four numbers such as 7.2.5.0");
      }
    } else if (args[i] == "--download") {
      c.options.download = true;
    } else if (args[i] == "--key" && i + 1 < args.size()) {
      c.keyFile = args[++i];
    } else if (args[i] == "--install-id" && i + 1 < args.size()) {
      c.options.installId = args[++i];
      if (!isLowerHex32(c.options.installId)) {
        return refuse("--install-id '" + utils::logText(c.options.installId) + "' is not 32 lower-case hex digits");
      }
    } else if (args[i] == "--json") {
      c.json = true;
    } else if (c.options.server.empty() && args[i].rfind("--", 0) != 0) {
      c.options.server = args[i];
    } else {
      return usage("unexpected argument " + args[i]);
    }
  }
  if (c.options.server.empty()) return usage("check needs the server's address");
  if (!c.options.installId.empty() && c.keyFile.empty()) {
    return usage("--install-id needs --key: only a signed release has a rollout");
  }
  // As the updater's command line does: one trailing slash goes.
  if (c.options.server.back() == '/') c.options.server.pop_back();
  return 0;
}

// Every platform's row, each client in a temporary directory of the check's
// own and with the updater's log kept quiet.
std::vector<Row> checkAll(Options o) {
  const boost::filesystem::path tmp =
      boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("kx-publish-%%%%%%%%");
  boost::filesystem::create_directory(tmp);
  o.tmp = tmp.string();
  Quiet quiet;
  KXLog* log = KXLog::getLogger();
  log->setLevels("ROOT:5;");
  log->setLogCb(&quiet);
  std::vector<Row> rows;
  for (const Target& t : kTargets) rows.push_back(checkOne(t, o));
  log->setLogCb(nullptr);
  boost::system::error_code ec;
  boost::filesystem::remove_all(tmp, ec);
  unpublishKindsMissingEverywhere(rows);
  return rows;
}

}  // namespace

int check(const std::vector<std::string>& args) {
  Command c;
  if (const int status = parseCheck(args, c); status != 0) return status;
  steps::Keys keys;
  if (!c.keyFile.empty()) {
    if (const std::string problem = release::parsePublicKeys(readText(c.keyFile), keys.keys); !problem.empty()) {
      return refuse(c.keyFile + ": " + problem);
    }
    keys.pinned = true;
    c.options.keys = &keys;
  }
  c.options.now = static_cast<int64_t>(std::time(nullptr));
  // First, for the versions it revokes; printed after the rows.
  std::ostringstream summary;
  bool allOk = c.keyFile.empty() || checkSignedRelease(c.options.server, keys.keys, summary, c.options.revoked);
  const std::vector<Row> rows = checkAll(c.options);
  print(rows, c.json, c.options);
  // Beside the rows, so that a --json reader still gets one array.
  (c.json ? std::cerr : std::cout) << summary.str();
  bool anyPublished = false;
  for (const Row& r : rows) {
    anyPublished = anyPublished || r.published;
    allOk = allOk && r.ok;
  }
  return anyPublished && allOk ? 0 : 1;
}

}  // namespace publish
