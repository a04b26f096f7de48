// Setup resolution against a loopback server: the macOS directory and package
// probe, the legacy layouts, and the definition file with its fall back. The
// server fails the test on any request it was not told about, and the exact
// request order is asserted, so an extra or a missing probe shows.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "CaptureLogCb.h"
#include "TempDir.h"
#include "TestServer.h"
#include "Updater.h"

namespace {

using Lines = std::vector<std::string>;
using Response = TestServer::Response;

const char* const kDefFile = "/agent_setup_def.json";
const char* const kStop = "launchctl unload /Library/LaunchDaemons/com.kxagent.plist";
const char* const kStart = "launchctl load /Library/LaunchDaemons/com.kxagent.plist";

// The text of the std::runtime_error that call throws; fails when it throws
// nothing or something else.
std::string runtimeErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::runtime_error& e) {
    return e.what();
  } catch (...) {
    ADD_FAILURE() << "not a std::runtime_error";
    return {};
  }
  ADD_FAILURE() << "nothing thrown";
  return {};
}

std::string defEntry(const std::string& path, const std::string& setup, int os, int arch) {
  return R"({"name":"n","path":")" + path + R"(","setup":")" + setup +
         R"(","version":"long.txt","hash":"sum.md5","os":)" + std::to_string(os) + R"(,"arch":)" +
         std::to_string(arch) + R"(,"enable":true})";
}

class Resolution : public ::testing::Test {
 protected:
  Resolution() {
    server.failOnUnexpected();
    up.serverUrl = server.url("");
    up.tempDir = tmp.path();
  }

  void on(int os, int arch, int distrib = utils::None) {
    up.os = os;
    up.arch = arch;
    up.distrib = distrib;
  }
  void missing(const std::string& path) { server.on(path, Response::text("not here", 404)); }
  std::string url(const std::string& path) const { return server.url(path); }
  std::string inTmp(const std::string& name) const { return tmp.path() + "/" + name; }

  size_t count(const std::string& message) const {
    size_t n = 0;
    for (const auto& m : cap.messages()) n += m == message;
    return n;
  }

  TempDir tmp{true};
  TestServer server;
  ScopedLogCapture cap;
  Updater up;
};

// ---- the macOS probe --------------------------------------------------------

TEST_F(Resolution, Arm64FallsThroughToTheThirdDirectoryAndTakesTheFirstPackageThatAnswers) {
  on(utils::Macosx, utils::Arm64, utils::Pkg);
  missing(kDefFile);
  missing("/macosx/arm64/version_long.txt");
  missing("/macosx-arm64/version_long.txt");
  server.on("/macosx/version_long.txt", Response::text("7.3.0.12"));
  missing("/macosx/setup.pkg");
  missing("/macosx/setup.dmg");
  missing("/macosx/Tova_ARM64.pkg");
  server.on("/macosx/Tova_ARM64.dmg", Response::text(std::string(1234, 'x')));

  const utils::SetuParameter p = up.getAgentSetup();

  EXPECT_EQ(server.requestLines(),
            (Lines{"GET /agent_setup_def.json", "GET /macosx/arm64/version_long.txt",
                   "GET /macosx-arm64/version_long.txt", "GET /macosx/version_long.txt", "HEAD /macosx/setup.pkg",
                   "HEAD /macosx/setup.dmg", "HEAD /macosx/Tova_ARM64.pkg", "HEAD /macosx/Tova_ARM64.dmg"}));
  EXPECT_EQ(p.setupName, "Tova_ARM64.dmg");
  EXPECT_EQ(p.setupUrl, url("/macosx/Tova_ARM64.dmg"));
  EXPECT_EQ(p.hashUrl, url("/macosx/Tova_ARM64.dmg.md5"));
  EXPECT_EQ(p.versionUrl, url("/macosx/version_long.txt"));
  EXPECT_EQ(p.setupPath, inTmp("Tova_ARM64.dmg"));
  EXPECT_EQ(p.setupSize, 1234u);
  EXPECT_EQ(p.versionText, "7.3.0.12");
  // As many leading characters as the extension has.
  EXPECT_EQ(p.packageName, "Tov");
  EXPECT_EQ(up.distrib, utils::Dmg);
  EXPECT_EQ(p.installCmd, "installer -target / -pkg ");
  EXPECT_EQ(p.stopCmd, kStop);
  EXPECT_EQ(p.startCmd, kStart);
  EXPECT_EQ(count("Failed to get agent setup definition file - use legacy definition"), 1u);
}

