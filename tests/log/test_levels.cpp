#include <gtest/gtest.h>

#include <string>

#include "KXLog.h"

namespace {

class Levels : public ::testing::Test {
 protected:
  void TearDown() override { log->setLevels(""); }

  // Runs setLevels and returns what it wrote to standard error.
  std::string apply(const char* config) {
    ::testing::internal::CaptureStderr();
    log->setLevels(config);
    return ::testing::internal::GetCapturedStderr();
  }

  void expectAllDefault(KXLogMType except = KXLM_COUNT) {
    for (unsigned m = 0; m < KXLM_COUNT; ++m) {
      if (m != except) {
        EXPECT_EQ(log->getLevel(static_cast<KXLogMType>(m)), KXLL_ERR) << KXLog::moduleTags[m];
      }
    }
  }

  KXLog* log = KXLog::getLogger();
};

TEST_F(Levels, TablesHaveTheirFixedContents) {
  EXPECT_STREQ(KXLog::moduleTags[0], "ROOT");
  EXPECT_STREQ(KXLog::moduleTags[17], "EXCP");
  EXPECT_STREQ(KXLog::moduleTags[43], "HTTP");
  EXPECT_STREQ(KXLog::moduleTags[53], "RBRA");
  for (const char* tag : KXLog::moduleTags) {
    ASSERT_EQ(std::string(tag).size(), 4u);
    for (const char* c = tag; *c; ++c) EXPECT_TRUE(*c >= 'A' && *c <= 'Z') << tag;
  }
  const char* expected[] = {"NFY", "EL2", "ERR", "WRN", "INF", "DBG", "DBG", "DBG", "DGB", "DBG"};
  for (int i = 0; i < 10; ++i) EXPECT_STREQ(KXLog::levelNames[i], expected[i]) << i;
}

TEST_F(Levels, EmptyTerminatorsAndNullRestoreDefaults) {
  for (const char* cfg : {"", "\n", "\r", " ROOT:5;", static_cast<const char*>(nullptr)}) {
    log->setLevels("ROOT:7;HTTP:1;");
    EXPECT_EQ(apply(cfg), "");
    expectAllDefault();
  }
}

TEST_F(Levels, EntriesSetEveryMatchingModule) {
  EXPECT_EQ(apply("ROOT:5;HTTP:0;RBRA:9;"), "");
  EXPECT_EQ(log->getLevel(KXLM_ROOT), 5);
  EXPECT_EQ(log->getLevel(KXLM_HTTP), 0);
  EXPECT_EQ(log->getLevel(KXLM_RBRA), 9);
  EXPECT_EQ(log->getLevel(KXLM_OSAL), KXLL_ERR);
}

TEST_F(Levels, DigitPrefixIsSkippedAndUnused) {
  EXPECT_EQ(apply("3;ROOT:5;"), "");
  EXPECT_EQ(log->getLevel(KXLM_ROOT), 5);
  expectAllDefault(KXLM_ROOT);
}

TEST_F(Levels, EndsAtLineBreakOrSpaceAfterEntries) {
  EXPECT_EQ(apply("ROOT:5;\nHTTP:x"), "");
  EXPECT_EQ(log->getLevel(KXLM_ROOT), 5);
  EXPECT_EQ(apply("ROOT:4; garbage"), "");
  EXPECT_EQ(log->getLevel(KXLM_ROOT), 4);
}

TEST_F(Levels, UnknownTagIsAcceptedAndChangesNothing) {
  EXPECT_EQ(apply("ABCD:9;"), "");
  expectAllDefault();
}

TEST_F(Levels, BadEntryIsReportedAndKeepsEarlierOnes) {
  EXPECT_EQ(apply("ROOT:5;HTTP:x;"), "KXLog::readConfig -> bad config ([...];HTTP:x;)\n");
  EXPECT_EQ(log->getLevel(KXLM_ROOT), 5);
  EXPECT_EQ(log->getLevel(KXLM_HTTP), KXLL_ERR);
}

TEST_F(Levels, MalformedEntriesAreReportedWhole) {
  struct Case {
    const char* config;
    const char* reported;
  } cases[] = {
      {"ROOT:5", "ROOT:5"},      // ends inside the entry
      {"root:5;", "root:5;"},    // lower-case tag
      {"ROOT:55;", "ROOT:55;"},  // two-digit level
      {"ROOT-5;", "ROOT-5;"},    // wrong separator
      {"ROOT:5,HTTP:1;", "ROOT:5,HTTP:1;"},
      {"R", "R"},
      {"3;x", "x"},                  // prefix skipped, then bad
      {"33;ROOT:1;", "33;ROOT:1;"},  // not a one-digit prefix
  };
  for (const auto& c : cases) {
    EXPECT_EQ(apply(c.config), std::string("KXLog::readConfig -> bad config ([...];") + c.reported + ")\n") << c.config;
    expectAllDefault();
  }
}

}  // namespace
