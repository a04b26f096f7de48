#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "CaptureLogCb.h"
#include "KXException.h"
#include "KXSys.h"

namespace {

const unsigned char* u(const char* s) { return reinterpret_cast<const unsigned char*>(s); }
std::string str(const unsigned char* s, size_t n) { return std::string(reinterpret_cast<const char*>(s), n); }
const char* c(const unsigned char* s) { return reinterpret_cast<const char*>(s); }

// f must log exactly one "NET: " line at EXCP:ERR and throw KXException(1).
void expectBufferTooSmall(const std::function<void()>& f, const std::string& text) {
  ScopedLogCapture cap;
  try {
    f();
    ADD_FAILURE() << "no exception for " << text;
  } catch (const KXException& e) {
    EXPECT_EQ(e.getCode(), 1);
  }
  const auto lines = cap.sink().lines();
  ASSERT_EQ(lines.size(), 1u) << text;
  EXPECT_EQ(lines[0].message, "NET: " + text);
  EXPECT_EQ(lines[0].module + ":" + lines[0].level, "EXCP:ERR");
}

TEST(NumberParse, WholeStringOfDigitsWithin64BitsOnly) {
  const struct {
    bool hex;
    const char* text;
    bool ok;
    unsigned long long value;
  } cases[] = {
      {false, "007", true, 7},
      {false, "18446744073709551615", true, 18446744073709551615ull},
      {false, "18446744073709551616", false, 0},
      {false, "184467440737095516150", false, 0},
      {false, "12a", false, 0},
      {false, "", false, 0},
      {false, " 1", false, 0},
      {false, "+1", false, 0},
      {true, "ffffffffffffffff", true, 0xffffffffffffffffull},
      {true, "DeadBeef", true, 0xdeadbeefull},
      {true, "10000000000000000", false, 0},
      {true, "0x10", false, 0},
      {true, "", false, 0},
  };
  for (const auto& t : cases) {
    bool ok = !t.ok;
    unsigned long long v = 12345;
    if (t.hex) {
      EXPECT_EQ(KXSys::atoll16(t.text, &ok), t.value) << t.text;
      EXPECT_EQ(KXSys::atoll16(t.text, v), t.ok) << t.text;
    } else {
      EXPECT_EQ(KXSys::atoll(t.text, &ok), t.value) << t.text;
      EXPECT_EQ(KXSys::atoll(t.text, v), t.ok) << t.text;
    }
    EXPECT_EQ(ok, t.ok) << t.text;
    EXPECT_EQ(v, t.value) << t.text;
  }
  EXPECT_EQ(KXSys::atoll("42", nullptr), 42u);
  EXPECT_EQ(KXSys::atoll(nullptr, nullptr), 0u);
}

TEST(HexConversion, EveryByteRoundTripsInBothCases) {
  unsigned char all[256], hex[512], back[256];
  for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
  for (bool lower : {false, true}) {
    ASSERT_EQ(KXSys::convertBinToHex(all, 256, hex, sizeof hex, lower), 512u);
    EXPECT_EQ(str(hex + 500, 12), lower ? "fafbfcfdfeff" : "FAFBFCFDFEFF");
    ASSERT_EQ(KXSys::convertHexToBin(hex, 512, back, sizeof back), 256u);
    EXPECT_EQ(0, memcmp(all, back, 256));
  }
  signed char shex[4];
  EXPECT_EQ(KXSys::convertBinToHex("\xab\x01", 2, shex, 4, false), 4u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(shex), 4), "AB01");
}

TEST(HexConversion, DecodingStopsAtTheFirstBadCharacter) {
  unsigned char out[8] = {};
  EXPECT_EQ(KXSys::convertHexToBin(u("0G12"), 4, out, sizeof out), 0u);
  EXPECT_EQ(KXSys::convertHexToBin(u("12G"), 3, out, sizeof out), 1u);
  EXPECT_EQ(out[0], 0x12);
  EXPECT_EQ(KXSys::convertHexToBin(u("12345"), 5, out, 2), 2u);  // odd tail ignored, exact fit
}

TEST(HexConversion, ZeroTerminatedStringsAndTheEmptyOne) {
  unsigned char hex[8] = {};
  EXPECT_EQ(KXSys::convertBinToHexStrNull("", 0, hex, sizeof hex), 2u);
  EXPECT_EQ(str(hex, 2), "00");
  char text[8];
  memset(text, 'x', sizeof text);
  EXPECT_EQ(KXSys::convertHexStrNullToBin(u("00"), 2, text, sizeof text), 0u);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(KXSys::convertHexStrNullToBin(u("41420043"), 8, text, sizeof text), 2u);  // stops at the zero byte
  EXPECT_STREQ(text, "AB");
  EXPECT_EQ(KXSys::convertHexStrNullToBin(u("68747470"), 8, text, 5), 4u);  // room for the terminator only
  EXPECT_STREQ(text, "http");
}

