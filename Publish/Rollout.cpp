// kx-publish rollout and revoke: the release a tree serves, signed again
// with what agents are to do from now on; and the stages a publisher writes.
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <ctime>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "Publish.h"
#include "utils.h"

namespace fs = boost::filesystem;

namespace publish {
namespace {

const char* const kDigits = "0123456789";

// "25", "12.5" or "0.25" as hundredths of a percent; -1 for anything but 0
// to 100 with at most two decimals, which is all a release can say.
int parsePercent(const std::string& text) {
  const size_t dot = text.find('.');
  const std::string whole = text.substr(0, dot);
  const std::string fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
  if (whole.empty() || whole.size() > 3 || whole.find_first_not_of(kDigits) != std::string::npos ||
      (dot != std::string::npos &&
       (fraction.empty() || fraction.size() > 2 || fraction.find_first_not_of(kDigits) != std::string::npos))) {
    return -1;
  }
  const int basisPoints =
      std::stoi(whole) * 100 + (fraction.empty() ? 0 : std::stoi(fraction) * (fraction.size() == 1 ? 10 : 1));
  return basisPoints <= 10000 ? basisPoints : -1;
}

// "0", "2d", "12h" or "30m" from now, or a UTC time.
bool parseAt(const std::string& text, int64_t now, int64_t& at) {
  if (release::parseUtc(text, at)) return true;
  if (text == "0") {
    at = now;
    return true;
  }
  const char unit = text.empty() ? ' ' : text.back();
  const int64_t seconds = unit == 'd' ? 86400 : unit == 'h' ? 3600 : unit == 'm' ? 60 : 0;
  if (seconds == 0 || text.size() < 2 || text.size() > 7 || text.find_first_not_of(kDigits) != text.size() - 1) {
    return false;
  }
  at = now + std::stoll(text.substr(0, text.size() - 1)) * seconds;
  return true;
}

// What rollout and revoke are asked to do.
struct Edit {
  std::string tree, key, stages;
  bool pause = false, resume = false;
  int expiresDays = 0;  // 0: the expiry is kept
  std::vector<std::string> versions;
};

// The command line; 0, or the exit status of its refusal.
int parseEdit(const std::vector<std::string>& args, bool revoking, Edit& e) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--sign" && i + 1 < args.size()) {
      e.key = args[++i];
    } else if (a == "--expires" && i + 1 < args.size()) {
      if ((e.expiresDays = parseDays(args[++i])) <= 0)
        return refuse("--expires '" + args[i] + "' is not a number of days");
    } else if (!revoking && a == "--stages" && i + 1 < args.size()) {
      e.stages = args[++i];
    } else if (!revoking && (a == "--pause" || a == "--resume")) {
      (a == "--pause" ? e.pause : e.resume) = true;
    } else if (e.tree.empty() && a.rfind("--", 0) != 0) {
      e.tree = a;
    } else if (revoking && a.rfind("--", 0) != 0) {
      if (!isPublishableVersion(a)) return refuse("version '" + a + "' is not four numbers such as 7.3.0.0");
      e.versions.push_back(a);
    } else {
      return usage("unexpected argument " + a);
    }
  }
  if (e.tree.empty() || e.key.empty()) return usage("the tree and --sign with its key are needed");
  if (revoking && e.versions.empty()) return usage("revoke needs the versions to revoke");
  if (e.pause && e.resume) return usage("--pause and --resume contradict each other");
  if (!revoking && e.stages.empty() && !e.pause && !e.resume)
    return usage("rollout needs --stages, --pause or --resume");
  return 0;
}

// The tree's own release after change, signed with the next serial, and
// what agents will now do. Everything is refused before anything is written.
int resign(const Edit& e, const std::function<int(release::Release&, int64_t now)>& change) {
  const Signer signer = prepareSigning(e.tree, e.key);
  const release::Verified own = ownRelease(e.tree, signer.pem);
  const std::string file = (fs::path(e.tree) / "release.json").string();
  if (!own.ok) throw std::runtime_error(file + ": not a release signed with " + e.key + ": " + own.reason);
  release::Release r = own.release;
  // Kept unless asked: the expiry is the publisher's promise of how long
  // these packages may be served without a new look, not the rollout's.
  if (e.expiresDays > 0) {
    r.expires = signer.now + int64_t{e.expiresDays} * 86400;
  } else if (r.expires < signer.now) {
    throw std::runtime_error(file + ": it expired on " + release::utcText(r.expires) +
                             ", agents would refuse it: give --expires DAYS");
  }
  if (const int status = change(r, signer.now); status != 0) return status;
  writeRelease(e.tree, signer, r);
  for (const release::Entry& p : r.packages) {
    std::cout << utils::logText(p.path + " " + p.version) << ": " << describeEntry(p, signer.now) << "\n";
  }
  for (const std::string& v : r.revoked) {
    std::cout << "revoked " << utils::logText(v)
              << ": machines on it go to the entry for their platform now, whatever its rollout\n";
  }
  return 0;
}

}  // namespace

