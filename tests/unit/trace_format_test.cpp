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
#include <string>
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
         << "format \"" << format << "\" into " << size << " bytes:\n  vsnprintf   "
         << ::testing::PrintToString(std::string(expected.data(), written)) << "\n  formatTrace "
         << ::testing::PrintToString(std::string(actual.data(), written))
         << (guard_kept ? "" : "\n  and formatTrace wrote past the buffer");
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

TEST(TraceFormat, FollowsTheRoundingMode) {
  const int saved = std::fegetround();
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    ASSERT_EQ(std::fesetround(mode), 0);
    EXPECT_EVERY_CUT_MATCHES("%.1f %.0f %.2e %g %f", 0.25, -2.5, 1.125, 0.3, -0.1);
  }
  std::fesetround(saved);
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

// Random messages of two conversions between literal text, with random flags, widths and
// precisions (as "*" arguments a third of the time) and arguments from the edges of the formats.
TEST(TraceFormat, RandomMessagesMatchVsnprintf) {
  std::mt19937_64 random(20240611);
  const auto pick = [&random](size_t count) { return static_cast<size_t>(random() % count); };
  const double notable[] = {0.0,
                            -0.0,
                            1e-5,
                            1e-4,
                            1e5,
                            1e6,
                            0.5,
                            9.5,
                            0.95,
                            9.995,
                            99.95,
                            1e15,
                            1e17,
                            1e19,
                            1e20,
                            18446744073709549568.0,
                            18446744073709551616.0,
                            DBL_MIN,
                            DBL_TRUE_MIN,
                            DBL_MAX,
                            NAN,
                            INFINITY,
                            -INFINITY};
  const char* const texts[] = {"", "walking", "with %d", "\xc3\xa9t\xc3\xa9", nullptr};
  const char* const literals[] = {"", "joint ", " C", "%%", "\xc2\xb0", "\t|"};
  for (int message = 0; message < 20000; ++message) {
    const bool stars = pick(3) == 0;
    std::string format = literals[pick(6)];
    std::variant<long, double, const char*> values[2];
    for (auto& value : values) {
      format += "%";
      for (const char* flag : {"-", "0", "+", " ", "#"}) format += pick(4) == 0 ? flag : "";
      if (stars) {
        format += "*.*";
      } else {
        if (pick(2) == 0) format += std::to_string(pick(pick(20) == 0 ? 300 : 30));
        if (pick(2) == 0) format += "." + std::to_string(pick(45));
      }
      switch (pick(4)) {
        case 0: {
          const long integer = pick(10) == 0 ? LONG_MIN : static_cast<long>(random()) >> pick(64);
          value = integer;
          format += std::string("l") + "diuxXo"[pick(6)];
          break;
        }
        case 1:
          value = static_cast<const char*>(texts[pick(5)]);
          format += "s";
          break;
        default: {
          const uint64_t bits = random();
          double number = 0;
          std::memcpy(&number, &bits, sizeof number);
          const double choices[] = {
              number, notable[pick(23)],
              static_cast<double>(static_cast<int>(pick(200000000)) - 100000000) /
                  std::pow(10.0, static_cast<double>(pick(9))),
              std::ldexp(static_cast<double>(pick(4000)) * 2 + 1, -1 - static_cast<int>(pick(6)))};
          value = choices[pick(4)];
          format += "fFeEgG"[pick(6)];
        }
      }
      format += literals[pick(6)];
    }
    const int width[2] = {static_cast<int>(pick(61)) - 30, static_cast<int>(pick(61)) - 30};
    const int precision[2] = {static_cast<int>(pick(50)) - 5, static_cast<int>(pick(50)) - 5};
    const ::testing::AssertionResult result = std::visit(
        [&](auto first, auto second) {
          return stars ? matchesVsnprintf(Sizes::kSample, format.c_str(), width[0], precision[0],
                                          first, width[1], precision[1], second)
                       : matchesVsnprintf(Sizes::kSample, format.c_str(), first, second);
        },
        values[0], values[1]);
    ASSERT_TRUE(result) << "message " << message;
  }
}

}  // namespace
}  // namespace korcommon::detail
