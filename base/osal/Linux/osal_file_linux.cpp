#include <errno.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <stdio.h>
#include <unistd.h>

#include "osal_file.h"

// Linux has no per-descriptor "do not cache" switch. Dropping the pages that
// are cached now is the nearest thing: a value is then read from the disk,
// not from what the cache held when it was last written.
int osal_noCache(int fd) {
  const int rc = posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  if (rc == 0) return 0;
  errno = rc;
  return -1;
}

void osal_closeOnExecFrom(int lowest) {
  if (close_range(static_cast<unsigned>(lowest), ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  // Kernels before 5.11: one call per possible descriptor.
  const long max = sysconf(_SC_OPEN_MAX);
  for (long fd = lowest; fd < max; ++fd) fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
}

int osal_renameNoReplace(const char* from, const char* to) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}
