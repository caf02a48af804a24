#include "log_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"
#include "exit_status.h"
#include "korcommon/screen_line.h"
#include "session.h"
#include "subscription.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

using dova::dova_msgs::Log;
using RecordPtr = std::shared_ptr<const Log>;

using dova::msgs::kLogTopic;

std::optional<int> parseLogLevel(const std::string& text) {
  std::string lower;
  for (const char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "debug") return Log::DEBUG;
  if (lower == "info") return Log::INFO;
  if (lower == "warn") return Log::WARN;
  if (lower == "error") return Log::ERROR;
  if (lower == "fatal") return Log::FATAL;
  return std::nullopt;
}

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
  fields.level = record.level;
  fields.node = node;
  fields.pid = static_cast<int64_t>(record.pid);
  fields.tid = static_cast<int32_t>(record.tid);
  fields.file = file;
  fields.line = record.line;
  fields.clock = record.header.stamp;
  fields.text = text;
  return korcommon::detail::screenLine(fields, colour);
}

struct EchoArguments {
  std::string level;
  std::string node;
  bool json = false;
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
      : json_(arguments.json),
        count_(arguments.count),
        colour_(!arguments.json && colourWanted(arguments.no_color)) {
    if (arguments.level_option->count() > 0) min_level_ = parseLogLevel(arguments.level);
    if (arguments.node_option->count() > 0) node_ = arguments.node;
    if (arguments.timeout_option->count() > 0) timeout_ = toDuration(arguments.timeout);
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
    const Clock::time_point end = timeout_ ? start + *timeout_ : Clock::time_point::max();
    const WaitEnd waited = session.waitUntil(lock, end, [this] { return countReached(); });
    closed_ = true;  // late deliveries print nothing while the session shuts down
    if (waited == WaitEnd::kInterrupted) return kSuccess;
    return shown_ > 0 ? kSuccess : kNo;
  }

 private:
  // On a delivery thread of the middleware.
  void deliver(const RecordPtr& record) {
    std::lock_guard<std::mutex> lock(session_->mutex());
    if (closed_ || countReached()) return;
    if (min_level_ && record->level < *min_level_) return;
    if (node_ && nodeOf(*record) != *node_) return;
    writeLine(json_ ? record->echo() : recordLine(*record, colour_));
    ++shown_;
    session_->notify();
  }

  bool countReached() const { return count_ > 0 && shown_ >= count_; }

  const bool json_;
  const int count_;
  const bool colour_;
  std::optional<int> min_level_;
  std::optional<std::string> node_;
  std::optional<Clock::duration> timeout_;

  // Outlives run()'s session, which shuts down first, so no delivery can reach it freed.
  std::unique_ptr<dova::Subscriber<Log>> subscriber_;
  Session* session_ = nullptr;

  // Guarded by the session's mutex.
  bool closed_ = false;
  int shown_ = 0;
};

void addEcho(CLI::App& log) {
  auto arguments = std::make_shared<EchoArguments>();
  CLI::App* echo = log.add_subcommand("echo", "Print the trace records of every process");
  arguments->level_option =
      echo->add_option("--level", arguments->level, "Only records of L and above")
          ->type_name("L")
          ->check(CLI::Validator(
              [](std::string& text) {
                return parseLogLevel(text)
                           ? std::string()
                           : "must be debug, info, warn, error or fatal, not \"" + text + "\"";
              },
              ""));
  arguments->node_option =
      echo->add_option("--node", arguments->node, "Only records of the node named N")
          ->type_name("N");
  echo->add_flag("--json", arguments->json, "Each record's JSON form, one per line");
  echo->add_option("--count", arguments->count, "Exit after N records")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  arguments->timeout_option =
      echo->add_option("--timeout", arguments->timeout, "Exit after S seconds")
          ->type_name("S")
          ->check(CLI::PositiveNumber);
  echo->add_flag("--no-color", arguments->no_color, "No colour, even on a terminal");
  echo->footer(
      "Shows the records that korcommon::mtrace publishes on /dova_log: first the latest\n"
      "record of every live node, then each record as it arrives, one line each, as the\n"
      "trace logger prints them on screen (date and clock from the record's stamp):\n"
      "  <YYYY-MM-DD HH:MM:SS.mmm> <L>/<node>(<pid>/<tid>): <file>(<line>) clk(<s>.<ns>) <msg>\n"
      "with L one of D, I, W, E, F. With --json, the record's own JSON form:\n"
      "  {\"header\":{...},\"level\":8,\"name\":...,\"msg\":...,\"file\":...,\"function\":...,\n"
      "   \"line\":...,\"topics\":[...],\"pid\":...,\"tid\":...}\n"
      "Levels: debug 1, info 2, warn 4, error 8, fatal 16. Colour only on a terminal.\n"
      "\n"
      "Exit status: 0 a record was printed, or Ctrl-C ended the command; 1 --timeout ended\n"
      "it before any (matching) record; 2 bad usage or the middleware cannot start.");
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
  addEcho(*log);
}

}  // namespace korcommon::cli
