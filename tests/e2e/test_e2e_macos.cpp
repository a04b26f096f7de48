// The macOS program: server probe, disk image or flat package, launchctl.
#include <string>
#include <vector>

#include "E2eTest.h"

namespace e2e {
namespace {

const char* const kUnload = "launchctl unload /Library/LaunchDaemons/com.kxagent.plist";
const char* const kLoad = "launchctl load /Library/LaunchDaemons/com.kxagent.plist";

// What hdiutil attach prints for an image with one partition: the whole disk
// first, the mounted partition last. The volume name has a blank on purpose.
const char* const kAttachOutput =
    "/dev/disk4          \tGUID_partition_scheme          \t\n"
    "/dev/disk4s1        \tApple_HFS                      \t/Volumes/Kx Agent\n";

class E2eMac : public E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    box.argvShim("installer");
    box.shims().setOutput("hdiutil", kAttachOutput);
  }

  // The legacy layout the probe finds: only the last directory candidate
  // answers, and the second package name ("setup.dmg").
  void publishImage(const std::string& versionText = "7.3.0.0\n") {
    absent("/agent_setup_def.json");
    const Lines& dirs = hostArch().macDirs;
    for (size_t i = 0; i + 1 < dirs.size(); ++i) absent(dirs[i] + "/version_long.txt");
    server.on("/macosx/version_long.txt", Response::text(versionText));
    absent("/macosx/setup.pkg");
    server.on("/macosx/setup.dmg", file(image));
    server.on("/macosx/setup.dmg.md5", Response::text(md5Hex(image) + "  setup.dmg\n"));
  }

  // The probe's requests, then `downloads` downloads.
  Lines imageRequests(int downloads) const {
    Lines r{"GET /agent_setup_def.json"};
    for (const std::string& d : hostArch().macDirs) r.push_back("GET " + d + "/version_long.txt");
    r.push_back("HEAD /macosx/setup.pkg");
    r.push_back("HEAD /macosx/setup.dmg");
    if (downloads > 0) r.push_back("GET /macosx/setup.dmg.md5");
    for (int i = 0; i < downloads; ++i) r.push_back("GET /macosx/setup.dmg");
    return r;
  }

  RunResult update(const std::string& current, Lines options = {}) {
    options.push_back(address());
    options.push_back(current);
    return box.run(macosProgram(), options);
  }

  std::string attachCall() const { return "hdiutil attach " + box.file("setup.dmg") + " -nobrowse"; }

  const std::string image = packageBytes(150000, 7);
};

TEST_F(E2eMac, ProbesTheServerThenInstallsFromTheDiskImage) {
  publishImage();
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), imageRequests(1));
  // The package inside the image is named after the image's first three
  // letters, and its path is quoted for the shell: one argument despite the
  // blank.
  EXPECT_EQ(box.calls(), (Lines{attachCall(), kUnload, "installer [-target] [/] [-pkg] [/Volumes/Kx Agent/set.pkg]",
                                "hdiutil detach /dev/disk4s1", kLoad}));
  EXPECT_EQ(readFile(box.file("setup.dmg")), image);
  EXPECT_TRUE(inOrder(
      box.messages(),
      {"OS is [Macosx]", "Failed to get agent setup definition file - use legacy definition",
       "setup url   = " + url("/macosx/setup.dmg"), "setup path  = " + box.file("setup.dmg"),
       "install cmd = installer -target / -pkg ", "Available version is 7.3.0.0", "Downloaded md5 is " + md5Hex(image),
       "Setup downloaded [150000 bytes]", "Computed md5 is " + md5Hex(image), "Mounted device is /dev/disk4",
       "Mounted device is /dev/disk4s1", "PKG path is /Volumes/Kx Agent/set.pkg", "Agent Stopping ....",
       "Agent Stopped", "Upgrading agent ...'", "Agent Installed", "Agent Started", "Agent Update done"}));
  EXPECT_TRUE(messagesStartingWith(box, "File size for ").empty()) << "the probe's size is used, no second HEAD";
  EXPECT_TRUE(lockExists());
}

