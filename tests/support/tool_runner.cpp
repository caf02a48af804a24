#include "tool_runner.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <optional>

#include "child_process.h"

namespace korcommon::testing {
namespace fs = std::filesystem;

ToolRunner::ToolRunner(std::string program) : program_(std::move(program)) {
  EXPECT_FALSE(directory().empty()) << "cannot make a scratch directory";
}

fs::path ToolRunner::writeInput(const std::string& name, const std::string& content) const {
  const fs::path path = directory() / name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

ToolResult ToolRunner::run(const std::vector<std::string>& arguments, const std::string& input,
                           std::chrono::milliseconds timeout) const {
  ToolResult result;
  ChildProcess tool(program_, arguments, {}, writeInput("stdin", input));
  EXPECT_TRUE(tool.started()) << "cannot start " << program_;
  if (!tool.started()) return result;
  const std::optional<int> status = tool.wait(timeout);
  if (!tool.ended()) {
    result.timed_out = true;
    tool.signal(SIGKILL);
    // Nothing outlives SIGKILL for long; should it, the destructor still reaps it.
    tool.wait(std::chrono::seconds(10));
    std::string command = program_;
    for (const std::string& argument : arguments) command += " " + argument;
    ADD_FAILURE() << "timed out: " << command << " still ran after " << timeout.count()
                  << " ms and was killed";
  }
  result.status = status.value_or(-1);
  result.out = tool.output();
  result.err = tool.errors();
  return result;
}

void expectOneErrorLine(const ToolResult& result) {
  ASSERT_FALSE(result.err.empty());
  EXPECT_EQ(result.err.rfind("korcommon: ", 0), 0u) << result.err;
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
}

}  // namespace korcommon::testing
