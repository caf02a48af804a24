#include "dds_domain.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace korcommon::testing {
namespace {

// 0 is left to whatever runs with the default; Cyclone's port mapping ends a little above 230.
constexpr int kFirstTestDomain = 1;
constexpr int kLastTestDomain = 230;

std::string lockFile(int domain) {
  return (std::filesystem::temp_directory_path() /
          ("korcommon_dds_domain_" + std::to_string(domain) + ".lock"))
      .string();
}

// The descriptor is deliberately never closed, nor closed on exec: it is the claim.
bool tryClaim(int domain) {
  // Read-only is enough for flock and lets a file another user left behind serve too; a
  // sticky temporary directory may refuse O_CREAT on such a file, hence the retry.
  int descriptor = open(lockFile(domain).c_str(), O_RDONLY | O_CREAT, 0644);
  if (descriptor < 0) descriptor = open(lockFile(domain).c_str(), O_RDONLY);
  if (descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0) return true;
  if (descriptor >= 0) close(descriptor);
  return false;
}

}  // namespace

std::string claimDdsDomain() {
  static std::string claimed;
  for (int domain = kFirstTestDomain; domain <= kLastTestDomain && claimed.empty(); ++domain) {
    if (tryClaim(domain)) claimed = std::to_string(domain);
  }
  if (claimed.empty()) {
    throw std::runtime_error("no free DDS domain: " + lockFile(kFirstTestDomain) +
                             " and the others up to " + std::to_string(kLastTestDomain) +
                             " are held by other processes");
  }
  // Set again on every call: a test before may have changed them.
  setenv("DOVA_DOMAIN_ID", claimed.c_str(), 1);
  unsetenv("CYCLONEDDS_URI");
  return claimed;
}

}  // namespace korcommon::testing
