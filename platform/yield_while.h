#ifndef DOVA_PLATFORM_YIELD_WHILE_H_
#define DOVA_PLATFORM_YIELD_WHILE_H_

#include <chrono>
#include <thread>

namespace dova::platform {

// Keeps the calling thread runnable while `wanted()` holds, yielding the
// processor to any thread that wants it between looks. This buys latency with
// processor time: on a virtual machine a thread woken on an idle processor
// starts later than a whole delivery takes. Returns true once `wanted()` is
// false, and false as soon as a yield came back late: then other threads want
// the processors, and watching on would only take time from them (a yield on
// a busy machine can last a whole time slice).
template <typename Wanted>
bool yieldWhile(Wanted wanted) {
  constexpr auto kLateYield = std::chrono::microseconds(50);
  for (auto before = std::chrono::steady_clock::now(); wanted();) {
    std::this_thread::yield();
    const auto after = std::chrono::steady_clock::now();
    if (after - before > kLateYield) return false;
    before = after;
  }
  return true;
}

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_YIELD_WHILE_H_
