#include <gtest/gtest.h>

#include "CaptureLogCb.h"
#include "Version.h"

namespace {

TEST(VersionParse, FourNumbersAndTrailingText) {
  EXPECT_EQ(Version::parse("7.3.0.12").toString(), "7.3.0.12");
  EXPECT_EQ(Version::parse("7.3.1.0\n").toString(), "7.3.1.0");
  EXPECT_EQ(Version::parse("10.2.0.117 build 5").toString(), "10.2.0.117");
  EXPECT_EQ(Version::parse(" 7. 3.+0.12").toString(), "7.3.0.12");  // as %d skips blanks and takes a sign
}

TEST(VersionParse, IncompleteOrForeignTextIsInvalid) {
  for (const char* text : {"", "7.2", "7.2.0", "abc", "7,3,0,12", "7.3.0.x", "-1.-1.-1.-1", ".7.3.0.12"}) {
    EXPECT_TRUE(Version::parse(text).isInvalid()) << text;
  }
  EXPECT_TRUE(Version::parse(std::string("\0"
                                         "7.3.0.12",
                                         9))
                  .isInvalid());
}

TEST(VersionParse, NegativeComponentsBecomeMinusOne) {
  const Version v = Version::parse("7.2.0.-1");
  EXPECT_FALSE(v.isInvalid());
  EXPECT_EQ(v.toString(), "7.2.0.-1");
  EXPECT_EQ(Version::parse("-5.1.2.3").toString(), "-1.1.2.3");
}

TEST(VersionParse, HugeComponentsSaturate) {
  EXPECT_EQ(Version::parse("99999999999999999999.1.2.3").toString(), "2147483647.1.2.3");
  EXPECT_EQ(Version::parse("1.2.3.-99999999999999999999").toString(), "1.2.3.-1");
}

TEST(VersionCompare, NumericComponentByComponent) {
  EXPECT_TRUE(Version::parse("7.3.0.12") < Version::parse("7.3.1.0"));
  EXPECT_FALSE(Version::parse("7.10.0.0") < Version::parse("7.9.9.9"));
  EXPECT_TRUE(Version::parse("7.3.0.12") == Version::parse("7.3.0.12"));
  EXPECT_TRUE(Version::parse("7.2.0.-1") < Version::parse("7.2.0.0"));
  EXPECT_TRUE(Version(7, 2, 0, 0) <= Version(7, 2, 0, 0));
}

TEST(VersionPrint, StreamsIntoLogMessages) {
  ScopedLogCapture cap;
  const Version v(10, 2, 0, 117);
  KXLOG(KXLM_ROOT, KXLL_NFY, "Available version is " << v);
  KXLOG(KXLM_ROOT, KXLL_NFY, KXStreamLogger::Hex << 255 << " " << v << KXStreamLogger::Dec);
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"Available version is 10.2.0.117", "ff 10.2.0.117"}));
}

}  // namespace
