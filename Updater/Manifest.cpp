// Signed releases. The one file of the updater that uses OpenSSL's
// signature, BLAKE2b and base64 functions.
#include "Manifest.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "utils.h"

namespace release {

namespace {

using Bytes = std::string;

constexpr size_t kIdSize = 8;
constexpr size_t kKeySize = 32;
constexpr size_t kSigSize = 64;
const char* const kUntrusted = "untrusted comment:";
const char* const kTrusted = "trusted comment: ";

struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CtxFree {
  void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Ctx = std::unique_ptr<EVP_MD_CTX, CtxFree>;
using Bio = std::unique_ptr<BIO, BioFree>;

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

std::string base64(const Bytes& data) {
  // OpenSSL's own bound (it allows for line breaks EncodeBlock never writes).
  std::string out(EVP_ENCODE_LENGTH(data.size()), '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

// Standard alphabet with padding, nothing else: EVP_DecodeBlock alone would
// also take blanks and return the padding as zero bytes.
bool unbase64(const std::string& text, Bytes& out) {
  if (text.empty() || text.size() % 4 != 0 || text.size() > kMaxSignature) return false;
  const size_t pad = text.size() - text.find_last_not_of('=') - 1;
  const bool alphabet = std::all_of(text.begin(), text.end() - static_cast<long>(pad), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
  });
  if (pad > 2 || !alphabet) return false;
  out.assign(text.size() / 4 * 3, '\0');
  if (EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size())) < 0) {
    return false;
  }
  out.resize(out.size() - pad);
  return true;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out.push_back(line);
  }
  return out;
}

std::string digest(const EVP_MD* md, const std::string& data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (EVP_Digest(data.data(), data.size(), out, &n, md, nullptr) != 1) throw std::runtime_error("digest failed");
  return std::string(reinterpret_cast<char*>(out), n);
}

std::string hex(const std::string& bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : bytes) {
    out += kHex[static_cast<unsigned char>(c) >> 4];
    out += kHex[static_cast<unsigned char>(c) & 0xf];
  }
  return out;
}

