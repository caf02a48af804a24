#include "child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "read_file.h"

extern char** environ;

namespace korcommon::testing {

using Clock = std::chrono::steady_clock;

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::string& input) {
  const std::filesystem::path& directory = directory_.path();
  EXPECT_FALSE(directory.empty()) << "cannot make a scratch directory";
  writeFile(directory / "stdin", input);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, (directory / "stdin").c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, (directory / "stdout").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, (directory / "stderr").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<std::string> words = {program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_GT(pid_, 0) << "cannot start " << program;
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
    // WNOWAIT leaves the ended child to wait(); waitpid() would refuse the flag.
    siginfo_t ended{};
    if (waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        ended.si_pid == pid_) {
      return output().find(text) != std::string::npos;  // ended: one last look
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (pid_ > 0 && !reaped_) {
    reaped_ = waitpid(pid_, &wait_status_, WNOHANG) == pid_;
    if (!reaped_ && Clock::now() >= deadline) return -1;
    if (!reaped_) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return reaped_ && WIFEXITED(wait_status_) ? WEXITSTATUS(wait_status_) : -1;
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0 && !reaped_) kill(pid_, number);
}

}  // namespace korcommon::testing
