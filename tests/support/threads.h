#ifndef KORCOMMON_TESTS_SUPPORT_THREADS_H_
#define KORCOMMON_TESTS_SUPPORT_THREADS_H_

#include <sys/prctl.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace korcommon::testing {

// Far longer than anything a passing test waits for, even on a loaded machine: it only
// turns a hang into a failure well before the whole run's limit.
constexpr std::chrono::seconds kDeadline{30};

// What other threads hand over to a test, in the order it came, with waits that give up at
// a deadline. Callbacks that may run after the test returned (detached threads) hold the
// inbox through a shared pointer. Thread-safe.
template <typename T>
class Inbox {
 public:
  void add(T item) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }

  // True once `done(items)` holds, false at the deadline.
  template <typename Done>
  bool waitUntil(Done done, std::chrono::milliseconds timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(items_); });
  }
  bool waitFor(size_t count, std::chrono::milliseconds timeout = kDeadline) {
    return waitUntil([count](const std::vector<T>& items) { return items.size() >= count; },
                     timeout);
  }

  std::vector<T> items() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_;
  }
  size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_.size();
  }
  // The items so far, which leave the inbox.
  std::vector<T> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(items_, {});
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> items_;
};

// Polls `ready` until it holds (true) or the deadline passes (false), for a condition that
// nothing signals, such as the threads of this process.
template <typename Ready>
bool pollUntil(Ready ready, std::chrono::milliseconds timeout = kDeadline) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// The name the operating system knows the calling thread by.
inline std::string currentThreadName() {
  char name[17] = {};
  prctl(PR_GET_NAME, name, 0, 0, 0);
  return name;
}

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_THREADS_H_
