#ifndef KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_
#define KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "scratch_directory.h"
#include "threads.h"

namespace korcommon::testing {

// A program running in the background for a multi-process test, with the environment of
// this process. Standard input reads `input`; standard output and error go to files, not
// pipes, so the test reads them while the child runs and no amount of output can block
// it. The destructor kills and reaps a child still running. Not thread-safe.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const std::string& input = "");
  ~ChildProcess();  // not copied: the scratch directory is not

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

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_CHILD_PROCESS_H_
