#ifndef KORCOMMON_TOOLS_HELP_COMMAND_H_
#define KORCOMMON_TOOLS_HELP_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "help [COMMAND...]" on `app`: prints the same text as "COMMAND... --help".
// Register it last, once every other command is on `app`.
void addHelpCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_HELP_COMMAND_H_
