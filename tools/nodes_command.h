#ifndef KORCOMMON_TOOLS_NODES_COMMAND_H_
#define KORCOMMON_TOOLS_NODES_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "nodes" on `app`.
void addNodesCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_NODES_COMMAND_H_
