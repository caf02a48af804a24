#include "dispatcher.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <exception>
#include <iterator>
#include <set>
#include <utility>

#include "dova/msgs/frame_check.h"
#include "dova/trace.h"
#include "yield_while.h"

namespace dova::platform {

// One registered subscriber and how its deliveries reach it.
struct Subscription {
  SubscriberBase* subscriber = nullptr;  // owned by the user, who keeps it alive
  std::string topic;
  std::string type;            // the subscriber's message type
  ThreadPool* pool = nullptr;  // null: deliver on the publishing or receiving thread
  int queue_size = -1;         // -1: unbounded
  // Without a pool, true while the joining thread replays the latched state;
  // live deliveries wait in `queue` meanwhile. Changed under `mutex`.
  std::atomic<bool> replaying{false};

  std::mutex mutex;            // guards the fields below
  std::deque<Delivery> queue;  // deliveries waiting for the pool, or for the replay
  bool drain_posted = false;   // a task that empties `queue` is posted to the pool
  std::string expected_md5;    // set by negotiation (mode 2): other checksums are refused
  std::set<std::string> refused_publishers;  // warned about once each
};

namespace {

// Whether `subscription` accepts `delivery`; a refused publisher is reported once.
bool accepts(Subscription& subscription, const Delivery& delivery) {
  std::lock_guard<std::mutex> lock(subscription.mutex);
  const Origin& origin = *delivery.origin;
  if (subscription.expected_md5.empty() || subscription.expected_md5 == origin.md5) return true;
  if (subscription.refused_publishers.insert(origin.publisher).second) {
    mtrace(WARN, __FILE__, __LINE__, "negotiateTopics", false,
           "topic %s: publisher \"%s\" sends checksum %s, subscriber expects %s; its messages "
           "are dropped",
           subscription.topic.c_str(), origin.publisher.c_str(), origin.md5.c_str(),
           subscription.expected_md5.c_str());
  }
  return false;
}

// Hands one delivery to the subscriber. Frames are checked against the
// subscriber's type before it decodes them; a subscriber that throws is
// reported and does not stop the deliveries to others.
void invoke(Subscription& subscription, const Delivery& delivery) {
  SubscriberBase& subscriber = *subscription.subscriber;
  try {
    if (delivery.message && delivery.origin->type == subscription.type) {
      subscriber.intraProcess(delivery.message);
      return;
    }
    if (!delivery.frame) return;
    const std::vector<uint8_t>& frame = *delivery.frame;
    if (subscriber.frame_check == nullptr || !subscriber.frame_check(frame.data(), frame.size())) {
      mtrace(WARN, __FILE__, __LINE__, "deliver", false,
             "topic %s: dropped a frame of %zu bytes from \"%s\" that is not one well-formed %s",
             subscription.topic.c_str(), frame.size(), delivery.origin->publisher.c_str(),
             subscription.type.c_str());
      return;
    }
    // The subscriber decodes in place and may write there; a copy keeps a
    // shared frame constant for the other subscribers.
    if (delivery.frame_is_private) {
      subscriber.callback(const_cast<uint8_t*>(frame.data()), static_cast<int>(frame.size()));
      return;
    }
    std::vector<uint8_t> own(frame);
    subscriber.callback(own.data(), static_cast<int>(own.size()));
  } catch (const std::exception& error) {
    mtrace(ERROR, __FILE__, __LINE__, "deliver", false, "topic %s: subscriber threw: %s",
           subscription.topic.c_str(), error.what());
  } catch (...) {
    mtrace(ERROR, __FILE__, __LINE__, "deliver", false,
           "topic %s: subscriber threw a non-standard exception", subscription.topic.c_str());
  }
}

// Without a pool: holds a live delivery back while the joining thread
// replays the latched state, so that it cannot overtake the older state.
bool holdDuringReplay(Subscription& subscription, const Delivery& delivery) {
  if (!subscription.replaying.load(std::memory_order_acquire)) return false;
  std::lock_guard<std::mutex> lock(subscription.mutex);
  if (!subscription.replaying.load(std::memory_order_relaxed)) return false;
  subscription.queue.push_back(delivery);
  return true;
}

// Whether a delivery arrives in `subscription`'s queue within `linger`,
// watched for without sleeping (yieldWhile). A pool thread that went to sleep
// would need a wake-up through the kernel for the next delivery, which costs
// more than the delivery itself when reports come one after another.
bool awaitDelivery(Subscription& subscription, const DeliveryGate& gate,
                   std::chrono::microseconds linger) {
  const auto give_up = std::chrono::steady_clock::now() + linger;
  bool arrived = false;
  yieldWhile([&] {
    if (gate.closed() || std::chrono::steady_clock::now() >= give_up) return false;
    const std::lock_guard<std::mutex> lock(subscription.mutex);
    arrived = !subscription.queue.empty();
    return !arrived;
  });
  return arrived;
}

// The pool's task: hands the queued deliveries over in order until the queue
// is empty, or until it has run for a while, then posts itself again so that
// the pool's report of slow tasks keeps pointing at slow subscribers. An
// empty queue is watched a little longer before the task ends: while it
// runs, publishers append without waking the pool.
void drain(const std::shared_ptr<Subscription>& subscription,
           const std::shared_ptr<DeliveryGate>& gate) {
  constexpr auto kTurn = std::chrono::milliseconds(5);
  constexpr auto kLinger = std::chrono::microseconds(100);
  const auto turn_end = std::chrono::steady_clock::now() + kTurn;
  for (;;) {
    const DeliveryPass pass(*gate);
    if (!pass.admitted()) return;
    Delivery next;
    {
      std::unique_lock<std::mutex> lock(subscription->mutex);
      if (subscription->queue.empty()) {
        lock.unlock();
        if (awaitDelivery(*subscription, *gate, kLinger)) continue;
        lock.lock();
      }
      if (subscription->queue.empty()) {
        subscription->drain_posted = false;
        return;
      }
      if (std::chrono::steady_clock::now() >= turn_end) {
        subscription->pool->post([subscription, gate] { drain(subscription, gate); });
        return;
      }
      next = std::move(subscription->queue.front());
      subscription->queue.pop_front();
    }
    invoke(*subscription, next);
  }
}

// `replayed` marks the joining thread's own replay, which is never held.
void deliver(const std::shared_ptr<Subscription>& subscription, const Delivery& delivery,
             const std::shared_ptr<DeliveryGate>& gate, bool replayed = false) {
  const DeliveryPass pass(*gate);
  if (!pass.admitted() || !accepts(*subscription, delivery)) return;
  if (subscription->pool == nullptr) {
    if (!replayed && holdDuringReplay(*subscription, delivery)) return;
    invoke(*subscription, delivery);
    return;
  }
  bool post = false;
  {
    std::lock_guard<std::mutex> lock(subscription->mutex);
    if (subscription->queue_size > 0 &&
        subscription->queue.size() >= static_cast<size_t>(subscription->queue_size)) {
      subscription->queue.pop_front();  // a bounded queue drops its oldest delivery
    }
    subscription->queue.push_back(delivery);
    post = !std::exchange(subscription->drain_posted, true);
  }
  // One task empties the queue, so a burst of publications wakes the pool's
  // thread once, not once per delivery.
  if (post) subscription->pool->post([subscription, gate] { drain(subscription, gate); });
}

// Without a pool: delivers the latched state on the joining thread, then
// what arrived meanwhile, then lets live deliveries through.
void replayThenRelease(const std::shared_ptr<Subscription>& subscription,
                       std::vector<Delivery> pending, const std::shared_ptr<DeliveryGate>& gate) {
  for (;;) {
    for (const Delivery& delivery : pending) deliver(subscription, delivery, gate, true);
    pending.clear();
    std::lock_guard<std::mutex> lock(subscription->mutex);
    if (subscription->queue.empty()) {
      subscription->replaying.store(false, std::memory_order_release);
      return;
    }
    pending.assign(std::make_move_iterator(subscription->queue.begin()),
                   std::make_move_iterator(subscription->queue.end()));
    subscription->queue.clear();
  }
}

}  // namespace

Dispatcher::Dispatcher(std::string node_name, bool intra_process,
                       std::unique_ptr<Transport> transport)
    : node_name_(std::move(node_name)),
      intra_process_(intra_process),
      transport_(std::move(transport)),
      remote_(transport_->reachesOtherProcesses()),
      gate_(std::make_shared<DeliveryGate>()) {}

Dispatcher::~Dispatcher() { stop(); }

bool Dispatcher::add(SubscriberBase& subscriber, ThreadPool* pool, bool refuse_other_checksums) {
  auto subscription = std::make_shared<Subscription>();
  subscription->subscriber = &subscriber;
  subscription->topic = subscriber.getTopic();
  subscription->type = subscriber.getMsgType();
  subscription->queue_size = subscriber.getQueueSize();
  subscription->pool = pool;
  // Set before publishers can see the subscription: a mode-2 subscription
  // refuses other checksums from its first delivery, its latched replay too.
  subscription->replaying = pool == nullptr && subscriber.getLatch();
  if (refuse_other_checksums) subscription->expected_md5 = subscriber.getMsgMD5();

  std::vector<Delivery> replay;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (gate_->closed()) return false;
    Topic& topic = topics_[subscription->topic];
    auto grown = std::make_shared<SubscriptionList>(topic.subscriptions ? *topic.subscriptions
                                                                        : SubscriptionList());
    grown->push_back(subscription);
    topic.subscriptions = std::move(grown);
    if (subscriber.getLatch()) {
      for (const auto& entry : topic.latched) replay.push_back(entry.second);
    }
    if (pool != nullptr) {
      // Queued while the lock keeps publishers out, so no newer publication
      // can overtake the state it replays.
      for (const Delivery& delivery : replay) deliver(subscription, delivery, gate_);
      replay.clear();
    }
  }
  // Each subscription has its own remote reader, so a latched one receives
  // the state of every other process when it joins.
  const std::shared_ptr<DeliveryGate> gate = gate_;
  const bool listening = transport_->listen(
      subscription->topic, subscriber.getLatch(), subscriber.getReliable(), pool == nullptr,
      [subscription, gate, origin = std::shared_ptr<const Origin>()](
          std::string_view md5, const uint8_t* frame, size_t size) mutable {
        std::string publisher = getCallerId(const_cast<uint8_t*>(frame), static_cast<int>(size));
        // A publisher's frames share one origin while it keeps its name and checksum.
        if (!origin || origin->md5 != md5 || origin->publisher != publisher) {
          origin = std::make_shared<const Origin>(
              Origin{std::string(), std::string(md5), std::move(publisher)});
        }
        Delivery delivery;
        delivery.frame = std::make_shared<std::vector<uint8_t>>(frame, frame + size);
        delivery.origin = origin;
        delivery.frame_is_private = true;
        deliver(subscription, delivery, gate);
      });
  if (!listening) {
    // The caller is told the subscription failed and may free the
    // subscriber: nothing may deliver to it any more.
    remove(subscription);
    return false;
  }
  // Direct deliveries run user code, which must not run under the lock.
  if (subscription->replaying) replayThenRelease(subscription, std::move(replay), gate_);
  return true;
}

