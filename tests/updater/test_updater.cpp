// What a run of the program on this machine (amd64, Debian, the Linux or the
// macOS flow) cannot reach: the other platforms' layouts and commands, the
// rpm and Synology branches, the arm64 probe, and conversions the program
// only ever calls with the host's values. The rest is shown by tests/e2e.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Updater.h"
#include "utils/ShellCommand.h"

using Lines = std::vector<std::string>;

// Definition file entries, "<path> <setup> <os> <arch>" each, as JSON.
std::string definition(const std::string& entries) {
  std::string json;
  std::istringstream in(entries);
  for (std::string path, setup, os, arch; in >> path >> setup >> os >> arch;) {
    json += std::string(json.empty() ? "[" : ",") + R"({"name":"n","path":")" + path + R"(","setup":")" + setup +
            R"(","version":"v","hash":"h","enable":true,"os":)" + os + R"(,"arch":)" + arch + "}";
  }
  return json + "]";
}

struct ResolutionRow {
  int os, arch, distrib;
  std::string published;  // files of a legacy layout (a version file among them), or the definition file's entries
  std::string setupUrl, install, stop;
  const char* error;
};

// The server is a directory read through file://, which the client fetches
// like any address: a missing file fails the request. {T} is the temporary
// directory.
TEST(Resolution, LayoutsAndCommandsOfOtherPlatforms) {
  using namespace utils;
  // clang-format off
  const ResolutionRow rows[] = {
      {Windows, X64, Exe, "", "/windows/amd64/setup.exe", "{T}/setup.exe /q", "net stop", nullptr},
      {Windows, Arm64, Exe, "", "/windows/amd64/setup.exe", "{T}/setup.exe /q", "net stop", nullptr},
      {Linux, X64, Rpm, "", "/linux/amd64/setup.rpm", "rpm -U {T}/setup.rpm", "systemctl stop", nullptr},
      {Linux, Arm64, Rpm, "", "/linux/aarch64/setup.rpm", "rpm -U {T}/setup.rpm", "systemctl stop", nullptr},
      {Linux, Arm64, Deb, "", "/linux/aarch64/setup.deb", "dpkg -i {T}/setup.deb", "systemctl stop", nullptr},
      {Linux, X86, Deb, "", "", "", "", nullptr},
      {Linux, X64, Spk, "", "", "", "", "Unsupported distribution"},
      {0, X64, Deb, "", "", "", "", "Unknow OS"},
      {Macosx, X86, None, "", "", "", "", "Failed to get any correct setup paths"},
      {Macosx, Arm64, None, "/macosx/version_long.txt /macosx/Tova_ARM64.dmg", "/macosx/Tova_ARM64.dmg",
       "installer -target / -pkg ", "launchctl unload", nullptr},
      {Macosx, Arm64, None, "/macosx-arm64/version_long.txt /macosx-arm64/Tova_ARM64.pkg", "/macosx-arm64/Tova_ARM64.pkg",
       "installer -target / -pkg \"{T}/Tova_ARM64.pkg\"", "launchctl unload", nullptr},
      {Macosx, Arm64, None, "/m a.pkg 2 2", "/m/a.pkg", "installer -target / -pkg \"{T}/a.pkg\"", "launchctl unload", nullptr},
      {Linux, Arm64, Spk, "/nas tova.spk 3 2", "/nas/tova.spk", "synopkg install {T}/tova.spk", "synopkg stop tova", nullptr},
      {Linux, X64, Rpm, "/d a.deb 3 1 /r a.rpm 3 1", "/r/a.rpm", "rpm -U {T}/a.rpm", "systemctl stop", nullptr},
      {Windows, X64, Exe, "/m a.msi 1 1 /x a.exe 2 1 /w a.exe.zip 1 1", "/w/a.exe.zip", "{T}/a.exe.zip /q", "net stop", nullptr},
      {Windows, X64, None, "/w a.exe 1 1", "", "", "", "Fail to parse agent_setup_def file"},
      {7, X64, Deb, "/d a.deb 7 1", "", "", "", "Fail to parse agent_setup_def file"},
  };
  // clang-format on
  for (const ResolutionRow& r : rows) {
    const ScopedLogCapture quiet;
    const TempDir tmp;
    SCOPED_TRACE(r.setupUrl + " " + std::to_string(r.os) + " " + std::to_string(r.arch));
    const bool files = r.published.find("version_long.txt") != std::string::npos;
    std::istringstream in(files ? r.published : "");
    for (std::string f; in >> f;) {
      boost::filesystem::create_directories(boost::filesystem::path(tmp.path() + "/srv" + f).parent_path());
      writeFile(tmp.path() + "/srv" + f, "7.3.0.0");
    }
    boost::filesystem::create_directories(tmp.path() + "/srv");
    if (!files && !r.published.empty()) writeFile(tmp.path() + "/srv/agent_setup_def.json", definition(r.published));
    Updater up;
    up.os = r.os;
    up.arch = r.arch;
    up.distrib = r.distrib;
    up.serverUrl = "file://" + tmp.path() + "/srv";
    up.tempDir = tmp.path();
    std::string install = r.install;
    if (install.find("{T}") != std::string::npos) install.replace(install.find("{T}"), 3, tmp.path());
    try {
      const utils::SetuParameter p = up.getAgentSetup();
      EXPECT_EQ(r.error, nullptr);
      EXPECT_EQ(p.setupUrl, r.setupUrl.empty() ? "" : up.serverUrl + r.setupUrl);
      EXPECT_EQ(p.installCmd, install);
      EXPECT_EQ(p.stopCmd.substr(0, r.stop.size()), r.stop);
      EXPECT_EQ(p.startCmd, std::regex_replace(std::regex_replace(p.stopCmd, std::regex(" stop"), " start"),
                                               std::regex(" unload"), " load"));
      EXPECT_EQ(p.postInstallCmd.empty(), r.distrib != utils::Spk);
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), r.error == nullptr ? "(none)" : r.error);
    }
  }
}

