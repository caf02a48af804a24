#include "log_command.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "csv.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"
#include "exit_status.h"
#include "korcommon/screen_line.h"
#include "korcommon/startup_batch.h"
#include "levels.h"
#include "option_checks.h"
#include "output_form.h"
#include "session.h"
#include "subscription.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

using dova::dova_msgs::Log;
using RecordPtr = std::shared_ptr<const Log>;

using dova::msgs::kLogTopic;

// The node a record comes from: the name the logger recorded, else the sender's.
const std::string& nodeOf(const Log& record) {
  return record.name.empty() ? record.caller_id : record.name;
}

// The trace logger's screen line, with the record's stamp for both the date and the clock,
// and line breaks in the texts shown as \n and \r.
std::string recordLine(const Log& record, bool colour) {
  const std::string node = oneLine(nodeOf(record));
  const std::string file = oneLine(record.file);
  const std::string text = oneLine(record.msg);
  korcommon::detail::ScreenLine fields;
  fields.wall = record.header.stamp;
  // Through unsigned char: a negative byte is no known level either way, so it shows as D.
  fields.level = static_cast<unsigned char>(record.level);
  fields.node = node;
  fields.pid = static_cast<int64_t>(record.pid);
  fields.tid = static_cast<int32_t>(record.tid);
  fields.file = file;
  fields.line = record.line;
  fields.clock = record.header.stamp;
  fields.text = text;
  return korcommon::detail::screenLine(fields, colour);
}

// A record's CSV row, and the header row naming its columns.
std::string recordCsvHeader() {
  return csvRow(
      {"stamp", "level", "name", "msg", "file", "function", "line", "topics", "pid", "tid"});
}

std::string recordCsv(const Log& record) {
  std::string topics;
  for (const std::string& topic : record.topics) topics += (topics.empty() ? "" : " ") + topic;
  return csvRow({secondsText(record.header.stamp), std::to_string(record.level), record.name,
                 record.msg, record.file, record.function, std::to_string(record.line), topics,
                 std::to_string(record.pid), std::to_string(record.tid)});
}

struct EchoArguments {
  std::string level;
  std::string node;
  OutputForm form = OutputForm::kText;
  bool once = false;
  int count = 0;
  double timeout = 0.0;
  bool no_color = false;
  CLI::Option* level_option = nullptr;
  CLI::Option* node_option = nullptr;
  CLI::Option* timeout_option = nullptr;
};

class LogEcho {
 public:
  explicit LogEcho(const EchoArguments& arguments)
      : form_(arguments.form),
        count_(arguments.count),
        colour_(form_ == OutputForm::kText && colourWanted(arguments.no_color)) {
    if (arguments.level_option->count() > 0) {
      min_level_ = parseLevel(LevelScale::kRecord, arguments.level);
    }
    if (arguments.node_option->count() > 0) node_ = arguments.node;
    // --once listens as long as the replay of every live node's latest record takes.
    if (arguments.once) listen_seconds_ = korcommon::detail::kCollectionSeconds;
    if (arguments.timeout_option->count() > 0 &&
        (!listen_seconds_ || arguments.timeout < *listen_seconds_)) {
      listen_seconds_ = arguments.timeout;
    }
  }

  ExitStatus run() {
    Session session(cliNodeName(""));
    session.requireJoined();
    session_ = &session;
    const Clock::time_point start = Clock::now();
    // Latched: every live node's latest record first, as a tail shows the last line.
    subscriber_ =
        requireSubscription<Log>(kLogTopic, [this](const RecordPtr& record) { deliver(record); });

    std::unique_lock<std::mutex> lock(session.mutex());
    const Clock::time_point end =
        listen_seconds_ ? start + toDuration(*listen_seconds_) : Clock::time_point::max();
    const WaitEnd waited = session.waitUntil(lock, end, [this] { return countReached(); });
    closed_ = true;  // late deliveries print nothing while the session shuts down
    if (waited == WaitEnd::kInterrupted || shown_ > 0) return kSuccess;
    if (heard_ == 0) sayNothingHeard("records", *listen_seconds_);
    return kNo;
  }