void Dispatcher::remove(const std::shared_ptr<Subscription>& subscription) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto topic = topics_.find(subscription->topic);
  if (topic == topics_.end() || !topic->second.subscriptions) return;
  auto shrunk = std::make_shared<SubscriptionList>(*topic->second.subscriptions);
  shrunk->erase(std::remove(shrunk->begin(), shrunk->end(), subscription), shrunk->end());
  topic->second.subscriptions = std::move(shrunk);
}

void Dispatcher::negotiate(const SubscriberBase& subscriber) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto topic = topics_.find(subscriber.getTopic());
  if (topic == topics_.end() || !topic->second.subscriptions) return;
  for (const auto& subscription : *topic->second.subscriptions) {
    if (subscription->subscriber != &subscriber) continue;
    std::lock_guard<std::mutex> subscription_lock(subscription->mutex);
    subscription->expected_md5 = subscriber.getMsgMD5();
  }
}

std::shared_ptr<const std::vector<uint8_t>> Dispatcher::makeFrame(const Msg& message) const {
  const int length = message.serializedLength();
  auto frame =
      std::make_shared<std::vector<uint8_t>>(msgs::kFramePrefixSize + static_cast<size_t>(length));
  std::memcpy(frame->data(), node_name_.data(),
              std::min(node_name_.size(), msgs::kFramePrefixSize));
  message.serialize(frame->data() + msgs::kFramePrefixSize, length);
  return frame;
}

