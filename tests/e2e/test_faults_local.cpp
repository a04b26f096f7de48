// The machine's side goes wrong: odd things where the lock file or the log
// lives, runs started together, a log directory that cannot be made.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "FaultTest.h"

namespace e2e {
namespace {

bool isLink(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

// ---- lock file ---------------------------------------------------------------------

class LockFault : public FaultTest {};

// A directory opens for reading but holds no line: refused like a lock
// whose content is not a number, run after run, until a person removes it.
TEST_F(LockFault, DirectoryInItsPlaceRefusesEveryRun) {
  publish();
  ASSERT_EQ(mkdir(box.lockFile().c_str(), 0755), 0);
  for (int i = 0; i < 2; ++i) {
    const RunResult r = update();
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(box.messages().back().rfind("checkLockFile error : ", 0), 0u) << box.messages().back();
  }
  EXPECT_EQ(messagesStartingWith(box, "checkLockFile error : ").size(), 2u);
  EXPECT_TRUE(server.requestLines().empty());
  EXPECT_TRUE(box.calls().empty());
  struct stat st {};
  ASSERT_EQ(lstat(box.lockFile().c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

// The check and the creation of the lock are two steps, so runs started
// together may both find no lock. What is certain: at least one proceeds,
// each of the others is refused, and every run ends with 0.
TEST_F(LockFault, TenLaunchesAtOnce) {
  publish("7.2.0.1");
  guardOutside();
  constexpr int kRuns = 10;
  const Lines args{hex(server.url("")), "7.2.0.1"};
  std::mutex mutex;
  std::condition_variable gate;
  bool open = false;
  std::vector<RunResult> results(kRuns);
  std::vector<std::thread> threads;
  for (int i = 0; i < kRuns; ++i) {
    threads.emplace_back([&, i] {
      {
        std::unique_lock<std::mutex> lock(mutex);
        gate.wait(lock, [&] { return open; });
      }
      results[static_cast<size_t>(i)] = box.run(program(), args);
    });
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
  }
  gate.notify_all();
  for (std::thread& t : threads) t.join();

  for (const RunResult& r : results) EXPECT_EQ(r.status, 0) << r;
  const Lines lines = server.requestLines();
  const long proceeded = std::count(lines.begin(), lines.end(), "GET /agent_setup_def.json");
  const size_t refusedByAge = messagesStartingWith(box, "Another instance of has been launched").size();
  // A run that reads the lock between another's creating and writing it
  // finds no number in it.
  const size_t refusedUnread = messagesStartingWith(box, "checkLockFile error : ").size();
  const size_t refused = refusedByAge + refusedUnread;
  EXPECT_GE(proceeded, 1);
  EXPECT_EQ(static_cast<size_t>(proceeded) + refused, static_cast<size_t>(kRuns));
  EXPECT_EQ(messagesStartingWith(box, "OS is [Linux]").size(), static_cast<size_t>(proceeded));
  EXPECT_EQ(messagesStartingWith(box, "Current version is up to date. Nothing to do").size(),
            static_cast<size_t>(proceeded));
  EXPECT_EQ(messagesStartingWith(box, "Check Update").size(), static_cast<size_t>(kRuns));
  EXPECT_TRUE(std::regex_match(readFile(box.lockFile()), std::regex("[0-9]{13}\n"))) << readFile(box.lockFile());
  RecordProperty("proceeded", static_cast<int>(proceeded));
  std::cout << "[   INFO   ] " << kRuns << " launches at once: " << proceeded << " proceeded, " << refusedByAge
            << " refused by the lock's age, " << refusedUnread << " by an unreadable lock" << std::endl;
}

// ---- log file --------------------------------------------------------------------------

constexpr size_t kLogLimit = 5242880;

// size bytes of whole lines that are not log lines.
std::string filler(size_t size) {
  std::string line(99, 'o');
  line += '\n';
  std::string out;
  out.reserve(size);
  while (out.size() + line.size() <= size) out += line;
  if (out.size() < size) out.append(size - out.size() - 1, 'o').append("\n");
  return out;
}

// The messages of a log text that are real log lines (the filler is not).
Lines logMessages(const std::string& text) {
  Lines out;
  for (const LogLine& l : parseLog(text)) {
    if (!l.module.empty()) out.push_back(l.message);
  }
  return out;
}

// An up-to-date server: every run writes the same short sequence.
class LogFault : public FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    publish("7.2.0.1");
  }
  RunResult upToDate(Lines options = {}) { return update("7.2.0.1", std::move(options)); }
  std::string backup() const { return box.file("agent_upd.bak"); }
  Lines wholeRun() const {
    return {"Check Update", "Lock file is [" + box.lockFile() + "]", "OS is [Linux]", "Available version is 7.2.0.1",
            "Current version is up to date. Nothing to do"};
  }
};

TEST_F(LogFault, AtTheLimitTheFirstLineRollsOverAnExistingBackup) {
  const std::string old = filler(kLogLimit);
  writeFile(box.logFile(), old);
  writeFile(backup(), "older backup\n");
  const RunResult r = upToDate();
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_TRUE(readFile(backup()) == old) << "the backup is replaced by the full log, untouched";
  const Lines messages = box.messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), "Check Update") << "the line that did not fit starts the new file";
  EXPECT_TRUE(inOrder(messages, wholeRun()));
}

TEST_F(LogFault, JustBelowTheLimitTheRunIsSplitWithoutLosingALine) {
  const std::string old = filler(kLogLimit - 300);
  writeFile(box.logFile(), old);
  const RunResult r = upToDate();
  ASSERT_EQ(r.status, 0) << r;
  const std::string rolled = readFile(backup());
  ASSERT_EQ(rolled.compare(0, old.size(), old), 0) << "the old content went to the backup whole";
  const Lines before = logMessages(rolled);
  const std::vector<LogLine> after = box.log();
  ASSERT_FALSE(before.empty()) << "the first lines still fitted";
  ASSERT_FALSE(after.empty());
  EXPECT_EQ(before.front(), "Check Update");
  // The backup took every line that fitted (a line's newline may pass the
  // limit by one), and the first line of the new file would not have.
  EXPECT_LE(rolled.size(), kLogLimit + 1);
  EXPECT_GT(rolled.size() + after.front().raw.size(), kLogLimit);
  Lines all = before;
  for (const LogLine& l : after) all.push_back(l.message);
  EXPECT_TRUE(inOrder(all, wholeRun()));
  EXPECT_EQ(std::count(all.begin(), all.end(), "Check Update"), 1);
}

// The roll cannot move the file onto a directory: the log keeps growing past
// the limit and the run goes on.
TEST_F(LogFault, BackupThatIsADirectoryStopsTheRollNotTheRun) {
  const std::string old = filler(kLogLimit);
  writeFile(box.logFile(), old);
  ASSERT_EQ(mkdir(backup().c_str(), 0755), 0);
  writeFile(backup() + "/kept", "kept\n");
  const RunResult r = upToDate();
  ASSERT_EQ(r.status, 0) << r;
  const std::string log = readFile(box.logFile());
  EXPECT_GT(log.size(), kLogLimit);
  EXPECT_EQ(log.compare(0, old.size(), old), 0);
  EXPECT_TRUE(inOrder(logMessages(log), wholeRun()));
  EXPECT_EQ(readFile(backup() + "/kept"), "kept\n");
}

// The roll replaces a link in the backup's place; where it pointed stays as
// it was.
TEST_F(LogFault, BackupThatIsALinkIsReplacedNotFollowed) {
  const std::string old = filler(kLogLimit);
  writeFile(box.logFile(), old);
  writeFile(outside("precious"), "precious\n");
  ASSERT_EQ(symlink(outside("precious").c_str(), backup().c_str()), 0);
  const RunResult r = upToDate();
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_FALSE(isLink(backup()));
  EXPECT_TRUE(readFile(backup()) == old);
  EXPECT_EQ(readFile(outside("precious")), "precious\n");
  EXPECT_EQ(box.messages().front(), "Check Update");
}

// The database directory lies below a regular file, so its log directory
// cannot be made (root is not stopped by permissions, but by this). The run
// goes on without a log file; -D still echoes every line.
TEST_F(LogFault, LogDirectoryThatCannotBeMadeLeavesTheEcho) {
  writeFile(box.file("plain"), "plain\n");
  const std::string db = box.file("plain") + "/db";
  {
    const ScopedConfig config(configRoot(), box.instance(), db);
    const RunResult r = upToDate({"-D"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_TRUE(inOrder(logMessages(r.out), wholeRun())) << r;
    EXPECT_EQ(readFile(box.file("plain")), "plain\n");
    EXPECT_FALSE(exists(box.logFile())) << "no fall back to the temporary directory";
    EXPECT_TRUE(lockExists());
    expectOutsideUnchanged();
  }
  // Without -D nothing at all is recorded, and the run still completes.
  const ScopedConfig config(configRoot(), box.instance(), db);
  std::remove(box.lockFile().c_str());
  const RunResult quiet = upToDate();
  EXPECT_EQ(quiet.status, 0) << quiet;
  EXPECT_EQ(quiet.out, "");
  EXPECT_EQ(server.requestLines().size(), 2 * upToDateRequests().size());
  expectOutsideUnchanged();
}

}  // namespace
}  // namespace e2e
