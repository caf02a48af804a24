#ifndef DOVA_OS_NODE_HANDLE_BASE_H_
#define DOVA_OS_NODE_HANDLE_BASE_H_

#include <cstdint>
#include <memory>

namespace dova {

namespace diagnostic_msgs {
class DiagnosticValue;
}
namespace dova_msgs {
class Log;
}

class SubscriberBase;

// A process's access to the middleware. This plain base is what nh() answers
// whenever the middleware is not running: it is never ok() and its publishing
// operations do nothing, so callers can always call through nh() safely. The
// platform's own handle, created by dova::init, derives from it.
class NodeHandleBase {
 public:
  NodeHandleBase() = default;
  virtual ~NodeHandleBase();

  NodeHandleBase(const NodeHandleBase&) = delete;
  NodeHandleBase& operator=(const NodeHandleBase&) = delete;

  // True while the middleware is initialised and running.
  virtual bool ok() const;

  // Publishes a diagnostic report on "/diagnostics_value". The value lives
  // only for the call; the handle copies what it keeps.
  virtual void diag(const diagnostic_msgs::DiagnosticValue& value);

  // Publishes a log record on "/dova_log".
  virtual void log(const std::shared_ptr<const dova_msgs::Log>& record);

  // Lets a registered subscriber agree on the message checksum with the
  // publishers of its topic (node mode 2).
  virtual void negotiateTopics(SubscriberBase* subscriber);

  uint32_t inited = 0;  // non-zero once the middleware is initialised
  uint32_t mode = 0;    // 0, 1 or 2: how deliveries reach subscribers
};

// The process's node handle; never null. Thread-safe.
NodeHandleBase* nh();

}  // namespace dova

#endif  // DOVA_OS_NODE_HANDLE_BASE_H_
