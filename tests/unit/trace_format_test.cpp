// formatTrace against std::vsnprintf itself: every case formats the same
// format and arguments with both into buffers of several sizes and compares
// the bytes, so any difference from glibc, in the text or in where it is cut,
// fails here.
#include "korcommon/trace_format.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>
#include <cfenv>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "scoped_env.h"

namespace korcommon::detail {
namespace {

// The buffer sizes a format is checked at.
enum class Sizes {
  // 1 up to one past the text's length, then 256: a cut at every byte.
  kEvery,
  // 1, 2, the middle of the text, one byte short, the exact fit and 256.
  kSample,
};

constexpr size_t kGuardBytes = 16;
constexpr char kUntouched = '\x5a';

std::string printable(const std::vector<char>& bytes, size_t count) {
  std::ostringstream text;
  for (size_t i = 0; i < count; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if (byte >= 0x20 && byte < 0x7f && byte != '\\') {
      text << bytes[i];
    } else {
      static constexpr char kHex[] = "0123456789abcdef";
      text << "\\x" << kHex[byte >> 4] << kHex[byte & 0xf];
    }
  }
  return text.str();
}

// Both functions into buffers of `size` bytes: every byte vsnprintf wrote,
// its terminator included, must match, and formatTrace must leave the bytes
// past `size` alone.
__attribute__((format(printf, 2, 0))) ::testing::AssertionResult matchesAtSize(size_t size,
                                                                               const char* format,
                                                                               va_list arguments) {
  std::vector<char> expected(size + kGuardBytes, kUntouched);
  std::vector<char> actual(size + kGuardBytes, kUntouched);
  va_list for_expected;
  va_copy(for_expected, arguments);
  const int length = std::vsnprintf(expected.data(), size, format, for_expected);
  va_end(for_expected);
  va_list for_actual;
  va_copy(for_actual, arguments);
  formatTrace(actual.data(), size, format, for_actual);
  va_end(for_actual);

  // -1 reports a character the locale cannot encode; what came before it is
  // still written and terminated.
  const size_t written = length < 0 ? std::strlen(expected.data()) + 1
                                    : std::min(static_cast<size_t>(length), size - 1) + 1;
  const bool same_text = std::memcmp(expected.data(), actual.data(), written) == 0;
  const bool guard_kept = std::all_of(actual.data() + size, actual.data() + actual.size(),
                                      [](char c) { return c == kUntouched; });
  if (same_text && guard_kept) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "format \"" << format << "\" into " << size << " bytes:\n  vsnprintf   \""
         << printable(expected, written) << "\"\n  formatTrace \"" << printable(actual, written)
         << "\"" << (guard_kept ? "" : "\n  and formatTrace wrote past the buffer");
}

__attribute__((format(printf, 2, 3))) ::testing::AssertionResult matchesVsnprintf(
    Sizes sizes, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list measuring;
  va_copy(measuring, arguments);
  const int measured = std::vsnprintf(nullptr, 0, format, measuring);
  va_end(measuring);
  // -1 reports a character the locale cannot encode; the sizes then reach
  // well past where vsnprintf stopped.
  const size_t length = measured < 0 ? 64 : static_cast<size_t>(measured);

  std::vector<size_t> checked;
  if (sizes == Sizes::kEvery) {
    for (size_t size = 1; size <= length + 1; ++size) checked.push_back(size);
  } else {
    checked = {1, 2, length / 2 + 1, std::max<size_t>(length, 1), length + 1};
  }
  checked.push_back(256);

  ::testing::AssertionResult result = ::testing::AssertionSuccess();
  for (const size_t size : checked) {
    result = matchesAtSize(size, format, arguments);
    if (!result) break;
  }
  va_end(arguments);
  return result;
}

#define EXPECT_EVERY_CUT_MATCHES(...) EXPECT_TRUE(matchesVsnprintf(Sizes::kEvery, __VA_ARGS__))

// The format hidden from the compiler's checks, which reject forms printf
// defines (a '0' flag beside '-' or on %s, an int that %hhd narrows) as well
// as the ones it does not.
const char* unchecked(const char* format) { return format; }

TEST(TraceFormat, IntegersMatchVsnprintf) {
  EXPECT_EVERY_CUT_MATCHES("joint %d of %i, step %u", 3, -12, 4000000000U);
  EXPECT_EVERY_CUT_MATCHES("%d %d %u", INT_MIN, INT_MAX, UINT_MAX);
  EXPECT_EVERY_CUT_MATCHES("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
  EXPECT_EVERY_CUT_MATCHES("%zu %zd %jd %ju %td %tu", SIZE_MAX, static_cast<ssize_t>(-1),
                           INTMAX_MIN, UINTMAX_MAX, static_cast<ptrdiff_t>(-7),
                           static_cast<size_t>(PTRDIFF_MAX) + 1);
  // hh and h narrow the promoted argument, as printf does.
  EXPECT_EVERY_CUT_MATCHES(unchecked("%hhd %hhu %hd %hu %hhx %ho"), 300, 300, 70000, 70000, -1, -1);
  EXPECT_EVERY_CUT_MATCHES("%x %X %o %#x", 0xbeefU, 0xbeefU, 8U, 0U);
  EXPECT_EVERY_CUT_MATCHES(unchecked("[%5d|%-5d|%05d|%-05d|%0-5d|%00005d]"), -42, -42, -42, -42, 42,
                           42);
  EXPECT_EVERY_CUT_MATCHES("[%08X|%-8o|%3u|%1d|%0d]", 0xabcU, 8U, 123456U, -5, 0);
  // A negative '*' width is the '-' flag.
  EXPECT_EVERY_CUT_MATCHES("[%*d|%*d|%0*d|%-*x]", 6, 17, -6, 17, 6, -17, 4, 255U);
}

TEST(TraceFormat, FloatsMatchVsnprintf) {
  EXPECT_EVERY_CUT_MATCHES("joint %d temperature %.1f C", 3, 71.5);
  // Ties of the exact binary value round to even, not away from zero.
  EXPECT_EVERY_CUT_MATCHES("%.0f %.0f %.0f %.0f %.0f", 0.5, 1.5, 2.5, 3.5, -2.5);
  EXPECT_EVERY_CUT_MATCHES("%.2f %.2f %.1f %.1f %.2f", 0.125, 0.375, 0.25, 0.35, 1.005);
  EXPECT_EVERY_CUT_MATCHES("%f %f %f %.3f %.1f", 0.0, -0.0, -0.0000001, -0.0004, 9.96);
  EXPECT_EVERY_CUT_MATCHES("%g %g %g %g %g %g", 1e-5, 100000.0, 1e6, 0.0001, -0.0, 123456789.0);
  EXPECT_EVERY_CUT_MATCHES("%.0g %.1g %.2g %G %.3G %g", 0.5, 9.96, 9.96, 1e-10, 1234.5, 0.0);
  EXPECT_EVERY_CUT_MATCHES("%e %E %.0e %.2e %e %.3E", 0.0, 1.0, 2.5, -9.999, 1e-300, 6.02e23);
  EXPECT_EVERY_CUT_MATCHES("%lf %F %.19f %.20f", 1.25, 2.75, 0.1, 0.1);
  // Around the largest scaled value that fits 64 bits.
  EXPECT_EVERY_CUT_MATCHES("%.0f %.0f %.0f %.1f %.2f %.4f %.4f", 18446744073709549568.0,
                           18446744073709551616.0, 9007199254740993.0, 1844674407370955161.0,
                           184467440737095516.0, 1844674407370955.0, 1844674407370955.25);
  EXPECT_EVERY_CUT_MATCHES("%f %e %g %.40f", DBL_TRUE_MIN, DBL_TRUE_MIN, DBL_MIN, DBL_MIN);
  EXPECT_EVERY_CUT_MATCHES("%f|%.40f|%e", DBL_MAX, -DBL_MAX, DBL_MAX);
  EXPECT_EVERY_CUT_MATCHES(unchecked("[%10.3f|%-10.3f|%010.3f|%-010.3f|%012e|%08g]"), -3.25, -3.25,
                           -3.25, 3.25, -1.5, 0.5);
  EXPECT_EVERY_CUT_MATCHES("[%*.*f|%.*f|%.*e|%.f|%.e]", -9, 2, 3.14159, -1, 2.5, 3, 1e9, 0.5, 7.5);
}

TEST(TraceFormat, CharactersAndStringsMatchVsnprintf) {
  EXPECT_EVERY_CUT_MATCHES("state %s, mode '%c'", "walking", 'w');
  EXPECT_EVERY_CUT_MATCHES(unchecked("[%s|%5s|%-5s|%05s|%.2s|%.0s|%.9s]"), "", "ab", "ab", "ab",
                           "abc", "abc", "abc");
  EXPECT_EVERY_CUT_MATCHES("[%*s|%-*.*s|%.*s]", -4, "x", 6, 2, "abcdef", -1, "whole");
  // A character is narrowed to unsigned char; a NUL one goes into the text.
  EXPECT_EVERY_CUT_MATCHES(unchecked("[%c|%3c|%-3c|%03c|%c|%c]"), 'a', 'b', 'c', 'd', 0, 0x141);
  EXPECT_EVERY_CUT_MATCHES("100%% of %s%%, %%d", "the load");
  EXPECT_EVERY_CUT_MATCHES("%s", "a string whose own %d and %s are only text");
  const std::string long_text(300, 'x');
  EXPECT_TRUE(matchesVsnprintf(Sizes::kEvery, "<%s>", long_text.c_str()));
}

// Each form comes after text and a conversion formatTrace has written
// already, which vsnprintf must then write again from the start.
TEST(TraceFormat, FormsLeftToVsnprintfMatchIt) {
  for (const double value : {NAN, -NAN, INFINITY, -INFINITY}) {
    for (const char* format : {"at %d: %f", "at %d: %e", "at %d: %g", "at %d: %F", "at %d: %E",
                               "at %d: %G", "at %d: %08.2f|%-8e"}) {
      EXPECT_EVERY_CUT_MATCHES(unchecked(format), 7, value, value);
    }
  }
  // Other flags, an integer's precision, unknown conversions and a lone '%'.
  for (const char* format :
       {"at %d: %+d", "at %d: % d", "at %d: %#o", "at %d: %#x", "at %d: %'d", "at %d: %5.3d",
        "at %d: %.0d", "at %d: %.3u", "at %d: %.2c", "at %d: %y", "at %d: %5%", "at %d: %-%",
        "at %d: %1%", "at %d: %k", "at %d: %", "at %d: %m", "at %d: %qd", "at %d: %Ld"}) {
    EXPECT_EVERY_CUT_MATCHES(unchecked(format), 7, 0);
  }
  for (const char* format : {"at %d: %+.1f", "at %d: % e", "at %d: %#g", "at %d: %a", "at %d: %A",
                             "at %d: %.60f", "at %d: %.41e", "at %d: %.41G", "at %d: %hf"}) {
    EXPECT_EVERY_CUT_MATCHES(unchecked(format), 7, 0.1);
  }
  EXPECT_EVERY_CUT_MATCHES("at %d: %Lf", 7, 1.5L);
  EXPECT_EVERY_CUT_MATCHES(unchecked("at %d: %llf"), 7, 2.5L);
  EXPECT_EVERY_CUT_MATCHES(unchecked("at %d: %2$s %1$d"), 7, "again");
  // Wide characters outside ASCII, which the C locale cannot encode.
  EXPECT_EVERY_CUT_MATCHES("at %d: %lc", 7, static_cast<wint_t>(0xe9));
  EXPECT_EVERY_CUT_MATCHES("at %d: %ls", 7, L"\u00e9t\u00e9");
  EXPECT_EVERY_CUT_MATCHES(unchecked("at %d: %hhs"), 7, "narrow");
  int position = 0;
  EXPECT_EVERY_CUT_MATCHES("at %d: %p", 7, static_cast<void*>(&position));
  EXPECT_EVERY_CUT_MATCHES("at %d: ab%ncd", 7, &position);
  const char* const no_text = std::getenv("KORCOMMON_TEST_UNSET_VARIABLE");
  for (const char* format : {"at %d: %s", "at %d: %.3s", "at %d: %10s"}) {
    EXPECT_EVERY_CUT_MATCHES(unchecked(format), 7, no_text);
  }
  // Widths and precisions too large for formatTrace's counts.
  EXPECT_TRUE(matchesVsnprintf(Sizes::kSample, "at %d: %*d|%.*s", 7, 2000000, 1, INT_MAX, "all"));
  EXPECT_TRUE(matchesVsnprintf(Sizes::kSample, unchecked("at %d: %2000000d"), 7, 1));
}

// The floating-point rounding mode for one scope.
class ScopedRoundingMode {
 public:
  explicit ScopedRoundingMode(int mode) : saved_(std::fegetround()) {
    set_ = std::fesetround(mode) == 0;
  }
  ~ScopedRoundingMode() { std::fesetround(saved_); }
  ScopedRoundingMode(const ScopedRoundingMode&) = delete;
  ScopedRoundingMode& operator=(const ScopedRoundingMode&) = delete;

  bool set() const { return set_; }

 private:
  int saved_;
  bool set_ = false;
};

TEST(TraceFormat, FollowsTheRoundingMode) {
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    const ScopedRoundingMode rounding(mode);
    ASSERT_TRUE(rounding.set());
    EXPECT_EVERY_CUT_MATCHES("%.1f %.0f %.2e %g %f", 0.25, -2.5, 1.125, 0.3, -0.1);
  }
}

TEST(TraceFormat, FollowsTheLocaleDecimalPoint) {
  // The build compiles the locale beside the tests.
  const korcommon::testing::ScopedEnv locale_path("LOCPATH", KORCOMMON_TEST_LOCALE_DIR);
  const locale_t comma_locale = newlocale(LC_NUMERIC_MASK, "de_DE.UTF-8", nullptr);
  ASSERT_NE(comma_locale, nullptr) << "the locale was not compiled into " KORCOMMON_TEST_LOCALE_DIR;
  const locale_t saved = uselocale(comma_locale);
  EXPECT_EVERY_CUT_MATCHES("%.1f %e %g %d", 71.5, 0.5, 2.25, 1234567);
  uselocale(saved);
  freelocale(comma_locale);
}

// The argument types a random conversion passes; the length modifiers' own
// types are these on the LP64 targets the library is built for.
using Argument = std::variant<int, unsigned, long, unsigned long, long long, unsigned long long,
                              double, const char*>;
static_assert(std::is_same_v<size_t, unsigned long> && std::is_same_v<ssize_t, long> &&
              std::is_same_v<intmax_t, long> && std::is_same_v<uintmax_t, unsigned long> &&
              std::is_same_v<ptrdiff_t, long>);

// A message of two conversions between literal text. With stars, each
// conversion is "*.*" and takes its width and precision as arguments too.
struct RandomMessage {
  std::string format;
  bool stars = false;
  int widths[2] = {};
  int precisions[2] = {};
  Argument values[2];
};

class MessageGenerator {
 public:
  explicit MessageGenerator(uint64_t seed) : random_(seed) {}

