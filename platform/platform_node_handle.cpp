#include "platform_node_handle.h"

#include <map>
#include <thread>
#include <utility>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"

namespace dova::platform {

namespace {
// Built once: the dispatcher takes topic names as strings, and building one
// for each publication (a heap allocation for the longer name) showed in
// every call.
const std::string& diagnosticsTopic() {
  static const std::string topic = msgs::kDiagnosticsTopic;
  return topic;
}
const std::string& logTopic() {
  static const std::string topic = msgs::kLogTopic;
  return topic;
}
}  // namespace

PlatformNodeHandle::PlatformNodeHandle(std::string node_name, const Options& options,
                                       std::unique_ptr<Transport> transport)
    : node_name_(std::move(node_name)),
      options_(options),
      dispatcher_(node_name_, options.intra_process, std::move(transport)) {
  mode = static_cast<uint32_t>(options.mode);
  inited.store(1, std::memory_order_release);
}

PlatformNodeHandle::~PlatformNodeHandle() { stop(); }

void PlatformNodeHandle::diag(const diagnostic_msgs::DiagnosticValue& value) {
  if (!ok()) return;
  auto copy = std::make_shared<diagnostic_msgs::DiagnosticValue>(value);
  copy->caller_id = node_name_;
  const std::string name = copy->name;
  // Latched per report name: a late subscriber gets the latest of each.
  dispatcher_.publish(diagnosticsTopic(), std::move(copy), name);
}

void PlatformNodeHandle::log(const std::shared_ptr<const dova_msgs::Log>& record) {
  if (!ok() || !record) return;
  std::shared_ptr<const dova_msgs::Log> published = record;
  if (record->caller_id != node_name_) {
    // The caller's record is shared and const: stamp a copy with our name.
    auto stamped = std::make_shared<dova_msgs::Log>(*record);
    stamped->caller_id = node_name_;
    published = std::move(stamped);
  }
  // Latched per publisher: a late subscriber gets this node's latest record.
  dispatcher_.publish(logTopic(), std::move(published), std::string());
}

void PlatformNodeHandle::negotiateTopics(SubscriberBase* subscriber) {
  if (mode == 2 && subscriber != nullptr && subscriber->negotiated()) {
    dispatcher_.negotiate(*subscriber);
  }
}

bool PlatformNodeHandle::attach(SubscriberBase& subscriber) {
  // Held here until the dispatcher has it, or has refused it.
  const std::shared_ptr<ThreadPool> pool = registeredPool(subscriber);
  if (dispatcher_.add(subscriber, pool.get(), mode == 2 && subscriber.negotiated())) return true;
  // A registration that passed the inited check just before stop() may have
  // recorded its pool after stop() released the others: nothing serves it.
  forget(subscriber);
  return false;
}

std::shared_ptr<ThreadPool> PlatformNodeHandle::registeredPool(const SubscriberBase& subscriber) {
  if (mode == 0) return nullptr;
  std::lock_guard<std::mutex> lock(subscribers_mutex);
  const auto pool = pools.find(subscriber.topic_id);
  const auto registered = subscribers.find(subscriber.topic_id);
  if (pool == pools.end() || registered == subscribers.end() || registered->second != &subscriber) {
    return nullptr;  // not registered through this handle: no pool of its own
  }
  return pool->second;
}

void PlatformNodeHandle::forget(const SubscriberBase& subscriber) {
  std::shared_ptr<ThreadPool> released;  // destroyed outside the lock: it waits for its worker
  std::lock_guard<std::mutex> lock(subscribers_mutex);
  const auto registered = subscribers.find(subscriber.topic_id);
  if (registered == subscribers.end() || registered->second != &subscriber) return;
  subscribers.erase(registered);
  const auto pool = pools.find(subscriber.topic_id);
  if (pool == pools.end()) return;
  released = std::move(pool->second);
  pools.erase(pool);
}

int PlatformNodeHandle::remoteSubscribers(const std::string& topic) {
  return dispatcher_.remoteSubscribers(topic);
}

void PlatformNodeHandle::stop() {
  if (!running_.exchange(false, std::memory_order_acq_rel)) return;
  inited.store(0, std::memory_order_release);
  const bool from_a_delivery = dispatcher_.deliveringOnThisThread();
  dispatcher_.stop();
  std::map<uint32_t, std::shared_ptr<ThreadPool>> released;
  {
    std::lock_guard<std::mutex> lock(subscribers_mutex);
    released.swap(pools);
    subscribers.clear();
  }
  // Destroyed outside the lock: each pool waits (at most 3 s) for its worker.
  // A subscriber that stops the middleware from its own delivery runs on one
  // of these workers, whose pool would wait for the very call destroying it:
  // then the pools go on a thread of their own, once that delivery returns.
  if (from_a_delivery) {
    std::thread([pools = std::move(released)]() mutable { pools.clear(); }).detach();
  } else {
    released.clear();
  }
}

}  // namespace dova::platform
