#ifndef KORCOMMON_TOOLS_WEB_STATE_H_
#define KORCOMMON_TOOLS_WEB_STATE_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "web_timeline.h"

namespace korcommon::cli {

// How much the dashboard keeps, whatever the robot sends.
struct DashboardLimits {
  double stale_seconds = 5.0;        // a reporter silent this long is stale
  size_t reporters = 5000;           // reporters followed; reports of further ones are dropped
  size_t trace_records = 10000;      // latest trace records kept
  size_t records_per_message = 500;  // trace records one event message carries at most
};

// Which reports GET /api/diagnostics answers with.
struct ReportFilter {
  std::optional<std::regex> name;  // a match somewhere in the name
  std::optional<int> min_level;
};

// The robot as the dashboard shows it: the latest report of every reporter (a report name and
// the node that publishes it) with its ten-minute timeline, the latest trace records, and the
// counters of the status line. It renders the JSON of the API and of the event stream.
//
// Memory is bounded by DashboardLimits. Thread-safe: the middleware's delivery threads add,
// the server's threads read; one mutex guards everything.
class DashboardState {
 public:
  using Clock = std::chrono::steady_clock;
  // Seconds of the wall clock, the timelines' time base.
  using WallSeconds = std::function<int64_t()>;

  explicit DashboardState(const DashboardLimits& limits, WallSeconds wall_seconds = {});

  // On the middleware's delivery threads.
  void addReport(const std::shared_ptr<const dova::diagnostic_msgs::DiagnosticValue>& report);
  void addRecord(const std::shared_ptr<const dova::dova_msgs::Log>& record);

  // The latest report of every reporter that passes `filter`, worst level first, then by name
  // and node, as a JSON array of the objects "diag echo --json" prints.
  std::string diagnosticsJson(const ReportFilter& filter) const;

  // The latest `limit` trace records of `min_level` and above, oldest first, as a JSON array of
  // the records' own JSON form (as "log echo --json" prints them).
  std::string recordsJson(int min_level, size_t limit) const;

  // How far one page of the event stream has come.
  struct Cursor {
    uint64_t reports = 0;  // report changes seen
    uint64_t records = 0;  // trace records seen
  };

  // The whole state as one event-stream message; `cursor` is set to match it.
  std::string snapshotJson(Cursor& cursor) const;

  // What changed after `cursor` as one event-stream message, the status line at least;
  // `cursor` moves past it.
  std::string changesJson(Cursor& cursor) const;

  // Waits until something changed after `cursor`, close() is called, or `deadline` passes.
  // Answers false once closed.
  bool waitForChange(const Cursor& cursor, Clock::time_point deadline) const;

  // Wakes every waiter for good: the server is stopping.
  void close();

 private:
  struct Reporter {
    std::shared_ptr<const dova::diagnostic_msgs::DiagnosticValue> report;
    std::string json;  // the report as /api/diagnostics shows it
    uint64_t change = 0;
    Timeline timeline;
  };
  struct Record {
    int8_t level = 0;  // the record's own type: a level number, not a character
    std::string json;
  };
  using ReporterKey = std::pair<std::string, std::string>;  // (name, caller id)

  // REQUIRES: mutex_ held.
  int64_t wallSecond() const;
  void countReport(int64_t second);
  uint64_t oldestRecord() const;
  std::string statusJson(int64_t second) const;
  void appendHead(std::string& json, const char* type, int64_t second) const;
  void appendRecords(std::string& json, Cursor& cursor) const;

  const DashboardLimits limits_;
  const WallSeconds wall_seconds_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool closed_ = false;
  std::map<ReporterKey, Reporter> reporters_;
  uint64_t report_changes_ = 0;
  uint64_t dropped_reports_ = 0;
  std::vector<Record> records_;  // a ring: record n sits at n % trace_records
  uint64_t records_total_ = 0;
  int64_t rate_second_ = 0;  // the second being counted
  uint64_t rate_count_ = 0;  // reports in rate_second_
  uint64_t last_rate_ = 0;   // reports in the second before it
};

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_STATE_H_
