#include "read_file.h"

#include <fstream>
#include <iterator>

namespace korcommon::testing {

std::string readFile(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

}  // namespace korcommon::testing
