#ifndef KORCOMMON_TESTS_SUPPORT_READ_FILE_H_
#define KORCOMMON_TESTS_SUPPORT_READ_FILE_H_

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace korcommon::testing {

// The whole content of a file, byte for byte; empty when it cannot be read.
inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

// Replaces the content of a file.
inline void writeFile(const std::filesystem::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_READ_FILE_H_
