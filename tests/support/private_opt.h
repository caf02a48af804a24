#ifndef KORCOMMON_TESTS_SUPPORT_PRIVATE_OPT_H_
#define KORCOMMON_TESTS_SUPPORT_PRIVATE_OPT_H_

#include <string>

namespace korcommon::testing {

// Moves the calling process into a private mount namespace and mounts an empty tmpfs on
// /opt there. Must run before any thread starts. Where the machine does not allow it, e.g.
// when the process is not root, /opt is left untouched.
void enterPrivateOpt();

// True when the process runs on a private /opt set up by enterPrivateOpt().
bool hasPrivateOpt();

// Why it does not, for skip messages.
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
