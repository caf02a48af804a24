#include "web_state.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>

#include "diag_report.h"
#include "dova/msgs/json_text.h"
#include "dova/time.h"
#include "terminal.h"
#include "web_json.h"

namespace korcommon::cli {
namespace {

using dova::msgs::appendSigned;
using dova::msgs::appendUnsigned;

int64_t systemWallSecond() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Joins JSON texts into an array.
class ArrayWriter {
 public:
  ArrayWriter(std::string& json, const char* member) : json_(json) {
    json_ += ",\"";
    json_ += member;
    json_ += "\":[";
  }
  ~ArrayWriter() { json_ += ']'; }
  ArrayWriter(const ArrayWriter&) = delete;
  ArrayWriter& operator=(const ArrayWriter&) = delete;

  // Starts the next element.
  std::string& next() {
    if (!first_) json_ += ',';
    first_ = false;
    return json_;
  }

 private:
  std::string& json_;
  bool first_ = true;
};

}  // namespace

DashboardState::DashboardState(const DashboardLimits& limits, WallSeconds wall_seconds)
    : limits_(limits),
      wall_seconds_(wall_seconds ? std::move(wall_seconds) : WallSeconds(systemWallSecond)),
      records_(std::max<size_t>(limits.trace_records, 1)) {}

void DashboardState::addReport(
    const std::shared_ptr<const dova::diagnostic_msgs::DiagnosticValue>& report) {
  std::string json = browserJson(reportJson(*report));
  ReporterKey key(report->name, report->caller_id);
  std::lock_guard<std::mutex> lock(mutex_);
  const int64_t second = wallSecond();
  auto found = reporters_.find(key);
  if (found == reporters_.end()) {
    if (reporters_.size() >= limits_.reporters) {
      ++dropped_reports_;
      return;
    }
    const auto stale = static_cast<int64_t>(std::ceil(limits_.stale_seconds));
    found = reporters_.emplace(std::move(key), Reporter{nullptr, {}, 0, Timeline(stale)}).first;
  }
  Reporter& reporter = found->second;
  reporter.report = report;
  reporter.json = std::move(json);
  reporter.change = ++report_changes_;
  reporter.timeline.record(second, report->level);
  countReport(second);
  changed_.notify_all();
}

void DashboardState::addRecord(const std::shared_ptr<const dova::dova_msgs::Log>& record) {
  std::string json = browserJson(record->echo());
  std::lock_guard<std::mutex> lock(mutex_);
  Record& slot = records_[records_total_ % records_.size()];
  slot.level = record->level;
  slot.json = std::move(json);
  ++records_total_;
  changed_.notify_all();
}

std::string DashboardState::diagnosticsJson(const ReportFilter& filter) const {
  std::vector<const Reporter*> shown;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& entry : reporters_) {
    const auto& report = *entry.second.report;
    if (filter.min_level && report.level < *filter.min_level) continue;
    if (filter.name && !std::regex_search(report.name, *filter.name)) continue;
    shown.push_back(&entry.second);
  }
  // The map is in (name, node) order already; a stable sort keeps it within a level.
  std::stable_sort(shown.begin(), shown.end(), [](const Reporter* left, const Reporter* right) {
    return left->report->level > right->report->level;
  });
  std::string json = "[";
  for (const Reporter* reporter : shown) {
    if (json.size() > 1) json += ',';
    json += reporter->json;
  }
  return json + "]";
}

std::string DashboardState::recordsJson(int min_level, size_t limit) const {
  std::vector<const Record*> shown;
  std::lock_guard<std::mutex> lock(mutex_);
  for (uint64_t n = records_total_; n > oldestRecord() && shown.size() < limit; --n) {
    const Record& record = records_[(n - 1) % records_.size()];
    if (record.level >= min_level) shown.push_back(&record);
  }
  std::string json = "[";
  for (auto record = shown.rbegin(); record != shown.rend(); ++record) {
    if (json.size() > 1) json += ',';
    json += (*record)->json;
  }
  return json + "]";
}

