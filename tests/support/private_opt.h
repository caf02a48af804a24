#ifndef KORCOMMON_TESTS_SUPPORT_PRIVATE_OPT_H_
#define KORCOMMON_TESTS_SUPPORT_PRIVATE_OPT_H_

#include <string>

namespace korcommon::testing {

// Moves the calling process into a private mount namespace and mounts an
// empty tmpfs on /opt there. Must run before any thread starts. Returns false
// (with the reason in *why) when the machine does not allow it, e.g. when the
// process is not root; /opt is then left untouched.
bool enterPrivateOpt(std::string* why);

// True when the process runs on a private /opt set up by enterPrivateOpt().
bool hasPrivateOpt();

// The reason enterPrivateOpt() failed, for skip messages.
const std::string& privateOptUnavailableReason();

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
