#ifndef KORCOMMON_TOOLS_BASH_COMPLETION_H_
#define KORCOMMON_TOOLS_BASH_COMPLETION_H_

#include <ostream>

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Writes a bash completion script for the command tree of `root`: commands, options, the
// fixed values of options and first positionals, and file names where any value goes.
// The build runs it, so the script always matches the commands as registered.
void writeBashCompletion(const CLI::App& root, std::ostream& out);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_BASH_COMPLETION_H_
