// The Linux program (deb packages here, since this machine has dpkg) from the
// version check to the restarted agent.
#include <string>
#include <vector>

#include "E2eTest.h"

namespace e2e {
namespace {

const char* const kDisplayPackages[] = {"libxrender1",        "libxcb1",        "libxcb-render0", "libxcb-render-util0",
                                        "libxcb-shape0",      "libxcb-randr0",  "libxcb-xfixes0", "libxcb-xkb1",
                                        "libxcb-sync1",       "libxcb-shm0",    "libxcb-icccm4",  "libxcb-keysyms1",
                                        "libxcb-image0",      "libxcb-util1",   "libxcb-cursor0", "libxkbcommon0",
                                        "libxkbcommon-x11-0", "libfontconfig1", "libfreetype6",   "libxext6",
                                        "libx11-xcb1",        "libsm6",         "libice6"};

// The apt-get call as the shim records it: the shell has folded the blanks.
std::string aptCall() {
  std::string call = "apt-get install -y";
  for (const char* p : kDisplayPackages) call += std::string(" ") + p;
  return call;
}

class E2eLinux : public E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    dir = hostArch().linuxDir;
  }

  // The legacy layout: no definition file, the version file, the package and
  // its sum in the architecture's directory.
  void publish(const std::string& versionText) {
    absent("/agent_setup_def.json");
    server.on(dir + "/version_long.txt", Response::text(versionText));
    server.on(dir + "/setup.deb.md5", Response::text(md5Hex(package) + "  setup.deb\n"));
    server.on(dir + "/setup.deb", file(package));
  }

  RunResult update(const std::string& current, Lines options = {}) {
    options.push_back(address());
    options.push_back(current);
    return box.run(linuxProgram(), options);
  }

  std::string setupPath() const { return box.file("setup.deb"); }
  std::string setupUrl() const { return url(dir + "/setup.deb"); }

  // The requests of a run that gets as far as `downloads` downloads.
  Lines requests(int downloads) const {
    Lines r{"GET /agent_setup_def.json", "GET " + dir + "/version_long.txt", "GET " + dir + "/setup.deb.md5",
            "HEAD " + dir + "/setup.deb"};
    for (int i = 0; i < downloads; ++i) r.push_back("GET " + dir + "/setup.deb");
    return r;
  }

  Lines serviceCalls() const { return {"systemctl stop kxagent", "dpkg -i " + setupPath(), "systemctl start kxagent"}; }

  std::string dir;
  const std::string package = packageBytes(100000);
  const std::string packageMd5 = md5Hex(package);
};

TEST_F(E2eLinux, InstallsANewerVersionFromTheLegacyLayout) {
  publish("7.3.0.0\n");
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_EQ(box.calls(), serviceCalls());
  EXPECT_EQ(readFile(setupPath()), package);
  EXPECT_EQ(r.out, "") << "the log goes to the file only without -D";
  EXPECT_TRUE(inOrder(box.messages(), {"Check Update",
                                       "Current version : 7.2.0.1",
                                       "Udpate server : " + url(""),
                                       "Lock file is [" + box.lockFile() + "]",
                                       "OS is [Linux]",
                                       "distrib is [deb]",
                                       "tempdir is [" + box.dir() + "]",
                                       "arch  is [" + hostArch().machine + "]",
                                       "Failed to get agent setup definition file - use legacy definition",
                                       "version url = " + url(dir + "/version_long.txt"),
                                       "setup url   = " + setupUrl(),
                                       "setup path  = " + setupPath(),
                                       "hash url    = " + setupUrl() + ".md5",
                                       "star cmd    = systemctl start kxagent",
                                       "stop cmd    = systemctl stop kxagent",
                                       "install cmd = dpkg -i " + setupPath(),
                                       "Available version is 7.3.0.0",
                                       "Downloaded md5 is " + packageMd5,
                                       "File size for " + setupUrl() + " is 100000 bytes",
                                       "Setup downloaded [100000 bytes]",
                                       "Computed md5 is " + packageMd5,
                                       "Agent Stopping ....",
                                       "Agent Stopped",
                                       "Upgrading agent ...'",
                                       "Agent Installed",
                                       "Agent Started",
                                       "Agent Update done"}));
  EXPECT_EQ(box.messages().back(), "Agent Update done");
  EXPECT_EQ(messagesAt(box, "ERR"), Lines{"Request " + url("/agent_setup_def.json") + " failed : [404]"});
  EXPECT_TRUE(lockExists()) << "a finished update keeps the lock for the hour";
}

