#include "dds_domain.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace korcommon::testing {

std::string claimDdsDomain() {
  static std::string claimed;
  // 0 is left to whatever runs with the default; Cyclone's port mapping ends a little above 230.
  const auto lock_file = [](int domain) {
    return std::filesystem::temp_directory_path() /
           ("korcommon_dds_domain_" + std::to_string(domain) + ".lock");
  };
  for (int domain = 1; domain <= 230 && claimed.empty(); ++domain) {
    // Read-only is enough for flock and lets a file another user left behind serve too; a
    // sticky temporary directory may refuse O_CREAT on such a file, hence the retry. The
    // descriptor of a claim is deliberately never closed, nor closed on exec.
    int descriptor = open(lock_file(domain).c_str(), O_RDONLY | O_CREAT, 0644);
    if (descriptor < 0) descriptor = open(lock_file(domain).c_str(), O_RDONLY);
    if (descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
      claimed = std::to_string(domain);
    } else if (descriptor >= 0) {
      close(descriptor);
    }
  }
  if (claimed.empty()) {
    throw std::runtime_error("no free DDS domain: " + lock_file(1).string() +
                             " and the others up to 230 are held by other processes");
  }
  // Set again on every call: a test before may have changed them.
  setenv("DOVA_DOMAIN_ID", claimed.c_str(), 1);
  unsetenv("CYCLONEDDS_URI");
  return claimed;
}

}  // namespace korcommon::testing
