#include "dova/os/node_handle_base.h"

namespace dova {

// The plain handle does nothing: it stands in whenever the middleware is not
// running, so every call through nh() is safe.
NodeHandleBase::~NodeHandleBase() = default;

bool NodeHandleBase::ok() const { return false; }

void NodeHandleBase::diag(const diagnostic_msgs::DiagnosticValue& /*value*/) {}

void NodeHandleBase::log(const std::shared_ptr<const dova_msgs::Log>& /*record*/) {}

void NodeHandleBase::negotiateTopics(SubscriberBase* /*subscriber*/) {}

}  // namespace dova
