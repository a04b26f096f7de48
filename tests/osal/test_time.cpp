#include <gtest/gtest.h>

#include <sys/time.h>

#include <set>

#include "KXSys.h"
#include "KXTerm.h"
#include "osal_sync.h"
#include "osal_time.h"

namespace {

TEST(Time, MillisecondsAgreeWithTheWallClock) {
  struct timeval before {};
  gettimeofday(&before, nullptr);
  unsigned long long ms = 0;
  ASSERT_EQ(osal_getMs(&ms), 0);
  const unsigned long long low = static_cast<unsigned long long>(before.tv_sec) * 1000 + before.tv_usec / 1000;
  EXPECT_GE(ms, low);
  EXPECT_LT(ms - low, 60000u);
  EXPECT_GE(KXSys::timeMs(), ms);
}

TEST(Time, AbsoluteDeadlineKeepsNanosecondsNormalised) {
  for (unsigned int ms : {0u, 1u, 999u, 1000u, 1999u, 123456789u}) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct timespec ts {};
    ASSERT_EQ(MillisecsToAbsoluteTimespec(ms, &ts), 0);
    EXPECT_GE(ts.tv_nsec, 0);
    EXPECT_LT(ts.tv_nsec, 1000000000L);
    const long long deadlineMs = static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    const long long nowMs = static_cast<long long>(now.tv_sec) * 1000 + now.tv_usec / 1000;
    EXPECT_GE(deadlineMs - nowMs, static_cast<long long>(ms)) << ms;
    EXPECT_LT(deadlineMs - nowMs, static_cast<long long>(ms) + 60000) << ms;
  }
}

TEST(Time, TimeoutTerminatorFiresAtItsTimeout) {
  TimeoutTerminator zero(0);
  EXPECT_TRUE(zero.chkTerminate());
  TimeoutTerminator later(3600 * 1000ULL);
  EXPECT_FALSE(later.chkTerminate());
  later.reset(0);
  EXPECT_TRUE(later.chkTerminate());
}

TEST(Random, DrawsVary) {
  std::set<uint32_t> seen;
  for (int i = 0; i < 16; ++i) seen.insert(KXSys::KXRand());
  EXPECT_GT(seen.size(), 8u);
}

}  // namespace
