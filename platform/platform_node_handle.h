#ifndef DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_
#define DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_

#include <atomic>
#include <memory>
#include <string>

#include "dova/init.h"
#include "dova/os/node_handle_base.h"
#include "local_bus.h"

namespace dova::platform {

// The node handle dova::init creates: publishes on the node's bus and
// registers subscribers with it. It is ok() from init until stop(); after
// that it stays allocated (callers may still hold the pointer nh() gave
// them) but delivers nothing.
class PlatformNodeHandle : public NodeHandleBase {
 public:
  PlatformNodeHandle(std::string node_name, const Options& options);
  ~PlatformNodeHandle() override;

  bool ok() const override { return running_.load(std::memory_order_acquire); }
  void diag(const diagnostic_msgs::DiagnosticValue& value) override;
  void log(const std::shared_ptr<const dova_msgs::Log>& record) override;
  void negotiateTopics(SubscriberBase* subscriber) override;

  const std::string& nodeName() const { return node_name_; }
  LocalBus& bus() { return bus_; }

  // Ends the handle's service: deliveries stop, the subscriptions' pools are
  // released, ok() turns false and inited drops to 0.
  void stop();

 private:
  const std::string node_name_;
  std::atomic<bool> running_{true};
  LocalBus bus_;
};

// The running platform handle, or null when the middleware is not running.
PlatformNodeHandle* runningHandle();

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_
