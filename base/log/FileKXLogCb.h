#pragma once

#include <cstdint>
#include <string>

#include "KXLog.h"

// The log file sink: one time-stamped line per message, each written to the
// file at once (one write, no user-space buffer) so the log survives a crash
// in the middle of an installation. Before a line would take the file past
// kMaxSize it is rolled over to a single backup
// ("agent_upd.log" -> "agent_upd.bak").
//
// The log often lies in a shared temporary directory and the program runs as
// root, so the file is opened once, without following links and only as a
// regular file of our own (see osal_openOwned), and every line goes through
// that descriptor: a link swapped in at the path later is never written
// through. The file is private to its owner (0600), also when it was made
// readable by others before.
//
// No lock of its own: the logger calls log() with its mutex held. I/O errors
// never reach the logging statement; a file that cannot be (re)opened only
// loses its lines, while the echo to standard output goes on.
class FileKXLogCb : public KXLogCb {
 public:
  static constexpr long long kMaxSize = 5LL * 1024 * 1024;

  // Opens path for appending, creating it if missing. A failed open leaves
  // the sink failed, silently.
  FileKXLogCb(const std::string& path, bool echo);
  ~FileKXLogCb() override;
  FileKXLogCb(const FileKXLogCb&) = delete;
  FileKXLogCb& operator=(const FileKXLogCb&) = delete;

  // Writes "[time] - MODULE:LVL - [ (file:line)] - message". pid, tid and
  // function are not written.
  void log(unsigned int pid, unsigned long long tid, const char* module, const char* level, const char* file, int line,
           const char* function, const char* message) override;

  // Closes the file, renames it to the backup name (path minus its last four
  // characters, plus ".bak") and opens a fresh file.
  void rollLogFiles();

  // The part of file shown in a line: after the last '/' or '\', or, with no
  // separator at all, at most its last 32 characters.
  static std::string shortFileName(const char* file);
  static std::string backupName(const std::string& path);

  // Lines written by all sinks of the process. Protected by the logger's
  // mutex like everything else here.
  static uint32_t g_cpt;

 private:
  void open();

  int _fd = -1;
  // Bytes in the file: where the next line lands, since it only appends.
  long long _size = -1;
  std::string path;
  bool echo;
  std::string _line;
  // The time stamp of the last line, remade only when the second changes.
  long long _stampSecond = -1;
  char _stamp[100] = {};
};
