#pragma once

#include <string>

// The instance lock file's content: the time of the run that wrote it.
namespace lockfile {

// The time a lock file's content holds: its first line, cut at a NUL and
// trimmed, as a base-10 count of milliseconds. Throws as std::stoll does,
// and std::length_error for a first line of more than kLineMax bytes.
constexpr size_t kLineMax = 4096;
long long parseTime(const std::string& content);

}  // namespace lockfile