  RandomMessage next() {
    RandomMessage message;
    message.stars = chance(0.3);
    message.format = literal();
    // Only the last conversion may be left out: its arguments are then
    // surplus at the end, which printf ignores.
    const int conversions = chance(0.1) ? 1 : 2;
    for (int i = 0; i < 2; ++i) {
      const std::string conversion = randomConversion(message, i);
      if (i < conversions) message.format += conversion + literal();
    }
    return message;
  }

 private:
  bool chance(double probability) { return std::bernoulli_distribution(probability)(random_); }

  template <typename T>
  T uniform(T low, T high) {
    if constexpr (std::is_floating_point_v<T>) {
      return std::uniform_real_distribution<T>(low, high)(random_);
    } else {
      return std::uniform_int_distribution<T>(low, high)(random_);
    }
  }

  template <typename T>
  const T& pick(const std::vector<T>& choices) {
    return choices[uniform<size_t>(0, choices.size() - 1)];
  }

  std::string literal() {
    static const std::vector<std::string> kTexts = {
        "",         "",         "joint ", " temperature ",     " C", "%%", "100%% ",
        "abc%%def", "\xc2\xb0", "\t|",    std::string(70, 'x')};
    return pick(kTexts);
  }

  // Flags, width and precision of one conversion, taking the star arguments
  // into `message`. Integer conversions seldom get a precision: it is one of
  // the forms left to vsnprintf.
  std::string prefix(RandomMessage& message, int index, bool integer) {
    std::string text = "%";
    if (chance(0.3)) text += '-';
    if (chance(0.3)) text += '0';
    if (chance(0.05)) text += pick<std::string>({"+", " ", "#", "'", "--", "00"});
    const bool long_width = chance(0.05);
    const bool precise = !integer || chance(0.05);
    if (message.stars) {
      message.widths[index] = long_width ? uniform(-300, 300) : uniform(-30, 30);
      message.precisions[index] = precise && chance(0.8) ? uniform(0, 45) : uniform(-5, -1);
      return text + "*.*";
    }
    if (chance(0.5)) text += std::to_string(long_width ? uniform(1, 300) : uniform(1, 30));
    if (precise && chance(0.8)) text += "." + (chance(0.1) ? "" : std::to_string(uniform(0, 45)));
    return text;
  }

