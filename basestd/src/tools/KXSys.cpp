#include "KXSys.h"

#include <openssl/err.h>
#include <openssl/rand.h>

#include <atomic>
#include <cstring>

#include "KXException.h"
#include "KXLog.h"
#include "KXTerm.h"
#include "osal_time.h"

namespace {
constexpr unsigned int kSliceMs = 1000;
std::atomic<bool> g_randomSeeded{false};
// Relaxed loads and stores, not an increment: the sequence is allowed to hand
// out duplicates, the atomic only keeps the race defined.
std::atomic<unsigned long long> g_weakSeq{0};

const char kUpperHex[] = "0123456789ABCDEF";
const char kLowerHex[] = "0123456789abcdef";
// U+FFFD REPLACEMENT CHARACTER.
const char kReplacement[] = "\xEF\xBF\xBD";

[[noreturn]] void bufferTooSmall(const char* what) {
  KXLOG(KXLM_EXCP, KXLL_ERR, "NET: " << what);
  throw KXException(1);
}

// Value of a hex digit of either case, or -1.
int hexDigit(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// URL escapes are upper case only: "%2f" is copied as it stands.
int upperHexDigit(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

int decDigit(unsigned char c) { return c >= '0' && c <= '9' ? c - '0' : -1; }

// Overflow shows as the previous value not coming back when the last step is
// undone: value * Base + digit wrapped exactly when value / Base differs.
template <unsigned Base, int (*Digit)(unsigned char)>
bool parseUnsigned(const char* s, unsigned long long& v) {
  v = 0;
  if (s == nullptr || Digit(static_cast<unsigned char>(*s)) < 0) return false;
  unsigned long long value = 0;
  for (; *s != '\0'; ++s) {
    const int d = Digit(static_cast<unsigned char>(*s));
    if (d < 0) return false;
    const unsigned long long previous = value;
    value = value * Base + static_cast<unsigned>(d);
    if (value / Base != previous) return false;
  }
  v = value;
  return true;
}

bool isUrlSafe(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '.' ||
         c == '/' || c == '_' || c == '~';
}

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// How many continuation bytes a lead byte's bit pattern announces, valid or
// not; 0 for a continuation byte and for 0xFE/0xFF.
int announcedContinuations(unsigned char c) {
  if ((c & 0xE0) == 0xC0) return 1;
  if ((c & 0xF0) == 0xE0) return 2;
  if ((c & 0xF8) == 0xF0) return 3;
  if ((c & 0xFC) == 0xF8) return 4;
  if ((c & 0xFE) == 0xFC) return 5;
  return 0;
}

bool isNonCharacter(uint32_t cp) { return (cp >= 0xFDD0 && cp <= 0xFDEF) || (cp & 0xFFFE) == 0xFFFE; }

// Length of the well-formed sequence at p, or 0. Each byte is looked at only
// after the previous one matched, so the terminating zero is never passed.
int wellFormedLength(const unsigned char* p) {
  const unsigned char c = p[0];
  if (c >= 0xC2 && c <= 0xDF) return isContinuation(p[1]) ? 2 : 0;
  if (c >= 0xE0 && c <= 0xEF) {
    const unsigned char lo = c == 0xE0 ? 0xA0 : 0x80;  // no overlong forms
    const unsigned char hi = c == 0xED ? 0x9F : 0xBF;  // no surrogates
    return p[1] >= lo && p[1] <= hi && isContinuation(p[2]) ? 3 : 0;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    const unsigned char lo = c == 0xF0 ? 0x90 : 0x80;  // no overlong forms
    const unsigned char hi = c == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
    return p[1] >= lo && p[1] <= hi && isContinuation(p[2]) && isContinuation(p[3]) ? 4 : 0;
  }
  return 0;
}

uint32_t codePoint(const unsigned char* p, int len) {
  if (len == 3) return (p[0] & 0x0Fu) << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu);
  return (p[0] & 0x07u) << 18 | (p[1] & 0x3Fu) << 12 | (p[2] & 0x3Fu) << 6 | (p[3] & 0x3Fu);
}
}  // namespace

unsigned long long KXSys::timeMs() {
  unsigned long long ms = 0;
  if (osal_getMs(&ms) != 0) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "timeMs: Cannot get time in ms");
    return 0;
  }
  return ms;
}

