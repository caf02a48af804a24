#include <CLI/CLI.hpp>
#include <memory>
#include <mutex>
#include <string>

#include "diag_report.h"
#include "diag_subcommands.h"
#include "korcommon/Diagnostics.h"
#include "levels.h"
#include "option_checks.h"
#include "session.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

using dova::diagnostic_msgs::DiagnosticValue;

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
  const int level = parseLevel(LevelScale::kReport, arguments.level).value_or(DiagnosticValue::OK);
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
                diagLevelName(level) + " [" + std::to_string(arguments.code) + "] " +
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

}  // namespace

void addDiagPub(CLI::App& diag) {
  auto arguments = std::make_shared<PubArguments>();
  CLI::App* pub = diag.add_subcommand("pub", "Publish a diagnostic report, once or repeatedly");
  pub->add_option("NAME", arguments->name, "Name of the reporting component or check")->required();
  pub->add_option("LEVEL", arguments->level, levelChoices(LevelScale::kReport))
      ->required()
      ->check(levelValidator(LevelScale::kReport));
  pub->add_option("CODE", arguments->code, "Numeric code of the report")
      ->required()
      ->check(wholeNumber());
  pub->add_option("MESSAGE", arguments->message, "Human-readable text")->required();
  pub->add_option("--frame", arguments->frame, "Frame id of the report's header")->type_name("F");
  arguments->rate_option = pub->add_option("--rate", arguments->rate, "Publish HZ times a second")
                               ->type_name("HZ")
                               ->check(greaterThanZero());
  arguments->count_option =
      pub->add_option("--count", arguments->count, "Publish N reports (at --rate, default 1 Hz)")
          ->type_name("N")
          ->check(countOfOneOrMore());
  pub->add_option("--linger", arguments->linger,
                  "Stay on the middleware S seconds after the last report")
      ->capture_default_str()
      ->type_name("S")
      ->check(zeroOrMore());
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
      "Levels: ok 0, warn (or warning) 1, error 2, by name in any case or by number.\n"
      "\n"
      "Exit status: 0 published; 2 bad usage or the middleware cannot start.\n"
      "\n"
      "Examples:\n"
      "  korcommon diag pub battery/charge warn 201 \"20 % left, return to dock\"\n"
      "  korcommon diag pub imu/orientation ok 0 calibrated --rate 4\n"
      "  korcommon diag pub self/test error 7 \"probe failed\" --count 3 --rate 2 -v");
  pub->callback([arguments] { runPub(*arguments); });
}

}  // namespace korcommon::cli
