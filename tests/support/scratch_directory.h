#ifndef KORCOMMON_TESTS_SUPPORT_SCRATCH_DIRECTORY_H_
#define KORCOMMON_TESTS_SUPPORT_SCRATCH_DIRECTORY_H_

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace korcommon::testing {

// A new, empty directory in the temporary directory, named `prefix` and a random suffix,
// removed with everything in it when the object goes. path() is empty when the directory
// could not be made.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + ".XXXXXX")).string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_SCRATCH_DIRECTORY_H_
