// Throughput of the base services the update run leans on: the file log sink,
// which writes every line at once (side by side with spdlog flushing every
// line, where Debian's spdlog is installed), and the hashing of a downloaded
// package.
//
// "bench_base --md5 <file>" only prints the file's MD5 as computeFileHexHash
// gives it; bench/md5_vs_md5sum.sh times that against md5sum.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#ifdef KX_BENCH_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include "FileKXLogCb.h"
#include "KXHash.h"
#include "KXLog.h"

namespace {

// A scratch directory under $TMPDIR (or /tmp), removed at the end of scope.
class ScratchDir {
 public:
  ScratchDir() {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kxbench.XXXXXX";
    if (mkdtemp(&tmpl[0]) != nullptr) _path = tmpl;
  }
  ~ScratchDir() {
    std::error_code ec;
    if (!_path.empty()) std::filesystem::remove_all(_path, ec);
  }
  bool ok() const { return !_path.empty(); }
  std::string file(const char* name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

// A typical line of the update run: about 100 bytes once formatted.
const char* const kMessage = "Downloading setup package agent-7.3.1.0-arm64.dmg, attempt 1 of 3";

void BM_FileSinkLine(benchmark::State& state) {
  ScratchDir dir;
  if (!dir.ok()) return state.SkipWithError("no scratch directory");
  FileKXLogCb sink(dir.file("agent_upd.log"), false);
  for (auto _ : state) sink.log(1, 2, "ROOT", "NFY", "Updater/Updater", 177, "", kMessage);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileSinkLine)->UseRealTime();

// The same line through a logging statement: level test, lock, formatting.
void BM_FileSinkStatement(benchmark::State& state) {
  ScratchDir dir;
  if (!dir.ok()) return state.SkipWithError("no scratch directory");
  KXLog* log = KXLog::getLogger();
  FileKXLogCb sink(dir.file("agent_upd.log"), false);
  KXLogCb* previous = log->getLogCb();
  log->setLogCb(&sink);
  log->setLevels("ROOT:5;");
  int attempt = 0;
  for (auto _ : state) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Downloading setup package agent-7.3.1.0-arm64.dmg, attempt " << ++attempt << " of 3");
  }
  log->setLogCb(previous);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileSinkStatement)->UseRealTime();

#ifdef KX_BENCH_SPDLOG
// The reference for the file sink: the same line through a thread-safe spdlog
// logger that flushes every line, with a pattern of the same shape.
void BM_SpdlogFlushedLine(benchmark::State& state) {
  ScratchDir dir;
  if (!dir.ok()) return state.SkipWithError("no scratch directory");
  auto logger = spdlog::basic_logger_mt("bench", dir.file("spdlog.log"), true);
  logger->set_pattern("[%Y-%m-%d %H:%M:%S] - ROOT:%L - [ (%s:%#)] - %v");
  logger->flush_on(spdlog::level::trace);
  int attempt = 0;
  for (auto _ : state) {
    SPDLOG_LOGGER_INFO(logger, "Downloading setup package agent-7.3.1.0-arm64.dmg, attempt {} of 3", ++attempt);
  }
  spdlog::drop("bench");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpdlogFlushedLine)->UseRealTime();
#endif

void BM_ComputeFileHexHash(benchmark::State& state) {
  ScratchDir dir;
  if (!dir.ok()) return state.SkipWithError("no scratch directory");
  const std::string path = dir.file("package.bin");
  {
    std::vector<char> data(static_cast<size_t>(state.range(0)));
    std::mt19937 gen(42);
    for (char& c : data) c = static_cast<char>(gen());
    std::ofstream(path, std::ios::binary).write(data.data(), static_cast<std::streamsize>(data.size()));
  }
  unsigned char hex[33];
  for (auto _ : state) {
    KXHashMD5::computeFileHexHash(reinterpret_cast<const unsigned char*>(path.c_str()), hex);
    benchmark::DoNotOptimize(hex);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ComputeFileHexHash)->Arg(64 << 10)->Arg(64 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--md5") == 0) {
    unsigned char hex[33];
    KXHashMD5::computeFileHexHash(reinterpret_cast<const unsigned char*>(argv[2]), hex);
    std::printf("%s\n", reinterpret_cast<const char*>(hex));
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
