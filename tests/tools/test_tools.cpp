#include <gtest/gtest.h>

#include <cstring>

#include "KXException.h"
#include "KXHash.h"
#include "KXSys.h"
#include "KXTerm.h"
#include "TestSupport.h"

// Replaces the library's osal_doSleep for this program: slices are recorded
// instead of slept, and one of 7 ms fails.
std::vector<unsigned int> g_slices;
int osal_doSleep(unsigned int ms) {
  g_slices.push_back(ms);
  return ms == 7 ? -1 : 0;
}

const unsigned char* u(const char* s) { return reinterpret_cast<const unsigned char*>(s); }
std::string str(const void* s) { return static_cast<const char*>(s); }

// Asks to stop from its `checks`+1st look on.
struct StopAfter : KXTermIntf {
  explicit StopAfter(int n) : checks(n) {}
  bool chkTerminate() override { return checks-- <= 0; }
  int checks;
};

// Slices of at most a second, each after a look at the terminator. Rows:
// time, in seconds or not, looks before stopping, result, slices.
TEST(Sleep, SlicesTerminationAndFailure) {
  ScopedLogCapture cap("OSAL:5;");
  const std::tuple<unsigned int, bool, int, int, std::vector<unsigned int>> rows[] = {
      {2500, false, 9, KXSys::SleepDone, {1000, 1000, 500}},   {0, false, 0, KXSys::SleepDone, {}},
      {2500, false, 2, KXSys::SleepInterrupted, {1000, 1000}}, {1007, false, 9, KXSys::SleepFailed, {1000, 7}},
      {5, true, 3, KXSys::SleepInterrupted, {1000}},           {2, true, 9, KXSys::SleepDone, {1000, 1000}}};
  for (const auto& [time, seconds, looks, result, slices] : rows) {
    g_slices.clear();
    StopAfter term(looks);
    EXPECT_EQ(seconds ? KXSys::sleep(time, &term, "s") : KXSys::sleepMs(time, &term, nullptr), result) << time;
    EXPECT_EQ(g_slices, slices) << time;
  }
  EXPECT_EQ(KXSys::sleepMs(1001, nullptr, "no terminator"), KXSys::SleepDone);
  EXPECT_EQ(cap.messages().size(), 14u);  // every sleep, interruption and failure is logged
}

// Per text: the decimal then the hexadecimal value, "-" when refused. Both
// forms of each parser must agree.
TEST(NumberParse, WholeStringOfDigitsWithin64BitsOnly) {
  std::string got;
  for (const char* text :
       {"007", "18446744073709551615", "18446744073709551616", "184467440737095516150", "12a", " 1", "",
        (const char*)nullptr, "ffffffffffffffff", "DeadBeef09", "10000000000000000", "0x10", "g", "G"}) {
    bool ok = false, ok16 = false;
    unsigned long long v = 1, v16 = 1;
    const unsigned long long dec = KXSys::atoll(text, &ok), hex = KXSys::atoll16(text, &ok16);
    EXPECT_TRUE(KXSys::atoll(text, v) == ok && v == dec && KXSys::atoll16(text, v16) == ok16 && v16 == hex) << text;
    got += (ok ? std::to_string(dec) : "-") + "|" + (ok16 ? std::to_string(hex) : "-") + " ";
  }
  EXPECT_EQ(got,
            "7|7 18446744073709551615|- -|- -|- -|298 -|- -|- -|- -|18446744073709551615 -|956397711113 "
            "10000000000000000|- -|- -|- -|- ");
  EXPECT_EQ(KXSys::atoll("42", nullptr) + KXSys::atoll16("42", nullptr), 42u + 0x42u);
}

