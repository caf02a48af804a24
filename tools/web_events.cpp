#include "web_events.h"

#include <thread>

namespace korcommon::cli {

std::optional<std::string> EventStream::next() {
  if (!started_) {
    started_ = true;
    last_sent_ = Clock::now();
    // A page that loses the connection tries again after 2 s.
    return "retry: 2000\ndata: " + state_.snapshotJson(cursor_) + "\n\n";
  }
  // Changes within the interval wait for the same message.
  if (!state_.waitForChange(cursor_, last_sent_ + kMaxInterval)) return std::nullopt;
  const Clock::time_point due = last_sent_ + kMinInterval;
  if (Clock::now() < due) std::this_thread::sleep_until(due);
  last_sent_ = Clock::now();
  return "data: " + state_.changesJson(cursor_) + "\n\n";
}

}  // namespace korcommon::cli
