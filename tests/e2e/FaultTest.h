#pragma once

// Fixture of the fault matrix: one run of a program against a server or a
// machine that misbehaves in one way, on the Linux flow (legacy deb layout)
// or the macOS flow (server probe, disk image), judged by its exit status,
// its log, the commands it ran and by what it left alone.
//
// The test's whole world lives in one directory: the sandbox the program
// runs in (its TMPDIR), the tree the server publishes from and a canary
// file. After every test the world outside the sandbox, and the shared
// places a stray program would write to, must be as they were, and an agent
// that was stopped must have been started again.

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "E2eTest.h"

namespace e2e {

enum class Target { Linux, Mac };
inline void PrintTo(Target t, std::ostream* os) { *os << (t == Target::Linux ? "Linux" : "Mac"); }

// Snapshot of everything a run must not touch: the world directory without
// the sandbox, and the program's file names (and the tests' marker names) in
// the shared temporary directories, the root and the working directory.
class OutsideGuard {
 public:
  OutsideGuard(const std::string& world, const std::string& sandbox, const std::string& instance);
  ::testing::AssertionResult unchanged() const;

 private:
  std::map<std::string, std::string> snapshot() const;
  std::string _world;
  std::string _sandbox;
  std::string _instance;
  std::map<std::string, std::string> _before;
};

// Names the fault tests give the files their injected shell commands would
// create; the guard looks for them outside the sandbox too.
extern const char* const kMarkers[3];

// Every stop of the agent is followed by a start.
::testing::AssertionResult restartedAfterEveryStop(const Lines& calls);

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // ---- the flow under test (set `target` before publishing) ----
  const char* program() const { return target == Target::Linux ? linuxProgram() : macosProgram(); }
  // Server directory of the package, the version file and the sum.
  std::string dir() const;
  std::string setupName() const { return target == Target::Linux ? "setup.deb" : "setup.dmg"; }
  std::string packagePath() const { return dir() + "/" + setupName(); }
  std::string hashPath() const { return packagePath() + ".md5"; }
  std::string versionPath() const { return dir() + "/version_long.txt"; }
  // Where the program downloads the package.
  std::string setupFile() const { return box.file(setupName()); }
  std::string configRoot() const;

  // A newer version and its package (served from the world's tree), with
  // its sum, and no definition file.
  void publish(const std::string& versionText = "7.3.0.0\n");
  // A path the server answers with 404, as a missing file.
  void absent(const std::string& path);
  // The version file's answer: on macOS every directory the probe tries
  // gets it, so that a failure is not cured by the next candidate.
  void onVersion(const Response& response);
  // The package's answers in turn: the first goes to the HEAD that learns
  // its size, the next ones to the downloads; the last repeats.
  void onPackage(std::vector<Response> responses) { server.on(packagePath(), std::move(responses)); }

  // Takes the snapshot of the outside that TearDown compares with, unless
  // one was taken already; the first run does it too, so the test prepares
  // the world before either.
  void guardOutside();
  // Compares now, for a test that changes the outside itself afterwards
  // (a configuration it removes at its end).
  void expectOutsideUnchanged();
  // Runs the program in the sandbox.
  RunResult run(const Lines& args, const RunOptions& runOptions = {});
  // run() with the server's address and the current version.
  RunResult update(const std::string& current = "7.2.0.1", Lines options = {}, const RunOptions& runOptions = {});

  // The requests of a run that learns the size and makes `downloads`
  // downloads (none: the run stopped at the version check).
  Lines requests(int downloads) const;
  Lines upToDateRequests() const;
  // The commands of a complete update.
  Lines updateCalls() const;
  std::string stopCall() const;
  std::string startCall() const;
  std::string installCall() const;

  bool lockExists() const { return access(box.lockFile().c_str(), F_OK) == 0; }

  // A file in the world, outside the sandbox; the canary holds canaryText.
  static constexpr const char* canaryText = "9.9.9.9\n";
  std::string outside(const std::string& name) const { return world.file(name); }
  std::string canary() const { return outside("canary"); }

  Target target = Target::Linux;
  TempDir world{true};
  TestServer server;
  Sandbox box;
  std::unique_ptr<OutsideGuard> guard;
  const std::string package = packageBytes(200000, 3);
  const std::string packageMd5 = md5Hex(package);
};

// Gives a table's rows readable test names.
template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return std::string(info.param.name);
}

}  // namespace e2e
