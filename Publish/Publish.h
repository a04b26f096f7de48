#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

// The two commands; args exclude the command word. Both return the exit
// status: 0, 1 (a check failed), 2 (usage, or input clients would misread);
// a file that cannot be read or written, or is refused (a key others can
// read, a serial that cannot grow), throws std::runtime_error: exit 1.
int layout(const std::vector<std::string>& args);
int check(const std::vector<std::string>& args);
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
// Writes release.json (expiring days after the signing time) and its
// signature.
void signRelease(const std::string& outDir, const Signer& signer, int days, const std::vector<SignedFile>& files);

// The whole file; throws std::runtime_error naming it when it cannot be read.
std::string readText(const std::string& path);

// The usage text; --help or -h anywhere prints it on standard output.
extern const char* const kUsage;

// Print the message (and, for usage, the usage) on standard error; both
// return 2.
int usage(const std::string& message);
int refuse(const std::string& message);

}  // namespace publish
