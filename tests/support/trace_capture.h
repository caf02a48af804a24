#ifndef KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_
#define KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_

#include <memory>
#include <string>
#include <vector>

#include "dova/trace.h"
#include "threads.h"

namespace korcommon::testing {

struct TraceReport {
  int level;
  std::string file;
  int line;
  std::string function;
  std::string text;
};

// Collects every dova::mtrace report while it lives, then puts the previous sink back.
// Reports may come from any thread. They go to an inbox the sink shares, so that a trace
// reaching the sink just after the capture is gone still lands in valid memory.
// Thread-safe.
class TraceCapture {
 public:
  TraceCapture() {
    previous_ =
        dova::setTraceSink([reports = reports_](int level, const char* file, int line,
                                                const char* function, const std::string& text) {
          reports->add({level, file == nullptr ? "" : file, line,
                        function == nullptr ? "" : function, text});
        });
  }
  ~TraceCapture() { dova::setTraceSink(previous_); }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<TraceReport> reports() const { return reports_->items(); }

  // Reports at `level` from `function` whose text contains `fragment`.
  size_t count(int level, const std::string& function, const std::string& fragment = "") const {
    size_t matching = 0;
    for (const TraceReport& report : reports()) {
      matching += report.level == level && report.function == function &&
                  report.text.find(fragment) != std::string::npos;
    }
    return matching;
  }

  void clear() { reports_->take(); }

 private:
  std::shared_ptr<Inbox<TraceReport>> reports_ = std::make_shared<Inbox<TraceReport>>();
  dova::TraceSink previous_;
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_
