#include "TrustedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace trusted {

namespace {

struct Words {
  Flaw flaw;
  const char* withSubject;
  const char* bare;
};

const Words kWords[] = {
    {Flaw::NotRegular, "it is not a regular file", "is not a regular file"},
    {Flaw::OtherNames, "it has other names", "has other names"},
    {Flaw::ForeignOwner, "it belongs to another user", "belongs to another user"},
    {Flaw::WritableByOthers, "others can write to it", "is writable by others"},
};

}  // namespace

Identity Identity::of(const struct stat& st) {
  return Identity{static_cast<uint64_t>(st.st_dev),  static_cast<uint64_t>(st.st_ino),
                  static_cast<uint64_t>(st.st_size), static_cast<uint32_t>(st.st_uid),
                  static_cast<uint32_t>(st.st_mode), static_cast<uint64_t>(st.st_nlink)};
}

std::optional<Identity> atPath(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return std::nullopt;
  return Identity::of(st);
}

std::optional<Identity> ofDescriptor(int fd) {
  struct stat st {};
  if (fstat(fd, &st) != 0) return std::nullopt;
  return Identity::of(st);
}

Flaw flawOf(const Identity& id, unsigned rules) {
  const uid_t us = geteuid();
  if ((rules & kRegular) != 0 && !S_ISREG(id.mode)) return Flaw::NotRegular;
  if ((rules & kOwnedByUs) != 0 && id.owner != us) return Flaw::ForeignOwner;
  if ((rules & kOwnedByRootOrUs) != 0 && id.owner != 0 && id.owner != us) return Flaw::ForeignOwner;
  if ((rules & kOneLink) != 0 && id.links != 1) return Flaw::OtherNames;
  if ((rules & kNotWritableByOthers) != 0 && (id.mode & (S_IWGRP | S_IWOTH)) != 0) return Flaw::WritableByOthers;
  return Flaw::None;
}

std::string said(Flaw flaw, bool bare) {
  for (const Words& w : kWords) {
    if (w.flaw == flaw) return bare ? w.bare : w.withSubject;
  }
  return std::string();
}

std::string readBounded(int fd, size_t max, bool firstLine) {
  std::string text(max + 1, '\0');
  size_t got = 0;
  while (got < text.size()) {
    const ssize_t n = read(fd, &text[got], text.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    const bool lineEnded = firstLine && std::memchr(&text[got], '\n', static_cast<size_t>(n)) != nullptr;
    got += static_cast<size_t>(n);
    if (lineEnded) break;
  }
  text.resize(got);
  return text;
}

std::optional<std::string> readBounded(const std::string& path, size_t max) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text = readBounded(fd, max);
  close(fd);
  return text;
}

bool removeIfSame(const std::string& path, const Identity& judged) {
  const std::optional<Identity> there = atPath(path);
  return there && there->sameFile(judged) && unlink(path.c_str()) == 0;
}

}  // namespace trusted
