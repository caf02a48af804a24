#include "private_opt.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

namespace korcommon::testing {
namespace {

bool private_opt = false;
std::string unavailable_reason = "enterPrivateOpt() was not called";

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

bool enterPrivateOpt(std::string* why) {
  std::string reason;
  if (unshare(CLONE_NEWNS) != 0) {
    reason = errnoText("unshare(CLONE_NEWNS)");
  } else if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    // Without this the tmpfs below would propagate back to the host's /opt.
    reason = errnoText("making / private");
  } else if (mount("korcommon-test-opt", "/opt", "tmpfs", MS_NOSUID | MS_NODEV,
                   "size=64m,mode=755") != 0) {
    reason = errnoText("mounting a tmpfs on /opt");
  }
  private_opt = reason.empty();
  unavailable_reason = reason;
  if (why != nullptr) *why = reason;
  return private_opt;
}

bool hasPrivateOpt() { return private_opt; }

const std::string& privateOptUnavailableReason() { return unavailable_reason; }

}  // namespace korcommon::testing