TEST_F(Resolution, Amd64FirstDirectoryAndFirstPackageEndEachPhase) {
  on(utils::Macosx, utils::X64);
  server.on("/macosx/amd64/version_long.txt", Response::text("7.3.0.12"));
  server.on("/macosx/amd64/setup.pkg", Response::text("12345"));

  utils::SetuParameter p;
  up.fillDefaultSetupParamForMacOSX(p);

  EXPECT_EQ(server.requestLines(), (Lines{"GET /macosx/amd64/version_long.txt", "HEAD /macosx/amd64/setup.pkg"}));
  EXPECT_EQ(p.setupUrl, url("/macosx/amd64/setup.pkg"));
  EXPECT_EQ(p.setupSize, 5u);
  EXPECT_EQ(p.packageName, "set");
  EXPECT_EQ(up.distrib, utils::Pkg);
  EXPECT_EQ(p.installCmd, "installer -target / -pkg \"" + inTmp("setup.pkg") + "\"");
}

TEST_F(Resolution, Amd64TriesBothDirectoriesAndAllFivePackagesInOrder) {
  missing("/macosx/amd64/version_long.txt");
  server.on("/macosx/version_long.txt", Response::text("7.3.0.12"));
  for (const char* f : {"setup.pkg", "setup.dmg", "Tova_x64.pkg", "Tova_x64.dmg"}) missing(std::string("/macosx/") + f);
  server.on("/macosx/Quillmap.dmg", Response::text("dmg"));

  Updater::SetupInfo info;
  EXPECT_EQ(up.getSetupRootPath(server.url(""), "amd64", info), 0);

  EXPECT_EQ(server.requestLines(),
            (Lines{"GET /macosx/amd64/version_long.txt", "GET /macosx/version_long.txt", "HEAD /macosx/setup.pkg",
                   "HEAD /macosx/setup.dmg", "HEAD /macosx/Tova_x64.pkg", "HEAD /macosx/Tova_x64.dmg",
                   "HEAD /macosx/Quillmap.dmg"}));
  EXPECT_EQ(info.rootPath, url("/macosx"));
  EXPECT_EQ(info.setupUrl, url("/macosx/Quillmap.dmg"));
  EXPECT_EQ(info.fileName, "Quillmap.dmg");
  EXPECT_EQ(info.packageName, "Qui");
  EXPECT_EQ(info.versionText, "7.3.0.12");
  EXPECT_EQ(info.setupSize, 3u);
}

TEST_F(Resolution, DirectoryWithoutAnyPackageStillCountsAsFound) {
  on(utils::Macosx, utils::Arm64, utils::Pkg);
  server.on("/macosx/arm64/version_long.txt", Response::text("7.3.0.12"));
  for (const char* f : {"setup.pkg", "setup.dmg", "Tova_ARM64.pkg", "Tova_ARM64.dmg", "Quillmap.dmg"}) {
    missing(std::string("/macosx/arm64/") + f);
  }

  utils::SetuParameter p;
  up.fillDefaultSetupParamForMacOSX(p);

  EXPECT_EQ(server.requestLines(), (Lines{"GET /macosx/arm64/version_long.txt", "HEAD /macosx/arm64/setup.pkg",
                                          "HEAD /macosx/arm64/setup.dmg", "HEAD /macosx/arm64/Tova_ARM64.pkg",
                                          "HEAD /macosx/arm64/Tova_ARM64.dmg", "HEAD /macosx/arm64/Quillmap.dmg"}));
  EXPECT_EQ(p.setupName, "");
  EXPECT_EQ(p.packageName, "");
  EXPECT_EQ(p.setupSize, 0u);
  EXPECT_EQ(p.setupUrl, url("/macosx/arm64/"));
  EXPECT_EQ(p.versionText, "7.3.0.12");
  EXPECT_EQ(up.distrib, utils::None);
  EXPECT_EQ(p.installCmd, "installer -target / -pkg ");
}

TEST_F(Resolution, PackageWithoutLengthEndsTheRunAfterLoggingIt) {
  on(utils::Macosx, utils::Arm64);
  missing(kDefFile);
  server.on("/macosx/arm64/version_long.txt", Response::text("7.3.0.12"));
  server.on("/macosx/arm64/setup.pkg", Response::text("pkg", 200, TestServer::Fault::NoLength));

  Updater::SetupInfo info;
  EXPECT_EQ(up.getSetupRootPath(server.url(""), "arm64", info), 7);
  EXPECT_EQ(info.fileName, "setup.pkg");

  cap.sink().reset();
  EXPECT_EQ(runtimeErrorOf([&] { up.getAgentSetup(); }), "Failed to get any correct setup paths");
  const auto lines = cap.sink().lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().level, "ERR");
  EXPECT_EQ(lines.back().message, "Failed to get any correct setup paths");
  EXPECT_EQ(count("Failed to get any correct setup paths"), 1u);
  // The package answered, so no later name was tried.
  EXPECT_EQ(server.requestLines().back(), "HEAD /macosx/arm64/setup.pkg");
}