TEST_F(E2eMac, DefinitionFileWithAFlatPackage) {
  const std::string arch = std::to_string(hostArch().code);
  const std::string otherArch = hostArch().code == 1 ? "2" : "1";
  server.on("/agent_setup_def.json", Response::text(R"({
      "a-disabled": {"name": "off", "path": "/mac/old", "setup": "setup.dmg", "version": "version_long.txt",
                     "hash": "setup.dmg.md5", "os": 2, "arch": )" +
                                                    arch + R"(, "enable": false},
      "b-other-arch": {"name": "other", "path": "/mac/other", "setup": "setup.dmg", "version": "version_long.txt",
                       "hash": "setup.dmg.md5", "os": 2, "arch": )" +
                                                    otherArch + R"(, "enable": true},
      "c-current": {"name": "mac", "path": "/mac/current", "setup": "setup.pkg", "version": "version_long.txt",
                    "hash": "setup.pkg.md5", "os": 2, "arch": )" +
                                                    arch + R"(, "enable": true},
      "d-later": {"name": "later", "path": "/mac/later", "setup": "later.pkg", "version": "version_long.txt",
                  "hash": "later.pkg.md5", "os": 2, "arch": )" +
                                                    arch + R"(, "enable": true}})"));
  server.on("/mac/current/version_long.txt", Response::text("7.3.0.0"));
  server.on("/mac/current/setup.pkg.md5", Response::text(md5Hex(image) + " setup.pkg"));
  server.on("/mac/current/setup.pkg", file(image));
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(),
            (Lines{"GET /agent_setup_def.json", "GET /mac/current/version_long.txt", "GET /mac/current/setup.pkg.md5",
                   "HEAD /mac/current/setup.pkg", "GET /mac/current/setup.pkg"}));
  EXPECT_EQ(box.calls(), (Lines{kUnload, "installer [-target] [/] [-pkg] [" + box.file("setup.pkg") + "]", kLoad}));
  EXPECT_TRUE(box.logged("Use agent setup definition file"));
  EXPECT_TRUE(box.logged("install cmd = installer -target / -pkg \"" + box.file("setup.pkg") + "\""));
}

TEST_F(E2eMac, SizeRetryAgainstTheProbedSize) {
  publishImage();
  // The probe's HEAD takes the first answer, the downloads the others.
  server.on("/macosx/setup.dmg", {file(image), file(image.substr(0, 149000)), file(image)});
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), imageRequests(2));
  EXPECT_EQ(messagesStartingWith(box, "Downloaded size is "),
            Lines{"Downloaded size is 149000 bytes. Expected size is 150000 bytes - try again"});
  EXPECT_EQ(box.messages().back(), "Agent Update done");
}

TEST_F(E2eMac, RestartOnlyDetachesTheImageWithoutInstalling) {
  publishImage();
  const RunResult r = update("7.2.0.1", {"-S"});
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(box.calls(), (Lines{attachCall(), kUnload, "hdiutil detach /dev/disk4s1", kLoad}));
  EXPECT_FALSE(lockExists());
}

TEST_F(E2eMac, UpToDateNeedsNoSecondVersionRequest) {
  publishImage("7.3.0.0");
  const RunResult r = update("7.3.0.0");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), imageRequests(0));
  EXPECT_EQ(box.messages().back(), "Current version is up to date. Nothing to do");
  EXPECT_TRUE(box.calls().empty());
}

struct AttachCase {
  const char* name;
  std::string status;
  std::string output;
};

class MacAttachFailure : public E2eMac, public ::testing::WithParamInterface<AttachCase> {};

TEST_P(MacAttachFailure, EndsTheRunBeforeTheAgentIsStopped) {
  publishImage();
  box.shims().setStatus("hdiutil", GetParam().status);
  box.shims().setOutput("hdiutil", GetParam().output);
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 9) << r;
  EXPECT_EQ(box.calls(), Lines{attachCall()});
  EXPECT_EQ(box.messages().back(), "Unable to attach setup");
  EXPECT_TRUE(lockExists());
}

INSTANTIATE_TEST_SUITE_P(E2e, MacAttachFailure,
                         ::testing::Values(AttachCase{"ToolFails", "1", kAttachOutput},
                                           AttachCase{"ToolKilled", "kill:9", kAttachOutput},
                                           AttachCase{"NoVolume", "0", "/dev/disk4\tGUID_partition_scheme\t\n"},
                                           AttachCase{"NoDevice", "0", "\t\t/Volumes/Kx Agent\n"},
                                           AttachCase{"NoOutput", "0", ""}),
                         [](const ::testing::TestParamInfo<AttachCase>& info) { return std::string(info.param.name); });

TEST_F(E2eMac, NoDirectoryAnswersTheProbe) {
  absent("/agent_setup_def.json");
  for (const std::string& d : hostArch().macDirs) absent(d + "/version_long.txt");
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 11) << r;
  EXPECT_TRUE(inOrder(box.messages(),
                      {"Failed to get any correct setup paths", "Exception : Failed to get any correct setup paths"}));
  EXPECT_TRUE(lockExists());
}

TEST_F(E2eMac, PackageWithoutSizeFailsTheProbe) {
  publishImage();
  server.on("/macosx/setup.pkg", Response::text("pkg", 200, Fault::NoLength));
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 11) << r;
  Lines expected = imageRequests(0);
  expected.pop_back();  // the probe stops at the first package that answers
  EXPECT_EQ(server.requestLines(), expected);
  EXPECT_EQ(box.messages().back(), "Exception : Failed to get any correct setup paths");
}

}  // namespace
}  // namespace e2e
