#ifndef KORCOMMON_TOOLS_DIAG_SUBCOMMANDS_H_
#define KORCOMMON_TOOLS_DIAG_SUBCOMMANDS_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Register "pub", "echo" and "monitor" on the "diag" command.
void addDiagPub(CLI::App& diag);
void addDiagEcho(CLI::App& diag);
void addDiagMonitor(CLI::App& diag);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_DIAG_SUBCOMMANDS_H_
