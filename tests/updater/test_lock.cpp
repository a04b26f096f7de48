#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include <boost/filesystem.hpp>

#include "CaptureLogCb.h"
#include "KXSys.h"
#include "TempDir.h"
#include "Updater.h"

namespace {

class LockFile : public ::testing::Test {
 protected:
  std::string lock() const { return tmp.file("upgrade_ovk.lock"); }
  long long now() const { return static_cast<long long>(KXSys::timeMs()); }
  long long stored() const { return std::stoll(readFile(lock())); }
  void writeLock(long long ms) { writeFile(lock(), std::to_string(ms) + "\n"); }

  TempDir tmp{true};
  ScopedLogCapture cap;
  Updater up;
};

TEST_F(LockFile, MissingFileIsCreatedWithTheCurrentTime) {
  const long long before = now();
  EXPECT_TRUE(up.checkLockFile());
  EXPECT_EQ(up.lockFilePath, lock());
  const std::string content = readFile(lock());
  ASSERT_FALSE(content.empty());
  EXPECT_EQ(content.back(), '\n');
  EXPECT_GE(stored(), before);
  EXPECT_LE(stored(), now());
  EXPECT_EQ(cap.messages(), std::vector<std::string>{"Lock file is [" + lock() + "]"});
}

TEST_F(LockFile, FreshLockRefusesAndStaysUnchanged) {
  for (long long age : {0LL, 59 * 60 * 1000LL, 3600000LL - 5000}) {
    writeLock(now() - age);
    const std::string before = readFile(lock());
    cap.sink().reset();
    EXPECT_FALSE(up.checkLockFile()) << age;
    EXPECT_EQ(readFile(lock()), before);
    const auto msgs = cap.messages();
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[1].rfind("Another instance of has been launched less than one hour ago ", 0), 0u) << msgs[1];
    EXPECT_NE(msgs[1].find(" : lock file location is " + lock()), std::string::npos);
  }
}

TEST_F(LockFile, LockOlderThanAnHourIsReplaced) {
  writeLock(now() - 3600000 - 5000);
  const long long before = now();
  EXPECT_TRUE(up.checkLockFile());
  EXPECT_GE(stored(), before);
}

TEST_F(LockFile, TimeFarInThePastIsStale) {
  // The age of these does not fit in 64 bits.
  for (long long stored : {-9223372036854775807LL - 1, -9223372036854775807LL}) {
    writeLock(stored);
    const long long before = now();
    EXPECT_TRUE(up.checkLockFile()) << stored;
    EXPECT_GE(this->stored(), before);
  }
}

TEST_F(LockFile, FutureTimeIsRefused) {
  writeLock(now() + 2 * 3600000LL);
  EXPECT_FALSE(up.checkLockFile());
}

TEST_F(LockFile, BlanksAroundTheNumberAreAccepted) {
  writeFile(lock(), "  " + std::to_string(now()) + " \r\n");
  EXPECT_FALSE(up.checkLockFile());
  writeFile(lock(), "\t" + std::to_string(now() - 7200000) + "   ");
  EXPECT_TRUE(up.checkLockFile());
}

TEST_F(LockFile, LongFirstLineIsReadWhole) {
  const std::string padding(300, ' ');
  writeFile(lock(), padding + std::to_string(now()) + "\n");
  EXPECT_FALSE(up.checkLockFile());
  writeFile(lock(), padding + "0" + padding + "\n");
  EXPECT_TRUE(up.checkLockFile());
}

TEST_F(LockFile, UnreadableContentRefusesAndKeepsTheFile) {
  for (const char* content : {"", "text", "99999999999999999999999", "\n123"}) {
    writeFile(lock(), content);
    cap.sink().reset();
    EXPECT_FALSE(up.checkLockFile()) << content;
    EXPECT_EQ(readFile(lock()), content);
    ASSERT_EQ(cap.messages().size(), 2u);
    EXPECT_EQ(cap.messages()[1].rfind("checkLockFile error : ", 0), 0u) << cap.messages()[1];
  }
}

TEST_F(LockFile, RemoveDeletesTheFile) {
  ASSERT_TRUE(up.checkLockFile());
  up.removeLockFile();
  EXPECT_FALSE(boost::filesystem::exists(lock()));
  EXPECT_TRUE(cap.contains("Remove lock file"));
  up.removeLockFile();  // already gone: ignored
}

}  // namespace
