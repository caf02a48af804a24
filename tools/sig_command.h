#ifndef KORCOMMON_TOOLS_SIG_COMMAND_H_
#define KORCOMMON_TOOLS_SIG_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "sig" and its subcommands "make" and "inspect" on `app`.
void addSigCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_SIG_COMMAND_H_
