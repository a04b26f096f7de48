#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "CaptureLogCb.h"
#include "KXLog.h"

namespace {

// Eight threads share the logger's one stream; the lock must keep every
// statement whole. Each message carries its thread and sequence number and
// a payload whose length varies, so a torn or mixed message cannot pass.
TEST(LogThreads, ConcurrentStatementsNeverInterleaveOrGetLost) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 2000;
  ScopedLogCapture cap("ROOT:5;");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) {
        const std::string payload(static_cast<size_t>((i * 7 + t) % 50), static_cast<char>('a' + t));
        KXLOG(KXLM_ROOT, KXLL_INF, "t" << t << " #" << i << " " << payload << " end");
      }
    });
  }
  for (auto& th : threads) th.join();

  const auto lines = cap.sink().lines();
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kPerThread));
  std::map<int, int> next;
  std::map<int, unsigned long long> tidOf;
  for (const auto& l : lines) {
    int t = -1, i = -1;
    char payload[64] = {};
    ASSERT_GE(std::sscanf(l.message.c_str(), "t%d #%d %63s end", &t, &i, payload), 2) << l.message;
    ASSERT_TRUE(t >= 0 && t < kThreads) << l.message;
    EXPECT_EQ(i, next[t]++) << "lost or reordered: " << l.message;
    const std::string expected = "t" + std::to_string(t) + " #" + std::to_string(i) + " " +
                                 std::string(static_cast<size_t>((i * 7 + t) % 50), static_cast<char>('a' + t)) +
                                 " end";
    ASSERT_EQ(l.message, expected);
    if (tidOf.count(t) == 0) tidOf[t] = l.tid;
    EXPECT_EQ(l.tid, tidOf[t]);
  }
  EXPECT_EQ(tidOf.size(), static_cast<size_t>(kThreads));
}

}  // namespace
