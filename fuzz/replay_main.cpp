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
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Optional, as with libFuzzer: a fuzzer that needs set-up defines it.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

namespace {

namespace fs = std::filesystem;

bool collectInputs(const fs::path& argument, std::vector<fs::path>& inputs) {
  std::error_code error;
  if (fs::is_regular_file(argument, error)) {
    inputs.push_back(argument);
    return true;
  }
  if (!fs::is_directory(argument, error)) {
    std::fprintf(stderr, "replay: %s is neither a file nor a directory\n", argument.c_str());
    return false;
  }
  std::vector<fs::path> found;
  for (fs::recursive_directory_iterator entry(argument, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->is_regular_file(error)) found.push_back(entry->path());
  }
  if (error) {
    std::fprintf(stderr, "replay: cannot list %s: %s\n", argument.c_str(), error.message().c_str());
    return false;
  }
  // A fixed order, so that a failure reproduces run after run.
  std::sort(found.begin(), found.end());
  inputs.insert(inputs.end(), found.begin(), found.end());
  return true;
}

bool readFile(const fs::path& path, std::vector<char>& content) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  content.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return !file.bad();
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIRECTORY_OR_FILE...\n", argv[0]);
    return 2;
  }
  std::vector<fs::path> inputs;
  for (int index = 1; index < argc; ++index) {
    if (!collectInputs(argv[index], inputs)) return 1;
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no inputs found\n");
    return 1;
  }

  std::vector<char> content;
  for (const fs::path& input : inputs) {
    if (!readFile(input, content)) {
      std::fprintf(stderr, "replay: cannot read %s\n", input.c_str());
      return 1;
    }
    // Printed first, so the output of a crash names the input that caused it.
    std::printf("%s (%zu bytes)\n", input.c_str(), content.size());
    std::fflush(stdout);
    const size_t size = content.size();
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[size == 0 ? 1 : size]);
    std::copy(content.begin(), content.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), size);
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
