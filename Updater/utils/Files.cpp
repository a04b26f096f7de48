// The places a run as root writes to: the temporary directory and the state
// files it replaces.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <vector>

#include "KXHash.h"
#include "KXLog.h"
#include "osal_file.h"
#include "utils.h"

namespace utils {

namespace {

// Links followed while one path is examined, as the kernel allows.
constexpr int kMaxLinks = 40;

bool isOursOrRoots(uid_t uid) { return uid == 0 || uid == geteuid(); }

// Walks path from the root one component at a time, following a link only
// when root or we own it, and leaves in *real the directory reached.
std::string walkDirectories(const std::string& path, std::string* real, int* links) {
  std::string at = "/";
  std::vector<std::string> parts;
  boost::algorithm::split(parts, path, boost::algorithm::is_any_of("/"));
  for (size_t i = 0; i <= parts.size(); ++i) {
    struct stat st {};
    if (lstat(at.c_str(), &st) != 0) return at + " cannot be examined (" + std::strerror(errno) + ")";
    if (S_ISLNK(st.st_mode)) {
      if (!isOursOrRoots(st.st_uid)) return at + " is a link owned by another user";
      if (++*links > kMaxLinks) return at + " is one link too many";
      std::string target(4096, '\0');
      const ssize_t n = readlink(at.c_str(), &target[0], target.size());
      if (n <= 0 || static_cast<size_t>(n) >= target.size()) return at + " cannot be read as a link";
      target.resize(static_cast<size_t>(n));
      if (target[0] != '/') target.insert(0, at, 0, at.rfind('/') + 1);
      std::string problem = walkDirectories(target, &at, links);
      if (!problem.empty()) return problem;
      if (lstat(at.c_str(), &st) != 0) return at + " cannot be examined (" + std::strerror(errno) + ")";
    }
    if (!S_ISDIR(st.st_mode)) return at + " is not a directory";
    if (!isOursOrRoots(st.st_uid)) return at + " is owned by another user";
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
      return at + " is writable by others without the sticky bit";
    }
    if (i == parts.size()) break;
    const std::string& part = parts[i];
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      at = at.size() > 1 ? at.substr(0, std::max<size_t>(at.rfind('/'), 1)) : at;
    } else {
      at += (at.size() > 1 ? "/" : "") + part;
    }
  }
  *real = at;
  return std::string();
}

}  // namespace

std::string getTempDir() {
  try {
    std::string dir = boost::filesystem::temp_directory_path().string();
    const std::string problem = directoryProblem(dir);
    if (problem.empty()) return dir;
    reportRefusal("getTempDir Error: " + logText(dir) + ": " + logText(problem));
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "getTempDir Error: " << e.what());
  }
  return std::string();
}

std::string directoryProblem(const std::string& dir) {
  std::string path = dir;
  if (path.empty() || path[0] != '/') {
    char cwd[4096] = {};
    if (getcwd(cwd, sizeof cwd) == nullptr) return "the working directory cannot be examined";
    path = std::string(cwd) + "/" + path;
  }
  std::string real;
  int links = 0;
  return walkDirectories(path, &real, &links);
}

bool copyFile(const std::string& from, const std::string& to) {
  const int in = open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  const std::string fresh = to + "." + std::to_string(getpid());
  int out = -1;
  if (in < 0 || osal_openOwned(fresh.c_str(), O_TRUNC, &out, nullptr, 0600) != 0) {
    if (in >= 0) close(in);
    return false;
  }
  std::vector<char> chunk(size_t{1} << 20);
  ssize_t n = 0;
  bool ok = true;
  while (ok && (n = read(in, chunk.data(), chunk.size())) > 0) {
    ok = osal_writeFix(out, chunk.data(), static_cast<unsigned int>(n)) == 0;
  }
  ok = ok && n == 0 && fsync(out) == 0;
  close(in);
  ok = osal_close(out) == 0 && ok && rename(fresh.c_str(), to.c_str()) == 0;
  if (!ok) unlink(fresh.c_str());
  return ok;
}

bool moveFile(const std::string& from, const std::string& to) {
  if (rename(from.c_str(), to.c_str()) == 0) return true;
  return errno == EXDEV && copyFile(from, to) && unlink(from.c_str()) == 0;
}

std::string replaceFile(const std::string& path, const std::string& text) {
  const std::string fresh = path + "." + std::to_string(getpid());
  int fd = -1;
  if (osal_openOwned(fresh.c_str(), O_TRUNC, &fd, nullptr, 0600) != 0) return "cannot create " + fresh;
  // On the disk before it takes the old one's name: after a crash the path
  // holds the old content or the new, never an empty file.
  const bool written = osal_writeFix(fd, text.data(), static_cast<unsigned int>(text.size())) == 0 && fsync(fd) == 0;
  const bool closed = osal_close(fd) == 0;
  if (!written || !closed || rename(fresh.c_str(), path.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    unlink(fresh.c_str());
    return "cannot write " + path + " (" + why + ")";
  }
  // And the rename itself, which lives in the directory.
  const std::string dir = path.substr(0, path.find_last_of('/') + 1);
  const int dirFd = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synced = dirFd >= 0 && fsync(dirFd) == 0;
  const int err = errno;
  if (dirFd >= 0) close(dirFd);
  if (!synced) return "cannot sync the directory of " + path + " (" + std::strerror(err) + ")";
  return std::string();
}

unsigned long long freeSpace(const std::string& dir) {
  struct statvfs fs {};
  if (statvfs(dir.c_str(), &fs) != 0) return 0;
  return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
}

void reportRefusal(const std::string& text) {
  KXLOG(KXLM_ROOT, KXLL_ERR, text);
  std::cerr << text << std::endl;
}

std::string computeSha256(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::string();
  KXHashSHA256 hash;
  std::vector<char> chunk(size_t{1} << 20);
  ssize_t n = 0;
  while ((n = read(fd, chunk.data(), chunk.size())) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) hash.update(chunk.data(), static_cast<size_t>(n));
  }
  close(fd);
  return n < 0 ? std::string() : hash.hex();
}

std::string computeMD5(const std::string& path) {
  unsigned char hex[33] = {};
  KXHashMD5::computeFileHexHash(reinterpret_cast<const unsigned char*>(path.c_str()), hex);
  return lowerCase(reinterpret_cast<const char*>(hex));
}

}  // namespace utils