TEST_F(E2eLinux, DefinitionFileNamesThePackage) {
  // The entry's os is not looked at on Linux: a deb entry marked for macOS fits.
  const int otherArch = hostArch().code == 1 ? 2 : 1;
  server.on("/agent_setup_def.json", Response::text(R"([
      {"name": "rpm", "path": "/agents/rpm", "setup": "agent.rpm", "version": "v.txt", "hash": "agent.rpm.md5",
       "os": 3, "arch": )" + std::to_string(hostArch().code) +
                                                    R"(, "enable": true},
      {"name": "other", "path": "/agents/other", "setup": "agent.deb", "version": "v.txt", "hash": "agent.deb.md5",
       "os": 3, "arch": )" + std::to_string(otherArch) +
                                                    R"(, "enable": true},
      {"name": "deb", "path": "/agents/deb", "setup": "agent.deb", "version": "v.txt", "hash": "agent.deb.md5",
       "os": 2, "arch": )" + std::to_string(hostArch().code) +
                                                    R"(, "enable": true}])"));
  server.on("/agents/deb/v.txt", Response::text("7.3.0.0"));
  server.on("/agents/deb/agent.deb.md5", Response::text(packageMd5 + " agent.deb"));
  server.on("/agents/deb/agent.deb", file(package));
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(),
            (Lines{"GET /agent_setup_def.json", "GET /agents/deb/v.txt", "GET /agents/deb/agent.deb.md5",
                   "HEAD /agents/deb/agent.deb", "GET /agents/deb/agent.deb"}));
  EXPECT_EQ(box.calls(),
            (Lines{"systemctl stop kxagent", "dpkg -i " + box.file("agent.deb"), "systemctl start kxagent"}));
  EXPECT_TRUE(box.logged("Use agent setup definition file"));
}

// ---- versions ---------------------------------------------------------------

struct VersionCase {
  const char* name;
  std::string current;
  std::string published;
  int status;
  std::string lastMessage;
};

class LinuxVersions : public E2eLinux, public ::testing::WithParamInterface<VersionCase> {};

TEST_P(LinuxVersions, DecideWhetherToUpdate) {
  const VersionCase& c = GetParam();
  publish(c.published);
  const RunResult r = update(c.current);
  ASSERT_EQ(r.status, c.status) << r;
  ASSERT_FALSE(box.messages().empty());
  EXPECT_EQ(box.messages().back(), c.lastMessage);
  const bool updated = c.lastMessage == "Agent Update done";
  EXPECT_EQ(box.calls(), updated ? serviceCalls() : Lines{});
  if (c.status == 4) {
    EXPECT_TRUE(server.requestLines().empty()) << "the current version is checked before asking the server";
  }
  EXPECT_TRUE(lockExists());
}

INSTANTIATE_TEST_SUITE_P(
    E2e, LinuxVersions,
    ::testing::Values(
        VersionCase{"Equal", "7.3.0.12", "7.3.0.12", 0, "Current version is up to date. Nothing to do"},
        VersionCase{"NewerThird", "7.3.0.12", "7.3.1.0", 0, "Agent Update done"},
        VersionCase{"ComparedAsNumbers", "7.10.0.0", "7.9.9.9", 0, "Current version is up to date. Nothing to do"},
        VersionCase{"NegativeFourthIsBelowZero", "7.3.0.-1", "7.3.0.0", 0, "Agent Update done"},
        VersionCase{"HugeCurrent", "99999999999.0.0.0", "7.3.0.0", 0, "Current version is up to date. Nothing to do"},
        VersionCase{"HugePublished", "7.3.0.0", "7.3.0.99999999999999999999", 0, "Agent Update done"},
        VersionCase{"TrailingTextInTheFile", "7.2.0.1", "7.3.0.0 build 42\nnotes\n", 0, "Agent Update done"},
        VersionCase{"CurrentWithTwoParts", "7.2", "7.3.0.0", 4, "Invalid current version 7.2"},
        VersionCase{"CurrentNotANumber", "abc", "7.3.0.0", 4, "Invalid current version abc"},
        VersionCase{"CurrentEmpty", "", "7.3.0.0", 4, "Invalid current version "},
        VersionCase{"CurrentAllNegative", "-1.-2.-3.-4", "7.3.0.0", 4, "Invalid current version -1.-2.-3.-4"},
        VersionCase{"PublishedWithTwoParts", "7.2.0.0", "7.3", 5, "Invalid version_long.txt 7.3"},
        VersionCase{"PublishedEmpty", "7.2.0.0", "", 5, "Invalid version_long.txt "},
        VersionCase{"PublishedBinary", "7.2.0.0", std::string("\x01\xff\xfe\x80", 4), 5,
                    "Invalid version_long.txt \\x01\xff\xfe\x80"},
        VersionCase{"PublishedWithANulByte", "7.2.0.0",
                    std::string("\0"
                                "7.3.0.0",
                                8),
                    5, "Invalid version_long.txt \\x007.3.0.0"}),
    [](const ::testing::TestParamInfo<VersionCase>& info) { return std::string(info.param.name); });

