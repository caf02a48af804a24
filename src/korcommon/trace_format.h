#ifndef KORCOMMON_TRACE_FORMAT_H_
#define KORCOMMON_TRACE_FORMAT_H_

#include <cstdarg>
#include <cstddef>

namespace korcommon::detail {

// Formats a trace message into `buffer` exactly as std::vsnprintf(buffer,
// size, format, arguments) does: the same bytes, cut to size - 1 of them the
// same way, then the terminating NUL. The conversions a trace message uses
// (integers, characters, strings and finite doubles, with the flags '-' and
// '0', a width and a precision) are rendered here at a fraction of glibc's
// cost; any other form sends the whole message to vsnprintf itself.
// `arguments` is used as vsnprintf uses it: afterwards it is indeterminate.
// Thread-safe.
// REQUIRES: size >= 1; `format` and `arguments` are valid for vsnprintf.
void formatTrace(char* buffer, size_t size, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

}  // namespace korcommon::detail

#endif  // KORCOMMON_TRACE_FORMAT_H_
