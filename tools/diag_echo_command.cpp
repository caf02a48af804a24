#include <CLI/CLI.hpp>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>

#include "diag_report.h"
#include "diag_subcommands.h"
#include "dova/msgs/topics.h"
#include "exit_status.h"
#include "korcommon/startup_batch.h"
#include "levels.h"
#include "option_checks.h"
#include "output_form.h"
#include "session.h"
#include "subscription.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using ReportPtr = std::shared_ptr<const DiagnosticValue>;

using dova::msgs::kDiagnosticsTopic;

struct EchoArguments {
  OutputForm form = OutputForm::kText;
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
// order, then each live report. It collects the batch with the same collector, but hands it
// over from its main thread, which --once needs to know where the batch ends.
class DiagEcho {
 public:
  explicit DiagEcho(const EchoArguments& arguments)
      : form_(arguments.form),
        once_(arguments.once),
        batched_(!arguments.no_batch),
        count_(arguments.count),
        colour_(form_ == OutputForm::kText && colourWanted(arguments.no_color)) {
    if (arguments.timeout_option->count() > 0) timeout_ = arguments.timeout;
    if (arguments.level_option->count() > 0) {
      min_level_ = parseLevel(LevelScale::kReport, arguments.level);
    }
    if (arguments.name_option->count() > 0) {
      name_filter_.emplace(arguments.name_pattern, std::regex::ECMAScript);
    }
  }

  ExitStatus run() {
    Session session(cliNodeName(""));
    session.requireJoined();
    session_ = &session;
    const Clock::time_point subscribed = Clock::now();
    if (batched_) {
      std::lock_guard<std::mutex> lock(session.mutex());
      batch_.emplace(korcommon::detail::monotonicSeconds());
    }
    // Not under the lock: a replay may be delivered on this very thread.
    subscriber_ = requireSubscription<DiagnosticValue>(
        kDiagnosticsTopic, [this](const ReportPtr& report) { deliver(report); });

    std::unique_lock<std::mutex> lock(session.mutex());
    const Clock::time_point end =
        timeout_ ? subscribed + toDuration(*timeout_) : Clock::time_point::max();
    for (;;) {
      const double now = korcommon::detail::monotonicSeconds();
      if (pending() && now >= batch_->handOverDue()) showBatch();
      if (countReached() || (once_ && batch_->over(now))) break;
      if (Clock::now() >= end) {
        if (pending()) showBatch();  // they did arrive in time
        break;
      }
      const bool was_pending = pending();
      const WaitEnd waited = session.waitUntil(
          lock, std::min(nextBatchStep(now), end),
          [this, was_pending] { return countReached() || pending() != was_pending; });
      if (waited == WaitEnd::kInterrupted) {
        closed_ = true;
        return kSuccess;
      }
    }
    closed_ = true;  // late deliveries print nothing while the session shuts down
    if (shown_ > 0) return kSuccess;
    if (heard_ == 0) {
      // --once listens for the collection window, unless --timeout ends it sooner.
      const double window = korcommon::detail::kCollectionSeconds;
      sayNothingHeard("reports", once_ ? std::min(timeout_.value_or(window), window) : *timeout_);
    }
    return kNo;
  }

 private:
  // On a delivery thread of the middleware.
  void deliver(const ReportPtr& report) {
    std::lock_guard<std::mutex> lock(session_->mutex());
    if (closed_) return;
    ++heard_;
    if (!batch_ || !batch_->collect(report, korcommon::detail::monotonicSeconds())) show(*report);
    session_->notify();
  }

  // Whether collected reports wait for the hand-over. REQUIRES: the session's mutex held.
  bool pending() const { return batch_ && batch_->pending(); }

  // When the batch next needs the main thread at `now`: for the hand-over, or at the window's
  // end to learn that the batch is empty. REQUIRES: the session's mutex held.
  Clock::time_point nextBatchStep(double now) const {
    if (pending()) return Clock::now() + toDuration(batch_->handOverDue() - now);
    if (batch_ && !batch_->over(now)) return Clock::now() + toDuration(batch_->windowEnd() - now);
    return Clock::time_point::max();
  }

