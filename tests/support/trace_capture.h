#ifndef KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_
#define KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_

#include <string>
#include <vector>

#include "dova/trace.h"

namespace korcommon::testing {

struct TraceReport {
  int level;
  std::string file;
  int line;
  std::string function;
  std::string text;
};

// Collects every dova::mtrace report while it lives, then puts the previous sink
// back. For single-threaded tests: the reports are not guarded by a lock.
class TraceCapture {
 public:
  TraceCapture()
      : previous_(dova::setTraceSink([this](int level, const char* file, int line,
                                            const char* function, const std::string& text) {
          reports_.push_back({level, file, line, function, text});
        })) {}
  ~TraceCapture() { dova::setTraceSink(previous_); }

  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  const std::vector<TraceReport>& reports() const { return reports_; }
  void clear() { reports_.clear(); }

 private:
  std::vector<TraceReport> reports_;
  dova::TraceSink previous_;
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_
