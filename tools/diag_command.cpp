#include "diag_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/msg.h"
#include "dova/msgs/topics.h"
#include "dova/os/node_handle_base.h"
#include "dova/time.h"
#include "exit_status.h"
#include "korcommon/Diagnostics.h"
#include "session.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using ReportPtr = std::shared_ptr<const DiagnosticValue>;

using dova::msgs::kDiagnosticsTopic;
// As Diagnostics::subscribe: reports of the first 3 s are collected and shown together,
// 3 s after the first of them, so the replayed state of every reporter comes as one batch.
constexpr auto kCollection = dova::msgs::kDiagnosticsCollectionWindow;

// OK, WARN and ERROR by name (any case) or number; nullopt for anything else.
std::optional<int> parseDiagLevel(const std::string& text) {
  std::string lower;
  for (const char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "ok" || lower == "0") return DiagnosticValue::OK;
  if (lower == "warn" || lower == "1") return DiagnosticValue::WARN;
  if (lower == "error" || lower == "2") return DiagnosticValue::ERROR;
  return std::nullopt;
}

CLI::Validator diagLevelValidator() {
  return CLI::Validator(
      [](std::string& text) {
        return parseDiagLevel(text) ? std::string()
                                    : "must be ok, warn, error, 0, 1 or 2, not \"" + text + "\"";
      },
      "");
}

CLI::Validator regexValidator() {
  return CLI::Validator(
      [](std::string& text) {
        try {
          std::regex(text, std::regex::ECMAScript);
        } catch (const std::regex_error& error) {
          return "not a regular expression: \"" + text + "\" (" + error.what() + ")";
        }
        return std::string();
      },
      "");
}

std::string levelName(int level) {
  switch (level) {
    case DiagnosticValue::OK:
      return "OK";
    case DiagnosticValue::WARN:
      return "WARN";
    case DiagnosticValue::ERROR:
      return "ERROR";
    default:
      return std::to_string(level);  // carried unchanged, so shown as it is
  }
}

const char* levelColour(int level) {
  if (level == DiagnosticValue::OK) return kGreen;
  if (level == DiagnosticValue::WARN) return kYellow;
  return level > DiagnosticValue::WARN ? kRed : "";
}

