#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>

#include "FileKXLogCb.h"
#include "TestSupport.h"
#include "osal_thread.h"

using namespace std::string_literals;
using S = KXStreamLogger;
namespace fs = boost::filesystem;

// Per config: "!" and what the bad-config report on standard error quotes,
// then every module not at ERR (2) with its level. A bad entry ends the
// reading and is quoted from where it starts; every call first resets all.
TEST(Levels, ConfigStrings) {
  KXLog* log = KXLog::getLogger();
  std::string got;
  for (const char* config :
       {"ROOT:5;HTTP:0;RBRA:9;", "3;ROOT:5;", "ROOT:5;\nHTTP:x", "ROOT:4; HTTP:1;", "RBRA:1;\rX", "ZZZZ:9;",
        "ROOT:5;HTTP:x;", "ROOT:5", "root:5;", "ROOT-5;", "ROOT:5,", "33;ROOT:1;", (const char*)nullptr}) {
    log->setLevels("OSAL:7;HTTP:7;");
    ::testing::internal::CaptureStderr();
    log->setLevels(config);
    const std::string err = ::testing::internal::GetCapturedStderr(),
                      prefix = "KXLog::readConfig -> bad config ([...];";
    got += err.compare(0, prefix.size(), prefix) == 0 ? "!" + err.substr(prefix.size()) : err;
    for (unsigned m = 0; m < KXLM_COUNT; ++m) {
      const int level = log->getLevel(static_cast<KXLogMType>(m));
      if (level != KXLL_ERR) got += KXLog::moduleTags[m] + std::to_string(level);
    }
    got += "|";
  }
  EXPECT_EQ(got,
            "ROOT5HTTP0RBRA9|ROOT5|ROOT5|ROOT4|RBRA1||!HTTP:x;)\nROOT5|!ROOT:5)\n|!root:5;)\n|!ROOT-5;)\n|!ROOT:5,)\n|"
            "!33;ROOT:1;)\n||");
}

int g_evaluations = 0;
int counted() { return ++g_evaluations; }
struct Thrower {};
S& operator<<(S&, const Thrower&) { throw std::runtime_error("boom"); }

// The level is tested before any piece is evaluated, and without a sink
// nothing is; a piece that throws is reported and the lock released.
TEST(Statement, FilteringDeliveryAndFailures) {
  ScopedLogCapture cap("ROOT:9;HTTP:5;");
  for (int level = 0; level < 10; ++level) KXLOG(KXLM_ROOT, level, level);
  KXLOG(KXLM_HTTP, KXLL_DBG + 1, "hidden " << counted());
  KXLOG(KXLM_OSAL, KXLL_WRN, "hidden " << counted());
  KXLOG(KXLM_HTTP, KXLL_DBG, "a much longer message than the next one " << counted());
  ::testing::internal::CaptureStderr();
  KXLOG(KXLM_ROOT, KXLL_NFY, "before " << Thrower{});
  EXPECT_EQ(::testing::internal::GetCapturedStderr().substr(0, 35), "Log error (missed): TestBody (line ");
  KXLog::getLogger()->setLogCb(nullptr);
  KXLOG(KXLM_ROOT, KXLL_NFY, "no sink " << counted());
  KXLog::getLogger()->setLogCb(&cap);
  KXLOG(KXLM_OSAL, KXLL_ERR, "short");
  const int line = __LINE__ - 1;
  std::string got;
  for (const auto& l : cap.lines()) got += l.module + ":" + l.level + " " + l.message + "|";
  EXPECT_EQ(got,
            "ROOT:NFY 0|ROOT:EL2 1|ROOT:ERR 2|ROOT:WRN 3|ROOT:INF 4|ROOT:DBG 5|ROOT:DBG 6|ROOT:DBG 7|ROOT:DGB 8|"
            "ROOT:DBG 9|HTTP:DBG a much longer message than the next one 1|OSAL:ERR short|");
  const auto l = cap.lines().back();
  EXPECT_EQ(std::tie(l.file, l.line, l.function, l.pid, l.tid),
            std::make_tuple("tests/log/test_log"s, line, ""s, osal_getPid(), (unsigned long long)osal_getThreadID()));
}

