// Hex and URL conversions of the base library. The first input byte picks
// hex case and a buffer size for the encoder; the rest is used three ways: as
// binary for the hex encoders, as text for the hex decoders and, up to its
// first NUL, as a URL for the percent coders. Every output buffer is a heap
// block of exactly the size passed, so a write past it is an ASan report.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "KXException.h"
#include "KXHash.h"
#include "KXLog.h"
#include "KXSys.h"

namespace {

using fuzz::require;

// Counts the "NET: " lines: each refusal must log exactly one.
class NetLines : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char*, const char*, int, const char*,
           const char* message) override {
    count += std::strncmp(message, "NET: ", 5) == 0 ? 1 : 1000;
  }
  int count = 0;
};
NetLines* g_net = nullptr;

using Buffer = std::unique_ptr<unsigned char[]>;
Buffer exact(size_t n) { return Buffer(new unsigned char[n]); }

// Runs f; true when it threw KXException, which must carry code 1 and come
// with one "NET: " line. Other exceptions escape and end the run.
template <class F>
bool refused(F f) {
  const int before = g_net->count;
  try {
    f();
  } catch (const KXException& e) {
    require(e.getCode() == 1, "a refusal carries code 1");
    require(g_net->count == before + 1, "a refusal logs one NET: line");
    return true;
  }
  require(g_net->count == before, "nothing is logged without a refusal");
  return false;
}

int hexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// strchr would also find the terminator.
bool oneOf(const char* set, unsigned char c) { return c != 0 && std::strchr(set, c) != nullptr; }

bool urlSafe(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || oneOf("-./_~", c);
}

// Percent-decoding as callers rely on it: upper-case escapes only.
std::string referenceDecode(const std::string& in) {
  auto upper = [](char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); };
  std::string out;
  for (size_t i = 0; i < in.size();) {
    if (in[i] == '%' && i + 2 < in.size() && upper(in[i + 1]) && upper(in[i + 2])) {
      const auto hi = static_cast<unsigned>(hexValue(static_cast<unsigned char>(in[i + 1])));
      const auto lo = static_cast<unsigned>(hexValue(static_cast<unsigned char>(in[i + 2])));
      out.push_back(static_cast<char>(hi << 4 | lo));
      i += 3;
    } else {
      out.push_back(in[i++]);
    }
  }
  return out;
}

void binaryToHexAndBack(const std::string& bin, bool lower) {
  const auto n = static_cast<unsigned>(bin.size());
  Buffer hex = exact(2 * size_t{n});
  unsigned written = 0;
  require(!refused([&] { written = KXSys::convertBinToHex(bin.data(), n, hex.get(), 2 * n, lower); }),
          "convertBinToHex fits 2 * len");
  require(written == 2 * n, "convertBinToHex writes two characters per byte");
  const char* alphabet = lower ? "0123456789abcdef" : "0123456789ABCDEF";
  for (unsigned i = 0; i < written; ++i) require(oneOf(alphabet, hex[i]), "hex is in the case asked");

  Buffer signedHex = exact(2 * size_t{n});
  KXSys::convertBinToHex(bin.data(), n, reinterpret_cast<signed char*>(signedHex.get()), 2 * n, lower);
  require(std::memcmp(hex.get(), signedHex.get(), written) == 0, "both convertBinToHex overloads agree");

  Buffer back = exact(n);
  unsigned decoded = 0;
  require(!refused([&] { decoded = KXSys::convertHexToBin(hex.get(), written, back.get(), n); }),
          "convertHexToBin fits its pairs");
  require(decoded == n && std::memcmp(back.get(), bin.data(), n) == 0, "bin -> hex -> bin is the identity");

  if (n > 0) {
    Buffer shortHex = exact(2 * n - 1);
    require(refused([&] { KXSys::convertBinToHex(bin.data(), n, shortHex.get(), 2 * n - 1, lower); }),
            "convertBinToHex refuses 2 * len - 1");
    Buffer shortBin = exact(n - 1);
    require(refused([&] { KXSys::convertHexToBin(hex.get(), written, shortBin.get(), n - 1); }),
            "convertHexToBin refuses fewer bytes than pairs");
  }

  // The zero-terminated variants: the text comes back up to its first zero.
  const unsigned strNullLen = 2 * (n > 0 ? n : 1);
  Buffer strHex = exact(strNullLen);
  unsigned strWritten = 0;
  require(!refused([&] { strWritten = KXSys::convertBinToHexStrNull(bin.data(), n, strHex.get(), strNullLen); }),
          "convertBinToHexStrNull fits");
  require(strWritten == strNullLen, "convertBinToHexStrNull writes two characters per byte, '00' for none");
  if (n == 0) require(strHex[0] == '0' && strHex[1] == '0', "an empty input is written as 00");
  const unsigned pairs = strWritten / 2;
  Buffer text = exact(pairs + 1);
  unsigned length = 0;
  require(!refused([&] { length = KXSys::convertHexStrNullToBin(strHex.get(), strWritten, text.get(), pairs + 1); }),
          "convertHexStrNullToBin fits the bytes and the terminator");
  const size_t expectedLength = std::strlen(bin.c_str());
  require(length == expectedLength && std::memcmp(text.get(), bin.data(), length) == 0 && text[length] == '\0',
          "hex of a string decodes back to the string up to its first zero");
  Buffer tight = exact(pairs);
  require(refused([&] { KXSys::convertHexStrNullToBin(strHex.get(), strWritten, tight.get(), pairs); }),
          "convertHexStrNullToBin refuses a buffer without room for the terminator");

  if (n >= 16) {
    Buffer hex33 = exact(33);
    KXHashMD5::convertBinToHex(reinterpret_cast<const unsigned char*>(bin.data()), hex33.get());
    require(hex33[32] == '\0', "a digest's hex is zero-terminated");
    if (!lower) require(std::memcmp(hex33.get(), hex.get(), 32) == 0, "a digest's hex is the bytes' hex");
    for (int i = 0; i < 32; ++i) require(oneOf("0123456789ABCDEF", hex33[i]), "digest hex is upper");
    Buffer bin16 = exact(16);
    require(KXHashMD5::convertHexToBin(hex33.get(), bin16.get()) && std::memcmp(bin16.get(), bin.data(), 16) == 0,
            "a digest's hex decodes back");
  }
}

