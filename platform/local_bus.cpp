#include "local_bus.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <iterator>
#include <set>
#include <typeinfo>
#include <utility>

#include "dova/msgs/frame_check.h"
#include "dova/trace.h"

namespace dova::platform {

// One registered subscriber and how its deliveries reach it.
struct Subscription {
  SubscriberBase* subscriber = nullptr;  // owned by the user, who keeps it alive
  std::string topic;
  std::string type;                  // the subscriber's message type
  std::shared_ptr<ThreadPool> pool;  // null: deliver on the publishing or receiving thread
  int queue_size = -1;               // -1: unbounded
  // Without a pool, true while the joining thread replays the latched state;
  // live deliveries wait in `queue` meanwhile. Changed under `mutex`.
  std::atomic<bool> replaying{false};

  std::mutex mutex;            // guards the fields below
  std::deque<Delivery> queue;  // deliveries waiting for the pool, or for the replay
  std::string expected_md5;    // set by negotiation (mode 2): other checksums are refused
  std::set<std::string> refused_publishers;  // warned about once each
};

// Counts the threads inside a delivery, from the check of a publication to
// the return of the subscriber, so that stop() can wait for them and no
// delivery starts after it. Lock-free while open.
class DeliveryGate {
 public:
  // Admits one delivery unless the gate is closed; each admission needs a leave().
  bool enter() {
    // Sequentially consistent, paired with close(): either close() sees this
    // delivery counted, or this delivery sees the gate closed.
    active_.fetch_add(1);
    if (closed_.load()) {
      release();
      return false;
    }
    admissionsOfThisThread().push_back(this);
    return true;
  }

  void leave() {
    admissionsOfThisThread().pop_back();
    release();
  }

  bool closed() const { return closed_.load(); }

  // Whether the calling thread is inside one of this gate's deliveries.
  bool admitsThisThread() const {
    const std::vector<const DeliveryGate*>& mine = admissionsOfThisThread();
    return std::find(mine.begin(), mine.end(), this) != mine.end();
  }

  // Refuses every later delivery and waits until the admitted ones are done,
  // except those of the calling thread: a subscriber that stops the
  // middleware from inside its own delivery must not wait for itself.
  void close() {
    closed_.store(true);
    const std::vector<const DeliveryGate*>& mine = admissionsOfThisThread();
    const auto own = static_cast<int>(std::count(mine.begin(), mine.end(), this));
    const auto done = [this, own] { return active_.load() <= own; };
    std::unique_lock<std::mutex> lock(mutex_);
    if (idle_.wait_for(lock, std::chrono::seconds(3), done)) return;
    mtrace(WARN, __FILE__, __LINE__, "stop", false,
           "still waiting for %d deliveries in progress to return", active_.load() - own);
    idle_.wait(lock, done);
  }

 private:
  // Gates this thread is inside, innermost last (a mode-0 subscriber that
  // publishes nests deliveries).
  static std::vector<const DeliveryGate*>& admissionsOfThisThread() {
    thread_local std::vector<const DeliveryGate*> admissions;
    return admissions;
  }

  void release() {
    active_.fetch_sub(1);
    if (closed_.load()) {
      // Under the lock, so the wake-up cannot fall between close()'s check and its wait.
      std::lock_guard<std::mutex> lock(mutex_);
      idle_.notify_all();
    }
  }

  std::atomic<int> active_{0};
  std::atomic<bool> closed_{false};
  std::mutex mutex_;
  std::condition_variable idle_;
};

namespace {

// One admitted delivery, for the extent of a scope.
class DeliveryPass {
 public:
  explicit DeliveryPass(DeliveryGate& gate) : gate_(gate), admitted_(gate.enter()) {}
  ~DeliveryPass() {
    if (admitted_) gate_.leave();
  }
  DeliveryPass(const DeliveryPass&) = delete;
  DeliveryPass& operator=(const DeliveryPass&) = delete;

  bool admitted() const { return admitted_; }

