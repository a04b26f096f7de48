#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Manifest.h"

// kx-publish: lays out a release as an update server serves it, and checks a
// live server by replaying, for every platform, the resolution, version, size
// and sum steps of the updater's own code (linked from kxupdater_core).
namespace publish {

// A platform as the publisher names it: "<os>/<arch>", os macos, linux or
// windows, arch amd64 or arm64; with the codes the updater uses for them.
struct Platform {
  std::string name;
  int os = 0;
  int arch = 0;
};
// false for a name outside those six.
bool parsePlatform(const std::string& name, Platform& out);

// A version a publisher may write: four decimal numbers that the client
// reads back as exactly themselves.
bool isPublishableVersion(const std::string& text);

// The commands; args exclude the command word. Each returns the exit
// status: 0, 1 (a check failed), 2 (usage, or input clients would misread);
// a file that cannot be read or written, or is refused (a key others can
// read, a serial that cannot grow, a release the key did not sign), throws
// std::runtime_error: exit 1.
int layout(const std::vector<std::string>& args);
int check(const std::vector<std::string>& args);
// rollout TREE --sign KEY [--stages S] [--pause|--resume] [--expires DAYS]
// and revoke TREE --sign KEY [--expires DAYS] VERSION...: the tree's signed
// release signed again with the next serial, its packages as they are, its
// expiry kept unless --expires renews it.
int rollout(const std::vector<std::string>& args);
int revoke(const std::vector<std::string>& args);
// keygen OUT: a new private key at OUT (PEM, 0600) and its public key file
// at OUT.pub; neither may exist yet.
int keygen(const std::vector<std::string>& args);

// A package as a signed release lists it.
struct SignedFile {
  std::string path;  // under the server's address, no leading "/"
  std::string version;
  std::string source;          // the file, for its size and SHA-256
  std::string os, arch, kind;  // the platform it is for: "linux", "amd64", "deb"
};
// What signing a release into outDir takes, found out before anything is
// written: the private key (never readable by others), the signing time and
// the serial. Throws std::runtime_error with a one-line reason naming the
// file at fault.
struct Signer {
  std::string pem;
  int64_t now = 0;
  int64_t serial = 0;
};
Signer prepareSigning(const std::string& outDir, const std::string& keyPath);
// What agents are told to do with every package of a layout.
struct Policy {
  std::optional<release::Rollout> rollout;
  int healthSeconds = 0;
};
// Writes release.json (expiring days after the signing time) and its
// signature.
void signRelease(const std::string& outDir, const Signer& signer, int days, const std::vector<SignedFile>& files,
                 const Policy& policy);
// Writes r, with the signer's serial, as dir's release.json and its
// signature, each complete before it replaces the one there.
void writeRelease(const std::string& dir, const Signer& signer, release::Release r);
// The release in dir as the key's own, verified whatever its expiry; not
// ok (with the reason) when it is missing or the key did not sign it.
release::Verified ownRelease(const std::string& dir, const std::string& pem);

// A number of days as --expires takes it, 1 to 99999; 0 for anything else.
int parseDays(const std::string& text);
// Stages as a publisher writes them, "0:5,2d:25,4d:100": each an offset
// from now (0, Nd, Nh, Nm) or a UTC time such as 2026-12-01T00:00:00Z, a
// colon, and a percent with at most two decimals; times strictly
// increasing. "" or why the text is refused.
std::string parseStages(const std::string& text, int64_t now, std::vector<release::Stage>& out);
// What agents do with an entry from now on, for a person: "offered to 5%
// now, 25% from 2026-12-01T00:00:00Z", "paused: offered to none".
std::string describeEntry(const release::Entry& entry, int64_t now);
// A share in hundredths of a percent as a person reads it: "25%", "0.5%".
std::string percentText(int basisPoints);

// The whole file; throws std::runtime_error naming it when it cannot be read.
std::string readText(const std::string& path);

// The usage text; --help or -h anywhere prints it on standard output.
extern const char* const kUsage;

// Print the message (and, for usage, the usage) on standard error; both
// return 2.
int usage(const std::string& message);
int refuse(const std::string& message);

}  // namespace publish