TEST_F(Resolution, NoDirectoryAnsweringIsFiveAfterAtMostThreeGets) {
  struct {
    const char* arch;
    Lines dirs;
  } cases[] = {
      {"amd64", {"/macosx/amd64", "/macosx"}},
      {"x86_64", {"/macosx/amd64", "/macosx"}},
      {"arm64", {"/macosx/arm64", "/macosx-arm64", "/macosx"}},
      {"aarch64", {"/macosx/arm64", "/macosx-arm64", "/macosx"}},
  };
  for (const char* d : {"/macosx/amd64", "/macosx/arm64", "/macosx-arm64", "/macosx"}) {
    missing(std::string(d) + "/version_long.txt");
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arch);
    const size_t before = server.requestLines().size();
    Updater::SetupInfo info;
    EXPECT_EQ(up.getSetupRootPath(server.url(""), c.arch, info), 5);
    EXPECT_TRUE(info.rootPath.empty());
    EXPECT_TRUE(info.versionText.empty());
    const Lines all = server.requestLines();
    Lines expected;
    for (const auto& d : c.dirs) expected.push_back("GET " + d + "/version_long.txt");
    EXPECT_EQ(Lines(all.begin() + static_cast<long>(before), all.end()), expected);
  }
}

TEST_F(Resolution, UnknownArchitectureTextAsksNothing) {
  for (const char* arch : {"x86", "arm", "none", "", "ARM64"}) {
    Updater::SetupInfo info;
    EXPECT_EQ(up.getSetupRootPath(server.url(""), arch, info), 3) << arch;
  }
  EXPECT_TRUE(server.requestLines().empty());

  // An architecture without macOS directories ends the legacy run the same way.
  on(utils::Macosx, utils::X86);
  missing(kDefFile);
  EXPECT_EQ(runtimeErrorOf([&] { up.getAgentSetup(); }), "Failed to get any correct setup paths");
  EXPECT_EQ(server.requestLines(), (Lines{"GET /agent_setup_def.json"}));
}

// ---- legacy layouts -----------------------------------------------------------

TEST_F(Resolution, WindowsIsAlwaysUnderAmd64WithAnUnquotedPath) {
  up.tempDir = tmp.path() + "/with blank";
  for (int arch : {utils::X64, utils::Arm64, utils::X86, utils::Unknown}) {
    SCOPED_TRACE(arch);
    on(utils::Windows, arch, utils::Exe);
    utils::SetuParameter p;
    p.postInstallCmd = "kept";
    up.fillDefaultSetupParamForWindows(p);
    EXPECT_EQ(p.setupName, "setup.exe");
    EXPECT_EQ(p.setupUrl, url("/windows/amd64/setup.exe"));
    EXPECT_EQ(p.hashUrl, url("/windows/amd64/setup.exe.md5"));
    EXPECT_EQ(p.versionUrl, url("/windows/amd64/version_long.txt"));
    EXPECT_EQ(p.setupPath, tmp.path() + "/with blank/setup.exe");
    EXPECT_EQ(p.installCmd, tmp.path() + "/with blank/setup.exe /q");
    EXPECT_EQ(p.stopCmd, "net stop kxagent");
    EXPECT_EQ(p.startCmd, "net start kxagent");
    EXPECT_EQ(p.postInstallCmd, "kept");
  }
  EXPECT_TRUE(server.requestLines().empty());
}