// Each row: function, input, output size, then "count:output" or, after a
// KXException, its log line and what the output holds. Binary input is the
// text's bytes; the output starts as "#".
TEST(Conversions, TextsAndBufferSizes) {
  const std::tuple<char, const char*, unsigned int, std::string> rows[] = {
      {'h', "0G12", 8, "0:#"},
      {'h', "12G", 8, "1:\x12"},
      {'h', "4a4B5", 2, "2:JK"},                                       // an odd tail is ignored
      {'h', "zzzzzz", 2, "NET: convertHexToBin: Buffer too short:#"},  // the size comes first
      {'z', "abcd", 7, "NET: convertBinToHex: Buffer too short:#"},
      {'z', "", 2, "2:00"},
      {'s', "41420043", 8, "2:AB"},
      {'s', "68747470", 5, "4:http"},
      {'s', "4142", 2, "NET: convertHexStrNullToBin: Buffer too small:AB"},
      {'s', "", 0, "NET: convertHexStrNullToBin: Buffer too small:#"},
      {'d', "a%2Fb%2fc+d", 16, "9:a/b%2fc+d"},
      {'d', "100%%4%G1%1G%%41", 32, "14:100%%4%G1%1G%A"},
      {'d', "a%41c", 4, "3:aAc"},
      {'d', "abcd", 4, "NET: decodeURLtoUTF8: Buffer too short:abc"},
      {'d', "", 0, "NET: decodeURLtoUTF8: Buffer too short:#"},
      {'e', "09AZaz-./_~ +%?&\xC3\xA9", 64, "32:09AZaz-./_~%20%2B%25%3F%26%C3%A9"},
      {'e', "   ", 4, "9:%20%20%20"},  // only copied characters count against the size
      {'e', "abcd", 4, "NET: encodeURLfromUTF8: Buffer too short:a"},
      {'e', "", 0, "NET: encodeURLfromUTF8: Buffer too short:#"}};
  for (const auto& [f, in, size, expected] : rows) {
    ScopedLogCapture cap;
    unsigned char out[64] = {'#'};
    const auto len = static_cast<unsigned int>(strlen(in));
    std::string got;
    try {
      got = std::to_string(f == 'h'   ? KXSys::convertHexToBin(u(in), len, out, size)
                           : f == 'z' ? KXSys::convertBinToHexStrNull(in, len, out, size)
                           : f == 's' ? KXSys::convertHexStrNullToBin(u(in), len, out, size)
                           : f == 'd' ? KXSys::decodeURLtoUTF8(u(in), out, size)
                                      : KXSys::encodeURLfromUTF8(u(in), out, size));
    } catch (const KXException& e) {
      const auto lines = cap.lines();
      EXPECT_TRUE(e.getCode() == 1 && lines.size() == 1 && lines[0].module + lines[0].level == "EXCPERR");
      got = lines.at(0).message;
    }
    EXPECT_EQ(got + ":" + str(out), expected) << f << in;
  }
}

// Every byte through hex (both cases) and URL encoding and back, URL decoding
// in place; 67 characters pass the URL encoding as they are.
TEST(Conversions, EveryByteRoundTrips) {
  unsigned char all[256], hex[512], back[256], url[3 * 255 + 1];
  for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i + 1);
  for (bool lower : {false, true}) {
    EXPECT_EQ(KXSys::convertBinToHex(all, 256, hex, sizeof hex, lower), 512u);
    EXPECT_EQ(KXSys::convertHexToBin(hex, 512, back, 256), 256u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(hex) + 498, 14), lower ? "fafbfcfdfeff00" : "FAFBFCFDFEFF00");
    EXPECT_EQ(0, memcmp(all, back, 256));
  }
  EXPECT_EQ(KXSys::encodeURLfromUTF8(all, url, sizeof url), 3 * 255u - 2 * 67);
  EXPECT_EQ(KXSys::decodeURLtoUTF8(url, url, sizeof url), 255u);
  EXPECT_EQ(0, memcmp(all, url, 256));
}

// Each bad sequence becomes one U+FFFD ("R" here); ASCII between them keeps
// the cases apart.
TEST(Utf8Repair, KeepsWellFormedTextAndReplacesEachBadSequenceOnce) {
  const std::pair<std::string, std::string> rows[] = {
      // 1 to 4 bytes, the lowest three-byte form, the highest code point, the last below the surrogates, U+FDF0
      {"a\xC3\xA9\xE0\xA0\x80\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBD\xED\x9F\xBF\xEF\xB7\xB0", ""},
      // overlong forms, a surrogate, above U+10FFFF, non-characters
      {"\xC0\xAF.\xE0\x80\xAF.\xF0\x80\x80\xAF.\xED\xA0\x80.\xF4\x90\x80\x80.\xEF\xBF\xBE.\xEF\xB7\x90."
       "\xF0\x9F\xBF\xBF",
       "R.R.R.R.R.R.R.R"},
      // cut short, stray continuations, bytes never used, a six-byte form, a lead before a valid pair
      {"\xF0\x9F\x98x\x80\x80.\xFE\xFF.\xFC\x84\x80\x80\x80\x80z\xC3\xC3\xA9.\xF0\x9F\x41\x80\xE2\x82",
       "RxRR.RR.RzR\xC3\xA9.RARR"}};
  for (const auto& [in, out] : rows) {
    std::string fixed = "previous content", expected = out.empty() ? in : out;
    for (size_t at; (at = expected.find('R')) != std::string::npos;) expected.replace(at, 1, "\xEF\xBF\xBD");
    EXPECT_EQ(KXSys::fixedUTF8(u(in.c_str()), fixed), expected);
  }
  const unsigned long long before = KXSys::timeMs(), first = KXSys::getWeakSeqID();
  EXPECT_TRUE(first >= before && first <= KXSys::timeMs() && KXSys::getWeakSeqID() == first + 1);
}

