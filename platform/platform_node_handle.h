#ifndef DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_
#define DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_

#include <atomic>
#include <memory>
#include <string>

#include "dispatcher.h"
#include "dova/options.h"
#include "dova/os/node_handle_base.h"
#include "transport.h"

namespace dova::platform {

// The node handle dova::init creates: publishes through the node's
// dispatcher and has it serve the subscribers registered here. It is ok()
// from construction until stop(); after that it stays allocated (callers may
// still hold the pointer nh() gave them) but delivers nothing.
//
// The pools of its subscriptions are its own: the header code creates each
// in `pools` when it registers a subscriber, the handle lends it to the
// dispatcher for the deliveries of that subscription, and stop() releases
// them all once the dispatcher has stopped. Thread-safe.
class PlatformNodeHandle : public NodeHandleBase {
 public:
  // REQUIRES: every field of `options` resolved; `transport` not null.
  PlatformNodeHandle(std::string node_name, const Options& options,
                     std::unique_ptr<Transport> transport);
  ~PlatformNodeHandle() override;

  bool ok() const override { return running_.load(std::memory_order_acquire); }
  void diag(const diagnostic_msgs::DiagnosticValue& value) override;
  void log(const std::shared_ptr<const dova_msgs::Log>& record) override;
  void negotiateTopics(SubscriberBase* subscriber) override;

  // Has the dispatcher serve `subscriber`, registered through this handle
  // (SubscriberBase::subscribe calls it with its flags set). False when the
  // handle has stopped or the transport cannot listen; the registration's
  // pool is then released at once.
  bool attach(SubscriberBase& subscriber);

  // How many subscribers in other processes this node's publications on
  // `topic` reach.
  int remoteSubscribers(const std::string& topic);

  const std::string& nodeName() const { return node_name_; }
  const Options& options() const { return options_; }

  // Ends the handle's service: deliveries stop, the subscriptions' pools are
  // released, ok() turns false and inited drops to 0.
  void stop();

 private:
  // The pool the header code created for `subscriber`'s registration, if any.
  std::shared_ptr<ThreadPool> registeredPool(const SubscriberBase& subscriber);
  // Releases what the header code recorded for `subscriber`.
  void forget(const SubscriberBase& subscriber);

  const std::string node_name_;
  const Options options_;
  std::atomic<bool> running_{true};
  Dispatcher dispatcher_;
};

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_
