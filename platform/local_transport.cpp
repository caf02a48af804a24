#include <memory>
#include <string>

#include "transport.h"

namespace dova::platform {
namespace {

// The embedded default: every process is its own world. Publications reach
// the subscribers of this process through the dispatcher and nothing else;
// no socket is opened and no thread started.
class LocalTransport : public Transport {
 public:
  bool reachesOtherProcesses() const override { return false; }
  void send(const std::string& /*topic*/, const std::string& /*md5*/, const std::string& /*key*/,
            const uint8_t* /*frame*/, size_t /*size*/) override {}
  bool listen(const std::string& /*topic*/, bool /*latched*/, bool /*reliable*/, bool /*in_place*/,
              RemoteFrameHandler /*handler*/) override {
    return true;  // no other process will ever send
  }
  int matchedSubscribers(const std::string& /*topic*/) override { return 0; }
  void stop() override {}
};

}  // namespace

std::unique_ptr<Transport> createLocalTransport(const TransportSettings& /*settings*/,
                                                std::string& /*error*/) {
  return std::make_unique<LocalTransport>();
}

}  // namespace dova::platform
