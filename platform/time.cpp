#include "dova/time.h"

#include <cerrno>
#include <cmath>
#include <ctime>

namespace dova {
namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

Time readClock(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return Time(static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec));
}

int64_t toNanoseconds(const Time& time) {
  return static_cast<int64_t>(time.sec) * kNanosecondsPerSecond + time.nsec;
}

}  // namespace

Duration::Duration(double seconds) {
  const double whole = std::floor(seconds);
  sec = static_cast<int32_t>(whole);
  nsec = static_cast<int32_t>(std::llround((seconds - whole) * 1e9));
  if (nsec >= kNanosecondsPerSecond) {
    ++sec;
    nsec -= static_cast<int32_t>(kNanosecondsPerSecond);
  }
}

void Duration::wallSleep() const {
  const int64_t total = static_cast<int64_t>(sec) * kNanosecondsPerSecond + nsec;
  if (total <= 0) return;
  timespec remaining{static_cast<time_t>(total / kNanosecondsPerSecond),
                     static_cast<long>(total % kNanosecondsPerSecond)};
  // A signal handler interrupting the sleep must not shorten it.
  while (clock_nanosleep(CLOCK_REALTIME, 0, &remaining, &remaining) == EINTR) {
  }
}

Time Time::now() { return WallTime(); }

Time Time::monotonic() { return readClock(CLOCK_MONOTONIC); }

Time Time::WallTime() { return readClock(CLOCK_REALTIME); }

Duration Time::operator-(const Time& other) const {
  const int64_t difference = toNanoseconds(*this) - toNanoseconds(other);
  int64_t seconds = difference / kNanosecondsPerSecond;
  int64_t nanoseconds = difference % kNanosecondsPerSecond;
  if (nanoseconds < 0) {
    --seconds;
    nanoseconds += kNanosecondsPerSecond;
  }
  return Duration(static_cast<int32_t>(seconds), static_cast<int32_t>(nanoseconds));
}

}  // namespace dova
