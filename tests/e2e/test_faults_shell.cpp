// Names with blanks and shell metacharacters, in the temporary directory or
// in what the server publishes. The program runs its commands through the
// shell, built as plain text: the install command (and on macOS the image's
// attach command) carries the package's local path, quoted with double
// quotes at most. Where such a name reaches the shell, what it runs is
// asserted as it happens today, as a known exposure; everywhere else no
// marker file may appear.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "FaultTest.h"

namespace e2e {
namespace {

const std::string kEveryMarker =
    std::string(";touch ") + kMarkers[0] + ";$(touch " + kMarkers[1] + ")`touch " + kMarkers[2] + "`";

class ShellNameFault : public FaultTest {
 protected:
  // A temporary directory whose name runs every marker's command when the
  // shell reads it unquoted.
  std::string oddTmpdir(const std::string& name = "tmp dir" + kEveryMarker) {
    const std::string dir = box.file(name);
    EXPECT_EQ(mkdir(dir.c_str(), 0755), 0) << dir;
    return dir;
  }

  RunResult updateIn(const std::string& tmpdir, Lines options = {}) {
    RunOptions runOptions;
    runOptions.env["TMPDIR"] = tmpdir;
    return update("7.2.0.1", std::move(options), runOptions);
  }

  // The markers that exist in the program's working directory.
  Lines markers() const {
    Lines found;
    for (const char* m : kMarkers) {
      if (access(box.file(m).c_str(), F_OK) == 0) found.push_back(m);
    }
    return found;
  }

  static Lines messagesOf(const std::string& logFile) {
    Lines out;
    for (const LogLine& l : parseLog(readFile(logFile))) out.push_back(l.message);
    return out;
  }