// ---- display libraries --------------------------------------------------------

struct DisplayCase {
  const char* name;
  std::string current;
  std::string published;
  bool x11Installed;
  bool checked;    // the dependency step runs
  bool installed;  // and installs the libraries
};

class LinuxDisplayLibraries : public E2eLinux, public ::testing::WithParamInterface<DisplayCase> {};

TEST_P(LinuxDisplayLibraries, OnlyWhenCrossingSevenTwo) {
  const DisplayCase& c = GetParam();
  publish(c.published);
  if (!c.x11Installed) box.scriptShim("dpkg", "case \"$1\" in -S) exit 1 ;; esac");
  const RunResult r = update(c.current);
  ASSERT_EQ(r.status, 0) << r;
  Lines expected{"systemctl stop kxagent"};
  if (c.checked) expected.push_back("dpkg -S libX11");
  if (c.installed) expected.push_back(aptCall());
  expected.push_back("dpkg -i " + setupPath());
  expected.push_back("systemctl start kxagent");
  EXPECT_EQ(box.calls(), expected);
  EXPECT_EQ(box.logged("installXCBDeps ..."), c.checked);
  EXPECT_EQ(box.logged("Found x11"), c.installed);
  EXPECT_EQ(box.logged("Install xcb dependencies0"), c.installed);
  EXPECT_EQ(box.logged("X11 not found"), c.checked && !c.installed);
  EXPECT_EQ(box.messages().back(), "Agent Update done");
}

INSTANTIATE_TEST_SUITE_P(E2e, LinuxDisplayLibraries,
                         ::testing::Values(DisplayCase{"From71To73", "7.1.5.3", "7.3.0.0", true, true, true},
                                           DisplayCase{"From720To73", "7.2.0.0", "7.3.0.0", true, true, true},
                                           DisplayCase{"From720Minus1To73", "7.2.0.-1", "7.3.0.0", true, true, true},
                                           DisplayCase{"From71To720", "7.1.0.0", "7.2.0.0", true, true, true},
                                           DisplayCase{"From721To73", "7.2.0.1", "7.3.0.0", true, false, false},
                                           DisplayCase{"From71To719", "7.1.0.0", "7.1.9.9", true, false, false},
                                           DisplayCase{"X11Missing", "7.1.5.3", "7.3.0.0", false, true, false}),
                         [](const ::testing::TestParamInfo<DisplayCase>& info) {
                           return std::string(info.param.name);
                         });

// ---- download and verification ---------------------------------------------------

TEST_F(E2eLinux, RetriesAWrongSizeAndAWrongHashThenInstalls) {
  publish("7.3.0.0");
  std::string corrupt = package;
  corrupt[4242] ^= 0x20;
  // The HEAD takes the first answer, the downloads the others in turn.
  server.on(dir + "/setup.deb", {file(package), file(package.substr(1)), file(corrupt), file(package)});
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), requests(3));
  EXPECT_EQ(
      messagesAt(box, "WRN"),
      (Lines{"Failed to get agent setup definition file - use legacy definition",
             "Downloaded size is 99999 bytes. Expected size is 100000 bytes - try again",
             "Re-download setup file because current one has a wrong hash: " + md5Hex(corrupt) + " vs " + packageMd5}));
  EXPECT_TRUE(box.logged("Computed md5 is " + packageMd5));
  EXPECT_EQ(readFile(setupPath()), package);
  EXPECT_EQ(box.calls(), serviceCalls());
}

TEST_F(E2eLinux, GivesUpAfterThreeDownloadsOfTheWrongSize) {
  publish("7.3.0.0");
  const std::string oneShort = package.substr(0, package.size() - 1);
  server.on(dir + "/setup.deb", {file(package), file(oneShort)});
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 6) << r;
  EXPECT_EQ(server.requestLines(), requests(3));
  EXPECT_EQ(messagesStartingWith(box, "Downloaded size is "),
            Lines(3, "Downloaded size is 99999 bytes. Expected size is 100000 bytes - try again"));
  EXPECT_EQ(box.messages().back(), "Invalid setup size");
  EXPECT_EQ(readFile(setupPath()), oneShort) << "a file of the wrong size is left in place";
  EXPECT_TRUE(box.calls().empty());
  EXPECT_TRUE(lockExists());
}