void Dispatcher::publish(const std::string& topic, std::shared_ptr<const Msg> message,
                         const std::string& latch_key) {
  if (gate_->closed()) return;
  const Msg& published = *message;  // kept alive by `message` until the end
  const std::type_info& message_class = typeid(published);
  // The frame path runs when intra-process delivery is off, or for other processes.
  std::shared_ptr<const std::vector<uint8_t>> frame;
  if (!intra_process_ || remote_) frame = makeFrame(published);
  std::shared_ptr<const Msg> shared;
  if (intra_process_) shared = std::move(message);

  Delivery delivery;  // filled only when someone receives it
  std::shared_ptr<const SubscriptionList> subscriptions;
  // Released after the lock: a message's destructor may be long.
  std::shared_ptr<const Msg> replaced_message;
  std::shared_ptr<const std::vector<uint8_t>> replaced_frame;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    LastPublication& last = last_publication_;
    if (last.state == nullptr || *last.topic != topic || *last.latch_key != latch_key) {
      auto& [topic_name, topic_state] = *topics_.try_emplace(topic).first;
      auto& [key, latest] = *topic_state.latched.try_emplace(latch_key).first;
      last = LastPublication{&topic_name, &key, &topic_state, &latest};
    }
    Topic& state = *last.state;
    // Type and checksum are constants of a message class: they are asked for
    // again only when a message of another class is published here.
    if (state.origin_class != &message_class &&
        (state.origin_class == nullptr || *state.origin_class != message_class)) {
      state.origin = std::make_shared<const Origin>(
          Origin{published.getType(), published.getMD5(), node_name_});
      state.origin_class = &message_class;
    }
    // The publication becomes the latched state, updated in place.
    Delivery& latched = *last.latched;
    if (latched.origin != state.origin) latched.origin = state.origin;
    replaced_message = std::exchange(latched.message, std::move(shared));
    replaced_frame = std::exchange(latched.frame, std::move(frame));
    if (state.subscriptions && !state.subscriptions->empty()) subscriptions = state.subscriptions;
    if (subscriptions || remote_) delivery = latched;
  }
  if (subscriptions) {
    for (const auto& subscription : *subscriptions) deliver(subscription, delivery, gate_);
  }
  if (remote_) {
    transport_->send(topic, delivery.origin->md5, latch_key, delivery.frame->data(),
                     delivery.frame->size());
  }
}

bool Dispatcher::deliveringOnThisThread() const { return gate_->admitsThisThread(); }

int Dispatcher::remoteSubscribers(const std::string& topic) {
  return gate_->closed() ? 0 : transport_->matchedSubscribers(topic);
}

void Dispatcher::stop() {
  // First: once the gate is closed and idle, no thread runs a subscriber,
  // posts to a pool or touches a subscription's queue for this dispatcher.
  gate_->close();
  transport_->stop();
  std::map<std::string, Topic> topics;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    topics.swap(topics_);
    last_publication_ = LastPublication();
  }
  // Deliveries still queued hold their messages: free them now, as the
  // subscriptions themselves may live on in the transport's handlers.
  for (const auto& topic : topics) {
    if (!topic.second.subscriptions) continue;
    for (const auto& subscription : *topic.second.subscriptions) {
      std::lock_guard<std::mutex> lock(subscription->mutex);
      subscription->queue.clear();
      subscription->pool = nullptr;
    }
  }
}

}  // namespace dova::platform