TEST_F(Resolution, LinuxRowsByPackageKindAndArchitecture) {
  struct {
    int distrib;
    int arch;
    const char* dir;
    const char* name;
    const char* install;
  } rows[] = {
      {utils::Deb, utils::X64, "/linux/amd64/", "setup.deb", "dpkg -i "},
      {utils::Deb, utils::Arm64, "/linux/aarch64/", "setup.deb", "dpkg -i "},
      {utils::Rpm, utils::X64, "/linux/amd64/", "setup.rpm", "rpm -U "},
      {utils::Rpm, utils::Arm64, "/linux/aarch64/", "setup.rpm", "rpm -U "},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.dir + std::string(r.name));
    on(utils::Linux, r.arch, r.distrib);
    utils::SetuParameter p;
    p.postInstallCmd = "kept";
    up.fillDefaultSetupParamForLinux(p);
    const std::string base = url(r.dir);
    EXPECT_EQ(p.setupName, r.name);
    EXPECT_EQ(p.setupUrl, base + r.name);
    EXPECT_EQ(p.hashUrl, base + r.name + ".md5");
    EXPECT_EQ(p.versionUrl, base + "version_long.txt");
    EXPECT_EQ(p.setupPath, inTmp(r.name));
    EXPECT_EQ(p.installCmd, r.install + inTmp(r.name));
    EXPECT_EQ(p.stopCmd, "systemctl stop kxagent");
    EXPECT_EQ(p.startCmd, "systemctl start kxagent");
    EXPECT_EQ(p.postInstallCmd, "kept");
  }
  EXPECT_TRUE(server.requestLines().empty());
}

TEST_F(Resolution, LinuxWithoutLegacyPackageKindThrowsBeforeTouchingTheRecord) {
  for (int distrib : {utils::Spk, utils::None, utils::Exe, utils::Dmg}) {
    SCOPED_TRACE(distrib);
    on(utils::Linux, utils::X64, distrib);
    utils::SetuParameter p;
    p.setupName = "name";
    p.setupPath = "path";
    p.setupUrl = "url";
    p.installCmd = "install";
    EXPECT_EQ(runtimeErrorOf([&] { up.fillDefaultSetupParamForLinux(p); }), "Unsupported distribution");
    EXPECT_EQ(p.setupName, "name");
    EXPECT_EQ(p.setupPath, "path");
    EXPECT_EQ(p.setupUrl, "url");
    EXPECT_EQ(p.installCmd, "install");
  }
}

TEST_F(Resolution, LinuxOtherArchitectureLeavesUrlsAndCommandsEmpty) {
  for (int arch : {utils::X86, utils::Arm, utils::Unknown}) {
    SCOPED_TRACE(arch);
    on(utils::Linux, arch, utils::Deb);
    utils::SetuParameter p;
    up.fillDefaultSetupParamForLinux(p);
    EXPECT_EQ(p.setupName, "setup.deb");
    EXPECT_EQ(p.setupPath, inTmp("setup.deb"));
    EXPECT_EQ(p.setupUrl, "");
    EXPECT_EQ(p.hashUrl, "");
    EXPECT_EQ(p.versionUrl, "");
    EXPECT_EQ(p.installCmd, "");
    EXPECT_EQ(p.stopCmd, "");
    EXPECT_EQ(p.startCmd, "");
  }
}

// ---- the definition file ------------------------------------------------------

TEST_F(Resolution, DefinitionFileIsUsedWithoutProbing) {
  on(utils::Macosx, utils::Arm64);
  server.on(kDefFile, Response::text("[" + defEntry("/macosx/arm64", "setup.dmg", 2, 2) + "]"));

  const utils::SetuParameter p = up.getAgentSetup();

  EXPECT_EQ(server.requestLines(), (Lines{"GET /agent_setup_def.json"}));
  EXPECT_EQ(p.setupName, "setup.dmg");
  EXPECT_EQ(p.setupUrl, url("/macosx/arm64/setup.dmg"));
  EXPECT_EQ(p.hashUrl, url("/macosx/arm64/sum.md5"));
  EXPECT_EQ(p.versionUrl, url("/macosx/arm64/long.txt"));
  EXPECT_EQ(p.setupPath, inTmp("setup.dmg"));
  EXPECT_EQ(up.distrib, utils::Dmg);
  EXPECT_EQ(p.installCmd, "installer -target / -pkg ");
  EXPECT_EQ(p.stopCmd, kStop);
  // Left for the run to ask the server, and for the image to be searched
  // for a package named ".pkg".
  EXPECT_EQ(p.setupSize, 0u);
  EXPECT_EQ(p.versionText, "");
  EXPECT_EQ(p.packageName, "");
  const auto lines = cap.sink().lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, "DBG");
  EXPECT_EQ(lines[0].message, "Use agent setup definition file");
}

