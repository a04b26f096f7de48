// Reading of hdiutil attach's output. The first line of the input is the
// package name, every further line one line of the tool's output.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "KXLog.h"
#include "utils.h"

namespace {

// Keeps the fuzzer quiet and fast, and counts what the parser reported.
class FoundLines : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char*, const char*, int, const char*,
           const char* message) override {
    if (std::strncmp(message, "Mounted device is ", 18) == 0) {
      ++devices;
      lastDevice = message;
    } else if (std::strncmp(message, "PKG path is ", 12) == 0) {
      ++volumes;
      lastPkgPath = message;
    } else {
      ++other;
    }
  }
  void reset() { *this = FoundLines(); }
  int devices = 0, volumes = 0, other = 0;
  std::string lastDevice, lastPkgPath;
};

using fuzz::require;

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (size_t at; (at = text.find(sep, from)) != std::string::npos; from = at + 1) {
    parts.push_back(text.substr(from, at - from));
  }
  parts.push_back(text.substr(from));
  return parts;
}

bool has(const std::string& s, const char* part) { return s.find(part) != std::string::npos; }

bool isTrimmed(const std::string& s) {
  auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  return !s.empty() && !blank(s.front()) && !blank(s.back());
}

// The found text must come whole from one field of the last line that holds
// the marker: the last match wins, and fields never span a tab.
void requireFromLastLine(const std::vector<std::string>& lines, const char* marker, const std::string& found,
                         const char* invariant) {
  const auto last = std::find_if(lines.rbegin(), lines.rend(), [&](const std::string& l) { return has(l, marker); });
  require(last != lines.rend() && has(*last, found.c_str()) && found.find('\t') == std::string::npos &&
              isTrimmed(found) && has(found, marker),
          invariant);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FoundLines* sink = [] {
    auto* s = new FoundLines;
    KXLog::getLogger()->setLevels("ROOT:9;");
    KXLog::getLogger()->setLogCb(s);
    return s;
  }();

  std::vector<std::string> lines = split(std::string(reinterpret_cast<const char*>(data), size), '\n');
  const std::string packageName = lines.front();
  lines.erase(lines.begin());

  size_t deviceFields = 0, volumeFields = 0;
  bool anyDevice = false, anyVolume = false;
  for (const std::string& line : lines) {
    anyDevice |= has(line, "/dev/");
    anyVolume |= has(line, "/Volumes/");
    for (const std::string& field : split(line, '\t')) {
      deviceFields += has(field, "/dev/");
      volumeFields += has(field, "/Volumes/");
    }
  }

  sink->reset();
  std::string device, pkgPath;
  const int r = utils::parseAttachOutput(lines, packageName, device, pkgPath);

  require(r == 0 || r == -1, "result is 0 or -1");
  require((r == 0) == (!device.empty() && !pkgPath.empty()), "0 exactly when both were found");
  require(device.empty() == !anyDevice, "a device is found whenever a line holds /dev/");
  require(pkgPath.empty() == !anyVolume, "a volume is found whenever a line holds /Volumes/");
  // Every matching field is reported, a field holding both markers twice.
  require(sink->devices == static_cast<int>(deviceFields) && sink->volumes == static_cast<int>(volumeFields) &&
              sink->other == 0,
          "one log line per matching field");

  if (!device.empty()) {
    requireFromLastLine(lines, "/dev/", device, "the device is the last /dev/ field, trimmed");
    if (device.find('\0') == std::string::npos) {
      require(sink->lastDevice == "Mounted device is " + device, "the device logged last is the one returned");
    }
  }
  if (!pkgPath.empty()) {
    const std::string tail = "/" + packageName + ".pkg";
    require(pkgPath.size() > tail.size() && pkgPath.compare(pkgPath.size() - tail.size(), tail.size(), tail) == 0,
            "the package path ends in /<name>.pkg");
    requireFromLastLine(lines, "/Volumes/", pkgPath.substr(0, pkgPath.size() - tail.size()),
                        "the volume is the last /Volumes/ field, trimmed");
    if (pkgPath.find('\0') == std::string::npos) {
      require(sink->lastPkgPath == "PKG path is " + pkgPath, "the path logged last is the one returned");
    }
  }
  return 0;
}
