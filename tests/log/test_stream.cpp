#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "KXStreamLogger.h"

namespace {

// What the sink would see: the text up to the NUL terminator.
std::string text(KXStreamLogger& s) {
  s << '\0';
  return std::string(s.str().c_str());
}

class Stream : public ::testing::Test {
 protected:
  KXStreamLogger s;
};

TEST_F(Stream, TextsAndNullPointers) {
  const char* nullText = nullptr;
  unsigned char* nullBytes = nullptr;
  std::string str("std");
  s << "a" << nullText << ' ' << nullBytes << static_cast<unsigned char>('z') << str;
  EXPECT_EQ(text(s), "a(null) (null)zstd");
}

TEST_F(Stream, BoolsAndNumbers) {
  s << true << ' ' << false << ' ' << -5 << ' ' << 42ULL << ' ' << static_cast<short>(-3) << ' ' << 1.5;
  EXPECT_EQ(text(s), "true false -5 42 -3 1.5");
}

TEST_F(Stream, PointersPrintWithAtAndLeaveDecimal) {
  s << reinterpret_cast<const void*>(42) << ' ' << static_cast<void*>(nullptr) << ' ' << 42;
  EXPECT_EQ(text(s), "@0x2a @0 42");
}

TEST_F(Stream, BaseStaysInForceAcrossMessages) {
  s << KXStreamLogger::Hex << 255;
  EXPECT_EQ(text(s), "ff");
  s.clear();
  s << 255 << KXStreamLogger::Oct << ' ' << 8 << KXStreamLogger::Dec << ' ' << 8;
  EXPECT_EQ(text(s), "ff 10 8");
}

TEST_F(Stream, UnknownBaseAndSpec) {
  s << static_cast<KXStreamLogger::Base>(5) << static_cast<KXStreamLogger::Spec>(3) << 10;
  EXPECT_EQ(text(s), " < unknown base 5 >  < unknown spec 3 > 10");
  s.clear();
  s << "a" << KXStreamLogger::Endl << "b";
  EXPECT_EQ(text(s), "a\nb");
}

TEST_F(Stream, ClearRewindsWithoutEmptying) {
  s << "longer text";
  s.clear();
  s << "ab";
  EXPECT_EQ(s.str(), "abnger text");
}

TEST_F(Stream, EnumerationNamesAndUnknownValues) {
  s << KX_FILETYPE_DIR << ' ' << KX_FILETYPE_MNTPOINT << ' ' << static_cast<KXFileType>(7) << ' ' << KX_OPENMODE_RDONLY
    << ' ' << static_cast<KXOpenMode>(0) << ' ' << KX_TUNABLE_TYPE_UNDEF << ' ' << static_cast<KXTunableType>(-1);
  EXPECT_EQ(text(s),
            "KX_FILETYPE_DIR KX_FILETYPE_MNTPOINT KX_FILETYPE_UNKNOWN_7 KX_OPENMODE_RDONLY KX_OPENMODE_UNKNOWN_0 "
            "KX_TUNABLE_TYPE_UNDEF KX_TUNABLE_TYPE_UNKNOWN_-1");
}

TEST_F(Stream, UnknownEnumValueIsDecimalEvenInHexMode) {
  s << KXStreamLogger::Hex << static_cast<KXFileType>(26) << ' ' << 255;
  EXPECT_EQ(text(s), "KX_FILETYPE_UNKNOWN_26 ff") << "the base in force is kept for later numbers";
}

TEST_F(Stream, OneHugeMessageDoesNotStayAsTheBuffer) {
  s << std::string(1 << 20, 'x');
  s.clear();
  s << "short";
  EXPECT_EQ(text(s), "short");
  EXPECT_LE(s.str().size(), KXStreamLogger::kKeptBuffer);
}

TEST_F(Stream, TableJoinsWithSeparator) {
  const unsigned char* items[] = {reinterpret_cast<const unsigned char*>("a"), nullptr,
                                  reinterpret_cast<const unsigned char*>("c")};
  s << "[" << KXLogTabl<const unsigned char*>{items, 0, ", "} << "]" << KXLogTabl<const unsigned char*>{items, 1, ", "}
    << "|" << KXLogTabl<const unsigned char*>{items, 3, ", "};
  EXPECT_EQ(text(s), "[]a|a, (null), c");
}

class Printable : public KXStreamLoggerImpl {
 public:
  void print(std::ostringstream& os) const override { os << "printed"; }
};

TEST_F(Stream, AdapterCallsPrint) {
  Printable p;
  s << KXStreamLoggerAdapter{&p} << '/' << p;
  EXPECT_EQ(text(s), "printed/printed");
}

// ---- KXLogBlob ----

const unsigned char kHello[] = "Hello\n";

TEST_F(Stream, BlobEmptyOrNullIsUndef) {
  s << KXLogBlob(nullptr, 5) << ' ' << KXLogBlob(kHello, 0) << ' ' << KXLogBlob(kHello, 0, 0, 1);
  EXPECT_EQ(text(s), "UNDEF UNDEF UNDEF");
}

TEST_F(Stream, BlobInlineIsLowerCaseHexAndRestoresDecimal) {
  const unsigned char bytes[] = {0x00, 0x0a, 0x1b, 0xff};
  s << KXLogBlob(bytes, 3, 1, KXLogBlob::Inline) << ' ' << 255;
  EXPECT_EQ(text(s), "0x0a1bff 255");
}

TEST_F(Stream, BlobTableSixteenBytesIsOneRowWithoutLeadingNewline) {
  const unsigned char bytes[] = "0123456789abcdef";
  s << KXLogBlob(bytes, 16);
  EXPECT_EQ(text(s), "0000   30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66    0123456789abcdef");
}

TEST_F(Stream, BlobTableSeventeenBytesStartsOnANewLine) {
  unsigned char bytes[17];
  for (int i = 0; i < 17; ++i) bytes[i] = static_cast<unsigned char>(i);
  s << KXLogBlob(bytes, 17) << ' ' << 10;
  const std::string pad(15 * 3, ' ');
  EXPECT_EQ(text(s),
            "\n0000   00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F    ................\n"
            "0010   10 " +
                pad + "   . 10");
}

TEST_F(Stream, BlobTableOffsetCountsFromFirstDumpedByte) {
  unsigned char bytes[40] = {};
  std::memcpy(bytes + 18, "Hello\n", 6);
  s << KXLogBlob(bytes, 22, 2);
  const std::string got = text(s);
  EXPECT_NE(got.find("0010   48 65 6C 6C 6F 0A " + std::string(10 * 3, ' ') + "   Hello."), std::string::npos) << got;
}

TEST_F(Stream, BlobUnknownModePrintsNothing) {
  s << "[" << KXLogBlob(kHello, 6, 0, 7) << "]";
  EXPECT_EQ(text(s), "[]");
}

// ---- KXLogHStr ----

TEST_F(Stream, HStrAbbreviatesLongTextsAndQuotesShortOnes) {
  s << KXLogHStr("abcdef", 2, 2) << ' ' << KXLogHStr("abc", 2, 2) << ' ' << KXLogHStr("abcd", 2, 2) << ' '
    << KXLogHStr(nullptr, 2, 2) << ' ' << KXLogHStr("", 0, 0);
  EXPECT_EQ(text(s), "ab...ef \"abc\" ab...cd \"<null>\" ...");
}

TEST_F(Stream, HStrCountsAreSixteenBit) {
  s << KXLogHStr("abcdef", 0x10001, 0x10001);
  EXPECT_EQ(text(s), "a...f");
}

}  // namespace
