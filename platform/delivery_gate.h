#ifndef DOVA_PLATFORM_DELIVERY_GATE_H_
#define DOVA_PLATFORM_DELIVERY_GATE_H_

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "dova/trace.h"

namespace dova::platform {

// Counts the threads inside a delivery, from the check of a publication to
// the return of the subscriber, so that close() can wait for them and no
// delivery starts after it. Lock-free while open. Thread-safe.
class DeliveryGate {
 public:
  // Admits one delivery unless the gate is closed; each admission needs a leave().
  bool enter() {
    // Sequentially consistent, paired with close(): either close() sees this
    // delivery counted, or this delivery sees the gate closed.
    active_.fetch_add(1);
    if (closed_.load()) {
      release();
      return false;
    }
    admissionsOfThisThread().push_back(this);
    return true;
  }

  void leave() {
    admissionsOfThisThread().pop_back();
    release();
  }

  bool closed() const { return closed_.load(); }

  // Whether the calling thread is inside one of this gate's deliveries.
  bool admitsThisThread() const {
    const std::vector<const DeliveryGate*>& mine = admissionsOfThisThread();
    return std::find(mine.begin(), mine.end(), this) != mine.end();
  }

  // Refuses every later delivery and waits until the admitted ones are done,
  // except those of the calling thread: a subscriber that stops the
  // middleware from inside its own delivery must not wait for itself.
  void close() {
    closed_.store(true);
    const std::vector<const DeliveryGate*>& mine = admissionsOfThisThread();
    const auto own = static_cast<int>(std::count(mine.begin(), mine.end(), this));
    const auto done = [this, own] { return active_.load() <= own; };
    std::unique_lock<std::mutex> lock(mutex_);
    if (idle_.wait_for(lock, std::chrono::seconds(3), done)) return;
    mtrace(WARN, __FILE__, __LINE__, "stop", false,
           "still waiting for %d deliveries in progress to return", active_.load() - own);
    idle_.wait(lock, done);
  }

 private:
  // Gates this thread is inside, innermost last (a mode-0 subscriber that
  // publishes nests deliveries).
  static std::vector<const DeliveryGate*>& admissionsOfThisThread() {
    thread_local std::vector<const DeliveryGate*> admissions;
    return admissions;
  }

  void release() {
    active_.fetch_sub(1);
    if (closed_.load()) {
      // Under the lock, so the wake-up cannot fall between close()'s check and its wait.
      std::lock_guard<std::mutex> lock(mutex_);
      idle_.notify_all();
    }
  }

  std::atomic<int> active_{0};
  std::atomic<bool> closed_{false};
  std::mutex mutex_;
  std::condition_variable idle_;
};

// One admitted delivery, for the extent of a scope.
class DeliveryPass {
 public:
  explicit DeliveryPass(DeliveryGate& gate) : gate_(gate), admitted_(gate.enter()) {}
  ~DeliveryPass() {
    if (admitted_) gate_.leave();
  }
  DeliveryPass(const DeliveryPass&) = delete;
  DeliveryPass& operator=(const DeliveryPass&) = delete;

  bool admitted() const { return admitted_; }

 private:
  DeliveryGate& gate_;
  const bool admitted_;
};

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_DELIVERY_GATE_H_
