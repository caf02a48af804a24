#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "read_file.h"

extern char** environ;

namespace korcommon::testing {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& changes) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const char* equals = std::strchr(*entry, '=');
    if (equals != nullptr)
      merged[std::string(*entry, static_cast<size_t>(equals - *entry))] = equals + 1;
  }
  for (const auto& change : changes) {
    if (change.second.empty()) {
      merged.erase(change.first);
    } else {
      merged[change.first] = change.second;
    }
  }
  std::vector<std::string> entries;
  for (const auto& variable : merged) entries.push_back(variable.first + "=" + variable.second);
  return entries;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment,
                           const fs::path& input) {
  if (directory_.path().empty()) return;
  const fs::path out = directory_.path() / "stdout";
  const fs::path err = directory_.path() / "stderr";

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

  std::vector<std::string> words = {program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> variables = mergedEnvironment(environment);
  std::vector<char*> envp;
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);

  if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) {
    pid_ = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::string ChildProcess::output() const { return readFile(directory_.path() / "stdout"); }

std::string ChildProcess::errors() const { return readFile(directory_.path() / "stderr"); }

bool ChildProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (output().find(text) != std::string::npos) return true;
    if (pid_ <= 0 || reaped_ || Clock::now() >= deadline) return false;
    if (waitpid(pid_, nullptr, WNOHANG | WNOWAIT) == pid_) {
      // Ended: one last look at what it printed.
      return output().find(text) != std::string::npos;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return std::nullopt;
  const auto deadline = Clock::now() + timeout;
  while (!reaped_) {
    const pid_t done = waitpid(pid_, &wait_status_, WNOHANG);
    if (done == pid_) {
      reaped_ = true;
      break;
    }
    if (Clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (WIFEXITED(wait_status_)) return WEXITSTATUS(wait_status_);
  return std::nullopt;
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0 && !reaped_) kill(pid_, number);
}

}  // namespace korcommon::testing
