// kx-publish layout|check|rollout|revoke|keygen ...: see Publish.h and the README.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "Publish.h"
#include "Version.h"

namespace publish {

bool parsePlatform(const std::string& name, Platform& out) {
  static const struct {
    const char* word;
    int code;
  } kOs[] = {{"windows", 1}, {"macos", 2}, {"linux", 3}}, kArch[] = {{"amd64", 1}, {"arm64", 2}};
  const size_t slash = name.find('/');
  out = Platform{name, 0, 0};
  for (const auto& o : kOs) {
    if (name.compare(0, slash, o.word) == 0 && slash == std::string(o.word).size()) out.os = o.code;
  }
  for (const auto& a : kArch) {
    if (slash != std::string::npos && name.compare(slash + 1, std::string::npos, a.word) == 0) out.arch = a.code;
  }
  return out.os != 0 && out.arch != 0;
}

bool isPublishableVersion(const std::string& text) {
  const Version v = Version::parse(text);
  return v.major >= 0 && v.minor >= 0 && v.third >= 0 && v.fourth >= 0 && v.toString() == text;
}

int refuse(const std::string& message) {
  std::cerr << "kx-publish: " << message << "\n";
  return 2;
}

const char* const kUsage =
    "usage: kx-publish layout <out-dir> --version <a.b.c.d> [--definition] [--sign <key> [--expires <days>]\n"
    "                         [--rollout <stages>] [--paused] [--health <seconds>]] <os>/<arch>=<package>...\n"
    "       kx-publish rollout <tree> --sign <key> [--stages <stages>] [--pause|--resume] [--expires <days>]\n"
    "       kx-publish revoke <tree> --sign <key> [--expires <days>] <a.b.c.d>...\n"
    "       kx-publish check <server-url> [--from <a.b.c.d>] [--download] [--json]\n"
    "                        [--key <key.pub> [--install-id <id>]]\n"
    "       kx-publish keygen <key>\n"
    "       kx-publish --help\n"
    "  os: macos, linux, windows; arch: amd64, arm64; package: .dmg .pkg .deb .rpm .exe .spk\n"
    "  stages: <when>:<percent>,... when: 0, <n>d, <n>h, <n>m from now or 2026-12-01T00:00:00Z\n";

int usage(const std::string& message) {
  if (!message.empty()) std::cerr << "kx-publish: " << message << "\n";
  std::cerr << kUsage;
  return 2;
}

}  // namespace publish

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + (argc > 1 ? 2 : argc), argv + argc);
  const std::string command = argc > 1 ? argv[1] : "";
  // Asked for, the usage is the answer: on standard output, and success.
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::cout << publish::kUsage;
      return 0;
    }
  }
  try {
    if (command == "layout") return publish::layout(args);
    if (command == "check") return publish::check(args);
    if (command == "keygen") return publish::keygen(args);
    if (command == "rollout") return publish::rollout(args);
    if (command == "revoke") return publish::revoke(args);
    return publish::usage(command.empty() ? "" : "unknown command " + command);
  } catch (const std::exception& e) {
    std::cerr << "kx-publish: " << e.what() << "\n";
    return 1;
  }
}
