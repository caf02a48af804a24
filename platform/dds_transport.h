#ifndef DOVA_PLATFORM_DDS_TRANSPORT_H_
#define DOVA_PLATFORM_DDS_TRANSPORT_H_

namespace dova::platform {

// The Cyclone DDS configuration the "dds" transport uses when CYCLONEDDS_URI
// is not set: the loopback interface only, with unicast discovery among the
// processes of this machine.
const char* loopbackConfiguration();

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_DDS_TRANSPORT_H_
