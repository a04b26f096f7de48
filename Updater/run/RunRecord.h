#pragma once

#include <string>

#include "Outcome.h"

// What one run did, for a tool that watches a fleet and should not have to
// read a human log: written as last-run.json beside the log at the end of
// every run that had a log directory.
struct RunRecord {
  long long startMs = 0;
  long long endMs = 0;
  std::string installedVersion;
  RunEnd end;

  // The JSON text of the record.
  std::string json() const;
  // Writes the record to dir/last-run.json in one step (utils::replaceFile:
  // never through a link, ours alone, synced). "" on success, else why not.
  std::string write(const std::string& dir) const;
  // write, and a failure to write as the log's last line.
  void keep(const std::string& dir) const;
};
