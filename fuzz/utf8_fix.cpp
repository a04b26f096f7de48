// UTF-8 repair of the base library on the input up to its first NUL. The
// output is judged by a validator of its own: well-formed UTF-8 (no overlong
// forms, no surrogates, nothing above U+10FFFF, no cut sequence) that holds
// no non-character either, since the repair replaces those as well.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "KXLog.h"
#include "KXSys.h"

namespace {

using fuzz::require;

bool isNonCharacter(uint32_t cp) { return (cp >= 0xFDD0 && cp <= 0xFDEF) || (cp & 0xFFFE) == 0xFFFE; }

// Decodes by value ranges rather than by lead-byte tables: a sequence is good
// when its length is the shortest one for its code point.
bool isCleanUtf8(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    size_t len;
    uint32_t cp;
    if (b0 < 0x80) {
      len = 1;
      cp = b0;
    } else if ((b0 & 0xE0) == 0xC0) {
      len = 2;
      cp = b0 & 0x1F;
    } else if ((b0 & 0xF0) == 0xE0) {
      len = 3;
      cp = b0 & 0x0F;
    } else if ((b0 & 0xF8) == 0xF0) {
      len = 4;
      cp = b0 & 0x07;
    } else {
      return false;
    }
    if (i + len > s.size()) return false;
    for (size_t k = 1; k < len; ++k) {
      const auto b = static_cast<unsigned char>(s[i + k]);
      if ((b & 0xC0) != 0x80) return false;
      cp = cp << 6 | (b & 0x3F);
    }
    const uint32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < minimum[len] || cp > 0x10FFFF) return false;
    if (cp >= 0xD800 && cp <= 0xDFFF) return false;
    if (isNonCharacter(cp)) return false;
    i += len;
  }
  return true;
}

std::string asciiOf(const std::string& s) {
  std::string a;
  for (char c : s) {
    if (static_cast<unsigned char>(c) < 0x80) a.push_back(c);
  }
  return a;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::silenceLogger();

  const std::string raw(reinterpret_cast<const char*>(data), size);
  const std::string in(raw.c_str());

  std::string out = "left over from an earlier call";
  KXSys::fixedUTF8(reinterpret_cast<const unsigned char*>(in.c_str()), out);

  require(isCleanUtf8(out), "the output is well-formed UTF-8 without non-characters");
  require(out.find('\0') == std::string::npos, "the output holds no NUL");
  // Only non-ASCII bytes are ever replaced or skipped: a bad lead byte never
  // swallows the ASCII character after it, and nothing ASCII is invented.
  require(asciiOf(out) == asciiOf(in), "the ASCII characters pass through in order");
  // Every input byte gives at most one replacement character.
  require(out.size() <= 3 * in.size(), "the output grows at most threefold");
  if (isCleanUtf8(in)) require(out == in, "clean input comes back unchanged");

  std::string again;
  KXSys::fixedUTF8(reinterpret_cast<const unsigned char*>(out.c_str()), again);
  require(again == out, "repairing twice changes nothing");
  return 0;
}
