#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Signed releases: what a server may publish beside its packages so that no
// server or network can make an agent install what the publisher did not
// sign. A release is a JSON manifest ("release.json": serial, expiry, and
// for every package its path, version, size and SHA-256) with a detached
// signature in minisign's format ("release.json.minisig"), checked against
// public keys pinned on the machine. Everything here is pure: text in,
// verdict out; fetching and remembering the serial are the caller's.
namespace release {

// Read whole only below these sizes.
constexpr size_t kMaxManifest = size_t{1} << 20;
constexpr size_t kMaxSignature = 4096;

// A minisign public key: its 8-byte id (as stored) and the Ed25519 key.
struct PublicKey {
  std::array<unsigned char, 8> id{};
  std::array<unsigned char, 32> key{};
};

// 16 upper-case hex digits: the id read as a little-endian number, as
// people see it.
std::string keyIdText(const std::array<unsigned char, 8>& id);

// Every key of a key file (pairs of an "untrusted comment:" line and a
// base64 line of "Ed", id and key); blank lines are skipped. "" on success,
// else why the file is unusable (a bad line, no key at all); keys then holds
// what came before the fault.
std::string parsePublicKeys(const std::string& text, std::vector<PublicKey>& keys);

// A staged rollout: from each stage's time on, the share of machines offered
// the entry, in hundredths of a percent (10000 is everyone).
struct Stage {
  int64_t at = 0;  // seconds since the epoch
  int basisPoints = 0;
};
struct Rollout {
  std::vector<Stage> stages;  // in increasing time
  bool paused = false;        // offered to none, whatever the stages say
};

// The share offered at now, in hundredths of a percent: the last stage not
// after now; 0 before the first stage and while paused.
int shareInForce(const Rollout& rollout, int64_t now);
// The time of the first stage after now, paused or not; none after the last.
std::optional<int64_t> nextStageAt(const Rollout& rollout, int64_t now);
// A machine's place in an entry's rollout, 0 to 9999: the first 8 bytes of
// the SHA-256 of "<installId>:<version>" as a big-endian number, modulo
// 10000. The machine is offered the entry while its bucket is below the
// share in force, and a version of its own draws it again.
int bucketOf(const std::string& installId, const std::string& version);

struct Entry {
  std::string path;  // under the server's address, no leading "/"
  std::string version;
  uint64_t size = 0;
  std::string sha256;  // 64 lower-case hex digits
  // The platform the package is for ("linux", "amd64", "deb"); all three ""
  // in a release signed before entries named it.
  std::string os;
  std::string arch;
  std::string kind;
  // Offered to a share of the machines only; none: offered to all.
  std::optional<Rollout> rollout;
  // Seconds the agent must stay healthy after this entry was installed; 0:
  // not watched.
  int healthSeconds = 0;
};

struct Release {
  int64_t serial = 0;
  int64_t expires = 0;  // seconds since the epoch
  std::vector<Entry> packages;
  // Versions that must not stay installed, "a.b.c.d" each.
  std::vector<std::string> revoked;
  std::string keyId;           // of the key that signed it
  std::string trustedComment;  // as signed
};

struct Verified {
  bool ok = false;
  std::string reason;  // which check failed, when not ok
  Release release;
};

// The check the update run and kx-publish share, in this order: both sizes,
// the signature file's form, its key among keys, the signature ("Ed" over
// the manifest, "ED" over its BLAKE2b-512), the global signature over the
// signature and the trusted comment, the manifest's content, its expiry at
// now, and its serial against lastSerial (equal is fine). Never throws;
// server text in a reason is escaped and cut as in the log.
Verified verifyRelease(const std::string& manifest, const std::string& signature, const std::vector<PublicKey>& keys,
                       int64_t now, int64_t lastSerial);

// The entry for exactly this path, or null.
const Entry* findEntry(const Release& release, const std::string& path);

// "2026-01-01T00:00:00Z" for seconds since the epoch, and back; false for
// anything but that form in UTC (a fraction of a second is allowed).
std::string utcText(int64_t seconds);
bool parseUtc(const std::string& text, int64_t& seconds);

// The publisher's side. Each throws std::runtime_error with a reason.
// A new Ed25519 private key as PKCS#8 PEM.
std::string generatePrivateKeyPem();
// The public key file of a private key (PEM, as generatePrivateKeyPem or
// `openssl genpkey -algorithm ed25519` writes it). Its id is the first 8
// bytes of the SHA-256 of the 32-byte public key, so it is never stored.
std::string publicKeyFile(const std::string& privatePem, const std::string& comment);
// A signature file for data: "ED" (over its BLAKE2b-512, as current
// minisign signs) unless legacy asks for "Ed" (over the data itself).
std::string signFile(const std::string& data, const std::string& privatePem, const std::string& trustedComment,
                     bool legacy = false);
// release.json for a release (serial, expires, packages).
std::string writeManifest(const Release& release);

// The primitives, exposed for their known-answer tests.
bool ed25519Verify(const unsigned char pub[32], const std::string& message, const unsigned char sig[64]);
std::array<unsigned char, 64> ed25519Sign(const unsigned char seed[32], const std::string& message);
std::string blake2b512Hex(const std::string& data);
std::string sha256Hex(const std::string& data);

}  // namespace release
