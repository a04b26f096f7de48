// The machine's operating system, processor and package kind, and the codes
// and texts of each.
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "osal_sysinfo.h"
#include "utils.h"

namespace utils {

namespace {

constexpr size_t kSysInfoBufferSize = 1025;

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

const char* agentArchToString(int arch) {
  switch (arch) {
    case X64:
      return "amd64";
    case Arm64:
      return "arm64";
    case X86:
      return "x86";
    case Arm:
      return "arm";
    default:
      return "none";
  }
}

AgentDistrib stringToAgentDistrib(const std::string& fileName) {
  const size_t dot = fileName.rfind('.');
  const std::string ext = dot == std::string::npos ? fileName : fileName.substr(dot + 1);
  if (ext == "exe") return Exe;
  if (ext == "deb") return Deb;
  if (ext == "rpm") return Rpm;
  if (ext == "dmg") return Dmg;
  if (ext == "pkg") return Pkg;
  if (ext == "spk") return Spk;
  return None;
}

const char* agentDistribToString(AgentDistrib d) {
  switch (d) {
    case Deb:
      return "deb";
    case Rpm:
      return "rpm";
    case Exe:
      return "exe";
    case Pkg:
      return "pkg";
    case Dmg:
      return "dmg";
    case Spk:
      return "spk";
    default:
      return "None";
  }
}

const char* agentOSToString(int os) {
  switch (os) {
    case Windows:
      return "Windows";
    case Macosx:
      return "Macosx";
    case Linux:
      return "Linux";
    default:
      return "Unkown";
  }
}

const char* agentOSWord(int os) {
  switch (os) {
    case Windows:
      return "windows";
    case Macosx:
      return "macos";
    case Linux:
      return "linux";
    default:
      return "";
  }
}

bool isDebian() {
  struct stat st {};
  return stat("/usr/bin/dpkg", &st) == 0;
}

bool isSyno() { return false; }

Version getSetupVersion(const std::string& /*path*/) { return Version(); }

}  // namespace utils
