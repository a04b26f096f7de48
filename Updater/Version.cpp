#include "Version.h"

#include <cctype>
#include <climits>
#include <sstream>
#include <string>
#include <tuple>

namespace {

// One "%d" conversion as sscanf does it (leading white space skipped,
// optional sign, decimal digits), except that a value beyond the int range
// saturates: sscanf leaves that case undefined, and version files come from
// a server.
bool scanInt(const char*& p, int32_t& out) {
  while (std::isspace(static_cast<unsigned char>(*p))) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = (*p++ == '-');
  if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
  long long value = 0;
  for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
    if (value <= static_cast<long long>(INT_MAX) + 1) value = value * 10 + (*p - '0');
  }
  if (negative) value = -value;
  if (value > INT_MAX) value = INT_MAX;
  if (value < INT_MIN) value = INT_MIN;
  out = static_cast<int32_t>(value);
  return true;
}

}  // namespace

Version Version::parse(const std::string& text) {
  int32_t v[4] = {-1, -1, -1, -1};
  const char* p = text.c_str();  // stops at the first NUL, as a C string would
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && *p++ != '.') return Version();
    if (!scanInt(p, v[i])) return Version();
  }
  for (int32_t& c : v) {
    if (c < 0) c = -1;
  }
  return Version(v[0], v[1], v[2], v[3]);
}

int Version::compare(const Version& other) const {
  const auto mine = std::tie(major, minor, third, fourth);
  const auto theirs = std::tie(other.major, other.minor, other.third, other.fourth);
  return static_cast<int>(theirs < mine) - static_cast<int>(mine < theirs);
}

// Decimal whatever base the log stream was left in by earlier pieces.
void Version::print(std::ostringstream& os) const {
  os << std::to_string(major) << '.' << std::to_string(minor) << '.' << std::to_string(third) << '.'
     << std::to_string(fourth);
}

std::string Version::toString() const {
  std::ostringstream os;
  print(os);
  return os.str();
}
