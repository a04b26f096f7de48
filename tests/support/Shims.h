#pragma once

#include <string>
#include <vector>

// A directory of recording stand-ins for system commands, put first in PATH
// for the object's lifetime. Each stand-in appends its name and arguments to
// the record file and ends with the status the test chose.
class Shims {
 public:
  // Creates the stand-ins in dir (which must exist) and prepends dir to PATH.
  Shims(const std::string& dir, const std::vector<std::string>& commands = defaultCommands());
  ~Shims();
  Shims(const Shims&) = delete;
  Shims& operator=(const Shims&) = delete;

  static std::vector<std::string> defaultCommands();

  // Exit status of a command: a number, or "kill:9" to die by a signal.
  void setStatus(const std::string& command, const std::string& status);
  // Text the command prints on standard output.
  void setOutput(const std::string& command, const std::string& text);

  // Every call so far, one "<name> <args>" line each.
  std::vector<std::string> calls() const;
  const std::string& dir() const { return _dir; }
  const std::string& recordFile() const { return _record; }

 private:
  std::string _dir;
  std::string _record;
  std::string _oldPath;
  std::string _oldRecord;
  bool _hadRecord = false;
};
