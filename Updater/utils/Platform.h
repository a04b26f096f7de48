#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "Version.h"

// The platform an update is for: codes of operating systems, architectures
// and package kinds with their texts, the probes that find them, and the
// resolved parameters of one update.
namespace utils {

enum AgentArch : int32_t { Unknown = 0, X64 = 1, Arm64 = 2, X86 = 3, Arm = 4 };

// Package kinds, named after the setup file's extension.
enum AgentDistrib : int32_t { None = 0, Deb = 1, Rpm = 2, Exe = 3, Pkg = 4, Dmg = 5, Spk = 6 };

enum AgentOS : int32_t { Windows = 1, Macosx = 2, Linux = 3 };

// Everything one update needs to know about where the package lies, where it
// goes, and how the agent is stopped, installed and started.
struct SetuParameter {
  std::string setupUrl;
  std::string hashUrl;
  std::string versionUrl;
  std::string setupName;
  std::string setupPath;
  std::string startCmd;
  std::string stopCmd;
  // For a disk image only the prefix: the package path inside the attached
  // image is appended once it is known.
  std::string installCmd;
  // Synology only; carried but not run by this program.
  std::string postInstallCmd;
  // Known from the macOS server probe, else 0 (then asked with HEAD).
  uint64_t setupSize = 0;
  // Version file content when the probe already fetched it.
  std::string versionText;
  // Installer package inside a disk image, without ".pkg".
  std::string packageName;
  std::string mountedDevice;
};

// One entry of the server's setup definition file.
struct AgentSetupDef {
  std::string name;
  std::string path;
  std::string setup;
  std::string version;
  std::string hash;
  int32_t os = 0;
  int32_t arch = 0;
  bool enable = false;
};

// Reads all eight keys; a missing key or a wrong type throws the JSON
// library's exception.
void from_json(const nlohmann::json& j, AgentSetupDef& d);

bool checkAdmin();

// The operating system this build follows (see KX_TARGET_OS).
int getOS();

// The processor name of the machine ("arm64", "x86_64", ...).
std::string getArch();

AgentArch stringToAgentArch(const std::string& s);

// Path word of an architecture code: "amd64", "arm64", "x86", "arm" or "none".
const char* agentArchToString(int arch);

// Package kind from the text after the file name's last ".".
AgentDistrib stringToAgentDistrib(const std::string& fileName);

const char* agentDistribToString(AgentDistrib d);

// Log name of an operating-system code; "Unkown" for anything else.
const char* agentOSToString(int os);

// The word a publisher and a signed release use for an operating-system code:
// "windows", "macos", "linux", or "" for anything else.
const char* agentOSWord(int os);

bool isDebian();

bool isSyno();

// The version inside a setup file cannot be read: always -1.-1.-1.-1.
Version getSetupVersion(const std::string& path);

}  // namespace utils
