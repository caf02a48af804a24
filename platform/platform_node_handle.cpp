#include "platform_node_handle.h"

#include <map>
#include <thread>
#include <utility>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"

namespace dova::platform {

namespace {
// Built once: the bus takes topic names as strings, and building one for each
// publication (a heap allocation for the longer name) showed in every call.
const std::string& diagnosticsTopic() {
  static const std::string topic = msgs::kDiagnosticsTopic;
  return topic;
}
const std::string& logTopic() {
  static const std::string topic = msgs::kLogTopic;
  return topic;
}
}  // namespace

PlatformNodeHandle::PlatformNodeHandle(std::string node_name, const Options& options)
    : node_name_(std::move(node_name)), bus_(node_name_, options.intra_process, *this) {
  inited = 1;
  mode = static_cast<uint32_t>(options.mode);
}

PlatformNodeHandle::~PlatformNodeHandle() { stop(); }

void PlatformNodeHandle::diag(const diagnostic_msgs::DiagnosticValue& value) {
  if (!ok()) return;
  auto copy = std::make_shared<diagnostic_msgs::DiagnosticValue>(value);
  copy->caller_id = node_name_;
  const std::string name = copy->name;
  // Latched per report name: a late subscriber gets the latest of each.
  bus_.publish(diagnosticsTopic(), std::move(copy), name);
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
  bus_.publish(logTopic(), std::move(published), std::string());
}

void PlatformNodeHandle::negotiateTopics(SubscriberBase* subscriber) {
  if (mode == 2 && subscriber != nullptr && subscriber->negotiated()) bus_.negotiate(subscriber);
}

void PlatformNodeHandle::stop() {
  if (!running_.exchange(false, std::memory_order_acq_rel)) return;
  inited = 0;
  const bool from_a_delivery = bus_.deliveringOnThisThread();
  bus_.stop();
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
