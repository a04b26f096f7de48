#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "CaptureLogCb.h"
#include "KXException.h"
#include "TempDir.h"
#include "utils.h"

namespace {

TEST(Codes, ArchitectureTexts) {
  struct {
    const char* text;
    utils::AgentArch arch;
  } cases[] = {{"amd64", utils::X64},     {"x64", utils::X64},     {"x86_64", utils::X64},    {"arm64", utils::Arm64},
               {"aarch64", utils::Arm64}, {"x86", utils::X86},     {"arm", utils::Arm},       {"aarch32", utils::Arm},
               {"armv7l", utils::Arm},    {"myarmv7", utils::Arm}, {"ARM64", utils::Unknown}, {"i386", utils::Unknown},
               {"", utils::Unknown}};
  for (const auto& c : cases) EXPECT_EQ(utils::stringToAgentArch(c.text), c.arch) << c.text;
  EXPECT_STREQ(utils::agentArchToString(utils::X64), "amd64");
  EXPECT_STREQ(utils::agentArchToString(utils::Arm64), "arm64");
  EXPECT_STREQ(utils::agentArchToString(0), "none");
  EXPECT_STREQ(utils::agentArchToString(5), "none");
}

TEST(Codes, PackageKindFromExtension) {
  EXPECT_EQ(utils::stringToAgentDistrib("setup.dmg"), utils::Dmg);
  EXPECT_EQ(utils::stringToAgentDistrib("dmg"), utils::Dmg);
  EXPECT_EQ(utils::stringToAgentDistrib("a.tar.deb"), utils::Deb);
  EXPECT_EQ(utils::stringToAgentDistrib("setup.DMG"), utils::None);
  EXPECT_EQ(utils::stringToAgentDistrib(""), utils::None);
  EXPECT_EQ(utils::stringToAgentDistrib("setup."), utils::None);
  EXPECT_STREQ(utils::agentDistribToString(utils::Spk), "spk");
  EXPECT_STREQ(utils::agentDistribToString(static_cast<utils::AgentDistrib>(7)), "None");
  EXPECT_STREQ(utils::agentOSToString(2), "Macosx");
  EXPECT_STREQ(utils::agentOSToString(0), "Unkown");
}

TEST(Probes, BuildTargetAndConstants) {
  EXPECT_TRUE(utils::getOS() == utils::Macosx || utils::getOS() == utils::Linux);
  EXPECT_FALSE(utils::isSyno());
  EXPECT_TRUE(utils::getSetupVersion("anything").isInvalid());
  EXPECT_FALSE(utils::getArch().empty());
}

TEST(Probes, TempDirHonoursTmpdirAndReportsAMissingOne) {
  TempDir tmp(true);
  EXPECT_EQ(utils::getTempDir(), tmp.path());
  ScopedLogCapture cap;
  setenv("TMPDIR", tmp.file("missing").c_str(), 1);
  EXPECT_EQ(utils::getTempDir(), "");
  ASSERT_EQ(cap.messages().size(), 1u);
  EXPECT_EQ(cap.messages()[0].rfind("getTempDir Error: ", 0), 0u);
}

TEST(Probes, ContentLengthOnlyUnderTwoExactKeys) {
  unsigned long long size = 7;
  EXPECT_EQ(utils::getContentLength({{"content-length", "1234"}}, size), 0);
  EXPECT_EQ(size, 1234u);
  EXPECT_EQ(utils::getContentLength({{"Content-Length", " 42 trailing"}}, size), 0);
  EXPECT_EQ(size, 42u);
  size = 7;
  EXPECT_EQ(utils::getContentLength({{"CONTENT-LENGTH", "5"}, {"Content-length", "5"}}, size), -1);
  EXPECT_EQ(size, 7u);
  EXPECT_THROW(utils::getContentLength({{"Content-Length", "abc"}}, size), std::invalid_argument);
  EXPECT_THROW(utils::getContentLength({{"Content-Length", "99999999999999999999999"}}, size), std::out_of_range);
}

TEST(Probes, DecodeUrlFromHex) {
  EXPECT_EQ(utils::decodeURL("68747470"), "http");
  EXPECT_EQ(utils::decodeURL("687474700041"), "http");  // ends at the first NUL byte
  EXPECT_EQ(utils::decodeURL(""), "");
  const std::string long4095(4095 * 2, '1');
  EXPECT_EQ(utils::decodeURL(long4095).size(), 4095u);
  // More than 8192 digits are cut to 8192, which still decode to 4096 bytes:
  // too many for the buffer.
  EXPECT_THROW(utils::decodeURL(std::string(9000, '1')), KXException);
}

TEST(Probes, Md5OfFilesIsLowerCase) {
  TempDir tmp;
  writeFile(tmp.file("empty"), "");
  writeFile(tmp.file("abc"), "abc");
  EXPECT_EQ(utils::computeMD5(tmp.file("empty")), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(utils::computeMD5(tmp.file("abc")), "900150983cd24fb0d6963f7d28e17f72");
}

}  // namespace
