#pragma once

#include <cstdint>
#include <string>

class KXTermIntf;

// Static helpers of the base library: time, sleeps, random numbers, number
// parsing and the hex, URL and UTF-8 conversions.
//
// The conversions work on caller buffers with explicit sizes and allocate
// nothing. When an output buffer is too small they log a "NET: " line and
// throw KXException(1); the buffer then holds what was written before the
// check failed.
class KXSys {
 public:
  enum SleepResult { SleepDone = 0, SleepInterrupted = 1, SleepFailed = -1 };

  // Milliseconds since the epoch; 0 (logged) when the clock cannot be read.
  static unsigned long long timeMs();

  // Sleeps ms milliseconds in slices of at most one second, asking term (may
  // be null) before each slice, so a termination request is seen within a
  // second. reason is only logged. Returns a SleepResult.
  static int sleepMs(unsigned int ms, KXTermIntf* term, const char* reason);
  // As sleepMs, for s seconds.
  static int sleep(unsigned int s, KXTermIntf* term, const char* reason);

  // Seeds OpenSSL's generator once per process with the current time.
  static void _initRandom();
  // A random number from OpenSSL; 0 (logged) when the generator fails.
  static uint32_t KXRand();

  // Unsigned decimal / hexadecimal parse of the whole string: no sign, no
  // blanks, no "0x", nothing after the digits, no overflow of 64 bits. A
  // failure gives 0 and *ok = false (ok may be null); never throws.
  static unsigned long long atoll(const char* s, bool* ok);
  static bool atoll(const char* s, unsigned long long& v);
  static unsigned long long atoll16(const char* s, bool* ok);
  static bool atoll16(const char* s, unsigned long long& v);

  // Two characters per byte, high nibble first, no terminating zero.
  // Returns 2 * len; throws when outSize < 2 * len.
  static unsigned int convertBinToHex(const void* bin, unsigned int len, unsigned char* out, unsigned int outSize,
                                      bool lowerCase = false);
  static unsigned int convertBinToHex(const void* bin, unsigned int len, signed char* out, unsigned int outSize,
                                      bool lowerCase = false);
  // Upper-case convertBinToHex that writes an empty input as "00", the
  // encoding of the empty zero-terminated string.
  static unsigned int convertBinToHexStrNull(const void* bin, unsigned int len, unsigned char* out,
                                             unsigned int outSize);
  // Decodes hexLen / 2 pairs of either case, stopping silently at the first
  // character that is not a hex digit; returns the bytes written. Throws when
  // the pairs could exceed outSize, before looking at any of them.
  static unsigned int convertHexToBin(const unsigned char* hex, unsigned int hexLen, void* out, unsigned int outSize);
  // Decodes a hex-encoded string and zero-terminates it; returns its length
  // up to the first zero byte decoded. Throws unless the decoded bytes and
  // the terminator fit.
  static unsigned int convertHexStrNullToBin(const unsigned char* hex, unsigned int hexLen, void* out,
                                             unsigned int outSize);

  // Percent-decoding of upper-case escapes only; '+' stays '+'. out may be
  // in. Returns the length written before the terminating zero.
  static unsigned int decodeURLtoUTF8(const unsigned char* in, unsigned char* out, unsigned int outSize);
  // Percent-encoding that leaves [0-9A-Za-z-./_~] alone. The size guard
  // counts copied characters only, not escapes, so it does not bound the
  // output: callers must pass 3 * strlen(in) + 1 bytes.
  static unsigned int encodeURLfromUTF8(const unsigned char* in, unsigned char* out, unsigned int outSize);

  // Copies in to out with every ill-formed UTF-8 sequence, surrogate and
  // non-character replaced by U+FFFD.
  static std::string& fixedUTF8(const unsigned char* in, std::string& out);

  // A process-wide counter seeded with timeMs() on first use. Not locked:
  // concurrent callers may get the same value.
  static unsigned long long getWeakSeqID();
};
