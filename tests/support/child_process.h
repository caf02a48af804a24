#ifndef KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_
#define KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "inbox.h"
#include "scratch_directory.h"

namespace korcommon::testing {

// A program running in the background for a multi-process test, with the environment of
// this process. Standard input reads `input`; standard output and error go to files, not
// pipes, so the test reads them while the child runs and no amount of output can block
// it. The destructor kills and reaps a child still running. Not thread-safe.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const std::string& input = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  std::string output() const;  // standard output so far
  std::string errors() const;  // standard error so far

  // Waits until standard output contains `text`; false at the deadline or when the child
  // ended without printing it.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout = kDeadline) const;

  // Waits for the child to end: its exit status, or -1 when a signal ended it or it still
  // ran at the deadline (ended() tells which).
  int wait(std::chrono::milliseconds timeout = kDeadline);
  bool ended() const { return reaped_; }

  void signal(int number) const;

 private:
  ScratchDirectory directory_{"korcommon_child"};
  pid_t pid_ = -1;
  bool reaped_ = false;
  int wait_status_ = 0;
};

struct ToolResult {
  int status = -1;  // the exit status, or -1 when the program did not exit by itself
  std::string out;
  std::string err;
};

// Runs a program to its end. One still running after `timeout` is killed, and the test
// fails saying so.
ToolResult runTool(const std::string& program, const std::vector<std::string>& arguments,
                   const std::string& input = "", std::chrono::milliseconds timeout = kDeadline);

// One command line and what it must answer. `out` and `err` are exact texts, except that
// one starting with '~' is a regular expression (ECMAScript) the whole text must match.
struct CliRow {
  std::vector<std::string> args;
  int status;
  std::string out;
  std::string err = "";
  std::string input = "";  // standard input
};

// Runs each row's command in turn and checks its answer; a failure names the command.
void expectRows(const std::string& program, const std::vector<CliRow>& rows);

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_