  // A definition file with one fitting entry for this flow.
  void publishDefinition(const std::string& setup) {
    const std::string os = target == Target::Linux ? "3" : "2";
    server.on("/agent_setup_def.json",
              Response::text(R"([{"name": "odd", "path": "/agents", "setup": )" + nlohmann::json(setup).dump() +
                             R"(, "version": "version_long.txt", "hash": "setup.md5", "os": )" + os + R"(, "arch": )" +
                             std::to_string(hostArch().code) + R"(, "enable": true}])"));
    server.on("/agents/version_long.txt", Response::text("7.3.0.0"));
    server.on("/agents/setup.md5", Response::text(packageMd5 + "  setup\n"));
  }
};

// Known exposure: "dpkg -i " + path, unquoted, so the shell runs all three
// commands the name holds (and the package path is cut at the blank).
TEST_F(ShellNameFault, LinuxInstallRunsWhatTheTemporaryDirectoryNames) {
  publish();
  const std::string tmp = oddTmpdir();
  const RunResult r = updateIn(tmp);
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(markers(), (Lines{kMarkers[0], kMarkers[1], kMarkers[2]}));
  EXPECT_EQ(box.calls(), (Lines{stopCall(), "dpkg -i " + box.file("tmp dir"), startCall()}));
  // The last command the shell read is "/setup.deb", which does not exist.
  EXPECT_TRUE(inOrder(messagesOf(tmp + "/agent_upd.log"),
                      {"tempdir is [" + tmp + "]", "Fail to install agent : [32512]", "Agent Update done"}));
  EXPECT_TRUE(readFile(tmp + "/setup.deb") == package) << "the download itself is not affected";
}

// Stopping and starting use fixed texts: with -S nothing but them runs.
TEST_F(ShellNameFault, LinuxRestartOnlyRunsNothingElse) {
  publish();
  const std::string tmp = oddTmpdir();
  const RunResult r = updateIn(tmp, {"-S"});
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_TRUE(markers().empty());
  EXPECT_EQ(box.calls(), (Lines{stopCall(), startCall()}));
  EXPECT_EQ(access((tmp + "/upgrade_ovk.lock").c_str(), F_OK), -1) << "-S removes the lock";
}

// Blanks alone split the package path into several arguments.
TEST_F(ShellNameFault, LinuxBlanksSplitThePackagePath) {
  publish();
  box.argvShim("dpkg");
  const std::string tmp = oddTmpdir("tmp dir with blanks");
  const RunResult r = updateIn(tmp);
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(box.calls(),
            (Lines{stopCall(), "dpkg [-i] [" + box.file("tmp") + "] [dir] [with] [blanks/setup.deb]", startCall()}));
}

// Known exposure: "hdiutil attach " + path, unquoted. The attach "fails"
// with the status of the shell's last command, so the agent is never
// stopped, but the name's commands have run.
TEST_F(ShellNameFault, MacImageAttachRunsWhatTheTemporaryDirectoryNames) {
  target = Target::Mac;
  publish();
  const std::string tmp = oddTmpdir();
  const RunResult r = updateIn(tmp);
  ASSERT_EQ(r.status, 9) << r;
  EXPECT_EQ(markers(), (Lines{kMarkers[0], kMarkers[1], kMarkers[2]}));
  EXPECT_EQ(box.calls(), Lines{"hdiutil attach " + box.file("tmp dir")});
  EXPECT_EQ(messagesOf(tmp + "/agent_upd.log").back(), "Unable to attach setup");
}

// Known exposure: the flat package's path is in double quotes, which stop
// the blank and the semicolon but not $(...) and `...`.
TEST_F(ShellNameFault, MacFlatPackageQuotesOnlyAgainstBlanksAndSemicolons) {
  target = Target::Mac;
  publishDefinition("setup.pkg");
  server.on("/agents/setup.pkg", Response::text(package));
  box.argvShim("installer");
  const std::string tmp = oddTmpdir();
  const RunResult r = updateIn(tmp);
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(markers(), (Lines{kMarkers[1], kMarkers[2]}));
  EXPECT_EQ(
      box.calls(),
      (Lines{stopCall(), "installer [-target] [/] [-pkg] [" + box.file("tmp dir;touch ") + kMarkers[0] + ";/setup.pkg]",
             startCall()}));
}

// Known exposure: the server names the package file, and on Linux its
// local path goes unquoted into the install command run as root.
TEST_F(ShellNameFault, LinuxPackageNameFromTheServerReachesTheShell) {
  const std::string name = std::string("x;touch${IFS}") + kMarkers[0] + ";y.deb";
  publishDefinition(name);
  server.on("/agents/" + name, Response::text(package));
  const RunResult r = update();
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(server.requestLines(), (Lines{"GET /agent_setup_def.json", "GET /agents/version_long.txt",
                                          "GET /agents/setup.md5", "HEAD /agents/" + name, "GET /agents/" + name}));
  EXPECT_EQ(markers(), Lines{kMarkers[0]});
  EXPECT_EQ(box.calls(), (Lines{stopCall(), "dpkg -i " + box.file("x"), startCall()}));
  EXPECT_TRUE(readFile(box.file(name)) == package) << "downloaded under its odd name, inside the sandbox";
}

// A package name that is a path would put the download, made as root,
// outside the temporary directory (and on macOS no file name is checked at
// all). Such a name is refused like a definition without a fitting entry.
struct EscapeCase {
  const char* name;
  Target target;
  std::string setup;
};

class PackageNameAsPath : public ShellNameFault, public ::testing::WithParamInterface<EscapeCase> {};

TEST_P(PackageNameAsPath, IsRefusedBeforeAnyDownload) {
  target = GetParam().target;
  publishDefinition(GetParam().setup);
  // Wherever the client's URL normalisation takes the name, the package is
  // there: only the program's own refusal keeps it from being written.
  for (const char* path : {"/escape.deb", "/agents/sub/escape.deb", "/agents//escape.deb", "/"}) {
    server.on(path, Response::text(package));
  }
  const RunResult r = update();
  ASSERT_EQ(r.status, 11) << r;
  EXPECT_EQ(box.messages().back(), "Exception : Fail to parse agent_setup_def file");
  EXPECT_EQ(server.requestLines(), Lines{"GET /agent_setup_def.json"});
  EXPECT_TRUE(box.calls().empty());
  EXPECT_NE(access(outside("escape.deb").c_str(), F_OK), 0);
}

INSTANTIATE_TEST_SUITE_P(Fault, PackageNameAsPath,
                         ::testing::Values(EscapeCase{"LinuxParent", Target::Linux, "../escape.deb"},
                                           EscapeCase{"LinuxSubdirectory", Target::Linux, "sub/escape.deb"},
                                           EscapeCase{"LinuxAbsolute", Target::Linux, "/escape.deb"},
                                           EscapeCase{"MacParent", Target::Mac, "../escape.deb"},
                                           EscapeCase{"MacDotDot", Target::Mac, ".."}),
                         caseName<EscapeCase>);

}  // namespace
}  // namespace e2e
