#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "diag_report.h"
#include "diag_subcommands.h"
#include "dova/msgs/topics.h"
#include "dova/time.h"
#include "session.h"
#include "subscription.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using ReportPtr = std::shared_ptr<const DiagnosticValue>;

using dova::msgs::kDiagnosticsTopic;

struct MonitorArguments {
  double stale = 5.0;
  double refresh = 1.0;
  double duration = 0.0;
  bool no_color = false;
  CLI::Option* duration_option = nullptr;
};

std::string ageText(double seconds) {
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
        terminal_(outputIsTerminal()),
        colour_(colourWanted(arguments.no_color)) {
    if (arguments.duration_option->count() > 0) duration_ = toDuration(arguments.duration);
  }

  void run() {
    Session session(cliNodeName(""));
    session.requireJoined();
    session_ = &session;
    subscriber_ = requireSubscription<DiagnosticValue>(
        kDiagnosticsTopic, [this](const ReportPtr& report) { deliver(report); });

    std::unique_lock<std::mutex> lock(session.mutex());
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = duration_ ? start + *duration_ : Clock::time_point::max();
    Clock::time_point next = start + refresh_;
    for (;;) {
      const WaitEnd waited = session.waitUntil(lock, std::min(next, end), [] { return false; });
      if (waited == WaitEnd::kInterrupted) break;
      render();
      if (Clock::now() >= end) break;
      next += refresh_;
    }
    closed_ = true;
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

  // REQUIRES: the session's mutex held.
  void render() const {
    const dova::Time now = dova::Time::now();
    std::vector<Row> rows;
    size_t stale_count = 0;
    for (const auto& entry : reporters_) {
      Row row;
      row.report = entry.second;
      // The stamp tells when the reporter last spoke; replayed state arrives now but may
      // be old. A stamp from the future (another machine's clock) counts as fresh.
      row.age = std::max(0.0, (now - row.report->header.stamp).toSec());
      row.stale = row.age >= stale_after_;
      if (row.stale) ++stale_count;
      rows.push_back(row);
    }
    // Worst first: a silent reporter's state is unknown, which is worse than an error.
    std::sort(rows.begin(), rows.end(), [](const Row& left, const Row& right) {
      if (left.stale != right.stale) return left.stale;
      if (left.report->level != right.report->level) {
        return left.report->level > right.report->level;
      }
      if (left.report->name != right.report->name) return left.report->name < right.report->name;
      return left.report->caller_id < right.report->caller_id;
    });

    std::vector<std::vector<std::string>> cells = {
        {"LEVEL", "NAME", "CODE", "MESSAGE", "SOURCE", "AGE"}};
    for (const Row& row : rows) {
      cells.push_back({diagLevelName(row.report->level), oneLine(row.report->name),
                       std::to_string(row.report->code), oneLine(row.report->message),
                       oneLine(row.report->caller_id),
                       ageText(row.age) + (row.stale ? " stale" : "")});
    }
    std::vector<size_t> widths(cells.front().size(), 0);
    for (const auto& line : cells) {
      for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    }

    const int columns = terminal_ ? terminalColumns() : 0;
    std::string text = terminal_ ? kClearScreen : (rendered_before_ ? "\n" : "");
    text += "diag monitor at " + localTimeText(now).substr(0, 19) + ": " +
            std::to_string(rows.size()) + (rows.size() == 1 ? " reporter, " : " reporters, ") +
            std::to_string(stale_count) + " stale (silent for " + ageText(stale_after_) +
            " or more)\n";
    for (size_t i = 0; i < cells.size(); ++i) {
      std::string line;
      for (size_t column = 0; column < cells[i].size(); ++column) {
        const bool last = column + 1 == cells[i].size();
        line += last ? cells[i][column] : padded(cells[i][column], widths[column] + 2);
      }
      // A row wider than the terminal would wrap and break the in-place refresh.
      if (columns > 1 && line.size() >= static_cast<size_t>(columns)) {
        line.resize(static_cast<size_t>(columns - 1));
      }
      if (colour_ && i > 0) {
        const Row& row = rows[i - 1];
        line = (row.stale ? kDim : diagLevelColour(row.report->level)) + line + kReset;
      }
      text += line + "\n";
    }
    if (rows.empty()) text += "(no reports yet)\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    rendered_before_ = true;
  }

  const double stale_after_;
  const Clock::duration refresh_;
  const bool terminal_;
  const bool colour_;
  std::optional<Clock::duration> duration_;

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
      ->check(CLI::PositiveNumber);
  monitor->add_option("--refresh", arguments->refresh, "Redraw every S seconds")
      ->capture_default_str()
      ->type_name("S")
      ->check(CLI::PositiveNumber);
  arguments->duration_option =
      monitor->add_option("--duration", arguments->duration, "Exit after S seconds")
          ->type_name("S")
          ->check(CLI::PositiveNumber);
  monitor->add_flag("--no-color", arguments->no_color, "No colour, even on a terminal");
  monitor->footer(
      "One row per reporter (report name and publishing node):\n"
      "  LEVEL  NAME  CODE  MESSAGE  SOURCE  AGE\n"
      "worst first: stale reporters, then ERROR, WARN, OK, then by name. AGE is the time since\n"
      "the report's stamp; \"stale\" follows it once that reaches --stale. Above the table:\n"
      "  diag monitor at <YYYY-MM-DD HH:MM:SS>: <n> reporters, <m> stale (silent for <S> or "
      "more)\n"
      "On a terminal the table is redrawn in place; otherwise a new table follows every\n"
      "--refresh, after an empty line. Runs until Ctrl-C, or for --duration.\n"
      "\n"
      "Exit status: 0 done; 2 bad usage or the middleware cannot start.");
  monitor->callback([arguments] {
    DiagMonitor monitor_command(*arguments);
    monitor_command.run();
  });
}

}  // namespace korcommon::cli
