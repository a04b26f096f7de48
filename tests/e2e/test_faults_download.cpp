// Faults of the transfer: bodies cut short, connections reset or refused,
// redirects, and a disk that fills up during the download. Each runs on both
// flows, since the macOS flow learns the package size in its probe and the
// Linux flow with a HEAD of its own.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "FaultTest.h"

namespace e2e {
namespace {

class DownloadFault : public FaultTest, public ::testing::WithParamInterface<Target> {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    target = GetParam();
  }

  std::string packageUrl() const { return url(packagePath()); }
  std::string url(const std::string& path) const { return server.url(path); }

  // A run that ended in the download with result 2: no service call, the
  // lock freed for an early retry.
  void expectDownloadFailed(const RunResult& r) {
    ASSERT_EQ(r.status, 2) << r;
    EXPECT_TRUE(inOrder(box.messages(), {"'Fail to download setup file: [-1]", "Remove lock file"}));
    EXPECT_EQ(box.messages().back(), "Remove lock file");
    EXPECT_TRUE(box.calls().empty());
    EXPECT_FALSE(lockExists());
  }
};

std::string targetName(const ::testing::TestParamInfo<Target>& info) {
  return info.param == Target::Linux ? "Linux" : "Mac";
}

// The transfer itself succeeds, but with a body shorter than the size the
// HEAD announced: the size check catches it and the download is retried.
TEST_P(DownloadFault, TruncatedThreeTimesEndsOnTheSize) {
  publish();
  const std::string shorter = package.substr(0, 150000);
  onPackage({Response::text(package), Response::text(shorter)});
  const RunResult r = update();
  ASSERT_EQ(r.status, 6) << r;
  EXPECT_EQ(server.requestLines(), requests(3));
  EXPECT_EQ(messagesAt(box, "WRN").size(), 4u) << "the legacy layout warning and three size warnings";
  EXPECT_EQ(messagesStartingWith(box, "Downloaded size is "),
            Lines(3, "Downloaded size is 150000 bytes. Expected size is 200000 bytes - try again"));
  EXPECT_EQ(box.messages().back(), "Invalid setup size");
  EXPECT_TRUE(readFile(setupFile()) == shorter) << "a file of the wrong size stays";
  EXPECT_TRUE(box.calls().empty());
  EXPECT_TRUE(lockExists());
}

TEST_P(DownloadFault, TruncatedTwiceThenWholeInstallsTheExactPackage) {
  publish();
  onPackage({Response::text(package), Response::text(package.substr(0, 1000)),
             Response::text(package.substr(0, package.size() - 1)), Response::text(package)});
  const RunResult r = update();
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), requests(3));
  EXPECT_EQ(messagesStartingWith(box, "Downloaded size is "),
            (Lines{"Downloaded size is 1000 bytes. Expected size is 200000 bytes - try again",
                   "Downloaded size is 199999 bytes. Expected size is 200000 bytes - try again"}));
  EXPECT_TRUE(box.logged("Computed md5 is " + packageMd5));
  EXPECT_TRUE(readFile(setupFile()) == package) << "the third download did not give the published bytes";
  EXPECT_EQ(box.calls(), updateCalls());
  EXPECT_TRUE(restartedAfterEveryStop(box.calls()));
  EXPECT_EQ(box.messages().back(), "Agent Update done");
}

// The connection ends before the announced length: a transfer error, which
// is not retried. The partial file stays on disk.
TEST_P(DownloadFault, BodyEndingBeforeItsLengthIsNotRetried) {
  publish();
  Response cut = Response::text(package, 200, Fault::ShortBody);
  cut.cut = 120000;
  onPackage({Response::text(package), cut});
  const RunResult r = update();
  expectDownloadFailed(r);
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_TRUE(box.logged("Request " + packageUrl() + " failed : [18] -> Transferred a partial file"));
  EXPECT_TRUE(readFile(setupFile()) == package.substr(0, 120000)) << "the partial file stays";
}

