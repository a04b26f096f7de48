#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CaptureLogCb.h"
#include "Shims.h"
#include "TempDir.h"
#include "Updater.h"

namespace {

using Calls = std::vector<std::string>;

class Install : public ::testing::Test {
 protected:
  void SetUp() override {
    p.stopCmd = "systemctl stop kxagent";
    p.startCmd = "systemctl start kxagent";
    p.installCmd = "dpkg -i /tmp/setup.deb";
    up.os = utils::Linux;
    up.distrib = utils::Deb;
  }

  TempDir tmp{true};
  Shims shims{tmp.path()};
  ScopedLogCapture cap;
  Updater up;
  utils::SetuParameter p;
  const Version v71{7, 1, 5, 3}, v72{7, 2, 0, 0}, v721{7, 2, 0, 1}, v73{7, 3, 0, 0};
};

TEST_F(Install, StopInstallStart) {
  up.installAgent(p, v721, v73);
  EXPECT_EQ(shims.calls(), (Calls{"systemctl stop kxagent", "dpkg -i /tmp/setup.deb", "systemctl start kxagent"}));
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"Agent Stopping ....", "Agent Stopped", "Upgrading agent ...'",
                                                      "Agent Installed", "Agent Started"}));
}

TEST_F(Install, FailuresAreLoggedWithTheRawStatusAndTheAgentStillStarts) {
  shims.setStatus("systemctl", "3");
  shims.setStatus("dpkg", "1");
  up.installAgent(p, v721, v73);
  EXPECT_EQ(shims.calls(), (Calls{"systemctl stop kxagent", "dpkg -i /tmp/setup.deb", "systemctl start kxagent"}));
  EXPECT_TRUE(cap.contains("Fail to stop agent: [768]"));
  EXPECT_TRUE(cap.contains("Fail to install agent : [256]"));
  EXPECT_TRUE(cap.contains("Fail to re-start agent : [768]"));
}

TEST_F(Install, KilledInstallerStillRestartsTheAgent) {
  shims.setStatus("dpkg", "kill:9");
  up.installAgent(p, v721, v73);
  EXPECT_EQ(shims.calls().back(), "systemctl start kxagent");
  bool reported = false;
  for (const auto& m : cap.messages()) reported |= m.rfind("Fail to install agent : [", 0) == 0;
  EXPECT_TRUE(reported);
}

TEST_F(Install, RestartOnlySkipsTheInstallButDetachesTheImage) {
  Updater restart(true);
  restart.os = utils::Macosx;
  restart.distrib = utils::Dmg;
  p.stopCmd = "launchctl unload x.plist";
  p.startCmd = "launchctl load x.plist";
  p.installCmd = "installer -target / -pkg \"/Volumes/A/set.pkg\"";
  p.mountedDevice = "/dev/disk4s1";
  restart.installAgent(p, v721, v73);
  EXPECT_EQ(shims.calls(),
            (Calls{"launchctl unload x.plist", "hdiutil detach /dev/disk4s1", "launchctl load x.plist"}));
  EXPECT_FALSE(cap.contains("Upgrading agent ...'"));
}

TEST_F(Install, DisplayLibrariesOnlyWhenCrossingSevenTwo) {
  up.installAgent(p, v71, v73);
  Calls calls = shims.calls();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls[1], "dpkg -S libX11");
  EXPECT_EQ(calls[2].rfind("apt-get install -y libxrender1 libxcb1 ", 0), 0u) << calls[2];
  EXPECT_EQ(calls[3], "dpkg -i /tmp/setup.deb");
  EXPECT_TRUE(cap.contains("Found x11"));
  EXPECT_TRUE(cap.contains("Install xcb dependencies0"));

  for (const auto& range : {std::make_pair(v721, v73), std::make_pair(v71, Version(7, 1, 9, 9))}) {
    writeFile(shims.recordFile(), "");
    up.installAgent(p, range.first, range.second);
    EXPECT_EQ(shims.calls().size(), 3u);
  }
  writeFile(shims.recordFile(), "");
  up.installAgent(p, v72, v72);  // both bounds are inclusive
  EXPECT_EQ(shims.calls().size(), 5u);

  writeFile(shims.recordFile(), "");
  up.os = utils::Macosx;
  up.installAgent(p, v71, v73);
  EXPECT_EQ(shims.calls().size(), 3u);
}

TEST_F(Install, DisplayLibrariesSkippedWithoutX11OrForOtherPackages) {
  shims.setStatus("dpkg", "1");
  up.installXCBDeps();
  EXPECT_EQ(shims.calls(), Calls{"dpkg -S libX11"});
  EXPECT_TRUE(cap.contains("X11 not found"));

  writeFile(shims.recordFile(), "");
  up.distrib = utils::Rpm;
  up.installXCBDeps();
  EXPECT_EQ(shims.calls().size(), 2u);
  EXPECT_EQ(shims.calls()[0], "rpm -q libX11");
  EXPECT_EQ(shims.calls()[1].rfind("dnf install -y libXrender libxcb xcb-util ", 0), 0u);

  writeFile(shims.recordFile(), "");
  up.distrib = utils::Spk;
  cap.sink().reset();
  up.installXCBDeps();
  EXPECT_TRUE(shims.calls().empty());
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"installXCBDeps ...", "X11 not found"}));
}

TEST(InstallLines, KeepTheirExactBlanksAndTabs) {
  std::string apt = "apt-get install -y";
  for (const char* name : {"libxrender1",        "libxcb1",        "libxcb-render0", "libxcb-render-util0",
                           "libxcb-shape0",      "libxcb-randr0",  "libxcb-xfixes0", "libxcb-xkb1",
                           "libxcb-sync1",       "libxcb-shm0",    "libxcb-icccm4",  "libxcb-keysyms1",
                           "libxcb-image0",      "libxcb-util1",   "libxcb-cursor0", "libxkbcommon0",
                           "libxkbcommon-x11-0", "libfontconfig1", "libfreetype6",   "libxext6",
                           "libx11-xcb1",        "libsm6",         "libice6"}) {
    apt += std::string(13, ' ') + name;
  }
  EXPECT_EQ(Updater::aptXcbLine(), apt);

  const std::vector<std::string> rpms = {"libXrender",      "libxcb",
                                         "xcb-util",        "xcb-util-keysyms",
                                         "xcb-util-image",  "xcb-util-renderutil",
                                         "xcb-util-cursor", "xcb-util-wm",
                                         "libxkbcommon",    "libxkbcommon-x11",
                                         "fontconfig",      "freetype",
                                         "libXext",         "libX11-xcb",
                                         "libSM",           "libICE"};
  std::string dnf = "dnf install -y ";
  for (size_t i = 0; i < rpms.size(); ++i) dnf += "\t\t\t" + rpms[i] + (i + 1 < rpms.size() ? " " : "");
  EXPECT_EQ(Updater::dnfXcbLine(), dnf);
}

}  // namespace