TEST_F(E2eLinux, GivesUpAfterThreeDownloadsWithTheWrongHash) {
  publish("7.3.0.0");
  const std::string published = md5Hex("another package");
  server.on(dir + "/setup.deb.md5", Response::text(published + "  setup.deb\n"));
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 7) << r;
  EXPECT_EQ(server.requestLines(), requests(3));
  EXPECT_EQ(
      messagesStartingWith(box, "Re-download"),
      Lines(3, "Re-download setup file because current one has a wrong hash: " + packageMd5 + " vs " + published));
  EXPECT_EQ(box.messages().back(), "Invalid setup md5");
  EXPECT_NE(access(setupPath().c_str(), F_OK), 0) << "a file with the wrong hash is deleted";
  EXPECT_TRUE(box.calls().empty());
  EXPECT_TRUE(lockExists());
}

TEST_F(E2eLinux, PublishedSumIsComparedCaseSensitively) {
  publish("7.3.0.0");
  std::string upper = packageMd5;
  for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  server.on(dir + "/setup.deb.md5", Response::text(upper + " setup.deb"));
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 7) << r;
  EXPECT_EQ(box.messages().back(), "Invalid setup md5");
}

struct HashCase {
  const char* name;
  Response answer;
  std::string errorMessage;  // empty: none expected
};

class LinuxWithoutHash : public E2eLinux, public ::testing::WithParamInterface<HashCase> {};

TEST_P(LinuxWithoutHash, SizeAloneDecides) {
  publish("7.3.0.0");
  server.on(dir + "/setup.deb.md5", GetParam().answer);
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_TRUE(messagesStartingWith(box, "Downloaded md5 is ").empty());
  EXPECT_TRUE(messagesStartingWith(box, "Computed md5 is ").empty());
  if (!GetParam().errorMessage.empty()) {
    EXPECT_TRUE(box.logged(GetParam().errorMessage));
  }
  EXPECT_EQ(box.calls(), serviceCalls());
  EXPECT_EQ(box.messages().back(), "Agent Update done");
}

INSTANTIATE_TEST_SUITE_P(E2e, LinuxWithoutHash,
                         ::testing::Values(HashCase{"Missing", Response::text("Not Found", 404),
                                                    "No file signature available (skip verification): [404]"},
                                           HashCase{"SumWithoutFileName", Response::text(md5Hex(packageBytes(100000))),
                                                    ""},
                                           HashCase{"Empty", Response::text(""), ""}),
                         [](const ::testing::TestParamInfo<HashCase>& info) { return std::string(info.param.name); });

TEST_F(E2eLinux, PackageWithoutSizeIsRefused) {
  publish("7.3.0.0");
  server.on(dir + "/setup.deb", Response::text(package, 200, Fault::NoLength));
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 7) << r;
  EXPECT_EQ(server.requestLines(), requests(0));
  EXPECT_EQ(box.messages().back(), "Fail to determine file size");
  EXPECT_TRUE(lockExists());
}

// ---- server failures: result 2 frees the lock at once ------------------------------

class E2eLinuxServerFailure : public E2eLinux {
 protected:
  void expectFailure(const RunResult& r, const Lines& requestLines, const std::string& lastMessage) {
    ASSERT_EQ(r.status, 2) << r;
    EXPECT_EQ(server.requestLines(), requestLines);
    EXPECT_TRUE(inOrder(box.messages(), {lastMessage, "Remove lock file"}));
    EXPECT_EQ(box.messages().back(), "Remove lock file");
    EXPECT_TRUE(box.calls().empty());
    EXPECT_FALSE(lockExists()) << "result 2 removes the lock";
  }
};

TEST_F(E2eLinuxServerFailure, NoVersionFile) {
  publish("7.3.0.0");
  absent(dir + "/version_long.txt");
  expectFailure(update("7.2.0.1"), {"GET /agent_setup_def.json", "GET " + dir + "/version_long.txt"},
                "Failed to download version:  [404]");
}

TEST_F(E2eLinuxServerFailure, HeadRefused) {
  publish("7.3.0.0");
  server.on(dir + "/setup.deb", Response::text("", 500));
  expectFailure(update("7.2.0.1"), requests(0), "Fail to get HEAD for " + setupUrl() + ": [500 ]");
}

