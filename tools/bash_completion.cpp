#include "bash_completion.h"

#include <CLI/CLI.hpp>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "command_tree.h"

namespace korcommon::cli {
namespace {

// `text` as one single-quoted shell word.
std::string shellWord(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// The completion's tables, one bash associative array each, keyed by command path.
struct Tables {
  std::ostringstream subcommands;         // path -> its subcommands
  std::ostringstream options;             // path -> its option names
  std::ostringstream values;              // "path option" -> the option's choices, "" for any
  std::ostringstream positional_choices;  // path -> the choices of its first positional

  static void add(std::ostringstream& table, const std::string& key, const std::string& value) {
    table << "    [" << shellWord(key) << "]=" << shellWord(value) << '\n';
  }
};

void addCommand(const CLI::App& command, Tables& tables) {
  const std::string path = commandPath(command);
  std::vector<std::string> subcommand_names;
  for (const CLI::App* subcommand : subcommandsOf(command)) {
    subcommand_names.push_back(subcommand->get_name());
  }
  std::vector<std::string> option_names;
  bool first_positional = true;
  for (const CLI::Option* option : visibleOptions(command)) {
    if (option->nonpositional()) {
      std::vector<std::string> names;
      for (const std::string& name : option->get_snames()) names.push_back("-" + name);
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
      if (takesValue(*option)) {
        const std::string choices = joined(optionChoices(*option));
        for (const std::string& name : names) {
          std::string key = path + ' ';
          key += name;
          Tables::add(tables.values, key, choices);
        }
      }
      option_names.insert(option_names.end(), names.begin(), names.end());
    } else if (first_positional) {
      first_positional = false;
      const std::vector<std::string> choices = optionChoices(*option);
      if (!choices.empty()) Tables::add(tables.positional_choices, path, joined(choices));
    }
  }
  Tables::add(tables.subcommands, path, joined(subcommand_names));
  Tables::add(tables.options, path, joined(option_names));
  for (const CLI::App* subcommand : subcommandsOf(command)) addCommand(*subcommand, tables);
}

}  // namespace

void writeBashCompletion(const CLI::App& root, std::ostream& out) {
  Tables tables;
  addCommand(root, tables);
  const std::string& name = root.get_name();
  out << "# bash completion for " << name << ", made from its command tree.\n"
      << "_" << name << "() {\n"
      << "  local -A subcommands=(\n"
      << tables.subcommands.str() << "  )\n"
      << "  local -A options=(\n"
      << tables.options.str() << "  )\n"
      << "  local -A values=(\n"
      << tables.values.str() << "  )\n"
      << "  local -A positional_choices=(\n"
      << tables.positional_choices.str() << "  )\n"
      << "  local command=" << shellWord(name) << " help_path=0 positionals=0 word i\n"
      << R"(  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  # Walk the words before the cursor: commands deepen the path, an option's value is skipped.
  for ((i = 1; i < COMP_CWORD; i = i + 1)); do
    word=${COMP_WORDS[i]}
    if [[ -v values["$command $word"] ]]; then
      i=$((i + 1))
    elif [[ $word != -* && " ${subcommands[$command]} " == *" $word "* ]]; then
      command+=" $word"
      positionals=0
    elif [[ $word != -* ]]; then
      positionals=$((positionals + 1))
    fi
    # "help" takes a command path: complete it as commands.
    if [[ $command == )"
      << shellWord(name + " help") << R"( ]]; then
      command=)"
      << shellWord(name) << R"(
      help_path=1
    fi
  done
  local candidates=""
  if ((COMP_CWORD > 1)) && [[ -v values["$command $previous"] ]]; then
    candidates=${values["$command $previous"]}
  elif [[ $current == -* ]]; then
    candidates=${options[$command]}
  else
    candidates=${subcommands[$command]}
    if ((help_path == 0 && positionals == 0)); then
      candidates+=" ${positional_choices[$command]}"
    fi
  fi
  # Nothing offered: bash falls back to file names (-o default).
  mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
}
)"
      << "complete -o default -F _" << name << ' ' << name << '\n';
}

}  // namespace korcommon::cli
