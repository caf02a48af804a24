#ifndef DOVA_TIME_H_
#define DOVA_TIME_H_

#include <cstdint>

namespace dova {

// A signed span of time: whole seconds and nanoseconds, as the difference of
// two Time values gives it. Plain value; safe to use from any thread.
struct Duration {
  int32_t sec = 0;
  int32_t nsec = 0;

  Duration() = default;
  Duration(int32_t seconds, int32_t nanoseconds) : sec(seconds), nsec(nanoseconds) {}
  explicit Duration(double seconds);

  double toSec() const { return static_cast<double>(sec) + static_cast<double>(nsec) * 1e-9; }

  // Sleeps on the wall clock for this duration; a negative duration returns at once.
  void wallSleep() const;
};

// A point in time: seconds since the epoch and nanoseconds within the second.
// Plain value; the clock functions are safe to call from any thread.
struct Time {
  uint32_t sec = 0;
  uint32_t nsec = 0;

  Time() = default;
  Time(uint32_t seconds, uint32_t nanoseconds) : sec(seconds), nsec(nanoseconds) {}

  // The middleware clock. The reference platform has no simulated time, so
  // this is the wall clock.
  static Time now();
  // A clock that never jumps, for measuring intervals.
  static Time monotonic();
  // The real-time clock of the machine.
  static Time WallTime();

  double toSec() const { return static_cast<double>(sec) + static_cast<double>(nsec) * 1e-9; }

  // The span from `other` to this time, normalised to 0 <= nsec < 1e9
  // (a negative span has a negative sec).
  Duration operator-(const Time& other) const;

  bool operator==(const Time& other) const { return sec == other.sec && nsec == other.nsec; }
  bool operator!=(const Time& other) const { return !(*this == other); }
};

}  // namespace dova

#endif  // DOVA_TIME_H_
