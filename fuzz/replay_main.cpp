// Runs a fuzz target once over every input of the given files and corpus
// directories, so the seeds are checked by ctest with any compiler and a
// crash found by the fuzzer can be replayed under a debugger. The targets
// abort on a broken invariant; reaching the end means every input passed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::filesystem::path> inputsOf(const std::filesystem::path& arg) {
  std::vector<std::filesystem::path> files;
  if (!std::filesystem::is_directory(arg)) {
    files.push_back(arg);
    return files;
  }
  for (const auto& entry : std::filesystem::directory_iterator(arg)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  // Directory order differs between file systems; a fixed order makes a
  // failure reproduce the same way everywhere.
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <corpus dir or file>...\n", argv[0]);
    return 2;
  }
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& file : inputsOf(argv[i])) {
      std::ifstream in(file, std::ios::binary);
      if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
      }
      const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      // A buffer of exactly the input's size, as libFuzzer passes it, so that
      // AddressSanitizer sees a read past the end.
      std::unique_ptr<uint8_t[]> data(new uint8_t[bytes.size()]);
      std::copy(bytes.begin(), bytes.end(), data.get());
      std::fprintf(stderr, "%s\n", file.c_str());
      LLVMFuzzerTestOneInput(data.get(), bytes.size());
      ++count;
    }
  }
  std::fprintf(stderr, "replayed %zu inputs\n", count);
  // An empty run would pass whatever the target does: a wrong corpus path
  // must not look like success.
  return count == 0 ? 1 : 0;
}