bool isLowerHex(const std::string& s, size_t n) {
  return s.size() == n && s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// A path under the server's address that names one file: relative, without
// empty, "." or ".." parts, without control characters.
bool isPackagePath(const std::string& path) {
  if (path.empty() || path.front() == '/' || path.back() == '/') return false;
  std::istringstream in(path);
  for (std::string part; std::getline(in, part, '/');) {
    if (part.empty() || part == "." || part == "..") return false;
  }
  return std::none_of(path.begin(), path.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

// An entry's platform, by the names the manifest gives its parts.
std::array<std::pair<const char*, std::string*>, 3> platformFields(Entry& e) {
  return {{{"os", &e.os}, {"arch", &e.arch}, {"kind", &e.kind}}};
}

Verified refuse(std::string reason) {
  Verified v;
  v.reason = std::move(reason);
  return v;
}

// A percent with at most two decimals, as hundredths of a percent; -1 for
// anything else. Rounded here rather than by std::round: that call was all
// the updater took from libm, which every run then loaded (a third of a MiB
// resident). The range check comes first, so that the conversion is defined;
// NaN fails it too. The fraction a truncation leaves is exact.
int basisPoints(const nlohmann::json& percent) {
  if (!percent.is_number()) return -1;
  const double hundredths = percent.get<double>() * 100;
  if (!(hundredths > -0.5 && hundredths < 10000.5)) return -1;
  int whole = static_cast<int>(hundredths);
  if (hundredths - whole >= 0.5) ++whole;
  return std::fabs(hundredths - whole) < 1e-6 ? whole : -1;
}

// An entry's "rollout" and "health"; "" or what is wrong with them.
std::string readPolicy(const nlohmann::json& p, Entry& e) {
  const std::string of = " of " + utils::logText(e.path);
  if (p.contains("health")) {
    const nlohmann::json& seconds = p.at("health").at("seconds");
    if (!seconds.is_number_integer() || seconds.get<int64_t>() < 1 || seconds.get<int64_t>() > 3600) {
      return "health" + of + " is not 1 to 3600 seconds";
    }
    e.healthSeconds = seconds.get<int>();
  }
  if (!p.contains("rollout")) return std::string();
  const nlohmann::json& r = p.at("rollout");
  Rollout rollout;
  rollout.paused = r.value("paused", false);
  for (const nlohmann::json& s : r.value("stages", nlohmann::json::array())) {
    Stage stage;
    if (!parseUtc(s.at("at").get<std::string>(), stage.at)) return "a stage" + of + " has no UTC time";
    if ((stage.basisPoints = basisPoints(s.at("percent"))) < 0) {
      return "a stage" + of + " has no percent from 0 to 100 with at most two decimals";
    }
    if (!rollout.stages.empty() && stage.at <= rollout.stages.back().at)
      return "the stages" + of + " do not go forward in time";
    rollout.stages.push_back(stage);
  }
  e.rollout = rollout;
  return std::string();
}

// The manifest's "revoked" versions; "" or what is wrong with them.
std::string readRevoked(const nlohmann::json& j, Release& out) {
  if (!j.contains("revoked")) return std::string();
  for (const nlohmann::json& v : j.at("revoked")) out.revoked.push_back(v.get<std::string>());
  return std::string();
}

// The manifest's content; "" or what is wrong with it.
std::string readManifest(const std::string& text, Release& out) {
  try {
    const nlohmann::json j = nlohmann::json::parse(text);
    const nlohmann::json& serial = j.at("serial");
    if (!serial.is_number_integer() || serial.get<int64_t>() < 0) return "serial is not a whole number";
    out.serial = serial.get<int64_t>();
    if (!parseUtc(j.at("expires").get<std::string>(), out.expires)) return "expires is not a UTC time";
    if (!j.at("packages").is_array()) return "packages is not a list";
    for (const nlohmann::json& p : j.at("packages")) {
      Entry e;
      e.path = p.at("path").get<std::string>();
      e.version = p.at("version").get<std::string>();
      e.sha256 = p.at("sha256").get<std::string>();
      if (!p.at("size").is_number_unsigned()) return "size of " + utils::logText(e.path) + " is not a whole number";
      e.size = p.at("size").get<uint64_t>();
      for (const auto& [key, field] : platformFields(e)) {
        if (p.contains(key)) *field = p.at(key).get<std::string>();
      }
      if (!isPackagePath(e.path)) return "package path " + utils::logText(e.path) + " is not one file under the server";
      if (!isLowerHex(e.sha256, 64)) return "sha256 of " + utils::logText(e.path) + " is not 64 lower-case hex digits";
      if (findEntry(out, e.path) != nullptr) return "package path " + utils::logText(e.path) + " is listed twice";
      if (std::string problem = readPolicy(p, e); !problem.empty()) return problem;
      out.packages.push_back(std::move(e));
    }
    return readRevoked(j, out);
  } catch (const std::exception& e) {
    return utils::logText(e.what());
  }
}

nlohmann::json rolloutJson(const Rollout& r) {
  nlohmann::json stages = nlohmann::json::array();
  for (const Stage& s : r.stages) {
    // Whole percents as integers, the rest with their two decimals.
    const nlohmann::json percent =
        s.basisPoints % 100 == 0 ? nlohmann::json(s.basisPoints / 100) : nlohmann::json(s.basisPoints / 100.0);
    stages.push_back({{"at", utcText(s.at)}, {"percent", percent}});
  }
  return {{"stages", stages}, {"paused", r.paused}};
}

Pkey privateKey(const std::string& pem) {
  Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  Pkey key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519) {
    throw std::runtime_error("not an Ed25519 private key in PEM form");
  }
  return key;
}

Bytes rawPublic(EVP_PKEY* key) {
  Bytes pub(kKeySize, '\0');
  size_t n = pub.size();
  if (EVP_PKEY_get_raw_public_key(key, reinterpret_cast<unsigned char*>(&pub[0]), &n) != 1 || n != kKeySize) {
    throw std::runtime_error("the key has no Ed25519 public key");
  }
  return pub;
}

Bytes sign(EVP_PKEY* key, const std::string& message) {
  const Ctx ctx(EVP_MD_CTX_new());
  Bytes sig(kSigSize, '\0');
  size_t n = sig.size();
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key) != 1 ||
      EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(&sig[0]), &n,
                     reinterpret_cast<const unsigned char*>(message.data()), message.size()) != 1) {
    throw std::runtime_error("signing failed");
  }
  return sig;
}

}  // namespace

int shareInForce(const Rollout& rollout, int64_t now) {
  int share = 0;
  for (const Stage& s : rollout.stages) {
    if (s.at <= now) share = s.basisPoints;
  }
  return rollout.paused ? 0 : share;
}

