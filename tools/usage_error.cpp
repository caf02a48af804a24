#include "usage_error.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "command_tree.h"

namespace korcommon::cli {
namespace {

// `message` about `command`, prefixed with the command's words below the tool's own name.
std::string aboutCommand(const CLI::App& command, const std::string& message) {
  const std::string path = commandPath(command);
  const size_t first_space = path.find(' ');
  const std::string prefix =
      first_space == std::string::npos ? std::string() : path.substr(first_space + 1) + ": ";
  return prefix + message + " (see " + path + " --help)";
}

bool hasSubcommands(const CLI::App& command) { return !subcommandsOf(command).empty(); }

std::string subcommandNames(const CLI::App& command) {
  std::string names;
  for (const CLI::App* subcommand : subcommandsOf(command)) {
    if (!names.empty()) names += ", ";
    names += subcommand->get_name();
  }
  return names;
}

}  // namespace

std::string unknownWordError(const CLI::App& command, const std::string& word) {
  const bool option = word.size() > 1 && word[0] == '-';
  const char* kind = option                    ? "unknown option"
                     : hasSubcommands(command) ? "unknown command"
                                               : "unexpected argument";
  return aboutCommand(command, std::string(kind) + " \"" + word + "\"");
}

std::string usageError(const CLI::App& root, const CLI::Error& error) {
  // Down the commands given, the first word none of them took is what went wrong, whatever
  // the parser complained about first (often a missing argument or command).
  const CLI::App* command = &root;
  for (;;) {
    const std::vector<std::string> leftovers = command->remaining();
    if (!leftovers.empty()) return unknownWordError(*command, leftovers.front());
    const std::vector<CLI::App*> selected = command->get_subcommands();
    if (selected.empty()) break;
    command = selected.front();
  }
  if (command->get_require_subcommand_min() > 0 && hasSubcommands(*command)) {
    return aboutCommand(*command, "a command is required: " + subcommandNames(*command));
  }
  return aboutCommand(*command, error.what());
}

}  // namespace korcommon::cli
