#ifndef KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_
#define KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_

#include <memory>
#include <mutex>
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
// back. Reports may come from any thread: the sink appends under a lock, and
// the collected reports live in state shared with the sink, so a trace that
// reaches the sink just after the capture is gone still lands in valid memory.
//
// reports() is the unguarded view for single-threaded tests; snapshot() and
// count() are safe while other threads trace.
class TraceCapture {
 public:
  TraceCapture() : state_(std::make_shared<State>()) {
    previous_ = dova::setTraceSink([state = state_](int level, const char* file, int line,
                                                    const char* function, const std::string& text) {
      std::lock_guard<std::mutex> lock(state->mutex);
      state->reports.push_back(
          {level, file == nullptr ? "" : file, line, function == nullptr ? "" : function, text});
    });
  }
  ~TraceCapture() { dova::setTraceSink(previous_); }

  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // REQUIRES: no other thread traces while the result is in use.
  const std::vector<TraceReport>& reports() const { return state_->reports; }

  std::vector<TraceReport> snapshot() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->reports;
  }

  // Reports at `level` from `function` whose text contains `fragment`.
  size_t count(int level, const std::string& function, const std::string& fragment = "") const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    size_t matching = 0;
    for (const TraceReport& report : state_->reports) {
      if (report.level == level && report.function == function &&
          report.text.find(fragment) != std::string::npos) {
        ++matching;
      }
    }
    return matching;
  }

  void clear() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->reports.clear();
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<TraceReport> reports;
  };

  std::shared_ptr<State> state_;
  dova::TraceSink previous_;
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_TRACE_CAPTURE_H_
