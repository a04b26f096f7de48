#pragma once

#include <cstdint>
#include <string>

#include "Outcome.h"

// What one run did, for a tool that watches a fleet and should not have to
// read a human log: written as last-run.json beside the log at the end of
// every run that had a log directory.
struct RunRecord {
  long long startMs = 0;
  long long endMs = 0;
  std::string installedVersion;
  std::string offeredVersion;  // "" when the server was not asked
  std::string packageUrl;      // "" when no package was resolved
  uint64_t packageSize = 0;    // 0 when not known
  Outcome outcome;
  // What came of it, in one word: "updated", "restarted", "up to date",
  // "locked" (another run holds the lock) or "failed".
  std::string action;

  // The JSON text of the record.
  std::string json() const;
  // Writes the record to dir/last-run.json in one step (a file of our own
  // made beside it, then renamed over it), never through a link; the file is
  // ours and not writable by others. "" on success, else why not.
  std::string write(const std::string& dir) const;
};
