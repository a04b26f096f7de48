#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "osal_file.h"

int osal_noCache(int fd) { return fcntl(fd, F_NOCACHE, 1) == -1 ? -1 : 0; }

void osal_closeOnExecFrom(int lowest) {
  const int max = getdtablesize();
  for (int fd = lowest; fd < max; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

int osal_renameNoReplace(const char* from, const char* to) { return renamex_np(from, to, RENAME_EXCL); }
