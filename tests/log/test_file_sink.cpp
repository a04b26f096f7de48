#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <regex>
#include <string>

#include "CaptureLogCb.h"
#include "FileKXLogCb.h"
#include "TempDir.h"

namespace {

namespace fs = boost::filesystem;

// "[2026-11-16 00:52:07] - ROOT:ERR - [ (f:1)] - " is 46 characters.
constexpr size_t kPrefix = 46;
constexpr uintmax_t kLimit = 5242880;

void logLine(FileKXLogCb& sink, const std::string& message) {
  sink.log(1, 2, "ROOT", "ERR", "f", 1, "fn", message.c_str());
}

// The message that makes a line of `length` characters, newline not counted.
std::string messageForLine(uintmax_t length) { return std::string(length - kPrefix, 'm'); }

TEST(FileSinkLayout, OneTimeStampedLinePerMessageAlsoEchoed) {
  TempDir dir;
  const std::string path = dir.file("agent_upd.log");
  const uint32_t before = FileKXLogCb::g_cpt;
  ::testing::internal::CaptureStdout();
  {
    FileKXLogCb sink(path, true);
    sink.log(7, 8, "ROOT", "ERR", "Updater/Updater", 177, "fn", "Request version_long.txt failed : [404]");
    sink.log(7, 8, "HTTP", "DGB", "base\\osal/MacOS\\UxosalConf", 3, "", "");
  }
  const std::string content = readFile(path);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), content);
  EXPECT_EQ(FileKXLogCb::g_cpt, before + 2);
  const std::regex expected(
      "\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\] - ROOT:ERR - \\[ \\(Updater:177\\)\\] - "
      "Request version_long.txt failed : \\[404\\]\n"
      "\\[[-0-9: ]{19}\\] - HTTP:DGB - \\[ \\(UxosalConf:3\\)\\] - \n");
  EXPECT_TRUE(std::regex_match(content, expected)) << content;
}

TEST(FileSinkLayout, ShortFileNameAndBackupName) {
  const std::string forty = "abcdefghij0123456789ABCDEFGHIJ0123456789";
  EXPECT_EQ(FileKXLogCb::shortFileName("base/osal/MacOS/UxosalConf"), "UxosalConf");
  EXPECT_EQ(FileKXLogCb::shortFileName("base\\osal\\MacOS\\UxosalConf"), "UxosalConf");
  EXPECT_EQ(FileKXLogCb::shortFileName("a\\b/UxosalConf"), "UxosalConf");
  EXPECT_EQ(FileKXLogCb::shortFileName(forty.c_str()), forty.substr(8));
  EXPECT_EQ(FileKXLogCb::shortFileName(("x/" + forty).c_str()), forty);  // cut only without separator
  EXPECT_EQ(FileKXLogCb::shortFileName("dir/"), "");

  EXPECT_EQ(FileKXLogCb::backupName("/var/UpdLogs/agent_upd.log"), "/var/UpdLogs/agent_upd.bak");
  EXPECT_EQ(FileKXLogCb::backupName("/var/agent"), "/var/a.bak");  // four characters, whatever they are
  EXPECT_EQ(FileKXLogCb::backupName("abc"), "abc.bak");
}

TEST(FileSinkLayout, StatementsReachTheFileThroughTheLogger) {
  TempDir dir;
  const std::string path = dir.file("agent_upd.log");
  {
    ScopedLogCapture restore("ROOT:5;");  // puts the previous sink back before this one goes
    FileKXLogCb sink(path, false);
    KXLog::getLogger()->setLogCb(&sink);
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Update done");
  }
  EXPECT_TRUE(std::regex_search(readFile(path), std::regex(" - ROOT:NFY - \\[ \\(test_file_sink:\\d+\\)\\] - "
                                                           "Agent Update done\n$")));
}

class FileSinkRoll : public ::testing::Test {
 protected:
  void prefill(uintmax_t size) { writeFile(path, std::string(static_cast<size_t>(size), 'o')); }

