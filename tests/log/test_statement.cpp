#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "CaptureLogCb.h"
#include "KXLog.h"
#include "osal_thread.h"

namespace {

struct Thrower {};
KXStreamLogger& operator<<(KXStreamLogger&, const Thrower&) { throw std::runtime_error("boom"); }

int g_evaluations = 0;
int counted() {
  ++g_evaluations;
  return 1;
}

// A sink that forwards to a capture and throws on demand.
class ThrowingCb : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char*, const char*, int, const char*,
           const char*) override {
    throw std::runtime_error("sink failed");
  }
};

TEST(Statement, DeliversEveryFieldToTheSink) {
  ScopedLogCapture cap("ROOT:5;");
  KXLOG(KXLM_ROOT, KXLL_ERR, "Request failed : [" << 6 << "]");
  const int line = __LINE__ - 1;
  auto lines = cap.sink().lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "Request failed : [6]");
  EXPECT_EQ(lines[0].module, "ROOT");
  EXPECT_EQ(lines[0].level, "ERR");
  EXPECT_EQ(lines[0].file, "tests/log/test_statement");
  EXPECT_EQ(lines[0].line, line);
  EXPECT_EQ(lines[0].function, "");
  EXPECT_EQ(lines[0].pid, osal_getPid());
  EXPECT_EQ(lines[0].tid, osal_getThreadID());
}

TEST(Statement, LevelFilterComesBeforeThePiecesAreEvaluated) {
  ScopedLogCapture cap("");  // every module at ERR
  g_evaluations = 0;
  KXLOG(KXLM_ROOT, KXLL_DBG, "hidden " << counted());
  EXPECT_EQ(g_evaluations, 0);
  EXPECT_TRUE(cap.messages().empty());

  KXLog::getLogger()->setLevels("ROOT:5;");
  KXLOG(KXLM_ROOT, KXLL_DBG, "shown " << counted());
  KXLOG(KXLM_ROOT, 6, "too verbose " << counted());
  EXPECT_EQ(g_evaluations, 1);
  EXPECT_EQ(cap.messages(), std::vector<std::string>{"shown 1"});
  EXPECT_EQ(cap.sink().lines()[0].level, "DBG");
}

TEST(Statement, LevelEightIsSpelledDgb) {
  ScopedLogCapture cap("HTTP:9;");
  KXLOG(KXLM_HTTP, 8, "x");
  ASSERT_EQ(cap.sink().lines().size(), 1u);
  EXPECT_EQ(cap.sink().lines()[0].level, "DGB");
  EXPECT_EQ(cap.sink().lines()[0].module, "HTTP");
}

TEST(Statement, ShortMessageAfterLongOneHasNoStaleTail) {
  ScopedLogCapture cap;
  KXLOG(KXLM_ROOT, KXLL_NFY, "a much longer message than the next one");
  KXLOG(KXLM_ROOT, KXLL_NFY, "short");
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"a much longer message than the next one", "short"}));
}

TEST(Statement, NullSinkProducesNothing) {
  ScopedLogCapture cap;
  KXLog::getLogger()->setLogCb(nullptr);
  g_evaluations = 0;
  KXLOG(KXLM_ROOT, KXLL_NFY, "x" << counted());
  EXPECT_EQ(g_evaluations, 0);
  KXLog::getLogger()->setLogCb(&cap.sink());
  EXPECT_TRUE(cap.messages().empty());
}

void logThrowingPiece() { KXLOG(KXLM_ROOT, KXLL_NFY, "before " << Thrower{}); }

TEST(Statement, ThrowingPieceIsReportedAndTheLockReleased) {
  ScopedLogCapture cap;
  ::testing::internal::CaptureStderr();
  logThrowingPiece();
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("Log error (missed): logThrowingPiece (line ", 0), 0u) << err;
  EXPECT_EQ(err.back(), '\n');
  EXPECT_TRUE(cap.messages().empty());
  // The lock was released: the next statement goes through.
  KXLOG(KXLM_ROOT, KXLL_NFY, "after");
  EXPECT_EQ(cap.messages(), std::vector<std::string>{"after"});
}

TEST(Statement, ThrowingSinkIsReported) {
  ScopedLogCapture cap;
  ThrowingCb bad;
  KXLog::getLogger()->setLogCb(&bad);
  ::testing::internal::CaptureStderr();
  KXLOG(KXLM_ROOT, KXLL_NFY, "x");
  const std::string err = ::testing::internal::GetCapturedStderr();
  KXLog::getLogger()->setLogCb(&cap.sink());
  EXPECT_NE(err.find("Log error (missed): TestBody (line "), std::string::npos) << err;
}

TEST(DefaultSink, WritesOneLineWithHexIdentifiers) {
  KXLog::KXLogDefCb cb;
  ::testing::internal::CaptureStdout();
  cb.log(0x1f3, 0x1c0a2, "ROOT", "ERR", "Updater/Updater", 166, "ignored",
         "Request version_long.txt failed : [6] -> Couldn't resolve host name");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "0x1f3,0x1c0a2 - ROOT:ERR [ Updater/Updater:166 ] - Request version_long.txt failed : [6] -> "
            "Couldn't resolve host name\n");
}

TEST(Singleton, DestroyThenGetMakesAFreshLoggerWithDefaults) {
  KXLog* before = KXLog::getLogger();
  ASSERT_NE(before, nullptr);
  before->setLevels("ROOT:9;");
  KXLog::destroyLogger();
  KXLog::destroyLogger();  // a second call is harmless
  KXLog* after = KXLog::getLogger();
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after->getLevel(KXLM_ROOT), KXLL_ERR);
  EXPECT_NE(after->getLogCb(), nullptr);
}

TEST(IgnoreList, IsPerThread) {
  KXLog* log = KXLog::getLogger();
  EXPECT_FALSE(log->shouldIgnoreDBErr(42));
  log->ignoreDBErr(42);
  EXPECT_TRUE(log->shouldIgnoreDBErr(42));
  bool seenElsewhere = true;
  std::thread([&] { seenElsewhere = log->shouldIgnoreDBErr(42); }).join();
  EXPECT_FALSE(seenElsewhere);
  log->unignoreDBErr(42);
  log->unignoreDBErr(7);  // never added
  EXPECT_FALSE(log->shouldIgnoreDBErr(42));
}

}  // namespace
