#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "TestSupport.h"

std::string message(int t, int i) { return std::to_string(t) + std::string((i * 7 + t) % 50, 'a') + std::to_string(i); }

// Eight threads share the logger's one stream; the lock must keep every
// statement whole. Lengths vary, so a torn or mixed message cannot pass, and
// each thread's messages must arrive complete, in order, under its own id.
TEST(LogThreads, ConcurrentStatementsNeverInterleaveOrGetLost) {
  ScopedLogCapture cap("ROOT:5;");
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 2000; ++i) KXLOG(KXLM_ROOT, KXLL_INF, message(t, i));
    });
  for (auto& th : threads) th.join();
  std::map<int, int> next;
  std::map<unsigned long long, int> threadOf;
  for (const auto& l : cap.lines()) {
    const int t = l.message[0] - '0';
    ASSERT_TRUE(l.message == message(t, next[t]++) && threadOf.emplace(l.tid, t).first->second == t) << l.message;
  }
  EXPECT_EQ(std::make_pair(threadOf.size(), cap.lines().size()), std::make_pair(size_t{8}, size_t{16000}));
}