TEST(Conversions, BuffersTooSmallThrowAndLog) {
  unsigned char out[8] = {};
  expectBufferTooSmall([&] { KXSys::convertBinToHex("abcd", 4, out, 7, false); }, "convertBinToHex: Buffer too short");
  expectBufferTooSmall([&] { KXSys::convertBinToHexStrNull("", 0, out, 1); }, "convertBinToHex: Buffer too short");
  // The size is checked before the characters: bad hex throws all the same.
  expectBufferTooSmall([&] { KXSys::convertHexToBin(u("zzzzzz"), 6, out, 2); }, "convertHexToBin: Buffer too short");
  expectBufferTooSmall([&] { KXSys::convertHexStrNullToBin(u("4142"), 4, out, 2); },
                       "convertHexStrNullToBin: Buffer too small");

  memset(out, 0, sizeof out);
  expectBufferTooSmall([&] { KXSys::decodeURLtoUTF8(u("abcd"), out, 4); }, "decodeURLtoUTF8: Buffer too short");
  EXPECT_EQ(str(out, 4), std::string("abc\0", 4));            // what came before the check stays
  EXPECT_EQ(KXSys::decodeURLtoUTF8(u("a%41c"), out, 4), 3u);  // the escape needs one byte

  // Room is checked before each input character and only copied ones
  // count: 4 left lets 'a' in, 3 refuses 'b'; escapes pass for free.
  memset(out, 0, sizeof out);
  expectBufferTooSmall([&] { KXSys::encodeURLfromUTF8(u("abcd"), out, 4); }, "encodeURLfromUTF8: Buffer too short");
  EXPECT_EQ(str(out, 2), std::string("a\0", 2));
  unsigned char wide[16];
  EXPECT_EQ(KXSys::encodeURLfromUTF8(u("   "), wide, 4), 9u);
}

TEST(UrlConversion, DecodesUpperCaseEscapesOnlyAlsoInPlace) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"a%2Fb%2fc+d", "a/b%2fc+d"}, {"100%", "100%"}, {"%4", "%4"},
      {"%G1%1G", "%G1%1G"},         {"%%41", "%A"},   {"%C3%A9", "\xC3\xA9"},
  };
  for (const auto& t : cases) {
    unsigned char out[32], inPlace[32];
    EXPECT_EQ(KXSys::decodeURLtoUTF8(u(t.in), out, sizeof out), strlen(t.out)) << t.in;
    EXPECT_STREQ(c(out), t.out) << t.in;
    strcpy(reinterpret_cast<char*>(inPlace), t.in);
    KXSys::decodeURLtoUTF8(inPlace, inPlace, sizeof inPlace);
    EXPECT_STREQ(c(inPlace), t.out) << t.in;
  }
}

TEST(UrlConversion, EncodesAllButUnreservedAndSlashAndEveryByteRoundTrips) {
  unsigned char out[64];
  EXPECT_EQ(KXSys::encodeURLfromUTF8(u("a b/\xC3\xA9"), out, sizeof out), 12u);
  EXPECT_STREQ(c(out), "a%20b/%C3%A9");
  KXSys::encodeURLfromUTF8(u("09AZaz-./_~+%?&"), out, sizeof out);
  EXPECT_STREQ(c(out), "09AZaz-./_~%2B%25%3F%26");

  unsigned char all[256], encoded[3 * 255 + 1], decoded[256];
  for (int i = 1; i < 256; ++i) all[i - 1] = static_cast<unsigned char>(i);
  all[255] = 0;
  KXSys::encodeURLfromUTF8(all, encoded, sizeof encoded);
  EXPECT_EQ(KXSys::decodeURLtoUTF8(encoded, decoded, sizeof decoded), 255u);
  EXPECT_EQ(0, memcmp(all, decoded, 256));
}

TEST(Utf8Repair, KeepsWellFormedTextAndReplacesEachBadSequenceOnce) {
  const std::string R = "\xEF\xBF\xBD";
  const struct {
    const char* name;
    std::string in;
    std::string out;
  } cases[] = {
      {"valid 1 to 4 bytes", "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {"highest valid", "\xF4\x8F\xBF\xBD", "\xF4\x8F\xBF\xBD"},
      {"overlong C0", "\xC0\xAF", R},
      {"overlong E0", "\xE0\x80\xAF", R},
      {"overlong F0", "\xF0\x80\x80\xAF", R},
      {"surrogate", "\xED\xA0\x80", R},
      {"last before surrogates", "\xED\x9F\xBF", "\xED\x9F\xBF"},
      {"above U+10FFFF", "\xF4\x90\x80\x80", R},
      {"U+FFFE", "\xEF\xBF\xBE", R},
      {"U+FDD0", "\xEF\xB7\x90", R},
      {"U+FDF0 is a character", "\xEF\xB7\xB0", "\xEF\xB7\xB0"},
      {"U+1FFFF", "\xF0\x9F\xBF\xBF", R},
      {"truncated at end", "a\xE2\x82", "a" + R},
      {"truncated before ascii", std::string("\xF0\x9F\x98") + "x", R + "x"},
      {"stray continuations", "\x80\x80", R + R},
      {"FE and FF", "\xFE\xFF", R + R},
      {"six-byte form", std::string("\xFC\x84\x80\x80\x80\x80") + "z", R + "z"},
      {"lead then valid pair", "\xC3\xC3\xA9", R + "\xC3\xA9"},
  };
  for (const auto& t : cases) {
    std::string out = "previous content";
    EXPECT_EQ(KXSys::fixedUTF8(u(t.in.c_str()), out), t.out) << t.name;
  }
}

TEST(WeakSeqId, CountsUpFromTheClock) {
  // Nothing else in this program asks for an id, so this is the first call.
  const unsigned long long before = KXSys::timeMs();
  const unsigned long long first = KXSys::getWeakSeqID();
  EXPECT_GE(first, before);
  EXPECT_LE(first, KXSys::timeMs());
  EXPECT_EQ(KXSys::getWeakSeqID(), first + 1);
}

}  // namespace
