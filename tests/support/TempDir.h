#pragma once

#include <string>

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes. Optionally points TMPDIR at it for
// the object's lifetime, so code that asks for the temporary directory lands
// inside the test's own space.
class TempDir {
 public:
  explicit TempDir(bool setTmpdir = false);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path, _oldTmpdir;
  bool _hadTmpdir = false;
  bool _setTmpdir;
};

// Whole contents of a file; empty when it cannot be read.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
