#ifndef KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_
#define KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "scratch_directory.h"

namespace korcommon::testing {

// A program running in the background for a multi-process test. Its standard
// output and error go to files that the test can read while it runs. The
// destructor kills and reaps a child that is still running, so a failing
// test never leaves processes behind.
class ChildProcess {
 public:
  // Starts `program` with `arguments`; `environment` entries are added to (or
  // replace) this process's environment, and an empty value removes one. Standard
  // input reads from `input`.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const std::map<std::string, std::string>& environment = {},
               const std::filesystem::path& input = "/dev/null");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  std::string output() const;  // standard output so far
  std::string errors() const;  // standard error so far

  // Waits until standard output contains `text`; false at the deadline or
  // when the child ended without printing it.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout) const;

  // Waits for the child to end; its exit status, or nullopt at the deadline
  // or when a signal ended it (ended() tells which).
  std::optional<int> wait(std::chrono::milliseconds timeout);

  // True once wait() has seen the child end.
  bool ended() const { return reaped_; }

  void signal(int number) const;

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int wait_status_ = 0;
  ScratchDirectory directory_{"korcommon_child"};
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_
