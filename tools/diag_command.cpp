#include "diag_command.h"

#include <CLI/CLI.hpp>

#include "diag_subcommands.h"

namespace korcommon::cli {

void addDiagCommand(CLI::App& app) {
  CLI::App* diag = app.add_subcommand(
      "diag", "Publish, print and watch the diagnostic reports on /diagnostics_value");
  diag->require_subcommand(1);
  addDiagPub(*diag);
  addDiagEcho(*diag);
  addDiagMonitor(*diag);
}

}  // namespace korcommon::cli