TEST(Install, DisplayLibrariesPerPlatformAndPackageKind) {
  const TempDir bin;
  for (const char* c : {"systemctl", "rpm", "dnf"}) {
    writeFile(bin.file(c), "#!/bin/sh\necho \"${0##*/} $*\" >> \"${0%/*}/calls\"\n");
    ASSERT_EQ(chmod(bin.file(c).c_str(), 0755), 0);
  }
  const std::string path = std::getenv("PATH");
  setenv("PATH", (bin.path() + ":" + path).c_str(), 1);
  const std::string dnf =
      "rpm -q libX11\ndnf install -y libXrender libxcb xcb-util xcb-util-keysyms xcb-util-image xcb-util-renderutil "
      "xcb-util-cursor xcb-util-wm libxkbcommon libxkbcommon-x11 fontconfig freetype libXext libX11-xcb libSM libICE\n";
  for (const auto& row : {std::make_pair(utils::Linux, utils::Rpm), std::make_pair(utils::Linux, utils::Spk),
                          std::make_pair(utils::Windows, utils::Exe)}) {
    ScopedLogCapture cap;
    utils::SetuParameter p;
    p.setupPath = bin.file("a.rpm");  // the verified download the installer is given
    writeFile(p.setupPath, "rpm");
    struct stat st {};
    ASSERT_EQ(stat(p.setupPath.c_str(), &st), 0);
    HttpClient::Landed landed;
    landed.size = 3;
    landed.device = static_cast<uint64_t>(st.st_dev);
    landed.inode = static_cast<uint64_t>(st.st_ino);
    p.stopCmd = "systemctl stop";
    p.installCmd = "rpm -U /t/a.rpm";
    p.startCmd = "systemctl start";
    const setup::Platform platform{row.first, utils::X64, row.second};
    steps::installAgent({platform, p, landed, Version(7, 1, 5, 3), Version(7, 3, 0, 0), false});
    EXPECT_EQ(readFile(bin.file("calls")),
              "systemctl stop\n" + (row.second == utils::Rpm ? dnf : "") + "rpm -U /t/a.rpm\nsystemctl start\n");
    EXPECT_EQ(cap.contains("X11 not found"), row.second == utils::Spk);
    std::remove(bin.file("calls").c_str());
  }
  setenv("PATH", path.c_str(), 1);
}

TEST(Utils, ConversionsTheProgramOnlyMeetsWithTheHostsValues) {
  const std::pair<const char*, int> arches[] = {
      {"x64", utils::X64},     {"x86", utils::X86},       {"arm", utils::Arm},
      {"aarch32", utils::Arm}, {"armv7l", utils::Arm},    {"myarmv7", utils::Arm},
      {"arm64", utils::Arm64}, {"ARM64", utils::Unknown}, {"", utils::Unknown}};
  for (const auto& a : arches) EXPECT_EQ(utils::stringToAgentArch(a.first), a.second) << a.first;
  for (int a = utils::X64; a <= utils::Arm; ++a) EXPECT_EQ(utils::stringToAgentArch(utils::agentArchToString(a)), a);
  EXPECT_STREQ(utils::agentArchToString(0), "none");
  for (int d = utils::Deb; d <= utils::Spk; ++d) {
    const char* name = utils::agentDistribToString(static_cast<utils::AgentDistrib>(d));
    EXPECT_EQ(utils::stringToAgentDistrib(std::string("a.") + name), d) << name;
  }
  EXPECT_EQ(utils::stringToAgentDistrib("pkg"), utils::Pkg);
  EXPECT_EQ(utils::stringToAgentDistrib("a.DMG"), utils::None);
  EXPECT_STREQ(utils::agentDistribToString(static_cast<utils::AgentDistrib>(7)), "None");
  EXPECT_STREQ(utils::agentOSToString(utils::Windows), "Windows");
  EXPECT_STREQ(utils::agentOSToString(0), "Unkown");
  unsigned long long size = 7;
  EXPECT_EQ(utils::getContentLength({{"content-length", "12"}, {"Content-Length", "5"}}, size), 0);
  EXPECT_EQ(size, 12u);
  EXPECT_EQ(utils::getContentLength({{"CONTENT-LENGTH", "5"}}, size), -1);
  // Credentials are masked up to the last '@' before the path, even right next to it.
  for (const char* url : {"http://kx:pw@host/d@x", "http://kx:pw@/d", "https://a@b@h?q@"}) {
    const std::string shown = utils::logUrl(url);
    EXPECT_TRUE(shown.find("kx") == std::string::npos && shown.find("a@") == std::string::npos &&
                shown.find("***@") != std::string::npos)
        << url << " -> " << shown;
  }
}

