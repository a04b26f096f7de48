#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Version.h"

// Small stateless helpers of the updater: command runners, platform probes,
// code/text conversions and the resolved parameters of one update.
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

// Runs cmd through "sh -c" (sh looked up in PATH) and returns its exit code,
// the number of the signal that ended it, or -1 when no process was made.
// Only on exit code 0 are the output lines appended to output. The pipe is
// read after the child has ended, so the command's output must fit in the
// pipe buffer. Launch failures throw the process library's exception.
int exec(std::string& cmd, std::vector<std::string>& output);

// Runs cmd without a shell (split at blanks outside double quotes) and logs
// its standard output at NFY and its standard error at ERR. Never throws;
// returns the exit code as exec does, -1 on failure.
int execlog(std::string& cmd);

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
// The system temporary directory (honours TMPDIR); empty, after reporting
// "getTempDir Error: " and why, when it cannot be determined or is not safe
// (directoryProblem).
std::string getTempDir();
// Hex text, two digits per byte, to the text it encodes; stops at the first
// NUL byte. Input beyond 8192 digits is ignored; 4096 decoded bytes or more
// throw the converter's KXException.
std::string decodeURL(const std::string& hex);
// Size from the "content-length" or "Content-Length" header (no other
// spelling); -1 when neither is present. A non-numeric value throws.
int getContentLength(const std::map<std::string, std::string>& headers, unsigned long long& size);
// MD5 of the file as 32 lower-case hex digits.
std::string computeMD5(const std::string& path);
// text with A-Z turned into a-z; the sums are compared in lower case.
std::string lowerCase(const std::string& text);
// The version inside a setup file cannot be read: always -1.-1.-1.-1.
Version getSetupVersion(const std::string& path);

// Server text made fit for a person or a JSON document, the one rule for both:
// at most kLogTextMax bytes of it (then "..."), never cut inside a character,
// with control characters (C0, DEL and C1) and bytes that are not UTF-8
// escaped (\n, \r, \t, \xHH), so that one line can neither outgrow the log,
// be split into forged lines nor drive a terminal, and the result is valid
// UTF-8.
constexpr size_t kLogTextMax = 1024;
std::string logText(const std::string& text);
// logText of a URL, with a user name and password in it replaced by "***".
std::string logUrl(const std::string& url);

// Why a file name from the server cannot be a file of ours in the temporary
// directory, or "" when it can: empty, "." or "..", a "/" (it would land
// elsewhere), NUL or a control character. Blanks, tildes and quotes are
// ordinary: the command lines quote what needs it (ShellCommand).
std::string fileNameProblem(const std::string& name);

// name as one segment of a URL path: every byte but letters, digits and
// - . _ ~ ! $ & ' ( ) * + , ; = : @ percent-encoded, so that a blank, a "#"
// or a "%" in a file name reaches the server as part of the name.
std::string urlSegment(const std::string& name);

// The text a URL path stands for: every %XX decoded.
std::string urlDecoded(const std::string& path);

// Replaces the file at path with text in one step: a file of our own (0600)
// is made beside it (never through a link), written, synced, and renamed over
// path, and the directory synced, so that a reader, also after a crash, sees
// the old content or the new, and a link at path is replaced, not followed.
// "" on success, else why not.
std::string replaceFile(const std::string& path, const std::string& text);

// Why dir is no place for the files of a run as root, or "" when it is fine:
// "<component> is <reason>". Every directory from the root down must be owned
// by root or us and not writable by others without the sticky bit (anyone
// who can rename one of them can swap our files), and a link on the way is
// followed only when root or we own it. The characters of the path are never
// a reason.
std::string directoryProblem(const std::string& dir);

// Bytes that a process of ours may still write below dir; 0 when that cannot
// be told.
unsigned long long freeSpace(const std::string& dir);

// A refusal of something from outside (a setting, a directory): one ERR line,
// also written to standard error, where it shows even when there is no log
// file to read.
void reportRefusal(const std::string& text);

// Runs cmd through /bin/sh and returns the raw wait status, as system() does,
// but the command starts clean: /dev/null as standard input (nothing can
// wait for an answer from a terminal), default signal handling, and none of
// this process's descriptors beyond standard output and error. -1 when no
// process was made.
int runShell(const std::string& cmd);

// runShell without a shell: args[0] is looked up in PATH and the words are
// passed as they are, so no character in them means anything.
int runProgram(const std::vector<std::string>& args);

// Attaches the disk image and finds the device and the package path
// ("<volume>/<packageName>.pkg") in hdiutil's output. Returns 0, hdiutil's
// non-zero exit code, or -1 (no device or volume found, or an exception).
// The image stays attached when -1 follows a successful attach, except when
// the device or the volume's path cannot go into a command line at all (a
// control character: they come from inside the served image): the image is
// then detached again, without a shell, and -1 returned.
int mountAndGetPkgPath(const std::string& packageName, const std::string& imagePath, std::string& device,
                       std::string& pkgPath);
// The device ("/dev/" field) and package path ("/Volumes/" field) in
// hdiutil attach's output: fields are split at tabs only and trimmed, and the
// last match of each wins. 0 when both were found, else -1.
int parseAttachOutput(const std::vector<std::string>& lines, const std::string& packageName, std::string& device,
                      std::string& pkgPath);
// Detaches; returns system()'s raw status.
int unmount(const std::string& device);

}  // namespace utils
