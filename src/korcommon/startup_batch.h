#ifndef KORCOMMON_STARTUP_BATCH_H_
#define KORCOMMON_STARTUP_BATCH_H_

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/topics.h"
#include "dova/time.h"

namespace korcommon::detail {

// How long a diagnostics subscription collects its start-up batch, and how long after its
// first report the batch is handed over, in seconds.
inline constexpr double kCollectionSeconds =
    std::chrono::duration<double>(dova::msgs::kDiagnosticsCollectionWindow).count();

// Seconds of the middleware's monotonic clock, the clock of the collection window.
inline double monotonicSeconds() {
  const dova::Time now = dova::Time::monotonic();
  return static_cast<double>(now.sec) + static_cast<double>(now.nsec) * 1e-9;
}

// The start-up batch of one diagnostics subscription. Reports that arrive within
// kCollectionSeconds of the subscription's start (typically the state the middleware replays
// to a new subscriber) are kept, only the latest of each name, and handed over together in
// name order; a report that arrives later while that hand-over is still due joins it. Once
// the batch is handed over, or the window closed with nothing kept, every report is for
// immediate hand-over. The owner decides when to hand over: Diagnostics::subscribe does it
// kCollectionSeconds after the first report, from a thread of its own.
//
// Not thread-safe: the owner serialises every call.
class StartupBatch {
 public:
  using ReportPtr = std::shared_ptr<const dova::diagnostic_msgs::DiagnosticValue>;

  // `start`: the subscription's start, in monotonicSeconds().
  explicit StartupBatch(double start) : start_(start) {}

  // Keeps `report`, arrived at `now`, for the batch and answers true; answers false when the
  // batch is past, so the report is to be handed over at once.
  bool collect(const ReportPtr& report, double now) {
    if (over(now)) return false;
    if (msgs_.empty()) first_arrival_ = now;
    msgs_[report->name] = report;
    return true;
  }

  // Whether the collection window is still open at `now`.
  bool collecting(double now) const { return now - start_ < kCollectionSeconds; }

  // Whether the batch is past at `now`: handed over, or the window closed with nothing kept.
  bool over(double now) const { return handed_over_ || (msgs_.empty() && !collecting(now)); }

  // Whether collected reports wait for the hand-over.
  bool pending() const { return !msgs_.empty(); }

  // When the hand-over is due: kCollectionSeconds after the first collected report.
  // REQUIRES: pending().
  double handOverDue() const { return first_arrival_ + kCollectionSeconds; }

  // When the window closes.
  double windowEnd() const { return start_ + kCollectionSeconds; }

  // Calls `hand_over` with each collected report, in ascending name order, then empties the
  // batch, which ends it.
  template <typename HandOver>
  void handOver(HandOver&& hand_over) {
    for (const auto& entry : msgs_) hand_over(entry.second);
    msgs_.clear();
    handed_over_ = true;
  }

 private:
  double start_;
  double first_arrival_ = 0.0;
  std::map<std::string, ReportPtr> msgs_;  // latest per name, in name order
  bool handed_over_ = false;
};

}  // namespace korcommon::detail

#endif  // KORCOMMON_STARTUP_BATCH_H_
