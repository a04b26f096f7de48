#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CaptureLogCb.h"
#include "KXSys.h"
#include "KXTerm.h"
#include "osal_time.h"

// Replaces the library's osal_doSleep for this program: the slices are
// recorded instead of slept.
namespace {
std::vector<unsigned int> g_slices;
bool g_failSleep = false;
}  // namespace

int osal_doSleep(unsigned int ms) {
  g_slices.push_back(ms);
  return g_failSleep ? -1 : 0;
}

namespace {

// Asks to stop once a given number of checks have been made, like a
// TimeoutTerminator whose time-out falls inside a later slice.
class StopAfter : public KXTermIntf {
 public:
  explicit StopAfter(int checks) : _left(checks) {}
  bool chkTerminate() override { return _left-- <= 0; }

 private:
  int _left;
};

class Sleep : public ::testing::Test {
 protected:
  void SetUp() override {
    g_slices.clear();
    g_failSleep = false;
  }
};

TEST_F(Sleep, SlicesAreAtMostOneSecond) {
  EXPECT_EQ(KXSys::sleepMs(2500, nullptr, "r"), KXSys::SleepDone);
  EXPECT_EQ(g_slices, (std::vector<unsigned int>{1000, 1000, 500}));
  g_slices.clear();
  EXPECT_EQ(KXSys::sleepMs(0, nullptr, nullptr), KXSys::SleepDone);
  EXPECT_TRUE(g_slices.empty());
}

TEST_F(Sleep, TerminationIsSeenBeforeTheNextSlice) {
  // A 1200 ms time-out is noticed at the check before the third slice.
  ScopedLogCapture cap("OSAL:5;");
  StopAfter term(2);
  EXPECT_EQ(KXSys::sleepMs(2500, &term, "waiting"), KXSys::SleepInterrupted);
  EXPECT_EQ(g_slices, (std::vector<unsigned int>{1000, 1000}));
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"sleep 2500 ms : \"waiting\"",
                                                      "Sleep interrupted due to requested termination : \"waiting\""}));
}

TEST_F(Sleep, AnnouncementOnlyFromLevelFour) {
  ScopedLogCapture cap("OSAL:3;");
  KXSys::sleepMs(10, nullptr, "quiet");
  EXPECT_TRUE(cap.messages().empty());
}

TEST_F(Sleep, FailingSleepIsReported) {
  ScopedLogCapture cap("OSAL:5;");
  g_failSleep = true;
  EXPECT_EQ(KXSys::sleepMs(1500, nullptr, "x"), KXSys::SleepFailed);
  EXPECT_TRUE(cap.contains("Cannot sleep 1000 ms"));
}

TEST_F(Sleep, SecondsSleepOneSecondAtATime) {
  ScopedLogCapture cap("OSAL:5;");
  StopAfter term(3);
  EXPECT_EQ(KXSys::sleep(5, &term, "s"), KXSys::SleepInterrupted);
  EXPECT_EQ(g_slices, (std::vector<unsigned int>{1000}));
  EXPECT_EQ(cap.messages().front(), "sleep 5 s : \"s\"");
}

}  // namespace
