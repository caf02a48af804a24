#ifndef KORCOMMON_TOOLS_DIAG_COMMAND_H_
#define KORCOMMON_TOOLS_DIAG_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "diag" and its subcommands "pub", "echo" and "monitor" on `app`.
void addDiagCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_DIAG_COMMAND_H_
