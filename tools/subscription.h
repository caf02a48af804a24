#ifndef KORCOMMON_TOOLS_SUBSCRIPTION_H_
#define KORCOMMON_TOOLS_SUBSCRIPTION_H_

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "dova/os/node_handle_base.h"
#include "exit_status.h"

namespace korcommon::cli {

// What a live command does with each message it receives, on a delivery thread of the
// middleware.
template <typename Message>
using Delivery = std::function<void(const std::shared_ptr<const Message>&)>;

// A latched, reliable, unbounded subscription to `topic`: the latest message of every live
// publisher comes first, then each message as it is published, every one handed to
// `deliver`. nullptr when the middleware refuses it.
// REQUIRES: the middleware is running. The caller keeps the subscriber until the session
// that delivers to it has shut down.
template <typename Message>
std::unique_ptr<dova::Subscriber<Message>> subscribeLatched(const std::string& topic,
                                                            Delivery<Message> deliver) {
  auto subscriber = std::make_unique<dova::Subscriber<Message>>();
  subscriber->callback_ptr = std::move(deliver);
  subscriber->callback_kind = 2;
  subscriber->setTopic(topic);
  if (!dova::nh()->subscribe(*subscriber, true, true, -1)) return nullptr;
  return subscriber;
}

// As subscribeLatched(), for a command that cannot go on without the subscription: a refusal
// ends it with status 2 and "cannot subscribe to <topic>".
template <typename Message>
std::unique_ptr<dova::Subscriber<Message>> requireSubscription(const std::string& topic,
                                                               Delivery<Message> deliver) {
  auto subscriber = subscribeLatched<Message>(topic, std::move(deliver));
  if (subscriber == nullptr) failWith(kTrouble, "cannot subscribe to " + topic);
  return subscriber;
}

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_SUBSCRIPTION_H_