std::string padded(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

// "<local time> <LEVEL> <name> [<code>] <message>  (from <caller id>[, frame <frame>])"
std::string reportLine(const DiagnosticValue& report, bool colour) {
  std::string level = padded(levelName(report.level), 5);
  if (colour) level = levelColour(report.level) + level + kReset;
  std::string line = localTimeText(report.header.stamp) + " " + level + " " + oneLine(report.name) +
                     " [" + std::to_string(report.code) + "] " + oneLine(report.message) +
                     "  (from " + oneLine(report.caller_id);
  if (!report.header.frame_id.empty()) line += ", frame " + oneLine(report.header.frame_id);
  return line + ")";
}

// One compact JSON object; strings quoted as the message codec quotes them.
std::string reportJson(const DiagnosticValue& report) {
  return "{\"name\":" + dova::Msg::matchString2(report.name) +
         ",\"level\":" + std::to_string(report.level) + ",\"code\":" + std::to_string(report.code) +
         ",\"message\":" + dova::Msg::matchString2(report.message) +
         ",\"frame_id\":" + dova::Msg::matchString2(report.header.frame_id) +
         ",\"stamp\":" + secondsText(report.header.stamp) +
         ",\"caller_id\":" + dova::Msg::matchString2(report.caller_id) + "}";
}

// A latched, reliable subscription to every reporter on "/diagnostics_value".
// REQUIRES: the middleware is running. The caller keeps the subscriber until the session
// that delivers to it has shut down.
std::unique_ptr<dova::Subscriber<DiagnosticValue>> subscribeDiagnostics(
    std::function<void(const ReportPtr&)> deliver) {
  auto subscriber = std::make_unique<dova::Subscriber<DiagnosticValue>>();
  subscriber->callback_ptr = std::move(deliver);
  subscriber->callback_kind = 2;
  subscriber->setTopic(kDiagnosticsTopic);
  if (!dova::nh()->subscribe(*subscriber, true, true, -1)) {
    failWith(kTrouble, std::string("cannot subscribe to ") + kDiagnosticsTopic);
  }
  return subscriber;
}

// ---------------------------------------------------------------------------------------
// diag pub

struct PubArguments {
  std::string name;
  std::string level;
  int code = 0;
  std::string message;
  std::string frame;
  double rate = 1.0;
  int count = 1;
  double linger = 1.0;
  std::string node;
  bool verbose = false;
  CLI::Option* rate_option = nullptr;
  CLI::Option* count_option = nullptr;
};

void runPub(const PubArguments& arguments) {
  const int level = parseDiagLevel(arguments.level).value_or(DiagnosticValue::OK);
  const bool has_rate = arguments.rate_option->count() > 0;
  const bool has_count = arguments.count_option->count() > 0;
  // Once by default; --rate alone repeats until interrupted (count 0).
  const int count = has_count ? arguments.count : (has_rate ? 0 : 1);
  const Clock::duration period = toDuration(1.0 / arguments.rate);

  Session session(cliNodeName(arguments.node));
  session.requireJoined();
  std::unique_lock<std::mutex> lock(session.mutex());
  const Clock::time_point start = Clock::now();
  for (int published = 1;; ++published) {
    lock.unlock();
    Diagnostics::publish(arguments.name, arguments.frame, arguments.code, level, arguments.message);
    if (arguments.verbose) {
      writeLine("published #" + std::to_string(published) + ": " + oneLine(arguments.name) + " " +
                levelName(level) + " [" + std::to_string(arguments.code) + "] " +
                oneLine(arguments.message));
    }
    lock.lock();
    if (count > 0 && published >= count) break;
    // Ticks on a fixed schedule, so the rate does not drift with the publishing time.
    if (session.waitUntil(lock, start + period * published, [] { return false; }) ==
        WaitEnd::kInterrupted) {
      return;
    }
  }
  // DDS hands the latest reports to readers that match later only while this writer lives:
  // stay a moment so that readers still being discovered get them.
  session.waitUntil(lock, Clock::now() + toDuration(arguments.linger), [] { return false; });
}

void addPub(CLI::App& diag) {
  auto arguments = std::make_shared<PubArguments>();
  CLI::App* pub = diag.add_subcommand("pub", "Publish a diagnostic report, once or repeatedly");
  pub->add_option("NAME", arguments->name, "Name of the reporting component or check")->required();
  pub->add_option("LEVEL", arguments->level, "ok, warn or error (or 0, 1, 2)")
      ->required()
      ->check(diagLevelValidator());
  pub->add_option("CODE", arguments->code, "Numeric code of the report")->required();
  pub->add_option("MESSAGE", arguments->message, "Human-readable text")->required();
  pub->add_option("--frame", arguments->frame, "Frame id of the report's header")->type_name("F");
  arguments->rate_option = pub->add_option("--rate", arguments->rate, "Publish HZ times a second")
                               ->type_name("HZ")
                               ->check(CLI::PositiveNumber);
  arguments->count_option =
      pub->add_option("--count", arguments->count, "Publish N reports (at --rate, default 1 Hz)")
          ->type_name("N")
          ->check(CLI::PositiveNumber);
  pub->add_option("--linger", arguments->linger,
                  "Stay on the middleware S seconds after the last report")
      ->capture_default_str()
      ->type_name("S")
      ->check(CLI::NonNegativeNumber);
  pub->add_option("--node", arguments->node, "Node name (default korcommon_cli_<pid>)")
      ->type_name("NAME");
  pub->add_flag("--verbose,-v", arguments->verbose,
                "Print \"published #<n>: <name> <LEVEL> [<code>] <message>\" per report");
  pub->footer(
      "Without --rate and --count one report is published. With --rate alone reports follow\n"
      "until Ctrl-C (SIGINT or SIGTERM), which ends the command cleanly with status 0.\n"
      "\n"
      "Receivers see the node name as the report's caller id. After the last report the\n"
      "command lingers (--linger, default 1 s): a DDS reader that is still being discovered\n"
      "receives the latest report only while its publisher is alive.\n"
      "\n"
      "Uses the dds transport unless DOVA_TRANSPORT says otherwise; DOVA_DOMAIN_ID selects\n"
      "the domain. Without CYCLONEDDS_URI only this machine is reached (loopback).\n"
      "\n"
      "Exit status: 0 published; 2 bad usage or the middleware cannot start.");
  pub->callback([arguments] { runPub(*arguments); });
}

// ---------------------------------------------------------------------------------------
// diag echo

struct EchoArguments {
  bool json = false;
  std::string name_pattern;
  std::string level;
  bool once = false;
  bool no_batch = false;
  int count = 0;
  double timeout = 0.0;
  bool no_color = false;
  CLI::Option* name_option = nullptr;
  CLI::Option* level_option = nullptr;
  CLI::Option* timeout_option = nullptr;
};

// Shows the reports as Diagnostics::subscribe hands them over: the start-up batch in name
// order, then each live report. The collection is done here rather than through
// Diagnostics::subscribe because --once must know where the batch ends.
class DiagEcho {
 public:
  explicit DiagEcho(const EchoArguments& arguments)
      : json_(arguments.json),
        once_(arguments.once),
        count_(arguments.count),
        colour_(!arguments.json && colourWanted(arguments.no_color)) {
    if (arguments.no_batch) phase_ = Phase::kLive;
    if (arguments.timeout_option->count() > 0) timeout_ = toDuration(arguments.timeout);
    if (arguments.level_option->count() > 0) {
      min_level_ = parseDiagLevel(arguments.level).value_or(DiagnosticValue::OK);
    }
    if (arguments.name_option->count() > 0) {
      name_filter_.emplace(arguments.name_pattern, std::regex::ECMAScript);
    }
  }

  ExitStatus run() {
    Session session(cliNodeName(""));
    session.requireJoined();
    session_ = &session;
    {
      std::lock_guard<std::mutex> lock(session.mutex());
      subscribed_ = Clock::now();
    }
    // Not under the lock: a replay may be delivered on this very thread.
    subscriber_ = subscribeDiagnostics([this](const ReportPtr& report) { deliver(report); });

    std::unique_lock<std::mutex> lock(session.mutex());
    const Clock::time_point end = timeout_ ? subscribed_ + *timeout_ : Clock::time_point::max();
    for (;;) {
      const Clock::time_point now = Clock::now();
      if (phase_ == Phase::kAwaitingFirst && now >= subscribed_ + kCollection) {
        phase_ = Phase::kLive;  // nothing in the first 3 s: the batch is empty
      }
      if (phase_ == Phase::kCollecting && now >= batch_due_) showBatch();
      if (countReached() || (once_ && phase_ == Phase::kLive)) break;
      if (now >= end) {
        if (phase_ == Phase::kCollecting) showBatch();  // they did arrive in time
        break;
      }
      Clock::time_point next = Clock::time_point::max();
      if (phase_ == Phase::kAwaitingFirst) next = subscribed_ + kCollection;
      if (phase_ == Phase::kCollecting) next = batch_due_;
      const Phase seen = phase_;
      const WaitEnd waited = session.waitUntil(
          lock, std::min(next, end), [this, seen] { return countReached() || phase_ != seen; });
      if (waited == WaitEnd::kInterrupted) {
        phase_ = Phase::kClosed;
        return kSuccess;
      }
    }
    phase_ = Phase::kClosed;  // late deliveries print nothing while the session shuts down
    return shown_ > 0 ? kSuccess : kNo;
  }

 private:
  enum class Phase { kAwaitingFirst, kCollecting, kLive, kClosed };

  // On a delivery thread of the middleware.
  void deliver(const ReportPtr& report) {
    std::lock_guard<std::mutex> lock(session_->mutex());
    switch (phase_) {
      case Phase::kClosed:
        return;
      case Phase::kLive:
        show(*report);
        break;
      case Phase::kAwaitingFirst:
        if (Clock::now() - subscribed_ >= kCollection) {
          phase_ = Phase::kLive;
          show(*report);
          break;
        }
        phase_ = Phase::kCollecting;
        batch_due_ = Clock::now() + kCollection;
        batch_[report->name] = report;
        break;
      case Phase::kCollecting:
        // Also after the 3 s, until the batch is shown: it then joins the batch.
        batch_[report->name] = report;
        break;
    }
    session_->notify();
  }

  // REQUIRES: the session's mutex held.
  void showBatch() {
    for (const auto& entry : batch_) show(*entry.second);
    batch_.clear();
    phase_ = Phase::kLive;
  }

  // REQUIRES: the session's mutex held.
  void show(const DiagnosticValue& report) {
    if (countReached()) return;
    if (min_level_ && report.level < *min_level_) return;
    if (name_filter_ && !std::regex_search(report.name, *name_filter_)) return;
    writeLine(json_ ? reportJson(report) : reportLine(report, colour_));
    ++shown_;
  }

  bool countReached() const { return count_ > 0 && shown_ >= count_; }

  const bool json_;
  const bool once_;
  const int count_;
  const bool colour_;
  std::optional<Clock::duration> timeout_;
  std::optional<int> min_level_;
  std::optional<std::regex> name_filter_;

  // Outlives run()'s session, which shuts down first, so no delivery can reach it freed.
  std::unique_ptr<dova::Subscriber<DiagnosticValue>> subscriber_;
  Session* session_ = nullptr;

  // Guarded by the session's mutex.
  Phase phase_ = Phase::kAwaitingFirst;
  Clock::time_point subscribed_;
  Clock::time_point batch_due_;
  std::map<std::string, ReportPtr> batch_;  // latest per name, in name order
  int shown_ = 0;
};

void addEcho(CLI::App& diag) {
  auto arguments = std::make_shared<EchoArguments>();
  CLI::App* echo = diag.add_subcommand("echo", "Print the diagnostic reports of every process");
  echo->add_flag("--json", arguments->json, "One compact JSON object per line");
  arguments->name_option =
      echo->add_option("--name", arguments->name_pattern,
                       "Only reports whose name contains a match of REGEX (ECMAScript)")
          ->type_name("REGEX")
          ->check(regexValidator());
  arguments->level_option =
      echo->add_option("--level", arguments->level, "Only reports of LEVEL and above")
          ->type_name("LEVEL")
          ->check(diagLevelValidator());
  CLI::Option* once = echo->add_flag("--once", arguments->once, "Exit after the start-up batch");
  echo->add_flag("--no-batch", arguments->no_batch,
                 "Print every report as it arrives, the start-up ones too")
      ->excludes(once);
  echo->add_option("--count", arguments->count, "Exit after N reports")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  arguments->timeout_option =
      echo->add_option("--timeout", arguments->timeout, "Exit after S seconds")
          ->type_name("S")
          ->check(CLI::PositiveNumber);
  echo->add_flag("--no-color", arguments->no_color, "No colour, even on a terminal");
  echo->footer(
      "Reports that arrive in the first 3 s (the current state of every live reporter, which\n"
      "the middleware replays on joining, and any new ones) are collected, the latest per\n"
      "name, and printed together 3 s after the first of them, in name order; later reports\n"
      "are printed as they arrive (with --no-batch, all are). One line per report:\n"
      "  <YYYY-MM-DD HH:MM:SS.mmm> <LEVEL> <name> [<code>] <message>  (from <caller id>[, frame "
      "<frame>])\n"
      "with --json:\n"
      "  {\"name\":...,\"level\":1,\"code\":...,\"message\":...,\"frame_id\":...,"
      "\"stamp\":<seconds>,\"caller_id\":...}\n"
      "Line feeds in texts show as \\n. Colour only on a terminal.\n"
      "\n"
      "Uses the dds transport unless DOVA_TRANSPORT says otherwise; DOVA_DOMAIN_ID selects\n"
      "the domain.\n"
      "\n"
      "Exit status: 0 a report was printed, or Ctrl-C ended the command; 1 --once or\n"
      "--timeout ended it before any (matching) report; 2 bad usage or the middleware cannot\n"
      "start.");
  echo->callback([arguments] {
    DiagEcho echo_command(*arguments);
    const ExitStatus status = echo_command.run();
    if (status != kSuccess) exitWith(status);
  });
}

// ---------------------------------------------------------------------------------------
// diag monitor

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
    subscriber_ = subscribeDiagnostics([this](const ReportPtr& report) { deliver(report); });

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
      cells.push_back({levelName(row.report->level), oneLine(row.report->name),
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
        line = (row.stale ? kDim : levelColour(row.report->level)) + line + kReset;
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

void addMonitor(CLI::App& diag) {
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

}  // namespace

void addDiagCommand(CLI::App& app) {
  CLI::App* diag = app.add_subcommand(
      "diag", "Publish, print and watch the diagnostic reports on /diagnostics_value");
  diag->require_subcommand(1);
  addPub(*diag);
  addEcho(*diag);
  addMonitor(*diag);
}

}  // namespace korcommon::cli