void hexTextToBinary(const std::string& text) {
  const auto len = static_cast<unsigned>(text.size());
  const unsigned pairs = len / 2;
  std::string expected;
  for (unsigned i = 0; i < pairs; ++i) {
    const int hi = hexValue(static_cast<unsigned char>(text[2 * size_t{i}]));
    const int lo = hexValue(static_cast<unsigned char>(text[2 * size_t{i} + 1]));
    if (hi < 0 || lo < 0) break;
    expected.push_back(static_cast<char>(hi << 4 | lo));
  }
  // An exact copy, so that reading past the given length is seen too.
  Buffer in = exact(len);
  if (len > 0) std::memcpy(in.get(), text.data(), len);

  Buffer out = exact(pairs);
  unsigned n = 0;
  require(!refused([&] { n = KXSys::convertHexToBin(in.get(), len, out.get(), pairs); }),
          "convertHexToBin fits len / 2 bytes");
  require(n == expected.size() && std::memcmp(out.get(), expected.data(), n) == 0,
          "convertHexToBin decodes the leading valid pairs");
  if (pairs > 0) {
    Buffer small = exact(pairs - 1);
    require(refused([&] { KXSys::convertHexToBin(in.get(), len, small.get(), pairs - 1); }),
            "convertHexToBin refuses fewer bytes than pairs");
  }

  const unsigned roomy = std::max<unsigned>(pairs, n + 1);
  Buffer str = exact(roomy);
  unsigned strLen = 0;
  require(!refused([&] { strLen = KXSys::convertHexStrNullToBin(in.get(), len, str.get(), roomy); }),
          "convertHexStrNullToBin fits pairs and terminator");
  require(strLen == std::strlen(expected.c_str()) && std::memcmp(str.get(), expected.data(), strLen) == 0 &&
              str[strLen] == '\0',
          "convertHexStrNullToBin gives the decoded text up to its first zero");
  Buffer cramped = exact(n);
  require(refused([&] { KXSys::convertHexStrNullToBin(in.get(), len, cramped.get(), n); }),
          "convertHexStrNullToBin refuses a buffer without room for the terminator");

  if (len >= 32) {
    Buffer hex32 = exact(32);
    std::memcpy(hex32.get(), text.data(), 32);
    Buffer bin16 = exact(16);
    bool allHex = true;
    for (int i = 0; i < 32; ++i) allHex = allHex && hexValue(hex32[i]) >= 0;
    require(KXHashMD5::convertHexToBin(hex32.get(), bin16.get()) == allHex,
            "a digest decodes exactly when all 32 characters are hex");
    if (allHex) require(std::memcmp(bin16.get(), expected.data(), 16) == 0, "a digest decodes like any hex");
  }
}

