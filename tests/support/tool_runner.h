#ifndef KORCOMMON_TESTS_SUPPORT_TOOL_RUNNER_H_
#define KORCOMMON_TESTS_SUPPORT_TOOL_RUNNER_H_

#include <filesystem>
#include <string>
#include <vector>

namespace korcommon::testing {

struct ToolResult {
  int status = -1;  // the exit status, or -1 when the program did not exit normally
  std::string out;
  std::string err;
};

// Runs a program to completion with given standard input and captures its
// standard output and error. Output goes to files in a scratch directory, not
// pipes, so a test cannot deadlock however much the program writes.
class ToolRunner {
 public:
  explicit ToolRunner(std::string program);
  ~ToolRunner();
  ToolRunner(const ToolRunner&) = delete;
  ToolRunner& operator=(const ToolRunner&) = delete;

  ToolResult run(const std::vector<std::string>& arguments, const std::string& input = "") const;

  // Writes `content` to a file of the scratch directory and returns its path.
  std::filesystem::path writeInput(const std::string& name, const std::string& content) const;

  // The scratch directory, removed with the runner.
  const std::filesystem::path& directory() const { return directory_; }

 private:
  std::string program_;
  std::filesystem::path directory_;
};

// Checks that `result` printed exactly one line on standard error, starting "korcommon: ".
void expectOneErrorLine(const ToolResult& result);

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_TOOL_RUNNER_H_
