#ifndef KORCOMMON_TRACE_TEXT_H_
#define KORCOMMON_TRACE_TEXT_H_

#include <string>

#include "dova/trace.h"

namespace korcommon::detail {

// `text` as a printf format that prints exactly `text`: every '%' doubled.
// Reports pass an exception's text as the trace format itself, and a reader's
// message can quote received input, which must never act as a conversion.
inline std::string asLiteralFormat(const std::string& text) {
  std::string format;
  format.reserve(text.size());
  for (const char c : text) {
    if (c == '%') format += '%';
    format += c;
  }
  return format;
}

// Traces `text` through dova::mtrace with the text itself as the format, so
// the trace shows exactly `text` whatever '%' it holds.
inline void traceLiteral(int level, const char* file, int line, const char* function,
                         const std::string& text) {
  const std::string format = asLiteralFormat(text);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  dova::mtrace(level, file, line, function, false, format.c_str());
#pragma GCC diagnostic pop
}

}  // namespace korcommon::detail

#endif  // KORCOMMON_TRACE_TEXT_H_
