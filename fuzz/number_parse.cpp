// Decimal and hexadecimal parses of the base library, on the input up to its
// first NUL, against the C library's strtoull: the text must be digits only
// (strtoull would also take blanks, a sign and "0x"), and strtoull's ERANGE
// is the overflow the parses must report.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "KXLog.h"
#include "KXSys.h"

namespace {

using fuzz::require;

struct Reference {
  bool ok;
  unsigned long long value;
};

Reference reference(const std::string& s, int base) {
  const char* digits = base == 10 ? "0123456789" : "0123456789abcdefABCDEF";
  if (s.empty() || s.find_first_not_of(digits) != std::string::npos) return {false, 0};
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(s.c_str(), &end, base);
  if (errno == ERANGE || end != s.c_str() + s.size()) return {false, 0};
  return {true, v};
}

void check(const std::string& s, int base) {
  const Reference ref = reference(s, base);
  const bool hex = base == 16;

  bool ok = !ref.ok;
  const unsigned long long viaFlag = hex ? KXSys::atoll16(s.c_str(), &ok) : KXSys::atoll(s.c_str(), &ok);
  require(ok == ref.ok, "the parse succeeds exactly for digits only that fit in 64 bits");
  require(viaFlag == ref.value, "the value is strtoull's, or 0 on failure");

  const unsigned long long noFlag = hex ? KXSys::atoll16(s.c_str(), nullptr) : KXSys::atoll(s.c_str(), nullptr);
  require(noFlag == ref.value, "a null ok pointer changes nothing");

  unsigned long long v = ~0ULL;
  const bool good = hex ? KXSys::atoll16(s.c_str(), v) : KXSys::atoll(s.c_str(), v);
  require(good == ref.ok && v == ref.value, "the reference overload agrees, with 0 on failure");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::silenceLogger();

  const std::string raw(reinterpret_cast<const char*>(data), size);
  const std::string s(raw.c_str());
  check(s, 10);
  check(s, 16);
  return 0;
}
