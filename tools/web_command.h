#ifndef KORCOMMON_TOOLS_WEB_COMMAND_H_
#define KORCOMMON_TOOLS_WEB_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "web", the operator's dashboard in a browser, on `app`.
void addWebCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_COMMAND_H_