 private:
  // On a delivery thread of the middleware.
  void deliver(const RecordPtr& record) {
    std::lock_guard<std::mutex> lock(session_->mutex());
    if (closed_ || countReached()) return;
    ++heard_;
    if (min_level_ && record->level < *min_level_) return;
    if (node_ && nodeOf(*record) != *node_) return;
    switch (form_) {
      case OutputForm::kText:
        writeLine(recordLine(*record, colour_));
        break;
      case OutputForm::kJson:
        writeLine(record->echo());
        break;
      case OutputForm::kCsv:
        if (shown_ == 0) writeLine(recordCsvHeader());
        writeLine(recordCsv(*record));
        break;
    }
    ++shown_;
    session_->notify();
  }

  bool countReached() const { return count_ > 0 && shown_ >= count_; }

  const OutputForm form_;
  const int count_;
  const bool colour_;
  std::optional<int> min_level_;
  std::optional<std::string> node_;
  std::optional<double> listen_seconds_;  // until Ctrl-C when empty

  // Outlives run()'s session, which shuts down first, so no delivery can reach it freed.
  std::unique_ptr<dova::Subscriber<Log>> subscriber_;
  Session* session_ = nullptr;

  // Guarded by the session's mutex.
  bool closed_ = false;
  int heard_ = 0;  // records received, whether shown or not
  int shown_ = 0;
};

void addEcho(CLI::App& log) {
  auto arguments = std::make_shared<EchoArguments>();
  CLI::App* echo = log.add_subcommand("echo", "Print the trace records of every process");
  arguments->level_option =
      echo->add_option("--level", arguments->level,
                       "Only records of LEVEL and above: " + levelChoices(LevelScale::kRecord))
          ->type_name("LEVEL")
          ->check(levelValidator(LevelScale::kRecord));
  arguments->node_option =
      echo->add_option("--node", arguments->node, "Only records of the node named N")
          ->type_name("N");
  addOutputForms(*echo, arguments->form, "Each record's JSON form, one per line");
  echo->add_flag("--once", arguments->once,
                 "Exit after the latest record of every live node (3 s)");
  echo->add_option("--count", arguments->count, "Exit after N records")
      ->type_name("N")
      ->check(countOfOneOrMore());
  arguments->timeout_option =
      echo->add_option("--timeout", arguments->timeout, "Exit after S seconds")
          ->type_name("S")
          ->check(greaterThanZero());
  echo->add_flag("--no-color", arguments->no_color, "No colour, even on a terminal");
  echo->footer(
      "Shows the records that korcommon::mtrace publishes on /dova_log: first the latest\n"
      "record of every live node, then each record as it arrives, one line each, as the\n"
      "trace logger prints them on screen (date and clock from the record's stamp):\n"
      "  <YYYY-MM-DD HH:MM:SS.mmm> <L>/<node>(<pid>/<tid>): <file>(<line>) clk(<s>.<ns>) <msg>\n"
      "with L one of D, I, W, E, F. With --json, the record's own JSON form:\n"
      "  {\"header\":{...},\"level\":8,\"name\":...,\"msg\":...,\"file\":...,\"function\":...,\n"
      "   \"line\":...,\"topics\":[...],\"pid\":...,\"tid\":...}\n"
      "With --csv, a header row and the columns stamp, level, name, msg, file, function, line,\n"
      "topics (separated by spaces), pid and tid.\n"
      "Levels: debug 1, info 2, warn (or warning) 4, error 8, fatal 16, by name in any case or\n"
      "by number. Colour only on a terminal. When nothing at all arrives, one line on standard\n"
      "error says so.\n"
      "\n"
      "Exit status: 0 a record was printed, or Ctrl-C ended the command; 1 --once or\n"
      "--timeout ended it before any (matching) record; 2 bad usage or the middleware cannot\n"
      "start.\n"
      "\n"
      "Examples:\n"
      "  korcommon log echo --once\n"
      "  korcommon log echo --level warning --node battery\n"
      "  korcommon log echo --csv --timeout 60 > records.csv");
  echo->callback([arguments] {
    LogEcho echo_command(*arguments);
    const ExitStatus status = echo_command.run();
    if (status != kSuccess) exitWith(status);
  });
}

}  // namespace

void addLogCommand(CLI::App& app) {
  CLI::App* log =
      app.add_subcommand("log", "Print the trace records that processes publish on /dova_log");
  log->require_subcommand(1);
  log->footer(
      "Trace levels: debug 1, info 2, warn (or warning) 4, error 8, fatal 16, by name in any\n"
      "case or by number.\n"
      "\n"
      "Examples:\n"
      "  korcommon log echo --level warning\n"
      "  korcommon log echo --once --json");
  addEcho(*log);
}

}  // namespace korcommon::cli
