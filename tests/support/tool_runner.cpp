#include "tool_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

extern char** environ;

namespace korcommon::testing {
namespace fs = std::filesystem;

namespace {

std::string readFile(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

}  // namespace

ToolRunner::ToolRunner(std::string program) : program_(std::move(program)) {
  std::string pattern = (fs::temp_directory_path() / "korcommon_tool.XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) directory_ = pattern;
  EXPECT_FALSE(directory_.empty()) << "cannot make a scratch directory";
}

ToolRunner::~ToolRunner() {
  std::error_code ignored;
  if (!directory_.empty()) fs::remove_all(directory_, ignored);
}

fs::path ToolRunner::writeInput(const std::string& name, const std::string& content) const {
  const fs::path path = directory_ / name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

ToolResult ToolRunner::run(const std::vector<std::string>& arguments,
                           const std::string& input) const {
  const std::string in = writeInput("stdin", input).string();
  const std::string out = (directory_ / "stdout").string();
  const std::string err = (directory_ / "stderr").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

  std::vector<std::string> words = {program_};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  ToolResult result;
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, program_.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(spawned, 0) << "cannot start " << program_;
  if (spawned != 0) return result;
  int wait_status = 0;
  EXPECT_EQ(waitpid(pid, &wait_status, 0), pid);
  if (WIFEXITED(wait_status)) result.status = WEXITSTATUS(wait_status);
  result.out = readFile(out);
  result.err = readFile(err);
  return result;
}

void expectOneErrorLine(const ToolResult& result) {
  ASSERT_FALSE(result.err.empty());
  EXPECT_EQ(result.err.rfind("korcommon: ", 0), 0u) << result.err;
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
}

}  // namespace korcommon::testing
