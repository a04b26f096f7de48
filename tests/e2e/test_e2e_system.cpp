// What depends on the system around the program: who runs it, and the
// agent's configuration naming where the log goes.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "E2eTest.h"

namespace e2e {
namespace {

TEST(E2eNotRoot, EndsWithResultOneAndFreesTheLock) {
  TestServer server;
  server.failOnUnexpected();
  Sandbox box;
  RunOptions options;
  if (geteuid() == 0) {
    const passwd* nobody = getpwnam("nobody");
    const uid_t uid = nobody != nullptr ? nobody->pw_uid : 65534;
    const gid_t gid = nobody != nullptr ? nobody->pw_gid : 65534;
    if (!reachableByAnyone(box.dir())) GTEST_SKIP() << "an unprivileged user cannot reach " << box.dir();
    box.handOver(uid, gid);
    options.user = std::make_pair(uid, gid);
  }
  const RunResult r = box.run(linuxProgram(), {hex(server.url("")), "7.2.0.0"}, options);
  ASSERT_EQ(r.status, 1) << r;
  const Lines m = box.messages();
  EXPECT_TRUE(inOrder(m, {"Check Update", "Lock file is [" + box.lockFile() + "]", "OS is [Linux]",
                          "Need priveledged user or root user", "Remove lock file"}));
  EXPECT_EQ(access(box.lockFile().c_str(), F_OK), -1) << "result 1 removes the lock";
  EXPECT_TRUE(server.requestLines().empty());
  EXPECT_TRUE(box.calls().empty());
}

class E2eDatabaseDirectory : public E2eTest {};

TEST_F(E2eDatabaseDirectory, NamedByTheInstanceConfigurationReceivesTheLog) {
  absent("/agent_setup_def.json");
  server.on(hostArch().linuxDir + "/version_long.txt", Response::text("7.3.0.0"));
  const std::string db = box.file("db");
  ASSERT_EQ(mkdir(db.c_str(), 0755), 0);
  const ScopedConfig config("/etc/opt/kx/conf", box.instance(), db);

  const RunResult r = box.run(linuxProgram(), {address(), "7.3.0.0"});
  ASSERT_EQ(r.status, 0) << r;
  const std::vector<LogLine> log = parseLog(readFile(db + "/UpdLogs/agent_upd.log"));
  ASSERT_FALSE(log.empty()) << "no log in " << db << "/UpdLogs";
  EXPECT_EQ(log.front().message, "Check Update");
  EXPECT_EQ(log.back().message, "Current version is up to date. Nothing to do");
  EXPECT_NE(access(box.logFile().c_str(), F_OK), 0) << "nothing logged to the temporary directory";
  EXPECT_TRUE(lockExists()) << "the lock stays in the temporary directory";
}

}  // namespace
}  // namespace e2e
