#ifndef KORCOMMON_TOOLS_TRACE_CAPTURE_H_
#define KORCOMMON_TOOLS_TRACE_CAPTURE_H_

#include <string>

#include "dova/trace.h"

namespace korcommon::cli {

// While it lives, keeps the first middleware trace at `lowest_level` or above instead of
// letting the default sink print it, so that a command can turn a failure the library
// reports into one clear error line. The previous sink comes back with the destructor.
class TraceCapture {
 public:
  explicit TraceCapture(int lowest_level = 0)
      : previous_(dova::setTraceSink([this, lowest_level](int level, const char*, int, const char*,
                                                          const std::string& text) {
          if (level >= lowest_level && first_.empty()) first_ = text;
        })) {}
  ~TraceCapture() { dova::setTraceSink(previous_); }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // The first trace kept, or empty.
  const std::string& first() const { return first_; }

 private:
  std::string first_;
  dova::TraceSink previous_;
};

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_TRACE_CAPTURE_H_
