#include "korcommon/trace_format.h"

#include <langinfo.h>

#include <algorithm>
#include <cfenv>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <type_traits>

#include "dova/json/detail/decimal.h"

namespace korcommon::detail {
namespace {

// Widths and precisions above this go to vsnprintf, which keeps every count
// here far from int overflow.
constexpr int kLargestCount = 1 << 20;
// Float precisions above this go to vsnprintf, which bounds the text below.
constexpr int kLargestFloatPrecision = 40;
// The longest finite double at that precision, in fixed notation (the
// longest of the three).
constexpr size_t kFloatTextSize = dova::json::detail::fixedRoom(kLargestFloatPrecision);
// The longest integer: a sign and 19 decimal digits, or 22 octal ones.
constexpr size_t kIntegerTextSize = 24;

// The caller's buffer, filled as vsnprintf fills it: text past size - 1
// bytes is dropped, and the terminator goes after what was kept.
class BoundedOutput {
 public:
  // REQUIRES: size >= 1.
  BoundedOutput(char* buffer, size_t size) : next_(buffer), last_(buffer + size - 1) {}

  void append(const char* text, size_t length) {
    length = std::min(length, room());
    std::memcpy(next_, text, length);
    next_ += length;
  }

  void fill(char c, size_t count) {
    count = std::min(count, room());
    std::memset(next_, c, count);
    next_ += count;
  }

  void terminate() { *next_ = '\0'; }

 private:
  size_t room() const { return static_cast<size_t>(last_ - next_); }