int KXSys::sleepMs(unsigned int ms, KXTermIntf* term, const char* reason) {
  const char* why = reason != nullptr ? reason : "";
  KXLOG(KXLM_OSAL, KXLL_INF, "sleep " << ms << " ms : \"" << why << "\"");
  unsigned int remaining = ms;
  while (remaining > 0) {
    const unsigned int slice = remaining < kSliceMs ? remaining : kSliceMs;
    if (term != nullptr && term->chkTerminate()) {
      KXLOG(KXLM_OSAL, KXLL_INF, "Sleep interrupted due to requested termination : \"" << why << "\"");
      return SleepInterrupted;
    }
    remaining -= slice;
    if (osal_doSleep(slice) != 0) {
      KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot sleep " << slice << " ms");
      return SleepFailed;
    }
  }
  return SleepDone;
}

int KXSys::sleep(unsigned int s, KXTermIntf* term, const char* reason) {
  const char* why = reason != nullptr ? reason : "";
  KXLOG(KXLM_OSAL, KXLL_INF, "sleep " << s << " s : \"" << why << "\"");
  for (unsigned int i = 0; i < s; ++i) {
    if (term != nullptr && term->chkTerminate()) {
      KXLOG(KXLM_OSAL, KXLL_INF, "Sleep interrupted due to requested termination : \"" << why << "\"");
      return SleepInterrupted;
    }
    const int rc = sleepMs(kSliceMs, term, reason);
    if (rc != SleepDone) return rc;
  }
  return SleepDone;
}

void KXSys::_initRandom() {
  if (g_randomSeeded.exchange(true)) return;
  const unsigned long long now = timeMs();
  RAND_seed(&now, sizeof now);
}

uint32_t KXSys::KXRand() {
  _initRandom();
  uint32_t value = 0;
  const int rc = RAND_bytes(reinterpret_cast<unsigned char*>(&value), sizeof value);
  if (rc == -1) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "random (init): RAND_bytes error (not supported by the current RAND method)");
    return 0;
  }
  if (rc != 1) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "random (init): RAND_bytes error : " << ERR_get_error());
    return 0;
  }
  return value;
}

unsigned long long KXSys::atoll(const char* s, bool* ok) {
  unsigned long long v = 0;
  const bool good = parseUnsigned<10, decDigit>(s, v);
  if (ok != nullptr) *ok = good;
  return v;
}

bool KXSys::atoll(const char* s, unsigned long long& v) { return parseUnsigned<10, decDigit>(s, v); }

unsigned long long KXSys::atoll16(const char* s, bool* ok) {
  unsigned long long v = 0;
  const bool good = parseUnsigned<16, hexDigit>(s, v);
  if (ok != nullptr) *ok = good;
  return v;
}

bool KXSys::atoll16(const char* s, unsigned long long& v) { return parseUnsigned<16, hexDigit>(s, v); }

unsigned int KXSys::convertBinToHex(const void* bin, unsigned int len, unsigned char* out, unsigned int outSize,
                                    bool lowerCase) {
  if (outSize / 2 < len) bufferTooSmall("convertBinToHex: Buffer too short");
  const char* digits = lowerCase ? kLowerHex : kUpperHex;
  const unsigned char* in = static_cast<const unsigned char*>(bin);
  for (unsigned int i = 0; i < len; ++i) {
    out[2 * static_cast<size_t>(i)] = static_cast<unsigned char>(digits[in[i] >> 4]);
    out[2 * static_cast<size_t>(i) + 1] = static_cast<unsigned char>(digits[in[i] & 0x0F]);
  }
  return 2 * len;
}

unsigned int KXSys::convertBinToHex(const void* bin, unsigned int len, signed char* out, unsigned int outSize,
                                    bool lowerCase) {
  return convertBinToHex(bin, len, reinterpret_cast<unsigned char*>(out), outSize, lowerCase);
}

unsigned int KXSys::convertBinToHexStrNull(const void* bin, unsigned int len, unsigned char* out,
                                           unsigned int outSize) {
  static const unsigned char kZero = 0;
  if (len == 0) return convertBinToHex(&kZero, 1, out, outSize, false);
  return convertBinToHex(bin, len, out, outSize, false);
}

unsigned int KXSys::convertHexToBin(const unsigned char* hex, unsigned int hexLen, void* out, unsigned int outSize) {
  const unsigned int pairs = hexLen / 2;
  if (pairs > outSize) bufferTooSmall("convertHexToBin: Buffer too short");
  unsigned char* bin = static_cast<unsigned char*>(out);
  unsigned int n = 0;
  for (; n < pairs; ++n) {
    const int hi = hexDigit(hex[2 * static_cast<size_t>(n)]);
    if (hi < 0) break;
    const int lo = hexDigit(hex[2 * static_cast<size_t>(n) + 1]);
    if (lo < 0) break;
    bin[n] = static_cast<unsigned char>(hi << 4 | lo);
  }
  return n;
}