TEST_P(DownloadFault, ConnectionResetMidBodyIsNotRetried) {
  publish();
  Response reset = Response::text(package, 200, Fault::Reset);
  reset.cut = 120000;
  onPackage({Response::text(package), reset});
  const RunResult r = update();
  expectDownloadFailed(r);
  EXPECT_EQ(server.requestLines(), requests(1));
  // How much arrived before the reset, and so which error libcurl names,
  // depends on timing; that the request failed does not.
  EXPECT_EQ(messagesStartingWith(box, "Request " + packageUrl() + " failed : [").size(), 1u);
  EXPECT_LE(readFile(setupFile()).size(), 120000u);
}

// Nothing listens: every request fails at once and the agent is never
// touched. The Linux flow ends on the version file (2), the macOS flow in
// its probe (11).
TEST_P(DownloadFault, ConnectionRefusedNeverStopsTheAgent) {
  // Bound but not listening: connections are refused, and no other process
  // can take the port meanwhile.
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  const std::string base = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
  const RunResult r = run({hex(base), "7.2.0.1"});
  close(fd);
  const std::string refused = "Request " + base + "/agent_setup_def.json failed : [7] -> ";
  EXPECT_EQ(messagesStartingWith(box, refused).size(), 1u);
  EXPECT_TRUE(box.logged("Failed to get agent setup definition file - use legacy definition"));
  if (target == Target::Linux) {
    ASSERT_EQ(r.status, 2) << r;
    EXPECT_EQ(box.messages().back(), "Remove lock file");
    EXPECT_TRUE(box.logged("Failed to download version:  [-1]"));
    EXPECT_FALSE(lockExists());
  } else {
    ASSERT_EQ(r.status, 11) << r;
    EXPECT_EQ(box.messages().back(), "Exception : Failed to get any correct setup paths");
    EXPECT_EQ(messagesStartingWith(box, "Request " + base + "/macosx").size(), hostArch().macDirs.size());
    EXPECT_TRUE(lockExists());
  }
  EXPECT_TRUE(box.calls().empty());
  EXPECT_TRUE(server.requestLines().empty());
}

// ---- redirects -------------------------------------------------------------

TEST_P(DownloadFault, RedirectLoopEndsAfterFiftyHops) {
  publish();
  onPackage({Response::text(package), Response::redirect("/loop")});
  server.on("/loop", Response::redirect("/loop"));
  const RunResult r = update();
  expectDownloadFailed(r);
  Lines expected = requests(1);
  expected.insert(expected.end(), 50, "GET /loop");
  EXPECT_EQ(server.requestLines(), expected);
  EXPECT_EQ(messagesStartingWith(box, "Request " + packageUrl() + " failed : [47] -> ").size(), 1u);
  EXPECT_EQ(readFile(setupFile()), "") << "no redirect body is written";
}

TEST_P(DownloadFault, ChainOfFortyNineHopsIsFollowed) {
  publish();
  const std::string real = "/real/" + setupName();
  onPackage({Response::redirect("/hop/1")});
  for (int i = 1; i < 48; ++i) {
    server.on("/hop/" + std::to_string(i), Response::redirect("/hop/" + std::to_string(i + 1)));
  }
  server.on("/hop/48", Response::redirect(real));
  server.on(real, Response::text(package));
  const RunResult r = update();
  ASSERT_EQ(r.status, 0) << r;
  const Lines lines = server.requestLines();
  // The size request and the download each walk the whole chain.
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "GET /hop/48"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "HEAD /hop/48"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "GET " + real), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "HEAD " + real), 1);
  EXPECT_EQ(lines.size(), requests(1).size() + 2 * 49);
  EXPECT_TRUE(readFile(setupFile()) == package);
  EXPECT_EQ(box.calls(), updateCalls());
}

