#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "CaptureLogCb.h"

namespace {

std::string message(int t, int i) {
  return std::to_string(t) + std::string((i * 7 + t) % 50, 'a' + t) + std::to_string(i);
}

// Eight threads share the logger's one stream; the lock must keep every
// statement whole. Payload lengths vary, so a torn or mixed message cannot
// pass, and each thread's messages must arrive in order with its own id.
TEST(LogThreads, ConcurrentStatementsNeverInterleaveOrGetLost) {
  ScopedLogCapture cap("ROOT:5;");
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 2000; ++i) KXLOG(KXLM_ROOT, KXLL_INF, message(t, i));
    });
  }
  for (auto& th : threads) th.join();
  const auto lines = cap.sink().lines();
  ASSERT_EQ(lines.size(), 8 * 2000u);
  std::map<int, int> next;
  std::map<unsigned long long, int> threadOf;
  for (const auto& l : lines) {
    const int t = l.message[0] - '0';
    ASSERT_EQ(l.message, message(t, next[t]++));
    ASSERT_EQ(threadOf.emplace(l.tid, t).first->second, t);
  }
  EXPECT_EQ(threadOf.size(), 8u);
}

}  // namespace