std::string DashboardState::snapshotJson(Cursor& cursor) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const int64_t second = wallSecond();
  std::string json;
  appendHead(json, "snapshot", second);
  char stale[32];
  std::snprintf(stale, sizeof stale, ",\"stale\":%g", limits_.stale_seconds);
  json += stale;
  {
    ArrayWriter reporters(json, "reporters");
    for (const auto& entry : reporters_) {
      std::string& item = reporters.next();
      item += "{\"report\":" + entry.second.json + ",\"timeline\":[";
      bool first = true;
      for (const auto& run : entry.second.timeline.runs(second)) {
        item += first ? "[\"" : ",[\"";
        item += run.first;
        item += "\",";
        appendSigned(item, run.second);
        item += ']';
        first = false;
      }
      item += "]}";
    }
  }
  cursor.reports = report_changes_;
  cursor.records = records_total_ -
                   std::min<uint64_t>(records_total_ - oldestRecord(), limits_.records_per_message);
  appendRecords(json, cursor);
  return json + ",\"status\":" + statusJson(second) + "}";
}

std::string DashboardState::changesJson(Cursor& cursor) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const int64_t second = wallSecond();
  std::string json;
  appendHead(json, "changes", second);
  {
    ArrayWriter reporters(json, "reporters");
    for (const auto& entry : reporters_) {
      if (entry.second.change <= cursor.reports) continue;
      // The last two seconds: a change within one message's interval can cross a second.
      reporters.next() += R"({"report":)" + entry.second.json + R"(,"tail":")" +
                          entry.second.timeline.marks(second, 2) + R"("})";
    }
  }
  cursor.reports = report_changes_;
  appendRecords(json, cursor);
  return json + ",\"status\":" + statusJson(second) + "}";
}

bool DashboardState::waitForChange(const Cursor& cursor, Clock::time_point deadline) const {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_until(lock, deadline, [&] {
    return closed_ || report_changes_ > cursor.reports || records_total_ > cursor.records;
  });
  return !closed_;
}

void DashboardState::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

int64_t DashboardState::wallSecond() const { return wall_seconds_(); }

void DashboardState::countReport(int64_t second) {
  if (second != rate_second_) {
    last_rate_ = second == rate_second_ + 1 ? rate_count_ : 0;
    rate_second_ = second;
    rate_count_ = 0;
  }
  ++rate_count_;
}

uint64_t DashboardState::oldestRecord() const {
  return records_total_ - std::min<uint64_t>(records_total_, records_.size());
}

std::string DashboardState::statusJson(int64_t second) const {
  uint64_t rate = 0;
  if (second == rate_second_) rate = last_rate_;
  if (second == rate_second_ + 1) rate = rate_count_;
  std::set<std::string> nodes;
  for (const auto& entry : reporters_) nodes.insert(entry.first.second);
  std::string json = "{\"reporters\":";
  appendUnsigned(json, reporters_.size());
  json += ",\"nodes\":";
  appendUnsigned(json, nodes.size());
  json += ",\"rate\":";
  appendUnsigned(json, rate);
  json += ",\"reports\":";
  appendUnsigned(json, report_changes_);
  json += ",\"records\":";
  appendUnsigned(json, records_total_);
  json += ",\"dropped_reports\":";
  appendUnsigned(json, dropped_reports_);
  return json + "}";
}

void DashboardState::appendHead(std::string& json, const char* type, int64_t second) const {
  json += R"({"type":")";
  json += type;
  json += R"(","now":)" + secondsText(dova::Time::now()) + R"(,"second":)";
  appendSigned(json, second);
}

void DashboardState::appendRecords(std::string& json, Cursor& cursor) const {
  // Records the page can no longer get: overwritten in the ring, or more than one message
  // carries.
  const uint64_t first =
      std::max({cursor.records, oldestRecord(),
                records_total_ - std::min<uint64_t>(records_total_, limits_.records_per_message)});
  {
    ArrayWriter records(json, "records");
    for (uint64_t n = first; n < records_total_; ++n) {
      records.next() += records_[n % records_.size()].json;
    }
  }
  json += ",\"skipped\":";
  appendUnsigned(json, first - std::min(first, cursor.records));
  cursor.records = records_total_;
}

}  // namespace korcommon::cli
