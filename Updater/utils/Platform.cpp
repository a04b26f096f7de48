// The machine's operating system, processor and package kind, and the codes
// and texts of each.
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "osal_sysinfo.h"
#include "utils.h"

namespace utils {

namespace {

constexpr size_t kSysInfoBufferSize = 1025;

// The texts of the codes, by code; 0 has none.
const char* const kArchNames[] = {nullptr, "amd64", "arm64", "x86", "arm"};
const char* const kDistribNames[] = {nullptr, "deb", "rpm", "exe", "pkg", "dmg", "spk"};
const char* const kOsNames[] = {nullptr, "Windows", "Macosx", "Linux"};
const char* const kOsWords[] = {nullptr, "windows", "macos", "linux"};

template <size_t N>
const char* named(const char* const (&names)[N], int code, const char* other) {
  return code > 0 && static_cast<size_t>(code) < N ? names[code] : other;
}

// The JSON library converts a float to int with a plain cast, which is
// undefined beyond int's range ("os": 1e70 in a served file). Such a value is
// refused like a wrong type; in-range floats still truncate as before.
int32_t toInt32(const nlohmann::json& j, const char* key) {
  const nlohmann::json& v = j.at(key);
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (!(d > -2147483649.0 && d < 2147483648.0)) {
      throw std::out_of_range(std::string("number out of range for key '") + key + "'");
    }
  }
  return v.get<int32_t>();
}

}  // namespace

void from_json(const nlohmann::json& j, AgentSetupDef& d) {
  d.name = j.at("name").get<std::string>();
  d.path = j.at("path").get<std::string>();
  d.setup = j.at("setup").get<std::string>();
  d.version = j.at("version").get<std::string>();
  d.hash = j.at("hash").get<std::string>();
  d.os = toInt32(j, "os");
  d.arch = toInt32(j, "arch");
  d.enable = j.at("enable").get<bool>();
}

bool checkAdmin() { return getuid() == 0; }

std::string getArch() {
  char osName[kSysInfoBufferSize] = {};
  char machine[kSysInfoBufferSize] = {};
  unsigned int kind = 0;
  getsysinfo(osName, machine, &kind);
  return machine;
}

AgentArch stringToAgentArch(const std::string& s) {
  if (s == "amd64" || s == "x64" || s == "x86_64") return X64;
  if (s == "arm64" || s == "aarch64") return Arm64;
  if (s == "x86") return X86;
  if (s == "arm" || s == "aarch32") return Arm;
  if (s.find("armv7") != std::string::npos) return Arm;
  return Unknown;
}

const char* agentArchToString(int arch) { return named(kArchNames, arch, "none"); }

AgentDistrib stringToAgentDistrib(const std::string& fileName) {
  const size_t dot = fileName.rfind('.');
  const std::string ext = dot == std::string::npos ? fileName : fileName.substr(dot + 1);
  for (size_t d = 1; d < std::size(kDistribNames); ++d) {
    if (ext == kDistribNames[d]) return static_cast<AgentDistrib>(d);
  }
  return None;
}

const char* agentDistribToString(AgentDistrib d) { return named(kDistribNames, d, "None"); }

const char* agentOSToString(int os) { return named(kOsNames, os, "Unkown"); }

const char* agentOSWord(int os) { return named(kOsWords, os, ""); }

bool isDebian() {
  struct stat st {};
  return stat("/usr/bin/dpkg", &st) == 0;
}

bool isSyno() { return false; }

Version getSetupVersion(const std::string& /*path*/) { return Version(); }

}  // namespace utils
