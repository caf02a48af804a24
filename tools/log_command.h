#ifndef KORCOMMON_TOOLS_LOG_COMMAND_H_
#define KORCOMMON_TOOLS_LOG_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "log" and its subcommand "echo" on `app`.
void addLogCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_LOG_COMMAND_H_
