#include "scratch_directory.h"

#include <cstdlib>

namespace korcommon::testing {
namespace fs = std::filesystem;

ScratchDirectory::ScratchDirectory(const std::string& prefix) {
  std::string pattern = (fs::temp_directory_path() / (prefix + ".XXXXXX")).string();
  if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  if (!path_.empty()) fs::remove_all(path_, ignored);
}

}  // namespace korcommon::testing
