#pragma once

#include "KXFileDefs.h"

// The file functions of the OS layer over plain descriptors. Every function
// returns 0 on success and -1 on failure. Failures are logged with errno at
// DBG only: the caller reports the failed step in its own words, and a
// failure should show once in the log, not twice.

// *exists tells whether path names anything; a missing path or a missing
// parent is an answer (0), any other stat error a failure.
int osal_exists(const char* path, bool* exists);

// Opens path in mode (KX_OPENMODE_RWCANCREATE creates with 0777 before the
// umask). With noCache the file system is asked not to keep the file's
// pages cached; that request is best effort and never fails the open.
int osal_open(const char* path, KXOpenMode mode, bool noCache, int* fd);

// Opens path for writing as a file of this process's own, for a path in a
// directory that others may write to: never follows a link, never blocks on
// a FIFO, and hands out only a regular file with one link owned by the
// effective user. What else an attacker could plant at path (a link, a hard
// link to some other file, a FIFO, a socket, another user's file) is removed
// and the file created anew, exclusively, with mode (0644 unless given; the
// umask still applies, and an existing file keeps its own); a device or a
// directory is left alone and the call fails. flags adds
// O_APPEND or O_TRUNC (the truncation happens only once the file passed the
// checks). The descriptor is write-only and close-on-exec. replaced (may be
// null) receives what was removed ("a link", ...), or null, so that the
// caller can say so: a removal is never silent.
int osal_openOwned(const char* path, int flags, int* fd, const char** replaced = nullptr, unsigned mode = 0644);

// Reads up to size bytes, retrying short reads until size or end of file;
// *got receives the count.
int osal_read(int fd, void* buffer, unsigned int size, unsigned int* got);

// Writes all size bytes; anything less is a failure.
int osal_writeFix(int fd, const void* buffer, unsigned int size);

int osal_truncate(int fd, unsigned long long length);

// Closes fd whatever the outcome; -1 only reports an error the close saw.
int osal_close(int fd);

// Creates the directory (and, when recursive, its missing parents). An
// existing directory is success. created (may be null) tells whether this
// call made the last component.
int osal_mkdir(const char* path, bool* created, bool recursive);

// Asks the file system to bypass its cache for fd. One definition per
// platform; returns 0 or -1 and does not log.
int osal_noCache(int fd);

// Marks every descriptor from lowest up close-on-exec, so that a command
// started next inherits none of this process's files and sockets (some come
// from libraries that do not mark their own). Async-signal-safe: meant for a
// child between fork and exec. One definition per platform.
void osal_closeOnExecFrom(int lowest);

// Renames from to to only when nothing is at to yet (then -1 with errno
// EEXIST), in one step: whoever sees to sees it complete. -1 with EINVAL or
// ENOSYS where the file system cannot do it. One definition per platform;
// does not log.
int osal_renameNoReplace(const char* from, const char* to);
