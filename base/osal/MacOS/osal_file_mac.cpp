#include <fcntl.h>

#include "osal_file.h"

int osal_noCache(int fd) { return fcntl(fd, F_NOCACHE, 1) == -1 ? -1 : 0; }