std::string hexOf(KXHashMD5& h) {
  unsigned char hex[33];
  h.getHex(hex);
  return str(hex);
}

// Every entry point on data that crosses the 64-byte block, and a file of
// more read chunks than are read ahead (each chunk's bytes its own); numbers go in as their digits reversed, texts with
// their terminator; a closed hash refuses data, logged, until reset.
TEST(Md5, EveryEntryPointAndState) {
  ScopedLogCapture cap;
  TempDir dir;
  const std::string big = std::string(4096, 'a') + "b", md5 = "106836FAFD099D4BE8EF1E58A2049EA8";
  unsigned char bin[16], hex[4][33];
  unsigned long long hi = 0, lo = 0, onlyLo = 0;
  writeFile(dir.file("f"), big);
  KXHashMD5::computeFileHexHash(u(dir.file("f").c_str()), hex[0]);
  KXHashMD5::computeFileHexHash(u(dir.path().c_str()), hex[1]);  // unreadable: hashed as empty
  KXHashMD5::hexHashForStr(u(big.c_str()), hex[2]);
  KXHashMD5::computeHash("abc", 3, bin, &hi, &lo), KXHashMD5::hashToU64(bin, nullptr, &onlyLo);
  KXHashMD5::convertBinToHex(bin, hex[3]);
  EXPECT_EQ(str(hex[0]) + str(hex[1]) + str(hex[2]) + str(hex[3]),
            md5 + "D41D8CD98F00B204E9800998ECF8427E" + md5 + "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_TRUE(hi == 0x900150983CD24FB0ull && lo == 0xD6963F7D28E17F72ull && onlyLo == lo);
  EXPECT_TRUE(KXHashMD5::convertHexToBin(u("900150983cd24fb0D6963F7D28E17F72"), bin) &&
              memcmp(bin, "\x90\x01\x50", 3) == 0);
  EXPECT_FALSE(KXHashMD5::convertHexToBin(u("900150983CD24FB0D6963F7D28E17F7"), bin));   // 31
  EXPECT_FALSE(KXHashMD5::convertHexToBin(u("900150983CD24FB0D6963F7D28E17FG2"), bin));  // 'G'
  for (unsigned int cut : {0u, 1u, 63u, 64u, 65u, 4097u}) {
    KXHashMD5 h;
    h.update(big.data(), cut), h.update(big.data() + cut, static_cast<unsigned int>(big.size()) - cut);
    EXPECT_EQ(hexOf(h), md5) << cut;
  }
  KXHashMD5 h, fed;
  h.updateWithNum(0), h.updateWithNum(120), h.updateWithNum(123), h.updateWithStr(u("")), h.updateWithStr(u("abc"));
  fed.update("0\0\x30\x32\x31\0\x33\x32\x31\0\0abc", 15);  // "0", "021", "321", "", "abc", each ended by a zero
  EXPECT_EQ(hexOf(h), hexOf(fed));
  EXPECT_THROW(h.updateWithStr(u("x")), KXException);
  EXPECT_THROW(h.updateWithNum(1), KXException);
  EXPECT_EQ(hexOf(h), hexOf(fed));  // read twice, unchanged by the refused data
  EXPECT_EQ(cap.messages(), std::vector<std::string>(2, "NET: Cannot update, bad state"));
  h.reset(), h.update("abc", 3), std::memset(bin, 0, sizeof bin), h.getBin(bin);
  EXPECT_EQ(memcmp(bin, "\x90\x01\x50\x98", 4), 0);
  std::string chunks(5 * 128 * 1024 + 1, '\0');
  for (size_t i = 0; i < chunks.size(); ++i) chunks[i] = static_cast<char>(i >> 12);
  writeFile(dir.file("g"), chunks);
  h.reset(), h.update(chunks.data(), static_cast<unsigned int>(chunks.size()));
  KXHashMD5::computeFileHexHash(u(dir.file("g").c_str()), hex[0]);
  EXPECT_EQ(str(hex[0]), hexOf(h));
}