  char* next_;
  char* const last_;  // the terminator's place when the text fills the buffer
};

enum class Length { kDefault, kChar, kShort, kLong, kLongLong, kSize, kMax, kPtrdiff };

// One parsed conversion; width and precision already read when given as '*'.
struct Conversion {
  bool left_aligned = false;
  bool zero_padded = false;
  int width = 0;
  int precision = -1;  // none given
  Length length = Length::kDefault;
  char type = '\0';
};

// Reads a width or precision written as digits; false above kLargestCount.
bool parseCount(const char*& cursor, int& count) {
  while (*cursor >= '0' && *cursor <= '9') {
    count = count * 10 + (*cursor - '0');
    if (count > kLargestCount) return false;
    ++cursor;
  }
  return true;
}

// Reads the conversion after a '%' up to and including its letter, taking a
// '*' width or precision from `arguments`. False for flags other than '-' and
// '0' and for positional arguments (they show as an unknown letter).
bool parseConversion(const char*& cursor, va_list* arguments, Conversion& conversion) {
  for (;; ++cursor) {
    if (*cursor == '-') {
      conversion.left_aligned = true;
    } else if (*cursor == '0') {
      conversion.zero_padded = true;
    } else {
      break;
    }
  }
  if (*cursor == '*') {
    ++cursor;
    const int width = va_arg(*arguments, int);
    if (width < -kLargestCount || width > kLargestCount) return false;
    // A negative width is the '-' flag and its magnitude.
    if (width < 0) conversion.left_aligned = true;
    conversion.width = width < 0 ? -width : width;
  } else if (!parseCount(cursor, conversion.width)) {
    return false;
  }
  if (*cursor == '.') {
    ++cursor;
    if (*cursor == '*') {
      ++cursor;
      const int precision = va_arg(*arguments, int);
      if (precision > kLargestCount) return false;
      // A negative precision counts as none given.
      conversion.precision = precision < 0 ? -1 : precision;
    } else {
      conversion.precision = 0;
      if (!parseCount(cursor, conversion.precision)) return false;
    }
  }
  switch (*cursor) {
    case 'h':
      ++cursor;
      conversion.length = *cursor == 'h' ? Length::kChar : Length::kShort;
      if (*cursor == 'h') ++cursor;
      break;
    case 'l':
      ++cursor;
      conversion.length = *cursor == 'l' ? Length::kLongLong : Length::kLong;
      if (*cursor == 'l') ++cursor;
      break;
    case 'z':
      ++cursor;
      conversion.length = Length::kSize;
      break;
    case 'j':
      ++cursor;
      conversion.length = Length::kMax;
      break;
    case 't':
      ++cursor;
      conversion.length = Length::kPtrdiff;
      break;
    default:
      break;
  }
  conversion.type = *cursor;
  if (*cursor != '\0') ++cursor;
  return true;
}

// The argument of a signed conversion, narrowed as printf narrows it.
long long signedArgument(Length length, va_list* arguments) {
  // Each length reads its own type; on LP64 several of them are the same type.
  // NOLINTBEGIN(bugprone-branch-clone)
  switch (length) {
    case Length::kChar:
      return static_cast<signed char>(va_arg(*arguments, int));
    case Length::kShort:
      return static_cast<short>(va_arg(*arguments, int));
    case Length::kLong:
      return va_arg(*arguments, long);
    case Length::kLongLong:
      return va_arg(*arguments, long long);
    case Length::kSize:
      return va_arg(*arguments, std::make_signed_t<size_t>);
    case Length::kMax:
      return va_arg(*arguments, intmax_t);
    case Length::kPtrdiff:
      return va_arg(*arguments, ptrdiff_t);
    case Length::kDefault:
      break;
  }
  // NOLINTEND(bugprone-branch-clone)
  return va_arg(*arguments, int);
}

// The argument of an unsigned conversion, narrowed as printf narrows it.
unsigned long long unsignedArgument(Length length, va_list* arguments) {
  // Each length reads its own type; on LP64 several of them are the same type.
  // NOLINTBEGIN(bugprone-branch-clone)
  switch (length) {
    case Length::kChar:
      return static_cast<unsigned char>(va_arg(*arguments, unsigned));
    case Length::kShort:
      return static_cast<unsigned short>(va_arg(*arguments, unsigned));
    case Length::kLong:
      return va_arg(*arguments, unsigned long);
    case Length::kLongLong:
      return va_arg(*arguments, unsigned long long);
    case Length::kSize:
      return va_arg(*arguments, size_t);
    case Length::kMax:
      return va_arg(*arguments, uintmax_t);
    case Length::kPtrdiff:
      return va_arg(*arguments, std::make_unsigned_t<ptrdiff_t>);
    case Length::kDefault:
      break;
  }
  // NOLINTEND(bugprone-branch-clone)
  return va_arg(*arguments, unsigned);
}

// `text` padded to the conversion's width. Numbers take the '0' flag's zeros
// between their sign and their digits; glibc pads characters and strings
// with spaces whatever the flag says. Always inlined: as a call it cost a
// fifth of a whole short message.
[[gnu::always_inline]] inline void appendPadded(BoundedOutput& output, const Conversion& conversion,
                                                const char* text, size_t length, bool numeric) {
  const auto width = static_cast<size_t>(conversion.width);
  if (width <= length) {
    output.append(text, length);
    return;
  }
  const size_t padding = width - length;
  if (conversion.left_aligned) {
    output.append(text, length);
    output.fill(' ', padding);
    return;
  }
  if (numeric && conversion.zero_padded) {
    if (length > 0 && text[0] == '-') {
      output.append(text, 1);
      ++text;
      --length;
    }
    output.fill('0', padding);
  } else {
    output.fill(' ', padding);
  }
  output.append(text, length);
}

// vsnprintf writes the current locale's decimal point and rounds in the
// current rounding mode; the conversions here know "." and round to nearest.
// (Thousands grouping takes the ' flag, which goes to vsnprintf anyway.)
bool floatsPrintAsInTheCLocale() {
  const char* point = nl_langinfo(RADIXCHAR);
  return point[0] == '.' && point[1] == '\0' && std::fegetround() == FE_TONEAREST;
}

// A finite double through %f %F %e %E %g %G; false when vsnprintf must do it.
bool appendFloat(BoundedOutput& output, const Conversion& conversion, double value) {
  if (!std::isfinite(value) || conversion.precision > kLargestFloatPrecision ||
      !floatsPrintAsInTheCLocale()) {
    return false;
  }
  const int precision = conversion.precision < 0 ? 6 : conversion.precision;
  char text[kFloatTextSize];
  char* end = nullptr;
  if (conversion.type == 'f' || conversion.type == 'F') {
    end = dova::json::detail::formatFixed(value, precision, text);
  } else {
    const std::chars_format notation = conversion.type == 'e' || conversion.type == 'E'
                                           ? std::chars_format::scientific
                                           : std::chars_format::general;
    const std::to_chars_result result =
        std::to_chars(text, text + sizeof text, value, notation, precision);
    if (result.ec != std::errc()) return false;
    end = result.ptr;
  }
  // A finite value's only letter is its exponent's.
  if (conversion.type == 'E' || conversion.type == 'G') std::replace(text, end, 'e', 'E');
  appendPadded(output, conversion, text, static_cast<size_t>(end - text), true);
  return true;
}

// One unsigned conversion in `base`, %X's digits in upper case.
void appendUnsigned(BoundedOutput& output, const Conversion& conversion, int base,
                    unsigned long long value) {
  char text[kIntegerTextSize];
  char* const end = std::to_chars(text, text + sizeof text, value, base).ptr;
  if (conversion.type == 'X') {
    std::transform(text, end, text,
                   [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
  }
  appendPadded(output, conversion, text, static_cast<size_t>(end - text), true);
}

// The conversion's text for its argument; false when vsnprintf must do it.
bool appendConversion(BoundedOutput& output, const Conversion& conversion, va_list* arguments) {
  const bool plain_length = conversion.length == Length::kDefault;
  switch (conversion.type) {
    case 'd':
    case 'i': {
      // An integer's precision (a minimum digit count) is left to vsnprintf.
      if (conversion.precision >= 0) return false;
      char text[kIntegerTextSize];
      char* const end =
          std::to_chars(text, text + sizeof text, signedArgument(conversion.length, arguments)).ptr;
      appendPadded(output, conversion, text, static_cast<size_t>(end - text), true);
      return true;
    }
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      if (conversion.precision >= 0) return false;
      const int base = conversion.type == 'u' ? 10 : conversion.type == 'o' ? 8 : 16;
      appendUnsigned(output, conversion, base, unsignedArgument(conversion.length, arguments));
      return true;
    }
    case 'c': {
      if (!plain_length || conversion.precision >= 0) return false;
      const char c = static_cast<char>(static_cast<unsigned char>(va_arg(*arguments, int)));
      appendPadded(output, conversion, &c, 1, false);
      return true;
    }
    case 's': {
      if (!plain_length) return false;
      const char* text = va_arg(*arguments, const char*);
      // glibc prints a null string as "(null)" or nothing, by precision.
      if (text == nullptr) return false;
      const size_t length = conversion.precision < 0
                                ? std::strlen(text)
                                : strnlen(text, static_cast<size_t>(conversion.precision));
      appendPadded(output, conversion, text, length, false);
      return true;
    }
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
      // 'l' means nothing to a double; "ll" would make it a long double.
      if (!plain_length && conversion.length != Length::kLong) return false;
      return appendFloat(output, conversion, va_arg(*arguments, double));
    default:
      return false;
  }
}

// The whole message through the conversions above; false at the first form
// they leave to vsnprintf.
bool formatCommon(BoundedOutput& output, const char* format, va_list* arguments) {
  for (;;) {
    const char* const percent = strchrnul(format, '%');
    output.append(format, static_cast<size_t>(percent - format));
    if (*percent == '\0') return true;
    format = percent + 1;
    if (*format == '%') {
      output.append(format, 1);
      ++format;
      continue;
    }
    Conversion conversion;
    if (!parseConversion(format, arguments, conversion) ||
        !appendConversion(output, conversion, arguments)) {
      return false;
    }
  }
}

}  // namespace

void formatTrace(char* buffer, size_t size, const char* format, va_list arguments) {
  // The fast path reads a copy, so that vsnprintf can start over from the
  // first argument when it meets a form it leaves to vsnprintf.
  va_list pending;
  va_copy(pending, arguments);
  BoundedOutput output(buffer, size);
  const bool formatted = formatCommon(output, format, &pending);
  va_end(pending);
  if (formatted) {
    output.terminate();
  } else {
    std::vsnprintf(buffer, size, format, arguments);
  }
}

}  // namespace korcommon::detail
