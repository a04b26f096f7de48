// Staged rollout on a machine that pins keys: which share of the machines the
// signed entry is offered to now, the machine's stable place among them (its
// bucket), and the versions that must not stay installed.
#include <algorithm>
#include <cstdio>
#include <string>

#include "KXLog.h"
#include "Steps.h"
#include "TrustedFile.h"

namespace steps {

namespace {

const char* const kInstallIdName = "install-id";
constexpr size_t kIdDigits = 32;
constexpr int kAll = 10000;  // hundredths of a percent

bool isInstallId(const std::string& text) {
  return text.size() == kIdDigits + 1 && text.back() == '\n' && text.find_first_not_of("0123456789abcdef") == kIdDigits;
}

// 25.5, 30, 0.01: a share as people write it.
std::string percentText(int basisPoints) {
  char text[16] = {};
  std::snprintf(text, sizeof text, "%d.%02d", basisPoints / 100, basisPoints % 100);
  std::string out(text);
  out.erase(out.find_last_not_of('0') + 1);
  if (out.back() == '.') out.pop_back();
  return out;
}

// A fresh id: 128 random bits from the operating system.
Expected<std::string> newInstallId(const std::string& path) {
  // The kernel's generator, as both platforms offer it.
  const std::optional<std::string> raw = trusted::readBounded("/dev/urandom", kIdDigits / 2 - 1);
  if (!raw || raw->size() != kIdDigits / 2) return releaseRefusal(path, "no random bits to make it from");
  std::string id;
  for (const char c : *raw) {
    const auto b = static_cast<unsigned char>(c);
    static const char kHex[] = "0123456789abcdef";
    id += kHex[b >> 4];
    id += kHex[b & 0xf];
  }
  if (const std::string problem = utils::replaceFile(path, id + "\n"); !problem.empty()) {
    return releaseRefusal(path, problem);
  }
  return id;
}

}  // namespace

Expected<std::string> loadInstallId(const std::string& configDir) {
  const std::string path = configDir + "/" + kInstallIdName;
  if (const std::optional<trusted::Identity> id = trusted::atPath(path)) {
    // Whoever could write it would choose when this machine updates.
    if (const std::string problem = guardProblem(configDir, *id); !problem.empty()) {
      return releaseRefusal(path, problem);
    }
    const std::optional<std::string> text = trusted::readBounded(path, kIdDigits + 1);
    if (text && isInstallId(*text)) return text->substr(0, kIdDigits);
    KXLOG(KXLM_ROOT, KXLL_WRN, "Replaced " << path << ": it held no install id");
  }
  return newInstallId(path);
}

bool isRevoked(const SignedEntry& signedEntry, const Version& installed) {
  return std::find(signedEntry.revoked.begin(), signedEntry.revoked.end(), installed.toString()) !=
         signedEntry.revoked.end();
}

Expected<Offer> decideRollout(const std::string& configDir, const SignedEntry& signedEntry, int64_t now) {
  const release::Entry& e = signedEntry.entry;
  if (!e.rollout) return Offer{true, std::string()};
  const int share = release::shareInForce(*e.rollout, now);
  if (share >= kAll) return Offer{true, std::string()};
  const Expected<std::string> id = loadInstallId(configDir);
  if (!id.ok()) return id.failure();
  const int bucket = release::bucketOf(*id, e.version);
  if (bucket < share) return Offer{true, std::string()};
  std::string why = "Release of " + utils::logText(e.version) + " is ";
  if (e.rollout->paused) {
    why += "paused: not offered to this machine (bucket " + std::to_string(bucket) + ")";
  } else {
    why += "offered to " + percentText(share) + "% of machines, not yet to this one (bucket " + std::to_string(bucket) +
           ")";
    if (const std::optional<int64_t> next = release::nextStageAt(*e.rollout, now)) {
      const auto stage = std::find_if(e.rollout->stages.begin(), e.rollout->stages.end(),
                                      [&](const release::Stage& s) { return s.at == *next; });
      why += ", next stage " + percentText(stage->basisPoints) + "% at " + release::utcText(*next);
    }
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, why);
  return Offer{false, why};
}

}  // namespace steps
