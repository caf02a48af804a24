// Runs a fuzzer's LLVMFuzzerTestOneInput once on every file of the directories (searched
// recursively) and files named on the command line, so that a seed corpus replays as an
// ordinary test where libFuzzer is not available (g++ builds).
//
// Each input is copied into a heap buffer of exactly its size, as libFuzzer does, so a
// sanitizer build catches a read past its end. A missing argument or an empty corpus fails:
// a replay that ran nothing must not pass.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Optional, as with libFuzzer: a fuzzer that needs set-up defines it.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIRECTORY_OR_FILE...\n", argv[0]);
    return 2;
  }
  std::vector<fs::path> inputs;
  try {
    for (int index = 1; index < argc; ++index) {
      if (!fs::is_directory(argv[index])) {
        inputs.emplace_back(argv[index]);
        continue;
      }
      std::vector<fs::path> found;
      for (const fs::directory_entry& entry : fs::recursive_directory_iterator(argv[index])) {
        if (entry.is_regular_file()) found.push_back(entry.path());
      }
      // A fixed order, so that a failure reproduces run after run.
      std::sort(found.begin(), found.end());
      inputs.insert(inputs.end(), found.begin(), found.end());
    }
  } catch (const fs::filesystem_error& error) {
    std::fprintf(stderr, "replay: %s\n", error.what());
    return 1;
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no inputs found\n");
    return 1;
  }

  for (const fs::path& input : inputs) {
    std::ifstream file(input, std::ios::binary);
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
      std::fprintf(stderr, "replay: cannot read %s\n", input.c_str());
      return 1;
    }
    // Printed first, so the output of a crash names the input that caused it.
    std::printf("%s (%zu bytes)\n", input.c_str(), content.size());
    std::fflush(stdout);
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[std::max<size_t>(content.size(), 1)]);
    std::copy(content.begin(), content.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), content.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
