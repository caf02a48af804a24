#ifndef KORCOMMON_TESTS_SUPPORT_DDS_DOMAIN_H_
#define KORCOMMON_TESTS_SUPPORT_DDS_DOMAIN_H_

#include <string>

namespace korcommon::testing {

// The lowest and highest DDS domain ids a test may claim. 0 is left to whatever runs with
// the default; Cyclone's port mapping ends a little above the highest.
constexpr int kFirstTestDomain = 1;
constexpr int kLastTestDomain = 230;

// The name of the lock file that stands for `domain`, in the temporary directory.
std::string ddsDomainLockName(int domain);

// Claims a DDS domain that no other running test process on this machine holds, keeps it
// for the rest of this process, and sets DOVA_DOMAIN_ID to it. Returns the id as text, for
// the environments of child processes; later calls return the same one.
//
// A claim is an exclusive flock on a lock file named after the id in the temporary
// directory, held by a descriptor that stays open. The kernel drops it when the last
// process holding the descriptor ends, however it ends: children started afterwards
// inherit it, so a domain stays taken while a child still talks on it.
//
// Throws std::runtime_error when every id is taken; from a fixture's SetUp, gtest reports
// that as the test's failure and skips its body.
std::string claimDdsDomain();

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_DDS_DOMAIN_H_