const unsigned char kBytes[] = "\x00\x0a\x1b\xff\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10Hello\n";
const unsigned char* kItems[] = {kBytes + 17, nullptr, kBytes + 20};
struct Printable : KXStreamLoggerImpl {
  void print(std::ostringstream& os) const override { os << "printed"; }
} kPrintable;

TEST(Stream, EveryOperand) {
  using Tabl = KXLogTabl<const unsigned char*>;
  const std::string pad(30, ' ');
  const std::pair<std::string, std::string> rows[] = {
      {(S() << "a" << (const char*)nullptr << (unsigned char*)nullptr << (unsigned char)'z' << "b"s << true << false)
           .str(),
       "a(null)(null)zbtruefalse"},
      {(S() << -5 << ' ' << 42ULL << ' ' << short(-3) << ' ' << 1.5 << ' ' << (const void*)42 << ' ' << (void*)nullptr)
           .str(),
       "-5 42 -3 1.5 @0x2a @0"},
      {(S() << S::Hex << 255 << S::Oct << ' ' << 8 << S::Dec << ' ' << 8 << (S::Base)5 << (S::Spec)3 << S::Endl).str(),
       "ff 10 8 < unknown base 5 >  < unknown spec 3 > \n"},
      {(S() << KX_FILETYPE_MNTPOINT << (KXFileType)7 << KX_OPENMODE_RDONLY << (KXOpenMode)0 << KX_TUNABLE_TYPE_UNDEF
            << (KXTunableType)-1)
           .str(),
       "KX_FILETYPE_MNTPOINTKX_FILETYPE_UNKNOWN_7KX_OPENMODE_RDONLYKX_OPENMODE_UNKNOWN_0KX_TUNABLE_TYPE_UNDEF"
       "KX_TUNABLE_TYPE_UNKNOWN_-1"},
      {(S() << S::Hex << static_cast<KXFileType>(26) << ' ' << 255).str(), "KX_FILETYPE_UNKNOWN_26 ff"},
      {(S() << Tabl{kItems, 0, ","} << Tabl{kItems, 1, ","} << Tabl{kItems, 3, ", "}).str(),
       "Hello\nHello\n, (null), lo\n"},
      {(S() << KXStreamLoggerAdapter{&kPrintable} << KXStreamLoggerAdapter{nullptr} << kPrintable).str(),
       "printedprinted"},
      {(S() << KXLogBlob(nullptr, 5) << KXLogBlob(kBytes, 0) << KXLogBlob(kBytes, 6, 0, 7)).str(), "UNDEFUNDEF"},
      {(S() << KXLogBlob(kBytes, 3, 1, KXLogBlob::Inline) << ' ' << 255).str(), "0x0a1bff 255"},
      {(S() << KXLogBlob(kBytes + 17, 6) << 10).str(), "0000   48 65 6C 6C 6F 0A " + pad + "   Hello.10"},
      {(S() << KXLogBlob(kBytes, 21, 2) << ' ' << 10).str(),
       "\n0000   1B FF 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 48    ...............H\n0010   65 6C 6C 6F 0A " + pad +
           "      ello. 10"},
      {(S() << KXLogBlob(kBytes, 16, 2)).str(),  // one whole row: no line break in front
       "0000   1B FF 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 48    ...............H"},
      {(S() << KXLogHStr("abcdef", 2, 2) << KXLogHStr("abc", 2, 2) << KXLogHStr("abcd", 2, 2)
            << KXLogHStr(nullptr, 2, 2))
           .str(),
       "ab...ef\"abc\"ab...cd\"<null>\""},
      {(S() << KXLogHStr("", 0, 0) << KXLogHStr("abcdef", 0x10001, 0x10001)).str(), "...a...f"}};
  for (const auto& [got, expected] : rows) EXPECT_EQ(got, expected);
  // A row more for one byte past a whole one.
  const std::string seventeen = (S() << KXLogBlob(kBytes, 17, 2)).str();
  EXPECT_EQ(std::count(seventeen.begin(), seventeen.end(), '\n'), 2) << seventeen;
}

TEST(Stream, OneHugeMessageDoesNotStayAsTheBuffer) {
  S s;
  s << std::string(S::kKeptBuffer, 'x') << S::Hex, s.clear(), s << "ab" << 255;
  EXPECT_EQ(s.str(), "abff" + std::string(S::kKeptBuffer - 4, 'x'));  // rewound, base kept, buffer kept
  s << std::string(1 << 20, 'x'), s.clear(), s << "short";
  EXPECT_EQ(s.str(), "short");
}

