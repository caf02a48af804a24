#ifndef KORCOMMON_TOOLS_SESSION_H_
#define KORCOMMON_TOOLS_SESSION_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace korcommon::cli {

using Clock = std::chrono::steady_clock;

// `seconds` as a duration of the commands' clock: 0 for a negative number (or NaN), and at
// most some 31 years, which no run reaches and a deadline from now cannot overflow.
inline Clock::duration toDuration(double seconds) {
  constexpr double kLongest = 1e9;
  if (!(seconds > 0.0)) return Clock::duration::zero();
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(seconds < kLongest ? seconds : kLongest));
}

// What ended a wait.
enum class WaitEnd { kDone, kInterrupted, kDeadline };

// The transport the live commands use: $DOVA_TRANSPORT when set, else "dds", because an
// operator's tool exists to talk to the robot's other processes.
std::string cliTransport();

// Where the live commands listen, for messages: "on domain <DOVA_DOMAIN_ID or 0>", or "on
// the local transport (this process only)".
std::string cliWhere();

// Tells on standard error why a command heard nothing, in one line:
//   korcommon: no <what> in <seconds> s on domain 7; try `korcommon doctor`
void sayNothingHeard(const std::string& what, double seconds);

// The node name of a live command run: `requested`, or "korcommon_cli_<pid>" when empty.
std::string cliNodeName(const std::string& requested);

// One run of a live command on the middleware. The constructor first routes SIGINT and
// SIGTERM to an "interrupted" event (so Ctrl-C ends a command cleanly, through the normal
// shutdown), then joins the middleware as `node_name` on cliTransport(); the destructor
// leaves it with dova::shutdown(). A second SIGINT or SIGTERM ends the process at once, in
// case the shutdown itself hangs.
//
// Delivery threads and the command's main thread share state under mutex(): change it,
// then notify(); the main thread sleeps in waitUntil(). One Session per process at a time.
class Session {
 public:
  explicit Session(const std::string& node_name);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Whether the middleware started; error() says why not.
  bool joined() const { return joined_; }
  const std::string& error() const { return error_; }

  // Ends the command with status 2 when the middleware did not start.
  void requireJoined() const;

  std::mutex& mutex();
  void notify();

  // With `lock` holding mutex(): sleeps until `done()` holds (checked at every notify()),
  // SIGINT or SIGTERM arrives, or `deadline` passes. Clock::time_point::max() waits forever.
  template <typename Predicate>
  WaitEnd waitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline, Predicate done);

  // Whether SIGINT or SIGTERM arrived. REQUIRES: mutex() held.
  bool interrupted() const;

 private:
  std::condition_variable& changed();

  bool joined_ = false;
  std::string error_;
};

template <typename Predicate>
WaitEnd Session::waitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline,
                           Predicate done) {
  const auto finished = [&] { return interrupted() || done(); };
  if (deadline == Clock::time_point::max()) {
    changed().wait(lock, finished);
  } else if (!changed().wait_until(lock, deadline, finished)) {
    return WaitEnd::kDeadline;
  }
  return interrupted() ? WaitEnd::kInterrupted : WaitEnd::kDone;
}

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_SESSION_H_
