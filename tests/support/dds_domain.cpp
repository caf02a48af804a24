#include "dds_domain.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace korcommon::testing {
namespace fs = std::filesystem;

namespace {

fs::path lockFile(int domain) { return fs::temp_directory_path() / ddsDomainLockName(domain); }

// Takes `domain` if no other process holds it. The descriptor is deliberately never
// closed, and not closed on exec either: the claim is the open descriptor.
bool tryClaim(int domain) {
  const std::string path = lockFile(domain).string();
  // Read-only is enough for flock, and lets a file that another user left behind serve
  // too; a sticky temporary directory may refuse O_CREAT on such a file, hence the retry.
  int descriptor = open(path.c_str(), O_RDONLY | O_CREAT, 0644);
  if (descriptor < 0) descriptor = open(path.c_str(), O_RDONLY);
  if (descriptor < 0) return false;
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    close(descriptor);
    return false;
  }
  return true;
}

}  // namespace

std::string ddsDomainLockName(int domain) {
  return "korcommon_dds_domain_" + std::to_string(domain) + ".lock";
}

std::string claimDdsDomain() {
  static std::string claimed;
  if (claimed.empty()) {
    for (int domain = kFirstTestDomain; domain <= kLastTestDomain && claimed.empty(); ++domain) {
      if (tryClaim(domain)) claimed = std::to_string(domain);
    }
    if (claimed.empty()) {
      throw std::runtime_error("no free DDS domain: every one of " +
                               std::to_string(kFirstTestDomain) + " to " +
                               std::to_string(kLastTestDomain) + " is held by another process (" +
                               lockFile(kFirstTestDomain).string() + " and the like)");
    }
  }
  // Set again on every call: a test before may have changed it.
  setenv("DOVA_DOMAIN_ID", claimed.c_str(), 1);
  return claimed;
}

}  // namespace korcommon::testing