 private:
  DeliveryGate& gate_;
  const bool admitted_;
};

// Whether `subscription` accepts `delivery`; a refused publisher is reported once.
bool accepts(Subscription& subscription, const Delivery& delivery) {
  std::lock_guard<std::mutex> lock(subscription.mutex);
  if (subscription.expected_md5.empty() || subscription.expected_md5 == delivery.md5) return true;
  if (subscription.refused_publishers.insert(delivery.publisher).second) {
    mtrace(WARN, __FILE__, __LINE__, "negotiateTopics", false,
           "topic %s: publisher \"%s\" sends checksum %s, subscriber expects %s; its messages "
           "are dropped",
           subscription.topic.c_str(), delivery.publisher.c_str(), delivery.md5.c_str(),
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
    if (delivery.message && delivery.type == subscription.type) {
      subscriber.intraProcess(delivery.message);
      return;
    }
    if (!delivery.frame) return;
    const std::vector<uint8_t>& frame = *delivery.frame;
    if (!msgs::isWellFormedFrame(subscription.type, frame.data(), frame.size())) {
      mtrace(WARN, __FILE__, __LINE__, "deliver", false,
             "topic %s: dropped a frame of %zu bytes from \"%s\" that is not one well-formed %s",
             subscription.topic.c_str(), frame.size(), delivery.publisher.c_str(),
             subscription.type.c_str());
      return;
    }
    // The subscriber decodes in place but does not write; the copy keeps the
    // shared frame constant for the other subscribers.
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

// `replayed` marks the joining thread's own replay, which is never held.
void deliver(const std::shared_ptr<Subscription>& subscription, const Delivery& delivery,
             const std::shared_ptr<DeliveryGate>& gate, bool replayed = false) {
  const DeliveryPass pass(*gate);
  if (!pass.admitted() || !accepts(*subscription, delivery)) return;
  if (!subscription->pool) {
    if (!replayed && holdDuringReplay(*subscription, delivery)) return;
    invoke(*subscription, delivery);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(subscription->mutex);
    if (subscription->queue_size > 0 &&
        subscription->queue.size() >= static_cast<size_t>(subscription->queue_size)) {
      subscription->queue.pop_front();  // a bounded queue drops its oldest delivery
    }
    subscription->queue.push_back(delivery);
  }
  // One task per delivery; a task that finds the queue emptied by a drop does nothing.
  subscription->pool->post([subscription, gate] {
    const DeliveryPass task_pass(*gate);
    if (!task_pass.admitted()) return;
    Delivery next;
    {
      std::lock_guard<std::mutex> lock(subscription->mutex);
      if (subscription->queue.empty()) return;
      next = std::move(subscription->queue.front());
      subscription->queue.pop_front();
    }
    invoke(*subscription, next);
  });
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

LocalBus::LocalBus(std::string node_name, bool intra_process, NodeHandleBase& handle)
    : node_name_(std::move(node_name)),
      intra_process_(intra_process),
      handle_(handle),
      gate_(std::make_shared<DeliveryGate>()) {}

LocalBus::~LocalBus() { stop(); }

void LocalBus::attachTransport(std::unique_ptr<Transport> transport) {
  transport_ = std::move(transport);
}

bool LocalBus::addSubscription(SubscriberBase* subscriber) {
  auto subscription = std::make_shared<Subscription>();
  subscription->subscriber = subscriber;
  subscription->topic = subscriber->getTopic();
  subscription->type = subscriber->getMsgType();
  subscription->queue_size = subscriber->getQueueSize();
  if (handle_.mode != 0) {
    std::lock_guard<std::mutex> lock(handle_.subscribers_mutex);
    const auto pool = handle_.pools.find(subscriber->topic_id);
    if (pool != handle_.pools.end() && handle_.subscribers[subscriber->topic_id] == subscriber) {
      subscription->pool = pool->second;
    }
  }
  // Set before publishers can see the subscription: a mode-2 subscription
  // refuses other checksums from its first delivery, its latched replay too.
  subscription->replaying = !subscription->pool && subscriber->getLatch();
  if (handle_.mode == 2 && subscriber->negotiated()) {
    subscription->expected_md5 = subscriber->getMsgMD5();
  }

  std::vector<Delivery> replay;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (gate_->closed()) return false;
    auto& list = subscriptions_[subscription->topic];
    auto grown = std::make_shared<SubscriptionList>(list ? *list : SubscriptionList());
    grown->push_back(subscription);
    list = std::move(grown);
    if (subscriber->getLatch()) {
      for (const auto& entry : latched_[subscription->topic]) replay.push_back(entry.second);
    }
    if (subscription->pool) {
      // Queued while the lock keeps publishers out, so no newer publication
      // can overtake the state it replays.
      for (const Delivery& delivery : replay) deliver(subscription, delivery, gate_);
      replay.clear();
    }
  }
  if (transport_) {
    // Each subscription has its own remote reader, so a latched one receives
    // the state of every other process when it joins.
    const std::shared_ptr<DeliveryGate> gate = gate_;
    const bool listening = transport_->listen(
        subscription->topic, subscriber->getLatch(), subscriber->getReliable(),
        [subscription, gate](const std::string& md5, const uint8_t* frame, size_t size) {
          Delivery delivery;
          delivery.frame = std::make_shared<const std::vector<uint8_t>>(frame, frame + size);
          delivery.md5 = md5;
          delivery.publisher = getCallerId(const_cast<uint8_t*>(frame), static_cast<int>(size));
          deliver(subscription, delivery, gate);
        });
    if (!listening) {
      // The caller is told the subscription failed and may free the
      // subscriber: nothing may deliver to it any more.
      removeSubscription(subscription);
      return false;
    }
  }
  // Direct deliveries run user code, which must not run under the lock.
  if (subscription->replaying) replayThenRelease(subscription, std::move(replay), gate_);
  return true;
}

void LocalBus::removeSubscription(const std::shared_ptr<Subscription>& subscription) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto& list = subscriptions_[subscription->topic];
  if (!list) return;
  auto shrunk = std::make_shared<SubscriptionList>(*list);
  shrunk->erase(std::remove(shrunk->begin(), shrunk->end(), subscription), shrunk->end());
  list = std::move(shrunk);
}

void LocalBus::negotiate(SubscriberBase* subscriber) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto list = subscriptions_.find(subscriber->getTopic());
  if (list == subscriptions_.end() || !list->second) return;
  for (const auto& subscription : *list->second) {
    if (subscription->subscriber != subscriber) continue;
    std::lock_guard<std::mutex> subscription_lock(subscription->mutex);
    subscription->expected_md5 = subscriber->getMsgMD5();
  }
}

std::shared_ptr<const std::vector<uint8_t>> LocalBus::makeFrame(const Msg& message) const {
  const int length = message.serializedLength();
  auto frame =
      std::make_shared<std::vector<uint8_t>>(msgs::kFramePrefixSize + static_cast<size_t>(length));
  std::memcpy(frame->data(), node_name_.data(),
              std::min(node_name_.size(), msgs::kFramePrefixSize));
  message.serialize(frame->data() + msgs::kFramePrefixSize, length);
  return frame;
}

void LocalBus::publish(const std::string& topic, std::shared_ptr<const Msg> message,
                       const std::string& latch_key) {
  if (gate_->closed()) return;
  if (intra_process_ && !transport_ && latchOnly(topic, message, latch_key)) return;
  Delivery delivery;
  delivery.type = message->getType();
  delivery.md5 = message->getMD5();
  delivery.publisher = node_name_;
  // The frame path runs when intra-process delivery is off, or for other processes.
  if (!intra_process_ || transport_) delivery.frame = makeFrame(*message);
  if (intra_process_) delivery.message = std::move(message);

  std::shared_ptr<const SubscriptionList> subscribers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    latched_[topic][latch_key] = delivery;
    const auto list = subscriptions_.find(topic);
    if (list != subscriptions_.end()) subscribers = list->second;
  }
  if (subscribers) {
    for (const auto& subscription : *subscribers) deliver(subscription, delivery, gate_);
  }
  if (transport_) {
    transport_->send(topic, delivery.md5, latch_key, delivery.frame->data(),
                     delivery.frame->size());
  }
}

bool LocalBus::latchOnly(const std::string& topic, std::shared_ptr<const Msg>& message,
                         const std::string& latch_key) {
  std::shared_ptr<const Msg> replaced;  // released after the lock: its destructor may be long
  std::lock_guard<std::mutex> lock(mutex_);
  const auto list = subscriptions_.find(topic);
  if (list != subscriptions_.end() && list->second && !list->second->empty()) return false;
  Delivery& latched = latched_[topic][latch_key];
  // Type and checksum are constants of a message class: they are asked for
  // again only when a message of another class takes the key.
  if (!latched.message || typeid(*latched.message) != typeid(*message)) {
    latched.type = message->getType();
    latched.md5 = message->getMD5();
    latched.publisher = node_name_;
  }
  latched.frame.reset();
  replaced = std::exchange(latched.message, std::move(message));
  return true;
}

bool LocalBus::deliveringOnThisThread() const { return gate_->admitsThisThread(); }

int LocalBus::remoteSubscribers(const std::string& topic) {
  return transport_ && !gate_->closed() ? transport_->matchedSubscribers(topic) : 0;
}

void LocalBus::stop() {
  // First: once the gate is closed and idle, no thread runs a subscriber or
  // touches a subscription's queue or pool for this bus.
  gate_->close();
  if (transport_) transport_->stop();
  std::map<std::string, std::shared_ptr<const SubscriptionList>> subscriptions;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    subscriptions.swap(subscriptions_);
    latched_.clear();
  }
  // A queued task holds its subscription and the subscription holds its pool:
  // break the cycle, or neither the pool nor its thread would ever be freed.
  for (const auto& topic : subscriptions) {
    if (!topic.second) continue;
    for (const auto& subscription : *topic.second) {
      std::shared_ptr<ThreadPool> pool;  // released outside the subscription's lock
      std::lock_guard<std::mutex> lock(subscription->mutex);
      subscription->queue.clear();
      pool.swap(subscription->pool);
    }
  }
}

}  // namespace dova::platform
