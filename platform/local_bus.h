#ifndef DOVA_PLATFORM_LOCAL_BUS_H_
#define DOVA_PLATFORM_LOCAL_BUS_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dova/msgs/msg.h"
#include "dova/os/node_handle_base.h"
#include "transport.h"

namespace dova::platform {

struct Subscription;
class DeliveryGate;

// One publication on its way to subscribers: the message itself for
// same-process deliveries and/or its frame (32-byte prefix + encoding).
struct Delivery {
  std::shared_ptr<const Msg> message;                 // null for frames from elsewhere
  std::shared_ptr<const std::vector<uint8_t>> frame;  // built only when someone needs it
  std::string type;                                   // the message type name
  std::string md5;                                    // the publisher's checksum
  std::string publisher;                              // the publishing node's name
};

// The in-process half of the middleware: the subscriptions of this process,
// the latched state of every topic, and the delivery of each publication to
// every subscriber of its topic, directly (mode 0) or through the
// subscription's pool (modes 1 and 2). Frames to and from other processes go
// through the optional Transport. Thread-safe.
class LocalBus {
 public:
  LocalBus(std::string node_name, bool intra_process, NodeHandleBase& handle);
  ~LocalBus();

  LocalBus(const LocalBus&) = delete;
  LocalBus& operator=(const LocalBus&) = delete;

  // Connects the bus to other processes; call before any subscription.
  void attachTransport(std::unique_ptr<Transport> transport);

  // Registers a subscriber whose flags are set; replays the latched state of
  // its topic when it asked for it.
  bool addSubscription(SubscriberBase* subscriber);

  // Makes the subscription accept only publishers with its own checksum.
  void negotiate(SubscriberBase* subscriber);

  // Delivers `message` to every subscriber of `topic`, in this process and
  // elsewhere. For a latched topic `latch_key` names the state it replaces.
  void publish(const std::string& topic, std::shared_ptr<const Msg> message,
               const std::string& latch_key);

  // How many subscribers in other processes this node's publications on
  // `topic` reach; 0 without a transport.
  int remoteSubscribers(const std::string& topic);

  // Whether the calling thread is running one of this bus's deliveries (a
  // subscriber's function).
  bool deliveringOnThisThread() const;

  // Stops every delivery; later publications are dropped. Returns once no
  // delivery of this bus is running any more (apart from the caller's own,
  // when a subscriber's function calls it), so a subscriber may be freed then.
  void stop();

 private:
  using SubscriptionList = std::vector<std::shared_ptr<Subscription>>;

  // Takes a subscription back out of its topic's list (copy-on-write).
  void removeSubscription(const std::shared_ptr<Subscription>& subscription);
  std::shared_ptr<const std::vector<uint8_t>> makeFrame(const Msg& message) const;
  // With nobody to deliver to, only refreshes the latched state, taking
  // `message`; false (and `message` untouched) when the topic has subscribers.
  bool latchOnly(const std::string& topic, std::shared_ptr<const Msg>& message,
                 const std::string& latch_key);

  const std::string node_name_;
  const bool intra_process_;
  NodeHandleBase& handle_;
  std::shared_ptr<DeliveryGate> gate_;  // shared with queued tasks and transport handlers
  std::unique_ptr<Transport> transport_;

  std::mutex mutex_;  // guards the maps below
  // Copy-on-write lists, so a publisher takes a snapshot with one reference.
  std::map<std::string, std::shared_ptr<const SubscriptionList>> subscriptions_;
  // Latest publication per topic and key, replayed to latched subscribers.
  std::map<std::string, std::map<std::string, Delivery>> latched_;
};

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_LOCAL_BUS_H_
