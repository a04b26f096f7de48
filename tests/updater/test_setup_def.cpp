#include <gtest/gtest.h>

#include <string>

#include "CaptureLogCb.h"
#include "Updater.h"

namespace {

std::string entry(const std::string& name, int os, int arch, const std::string& setup, bool enable = true,
                  const std::string& path = "/p") {
  return R"({"name":")" + name + R"(","path":")" + path + R"(","setup":")" + setup +
         R"(","version":"version_long.txt","hash":")" + setup + R"(.md5","os":)" + std::to_string(os) + R"(,"arch":)" +
         std::to_string(arch) + R"(,"enable":)" + (enable ? "true" : "false") + "}";
}

class SetupDef : public ::testing::Test {
 protected:
  void on(int os, int arch, int distrib) {
    up.os = os;
    up.arch = arch;
    up.distrib = distrib;
  }
  Updater up;
  ScopedLogCapture cap;
};

TEST_F(SetupDef, FirstFittingEntryWins) {
  on(utils::Macosx, utils::Arm64, utils::None);
  const std::string body = "[" + entry("intel", 2, 1, "x.dmg") + "," + entry("off", 2, 2, "off.dmg", false) + "," +
                           entry("first", 2, 2, "setup.dmg") + "," + entry("second", 2, 2, "other.pkg") + "]";
  const auto def = up.parseAgentSetupCfg(body);
  EXPECT_EQ(def.name, "first");
  EXPECT_EQ(def.setup, "setup.dmg");
  EXPECT_EQ(def.hash, "setup.dmg.md5");
  EXPECT_EQ(def.os, 2);
  EXPECT_TRUE(def.enable);
  EXPECT_TRUE(cap.messages().empty());
}

TEST_F(SetupDef, ObjectTopLevelIsVisitedInKeyOrder) {
  on(utils::Macosx, utils::Arm64, utils::None);
  const std::string body = R"({"b":)" + entry("b", 2, 2, "b.pkg") + R"(,"a":)" + entry("a", 2, 2, "a.pkg") + "}";
  EXPECT_EQ(up.parseAgentSetupCfg(body).name, "a");
}

TEST_F(SetupDef, DisabledOnlyEntryGivesNothing) {
  on(utils::Macosx, utils::Arm64, utils::None);
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("off", 2, 2, "setup.dmg", false) + "]").setup.empty());
  EXPECT_TRUE(up.parseAgentSetupCfg("[]").setup.empty());
  EXPECT_TRUE(up.parseAgentSetupCfg("null").setup.empty());
  EXPECT_TRUE(cap.messages().empty());
}

TEST_F(SetupDef, BadEntryBeforeTheFitSpoilsTheFileAfterItIsNeverRead) {
  on(utils::Macosx, utils::Arm64, utils::None);
  const std::string noHash = R"({"name":"x","path":"/p","setup":"s","version":"v","os":2,"arch":1,"enable":true})";
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + noHash + "," + entry("ok", 2, 2, "setup.dmg") + "]").setup.empty());
  ASSERT_EQ(cap.messages().size(), 1u);
  EXPECT_EQ(cap.messages()[0].rfind("Parsing error : ", 0), 0u);
  EXPECT_NE(cap.messages()[0].find("hash"), std::string::npos);
  cap.sink().reset();
  EXPECT_EQ(up.parseAgentSetupCfg("[" + entry("ok", 2, 2, "setup.dmg") + "," + noHash + "]").name, "ok");
  EXPECT_TRUE(cap.messages().empty());
}

TEST_F(SetupDef, MalformedDocumentsAreParsingErrors) {
  on(utils::Macosx, utils::Arm64, utils::None);
  for (const char* body :
       {"", "{", "[1]", "\"text\"", "[{\"name\":1}]", "// c\n[]",
        R"([{"name":"x","path":"/p","setup":"s","version":"v","hash":"h","os":"2","arch":2,"enable":true}])"}) {
    cap.sink().reset();
    EXPECT_TRUE(up.parseAgentSetupCfg(body).setup.empty()) << body;
    ASSERT_EQ(cap.messages().size(), 1u) << body;
    EXPECT_EQ(cap.messages()[0].rfind("Parsing error : ", 0), 0u) << body;
  }
}

TEST_F(SetupDef, WindowsWantsExeAnywhereInTheName) {
  on(utils::Windows, utils::X64, utils::Exe);
  EXPECT_EQ(up.parseAgentSetupCfg("[" + entry("zip", 1, 1, "setup.exe.zip") + "]").name, "zip");
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("msi", 1, 1, "setup.msi") + "]").setup.empty());
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("mac", 2, 1, "setup.exe") + "]").setup.empty());
  on(utils::Windows, utils::X64, utils::None);
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("w", 1, 1, "setup.exe") + "]").setup.empty());
}

TEST_F(SetupDef, LinuxLooksAtTheEndingNotTheEntrysOs) {
  on(utils::Linux, utils::X64, utils::Deb);
  EXPECT_EQ(up.parseAgentSetupCfg("[" + entry("odd", 2, 1, "setup.deb") + "]").name, "odd");
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("rpm", 3, 1, "setup.rpm") + "]").setup.empty());
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("mid", 3, 1, "setup.deb.old") + "]").setup.empty());
  on(utils::Linux, utils::X64, utils::Rpm);
  EXPECT_EQ(up.parseAgentSetupCfg("[" + entry("rpm", 3, 1, "setup.rpm") + "]").name, "rpm");
  on(utils::Linux, utils::X64, utils::Spk);
  EXPECT_EQ(up.parseAgentSetupCfg("[" + entry("nas", 3, 1, "tova.spk") + "]").name, "nas");
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("short", 3, 1, "spk") + "]").setup.empty());
}

TEST_F(SetupDef, UnknownOsFitsNothing) {
  on(7, utils::X64, utils::Deb);
  EXPECT_TRUE(up.parseAgentSetupCfg("[" + entry("any", 7, 1, "setup.deb") + "]").setup.empty());
}

}  // namespace
