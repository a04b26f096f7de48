#include "osal_sysinfo_linux.h"

#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "osal_sysinfo.h"

namespace {
// os-release values follow shell quoting: '...' verbatim, "..." with
// backslash escapes, or bare.
std::string unquote(const std::string& raw) {
  if (raw.size() >= 2 && raw.front() == '\'' && raw.back() == '\'') return raw.substr(1, raw.size() - 2);
  if (raw.size() < 2 || raw.front() != '"' || raw.back() != '"') return raw;
  std::string out;
  for (size_t i = 1; i + 1 < raw.size(); ++i) {
    if (raw[i] == '\\' && i + 2 < raw.size()) ++i;
    out.push_back(raw[i]);
  }
  return out;
}

// The value after "Key:" in a /proc file of "Key: value kB" lines, in bytes.
bool procKiB(const char* path, const char* key, unsigned long long* bytes) {
  std::ifstream in(path);
  const std::string prefix = std::string(key) + ":";
  unsigned long long total = 0;
  bool found = false;
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    unsigned long long kib = 0;
    if (sscanf(line.c_str() + prefix.size(), "%llu", &kib) != 1) return false;
    total += kib * 1024;
    found = true;
  }
  *bytes = total;
  return found;
}
}  // namespace

bool osal_releaseNameFromOsRelease(const char* path, char* out, size_t size) {
  std::ifstream in(path);
  if (!in) return false;
  std::string pretty, name, version;
  for (std::string line; std::getline(in, line);) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = line.substr(0, eq);
    const std::string value = unquote(line.substr(eq + 1));
    if (key == "PRETTY_NAME") pretty = value;
    if (key == "NAME") name = value;
    if (key == "VERSION_ID") version = value;
  }
  std::string text = pretty;
  if (text.empty() && !name.empty()) text = version.empty() ? name : name + " " + version;
  if (text.empty()) return false;
  snprintf(out, size, "%s", text.c_str());
  return true;
}

void osal_getReleaseName(char* out, size_t size) {
  // /usr/lib/os-release is the vendor's copy that /etc/os-release usually
  // links to; some minimal images ship only that one.
  if (osal_releaseNameFromOsRelease("/etc/os-release", out, size)) return;
  if (osal_releaseNameFromOsRelease("/usr/lib/os-release", out, size)) return;
  snprintf(out, size, "%s", "Linux");
}

std::string osal_getSerialNumber() {
  // Readable by root only; anyone else gets the empty answer.
  std::ifstream in("/sys/class/dmi/id/product_serial");
  std::string serial;
  if (!std::getline(in, serial)) return std::string();
  while (!serial.empty() && (serial.back() == ' ' || serial.back() == '\r')) serial.pop_back();
  return serial.size() < 256 ? serial : serial.substr(0, 255);
}

int osal_getRAMInfos(unsigned int& privateMiB, unsigned int& residentMiB, unsigned long long& physicalMiB) {
  const long page = sysconf(_SC_PAGESIZE);
  unsigned long long sizePages = 0, residentPages = 0, sharedPages = 0;
  FILE* statm = fopen("/proc/self/statm", "r");
  if (statm == nullptr) return -1;
  const int fields = fscanf(statm, "%llu %llu %llu", &sizePages, &residentPages, &sharedPages);
  fclose(statm);
  if (fields != 3 || page <= 0) return -1;
  const unsigned long long pageBytes = static_cast<unsigned long long>(page);

  // smaps_rollup (4.14 and later) has the exact private figure; statm's
  // resident minus file-backed shared pages is the older approximation.
  unsigned long long clean = 0, dirty = 0;
  unsigned long long privateBytes = (residentPages - sharedPages) * pageBytes;
  if (procKiB("/proc/self/smaps_rollup", "Private_Clean", &clean) &&
      procKiB("/proc/self/smaps_rollup", "Private_Dirty", &dirty)) {
    privateBytes = clean + dirty;
  }
  residentMiB = static_cast<unsigned int>((residentPages * pageBytes) >> 20);
  privateMiB = static_cast<unsigned int>(privateBytes >> 20);

  const long physPages = sysconf(_SC_PHYS_PAGES);
  if (physPages <= 0) return -1;
  physicalMiB = (static_cast<unsigned long long>(physPages) * pageBytes) >> 20;
  return 0;
}
