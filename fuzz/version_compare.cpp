// Version texts: the first three lines of the input are parsed, and the
// order among the three versions must be a total order that agrees with
// comparing the four components as a tuple. The first 16 bytes also make a
// version of four raw numbers, whose printed form must parse back.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "FuzzSupport.h"
#include "KXLog.h"
#include "Version.h"

namespace {

using fuzz::require;

int sign(int x) { return (x > 0) - (x < 0); }

std::tuple<int32_t, int32_t, int32_t, int32_t> parts(const Version& v) {
  return std::make_tuple(v.major, v.minor, v.third, v.fourth);
}

// sscanf is the reference where it is defined: a number of ten or more digits
// may overflow an int, which sscanf leaves undefined.
bool sscanfDefined(const std::string& text) {
  size_t run = 0;
  for (char c : text) {
    run = (c >= '0' && c <= '9') ? run + 1 : 0;
    if (run >= 10) return false;
  }
  return true;
}

void checkParse(const std::string& text, const Version& v) {
  for (int32_t c : {v.major, v.minor, v.third, v.fourth}) require(c >= -1, "components are -1 or not negative");
  require(v.isInvalid() == (v.major == -1 && v.minor == -1 && v.third == -1 && v.fourth == -1),
          "invalid means all four are -1");
  if (sscanfDefined(text)) {
    int c[4] = {-1, -1, -1, -1};
    if (std::sscanf(text.c_str(), "%d.%d.%d.%d", &c[0], &c[1], &c[2], &c[3]) != 4) {
      for (int& x : c) x = -1;
    }
    for (int& x : c) x = x < 0 ? -1 : x;
    require(parts(v) == std::make_tuple(c[0], c[1], c[2], c[3]), "the parse reads what sscanf reads");
  }
  std::ostringstream printed;
  v.print(printed);
  require(printed.str() == v.toString(), "print and toString agree");
  if (v.major >= 0 && v.minor >= 0 && v.third >= 0 && v.fourth >= 0) {
    const Version back = Version::parse(v.toString());
    require(parts(back) == parts(v) && back.toString() == v.toString(), "a printed version parses back to itself");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::silenceLogger();

  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines;
  size_t from = 0;
  while (lines.size() < 3) {
    const size_t nl = input.find('\n', from);
    lines.push_back(
        input.substr(std::min(from, input.size()), nl == std::string::npos ? std::string::npos : nl - from));
    from = nl == std::string::npos ? input.size() : nl + 1;
  }

  Version v[3];
  for (int i = 0; i < 3; ++i) {
    v[i] = Version::parse(lines[i]);
    checkParse(lines[i], v[i]);
  }

  for (const Version& a : v) {
    const Version same = a;
    require(a.compare(same) == 0 && a == same && a <= same && !(a < same), "the order is reflexive");
    for (const Version& b : v) {
      const int ab = a.compare(b);
      require(sign(ab) == -sign(b.compare(a)), "the order is antisymmetric");
      require(sign(ab) == (parts(a) < parts(b)   ? -1
                           : parts(b) < parts(a) ? 1
                                                 : 0),
              "the first differing component decides, as a signed number");
      require((a < b) == (ab < 0) && (a <= b) == (ab <= 0) && (a == b) == (ab == 0), "the operators follow compare");
      for (const Version& c : v) {
        if (a <= b && b <= c) require(a <= c, "the order is transitive");
        if (a < b && b <= c) require(a < c, "the strict order is transitive");
      }
    }
  }

  if (size >= 16) {
    int32_t raw[4];
    std::memcpy(raw, data, sizeof raw);
    for (int32_t& r : raw) r &= INT32_MAX;
    const Version made(raw[0], raw[1], raw[2], raw[3]);
    const Version back = Version::parse(made.toString());
    require(parts(back) == parts(made) && back.compare(made) == 0, "any non-negative version parses back from print");
  }
  return 0;
}
