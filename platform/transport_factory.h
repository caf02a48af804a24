#ifndef DOVA_PLATFORM_TRANSPORT_FACTORY_H_
#define DOVA_PLATFORM_TRANSPORT_FACTORY_H_

#include <memory>
#include <string>
#include <vector>

#include "transport.h"

namespace dova::platform {

// The names of the known transports, in the order they are registered.
const std::vector<std::string>& transportNames();

bool isKnownTransport(const std::string& name);

// Creates the transport registered under `name`; null with `error` set when
// the name is unknown or the transport cannot start.
std::unique_ptr<Transport> createTransport(const std::string& name,
                                           const TransportSettings& settings, std::string& error);

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_TRANSPORT_FACTORY_H_
