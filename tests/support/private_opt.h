#ifndef KORCOMMON_TESTS_SUPPORT_PRIVATE_OPT_H_
#define KORCOMMON_TESTS_SUPPORT_PRIVATE_OPT_H_

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace korcommon::testing {

// Why /opt is not private to this process, for skip messages; empty once it is.
inline std::string& privateOptUnavailableReason() {
  static std::string reason = "enterPrivateOpt() was not called";
  return reason;
}

// True when the process runs on a private /opt set up by enterPrivateOpt().
inline bool hasPrivateOpt() { return privateOptUnavailableReason().empty(); }

// Moves the calling process into a private mount namespace and mounts an empty tmpfs on
// /opt there. Must run before any thread starts. Where the machine does not allow it, e.g.
// when the process is not root, /opt is left untouched.
inline void enterPrivateOpt() {
  const char* failed = nullptr;
  if (unshare(CLONE_NEWNS) != 0) {
    failed = "unshare(CLONE_NEWNS)";
  } else if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    failed = "making / private";  // else the tmpfs below would reach the host's /opt
  } else if (mount("korcommon-test-opt", "/opt", "tmpfs", MS_NOSUID | MS_NODEV,
                   "size=64m,mode=755") != 0) {
    failed = "mounting a tmpfs on /opt";
  }
  privateOptUnavailableReason() = failed ? std::string(failed) + ": " + std::strerror(errno) : "";
}

}  // namespace korcommon::testing

// Skips the current test unless /opt is private to this process.
#define KORCOMMON_REQUIRE_PRIVATE_OPT()                                    \
  do {                                                                     \
    if (!::korcommon::testing::hasPrivateOpt()) {                          \
      GTEST_SKIP() << "needs a private /opt: "                             \
                   << ::korcommon::testing::privateOptUnavailableReason(); \
    }                                                                      \
  } while (false)

#endif  // KORCOMMON_TESTS_SUPPORT_PRIVATE_OPT_H_
