#include "help_command.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command_tree.h"
#include "exit_status.h"
#include "usage_error.h"

namespace korcommon::cli {
namespace {

void runHelp(const CLI::App& root, const std::vector<std::string>& words) {
  const CLI::App* command = &root;
  for (const std::string& word : words) {
    const CLI::App* subcommand = findSubcommand(*command, word);
    if (subcommand == nullptr) failWith(kTrouble, unknownWordError(*command, word));
    command = subcommand;
  }
  // The formatter directly: App::help() would describe the command selected on this command
  // line, which is "help" itself.
  std::cout << command->get_formatter()->make_help(command, commandPath(*command),
                                                   CLI::AppFormatMode::Normal);
}

}  // namespace

void addHelpCommand(CLI::App& app) {
  auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* help = app.add_subcommand("help", "Print the help of a command");
  help->add_option("COMMAND", *words, "The command and its subcommands, e.g. sig make");
  help->footer(
      "Same as COMMAND --help; without COMMAND, the tool's own help.\n"
      "\n"
      "Examples:\n"
      "  korcommon help sig make\n"
      "  korcommon help imptdata");
  help->callback([&app, words] { runHelp(app, *words); });
}

}  // namespace korcommon::cli
