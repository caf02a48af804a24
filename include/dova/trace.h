#ifndef DOVA_TRACE_H_
#define DOVA_TRACE_H_

#include <functional>
#include <string>

namespace dova {

// Trace levels, the same values as dova_msgs/Log's constants.
enum TraceLevel : int { DEBUG = 1, INFO = 2, WARN = 4, ERROR = 8, FATAL = 16 };

// Receives every message of dova::mtrace, already formatted. `file` is the
// caller's __FILE__ and `function` the name it passed.
using TraceSink = std::function<void(int level, const char* file, int line, const char* function,
                                     const std::string& text)>;

// Installs `sink` for all threads and returns the previous one. An empty sink
// restores the default, which writes one line to standard error for WARN and
// above. Thread-safe; a call of mtrace running concurrently may still reach
// the previous sink.
TraceSink setTraceSink(TraceSink sink);

// The middleware's trace function: formats `format` printf-style and hands
// the text to the sink. With `flag` true the default sink prints every level,
// not only WARN and above. Thread-safe.
void mtrace(int level, const char* file, int line, const char* function, bool flag,
            const char* format, ...) __attribute__((format(printf, 6, 7)));

}  // namespace dova

#endif  // DOVA_TRACE_H_
