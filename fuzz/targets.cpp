// Fuzz targets for the parsers of untrusted text. Each feeds one input to its
// parser and states the properties a fault would break; crashes, undefined
// behaviour and unexpected exceptions are left to the sanitizers and to
// std::terminate. The same source builds
//   fuzz_replay <target> <corpus dir or file>...   which replays seeds (ctest),
//   and, with -DKX_FUZZ_TARGET=<target> -fsanitize=fuzzer, that fuzzer.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "KXException.h"
#include "KXLog.h"
#include "KXSys.h"
#include "LockFile.h"
#include "Manifest.h"
#include "Setup.h"
#include "utils.h"

namespace {

// Buffers of exactly the size handed over, so that ASan sees a write past it.
using Bytes = std::vector<unsigned char>;

void require(bool ok, const char* property) {
  if (ok) return;
  std::fprintf(stderr, "broken invariant: %s\n", property);
  std::abort();
}

template <class F>
bool refused(F f) {
  try {
    f();
  } catch (const KXException& e) {
    return e.getCode() == 1;
  }
  return false;
}

// Hosts hand most of these parsers C strings.
std::string upToNul(const std::string& s) { return s.c_str(); }

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  std::istringstream in(s);
  for (std::string part; std::getline(in, part, sep);) parts.push_back(part);
  return parts;
}

std::string trim(const std::string& s) {
  auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  const auto begin = std::find_if_not(s.begin(), s.end(), blank);
  return std::string(begin, std::find_if_not(s.rbegin(), std::make_reverse_iterator(begin), blank).base());
}

// The first three bytes pick os, architecture and package kind ('0' is 0),
// one past the known codes each so that unknown values are reached too.
void agent_setup_def(const std::string& in) {
  if (in.size() < 3) return;
  setup::Platform up;
  up.os = static_cast<uint8_t>(in[0] - '0') % 5;
  up.arch = static_cast<uint8_t>(in[1] - '0') % 6;
  up.distrib = static_cast<uint8_t>(in[2] - '0') % 8;
  const Expected<utils::AgentSetupDef, std::string> picked = setup::pickEntry(up, in.substr(3));
  const utils::AgentSetupDef d = picked.ok() ? *picked : utils::AgentSetupDef();
  // On Linux only these package kinds have install commands.
  const bool linuxKind = up.distrib == utils::Deb || up.distrib == utils::Rpm || up.distrib == utils::Spk;
  const bool fits = up.os == utils::Windows
                        ? d.os == utils::Windows && up.distrib == utils::Exe && d.setup.find(".exe") != d.setup.npos
                    : up.os == utils::Macosx
                        ? d.os == utils::Macosx
                        : up.os == utils::Linux && linuxKind && utils::stringToAgentDistrib(d.setup) == up.distrib;
  require(d.enable ? fits && d.arch == up.arch : d.setup.empty() && d.name.empty(),
          "an entry returned fits the running system, else it is the empty one");
}

// The first line is the package name, every further one a line of the
// attach tool's output.
void attach_output(const std::string& in) {
  std::vector<std::string> lines = split(in, '\n');
  if (lines.empty()) return;
  const std::string name = lines.front();
  lines.erase(lines.begin());
  std::string device, pkgPath;
  utils::parseAttachOutput(lines, name, device, pkgPath);
  auto found = [&](const char* marker) { return in.find(marker, name.size()) != in.npos; };
  // Columns are padded with blanks, and a volume name may hold blanks.
  std::string cells = in.substr(name.size());
  std::replace(cells.begin(), cells.end(), '\t', '\n');
  std::set<std::string> fields;
  for (const std::string& cell : split(cells, '\n')) fields.insert(trim(cell));
  const std::string tail = "/" + name + ".pkg";
  const size_t volume = pkgPath.size() - std::min(pkgPath.size(), tail.size());
  require(device.empty() ? !found("/dev/") : fields.count(device) == 1, "a /dev/ field is found whole, trimmed");
  require(pkgPath.empty() ? !found("/Volumes/")
                          : pkgPath.compare(volume, tail.size(), tail) == 0 && fields.count(pkgPath.substr(0, volume)),
          "a /Volumes/ field is found whole, trimmed, and the package is /<name>.pkg in it");
}

// The first byte picks the hex case; the rest is binary for the hex coders
// and, up to its first NUL, a URL. The string and digest forms of the hex
// coders are pinned down by the unit tests.
void hex_url(const std::string& in) {
  if (in.empty()) return;
  const bool lower = (in[0] & 1) != 0;
  const Bytes bin(in.begin() + 1, in.end());
  const auto n = static_cast<unsigned>(bin.size());
  Bytes hex(2 * n), back(n), shortHex(n > 0 ? 2 * n - 1 : 0), shortBin(n > 0 ? n - 1 : 0);
  require(KXSys::convertBinToHex(bin.data(), n, hex.data(), 2 * n, lower) == 2 * n &&
              KXSys::convertHexToBin(hex.data(), 2 * n, back.data(), n) == n && back == bin,
          "bin -> hex -> bin is the identity");
  require(n == 0 || (refused([&] { KXSys::convertBinToHex(bin.data(), n, shortHex.data(), 2 * n - 1, lower); }) &&
                     refused([&] { KXSys::convertHexToBin(hex.data(), 2 * n, shortBin.data(), n - 1); })),
          "a buffer one short is refused with code 1");
  const std::string str = upToNul(in.substr(1));
  const auto len = static_cast<unsigned>(str.size());
  const Bytes url(str.c_str(), str.c_str() + len + 1);
  Bytes enc(3 * len + 1), dec(len + 1);
  const unsigned e = KXSys::encodeURLfromUTF8(url.data(), enc.data(), 3 * len + 1);
  require(std::all_of(enc.begin(), enc.begin() + e,
                      [](unsigned char c) { return std::isalnum(c) || (c != 0 && std::strchr("-./_~%", c)); }) &&
              KXSys::decodeURLtoUTF8(enc.data(), dec.data(), len + 1) == len && dec == url,
          "an encoded URL holds safe characters and escapes only, and decodes back");
}

