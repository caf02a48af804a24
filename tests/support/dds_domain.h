#ifndef KORCOMMON_TESTS_SUPPORT_DDS_DOMAIN_H_
#define KORCOMMON_TESTS_SUPPORT_DDS_DOMAIN_H_

#include <string>

namespace korcommon::testing {

// Claims a DDS domain that no other running test process on this machine holds, keeps it
// for the rest of this process, sets DOVA_DOMAIN_ID to it and unsets CYCLONEDDS_URI, so
// that the platform pins Cyclone to loopback. Child processes inherit both, and the claim:
// it is an exclusive flock on a lock file named after the id in the temporary directory,
// held by a descriptor that stays open, which the kernel drops when the last process
// holding it ends, however it ends. Returns the id as text; later calls return the same.
// Throws std::runtime_error when every id is taken (from a SetUp, the test's failure).
std::string claimDdsDomain();

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_DDS_DOMAIN_H_
