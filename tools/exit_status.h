#ifndef KORCOMMON_TOOLS_EXIT_STATUS_H_
#define KORCOMMON_TOOLS_EXIT_STATUS_H_

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "terminal.h"

namespace korcommon::cli {

// Exit statuses shared by every command, so scripts can rely on them.
enum ExitStatus : int {
  kSuccess = 0,
  kNo = 1,       // the command ran and the answer is no (e.g. an invalid envelope)
  kTrouble = 2,  // bad usage, or input that cannot be read or parsed
};

// Ends the running command with `status`; main() turns this into the exit status.
[[noreturn]] inline void exitWith(ExitStatus status) { throw CLI::RuntimeError(status); }

// Prints "korcommon: <message>" on standard error and ends with `status`. Line breaks in the
// message (which can quote received input) are shown as \n and \r, so the error stays one line.
[[noreturn]] inline void failWith(ExitStatus status, const std::string& message) {
  std::cerr << "korcommon: " << oneLine(message) << '\n';
  exitWith(status);
}

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_EXIT_STATUS_H_
