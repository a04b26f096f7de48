#include "TempDir.h"

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir(bool setTmpdir) : _setTmpdir(setTmpdir) {
  const char* base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kxtest.XXXXXX";
  if (mkdtemp(&tmpl[0]) == nullptr) throw std::runtime_error("cannot make a directory like " + tmpl);
  _path = tmpl;
  _hadTmpdir = base != nullptr;
  if (_hadTmpdir) _oldTmpdir = base;
  if (_setTmpdir) setenv("TMPDIR", _path.c_str(), 1);
}

TempDir::~TempDir() {
  if (_setTmpdir && _hadTmpdir) setenv("TMPDIR", _oldTmpdir.c_str(), 1);
  if (_setTmpdir && !_hadTmpdir) unsetenv("TMPDIR");
  boost::system::error_code ec;
  boost::filesystem::remove_all(_path, ec);
}

std::string readFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

void writeFile(const std::string& path, const std::string& content) {
  if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content))
    throw std::runtime_error("cannot write " + path);
}
