#ifndef KORCOMMON_TOOLS_DOCTOR_COMMAND_H_
#define KORCOMMON_TOOLS_DOCTOR_COMMAND_H_

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Registers "doctor" on `app`.
void addDoctorCommand(CLI::App& app);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_DOCTOR_COMMAND_H_
