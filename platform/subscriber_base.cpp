#include <mutex>

#include "dova/os/node_handle_base.h"
#include "platform_node_handle.h"

namespace dova {

SubscriberBase::SubscriberBase() = default;

SubscriberBase::~SubscriberBase() = default;

void SubscriberBase::setEnabled(bool value) { enabled = value; }

void SubscriberBase::setTopic(const std::string& topic_name) {
  std::lock_guard<std::mutex> lock(topic_mutex_);
  topic_ = topic_name;
}

std::string SubscriberBase::getTopic() const {
  std::lock_guard<std::mutex> lock(topic_mutex_);
  return topic_;
}

bool SubscriberBase::subscribe(NodeHandleBase* handle, bool latch_state, bool reliable_delivery,
                               int queue_length) {
  latch = latch_state;
  reliable = reliable_delivery;
  queue_size = queue_length;
  // Another handle (a stand-in installed by a test, another middleware)
  // delivers by itself.
  auto* platform = dynamic_cast<platform::PlatformNodeHandle*>(handle);
  return platform == nullptr || platform->attach(*this);
}

}  // namespace dova
