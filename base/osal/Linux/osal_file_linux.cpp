#include <errno.h>
#include <fcntl.h>

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
