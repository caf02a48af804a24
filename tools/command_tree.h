#ifndef KORCOMMON_TOOLS_COMMAND_TREE_H_
#define KORCOMMON_TOOLS_COMMAND_TREE_H_

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace korcommon::cli {

// Read-only views of the tool's command tree, for the help, the error lines, the bash
// completion and the man page, which all describe the commands as they are registered.

// The words that run `command`, e.g. "korcommon sig make".
std::string commandPath(const CLI::App& command);

// Every subcommand registered on `command`, in the order of registration.
std::vector<const CLI::App*> subcommandsOf(const CLI::App& command);

// The subcommand of `command` named `name`, or null.
const CLI::App* findSubcommand(const CLI::App& command, const std::string& name);

// The options and positionals of `command` that its help shows (not the hidden ones).
std::vector<const CLI::Option*> visibleOptions(const CLI::App& command);

// Whether `option` is followed by a value (not a flag).
bool takesValue(const CLI::Option& option);

// The values `option` accepts when it takes only a fixed set (e.g. {sn,joint-offset}); empty
// when it takes any value of its type.
std::vector<std::string> optionChoices(const CLI::Option& option);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_COMMAND_TREE_H_
