#ifndef KORCOMMON_TOOLS_WEB_TIMELINE_H_
#define KORCOMMON_TOOLS_WEB_TIMELINE_H_

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace korcommon::cli {

// One reporter's level over the last ten minutes, one slot per second of the wall clock.
// A slot holds the worst level reported in its second; a second without a report keeps the
// level of the report before it while that report is younger than the stale time, and is
// empty afterwards. Levels are slot marks: '0' OK, '1' WARN, '2' ERROR, '3' any other level
// (carried unchanged by the message, so shown apart), '.' nothing known; a later mark in that
// order is worse.
//
// Fixed size whatever the report rate. Not thread-safe: its owner serialises the calls.
class Timeline {
 public:
  static constexpr int64_t kSeconds = 600;
  static constexpr char kEmpty = '.';

  // The mark of a diagnostic level.
  static char mark(int32_t level) {
    return level >= 0 && level <= 2 ? static_cast<char>('0' + level) : '3';
  }

  explicit Timeline(int64_t stale_seconds) : stale_seconds_(stale_seconds) { slots_.fill(kEmpty); }

  // A report of `level` in wall-clock second `second`. Seconds earlier than the latest one
  // recorded (a clock stepped back) count as the latest.
  void record(int64_t second, int32_t level) {
    const char level_mark = mark(level);
    if (!started_) {
      started_ = true;
      latest_ = second - 1;
    }
    if (second > latest_) {
      // Fill the silent seconds up to this one; past ten minutes they would all be overwritten.
      for (int64_t silent = std::max(latest_ + 1, second - kSeconds + 1); silent < second;
           ++silent) {
        slot(silent) = carried(silent);
      }
      latest_ = second;
      slot(second) = level_mark;
    } else if (level_mark > slot(latest_)) {
      slot(latest_) = level_mark;
    }
    last_mark_ = level_mark;
    last_report_ = latest_;
  }

  // The marks of the `count` seconds that end with `now`, oldest first.
  std::string marks(int64_t now, int64_t count = kSeconds) const {
    std::string text;
    text.reserve(static_cast<size_t>(count));
    for (int64_t second = now - count + 1; second <= now; ++second) text += markAt(second);
    return text;
  }

  // marks(now) as runs of equal marks, oldest first: (mark, seconds).
  std::vector<std::pair<char, int64_t>> runs(int64_t now) const {
    std::vector<std::pair<char, int64_t>> result;
    for (const char second_mark : marks(now)) {
      if (result.empty() || result.back().first != second_mark) result.emplace_back(second_mark, 0);
      ++result.back().second;
    }
    return result;
  }

 private:
  char markAt(int64_t second) const {
    if (!started_ || second <= latest_ - kSeconds) return kEmpty;
    return second <= latest_ ? slots_[index(second)] : carried(second);
  }

  // What a second without a report of its own shows.
  char carried(int64_t second) const {
    return second - last_report_ < stale_seconds_ ? last_mark_ : kEmpty;
  }

  static size_t index(int64_t second) {
    return static_cast<size_t>(((second % kSeconds) + kSeconds) % kSeconds);
  }
  char& slot(int64_t second) { return slots_[index(second)]; }

  const int64_t stale_seconds_;
  std::array<char, kSeconds> slots_{};
  bool started_ = false;     // whether any report was recorded
  int64_t latest_ = 0;       // the latest second with a slot written
  int64_t last_report_ = 0;  // the second of the latest report
  char last_mark_ = kEmpty;  // the level of the latest report
};

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_TIMELINE_H_
