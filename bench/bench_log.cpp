// Cost of a logging statement: filtered out by its level, and delivered to a
// sink that discards the line.
#include <benchmark/benchmark.h>

#include "KXLog.h"

namespace {

class NullCb : public KXLogCb {
 public:
  void log(unsigned int, unsigned long long, const char*, const char*, const char*, int, const char*,
           const char* message) override {
    benchmark::DoNotOptimize(message);
  }
};

NullCb g_null;

void BM_FilteredStatement(benchmark::State& state) {
  KXLog* log = KXLog::getLogger();
  log->setLogCb(&g_null);
  log->setLevels("ROOT:2;");
  int i = 0;
  for (auto _ : state) {
    KXLOG(KXLM_ROOT, KXLL_DBG, "never formatted " << ++i);
  }
  benchmark::DoNotOptimize(i);
}
BENCHMARK(BM_FilteredStatement);

void BM_Delivered100Bytes(benchmark::State& state) {
  KXLog* log = KXLog::getLogger();
  log->setLogCb(&g_null);
  log->setLevels("ROOT:5;");
  const char* text = "Downloading the setup package from the update server, attempt number";  // 69 bytes
  int i = 0;
  for (auto _ : state) {
    KXLOG(KXLM_ROOT, KXLL_NFY, text << " " << ++i << " of 3 [" << 1234567 << " bytes]");  // ~100 bytes
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 100);
}
BENCHMARK(BM_Delivered100Bytes);
BENCHMARK(BM_Delivered100Bytes)->Threads(4);

}  // namespace

BENCHMARK_MAIN();