TEST_P(DownloadFault, RedirectToAnotherPortIsFollowed) {
  publish();
  TestServer mirror;
  mirror.failOnUnexpected();
  mirror.on("/mirror/" + setupName(), Response::text(package));
  onPackage({Response::redirect(mirror.url("/mirror/" + setupName()))});
  const RunResult r = update();
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_EQ(mirror.requestLines(), (Lines{"HEAD /mirror/" + setupName(), "GET /mirror/" + setupName()}));
  EXPECT_TRUE(readFile(setupFile()) == package);
  EXPECT_EQ(box.calls(), updateCalls());
  EXPECT_TRUE(restartedAfterEveryStop(box.calls()));
}

// A server must not make the program read a local file through a redirect:
// the canary holds a version that would start an update.
TEST_P(DownloadFault, RedirectToALocalFileIsRefused) {
  publish();
  onVersion(Response::redirect("file://" + canary()));
  const RunResult r = update();
  EXPECT_FALSE(box.logged("Available version is 9.9.9.9"));
  EXPECT_FALSE(messagesStartingWith(box, "Request " + url(versionPath()) + " failed : [1] -> ").empty());
  if (target == Target::Linux) {
    ASSERT_EQ(r.status, 2) << r;
    EXPECT_TRUE(box.logged("Failed to download version:  [-1]"));
  } else {
    ASSERT_EQ(r.status, 11) << r;
    EXPECT_EQ(box.messages().back(), "Exception : Failed to get any correct setup paths");
  }
  EXPECT_TRUE(box.calls().empty());
}

// ---- a full disk ---------------------------------------------------------------

// The write fails part way (EFBIG under the file size limit, as ENOSPC on a
// full disk): libcurl stops the transfer, the run ends with a clear result
// and the agent is never touched.
TEST_P(DownloadFault, FileSizeLimitDuringTheDownload) {
  publish();
  RunOptions options;
  options.fileSizeLimit = 100000;
  const RunResult r = update("7.2.0.1", {}, options);
  EXPECT_EQ(r.signal, 0) << r;
  expectDownloadFailed(r);
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_EQ(messagesStartingWith(box, "Request " + packageUrl() + " failed : [23] -> ").size(), 1u);
  EXPECT_LE(readFile(setupFile()).size(), 100000u);
}

INSTANTIATE_TEST_SUITE_P(Fault, DownloadFault, ::testing::Values(Target::Linux, Target::Mac), targetName);

// A real full disk (ENOSPC): a small one as the temporary directory, shared
// by the lock, the log and the package. It vanishes with the run, so the run
// is followed through its echo (-D).
class SmallDiskFault : public FaultTest {};

TEST_F(SmallDiskFault, FullDuringTheDownloadEndsCleanly) {
  if (!privateMountsAvailable()) GTEST_SKIP() << "no private mount namespace here for a small disk";
  publish();
  const std::string disk = box.file("disk");
  ASSERT_EQ(mkdir(disk.c_str(), 0755), 0);
  RunOptions options;
  options.smallDisk = std::make_pair(disk, size_t{64 * 1024});
  options.env["TMPDIR"] = disk;
  const RunResult r = update("7.2.0.1", {"-D"}, options);
  ASSERT_EQ(r.status, 2) << r;
  const std::vector<LogLine> echo = parseLog(r.out);
  Lines messages;
  for (const LogLine& l : echo) messages.push_back(l.message);
  EXPECT_TRUE(
      inOrder(messages, {"tempdir is [" + disk + "]", "File size for " + server.url(packagePath()) + " is 200000 bytes",
                         "'Fail to download setup file: [-1]", "Remove lock file"}));
  EXPECT_TRUE(boost::filesystem::is_empty(disk)) << "the small disk and all on it went with the run";
  bool writeError = false;
  for (const std::string& m : messages) {
    if (m.rfind("Request " + server.url(packagePath()) + " failed : [23] -> ", 0) == 0) writeError = true;
  }
  EXPECT_TRUE(writeError) << r;
  EXPECT_TRUE(box.calls().empty());
  EXPECT_EQ(server.requestLines(), requests(1));
}

}  // namespace
}  // namespace e2e