  std::string randomConversion(RandomMessage& message, int index) {
    switch (uniform(0, 5)) {
      case 0:
        return prefix(message, index, true) + signedConversion(message.values[index]);
      case 1:
        return prefix(message, index, true) + unsignedConversion(message.values[index]);
      case 2:
        message.values[index] = chance(0.1) ? uniform(INT_MIN, INT_MAX) : uniform(0, 255);
        return prefix(message, index, true) + "c";
      case 3:
        message.values[index] = randomString();
        return prefix(message, index, false) + "s";
      default:
        message.values[index] = randomDouble();
        return prefix(message, index, false) + (chance(0.2) ? "l" : "") +
               pick<std::string>({"f", "F", "e", "E", "g", "G"});
    }
  }

  template <typename T>
  T randomInteger() {
    if (chance(0.1)) {
      return chance(0.5) ? std::numeric_limits<T>::min() : std::numeric_limits<T>::max();
    }
    if (chance(0.3)) return static_cast<T>(uniform(-1000, 1000));
    return uniform(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
  }

  std::string signedConversion(Argument& value) {
    const std::string length = pick<std::string>({"", "", "hh", "h", "l", "ll", "z", "j", "t"});
    if (length.empty() || length[0] == 'h') {
      value = randomInteger<int>();
    } else if (length == "ll") {
      value = randomInteger<long long>();
    } else {
      value = randomInteger<long>();
    }
    return length + (chance(0.5) ? "d" : "i");
  }

  std::string unsignedConversion(Argument& value) {
    const std::string length = pick<std::string>({"", "", "hh", "h", "l", "ll", "z", "j", "t"});
    if (length.empty() || length[0] == 'h') {
      value = randomInteger<unsigned>();
    } else if (length == "ll") {
      value = randomInteger<unsigned long long>();
    } else {
      value = randomInteger<unsigned long>();
    }
    return length + pick<std::string>({"u", "x", "X", "o"});
  }

  const char* randomString() {
    static const std::string kLong(200, 'y');
    static const std::vector<const char*> kTexts = {
        "", "a", "walking", "with spaces and %d", "\xc3\xa9t\xc3\xa9", kLong.c_str()};
    return chance(0.02) ? nullptr : pick(kTexts);
  }

  // Values at the edges of the formats and of formatTrace's own paths.
  static const std::vector<double>& notableValues() {
    static const std::vector<double> kValues = {
        // Signed zeros, and where %g turns to the exponent form.
        0.0, -0.0, 1e-5, 1e-4, 1e5, 1e6,
        // Halves, and decimal halves that binary cannot hold exactly.
        0.5, 9.5, 0.95, 9.995, 99.95,
        // Around the largest value that scales into 64 bits.
        1e15, 1e16, 1e17, 1e19, 1e20, 18446744073709549568.0, 18446744073709551616.0,
        // The extremes, and values left to vsnprintf.
        DBL_MIN, DBL_TRUE_MIN, DBL_MAX, NAN, INFINITY, -INFINITY};
    return kValues;
  }

  double randomDouble() {
    switch (uniform(0, 9)) {
      case 0:
      case 1: {
        // Any bit pattern: subnormals, huge and tiny magnitudes, now and then
        // a NaN or an infinity.
        const uint64_t bits = uniform<uint64_t>(0, UINT64_MAX);
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
      }
      case 2: {
        // Odd multiples of small powers of two are ties at some precisions:
        // 0.125 at %.2f, 2.5 at %.0f.
        const double value = uniform(-2000, 2000) * 2 + 1;
        return std::ldexp(value, -uniform(1, 6));
      }
      case 3:
        return pick(notableValues());
      case 4:
      case 5:
        // Decimal-looking readings, as sensors report them.
        return static_cast<double>(uniform(-100000000, 100000000)) / std::pow(10.0, uniform(0, 8));
      default:
        return (chance(0.5) ? -1 : 1) * uniform(1.0, 10.0) * std::pow(10.0, uniform(-30, 30));
    }
  }

  std::mt19937_64 random_;
};

::testing::AssertionResult matchesVsnprintf(const RandomMessage& message) {
  return std::visit(
      [&message](auto first, auto second) {
        if (message.stars) {
          return matchesVsnprintf(Sizes::kSample, message.format.c_str(), message.widths[0],
                                  message.precisions[0], first, message.widths[1],
                                  message.precisions[1], second);
        }
        return matchesVsnprintf(Sizes::kSample, message.format.c_str(), first, second);
      },
      message.values[0], message.values[1]);
}

TEST(TraceFormat, RandomMessagesMatchVsnprintf) {
  MessageGenerator generator(20240611);
  for (int i = 0; i < 20000; ++i) {
    const RandomMessage message = generator.next();
    ASSERT_TRUE(matchesVsnprintf(message)) << "message " << i;
  }
}

}  // namespace
}  // namespace korcommon::detail
