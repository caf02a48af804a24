#ifndef KORCOMMON_TOOLS_IMPTDATA_COMMAND_H_
#define KORCOMMON_TOOLS_IMPTDATA_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "imptdata" and its subcommands "show", "get" and "set" on `app`.
void addImptdataCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_IMPTDATA_COMMAND_H_
