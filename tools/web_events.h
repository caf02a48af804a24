#ifndef KORCOMMON_TOOLS_WEB_EVENTS_H_
#define KORCOMMON_TOOLS_WEB_EVENTS_H_

#include <chrono>
#include <optional>
#include <string>

#include "web_state.h"

namespace korcommon::cli {

// The Server-Sent Events of one page: the whole state first, then what changed, batched so
// that a page gets at most ten messages a second whatever the report rate, and at least one
// a second (the status line's clock and rate).
//
// Not thread-safe: one connection's thread uses it.
class EventStream {
 public:
  using Clock = DashboardState::Clock;
  static constexpr std::chrono::milliseconds kMinInterval{100};
  static constexpr std::chrono::milliseconds kMaxInterval{1000};

  explicit EventStream(const DashboardState& state) : state_(state) {}

  // The next message in event-stream framing, once it is due; nullopt once the state is
  // closed.
  std::optional<std::string> next();

 private:
  const DashboardState& state_;
  DashboardState::Cursor cursor_;
  bool started_ = false;
  Clock::time_point last_sent_;
};

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_EVENTS_H_
