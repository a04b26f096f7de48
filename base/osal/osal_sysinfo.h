#pragma once

#include <cstddef>
#include <string>

// Describes the machine and the process. None of these functions throws or
// keeps state between calls; failures give empty texts or -1.

// Set by the agent when it runs on a NAS; selects getsysinfo's kind. The
// updater never sets it.
extern bool _KX_AGENT_NAS;

// Size of the text buffers getsysinfo fills, terminating zero included.
constexpr size_t OSAL_SYSINFO_TEXT_SIZE = 1025;

// The fields of uname(2), in its order.
struct OSAL_uname {
  std::string sysname;
  std::string nodename;
  std::string release;
  std::string version;
  std::string machine;
};

// osName receives the system's release name: on macOS the marketing name
// ("macOS 15.3 (Sequoia)"), on Linux the distribution's PRETTY_NAME from
// os-release. machine receives uname's machine field ("arm64", "x86_64"),
// empty when uname fails. Both buffers hold OSAL_SYSINFO_TEXT_SIZE bytes.
// kind (may be null) receives 0x300, or 0x340 with _KX_AGENT_NAS.
void getsysinfo(char* osName, char* machine, unsigned int* kind);

// Whether the process runs translated on another processor. This build never
// is; the answer is fixed.
bool isEmulation();

// The platform's serial number (IOKit on macOS, DMI on Linux, where only
// root may read it), or an empty string.
std::string osal_getSerialNumber();

// Private and resident memory of this process and the machine's physical
// memory, in MiB. 0, or -1 when a figure cannot be read; outputs not yet
// reached are left untouched.
int osal_getRAMInfos(unsigned int& privateMiB, unsigned int& residentMiB, unsigned long long& physicalMiB);

// 0 and the five strings, or -1 when uname fails.
int osal_GetUname(OSAL_uname& out);

// Copies the environment variable into buffer. 0 when it is set and fits;
// -1 otherwise, with buffer empty.
int osal_getEnv(const char* name, char* buffer, unsigned int size);

// --- pieces of the release name, portable so every host tests them ---------

// Parses a product version as sysctl returns it: len counts the bytes
// returned, terminating zero included. Only a length of 5 to 9 is trusted
// (false otherwise, so the caller falls back); then "%d.%d.%d" fills what it
// can and missing parts are 0.
bool osal_parseProductVersion(const char* text, size_t len, int* major, int* minor, int* patch);

// The macOS marketing name of a version. 10.16 to 10.20 are the
// compatibility numbers of releases 11 to 15 and are shown as those; from 11
// on only the minor number is shown, never the patch.
void osal_formatMacOSRelease(int major, int minor, int patch, char* out, size_t size);

// The platform's release name into out (at most size bytes). One definition
// per platform.
void osal_getReleaseName(char* out, size_t size);
