#include "dova/trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace dova {
namespace {

const char* levelName(int level) {
  switch (level) {
    case DEBUG:
      return "DEBUG";
    case INFO:
      return "INFO";
    case WARN:
      return "WARN";
    case ERROR:
      return "ERROR";
    case FATAL:
      return "FATAL";
    default:
      return "TRACE";
  }
}

const char* baseName(const char* file) {
  if (file == nullptr) return "";
  const char* slash = std::strrchr(file, '/');
  return slash == nullptr ? file : slash + 1;
}

void writeToStandardError(int level, const char* file, int line, const char* function,
                          const std::string& text) {
  std::string entry = "[";
  entry += levelName(level);
  entry += "] ";
  entry += function == nullptr ? "" : function;
  entry += " (";
  entry += baseName(file);
  entry += ':';
  entry += std::to_string(line);
  entry += "): ";
  entry += text;
  entry += '\n';
  // One write per line, so lines of concurrent threads do not interleave.
  std::fwrite(entry.data(), 1, entry.size(), stderr);
}

struct SinkState {
  std::mutex mutex;
  std::shared_ptr<const TraceSink> custom;  // null: the default sink
};

SinkState& sinkState() {
  static auto* state = new SinkState;  // never freed: traces may come from exit handlers
  return *state;
}

std::string formatText(const char* format, va_list arguments) {
  char stack_buffer[512];
  va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(stack_buffer, sizeof stack_buffer, format, measured);
  va_end(measured);
  if (length < 0) return std::string();
  if (static_cast<size_t>(length) < sizeof stack_buffer) {
    return std::string(stack_buffer, static_cast<size_t>(length));
  }
  std::vector<char> heap_buffer(static_cast<size_t>(length) + 1);
  std::vsnprintf(heap_buffer.data(), heap_buffer.size(), format, arguments);
  return std::string(heap_buffer.data(), static_cast<size_t>(length));
}

}  // namespace

TraceSink setTraceSink(TraceSink sink) {
  SinkState& state = sinkState();
  std::shared_ptr<const TraceSink> replacement;
  if (sink) replacement = std::make_shared<const TraceSink>(std::move(sink));
  std::shared_ptr<const TraceSink> previous;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    previous = std::move(state.custom);
    state.custom = std::move(replacement);
  }
  return previous ? *previous : TraceSink();
}

void mtrace(int level, const char* file, int line, const char* function, bool flag,
            const char* format, ...) {
  std::shared_ptr<const TraceSink> custom;
  {
    SinkState& state = sinkState();
    std::lock_guard<std::mutex> lock(state.mutex);
    custom = state.custom;
  }
  if (!custom && !flag && level < WARN) return;  // the default sink would drop it anyway

  va_list arguments;
  va_start(arguments, format);
  const std::string text = format == nullptr ? std::string() : formatText(format, arguments);
  va_end(arguments);

  if (custom) {
    (*custom)(level, file, line, function, text);
  } else {
    writeToStandardError(level, file, line, function, text);
  }
}

}  // namespace dova
