#include "diag_command.h"

#include <CLI/CLI.hpp>

#include "diag_subcommands.h"

namespace korcommon::cli {

void addDiagCommand(CLI::App& app) {
  CLI::App* diag = app.add_subcommand(
      "diag", "Publish, print and watch the diagnostic reports on /diagnostics_value");
  diag->require_subcommand(1);
  diag->footer(
      "Report levels: ok 0, warn (or warning) 1, error 2, by name in any case or by number.\n"
      "\n"
      "Examples:\n"
      "  korcommon diag pub battery/charge warn 201 \"20 % left, return to dock\"\n"
      "  korcommon diag echo --once\n"
      "  korcommon diag monitor --level warn");
  addDiagPub(*diag);
  addDiagEcho(*diag);
  addDiagMonitor(*diag);
}

}  // namespace korcommon::cli
