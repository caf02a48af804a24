// Runs a fuzzer's LLVMFuzzerTestOneInput once on every file of the directories (searched
// recursively) and files named on the command line, so that a seed corpus replays as an
// ordinary test where libFuzzer is not available (g++ builds).
//
// Each input is copied into a heap buffer of exactly its size, as libFuzzer does, so a
// sanitizer build catches a read past its end. A name that is no file nor directory, or a
// corpus without a file, fails: a replay that ran nothing must not pass.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "read_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Optional, as with libFuzzer: a fuzzer that needs set-up defines it.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<fs::path> inputs;
  for (int index = 1; index < argc; ++index) {
    if (fs::is_regular_file(argv[index])) inputs.emplace_back(argv[index]);
    if (!fs::is_directory(argv[index])) continue;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(argv[index])) {
      if (entry.is_regular_file()) inputs.push_back(entry.path());
    }
  }
  if (inputs.empty() ||
      std::any_of(argv + 1, argv + argc, [](const char* name) { return !fs::exists(name); })) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIR... (all present, one file at least)\n", argv[0]);
    return 1;
  }
  // A fixed order, so that a failure reproduces run after run.
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path& input : inputs) {
    const std::string content = korcommon::testing::readFile(input);
    // Printed first, so the output of a crash names the input that caused it.
    std::printf("%s (%zu bytes)\n", input.c_str(), content.size());
    std::fflush(stdout);
    const auto exact = std::make_unique<uint8_t[]>(std::max<size_t>(content.size(), 1));
    std::copy(content.begin(), content.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), content.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
