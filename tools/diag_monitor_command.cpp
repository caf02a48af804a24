#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "diag_report.h"
#include "diag_subcommands.h"
#include "dova/msgs/topics.h"
#include "dova/time.h"
#include "exit_status.h"
#include "korcommon/startup_batch.h"
#include "levels.h"
#include "option_checks.h"
#include "session.h"
#include "subscription.h"
#include "table.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using ReportPtr = std::shared_ptr<const DiagnosticValue>;

using dova::msgs::kDiagnosticsTopic;

constexpr double kWindow = korcommon::detail::kCollectionSeconds;

struct MonitorArguments {
  double stale = 5.0;
  double refresh = 1.0;
  double duration = 0.0;
  std::string name_pattern;
  std::string level;
  bool once = false;
  bool no_color = false;
  CLI::Option* duration_option = nullptr;
  CLI::Option* name_option = nullptr;
  CLI::Option* level_option = nullptr;
};

std::string ageText(double seconds) {
  // Far beyond any stamp's age; keeps the conversions below in range for any --stale.
  seconds = std::min(seconds, 1e10);
  char text[32];
  if (seconds < 60.0) {
    std::snprintf(text, sizeof text, "%.1fs", seconds);
  } else if (seconds < 3600.0) {
    const auto whole = static_cast<long>(seconds);
    std::snprintf(text, sizeof text, "%ldm%02lds", whole / 60, whole % 60);
  } else {
    const auto minutes = static_cast<long>(seconds / 60.0);
    std::snprintf(text, sizeof text, "%ldh%02ldm", minutes / 60, minutes % 60);
  }
  return text;
}

// A live table of every reporter, one row per report name and publishing node.
class DiagMonitor {
 public:
  explicit DiagMonitor(const MonitorArguments& arguments)
      : stale_after_(arguments.stale),
        refresh_(toDuration(arguments.refresh)),
        once_(arguments.once),
        terminal_(outputIsTerminal()),
        colour_(colourWanted(arguments.no_color)) {
    if (arguments.duration_option->count() > 0) end_seconds_ = arguments.duration;
    // By the end of the window the middleware has replayed every live reporter's state.
    if (once_) end_seconds_ = std::min(end_seconds_.value_or(kWindow), kWindow);
    if (arguments.level_option->count() > 0) {
      min_rank_ = parseLevel(LevelScale::kMonitorRow, arguments.level);
    }
    if (arguments.name_option->count() > 0) {
      name_filter_.emplace(arguments.name_pattern, std::regex::ECMAScript);
    }
  }

  ExitStatus run() {
    Session session(cliNodeName(""));
    session.requireJoined();
    session_ = &session;
    subscriber_ = requireSubscription<DiagnosticValue>(
        kDiagnosticsTopic, [this](const ReportPtr& report) { deliver(report); });

    std::unique_lock<std::mutex> lock(session.mutex());
    const Clock::time_point start = Clock::now();
    const Clock::time_point window_end = start + toDuration(kWindow);
    const Clock::time_point end =
        end_seconds_ ? start + toDuration(*end_seconds_) : Clock::time_point::max();
    Clock::time_point next = once_ ? end : start + refresh_;
    bool told = false;
    for (;;) {
      const WaitEnd waited = session.waitUntil(lock, std::min(next, end), [] { return false; });
      if (waited == WaitEnd::kInterrupted) break;
      const bool ending = Clock::now() >= end;
      if (!told && reporters_.empty() && (ending || Clock::now() >= window_end)) {
        sayNothingHeard("reports", ending ? *end_seconds_ : kWindow);
        told = true;
      }
      render();
      if (ending) break;
      next += refresh_;
    }
    closed_ = true;
    return once_ && reporters_.empty() ? kNo : kSuccess;
  }

 private:
  struct Row {
    ReportPtr report;
    double age = 0.0;
    bool stale = false;
  };

  // On a delivery thread of the middleware.
  void deliver(const ReportPtr& report) {
    std::lock_guard<std::mutex> lock(session_->mutex());
    if (!closed_) reporters_[{report->name, report->caller_id}] = report;
  }

  // Whether the filters let `row` through.
  bool shown(const Row& row) const {
    if (name_filter_ && !std::regex_search(row.report->name, *name_filter_)) return false;
    // A silent reporter's state is unknown, which ranks above an error.
    return !min_rank_ || (row.stale ? kStaleRank : row.report->level) >= *min_rank_;
  }

  // The rows the filters let through, worst first: stale above all, then by level, name and
  // source. REQUIRES: the session's mutex held.
  std::vector<Row> rowsToShow(const dova::Time& now) const {
    std::vector<Row> rows;
    for (const auto& entry : reporters_) {
      Row row;
      row.report = entry.second;
      // The stamp tells when the reporter last spoke; replayed state arrives now but may
      // be old. A stamp from the future (another machine's clock) counts as fresh.
      row.age = std::max(0.0, (now - row.report->header.stamp).toSec());
      row.stale = row.age >= stale_after_;
      if (shown(row)) rows.push_back(row);
    }
    std::sort(rows.begin(), rows.end(), [](const Row& left, const Row& right) {
      if (left.stale != right.stale) return left.stale;
      if (left.report->level != right.report->level) {
        return left.report->level > right.report->level;
      }
      if (left.report->name != right.report->name) return left.report->name < right.report->name;
      return left.report->caller_id < right.report->caller_id;
    });
    return rows;
  }

