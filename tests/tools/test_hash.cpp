#include <gtest/gtest.h>

#include <string>

#include "CaptureLogCb.h"
#include "KXException.h"
#include "KXHash.h"
#include "TempDir.h"

namespace {

const unsigned char* u(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

std::string oneShotHex(const std::string& bytes) {
  unsigned char bin[16], hex[33];
  KXHashMD5::computeHash(bytes.data(), static_cast<unsigned int>(bytes.size()), bin, nullptr, nullptr);
  KXHashMD5::convertBinToHex(bin, hex);
  return reinterpret_cast<char*>(hex);
}

std::string hexOf(KXHashMD5& h) {
  unsigned char hex[33];
  h.getHex(hex);
  return reinterpret_cast<char*>(hex);
}

TEST(Md5, Rfc1321SuiteThroughEveryEntryPoint) {
  const struct {
    const char* input;
    const char* md5;
  } suite[] = {
      {"", "D41D8CD98F00B204E9800998ECF8427E"},
      {"a", "0CC175B9C0F1B6A831C399E269772661"},
      {"abc", "900150983CD24FB0D6963F7D28E17F72"},
      {"message digest", "F96B697D7CB7938D525A2F31AAF161D0"},
      {"abcdefghijklmnopqrstuvwxyz", "C3FCD3D76192E4007DFB496CCA67E13B"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "D174AB98D277D9F5A5611C2C9F419D9F"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57EDF4A22BE3C955AC49DA2E2107B67A"},
  };
  for (const auto& c : suite) {
    unsigned char hex[33];
    KXHashMD5::hexHashForStr(u(c.input), hex);
    EXPECT_STREQ(reinterpret_cast<char*>(hex), c.md5) << c.input;
    EXPECT_EQ(oneShotHex(c.input), c.md5) << c.input;
    // Fed in two pieces at every split point: block boundaries must not matter.
    const std::string in = c.input;
    for (size_t cut = 0; cut <= in.size(); ++cut) {
      KXHashMD5 h;
      h.update(in.data(), static_cast<unsigned int>(cut));
      h.update(in.data() + cut, static_cast<unsigned int>(in.size() - cut));
      ASSERT_EQ(hexOf(h), c.md5) << c.input << " cut at " << cut;
    }
  }
}

TEST(Md5, NumbersGoInReversedAndStringsWithTheirTerminator) {
  const struct {
    unsigned long long n;
    std::string bytes;
  } numbers[] = {{0, std::string("0\0", 2)}, {120, std::string("021\0", 4)}, {123, std::string("321\0", 4)}};
  for (const auto& c : numbers) {
    KXHashMD5 h;
    h.updateWithNum(c.n);
    EXPECT_EQ(hexOf(h), oneShotHex(c.bytes)) << c.n;
  }
  KXHashMD5 empty;
  empty.updateWithStr(u(""));
  EXPECT_EQ(hexOf(empty), "93B885ADFE0DA089CDF634904FD59F71");  // one zero byte
  KXHashMD5 abc;
  abc.updateWithStr(u("abc"));
  EXPECT_EQ(hexOf(abc), oneShotHex(std::string("abc\0", 4)));
}

TEST(Md5, ClosedHashRefusesDataUntilReset) {
  ScopedLogCapture cap;
  KXHashMD5 h;
  h.update("abc", 3);
  EXPECT_EQ(hexOf(h), "900150983CD24FB0D6963F7D28E17F72");
  try {
    h.updateWithStr(u("x"));
    FAIL() << "update on a closed hash must throw";
  } catch (const KXException& e) {
    EXPECT_EQ(e.getCode(), 1);
  }
  const auto lines = cap.sink().lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "NET: Cannot update, bad state");
  EXPECT_EQ(lines[0].module + ":" + lines[0].level, "EXCP:ERR");
  EXPECT_EQ(lines[0].file, "basestd/src/tools/KXHash");
  EXPECT_THROW(h.updateWithNum(1), KXException);
  EXPECT_EQ(hexOf(h), "900150983CD24FB0D6963F7D28E17F72");  // read twice, unchanged by the refused data

  h.reset();
  h.update("a", 1);
  h._ends();
  EXPECT_EQ(hexOf(h), "0CC175B9C0F1B6A831C399E269772661");
}

TEST(Md5, DigestSplitsIntoBigEndianHalves) {
  unsigned char bin[16];
  unsigned long long hi = 0, lo = 0, onlyLo = 0;
  KXHashMD5::computeHash("abc", 3, bin, &hi, &lo);
  EXPECT_EQ(hi, 0x900150983CD24FB0ull);
  EXPECT_EQ(lo, 0xD6963F7D28E17F72ull);
  KXHashMD5::hashToU64(bin, nullptr, &onlyLo);
  EXPECT_EQ(onlyLo, lo);
}

TEST(Md5, FileHashMatchesAcrossReadBoundariesAndUnreadableIsEmpty) {
  TempDir dir;
  unsigned char hex[33];
  for (size_t size : {0u, 1u, 4095u, 4096u, 4097u, 3u * 4096u + 5u}) {
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 31 + 7);
    const std::string path = dir.file("f" + std::to_string(size));
    writeFile(path, content);
    KXHashMD5::computeFileHexHash(u(path.c_str()), hex);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(hex)), oneShotHex(content)) << size;
  }
  for (const std::string& path : {dir.file("missing"), dir.path()}) {
    KXHashMD5::computeFileHexHash(u(path.c_str()), hex);
    EXPECT_STREQ(reinterpret_cast<char*>(hex), "D41D8CD98F00B204E9800998ECF8427E") << path;
  }
}

TEST(Md5, HexDigestAcceptsBothCasesAndNeedsAll32Characters) {
  unsigned char bin[16], hex[33];
  ASSERT_TRUE(KXHashMD5::convertHexToBin(u("900150983cd24fb0D6963F7D28E17F72"), bin));
  KXHashMD5::convertBinToHex(bin, hex);
  EXPECT_STREQ(reinterpret_cast<char*>(hex), "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_FALSE(KXHashMD5::convertHexToBin(u("900150983CD24FB0D6963F7D28E17F7"), bin));   // 31
  EXPECT_FALSE(KXHashMD5::convertHexToBin(u("900150983CD24FB0D6963F7D28E17FG2"), bin));  // 'G'
}

}  // namespace
