#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CaptureLogCb.h"
#include "Shims.h"
#include "TempDir.h"
#include "utils.h"

namespace {

class Commands : public ::testing::Test {
 protected:
  TempDir tmp{true};
  Shims shims{tmp.path()};
};

TEST_F(Commands, ExecCollectsOutputOnlyOnSuccess) {
  std::vector<std::string> out{"kept"};
  std::string cmd = "false";
  EXPECT_EQ(utils::exec(cmd, out), 1);
  EXPECT_EQ(out, std::vector<std::string>{"kept"});

  cmd = "echo a; echo b";
  EXPECT_EQ(utils::exec(cmd, out), 0);
  EXPECT_EQ(out, (std::vector<std::string>{"kept", "a", "b"}));

  cmd = "echo partial; exit 3";
  EXPECT_EQ(utils::exec(cmd, out), 3);
  EXPECT_EQ(out.size(), 3u);
}

TEST_F(Commands, ExecReportsTheKillingSignal) {
  std::vector<std::string> out;
  std::string cmd = "kill -9 $$";
  EXPECT_EQ(utils::exec(cmd, out), 9);
  EXPECT_TRUE(out.empty());
}

TEST_F(Commands, ExecRunsThroughTheShellFoundInPath) {
  shims.setOutput("hdiutil", "line one\n\nline three\n");
  std::vector<std::string> out;
  std::string cmd = "hdiutil attach x";
  EXPECT_EQ(utils::exec(cmd, out), 0);
  EXPECT_EQ(out, (std::vector<std::string>{"line one", "", "line three"}));
  EXPECT_EQ(shims.calls(), std::vector<std::string>{"hdiutil attach x"});
}

TEST_F(Commands, ExeclogLogsBothStreams) {
  ScopedLogCapture cap;
  std::string cmd = "sh -c \"echo out1; echo; echo err1 >&2; exit 4\"";
  EXPECT_EQ(utils::execlog(cmd), 4);
  const auto lines = cap.sink().lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].message, "exec : " + cmd);
  EXPECT_EQ(lines[1].message, "out1");
  EXPECT_EQ(lines[1].level, "NFY");
  EXPECT_EQ(lines[2].message, "");
  EXPECT_EQ(lines[3].message, "err1");
  EXPECT_EQ(lines[3].level, "ERR");
}

TEST_F(Commands, ExeclogOfAMissingProgramLogsAndReturnsMinusOne) {
  ScopedLogCapture cap;
  std::string cmd = "no-such-program-kx --flag";
  EXPECT_EQ(utils::execlog(cmd), -1);
  ASSERT_FALSE(cap.messages().empty());
  EXPECT_EQ(cap.sink().lines().back().level, "ERR");
}

// ---- disk images ----

TEST_F(Commands, MountTakesTheLastDeviceAndVolume) {
  ScopedLogCapture cap;
  shims.setOutput("hdiutil",
                  "/dev/disk4          \tGUID_partition_scheme          \t\n"
                  "/dev/disk4s1        \tApple_HFS                      \t/Volumes/Agent Setup\n");
  std::string device, pkgPath;
  EXPECT_EQ(utils::mountAndGetPkgPath("set", tmp.file("setup.dmg"), device, pkgPath), 0);
  EXPECT_EQ(device, "/dev/disk4s1");
  EXPECT_EQ(pkgPath, "/Volumes/Agent Setup/set.pkg");
  EXPECT_EQ(shims.calls(), std::vector<std::string>{"hdiutil attach " + tmp.file("setup.dmg") + " -nobrowse"});
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"Mounted device is /dev/disk4", "Mounted device is /dev/disk4s1",
                                                      "PKG path is /Volumes/Agent Setup/set.pkg"}));
}

TEST_F(Commands, MountWithEmptyPackageNameEndsInSlashDotPkg) {
  shims.setOutput("hdiutil", "/dev/disk2s1\t\t/Volumes/X\n");
  std::string device, pkgPath;
  EXPECT_EQ(utils::mountAndGetPkgPath("", "img", device, pkgPath), 0);
  EXPECT_EQ(pkgPath, "/Volumes/X/.pkg");
}

TEST_F(Commands, MountFailuresAndIncompleteOutput) {
  std::string device, pkgPath;
  shims.setStatus("hdiutil", "1");
  EXPECT_EQ(utils::mountAndGetPkgPath("p", "img", device, pkgPath), 1);

  shims.setStatus("hdiutil", "0");
  shims.setOutput("hdiutil", "/dev/disk3\tGUID_partition_scheme\n");
  device.clear();
  EXPECT_EQ(utils::mountAndGetPkgPath("p", "img", device, pkgPath), -1);
  EXPECT_EQ(device, "/dev/disk3");
  EXPECT_TRUE(pkgPath.empty());

  shims.setOutput("hdiutil", "nothing useful\n");
  device.clear();
  EXPECT_EQ(utils::mountAndGetPkgPath("p", "img", device, pkgPath), -1);
}

TEST_F(Commands, MountOfAPathWithBlanksFailsInTheTool) {
  // The path goes to the shell unquoted; the tool sees two arguments.
  shims.setStatus("hdiutil", "1");
  std::string device, pkgPath;
  EXPECT_EQ(utils::mountAndGetPkgPath("p", "/tmp/a b.dmg", device, pkgPath), 1);
  EXPECT_EQ(shims.calls(), std::vector<std::string>{"hdiutil attach /tmp/a b.dmg -nobrowse"});
}

TEST_F(Commands, UnmountReturnsTheRawStatus) {
  EXPECT_EQ(utils::unmount("/dev/disk4s1"), 0);
  shims.setStatus("hdiutil", "1");
  EXPECT_EQ(utils::unmount("/dev/disk4s1"), 256);
  EXPECT_EQ(shims.calls(), (std::vector<std::string>{"hdiutil detach /dev/disk4s1", "hdiutil detach /dev/disk4s1"}));
}

}  // namespace
