// The harness itself: what the end-to-end tests rely on when they read a
// run's outcome.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "E2eHarness.h"
#include "TempDir.h"

namespace e2e {
namespace {

RunResult shell(const std::string& script, const std::string& dir, const RunOptions& options = {}) {
  return runProgram("/bin/sh", {"-c", script}, dir, options);
}

TEST(E2eHarness, CapturesStatusBothOutputsAndSignal) {
  TempDir dir;
  RunResult r = shell("printf 'out\\n'; printf 'err\\n' >&2; exit 3", dir.path());
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.signal, 0);
  EXPECT_EQ(r.out, "out\n");
  EXPECT_EQ(r.err, "err\n");
  r = shell("kill -9 $$", dir.path());
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.signal, 9);
  // More than a pipe holds, in both streams at once.
  r = shell("head -c 1000000 /dev/zero; head -c 300000 /dev/zero >&2", dir.path());
  EXPECT_EQ(r.out.size(), 1000000u);
  EXPECT_EQ(r.err.size(), 300000u);
}

TEST(E2eHarness, RunsInTheDirectoryWithTheEnvironmentAsked) {
  TempDir dir;
  setenv("E2E_HARNESS_KEPT", "inherited", 1);
  setenv("E2E_HARNESS_GONE", "inherited", 1);
  RunOptions options;
  options.env["E2E_HARNESS_SET"] = "set";
  options.unsetEnv.push_back("E2E_HARNESS_GONE");
  const RunResult r = shell(
      "pwd; read -r line || echo 'stdin empty'; "
      "echo \"$E2E_HARNESS_KEPT ${E2E_HARNESS_GONE-unset} $E2E_HARNESS_SET\"",
      dir.path(), options);
  unsetenv("E2E_HARNESS_KEPT");
  unsetenv("E2E_HARNESS_GONE");
  EXPECT_EQ(r.out, dir.path() + "\nstdin empty\ninherited unset set\n");
}

TEST(E2eHarness, ThirtyTwoBitPersonalityHidesTheMachine) {
  TempDir dir;
  RunOptions options;
  options.uname32 = true;
  const RunResult r = shell("uname -m", dir.path(), options);
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_NE(r.out, hostArch().machine + "\n");
  EXPECT_NE(r.out, "\n");
}

TEST(E2eHarness, SwitchesUser) {
  if (geteuid() != 0) GTEST_SKIP() << "switching users needs root";
  TempDir dir;
  if (!reachableByAnyone(dir.path())) GTEST_SKIP() << "an unprivileged user cannot reach " << dir.path();
  // The directory is entered as that user.
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  RunOptions options;
  options.user = std::make_pair(uid_t{65534}, gid_t{65534});
  const RunResult r = shell("id -u; id -g; id -G", dir.path(), options);
  EXPECT_EQ(r.out, "65534\n65534\n65534\n") << r;
}

TEST(E2eHarness, AProgramThatCannotStartFailsTheTest) {
  TempDir dir;
  RunResult r;
  EXPECT_NONFATAL_FAILURE(r = runProgram(dir.file("missing"), {}, dir.path()), "cannot run");
  EXPECT_EQ(r.status, 127);
}

TEST(E2eHarness, AHangingProgramIsKilledWithItsChildren) {
  TempDir dir;
  RunOptions options;
  options.timeout = std::chrono::seconds(1);
  RunResult r;
  // The shell leads its own group like the program does, and leaves a child
  // that must not outlive the run.
  EXPECT_NONFATAL_FAILURE(
      r = runProgram("/usr/bin/setsid", {"/bin/sh", "-c", "sleep 600 & echo $!; wait"}, dir.path(), options),
      "still ran after 1 s");
  EXPECT_TRUE(r.timedOut);
  EXPECT_EQ(r.signal, 9);
  const std::string child = r.out.substr(0, r.out.find('\n'));
  ASSERT_FALSE(child.empty());
  // Gone, or a zombie waiting for init. SIGKILL reaches the group at once but
  // takes effect asynchronously, so the child may still show as running for
  // a moment after the run returned.
  const auto dead = [](const std::string& state) { return state.empty() || state.find(") Z ") != std::string::npos; };
  std::string state = readFile("/proc/" + child + "/stat");
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!dead(state) && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::yield();
    state = readFile("/proc/" + child + "/stat");
  }
  EXPECT_TRUE(dead(state)) << state;
}

TEST(E2eHarness, ParsesTheLogLayout) {
  const std::vector<LogLine> log = parseLog(
      "stray text\n"
      "[2026-11-16 00:52:07] - ROOT:ERR - [ (Updater:177)] - Request version_long.txt failed : [404]\n"
      "[2026-11-16 00:52:08] - EXCP:EL2 - [ (KXSys:27)] - NET: two\n"
      "lines\n"
      "\n"
      "[2026-11-16 00:52:09] - ROOT:NFY - [ (UpdaterRun:151)] - \n");
  ASSERT_EQ(log.size(), 4u);
  EXPECT_EQ(log[0].message, "stray text");
  EXPECT_EQ(log[0].module, "");
  EXPECT_EQ(log[1].time, "2026-11-16 00:52:07");
  EXPECT_EQ(log[1].module, "ROOT");
  EXPECT_EQ(log[1].level, "ERR");
  EXPECT_EQ(log[1].file, "Updater");
  EXPECT_EQ(log[1].line, 177);
  EXPECT_EQ(log[1].message, "Request version_long.txt failed : [404]");
  EXPECT_EQ(log[2].message, "NET: two\nlines\n");
  EXPECT_EQ(log[3].message, "");
}

TEST(E2eHarness, ShimsRecordTheirCalls) {
  Sandbox box;
  box.argvShim("installer");
  box.scriptShim("dpkg", "case \"$1\" in -S) exit 1 ;; esac");
  const RunResult r = box.run("/bin/sh", {"-c",
                                          "installer -pkg \"/Volumes/A B/x.pkg\"; echo $?; dpkg -S libX11; echo $?; "
                                          "dpkg -i /x.deb; echo $?; echo \"$TMPDIR $KX_AGENT_INSTANCE\""});
  EXPECT_EQ(r.out, "0\n1\n0\n" + box.dir() + " " + box.instance() + "\n");
  EXPECT_EQ(box.calls(),
            (std::vector<std::string>{"installer [-pkg] [/Volumes/A B/x.pkg]", "dpkg -S libX11", "dpkg -i /x.deb"}));
}

TEST(E2eHarness, HexEncodesEveryByte) {
  EXPECT_EQ(hex("http"), "68747470");
  EXPECT_EQ(hex(std::string("\0\xff", 2)), "00ff");
  EXPECT_EQ(md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(packageBytes(64, 1), packageBytes(64, 1));
  EXPECT_NE(packageBytes(64, 1), packageBytes(64, 2));
}

}  // namespace
}  // namespace e2e