std::optional<int64_t> nextStageAt(const Rollout& rollout, int64_t now) {
  for (const Stage& s : rollout.stages) {
    if (s.at > now) return s.at;
  }
  return std::nullopt;
}

int bucketOf(const std::string& installId, const std::string& version) {
  return static_cast<int>(std::stoull(sha256Hex(installId + ":" + version).substr(0, 16), nullptr, 16) % 10000);
}

std::string keyIdText(const std::array<unsigned char, 8>& id) {
  char text[17] = {};
  for (size_t i = 0; i < id.size(); ++i) std::snprintf(text + 2 * i, 3, "%02X", id[id.size() - 1 - i]);
  return text;
}

std::string parsePublicKeys(const std::string& text, std::vector<PublicKey>& keys) {
  if (text.size() > kMaxSignature) return "key file larger than " + std::to_string(kMaxSignature) + " bytes";
  for (const std::string& line : lines(text)) {
    if (line.empty() || startsWith(line, kUntrusted)) continue;
    Bytes raw;
    if (!unbase64(line, raw) || raw.size() != 2 + kIdSize + kKeySize || raw.compare(0, 2, "Ed") != 0) {
      return "not a public key: " + utils::logText(line);
    }
    PublicKey key;
    std::copy_n(raw.begin() + 2, kIdSize, key.id.begin());
    std::copy_n(raw.begin() + 2 + kIdSize, kKeySize, key.key.begin());
    keys.push_back(key);
  }
  return keys.empty() ? "no public key in it" : std::string();
}

Verified verifyRelease(const std::string& manifest, const std::string& signature, const std::vector<PublicKey>& keys,
                       int64_t now, int64_t lastSerial) {
  if (manifest.size() > kMaxManifest) return refuse("manifest larger than " + std::to_string(kMaxManifest) + " bytes");
  if (signature.size() > kMaxSignature) {
    return refuse("signature file larger than " + std::to_string(kMaxSignature) + " bytes");
  }
  const std::vector<std::string> l = lines(signature);
  Bytes sig, global;
  if (l.size() < 4 || !startsWith(l[0], kUntrusted) || !startsWith(l[2], kTrusted) || !unbase64(l[1], sig) ||
      sig.size() != 2 + kIdSize + kSigSize || !unbase64(l[3], global) || global.size() != kSigSize) {
    return refuse("signature file is not in minisign's form");
  }
  const std::string algorithm = sig.substr(0, 2);
  if (algorithm != "Ed" && algorithm != "ED") return refuse("unknown signature algorithm " + utils::logText(algorithm));
  std::array<unsigned char, 8> id{};
  std::copy_n(sig.begin() + 2, kIdSize, id.begin());
  if (std::none_of(keys.begin(), keys.end(), [&](const PublicKey& k) { return k.id == id; })) {
    return refuse("signature by unknown key " + keyIdText(id));
  }
  const std::string signedBytes = sig.substr(2 + kIdSize);
  const auto* raw = reinterpret_cast<const unsigned char*>(signedBytes.data());
  std::string message;
  try {
    message = algorithm == "ED" ? digest(EVP_blake2b512(), manifest) : manifest;
  } catch (const std::runtime_error& e) {
    return refuse(e.what());
  }
  // An id is only 8 bytes, and anyone may make a key with the id of a
  // pinned one: every key with the id is tried, not just the first.
  const auto key = std::find_if(keys.begin(), keys.end(), [&](const PublicKey& k) {
    return k.id == id && ed25519Verify(k.key.data(), message, raw);
  });
  if (key == keys.end()) return refuse("signature does not verify");
  const std::string comment = l[2].substr(std::string(kTrusted).size());
  if (!ed25519Verify(key->key.data(), signedBytes + comment, reinterpret_cast<const unsigned char*>(global.data()))) {
    return refuse("trusted comment does not verify");
  }
  Verified v;
  if (const std::string problem = readManifest(manifest, v.release); !problem.empty()) {
    return refuse("manifest is not valid: " + problem);
  }
  if (now > v.release.expires) return refuse("release expired on " + utcText(v.release.expires));
  if (v.release.serial < lastSerial) {
    return refuse("serial " + std::to_string(v.release.serial) + " is older than the last accepted " +
                  std::to_string(lastSerial));
  }
  v.release.keyId = keyIdText(id);
  v.release.trustedComment = comment;
  v.ok = true;
  return v;
}

