#ifndef KORCOMMON_LOG_H_
#define KORCOMMON_LOG_H_

#include <atomic>
#include <cstdint>
#include <mutex>

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

}  // namespace korcommon

#endif  // KORCOMMON_LOG_H_