constexpr size_t kPrefix = 46;  // "[2026-11-16 00:52:07] - ROOT:ERR - [ (f:1)] - "
constexpr uintmax_t kLimit = 5242880;

// A line of `length` characters, newline not counted.
void logLine(FileKXLogCb& sink, size_t length) {
  sink.log(1, 2, "ROOT", "ERR", "f", 1, "fn", std::string(length - kPrefix, 'm').c_str());
}

// Lines name their source after its last separator, or by its last 32
// characters; a sink that cannot open its file only echoes.
TEST(FileSink, LineLayoutNamesAndEcho) {
  std::string names = FileKXLogCb::backupName("/var/UpdLogs/agent_upd.log") + FileKXLogCb::backupName("abc") +
                      FileKXLogCb::backupName(".log");
  for (const std::string& file : {"base/osal/MacOS/UxosalConf"s, "a\\b/Ux"s, "a/b\\Ux"s, "dir/"s,
                                  "x/" + std::string(40, 'y'), std::string(8, 'x') + std::string(32, 'y')}) {
    names += "|" + FileKXLogCb::shortFileName(file.c_str());
  }
  EXPECT_EQ(names, "/var/UpdLogs/agent_upd.bakabc.bak.bak|UxosalConf|Ux|Ux||" + std::string(40, 'y') + "|" +
                       std::string(32, 'y'));
  TempDir dir;
  int line = 0;
  ::testing::internal::CaptureStdout();
  {
    ScopedLogCapture restore("ROOT:5;");  // puts the previous sink back before this one goes
    FileKXLogCb sink(dir.file("agent_upd.log"), true), never(dir.file("missing/agent_upd.log"), true);
    KXLog::getLogger()->setLogCb(&sink);
    KXLOG(KXLM_ROOT, KXLL_NFY, "Agent Update done");
    line = __LINE__ - 1;
    sink.log(7, 8, "HTTP", "DGB", "base\\osal/MacOS\\UxosalConf", 3, "", nullptr);
    never.rollLogFiles();
    logLine(never, 50);
  }
  const std::string content = readFile(dir.file("agent_upd.log")), out = ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(out.size() == content.size() + 51 && out.compare(0, content.size(), content) == 0) << out;
  std::string stamps = content;  // the digits of each line's time stamp masked
  for (size_t i = 0, start = 0; i < stamps.size(); ++i) {
    if (stamps[i] == '\n') start = i + 1;
    if (i - start < 20 && std::isdigit(static_cast<unsigned char>(stamps[i]))) stamps[i] = 'd';
  }
  EXPECT_EQ(stamps, "[dddd-dd-dd dd:dd:dd] - ROOT:NFY - [ (test_log:" + std::to_string(line) +
                        ")] - Agent Update done\n[dddd-dd-dd dd:dd:dd] - HTTP:DGB - [ (UxosalConf:3)] - \n");
}

// The exact 5242880-byte boundary, a failed rename that keeps appending, and
// lines that follow the opened file, not a link planted at its path later.
TEST(FileSink, RollsBeforeALineWouldPassTheLimit) {
  TempDir dir;
  const std::string path = dir.file("agent_upd.log"), bak = dir.file("agent_upd.bak");
  writeFile(path, std::string(kLimit - 80, 'o'));
  FileKXLogCb sink(path, false);
  logLine(sink, 80);
  EXPECT_FALSE(fs::exists(bak));
  fs::create_directories(bak + "/occupied");  // rename onto a non-empty directory fails
  logLine(sink, 50);
  EXPECT_EQ(fs::file_size(path), kLimit + 52);
  fs::remove_all(bak);
  writeFile(bak, "old backup");
  logLine(sink, 60);
  EXPECT_EQ(fs::file_size(bak) + fs::file_size(path), kLimit + 52 + 61);
  ASSERT_EQ(rename(path.c_str(), dir.file("moved").c_str()), 0);
  ASSERT_EQ(symlink(bak.c_str(), path.c_str()), 0);
  logLine(sink, 70);
  EXPECT_EQ(fs::file_size(dir.file("moved")) + fs::file_size(bak), 61u + 71u + kLimit + 52);
}