int parseDays(const std::string& text) {
  return !text.empty() && text.size() < 6 && text.find_first_not_of(kDigits) == std::string::npos ? std::stoi(text) : 0;
}

std::string parseStages(const std::string& text, int64_t now, std::vector<release::Stage>& out) {
  out.clear();
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    const size_t colon = item.rfind(':');
    const std::string stage = "stage '" + utils::logText(item) + "' ";
    release::Stage s;
    if (colon == std::string::npos || !parseAt(item.substr(0, colon), now, s.at)) {
      return stage + "has no time: 0, Nd, Nh or Nm from now, or a UTC time such as 2026-12-01T00:00:00Z";
    }
    if ((s.basisPoints = parsePercent(item.substr(colon + 1))) < 0) {
      return stage + "has no percent from 0 to 100 with at most two decimals";
    }
    if (!out.empty() && s.at <= out.back().at) return stage + "is not after the stage before it";
    out.push_back(s);
  }
  return out.empty() ? "'" + utils::logText(text) + "' has no stage" : std::string();
}

std::string percentText(int basisPoints) {
  std::string text = std::to_string(basisPoints / 100);
  if (basisPoints % 100 != 0) {
    char fraction[8] = {};
    std::snprintf(fraction, sizeof fraction, ".%02d", basisPoints % 100);
    text += fraction;
    if (text.back() == '0') text.pop_back();
  }
  return text + "%";
}

std::string describeEntry(const release::Entry& entry, int64_t now) {
  std::string text = "offered to all";
  if (entry.rollout && entry.rollout->paused) {
    text = "paused: offered to none";
  } else if (entry.rollout) {
    const int share = release::shareInForce(*entry.rollout, now);
    text = share == 0 ? "offered to none now" : "offered to " + percentText(share) + " now";
    for (const release::Stage& s : entry.rollout->stages) {
      if (s.at > now) text += ", " + percentText(s.basisPoints) + " from " + release::utcText(s.at);
    }
  }
  if (entry.healthSeconds > 0) text += "; health watched " + std::to_string(entry.healthSeconds) + " s after install";
  return text;
}

int rollout(const std::vector<std::string>& args) {
  Edit e;
  if (const int status = parseEdit(args, false, e); status != 0) return status;
  return resign(e, [&e](release::Release& r, int64_t now) {
    std::vector<release::Stage> stages;
    if (!e.stages.empty()) {
      if (const std::string problem = parseStages(e.stages, now, stages); !problem.empty()) {
        return refuse("--stages: " + problem);
      }
    }
    for (release::Entry& p : r.packages) {
      // New stages keep a pause: resuming is a decision of its own.
      if (!stages.empty()) p.rollout = release::Rollout{stages, p.rollout && p.rollout->paused};
      // Paused without stages, and it would stay at none once resumed.
      if (e.pause && !p.rollout) p.rollout = release::Rollout{{{now, 10000}}, false};
      if (p.rollout && (e.pause || e.resume)) p.rollout->paused = e.pause;
    }
    return 0;
  });
}

int revoke(const std::vector<std::string>& args) {
  Edit e;
  if (const int status = parseEdit(args, true, e); status != 0) return status;
  return resign(e, [&e](release::Release& r, int64_t) {
    for (const std::string& v : e.versions) {
      // Machines on it would be sent to it again at every run.
      for (const release::Entry& p : r.packages) {
        if (p.version == v) {
          return refuse("version " + v + " is what " + utils::logText(p.path) +
                        " offers: lay out the release that replaces it first");
        }
      }
      if (std::find(r.revoked.begin(), r.revoked.end(), v) == r.revoked.end()) r.revoked.push_back(v);
    }
    return 0;
  });
}

}  // namespace publish
