#pragma once

#include <string>

// The places a run as root writes to: the temporary directory, the state
// files it replaces, the package it verifies.
namespace utils {

// The system temporary directory (honours TMPDIR); empty, after reporting
// "getTempDir Error: " and why, when it cannot be determined or is not safe
// (directoryProblem).
std::string getTempDir();

// MD5 of the file as 32 lower-case hex digits.
std::string computeMD5(const std::string& path);
// SHA-256 of the file as 64 lower-case hex digits, read without following a
// link; "" when it cannot be read.
std::string computeSha256(const std::string& path);

// Replaces the file at path with text in one step: a file of our own (0600)
// is made beside it (never through a link), written, synced, and renamed over
// path, and the directory synced, so that a reader, also after a crash, sees
// the old content or the new, and a link at path is replaced, not followed.
// "" on success, else why not.
std::string replaceFile(const std::string& path, const std::string& text);

// from copied to a file of our own at to (0600): written beside it, synced
// and renamed over it, so that a link at to is replaced, not followed.
bool copyFile(const std::string& from, const std::string& to);
// from renamed to to, or copied (copyFile) and removed where they lie on
// different file systems.
bool moveFile(const std::string& from, const std::string& to);

// Why dir is no place for the files of a run as root, or "" when it is fine:
// "<component> is <reason>". Every directory from the root down must be owned
// by root or us and not writable by others without the sticky bit (anyone
// who can rename one of them can swap our files), and a link on the way is
// followed only when root or we own it. The characters of the path are never
// a reason.
std::string directoryProblem(const std::string& dir);

// Bytes that a process of ours may still write below dir; 0 when that cannot
// be told.
unsigned long long freeSpace(const std::string& dir);

// A refusal of something from outside (a setting, a directory): one ERR line,
// also written to standard error, where it shows even when there is no log
// file to read.
void reportRefusal(const std::string& text);

}  // namespace utils
