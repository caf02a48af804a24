#ifndef DOVA_PLATFORM_DDS_TRANSPORT_H_
#define DOVA_PLATFORM_DDS_TRANSPORT_H_

#include <memory>
#include <string>

#include "transport.h"

namespace dova::platform {

// Creates the Eclipse Cyclone DDS transport on `domain_id` for node
// `node_name`. Without CYCLONEDDS_URI in the environment Cyclone is pinned to
// the loopback interface with unicast discovery, so nothing leaves the
// machine; with it, Cyclone's own configuration rules. Returns null with
// `error` set when Cyclone cannot start.
std::unique_ptr<Transport> createDdsTransport(int domain_id, const std::string& node_name,
                                              std::string& error);

// The Cyclone configuration used when CYCLONEDDS_URI is not set.
const char* loopbackConfiguration();

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_DDS_TRANSPORT_H_