  // REQUIRES: the session's mutex held.
  void showBatch() {
    batch_->handOver([this](const ReportPtr& report) { show(*report); });
  }

  // REQUIRES: the session's mutex held.
  void show(const DiagnosticValue& report) {
    if (countReached()) return;
    if (min_level_ && report.level < *min_level_) return;
    if (name_filter_ && !std::regex_search(report.name, *name_filter_)) return;
    switch (form_) {
      case OutputForm::kText:
        writeLine(reportLine(report, colour_));
        break;
      case OutputForm::kJson:
        writeLine(reportJson(report));
        break;
      case OutputForm::kCsv:
        if (shown_ == 0) writeLine(reportCsvHeader());
        writeLine(reportCsv(report));
        break;
    }
    ++shown_;
  }

  bool countReached() const { return count_ > 0 && shown_ >= count_; }

  const OutputForm form_;
  const bool once_;  // with the batch: --once excludes --no-batch
  const bool batched_;
  const int count_;
  const bool colour_;
  std::optional<double> timeout_;  // seconds
  std::optional<int> min_level_;
  std::optional<std::regex> name_filter_;

  // Outlives run()'s session, which shuts down first, so no delivery can reach it freed.
  std::unique_ptr<dova::Subscriber<DiagnosticValue>> subscriber_;
  Session* session_ = nullptr;

  // Guarded by the session's mutex.
  std::optional<korcommon::detail::StartupBatch> batch_;  // none with --no-batch
  bool closed_ = false;
  int heard_ = 0;  // reports received, whether shown or not
  int shown_ = 0;
};

}  // namespace

void addDiagEcho(CLI::App& diag) {
  auto arguments = std::make_shared<EchoArguments>();
  CLI::App* echo = diag.add_subcommand("echo", "Print the diagnostic reports of every process");
  addOutputForms(*echo, arguments->form, "One compact JSON object per line");
  arguments->name_option =
      echo->add_option("--name", arguments->name_pattern,
                       "Only reports whose name contains a match of REGEX (ECMAScript)")
          ->type_name("REGEX")
          ->check(regexValidator());
  arguments->level_option =
      echo->add_option("--level", arguments->level,
                       "Only reports of LEVEL and above: " + levelChoices(LevelScale::kReport))
          ->type_name("LEVEL")
          ->check(levelValidator(LevelScale::kReport));
  CLI::Option* once = echo->add_flag("--once", arguments->once, "Exit after the start-up batch");
  echo->add_flag("--no-batch", arguments->no_batch,
                 "Print every report as it arrives, the start-up ones too")
      ->excludes(once);
  echo->add_option("--count", arguments->count, "Exit after N reports")
      ->type_name("N")
      ->check(countOfOneOrMore());
  arguments->timeout_option =
      echo->add_option("--timeout", arguments->timeout, "Exit after S seconds")
          ->type_name("S")
          ->check(greaterThanZero());
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
      "with --csv, the same members as columns, after a header row. Line feeds in texts show\n"
      "as \\n, except in CSV, which quotes them. Colour only on a terminal.\n"
      "Levels: ok 0, warn (or warning) 1, error 2, by name in any case or by number.\n"
      "\n"
      "Uses the dds transport unless DOVA_TRANSPORT says otherwise; DOVA_DOMAIN_ID selects\n"
      "the domain. When nothing at all arrives, one line on standard error says so.\n"
      "\n"
      "Exit status: 0 a report was printed, or Ctrl-C ended the command; 1 --once or\n"
      "--timeout ended it before any (matching) report; 2 bad usage or the middleware cannot\n"
      "start.\n"
      "\n"
      "Examples:\n"
      "  korcommon diag echo --once\n"
      "  korcommon diag echo --level warn --name '^joint/'\n"
      "  korcommon diag echo --csv --timeout 60 > reports.csv");
  echo->callback([arguments] {
    DiagEcho echo_command(*arguments);
    const ExitStatus status = echo_command.run();
    if (status != kSuccess) exitWith(status);
  });
}

}  // namespace korcommon::cli
