#ifndef KORCOMMON_TESTS_SUPPORT_TOOL_RUNNER_H_
#define KORCOMMON_TESTS_SUPPORT_TOOL_RUNNER_H_

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "scratch_directory.h"

namespace korcommon::testing {

struct ToolResult {
  int status = -1;         // the exit status, or -1 when the program did not exit normally
  bool timed_out = false;  // killed for running past its time
  std::string out;
  std::string err;
};

// Far longer than any command the tests run should take, even on a loaded machine; it
// only turns a hung program into a failure well before the whole test run's limit.
constexpr std::chrono::seconds kToolTimeout{30};

// Runs a program to completion with given standard input and captures its
// standard output and error. Output goes to files, not pipes, so a test cannot
// deadlock however much the program writes. A program still running at the
// timeout is killed, and the test fails saying so.
class ToolRunner {
 public:
  explicit ToolRunner(std::string program);
  ToolRunner(const ToolRunner&) = delete;
  ToolRunner& operator=(const ToolRunner&) = delete;

  ToolResult run(const std::vector<std::string>& arguments, const std::string& input = "",
                 std::chrono::milliseconds timeout = kToolTimeout) const;

  // Writes `content` to a file of the scratch directory and returns its path.
  std::filesystem::path writeInput(const std::string& name, const std::string& content) const;

  // The scratch directory, removed with the runner.
  const std::filesystem::path& directory() const { return directory_.path(); }

 private:
  std::string program_;
  ScratchDirectory directory_{"korcommon_tool"};
};

// Checks that `result` printed exactly one line on standard error, starting "korcommon: ".
void expectOneErrorLine(const ToolResult& result);

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_TOOL_RUNNER_H_