TEST_F(Resolution, DefinitionPathWithoutLeadingSlashIsJoinedAsItStands) {
  on(utils::Macosx, utils::X64);
  server.on(kDefFile, Response::text("[" + defEntry("macosx", "setup.pkg", 2, 1) + "]"));

  const utils::SetuParameter p = up.getAgentSetup();

  EXPECT_EQ(p.setupUrl, server.url("") + "macosx/setup.pkg");
  EXPECT_EQ(p.versionUrl, server.url("") + "macosx/long.txt");
  EXPECT_EQ(up.distrib, utils::Pkg);
  EXPECT_EQ(p.installCmd, "installer -target / -pkg \"" + inTmp("setup.pkg") + "\"");
}

TEST_F(Resolution, DefinitionForSynologyGivesItsPackageCommands) {
  on(utils::Linux, utils::Arm64, utils::Spk);
  server.on(kDefFile, Response::text("[" + defEntry("/nas", "tova.spk", 3, 2) + "]"));

  const utils::SetuParameter p = up.getAgentSetup();

  EXPECT_EQ(up.distrib, utils::Spk);
  EXPECT_EQ(p.installCmd, "synopkg install " + inTmp("tova.spk"));
  EXPECT_EQ(p.stopCmd, "synopkg stop tova");
  EXPECT_EQ(p.startCmd, "synopkg start tova");
  EXPECT_EQ(p.postInstallCmd, "/bin/sed -i 's/package/root/g' /var/packages/tova/conf/privilege");
}

TEST_F(Resolution, UnavailableDefinitionFallsBackToTheLegacyLayoutWithOneWarning) {
  struct {
    int os;
    int distrib;
    int status;
    const char* setupUrl;
  } cases[] = {
      {utils::Windows, utils::Exe, 404, "/windows/amd64/setup.exe"},
      {utils::Linux, utils::Rpm, 500, "/linux/amd64/setup.rpm"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.setupUrl);
    on(c.os, utils::X64, c.distrib);
    server.on(kDefFile, Response::text("down", c.status));
    cap.sink().reset();
    const size_t before = server.requestLines().size();

    const utils::SetuParameter p = up.getAgentSetup();

    EXPECT_EQ(p.setupUrl, url(c.setupUrl));
    EXPECT_EQ(count("Failed to get agent setup definition file - use legacy definition"), 1u);
    EXPECT_EQ(server.requestLines().size(), before + 1);
  }
}

TEST_F(Resolution, FetchedButUnusableDefinitionEndsTheRunWithoutFallBack) {
  on(utils::Macosx, utils::Arm64);
  const std::string disabled =
      R"([{"name":"n","path":"/p","setup":"s.dmg","version":"v","hash":"h","os":2,"arch":2,"enable":false}])";
  for (const std::string& body : {std::string("{not json"), std::string(""), disabled,
                                  "[" + defEntry("/macosx/amd64", "setup.dmg", 2, 1) + "]"}) {
    SCOPED_TRACE(body);
    server.on(kDefFile, Response::text(body));
    EXPECT_EQ(runtimeErrorOf([&] { up.getAgentSetup(); }), "Fail to parse agent_setup_def file");
  }
  EXPECT_EQ(server.requestLines(), Lines(4, "GET /agent_setup_def.json"));
  EXPECT_EQ(count("Failed to get agent setup definition file - use legacy definition"), 0u);
  EXPECT_EQ(up.distrib, utils::None);
}

TEST_F(Resolution, NumberBeyondIntRangeIsABadEntryNotAWrappedCode) {
  on(utils::Macosx, utils::Arm64);
  const std::string fields = R"("name":"n","path":"/p","setup":"s.dmg","version":"v","hash":"h","enable":true)";
  server.on(kDefFile, Response::text(R"([{"os":2,"arch":-1e70,)" + fields + "}]"));
  EXPECT_EQ(runtimeErrorOf([&] { up.getAgentSetup(); }), "Fail to parse agent_setup_def file");
  EXPECT_EQ(cap.messages(), Lines{"Parsing error : number out of range for key 'arch'"});

  // Floats within range still convert as the library does.
  server.on(kDefFile, Response::text(R"([{"os":2.9,"arch":2.0,)" + fields + "}]"));
  EXPECT_EQ(up.getAgentSetup().setupName, "s.dmg");
}

TEST_F(Resolution, UnknownOsOnTheLegacyPath) {
  missing(kDefFile);
  for (int os : {0, 4}) {
    on(os, utils::X64, utils::Deb);
    EXPECT_EQ(runtimeErrorOf([&] { up.getAgentSetup(); }), "Unknow OS") << os;
  }
  EXPECT_EQ(server.requestLines(), Lines(2, "GET /agent_setup_def.json"));
}

}  // namespace
