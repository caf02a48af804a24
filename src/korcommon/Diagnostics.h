#ifndef KORCOMMON_DIAGNOSTICS_H_
#define KORCOMMON_DIAGNOSTICS_H_

#include <functional>
#include <memory>
#include <string>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"

namespace korcommon {

// Health reports of the robot's components on "/diagnostics_value".
//
// publish() stamps a report with the middleware clock and sends it.
// subscribe() follows every component's reports: the reports that arrive in
// the first 3 s (typically the current state the middleware replays to a new
// subscriber) are collected, the latest per name, and handed over together in
// name order 3 s after the first of them; later reports are handed over one
// by one as they arrive. The user's function is never called concurrently
// with itself for one subscription. Both are thread-safe; before dova::init
// they only trace "Please init dova!".
class Diagnostics {
 public:
  using Callback =
      std::function<void(const std::shared_ptr<const dova::diagnostic_msgs::DiagnosticValue>&)>;

  Diagnostics() = delete;

  // `code` comes before `level` (OK 0, WARN 1, ERROR 2): callers rely on this order.
  static void publish(const std::string& name, int code, int level, const std::string& message);
  static void publish(const std::string& name, const std::string& frame_id, int code, int level,
                      const std::string& message);

  // Starts an independent subscription that lasts for the rest of the process.
  static void subscribe(Callback callback);
};

}  // namespace korcommon

#endif  // KORCOMMON_DIAGNOSTICS_H_