TEST_F(E2eLinuxServerFailure, DownloadCut) {
  publish("7.3.0.0");
  server.on(dir + "/setup.deb", {file(package), Response::text(package, 200, Fault::Reset)});
  expectFailure(update("7.2.0.1"), requests(1), "'Fail to download setup file: [-1]");
}

// ---- service control -----------------------------------------------------------------

TEST_F(E2eLinux, ServiceFailuresNeitherStopTheSequenceNorChangeTheResult) {
  publish("7.3.0.0");
  box.shims().setStatus("systemctl", "3");
  box.shims().setStatus("dpkg", "1");
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(box.calls(), serviceCalls());
  EXPECT_EQ(messagesAt(box, "ERR"),
            (Lines{"Request " + url("/agent_setup_def.json") + " failed : [404]", "Fail to stop agent: [768]",
                   "Fail to install agent : [256]", "Fail to re-start agent : [768]"}));
  EXPECT_EQ(box.messages().back(), "Agent Update done");
}

TEST_F(E2eLinux, InstallerKilledBySignalStillRestartsTheAgent) {
  publish("7.3.0.0");
  box.shims().setStatus("dpkg", "kill:9");
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(box.calls(), serviceCalls());
  EXPECT_EQ(messagesStartingWith(box, "Fail to install agent : [").size(), 1u);
  EXPECT_TRUE(box.logged("Agent Started"));
}

TEST_F(E2eLinux, RestartOnlyRestartsWithoutInstalling) {
  publish("7.3.0.0");
  const RunResult r = update("7.2.0.1", {"-S"});
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_EQ(box.calls(), (Lines{"systemctl stop kxagent", "systemctl start kxagent"}));
  EXPECT_FALSE(box.logged("Upgrading agent ...'"));
  EXPECT_TRUE(inOrder(box.messages(), {"Agent Started", "Agent Update done", "Remove lock file"}));
  EXPECT_FALSE(lockExists());
  EXPECT_NE(r.out.find("Agent Update done"), std::string::npos) << "-S echoes the log";
}

// ---- what ends a run before it asks the server --------------------------------------------

TEST_F(E2eLinux, UnknownProcessorEndsTheRun) {
  RunOptions options;
  options.uname32 = true;
  const RunResult r = box.run(linuxProgram(), {address(), "7.2.0.1"}, options);
  ASSERT_EQ(r.status, 3) << r;
  EXPECT_EQ(box.messages().back(), "Invalid architecture");
  EXPECT_TRUE(server.requestLines().empty());
  EXPECT_TRUE(lockExists());
}

struct DefinitionCase {
  const char* name;
  std::string body;
  bool parseError;  // "Parsing error : " is logged before the run fails
};

class LinuxUnusableDefinition : public E2eLinux, public ::testing::WithParamInterface<DefinitionCase> {};

TEST_P(LinuxUnusableDefinition, EndsTheRunWithItsText) {
  server.on("/agent_setup_def.json", Response::text(GetParam().body));
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, 11) << r;
  EXPECT_EQ(server.requestLines(), Lines{"GET /agent_setup_def.json"}) << "no fall back to the legacy layout";
  EXPECT_EQ(box.messages().back(), "Exception : Fail to parse agent_setup_def file");
  EXPECT_EQ(messagesStartingWith(box, "Parsing error : ").size(), GetParam().parseError ? 1u : 0u);
  EXPECT_TRUE(lockExists());
}

INSTANTIATE_TEST_SUITE_P(
    E2e, LinuxUnusableDefinition,
    ::testing::Values(
        DefinitionCase{"NotJson", "{\"name\": ", true}, DefinitionCase{"Binary", std::string("\0\xff[", 3), true},
        DefinitionCase{"NoFittingEntry",
                       R"([{"name": "rpm", "path": "/r", "setup": "setup.rpm", "version": "v", "hash": "h",
                            "os": 3, "arch": 1, "enable": true},
                           {"name": "rpm", "path": "/r", "setup": "setup.rpm", "version": "v", "hash": "h",
                            "os": 3, "arch": 2, "enable": true}])",
                       false},
        DefinitionCase{"EntryWithoutHashBeforeTheFittingOne",
                       R"([{"name": "broken", "path": "/b", "setup": "setup.deb", "version": "v", "os": 3, "arch": 1,
                            "enable": true},
                           {"name": "deb", "path": "/d", "setup": "setup.deb", "version": "v", "hash": "h",
                            "os": 3, "arch": 1, "enable": true}])",
                       true}),
    [](const ::testing::TestParamInfo<DefinitionCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace e2e
