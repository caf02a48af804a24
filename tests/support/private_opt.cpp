#include "private_opt.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

namespace korcommon::testing {
namespace {

std::string unavailable_reason = "enterPrivateOpt() was not called";

}  // namespace

void enterPrivateOpt() {
  const char* failed = nullptr;
  if (unshare(CLONE_NEWNS) != 0) {
    failed = "unshare(CLONE_NEWNS)";
  } else if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    failed = "making / private";  // else the tmpfs below would reach the host's /opt
  } else if (mount("korcommon-test-opt", "/opt", "tmpfs", MS_NOSUID | MS_NODEV,
                   "size=64m,mode=755") != 0) {
    failed = "mounting a tmpfs on /opt";
  }
  unavailable_reason = failed ? std::string(failed) + ": " + std::strerror(errno) : "";
}

bool hasPrivateOpt() { return unavailable_reason.empty(); }

const std::string& privateOptUnavailableReason() { return unavailable_reason; }

}  // namespace korcommon::testing