  // The header and a line per row. On a terminal a row as wide as the screen would wrap and
  // break the in-place refresh: the message gives way first, then the name; SOURCE and AGE
  // always show.
  std::vector<std::string> tableLines(const std::vector<Row>& rows) const {
    std::vector<std::vector<std::string>> cells = {
        {"LEVEL", "NAME", "CODE", "MESSAGE", "SOURCE", "AGE"}};
    for (const Row& row : rows) {
      cells.push_back({diagLevelName(row.report->level), oneLine(row.report->name),
                       std::to_string(row.report->code), oneLine(row.report->message),
                       oneLine(row.report->caller_id),
                       ageText(row.age) + (row.stale ? " stale" : "")});
    }
    const int columns = terminal_ ? terminalColumns() : 0;
    constexpr size_t kName = 1;
    constexpr size_t kMessage = 3;
    return layOutTable(cells, columns > 1 ? static_cast<size_t>(columns - 1) : 0,
                       {kMessage, kName});
  }

  // REQUIRES: the session's mutex held.
  void render() const {
    const dova::Time now = dova::Time::now();
    const std::vector<Row> rows = rowsToShow(now);
    const auto stale_count =
        std::count_if(rows.begin(), rows.end(), [](const Row& row) { return row.stale; });
    const std::vector<std::string> lines = tableLines(rows);

    std::string text = terminal_ ? kClearScreen : (rendered_before_ ? "\n" : "");
    text += "diag monitor at " + localTimeText(now).substr(0, 19) + ": " +
            std::to_string(rows.size()) + (rows.size() == 1 ? " reporter, " : " reporters, ") +
            std::to_string(stale_count) + " stale (silent for " + ageText(stale_after_) +
            " or more)\n";
    for (size_t i = 0; i < lines.size(); ++i) {
      if (colour_ && i > 0) {
        const Row& row = rows[i - 1];
        text += coloured(row.stale ? kDim : diagLevelColour(row.report->level), lines[i]);
      } else {
        text += lines[i];
      }
      text += '\n';
    }
    if (rows.empty()) text += reporters_.empty() ? "(no reports yet)\n" : "(none matching)\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    rendered_before_ = true;
  }

  const double stale_after_;
  const Clock::duration refresh_;
  const bool once_;
  const bool terminal_;
  const bool colour_;
  std::optional<double> end_seconds_;  // from the start; until Ctrl-C when empty
  std::optional<int> min_rank_;
  std::optional<std::regex> name_filter_;

  // Outlives run()'s session, which shuts down first, so no delivery can reach it freed.
  std::unique_ptr<dova::Subscriber<DiagnosticValue>> subscriber_;
  Session* session_ = nullptr;

  // Guarded by the session's mutex.
  std::map<std::pair<std::string, std::string>, ReportPtr> reporters_;  // (name, source)
  bool closed_ = false;
  mutable bool rendered_before_ = false;
};

}  // namespace

void addDiagMonitor(CLI::App& diag) {
  auto arguments = std::make_shared<MonitorArguments>();
  CLI::App* monitor =
      diag.add_subcommand("monitor", "Show a live table of every reporter's latest report");
  monitor
      ->add_option("--stale", arguments->stale,
                   "Mark reporters silent for S seconds or more as stale")
      ->capture_default_str()
      ->type_name("S")
      ->check(greaterThanZero());
  monitor->add_option("--refresh", arguments->refresh, "Redraw every S seconds")
      ->capture_default_str()
      ->type_name("S")
      ->check(greaterThanZero());
  arguments->duration_option =
      monitor->add_option("--duration", arguments->duration, "Exit after S seconds")
          ->type_name("S")
          ->check(greaterThanZero());
  arguments->name_option =
      monitor
          ->add_option("--name", arguments->name_pattern,
                       "Only reporters whose report name contains a match of REGEX (ECMAScript)")
          ->type_name("REGEX")
          ->check(regexValidator());
  arguments->level_option =
      monitor
          ->add_option("--level", arguments->level,
                       "Only rows of LEVEL and above: " + levelChoices(LevelScale::kMonitorRow))
          ->type_name("LEVEL")
          ->check(levelValidator(LevelScale::kMonitorRow));
  monitor->add_flag("--once", arguments->once,
                    "Print one table, 3 s after joining (every live reporter replayed), and exit");
  monitor->add_flag("--no-color", arguments->no_color, "No colour, even on a terminal");
  monitor->footer(
      "One row per reporter (report name and publishing node):\n"
      "  LEVEL  NAME  CODE  MESSAGE  SOURCE  AGE\n"
      "worst first: stale reporters, then ERROR, WARN, OK, then by name. AGE is the time since\n"
      "the report's stamp; \"stale\" follows it once that reaches --stale. Above the table:\n"
      "  diag monitor at <YYYY-MM-DD HH:MM:SS>: <n> reporters, <m> stale (silent for <S> or "
      "more)\n"
      "On a terminal the table is redrawn in place, and a long message (then name) is cut to\n"
      "fit the screen; otherwise a new table follows every --refresh, after an empty line.\n"
      "Runs until Ctrl-C, or for --duration. Levels: ok 0, warn (or warning) 1, error 2, and\n"
      "stale above error, so --level error also shows silent reporters. When no report arrives\n"
      "in the first 3 s, one line on standard error says so.\n"
      "\n"
      "Exit status: 0 done; 1 --once found no reporter; 2 bad usage or the middleware cannot\n"
      "start.\n"
      "\n"
      "Examples:\n"
      "  korcommon diag monitor\n"
      "  korcommon diag monitor --level warn --name '^joint/' --stale 2\n"
      "  korcommon diag monitor --once --no-color > health.txt");
  monitor->callback([arguments] {
    DiagMonitor monitor_command(*arguments);
    const ExitStatus status = monitor_command.run();
    if (status != kSuccess) exitWith(status);
  });
}

}  // namespace korcommon::cli
