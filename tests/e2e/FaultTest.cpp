#include "FaultTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

namespace e2e {

namespace fs = boost::filesystem;

const char* const kMarkers[3] = {"MARKER_SEMICOLON", "MARKER_DOLLAR", "MARKER_BACKTICK"};

namespace {

const char* const kLinuxStop = "systemctl stop kxagent";
const char* const kLinuxStart = "systemctl start kxagent";
const char* const kMacStop = "launchctl unload /Library/LaunchDaemons/com.kxagent.plist";
const char* const kMacStart = "launchctl load /Library/LaunchDaemons/com.kxagent.plist";

// hdiutil attach's answer for an image with one partition, the mounted one
// last.
const char* const kAttachOutput =
    "/dev/disk4          \tGUID_partition_scheme          \t\n"
    "/dev/disk4s1        \tApple_HFS                      \t/Volumes/Kx Agent\n";

// Type, size and modification time: enough to see a file created, removed,
// replaced or written to.
std::string describe(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return "absent";
  const char* type = S_ISDIR(st.st_mode)   ? "dir"
                     : S_ISLNK(st.st_mode) ? "link"
                     : S_ISREG(st.st_mode) ? "file"
                                           : "other";
  return std::string(type) + " " + std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
         std::to_string(st.st_mtim.tv_nsec) + " " + std::to_string(st.st_mode);
}

std::string currentDirectory() {
  char buffer[4096];
  return getcwd(buffer, sizeof buffer) != nullptr ? buffer : "";
}

}  // namespace

OutsideGuard::OutsideGuard(const std::string& world, const std::string& sandbox, const std::string& instance)
    : _world(world), _sandbox(sandbox), _instance(instance), _before(snapshot()) {}

std::map<std::string, std::string> OutsideGuard::snapshot() const {
  std::map<std::string, std::string> shot;
  shot[_world] = describe(_world);
  for (fs::recursive_directory_iterator it(_world), end; it != end; ++it) {
    const std::string path = it->path().string();
    if (path == _sandbox) {
      it.disable_recursion_pending();
      continue;
    }
    std::string entry = describe(path);
    if (fs::is_regular_file(fs::symlink_status(it->path())) && fs::file_size(it->path()) < 1024 * 1024) {
      entry += " " + md5Hex(readFile(path));
    }
    shot[path] = entry;
  }
  // A program that ignored TMPDIR or its working directory would leave its
  // files here. Only these names are looked at: other tests run at the same
  // time and create their own directories.
  std::vector<std::string> names{"agent_upd.log", "agent_upd.bak", "upgrade_ovk.lock", "setup.deb",
                                 "setup.rpm",     "setup.dmg",     "setup.pkg",        "escape.deb"};
  for (const char* m : kMarkers) names.push_back(m);
  const std::string parent = fs::path(_world).parent_path().string();
  for (const std::string& d :
       {std::string("/"), std::string("/tmp"), std::string("/var/tmp"), parent, currentDirectory()}) {
    for (const std::string& n : names) shot[d + "/" + n] = describe(d + "/" + n);
  }
  for (const char* root : {"/etc/opt/kx/conf", "/Library/Application Support/KX/conf"}) {
    const std::string config = std::string(root) + "." + _instance;
    shot[config] = describe(config);
  }
  return shot;
}

::testing::AssertionResult OutsideGuard::unchanged() const {
  const std::map<std::string, std::string> now = snapshot();
  if (now == _before) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "changed outside the sandbox:";
  for (const auto& kv : now) {
    const auto was = _before.find(kv.first);
    if (was == _before.end()) {
      failure << "\n  new: " << kv.first << " (" << kv.second << ")";
    } else if (was->second != kv.second) {
      failure << "\n  changed: " << kv.first << " (" << was->second << " -> " << kv.second << ")";
    }
  }
  for (const auto& kv : _before) {
    if (now.count(kv.first) == 0) failure << "\n  gone: " << kv.first;
  }
  return failure;
}

::testing::AssertionResult restartedAfterEveryStop(const Lines& calls) {
  bool down = false;
  for (const std::string& c : calls) {
    if (c == kLinuxStop || c == kMacStop) down = true;
    if (c == kLinuxStart || c == kMacStart) down = false;
  }
  if (!down) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "the agent was left stopped:";
  for (const std::string& c : calls) failure << "\n  " << c;
  return failure;
}

void FaultTest::SetUp() {
  if (geteuid() != 0) GTEST_SKIP() << "the update run needs root: run the end-to-end tests as root";
  if (hostArch().code == 0) GTEST_SKIP() << "the program knows no package layout for this processor";
  server.failOnUnexpected();
  server.serveDirectory(outside("served"));
  writeFile(canary(), canaryText);
  box.shims().setOutput("hdiutil", kAttachOutput);
}

void FaultTest::TearDown() {
  EXPECT_TRUE(restartedAfterEveryStop(box.calls()));
  if (guard) {
    EXPECT_TRUE(guard->unchanged());
  }
}

std::string FaultTest::dir() const { return target == Target::Linux ? hostArch().linuxDir : hostArch().macDirs[0]; }

std::string FaultTest::configRoot() const {
  return target == Target::Linux ? "/etc/opt/kx/conf" : "/Library/Application Support/KX/conf";
}

void FaultTest::publish(const std::string& versionText) {
  absent("/agent_setup_def.json");
  onVersion(Response::text(versionText));
  if (target == Target::Mac) server.on(dir() + "/setup.pkg", Response::text("Not Found", 404));
  const std::string served = outside("served") + packagePath();
  fs::create_directories(fs::path(served).parent_path());
  writeFile(served, package);
  server.on(hashPath(), Response::text(packageMd5 + "  " + setupName() + "\n"));
}

void FaultTest::absent(const std::string& path) { server.on(path, Response::text("Not Found", 404)); }

void FaultTest::onVersion(const Response& response) {
  if (target == Target::Linux) {
    server.on(versionPath(), response);
    return;
  }
  for (const std::string& d : hostArch().macDirs) server.on(d + "/version_long.txt", response);
}

void FaultTest::guardOutside() {
  if (!guard) guard.reset(new OutsideGuard(world.path(), box.dir(), box.instance()));
}

void FaultTest::expectOutsideUnchanged() {
  ASSERT_TRUE(guard) << "nothing ran";
  EXPECT_TRUE(guard->unchanged());
  guard.reset();
}

RunResult FaultTest::run(const Lines& args, const RunOptions& runOptions) {
  guardOutside();
  return box.run(program(), args, runOptions);
}

RunResult FaultTest::update(const std::string& current, Lines options, const RunOptions& runOptions) {
  options.push_back(hex(server.url("")));
  options.push_back(current);
  return run(options, runOptions);
}

Lines FaultTest::upToDateRequests() const {
  Lines r{"GET /agent_setup_def.json", "GET " + versionPath()};
  if (target == Target::Mac) {
    r.push_back("HEAD " + dir() + "/setup.pkg");
    r.push_back("HEAD " + packagePath());
  }
  return r;
}

Lines FaultTest::requests(int downloads) const {
  Lines r = upToDateRequests();
  r.push_back("GET " + hashPath());
  if (target == Target::Linux) r.push_back("HEAD " + packagePath());
  for (int i = 0; i < downloads; ++i) r.push_back("GET " + packagePath());
  return r;
}

std::string FaultTest::stopCall() const { return target == Target::Linux ? kLinuxStop : kMacStop; }
std::string FaultTest::startCall() const { return target == Target::Linux ? kLinuxStart : kMacStart; }
std::string FaultTest::installCall() const {
  return target == Target::Linux ? "dpkg -i " + setupFile() : "installer -target / -pkg /Volumes/Kx Agent/set.pkg";
}

Lines FaultTest::updateCalls() const {
  if (target == Target::Linux) return {stopCall(), installCall(), startCall()};
  return {"hdiutil attach " + setupFile() + " -nobrowse", stopCall(), installCall(), "hdiutil detach /dev/disk4s1",
          startCall()};
}

}  // namespace e2e