// The input up to its first NUL in decimal and in hex; the first eight bytes
// also make a number to print and read back.
void number_parse(const std::string& in) {
  const std::string s = upToNul(in);
  uint64_t x = 0;
  std::memcpy(&x, in.data(), std::min(in.size(), sizeof x));
  using Parse = unsigned long long (*)(const char*, bool*);
  const std::pair<Parse, bool> parsers[] = {{KXSys::atoll, false}, {KXSys::atoll16, true}};
  for (const auto& [parse, hex] : parsers) {
    auto print = [hex = hex](unsigned long long v) {
      char buf[24];
      std::snprintf(buf, sizeof buf, hex ? "%llx" : "%llu", v);
      return std::string(buf);
    };
    bool ok = false;
    const unsigned long long v = parse(s.c_str(), &ok);
    // A sign, a blank, "0x" or an overflow that wrapped all show here.
    std::string digits = ok ? s : "0";
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
    for (char& c : digits) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    require(digits == print(v), "an accepted text is the number's digits, leading zeros aside; a refusal gives 0");
    require(parse(print(x).c_str(), &ok) == x && ok, "every 64-bit number reads back from its digits");
  }
}

// The content of a lock file; its first eight bytes also make a time written
// in front of it.
void lock_file(const std::string& in) {
  try {
    (void)lockfile::parseTime(in);
  } catch (const std::length_error&) {
    require(std::min(in.find('\n'), in.size()) > 4096, "only a first line over 4096 bytes is too long");
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  }
  long long t = 0;
  std::memcpy(&t, in.data(), std::min(in.size(), sizeof t));
  require(lockfile::parseTime("\t" + std::to_string(t) + " \n" + in) == t,
          "a written time reads back, blanks and later lines aside");
}

// A manifest, signed here by a key only this target knows; or, after a NUL,
// a signature file of the input's own for it.
void release_manifest(const std::string& in) {
  static const std::string pem = release::generatePrivateKeyPem();
  static std::vector<release::PublicKey> keys;
  if (keys.empty()) require(release::parsePublicKeys(release::publicKeyFile(pem, "k"), keys).empty(), "own key");
  const size_t nul = in.find('\0');
  const std::string manifest = in.substr(0, nul);
  if (nul != std::string::npos) {
    require(!release::verifyRelease(manifest, in.substr(nul + 1), keys, 0, 0).ok,
            "no signature but the key's own verifies");
    return;
  }
  const release::Verified v = release::verifyRelease(manifest, release::signFile(manifest, pem, "c"), keys, 0, 0);
  if (!v.ok) {
    require(v.reason.rfind("manifest ", 0) == 0 || v.reason.rfind("release expired", 0) == 0,
            "a signed manifest is refused only for what it says");
    return;
  }
  for (const release::Entry& e : v.release.packages) {
    require(!e.path.empty() && e.path[0] != '/' && e.sha256.size() == 64, "every entry is one file with its sum");
    require(release::findEntry(v.release, e.path) == &e, "every path is listed once");
  }
  // What the publisher writes from a release reads back as that release.
  const std::string again = release::writeManifest(v.release);
  const release::Verified w = release::verifyRelease(again, release::signFile(again, pem, "c"), keys, 0, 0);
  require(w.ok && w.release.serial == v.release.serial && w.release.expires == v.release.expires &&
              w.release.packages.size() == v.release.packages.size(),
          "a written manifest reads back");
}

using Target = void (*)(const std::string& input);

const std::pair<const char*, Target> kTargets[] = {
    {"agent_setup_def", agent_setup_def}, {"attach_output", attach_output}, {"hex_url", hex_url},
    {"number_parse", number_parse},       {"lock_file", lock_file},         {"release_manifest", release_manifest},
};

Target targetNamed(const std::string& name) {
  // The default sink prints every line: fuzzing must not be paced by output.
  KXLog::getLogger()->setLogCb(nullptr);
  for (const auto& [n, run] : kTargets) {
    if (name == n) return run;
  }
  return nullptr;
}

}  // namespace

#ifdef KX_FUZZ_TARGET
#define KX_FUZZ_QUOTE(t) #t
#define KX_FUZZ_NAME(t) KX_FUZZ_QUOTE(t)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Target run = targetNamed(KX_FUZZ_NAME(KX_FUZZ_TARGET));
  require(run != nullptr, "KX_FUZZ_TARGET names a target");
  run(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
#else
int main(int argc, char** argv) {
  const Target run = argc >= 3 ? targetNamed(argv[1]) : nullptr;
  if (run == nullptr) {
    std::fprintf(stderr, "usage: %s <target> <corpus dir or file>...\n", argv[0]);
    return 2;
  }
  std::vector<std::filesystem::path> files;
  for (int i = 2; i < argc; ++i) {
    std::error_code notDirectory;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i], notDirectory)) files.push_back(entry);
    if (notDirectory) files.emplace_back(argv[i]);
  }
  // Directory order differs between file systems; a failure must reproduce
  // the same way everywhere.
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::fprintf(stderr, "%s\n", file.c_str());
    std::ifstream f(file, std::ios::binary);
    require(f.is_open(), "the input can be read");
    run(std::string(std::istreambuf_iterator<char>(f), {}));
  }
  std::fprintf(stderr, "replayed %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;  // a wrong corpus path must not look like success
}
#endif
