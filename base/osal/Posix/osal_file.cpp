#include "osal_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "KXLog.h"

int osal_exists(const char* path, bool* exists) {
  struct stat st {};
  if (stat(path, &st) == 0) {
    *exists = true;
    return 0;
  }
  const int err = errno;
  if (err == ENOENT || err == ENOTDIR) {
    *exists = false;
    return 0;
  }
  KXLOG(KXLM_OSAL, KXLL_DBG, "osal_exists -> stat failed (" << err << ") " << path);
  return -1;
}

int osal_open(const char* path, KXOpenMode mode, bool noCache, int* fd) {
  int flags = O_CLOEXEC;
  switch (mode) {
    case KX_OPENMODE_RDONLY:
      flags |= O_RDONLY;
      break;
    case KX_OPENMODE_RWEXISTING:
      flags |= O_RDWR;
      break;
    case KX_OPENMODE_RWCANCREATE:
      flags |= O_RDWR | O_CREAT;
      break;
    case KX_OPENMODE_RWNOTEXISTING:
      flags |= O_RDWR | O_CREAT | O_EXCL;
      break;
    default:
      KXLOG(KXLM_OSAL, KXLL_DBG, "osal_open -> bad mode " << mode << " " << path);
      return -1;
  }
  int rc;
  do {
    rc = open(path, flags, 0777);
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) {
    const int err = errno;
    KXLOG(KXLM_OSAL, KXLL_DBG, "osal_open -> open failed (" << err << ") " << path);
    return -1;
  }
  if (noCache && osal_noCache(rc) != 0) {
    const int err = errno;
    KXLOG(KXLM_OSAL, KXLL_DBG, "osal_open -> cache bypass failed (" << err << ") " << path);
  }
  *fd = rc;
  return 0;
}

namespace {
bool isOwnedRegularFile(int fd) {
  struct stat st {};
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1 && st.st_uid == geteuid();
}

int openNoFollow(const char* path, int flags, mode_t mode = 0644) {
  int rc;
  do {
    rc = open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
  } while (rc < 0 && errno == EINTR);
  return rc;
}

// O_NONBLOCK only served the open (a FIFO must not hang it); writes to a
// regular file never block anyway, and a later check may rely on full writes.
int blocking(int fd) {
  const int fl = fcntl(fd, F_GETFL);
  return fl < 0 ? -1 : fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
}

// What osal_openOwned removes from a path, or null for what it leaves alone.
const char* plantedKind(const struct stat& st) {
  if (S_ISLNK(st.st_mode)) return "a link";
  if (S_ISFIFO(st.st_mode)) return "a FIFO";
  if (S_ISSOCK(st.st_mode)) return "a socket";
  if (!S_ISREG(st.st_mode)) return nullptr;
  return st.st_uid != geteuid() ? "a file of another user" : "a file with other names";
}
}  // namespace

int osal_openOwned(const char* path, int flags, int* fd, const char** replaced, unsigned mode) {
  if (replaced != nullptr) *replaced = nullptr;
  const int extra = (flags & O_APPEND) | O_WRONLY;
  int rc = openNoFollow(path, O_CREAT | extra, static_cast<mode_t>(mode));
  if (rc >= 0 && !isOwnedRegularFile(rc)) {
    close(rc);
    rc = -1;
  }
  if (rc < 0) {
    // What an attacker can plant (a link, a FIFO, a socket, a hard link or a
    // file of their own) is not ours to write through and goes. A device or a
    // directory is left alone, and the exclusive create below then fails.
    struct stat st {};
    const char* kind = lstat(path, &st) == 0 ? plantedKind(st) : nullptr;
    if (kind != nullptr && unlink(path) != 0) {
      const int err = errno;
      KXLOG(KXLM_OSAL, KXLL_DBG, "osal_openOwned -> unlink failed (" << err << ") " << path);
    } else if (kind != nullptr && replaced != nullptr) {
      *replaced = kind;
    }
    rc = openNoFollow(path, O_CREAT | O_EXCL | extra, static_cast<mode_t>(mode));
  }
  if (rc < 0 || blocking(rc) != 0 || ((flags & O_TRUNC) != 0 && ftruncate(rc, 0) != 0)) {
    const int err = errno;
    KXLOG(KXLM_OSAL, KXLL_DBG, "osal_openOwned -> open failed (" << err << ") " << path);
    if (rc >= 0) close(rc);
    return -1;
  }
  *fd = rc;
  return 0;
}

int osal_read(int fd, void* buffer, unsigned int size, unsigned int* got) {
  char* p = static_cast<char*>(buffer);
  unsigned int done = 0;
  while (done < size) {
    const ssize_t n = read(fd, p + done, size - done);
    if (n < 0) {
      const int err = errno;
      if (err == EINTR) continue;
      KXLOG(KXLM_OSAL, KXLL_DBG, "osal_read -> read failed (" << err << ")");
      *got = done;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<unsigned int>(n);
  }
  *got = done;
  return 0;
}

int osal_writeFix(int fd, const void* buffer, unsigned int size) {
  const char* p = static_cast<const char*>(buffer);
  unsigned int done = 0;
  while (done < size) {
    const ssize_t n = write(fd, p + done, size - done);
    const int err = n < 0 ? errno : 0;
    if (err == EINTR) continue;
    if (n <= 0) {
      KXLOG(KXLM_OSAL, KXLL_DBG, "osal_writeFix -> write failed (" << err << ") " << done << "/" << size);
      return -1;
    }
    done += static_cast<unsigned int>(n);
  }
  return 0;
}

int osal_truncate(int fd, unsigned long long length) {
  if (ftruncate(fd, static_cast<off_t>(length)) != 0) {
    const int err = errno;
    KXLOG(KXLM_OSAL, KXLL_DBG, "osal_truncate -> ftruncate failed (" << err << ")");
    return -1;
  }
  return 0;
}

int osal_close(int fd) {
  // No retry on EINTR: the descriptor is gone either way on the platforms
  // we build for, and a retry could close one another thread just opened.
  if (close(fd) != 0) {
    const int err = errno;
    KXLOG(KXLM_OSAL, KXLL_DBG, "osal_close -> close failed (" << err << ")");
    return -1;
  }
  return 0;
}

namespace {
// mkdir that treats an existing directory as done; created (may be null)
// learns whether it was made.
int makeOne(const char* path, bool* created) {
  if (mkdir(path, 0777) == 0) {
    if (created != nullptr) *created = true;
    return 0;
  }
  const int err = errno;
  struct stat st {};
  if (err == EEXIST && stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return 0;
  errno = err;
  return -1;
}
}  // namespace

int osal_mkdir(const char* path, bool* created, bool recursive) {
  bool made = false;
  int rc = 0;
  if (recursive) {
    const std::string full(path);
    for (size_t pos = full.find('/', 1); rc == 0 && pos != std::string::npos; pos = full.find('/', pos + 1)) {
      rc = makeOne(full.substr(0, pos).c_str(), nullptr);
    }
  }
  if (rc == 0) rc = makeOne(path, &made);
  if (rc != 0) {
    const int err = errno;
    KXLOG(KXLM_OSAL, KXLL_DBG, "osal_mkdir -> mkdir failed (" << err << ") " << path);
    return -1;
  }
  if (created != nullptr) *created = made;
  return 0;
}
