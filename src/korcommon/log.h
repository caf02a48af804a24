#ifndef KORCOMMON_LOG_H_
#define KORCOMMON_LOG_H_

#include <atomic>
#include <cstdint>
#include <mutex>

#include "dova/trace.h"

namespace korcommon {

// The configured level, 1 (DEBUG and up) to 5 (FATAL only); any other value
// switches logging off. Negative: not read from the environment yet.
extern std::atomic<int32_t> ROBOT_LOG_LEVEL;
// Size in bytes of the formatting buffer, terminator included. Negative: not
// read from the environment yet.
extern std::atomic<int32_t> ROBOT_LOG_SIZE;
// Guards the writes of the two settings.
extern std::mutex mutex_;

// Logs one printf-style message at `level` (DEBUG 1, INFO 2, WARN 4, ERROR 8,
// FATAL 16) from `function` at `file`:`line`. A message that passes the
// configured level is published as a dova_msgs/Log record when the middleware
// is up, and printed as a coloured line on standard output when
// "DOVA_LOG_SCREEN" is 1. The first call reads "DOVA_LOG_LEVEL" (default 2)
// and "DOVA_LOG_SIZE" (default 256). A call below the level costs two integer
// reads. Thread-safe; screen lines of concurrent calls may interleave.
// REQUIRES: `function` and `format` are not null (`file` may be).
void mtrace(int level, const char* file, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// Sets the configured level, unchecked. A negative level sends the next
// mtrace back to the environment and the default.
void set_log_level(int level);

// Sets the buffer size; sizes below 1 are ignored.
void set_log_size(int size);

namespace detail {

// The settings when the environment does not give them.
inline constexpr int32_t kDefaultLogLevel = 2;
inline constexpr int32_t kDefaultLogSize = 256;

// Whether the configured level lets a message of `level` through: 1 shows
// DEBUG (1) and up, 2 INFO (2), 3 WARN (4), 4 ERROR (8), 5 FATAL (16) only;
// any other configured level shows nothing.
constexpr bool passesLevel(int32_t configured, int level) {
  switch (configured) {
    case 1:
      return true;
    case 2:
      return level >= dova::INFO;
    case 3:
      return level >= dova::WARN;
    case 4:
      return level >= dova::ERROR;
    case 5:
      return level >= dova::FATAL;
    default:
      return false;
  }
}

// True when a call at `level` is dropped for sure: both settings are read
// already and the level does not pass. Two plain integer reads.
inline bool droppedByLevel(int level) {
  const int32_t configured = ROBOT_LOG_LEVEL.load(std::memory_order_relaxed);
  if (configured < 0 || ROBOT_LOG_SIZE.load(std::memory_order_relaxed) < 0) return false;
  return !passesLevel(configured, level);
}

// mtrace itself, for the call-site filter below to hand a passing call to.
void mtraceOutOfLine(int level, const char* file, int line, const char* function,
                     const char* format, ...) __attribute__((format(printf, 5, 6)));

}  // namespace detail

#if defined(__GNUC__) && !defined(__clang__)
// With GCC the filter runs at the call site, so a call below the level costs
// two integer reads and no call. This definition is only ever inlined (as
// glibc does for its fortified printf); the exported mtrace stays the one
// that function pointers and other compilers reach.
extern inline __attribute__((gnu_inline, always_inline, artificial, format(printf, 5, 6))) void
mtrace(int level, const char* file, int line, const char* function, const char* format, ...) {
  if (detail::droppedByLevel(level)) return;
  detail::mtraceOutOfLine(level, file, line, function, format, __builtin_va_arg_pack());
}
#endif

}  // namespace korcommon

#endif  // KORCOMMON_LOG_H_
