// Choice of the definition file's entry. The first three bytes pick the
// running system (os, architecture, package kind), so that one corpus reaches
// every platform's matching rule; the rest is the file. Digits map to
// themselves ('2' is 2), which keeps the seeds readable.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "KXLog.h"
#include "Updater.h"

namespace {

// Keeps the fuzzer quiet and fast, and tells whether the parser gave up.
class ErrorCount : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char* level, const char*, int, const char*,
           const char* message) override {
    if (std::strcmp(level, "ERR") != 0) return;
    ++errors;
    if (std::strncmp(message, "Parsing error : ", 16) != 0) wrongText = true;
  }
  int errors = 0;
  bool wrongText = false;
};

using fuzz::require;

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

int pick(uint8_t byte, int choices) { return static_cast<uint8_t>(byte - '0') % choices; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ErrorCount* sink = [] {
    auto* s = new ErrorCount;
    KXLog::getLogger()->setLevels("ROOT:9;");
    KXLog::getLogger()->setLogCb(s);
    return s;
  }();
  if (size < 3) return 0;

  // One past the known codes each, so that unknown values are reached too.
  Updater up;
  up.os = pick(data[0], 5);
  up.arch = pick(data[1], 6);
  up.distrib = pick(data[2], 8);
  const std::string body(reinterpret_cast<const char*>(data) + 3, size - 3);

  sink->errors = 0;
  sink->wrongText = false;
  const utils::AgentSetupDef def = up.parseAgentSetupCfg(body);

  require(sink->errors <= 1 && !sink->wrongText, "at most one \"Parsing error : \" line and nothing else at ERR");
  if (!def.enable) {
    require(def.name.empty() && def.path.empty() && def.setup.empty() && def.version.empty() && def.hash.empty() &&
                def.os == 0 && def.arch == 0,
            "no fit gives the empty entry");
    return 0;
  }
  require(sink->errors == 0, "a fit is returned only when nothing before it failed");
  require(def.arch == up.arch, "a fit has the running architecture");
  switch (up.os) {
    case utils::Windows:
      require(def.os == utils::Windows && up.distrib == utils::Exe && def.setup.find(".exe") != std::string::npos,
              "a Windows fit is a Windows .exe entry");
      break;
    case utils::Macosx:
      require(def.os == utils::Macosx, "a macOS fit is a macOS entry");
      break;
    case utils::Linux: {
      // The install commands are chosen from the package kind of the file
      // name; a fit must never lead them to "Unsupported distribution".
      const int kind = up.distrib;
      require(kind == utils::Deb || kind == utils::Rpm || kind == utils::Spk, "Linux fits only deb, rpm and spk");
      require(
          endsWith(def.setup, std::string(".") + utils::agentDistribToString(static_cast<utils::AgentDistrib>(kind))),
          "a Linux fit ends in the running package kind");
      require(utils::stringToAgentDistrib(def.setup) == kind, "a Linux fit names the running package kind");
      break;
    }
    default:
      require(false, "an unknown os fits nothing");
  }
  return 0;
}
