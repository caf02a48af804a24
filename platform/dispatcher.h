#ifndef DOVA_PLATFORM_DISPATCHER_H_
#define DOVA_PLATFORM_DISPATCHER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <typeinfo>
#include <vector>

#include "delivery_gate.h"
#include "dova/msgs/msg.h"
#include "dova/os/node_handle_base.h"
#include "dova/os/threadpool.h"
#include "transport.h"

namespace dova::platform {

struct Subscription;

// Who sent a publication and as what: the same for every delivery of it, and
// for every publication of one message class by this node, so it is shared,
// never copied.
struct Origin {
  std::string type;       // the message type name; "" for frames from elsewhere
  std::string md5;        // the publisher's checksum
  std::string publisher;  // the publishing node's name
};

// One publication on its way to subscribers: the message itself for
// same-process deliveries and/or its frame (32-byte prefix + encoding).
// Copying one copies three shared pointers.
struct Delivery {
  std::shared_ptr<const Msg> message;                 // null for frames from elsewhere
  std::shared_ptr<const std::vector<uint8_t>> frame;  // built only when someone needs it
  std::shared_ptr<const Origin> origin;
  // The frame is this delivery's alone (a copy of what arrived from elsewhere,
  // built for one subscription, not constant): the subscriber may decode it
  // where it is.
  bool frame_is_private = false;
};

// The node's side of every subscription: which subscribers each topic has,
// the latched state of every topic, and the delivery of each publication to
// every subscriber of its topic, directly (on the publishing or receiving
// thread) or through the subscription's pool. Frames to and from other
// processes go through the transport. Thread-safe.
class Dispatcher {
 public:
  // REQUIRES: `transport` is not null.
  Dispatcher(std::string node_name, bool intra_process, std::unique_ptr<Transport> transport);
  ~Dispatcher();

  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  // Serves `subscriber`, whose flags are set, until stop(): with a `pool` its
  // deliveries are posted to it, in order; without one they run on the
  // publishing or receiving thread. With `refuse_other_checksums` it accepts
  // only publishers of its own checksum from its first delivery on. Replays
  // the latched state of its topic when it asked for it. False, with nothing
  // registered, once stopped or when the transport cannot listen.
  // REQUIRES: `pool`, when given, lives until stop() has returned.
  bool add(SubscriberBase& subscriber, ThreadPool* pool, bool refuse_other_checksums);

  // Makes the subscription accept only publishers with its own checksum.
  void negotiate(const SubscriberBase& subscriber);

  // Delivers `message` to every subscriber of `topic`, in this process and
  // elsewhere. For a latched topic `latch_key` names the state it replaces.
  void publish(const std::string& topic, std::shared_ptr<const Msg> message,
               const std::string& latch_key);

  // How many subscribers in other processes this node's publications on
  // `topic` reach.
  int remoteSubscribers(const std::string& topic);

  // Whether the calling thread is running one of this dispatcher's
  // deliveries (a subscriber's function).
  bool deliveringOnThisThread() const;

  // Stops every delivery; later publications are dropped. Returns once no
  // delivery is running any more (apart from the caller's own, when a
  // subscriber's function calls it) and none will be posted to a pool, so
  // the pools and the subscribers may be freed then.
  void stop();

 private:
  using SubscriptionList = std::vector<std::shared_ptr<Subscription>>;

  struct Topic {
    // Copy-on-write, so a publisher takes a snapshot with one reference.
    std::shared_ptr<const SubscriptionList> subscriptions;
    // Latest publication per key, replayed to latched subscribers.
    std::map<std::string, Delivery> latched;
    // The origin of this node's publications here, while their class stays the same.
    std::shared_ptr<const Origin> origin;
    const std::type_info* origin_class = nullptr;
  };

  // Takes a subscription back out of its topic's list.
  void remove(const std::shared_ptr<Subscription>& subscription);
  std::shared_ptr<const std::vector<uint8_t>> makeFrame(const Msg& message) const;

  const std::string node_name_;
  const bool intra_process_;
  const std::unique_ptr<Transport> transport_;
  const bool remote_;                   // whether the transport reaches other processes
  std::shared_ptr<DeliveryGate> gate_;  // shared with queued tasks and transport handlers

  // Where the last publication went. A node publishes on the same few topics
  // over and over, and comparing two names costs less than searching both
  // maps for them. The entries stay where they are until stop() empties the
  // map, which forgets them here too.
  struct LastPublication {
    const std::string* topic = nullptr;      // the key of `state` in topics_
    const std::string* latch_key = nullptr;  // the key of `latched` in state->latched
    Topic* state = nullptr;
    Delivery* latched = nullptr;
  };

  std::mutex mutex_;  // guards topics_ and last_publication_
  std::map<std::string, Topic> topics_;
  LastPublication last_publication_;
};

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_DISPATCHER_H_
