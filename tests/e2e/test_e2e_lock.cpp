// The instance lock across runs of the program.
#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "E2eTest.h"

namespace e2e {
namespace {

constexpr long long kMinute = 60 * 1000;
constexpr long long kHour = 60 * kMinute;

// The date as the refusal message shows a stored lock time.
std::string lockDate(long long ms) {
  const std::time_t t = static_cast<std::time_t>(ms / 1000);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buffer[100];
  std::strftime(buffer, sizeof buffer, "%d-%m-%Y %H:%M:%S", &tm);
  return buffer;
}

// A server where the agent is up to date (result 0, the lock stays), in the
// legacy Linux layout.
class E2eLock : public E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    absent("/agent_setup_def.json");
    server.on(hostArch().linuxDir + "/version_long.txt", Response::text("7.3.0.0"));
  }

  RunResult run(const std::string& current = "7.3.0.0", Lines options = {}) {
    options.push_back(address());
    options.push_back(current);
    return box.run(linuxProgram(), options);
  }

  std::string refusal(long long stored) const {
    return "Another instance of has been launched less than one hour ago " + lockDate(stored) +
           " : lock file location is " + box.lockFile();
  }

  // The run went past the lock: it reached the version check.
  bool ranPastTheLock() const { return box.logged("OS is [Linux]"); }
};

TEST_F(E2eLock, WrittenByARunAndRefusingTheNextWithinTheHour) {
  const long long before = nowMs();
  ASSERT_EQ(run().status, 0);
  const long long after = nowMs();
  ASSERT_TRUE(lockExists());
  const std::string content = lockContent();
  ASSERT_TRUE(std::regex_match(content, std::regex("[0-9]{13}\n"))) << content;
  const long long stored = std::stoll(content);
  EXPECT_GE(stored, before);
  EXPECT_LE(stored, after);
  const size_t requests = server.requestLines().size();

  const RunResult second = run("7.2.0.0");
  EXPECT_EQ(second.status, 0) << second;
  EXPECT_EQ(box.messages().back(), refusal(stored));
  EXPECT_EQ(server.requestLines().size(), requests) << "a refused run asks the server nothing";
  EXPECT_EQ(lockContent(), content);
}

struct LockCase {
  const char* name;
  // Content written before the run, from the current time in ms.
  std::string (*content)(long long now);
  bool proceeds;
  std::string errorPrefix;  // when refused for unreadable content
};

class LockAge : public E2eLock, public ::testing::WithParamInterface<LockCase> {};

TEST_P(LockAge, DecidesWhetherTheRunMayStart) {
  const LockCase& c = GetParam();
  const std::string content = c.content(nowMs());
  writeLock(content);
  const long long before = nowMs();
  const RunResult r = run();
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(ranPastTheLock(), c.proceeds);
  if (c.proceeds) {
    EXPECT_GE(std::stoll(lockContent()), before) << "a stale lock is rewritten with the time of this run";
    EXPECT_EQ(box.messages().back(), "Current version is up to date. Nothing to do");
    return;
  }
  EXPECT_EQ(lockContent(), content) << "a refusing lock is left as it is";
  EXPECT_TRUE(server.requestLines().empty());
  if (c.errorPrefix.empty()) {
    EXPECT_EQ(box.messages().back(), refusal(std::stoll(content)));
  } else {
    EXPECT_EQ(box.messages().back().rfind(c.errorPrefix, 0), 0u) << box.messages().back();
  }
}

INSTANTIATE_TEST_SUITE_P(
    E2e, LockAge,
    ::testing::Values(
        LockCase{"FiftyNineMinutes", [](long long now) { return std::to_string(now - 59 * kMinute) + "\n"; }, false,
                 ""},
        LockCase{"InTheFuture", [](long long now) { return std::to_string(now + 10 * kMinute) + "\n"; }, false, ""},
        LockCase{"BlanksAround", [](long long now) { return "  " + std::to_string(now - kMinute) + " \t\n"; }, false,
                 ""},
        LockCase{"NoLineBreak", [](long long now) { return std::to_string(now - kMinute); }, false, ""},
        LockCase{"OneHourAndAMinute", [](long long now) { return std::to_string(now - kHour - kMinute) + "\n"; }, true,
                 ""},
        LockCase{"StaleWithBlanks", [](long long now) { return " " + std::to_string(now - 2 * kHour) + "  \n"; }, true,
                 ""},
        LockCase{"Zero", [](long long) { return std::string("0\n"); }, true, ""},
        LockCase{"Empty", [](long long) { return std::string(); }, false, "checkLockFile error : "},
        LockCase{"Text", [](long long) { return std::string("locked by admin\n"); }, false, "checkLockFile error : "},
        LockCase{"OutOfRange", [](long long) { return std::string("99999999999999999999999\n"); }, false,
                 "checkLockFile error : "},
        LockCase{"Binary", [](long long) { return std::string("\xff\xfe\x00\x01", 4); }, false,
                 "checkLockFile error : "}),
    [](const ::testing::TestParamInfo<LockCase>& info) { return std::string(info.param.name); });

TEST_F(E2eLock, RestartOnlyRemovesItWhateverTheResult) {
  RunResult r = run("7.3.0.0", {"-S"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_FALSE(lockExists());
  r = run("abc", {"-S"});
  EXPECT_EQ(r.status, 4) << r;
  EXPECT_FALSE(lockExists());
  EXPECT_EQ(messagesStartingWith(box, "Remove lock file").size(), 2u);
}

TEST_F(E2eLock, RestartOnlyDoesNotGetPastAnUnreadableLock) {
  writeLock("garbage\n");
  const RunResult r = run("7.3.0.0", {"-S"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_FALSE(ranPastTheLock());
  EXPECT_EQ(lockContent(), "garbage\n") << "only a person can clear such a lock";
}

TEST_F(E2eLock, KeptAfterAFailureThatARetryWouldNotCure) {
  ASSERT_EQ(run("abc").status, 4);
  EXPECT_TRUE(lockExists());
  const RunResult again = run("7.3.0.0");
  EXPECT_EQ(again.status, 0) << again;
  EXPECT_EQ(messagesStartingWith(box, "Another instance of has been launched").size(), 1u);
}

TEST_F(E2eLock, FreedAfterAFailureThatARetryMayCure) {
  absent(hostArch().linuxDir + "/version_long.txt");
  ASSERT_EQ(run("7.2.0.0").status, 2);
  EXPECT_FALSE(lockExists());
  server.on(hostArch().linuxDir + "/version_long.txt", Response::text("7.3.0.0"));
  ASSERT_EQ(run("7.3.0.0").status, 0);
  EXPECT_EQ(box.messages().back(), "Current version is up to date. Nothing to do");
}

TEST_F(E2eLock, NoTemporaryDirectoryRefusesTheRun) {
  RunOptions options;
  options.env["TMPDIR"] = box.file("missing");
  const RunResult r = box.run(linuxProgram(), {"-D", address(), "7.2.0.0"}, options);
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_NE(r.out.find("] - checkLockFile error : "), std::string::npos) << r;
  EXPECT_EQ(r.out.find("OS is ["), std::string::npos) << r;
  EXPECT_TRUE(server.requestLines().empty());
  // With no temporary directory there is no log file either: nothing lands
  // in the working directory.
  EXPECT_FALSE(boost::filesystem::exists(box.file("agent_upd.log")));
}

}  // namespace
}  // namespace e2e
