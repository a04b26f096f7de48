#include "Shims.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

#include "TempDir.h"

namespace fs = boost::filesystem;

namespace {
std::string shimScript() {
  const char* src = std::getenv("KX_TEST_SOURCE_DIR");
  if (src == nullptr) throw std::runtime_error("KX_TEST_SOURCE_DIR is not set");
  return std::string(src) + "/tests/support/shims/shim";
}
}  // namespace

std::vector<std::string> Shims::defaultCommands() {
  return {"hdiutil", "installer", "launchctl", "systemctl", "dpkg", "rpm", "apt-get", "dnf", "synopkg", "net", "arch"};
}

Shims::Shims(const std::string& dir, const std::vector<std::string>& commands)
    : _dir(dir), _record(dir + "/calls.log") {
  const std::string script = shimScript();
  for (const std::string& c : commands) fs::copy_file(script, _dir + "/" + c, fs::copy_options::overwrite_existing);
  writeFile(_record, "");
  const char* path = std::getenv("PATH");
  _oldPath = path != nullptr ? path : "";
  setenv("PATH", (_dir + ":" + _oldPath).c_str(), 1);
  const char* rec = std::getenv("KX_SHIM_RECORD");
  _hadRecord = rec != nullptr;
  if (_hadRecord) _oldRecord = rec;
  setenv("KX_SHIM_RECORD", _record.c_str(), 1);
}

Shims::~Shims() {
  setenv("PATH", _oldPath.c_str(), 1);
  if (_hadRecord) {
    setenv("KX_SHIM_RECORD", _oldRecord.c_str(), 1);
  } else {
    unsetenv("KX_SHIM_RECORD");
  }
}

void Shims::setStatus(const std::string& command, const std::string& status) {
  writeFile(_dir + "/" + command + ".status", status);
}

void Shims::setOutput(const std::string& command, const std::string& text) {
  writeFile(_dir + "/" + command + ".out", text);
}

std::vector<std::string> Shims::calls() const {
  std::vector<std::string> out;
  std::istringstream in(readFile(_record));
  std::string line;
  while (std::getline(in, line)) out.push_back(line);
  return out;
}
