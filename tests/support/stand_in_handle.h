#ifndef KORCOMMON_TESTS_SUPPORT_STAND_IN_HANDLE_H_
#define KORCOMMON_TESTS_SUPPORT_STAND_IN_HANDLE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/os/node_handle_base.h"
#include "threads.h"

namespace korcommon::testing {

// A node handle standing in for the middleware, so that a test sees exactly what the
// library hands over. It is installed with dova::setNodeHandle for its lifetime, and the
// handle installed before comes back afterwards. ok() answers `running`; reports, log
// records and subscribers to negotiate for are kept in inboxes, except that log records go
// to `on_log` instead when a test sets it (before any logging). Thread-safe.
class StandInHandle : public dova::NodeHandleBase {
 public:
  using LogRecord = std::shared_ptr<const dova::dova_msgs::Log>;

  explicit StandInHandle(bool is_running = true, uint32_t node_mode = 1) : running(is_running) {
    inited = 1;
    mode = node_mode;
    previous_ = dova::setNodeHandle(this);
  }
  ~StandInHandle() override { dova::setNodeHandle(previous_); }

  bool ok() const override { return running.load(); }
  void diag(const dova::diagnostic_msgs::DiagnosticValue& value) override { reports.add(value); }
  void log(const LogRecord& record) override { on_log ? on_log(record) : records.add(record); }
  void negotiateTopics(dova::SubscriberBase* subscriber) override { negotiated.add(subscriber); }

  std::atomic<bool> running;
  std::function<void(const LogRecord&)> on_log;
  Inbox<dova::diagnostic_msgs::DiagnosticValue> reports;
  Inbox<LogRecord> records;
  Inbox<dova::SubscriberBase*> negotiated;

 private:
  dova::NodeHandleBase* previous_ = nullptr;
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_STAND_IN_HANDLE_H_