// One rule for every server text shown to a person or put into JSON: valid
// UTF-8 stays, controls (C0, DEL, C1) and bytes that are not UTF-8 are escaped.
TEST(Utils, ServerTextIsEscapedIntoValidInertUtf8) {
  const std::string cut(utils::kLogTextMax - 1, 'a');
  const std::pair<std::string, std::string> rows[] = {
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"a\nb\tc\x1b[0m\x7f", "a\\nb\\tc\\x1b[0m\\x7f"},
      {"\xc2\x9b"
       "31m \xc2\x80 \xc2\xa0",
       "\\xc2\\x9b"
       "31m \\xc2\\x80 \xc2\xa0"},                                  // C1 controls; U+00A0 is none
      {"\xff\xc3(\xe2\x82 \xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80",  // stray, cut short, overlong, surrogate, > U+10FFFF
       "\\xff\\xc3(\\xe2\\x82 \\xc0\\xaf \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"},
      {cut + "\xc3\xa9", cut + "..."},  // never cut through a character
      {cut + "a\xc3\xa9", cut + "a..."},
  };
  for (const auto& [text, shown] : rows) EXPECT_EQ(utils::logText(text), shown) << text;
}

// Not used by the update run; kept for the agent's other tools.
TEST(Utils, ExeclogLogsBothStreamsOrTheFailureToStart) {
  ScopedLogCapture cap;
  std::string cmd = "sh -c \"echo out; echo err >&2; exit 4\"";
  EXPECT_EQ(utils::execlog(cmd), 4);
  cmd = "no-such-program-kx";
  EXPECT_EQ(utils::execlog(cmd), -1);
  const auto lines = cap.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].message + "|" + lines[1].message + "|" + lines[2].message + lines[2].level + "|" + lines[3].level,
            "exec : sh -c \"echo out; echo err >&2; exit 4\"|out|errERR|ERR");
}

// What the shell hands the program is the text itself, as one word, in both
// positions, whatever the text holds; ordinary words keep their exact text.
TEST(ShellCommand, EveryTextReachesTheProgramAsOneWordUnchanged) {
  using utils::ShellCommand;
  for (const std::string text : {"/t/a-1.2_3,x:y@z%+=.deb", "x~y", "~x", "", "a b", "it's", "a&b;c|d>e", "$(id)`id`",
                                 "\"q\" \\ \\' \\$", "*?[a]", "\xc3\xa9 \xc3\xbc"}) {
    for (const std::string& word : {ShellCommand::bare(text), ShellCommand::doubleQuoted(text)}) {
      std::vector<std::string> out;
      std::string cmd = "printf '%s|' " + word;
      ASSERT_EQ(utils::exec(cmd, out), 0) << word;
      EXPECT_EQ(out, std::vector<std::string>{text + "|"}) << word;
    }
  }
  EXPECT_EQ(ShellCommand("dpkg").word("-i").arg("/t/a~rc1.deb").text(), "dpkg -i /t/a~rc1.deb");
  EXPECT_EQ(ShellCommand().arg("~x").quoted("$").text(), "'~x' \"\\$\"");
  EXPECT_THROW(ShellCommand::bare("a\nb"), ShellCommand::Refused);
  EXPECT_THROW(ShellCommand::doubleQuoted(std::string("a\0b", 3)), ShellCommand::Refused);
}

// The walk from the root: components, "..", relative links and loops.
TEST(Directories, EveryComponentOnTheWayIsJudged) {
  const TempDir tmp;
  boost::filesystem::create_directories(tmp.file("a/b"));
  writeFile(tmp.file("f"), "");
  ASSERT_EQ(mkdir(tmp.file("w").c_str(), 0755) + chmod(tmp.file("w").c_str(), 0777), 0);
  ASSERT_EQ(symlink("a/b", tmp.file("rel").c_str()) + symlink("loop", tmp.file("loop").c_str()), 0);
  const std::pair<std::string, std::string> rows[] = {
      {"a/../a/b", ""},
      {"rel", ""},
      {"w/x", "w is writable by others without the sticky bit"},
      {"f", "f is not a directory"},
      {"gone", "gone cannot be examined (No such file or directory)"},
      {"loop", "loop is one link too many"},
  };
  for (const auto& [path, problem] : rows) {
    EXPECT_EQ(utils::directoryProblem(tmp.file(path)), problem.empty() ? "" : tmp.file(problem)) << path;
  }
}