const Entry* findEntry(const Release& release, const std::string& path) {
  const auto it =
      std::find_if(release.packages.begin(), release.packages.end(), [&](const Entry& e) { return e.path == path; });
  return it == release.packages.end() ? nullptr : &*it;
}

std::string utcText(int64_t seconds) {
  const auto t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  char text[32] = {};
  if (gmtime_r(&t, &tm) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

bool parseUtc(const std::string& text, int64_t& seconds) {
  std::tm tm{};
  int used = 0;
  if (text.size() > 40 ||
      std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                  &tm.tm_min, &tm.tm_sec, &used) != 6 ||
      used != 19) {
    return false;
  }
  std::string tail = text.substr(19);
  if (tail.size() > 1 && tail[0] == '.') tail.erase(0, tail.find_first_not_of("0123456789", 1));
  if (tail != "Z" || tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 ||
      tm.tm_min > 59 || tm.tm_sec > 60) {
    return false;
  }
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  seconds = static_cast<int64_t>(timegm(&tm));
  return true;
}

std::string generatePrivateKeyPem() {
  Pkey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
  Bio bio(BIO_new(BIO_s_mem()));
  if (!key || !bio || PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    throw std::runtime_error("cannot make a key");
  }
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(n));
}

std::string publicKeyFile(const std::string& privatePem, const std::string& comment) {
  const Pkey key = privateKey(privatePem);
  const Bytes pub = rawPublic(key.get());
  return std::string(kUntrusted) + " " + comment + "\n" +
         base64("Ed" + digest(EVP_sha256(), pub).substr(0, kIdSize) + pub) + "\n";
}

std::string signFile(const std::string& data, const std::string& privatePem, const std::string& trustedComment,
                     bool legacy) {
  if (trustedComment.find_first_of("\r\n") != std::string::npos) {
    throw std::runtime_error("a trusted comment is one line");
  }
  const Pkey key = privateKey(privatePem);
  const Bytes id = digest(EVP_sha256(), rawPublic(key.get())).substr(0, kIdSize);
  const Bytes sig = sign(key.get(), legacy ? data : digest(EVP_blake2b512(), data));
  return std::string(kUntrusted) + " signature from kx-publish secret key\n" +
         base64((legacy ? "Ed" : "ED") + id + sig) + "\n" + kTrusted + trustedComment + "\n" +
         base64(sign(key.get(), sig + trustedComment)) + "\n";
}

std::string writeManifest(const Release& release) {
  nlohmann::json packages = nlohmann::json::array();
  for (const Entry& e : release.packages) {
    nlohmann::json entry = {{"path", e.path}, {"version", e.version}, {"size", e.size}, {"sha256", e.sha256}};
    Entry named = e;
    for (const auto& [key, field] : platformFields(named)) {
      if (!field->empty()) entry[key] = *field;
    }
    if (e.rollout) entry["rollout"] = rolloutJson(*e.rollout);
    if (e.healthSeconds > 0) entry["health"] = {{"seconds", e.healthSeconds}};
    packages.push_back(entry);
  }
  nlohmann::json j = {{"serial", release.serial}, {"expires", utcText(release.expires)}, {"packages", packages}};
  if (!release.revoked.empty()) j["revoked"] = release.revoked;
  return j.dump(2) + "\n";
}

bool ed25519Verify(const unsigned char pub[32], const std::string& message, const unsigned char sig[64]) {
  const Pkey key(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, pub, kKeySize));
  const Ctx ctx(EVP_MD_CTX_new());
  return key && ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
         EVP_DigestVerify(ctx.get(), sig, kSigSize, reinterpret_cast<const unsigned char*>(message.data()),
                          message.size()) == 1;
}

std::array<unsigned char, 64> ed25519Sign(const unsigned char seed[32], const std::string& message) {
  const Pkey key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, kKeySize));
  if (!key) throw std::runtime_error("not an Ed25519 seed");
  const Bytes sig = sign(key.get(), message);
  std::array<unsigned char, 64> out{};
  std::copy(sig.begin(), sig.end(), out.begin());
  return out;
}

std::string blake2b512Hex(const std::string& data) { return hex(digest(EVP_blake2b512(), data)); }

std::string sha256Hex(const std::string& data) { return hex(digest(EVP_sha256(), data)); }

}  // namespace release