void urlRoundTrip(const std::string& url, unsigned char sizeByte) {
  const auto len = static_cast<unsigned>(url.size());
  Buffer in = exact(len + 1);
  std::memcpy(in.get(), url.c_str(), len + 1);

  size_t unsafe = 0, safeBeforeLast = 0;
  for (unsigned i = 0; i < len; ++i) {
    const bool safe = urlSafe(in[i]);
    unsafe += safe ? 0 : 1;
    if (safe && i + 1 < len) ++safeBeforeLast;
  }
  const size_t encodedLen = len + 2 * unsafe;

  // The size callers are told to pass always suffices.
  const unsigned worst = 3 * len + 1;
  Buffer enc = exact(worst);
  unsigned e = 0;
  require(!refused([&] { e = KXSys::encodeURLfromUTF8(in.get(), enc.get(), worst); }),
          "encodeURLfromUTF8 fits 3 * len + 1");
  require(e == encodedLen && enc[e] == '\0', "each byte is copied or escaped as %XX");
  for (unsigned i = 0; i < e; ++i) {
    require(urlSafe(enc[i]) || enc[i] == '%', "the encoding holds safe characters and escapes only");
    if (enc[i] == '%') {
      require(i + 2 < e && oneOf("0123456789ABCDEF", enc[i + 1]) && oneOf("0123456789ABCDEF", enc[i + 2]),
              "escapes are two upper-case hex digits");
      i += 2;
    }
  }
  Buffer dec = exact(len + 1);
  unsigned d = 0;
  require(!refused([&] { d = KXSys::decodeURLtoUTF8(enc.get(), dec.get(), len + 1); }),
          "decoding an encoding fits the original length + 1");
  require(d == len && std::memcmp(dec.get(), in.get(), len + 1) == 0, "encode then decode gives the input back");
  Buffer decShort = exact(len);
  require(refused([&] { KXSys::decodeURLtoUTF8(enc.get(), decShort.get(), len); }),
          "decoding refuses a buffer without room for the terminator");

  // A smaller buffer that still holds the whole encoding: the guard counts
  // copied characters only, so a refusal is allowed exactly when fewer than
  // four places were left by that count before some input byte.
  const unsigned size = static_cast<unsigned>(encodedLen + 1 + sizeByte % (worst - encodedLen));
  Buffer enc2 = exact(size);
  unsigned e2 = 0;
  const bool refusedAtSize = refused([&] { e2 = KXSys::encodeURLfromUTF8(in.get(), enc2.get(), size); });
  require(refusedAtSize == (len > 0 && size <= 3 + safeBeforeLast),
          "encodeURLfromUTF8 refuses exactly as its guard's accounting says");
  if (!refusedAtSize) require(e2 == e && std::memcmp(enc2.get(), enc.get(), e + 1) == 0, "the size does not matter");

  // Decoding arbitrary text, into a fitting buffer, a short one and in place.
  const std::string expected = referenceDecode(url);
  const auto dl = static_cast<unsigned>(expected.size());
  Buffer out = exact(dl + 1);
  unsigned o = 0;
  require(!refused([&] { o = KXSys::decodeURLtoUTF8(in.get(), out.get(), dl + 1); }),
          "decoding fits the decoded length + 1");
  require(o == dl && std::memcmp(out.get(), expected.c_str(), dl + 1) == 0,
          "only %XX with upper-case digits is decoded, all else is copied");
  Buffer outShort = exact(dl);
  require(refused([&] { KXSys::decodeURLtoUTF8(in.get(), outShort.get(), dl); }),
          "decoding refuses a buffer without room for the terminator");
  unsigned inPlace = 0;
  require(!refused([&] { inPlace = KXSys::decodeURLtoUTF8(in.get(), in.get(), len + 1); }), "decoding in place fits");
  require(inPlace == dl && std::memcmp(in.get(), expected.c_str(), dl + 1) == 0, "decoding in place is the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NetLines* sink = [] {
    auto* s = new NetLines;
    KXLog::getLogger()->setLevels("EXCP:9;");
    KXLog::getLogger()->setLogCb(s);
    return s;
  }();
  g_net = sink;
  sink->count = 0;
  if (size < 1) return 0;
  const unsigned char control = data[0];
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);

  binaryToHexAndBack(rest, (control & 1) != 0);
  hexTextToBinary(rest);
  urlRoundTrip(std::string(rest.c_str()), control);
  require(sink->count < 1000, "only NET: lines are logged");
  return 0;
}
