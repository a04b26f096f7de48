// The configuration store. It stays in the macOS folder because its log lines
// name this path and people searching existing logs know it by that name; the
// code itself is plain POSIX and every build compiles it.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "KXLog.h"
#include "osal_conf.h"
#include "osal_file.h"

// The trailing carriage return is really part of the directory name; the
// agent and its tools look for exactly this directory.
const char* const OSAL_CONF_TMP_DIR = "/tmp/.tidelocker\r";

namespace {
constexpr size_t kPathSize = 1025;

bool isValueEnd(char c) { return c == '\t' || c == '\n' || c == '\r'; }
}  // namespace

int osal_getconfstr(const char* path, char* buffer, unsigned int bufferSize) {
  buffer[0] = '\0';
  bool exists = false;
  if (osal_exists(path, &exists) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_getconfstr -> osal_exists failed");
    return -1;
  }
  if (!exists) return 0;
  int fd = -1;
  if (osal_open(path, KX_OPENMODE_RDONLY, true, &fd) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_getconfstr -> osal_open failed");
    return -1;
  }
  unsigned int got = 0;
  if (osal_read(fd, buffer, bufferSize, &got) != 0) {
    buffer[0] = '\0';
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_getconfstr -> osal_read failed");
    osal_close(fd);
    return -1;
  }
  if (osal_close(fd) != 0) {
    // The value is in the buffer already; a close error does not undo that.
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_getconfstr -> osal_close failed");
  }
  for (unsigned int i = 0; i < got && buffer[i] != '\0'; ++i) {
    if (isValueEnd(buffer[i])) {
      buffer[i] = '\0';
      return 0;
    }
  }
  // A zero byte stops the scan but does not rescue a full buffer: a value
  // that filled it is refused whatever it holds.
  if (got < bufferSize) {
    buffer[got] = '\0';
    return 0;
  }
  // Nothing in the buffer ends the value, so a caller that ignores the
  // result must not find a text without its terminator.
  buffer[0] = '\0';
  KXLOG(KXLM_OSAL, KXLL_ERR, "osal_getconfstr -> buffer too short");
  return -1;
}

int osal_setconfstr(const char* path, const char* value, bool ownerOnly, bool everyoneReadWrite) {
  int fd = -1;
  if (osal_open(path, KX_OPENMODE_RWCANCREATE, true, &fd) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstr -> osal_open failed");
    return -1;
  }
  if (osal_truncate(fd, 0) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstr -> osal_truncate failed");
    osal_close(fd);
    return -1;
  }
  if (osal_writeFix(fd, value, static_cast<unsigned int>(strlen(value))) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstr -> osal_writeFix failed");
    osal_close(fd);
    return -1;
  }
  if (osal_close(fd) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstr -> osal_close failed");
    return -1;
  }
  if ((ownerOnly && chmod(path, 0600) != 0) || (everyoneReadWrite && chmod(path, 0666) != 0)) {
    const int err = errno;
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstr -> chmod failed (" << err << ")");
    return -1;
  }
  return 0;
}

int osal_setconfstrtmp(const char* name, const char* value) {
  return osal_setconfstrtmpIn(OSAL_CONF_TMP_DIR, name, value);
}

int osal_setconfstrtmpIn(const char* dir, const char* name, const char* value) {
  bool created = false;
  if (osal_mkdir(dir, &created, false) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstrtmp -> osal_mkdir failed");
    return -1;
  }
  // The directory sits in /tmp, where anyone may have made it first: only one
  // of our own that nobody else can write to is used.
  if (created) chmod(dir, 0755);
  struct stat st {};
  if (lstat(dir, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 022) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstrtmp -> unsafe directory");
    return -1;
  }
  char path[kPathSize];
  const int lg = snprintf(path, sizeof path, "%s/%s", dir, name);
  if (lg < 0 || static_cast<size_t>(lg) >= sizeof path) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstrtmp -> snprintf failed (lg=" << lg << ")");
    return -1;
  }
  int fd = -1;
  if (osal_openOwned(path, 0, &fd) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstrtmp -> osal_open failed");
    return -1;
  }
  osal_noCache(fd);
  if (osal_truncate(fd, 0) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstrtmp -> osal_truncate failed");
    osal_close(fd);
    return -1;
  }
  // The path's length, not the value's: see the header.
  if (osal_writeFix(fd, value, static_cast<unsigned int>(lg)) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstrtmp -> osal_writeFix failed");
    osal_close(fd);
    return -1;
  }
  if (osal_close(fd) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "osal_setconfstrtmp -> osal_close failed");
    return -1;
  }
  return 0;
}
