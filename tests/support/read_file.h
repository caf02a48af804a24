#ifndef KORCOMMON_TESTS_SUPPORT_READ_FILE_H_
#define KORCOMMON_TESTS_SUPPORT_READ_FILE_H_

#include <filesystem>
#include <string>

namespace korcommon::testing {

// The whole content of a file, byte for byte; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_READ_FILE_H_
