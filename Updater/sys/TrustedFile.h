#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// Files the program trusts: the lock, the download, the key file, the
// serial, the log directory's files and the run record. One notion of who a
// file is (its identity), one rule for whether it can be ours, one bounded
// read and one removal that never takes another file than the one judged.
namespace trusted {

// What the file system says of a file, enough to judge it and to know it
// again: the same device and inode are the same file.
struct Identity {
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t size = 0;
  uint32_t owner = 0;
  uint32_t mode = 0;  // type and permission bits
  uint64_t links = 0;

  static Identity of(const struct stat& st);
  bool sameFile(const Identity& other) const { return device == other.device && inode == other.inode; }
};

// lstat (never through a link) or fstat; nullopt when the file cannot be
// examined, with errno saying why.
std::optional<Identity> atPath(const std::string& path);
std::optional<Identity> ofDescriptor(int fd);

// What a trusted file must be; a caller asks for the parts that matter to it.
enum Rule : unsigned {
  kRegular = 1,
  kOneLink = 2,
  kOwnedByUs = 4,        // the effective user
  kOwnedByRootOrUs = 8,  // root, or the effective user
  kNotWritableByOthers = 16,
};
enum class Flaw { None, NotRegular, OtherNames, ForeignOwner, WritableByOthers };
// The first rule the file breaks, in the order of the enumeration, or None.
Flaw flawOf(const Identity& id, unsigned rules);
// The flaw in words: "it is not a regular file", "it has other names", "it
// belongs to another user", "others can write to it"; bare (without the
// subject) "is not a regular file", "has other names", ... "is writable by
// others". "" for None.
std::string said(Flaw flaw, bool bare = false);

// At most max + 1 bytes of the file, so that a longer one shows (and up to
// the end of the first line only, when firstLine): read without following a
// link and without waiting on a FIFO. nullopt when it cannot be opened.
std::optional<std::string> readBounded(const std::string& path, size_t max);
std::string readBounded(int fd, size_t max, bool firstLine = false);

// Removes path if it is still the file `judged` describes, so that what
// another run or user has put there since is left alone. True when removed.
bool removeIfSame(const std::string& path, const Identity& judged);

}  // namespace trusted
