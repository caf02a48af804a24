// formatTrace against std::vsnprintf itself: every case formats the same format and arguments
// with both into buffers of many sizes and compares the bytes, so any difference from glibc, in
// the text or in where it is cut, fails here. The cases are the rows of tests/data/trace.
#include "korcommon/trace_format.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>
#include <cfenv>
#include <cfloat>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <sstream>
#include <string>
#include <vector>

#include "scoped_env.h"
#include "table_rows.h"

namespace korcommon::detail {
namespace {

constexpr char kUntouched = '\x5a';

// Both functions into a buffer of `size` bytes: every byte vsnprintf wrote, its terminator
// included, must match, and formatTrace must leave the 16 bytes past `size` alone.
__attribute__((format(printf, 2, 0))) ::testing::AssertionResult matchesAtSize(size_t size,
                                                                               const char* format,
                                                                               va_list arguments) {
  std::vector<char> expected(size + 16, kUntouched);
  std::vector<char> actual(expected);
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(expected.data(), size, format, copy);
  va_end(copy);
  va_copy(copy, arguments);
  formatTrace(actual.data(), size, format, copy);
  va_end(copy);
  // -1 reports a character the locale cannot encode; what came before it is still written.
  const size_t written = length < 0 ? std::strlen(expected.data()) + 1
                                    : std::min(static_cast<size_t>(length), size - 1) + 1;
  const bool guard_kept = std::all_of(actual.begin() + static_cast<ptrdiff_t>(size), actual.end(),
                                      [](char c) { return c == kUntouched; });
  if (guard_kept && std::memcmp(expected.data(), actual.data(), written) == 0) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "format \"" << format << "\" into " << size << " bytes:\n  vsnprintf   "
         << ::testing::PrintToString(std::string(expected.data(), written)) << "\n  formatTrace "
         << ::testing::PrintToString(std::string(actual.data(), written))
         << (guard_kept ? "" : "\n  and formatTrace wrote past the buffer");
}

// Sizes 1, 2, the middle, one byte short, the exact fit and a roomy buffer, and for texts shorter
// than `every_cut_below` a cut at every byte.
__attribute__((format(printf, 2, 3))) ::testing::AssertionResult matchesVsnprintf(
    size_t every_cut_below, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list measuring;
  va_copy(measuring, arguments);
  const int measured = std::vsnprintf(nullptr, 0, format, measuring);
  va_end(measuring);
  // -1 reports a character the locale cannot encode: the sizes reach well past where it stopped.
  const size_t length = measured < 0 ? 64 : static_cast<size_t>(measured);
  std::vector<size_t> sizes = {1, 2, length / 2 + 1, std::max<size_t>(length, 1), length + 1, 256};
  for (size_t size = 3; length < every_cut_below && size < length; ++size) sizes.push_back(size);
  ::testing::AssertionResult result = ::testing::AssertionSuccess();
  for (size_t at = 0; result && at < sizes.size(); ++at) {
    result = matchesAtSize(sizes[at], format, arguments);
  }
  va_end(arguments);
  return result;
}

// A row's `ints`, then its `values`. printf ignores arguments past those the format reads, so
// every row passes eight values.
template <typename ValueT, typename... Ints>
::testing::AssertionResult matchesWith(const char* format, const std::vector<int>& ints,
                                       const std::vector<ValueT>& v, Ints... leading) {
  if constexpr (sizeof...(Ints) < 4) {
    if (sizeof...(Ints) < ints.size())
      return matchesWith(format, ints, v, leading..., ints[sizeof...(Ints)]);
  }
  return matchesVsnprintf(1024, format, leading..., v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]);
}

std::vector<std::string> split(const std::string& list) {
  std::vector<std::string> items;
  std::istringstream stream(list);
  for (std::string item; std::getline(stream, item, ',');) items.push_back(item);
  return items;
}

long long integer(const std::string& text) {
  return text[0] == '-' ? std::strtoll(text.c_str(), nullptr, 0)
                        : static_cast<long long>(std::strtoull(text.c_str(), nullptr, 0));
}

// The rows of the table whose value kind is one of `kinds`.
void expectRowsMatch(const std::string& kinds) {
  for (const auto& row : korcommon::testing::tableRows("trace/format.txt", 5)) {
    EXPECT_NE(std::string("ildLs").find(row[2]), std::string::npos) << row[4];
    if (kinds.find(row[2]) == std::string::npos) continue;
    std::vector<int> ints;
    for (const std::string& text : split(row[1])) ints.push_back(static_cast<int>(integer(text)));
    const std::vector<std::string> texts = split(row[3]);
    ASSERT_LE(texts.size(), 8u) << row[4];
    const auto matches = [&](auto parse) {
      std::vector<decltype(parse(texts[0]))> values(8);
      std::transform(texts.begin(), texts.end(), values.begin(), parse);
      return matchesWith(row[0].c_str(), ints, values);
    };
    const char kind = row[2][0];
    EXPECT_TRUE(
        kind == 'i'   ? matches([](const std::string& t) { return static_cast<int>(integer(t)); })
        : kind == 'l' ? matches(integer)
        : kind == 'd'
            ? matches([](const std::string& t) { return std::strtod(t.c_str(), nullptr); })
        : kind == 'L'
            ? matches([](const std::string& t) { return std::strtold(t.c_str(), nullptr); })
            : matches([](const std::string& t) { return t == "NULL" ? nullptr : t.c_str(); }))
        << row[4];
  }
}

TEST(TraceFormat, TableMatchesVsnprintf) {
  expectRowsMatch("ildLs");
  EXPECT_TRUE(matchesVsnprintf(1024, "<%s>", std::string(300, 'x').c_str()));
  // Wide characters outside ASCII, which the C locale cannot encode.
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: %lc", 7, static_cast<wint_t>(0xe9)));
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: %ls", 7, L"\u00e9t\u00e9"));
  int position = 0;
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: %p", 7, static_cast<void*>(&position)));
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: ab%ncd", 7, &position));
}

// Every conversion the formatter renders, under each flag, width and precision, at the values
// where rounding, notation or the digit count changes, between literal text.
TEST(TraceFormat, FlagsWidthsAndPrecisionsMatchVsnprintf) {
  const double doubles[] = {
      0.0,    -0.0,    1e-5,    1e-4,    0.5,          0.95,   9.5,  9.995,
      99.95,  1e5,     1e6,     1e15,    1e17,         1e19,   1e20, 0x1.fffffffffffffp63,
      0x1p64, -1.5e-7, 123.456, DBL_MIN, DBL_TRUE_MIN, DBL_MAX};
  for (const std::string flags : {"", "-", "0", "-0", "+", " ", "#"}) {
    for (const std::string size : {"", "9", ".0", ".3", "25.17", ".40", "120.2"}) {
      const std::string form = "%" + flags + size;
      for (const char type : std::string("fFeEgG")) {
        for (const double value : doubles) {
          ASSERT_TRUE(matchesVsnprintf(64, ("\xc2\xb0" + form + type + " C").c_str(), value));
        }
      }
      for (const char type : std::string("diuxXo")) {
        for (const long value : {0L, 1L, -1L, 255L, LONG_MIN, LONG_MAX}) {
          ASSERT_TRUE(matchesVsnprintf(64, ("joint " + form + "l" + type + "\t|").c_str(), value));
        }
      }
      for (const char* text : {"", "walking", "\xc3\xa9t\xc3\xa9", "with %d"}) {
        ASSERT_TRUE(matchesVsnprintf(64, (form + "s%%").c_str(), text));
      }
    }
  }
}

// Another rounding mode or decimal point sends every float to vsnprintf.
TEST(TraceFormat, FollowsTheRoundingModeAndTheLocale) {
  const int saved_mode = std::fegetround();
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    ASSERT_EQ(std::fesetround(mode), 0);
    expectRowsMatch("d");
  }
  std::fesetround(saved_mode);
  // The build compiles the locale beside the tests.
  const korcommon::testing::ScopedEnv locale_path("LOCPATH", KORCOMMON_TEST_LOCALE_DIR);
  const locale_t comma_locale = newlocale(LC_NUMERIC_MASK, "de_DE.UTF-8", nullptr);
  ASSERT_NE(comma_locale, nullptr) << "the locale was not compiled into " KORCOMMON_TEST_LOCALE_DIR;
  const locale_t saved_locale = uselocale(comma_locale);
  expectRowsMatch("id");
  uselocale(saved_locale);
  freelocale(comma_locale);
}

}  // namespace
}  // namespace korcommon::detail
