#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>

#include "osal_sysinfo.h"

bool _KX_AGENT_NAS = false;

namespace {
constexpr unsigned int kKindDefault = 0x300;
constexpr unsigned int kKindNas = 0x340;

// Names of 10.0 to 10.15, indexed by the minor number.
const char* const kTenNames[] = {" (Cheetah)",       " (Puma)",        " (Jaguar)",       " (Panther)",
                                 " (Tiger)",         " (Leopard)",     " (Snow Leopard)", " (Lion)",
                                 " (Mountain Lion)", " (Mavericks)",   " (Yosemite)",     " (El Capitan)",
                                 " (Sierra)",        " (High Sierra)", " (Mojave)",       " (Catalina)"};
// 10.16 to 10.20: releases 11 to 15 under their compatibility numbers.
const char* const kCompatNames[] = {" (Big Sur)", " (Monterey)", " (Ventura)", " (Sonoma)", " (Sequoia)"};

void formatTen(int minor, int patch, char* out, size_t size) {
  if (minor < 0) {  // no such release; the generic form at least shows the numbers
    snprintf(out, size, "macOS %d.%d.%d", 10, minor, patch);
  } else if (minor <= 7) {
    snprintf(out, size, "Mac OS X 10.%d.%d%s", minor, patch, kTenNames[minor]);
  } else if (minor <= 11) {
    snprintf(out, size, "OS X 10.%d.%d%s", minor, patch, kTenNames[minor]);
  } else if (minor <= 15) {
    snprintf(out, size, "macOS 10.%d.%d%s", minor, patch, kTenNames[minor]);
  } else if (minor <= 20) {
    snprintf(out, size, "macOS %d.%d%s", minor - 5, patch, kCompatNames[minor - 16]);
  } else {
    snprintf(out, size, "macOS %d.%d%s", minor - 5, patch, "");
  }
}
}  // namespace

bool osal_parseProductVersion(const char* text, size_t len, int* major, int* minor, int* patch) {
  if (len < 5 || len > 9) return false;
  char copy[10] = {};
  memcpy(copy, text, len);
  *major = *minor = *patch = 0;
  sscanf(copy, "%d.%d.%d", major, minor, patch);
  return true;
}

void osal_formatMacOSRelease(int major, int minor, int patch, char* out, size_t size) {
  switch (major) {
    case 10:
      formatTen(minor, patch, out, size);
      break;
    case 11:
      snprintf(out, size, "macOS 11.%d (Big Sur)", minor);
      break;
    case 12:
      snprintf(out, size, "macOS 12.%d (Monterey)", minor);
      break;
    case 13:
      snprintf(out, size, "macOS 13.%d (Ventura)", minor);
      break;
    case 14:
      snprintf(out, size, "macOS 14.%d (Sonoma)", minor);
      break;
    case 15:
      snprintf(out, size, "macOS 15.%d (Sequoia)", minor);
      break;
    case 26:
      snprintf(out, size, "macOS 26.%d (Tahoe)", minor);
      break;
    default:
      snprintf(out, size, "macOS %d.%d.%d", major, minor, patch);
      break;
  }
}

void getsysinfo(char* osName, char* machine, unsigned int* kind) {
  osName[0] = '\0';
  machine[0] = '\0';
  if (kind != nullptr) *kind = _KX_AGENT_NAS ? kKindNas : kKindDefault;
  osal_getReleaseName(osName, OSAL_SYSINFO_TEXT_SIZE);
  struct utsname u {};
  if (uname(&u) == 0) snprintf(machine, OSAL_SYSINFO_TEXT_SIZE, "%s", u.machine);
}

bool isEmulation() { return false; }

int osal_GetUname(OSAL_uname& out) {
  struct utsname u {};
  if (uname(&u) != 0) return -1;
  out.sysname = u.sysname;
  out.nodename = u.nodename;
  out.release = u.release;
  out.version = u.version;
  out.machine = u.machine;
  return 0;
}

int osal_getEnv(const char* name, char* buffer, unsigned int size) {
  if (size == 0) return -1;
  buffer[0] = '\0';
  const char* value = getenv(name);
  if (value == nullptr) return -1;
  const size_t len = strlen(value);
  if (len >= size) return -1;
  memcpy(buffer, value, len + 1);
  return 0;
}