unsigned int KXSys::convertHexStrNullToBin(const unsigned char* hex, unsigned int hexLen, void* out,
                                           unsigned int outSize) {
  char* text = static_cast<char*>(out);
  if (outSize > 0) text[0] = '\0';
  const unsigned int n = convertHexToBin(hex, hexLen, out, outSize);
  if (n >= outSize) bufferTooSmall("convertHexStrNullToBin: Buffer too small");
  text[n] = '\0';
  return static_cast<unsigned int>(std::strlen(text));
}

unsigned int KXSys::decodeURLtoUTF8(const unsigned char* in, unsigned char* out, unsigned int outSize) {
  // One byte is always kept for the terminator, so an empty buffer cannot
  // even take the empty string.
  if (outSize == 0) bufferTooSmall("decodeURLtoUTF8: Buffer too short");
  unsigned int remaining = outSize;
  unsigned int o = 0;
  // o never overtakes i, which is what makes decoding in place safe.
  for (unsigned int i = 0; in[i] != '\0';) {
    if (--remaining == 0) bufferTooSmall("decodeURLtoUTF8: Buffer too short");
    // The second digit is looked at only after the first, so a '%' just
    // before the terminator never reads past it.
    const int hi = in[i] == '%' ? upperHexDigit(in[i + 1]) : -1;
    const int lo = hi >= 0 ? upperHexDigit(in[i + 2]) : -1;
    if (lo >= 0) {
      out[o++] = static_cast<unsigned char>(hi << 4 | lo);
      i += 3;
    } else {
      out[o++] = in[i++];
    }
  }
  out[o] = '\0';
  return o;
}

unsigned int KXSys::encodeURLfromUTF8(const unsigned char* in, unsigned char* out, unsigned int outSize) {
  if (outSize == 0) bufferTooSmall("encodeURLfromUTF8: Buffer too short");
  // Only copied characters are counted; an escape writes three bytes without
  // touching the count, so the guard does not bound the output. Callers size
  // their buffers for the worst case, and which inputs throw is part of the
  // contract they were written against: the accounting stays as it is.
  unsigned int remaining = outSize;
  unsigned int o = 0;
  for (const unsigned char* p = in; *p != '\0'; ++p) {
    if (remaining <= 3) bufferTooSmall("encodeURLfromUTF8: Buffer too short");
    if (isUrlSafe(*p)) {
      out[o++] = *p;
      --remaining;
    } else {
      out[o++] = '%';
      out[o++] = static_cast<unsigned char>(kUpperHex[*p >> 4]);
      out[o++] = static_cast<unsigned char>(kUpperHex[*p & 0x0F]);
    }
  }
  out[o] = '\0';
  return o;
}

std::string& KXSys::fixedUTF8(const unsigned char* in, std::string& out) {
  out.clear();
  const unsigned char* p = in;
  while (*p != '\0') {
    if (*p < 0x80) {
      out.push_back(static_cast<char>(*p++));
      continue;
    }
    const int len = wellFormedLength(p);
    if (len == 2 || (len > 2 && !isNonCharacter(codePoint(p, len)))) {
      out.append(reinterpret_cast<const char*>(p), static_cast<size_t>(len));
      p += len;
      continue;
    }
    out.append(kReplacement);
    if (len > 0) {  // a non-character goes whole
      p += len;
      continue;
    }
    int follow = announcedContinuations(*p++);
    while (follow-- > 0 && isContinuation(*p)) ++p;
  }
  return out;
}

unsigned long long KXSys::getWeakSeqID() {
  unsigned long long id = g_weakSeq.load(std::memory_order_relaxed);
  if (id == 0) id = timeMs();
  g_weakSeq.store(id + 1, std::memory_order_relaxed);
  return id;
}

TimeoutTerminator::TimeoutTerminator(unsigned long long timeoutMs) { reset(timeoutMs); }

void TimeoutTerminator::reset(unsigned long long timeoutMs) {
  _startMs = KXSys::timeMs();
  _timeoutMs = timeoutMs;
}

bool TimeoutTerminator::chkTerminate() { return KXSys::timeMs() - _startMs >= _timeoutMs; }
