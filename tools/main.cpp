#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>

#include "bash_completion.h"
#include "diag_command.h"
#include "doctor_command.h"
#include "exit_status.h"
#include "help_command.h"
#include "imptdata_command.h"
#include "log_command.h"
#include "man_page.h"
#include "nodes_command.h"
#include "sig_command.h"
#include "usage_error.h"
#include "web_command.h"

namespace {

int run(int argc, char** argv) {
  CLI::App app("Tools for the korcommon services of a legged robot.", "korcommon");
  app.set_version_flag("--version", std::string("korcommon ") + KORCOMMON_VERSION,
                       "Print the version and exit");
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 done; 1 a negative answer (e.g. an invalid envelope); 2 bad usage or\n"
      "input that cannot be read. Errors are one line on standard error.\n"
      "\n"
      "Examples:\n"
      "  korcommon sig make walk on > envelope.json\n"
      "  korcommon sig inspect envelope.json\n"
      "  korcommon diag echo --once\n"
      "  korcommon help diag pub");
  app.failure_message([](const CLI::App* root, const CLI::Error& error) {
    return "korcommon: " + korcommon::cli::usageError(*root, error) + '\n';
  });
  korcommon::cli::addSigCommand(app);
  korcommon::cli::addImptdataCommand(app);
  korcommon::cli::addDiagCommand(app);
  korcommon::cli::addLogCommand(app);
  korcommon::cli::addNodesCommand(app);
  korcommon::cli::addDoctorCommand(app);
  korcommon::cli::addWebCommand(app);
  korcommon::cli::addHelpCommand(app);
  // Hidden: the build writes the bash completion and the man page from the commands above.
  app.add_flag_callback("--generate-bash-completion",
                        [&app] {
                          korcommon::cli::writeBashCompletion(app, std::cout);
                          throw CLI::Success();
                        })
      ->group("");
  app.add_flag_callback("--generate-man-page",
                        [&app] {
                          korcommon::cli::writeManPage(app, KORCOMMON_VERSION, std::cout);
                          throw CLI::Success();
                        })
      ->group("");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    // Commands end through CLI::RuntimeError with their own status; every other parse error
    // is bad usage, which shares status 2 with unreadable input.
    if (status == korcommon::cli::kSuccess || error.get_name() == "RuntimeError") return status;
    return korcommon::cli::kTrouble;
  }
  return korcommon::cli::kSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "korcommon: " << error.what() << '\n';
  }
  return korcommon::cli::kTrouble;
}
