#include "transport_factory.h"

#include <algorithm>
#include <iterator>

namespace dova::platform {

// Each transport is one file that defines its maker; registering it here is
// all the rest of the platform needs.
std::unique_ptr<Transport> createLocalTransport(const TransportSettings& settings,
                                                std::string& error);
std::unique_ptr<Transport> createDdsTransport(const TransportSettings& settings,
                                              std::string& error);

namespace {

struct Registration {
  const char* name;
  TransportMaker make;
};

constexpr Registration kTransports[] = {
    {"local", &createLocalTransport},
    {"dds", &createDdsTransport},
};

const Registration* registrationOf(const std::string& name) {
  const auto* const found =
      std::find_if(std::begin(kTransports), std::end(kTransports),
                   [&name](const Registration& entry) { return name == entry.name; });
  return found == std::end(kTransports) ? nullptr : found;
}

}  // namespace

const std::vector<std::string>& transportNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> all;
    for (const Registration& entry : kTransports) all.emplace_back(entry.name);
    return all;
  }();
  return names;
}

bool isKnownTransport(const std::string& name) { return registrationOf(name) != nullptr; }

std::unique_ptr<Transport> createTransport(const std::string& name,
                                           const TransportSettings& settings, std::string& error) {
  const Registration* registration = registrationOf(name);
  if (registration == nullptr) {
    error = "unknown transport \"" + name + "\"";
    return nullptr;
  }
  return registration->make(settings, error);
}

}  // namespace dova::platform