  TempDir dir;
  std::string path = dir.file("agent_upd.log");
  std::string bak = dir.file("agent_upd.bak");
};

TEST_F(FileSinkRoll, LineReachingTheLimitExactlyIsAppended) {
  prefill(5242800);
  FileKXLogCb sink(path, false);
  logLine(sink, messageForLine(80));
  EXPECT_FALSE(fs::exists(bak));
  EXPECT_EQ(fs::file_size(path), 5242800u + 80u + 1u);
}

TEST_F(FileSinkRoll, LineCrossingTheLimitGoesFirstIntoAFreshFile) {
  prefill(5242800);
  FileKXLogCb sink(path, false);
  const std::string message = messageForLine(81);
  logLine(sink, message);
  EXPECT_EQ(readFile(bak), std::string(5242800, 'o'));
  const std::string fresh = readFile(path);
  EXPECT_EQ(fresh.size(), 82u);
  EXPECT_EQ(fresh.substr(kPrefix), message + "\n");

  // Fill the fresh file to the limit; the next line rolls again and the
  // backup is replaced.
  logLine(sink, messageForLine(kLimit - 82 - 1));
  ASSERT_EQ(fs::file_size(path), kLimit);
  logLine(sink, "x");
  EXPECT_EQ(fs::file_size(bak), kLimit);
  EXPECT_EQ(readFile(bak).substr(0, 82), fresh);
  EXPECT_EQ(fs::file_size(path), kPrefix + 2);
}

TEST_F(FileSinkRoll, FailedRenameKeepsAppendingAndRetriesWithTheNextLine) {
  prefill(kLimit);
  fs::create_directories(bak + "/occupied");  // rename onto a non-empty directory fails
  FileKXLogCb sink(path, false);
  logLine(sink, "kept in place");
  EXPECT_EQ(fs::file_size(path), kLimit + kPrefix + 13 + 1);
  fs::remove_all(bak);
  logLine(sink, "rolled now");
  EXPECT_EQ(fs::file_size(bak), kLimit + kPrefix + 13 + 1);
  EXPECT_EQ(fs::file_size(path), kPrefix + 10 + 1);
}

TEST(FileSinkFailure, UnusableDirectoryLeavesTheSinkFailedButEchoing) {
  TempDir dir;
  writeFile(dir.file("plain"), "not a directory");
  ::testing::internal::CaptureStdout();
  {
    FileKXLogCb sink(dir.file("plain/UpdLogs/agent_upd.log"), true);  // cannot exist, even for root
    logLine(sink, "still echoed");
    sink.rollLogFiles();
    logLine(sink, "and again");
  }
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(std::regex_match(out, std::regex("\\[.{19}\\] - ROOT:ERR - \\[ \\(f:1\\)\\] - still echoed\n"
                                               "\\[.{19}\\] - ROOT:ERR - \\[ \\(f:1\\)\\] - and again\n")))
      << out;
  EXPECT_EQ(readFile(dir.file("plain")), "not a directory");
}

TEST(FileSinkFailure, FailedReopenLosesTheFileButKeepsEchoing) {
  TempDir dir;
  const std::string sub = dir.file("UpdLogs");
  fs::create_directories(sub);
  writeFile(sub + "/agent_upd.log", std::string(static_cast<size_t>(kLimit), 'o'));
  ::testing::internal::CaptureStdout();
  {
    FileKXLogCb sink(sub + "/agent_upd.log", true);
    // The directory goes away under the open file and a plain file takes its
    // place: the roll can neither rename nor reopen.
    fs::remove_all(sub);
    writeFile(sub, "squatter");
    logLine(sink, "triggers the roll");
    logLine(sink, "lost");
  }
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("triggers the roll\n"), std::string::npos);
  EXPECT_NE(out.find("lost\n"), std::string::npos);
  EXPECT_EQ(readFile(sub), "squatter");
}

}  // namespace
