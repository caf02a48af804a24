#include "command_tree.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace korcommon::cli {

std::string commandPath(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  return parent == nullptr ? command.get_name() : commandPath(*parent) + ' ' + command.get_name();
}

std::vector<const CLI::App*> subcommandsOf(const CLI::App& command) {
  return command.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* findSubcommand(const CLI::App& command, const std::string& name) {
  for (const CLI::App* subcommand : subcommandsOf(command)) {
    if (subcommand->get_name() == name) return subcommand;
  }
  return nullptr;
}

std::vector<const CLI::Option*> visibleOptions(const CLI::App& command) {
  // CLI11 hides the options of the empty group.
  return command.get_options(
      [](const CLI::Option* option) { return !option->get_group().empty(); });
}

bool takesValue(const CLI::Option& option) { return option.get_expected_max() != 0; }

std::vector<std::string> optionChoices(const CLI::Option& option) {
  // A set check (CLI::IsMember) appends its members to the type name: "TEXT:{a,b,c}".
  const std::string type = option.get_type_name();
  const size_t open = type.find(":{");
  if (open == std::string::npos || type.back() != '}') return {};
  std::vector<std::string> choices;
  size_t start = open + 2;
  for (;;) {
    const size_t comma = type.find(',', start);
    const size_t end = comma == std::string::npos ? type.size() - 1 : comma;
    choices.push_back(type.substr(start, end - start));
    if (comma == std::string::npos) return choices;
    start = comma + 1;
  }
}

}  // namespace korcommon::cli
