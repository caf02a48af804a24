// The logger: what it filters, cuts, publishes and prints, and the formatter that renders its
// text, against vsnprintf.
#include "korcommon/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cfenv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/os/node_handle_base.h"
#include "korcommon/screen_line.h"
#include "korcommon/trace_format.h"
#include "scoped_env.h"
#include "stand_in_handle.h"
#include "table_rows.h"
#include "threads.h"

namespace {

using dova::dova_msgs::Log;
using korcommon::testing::ScopedEnv;
using LogRecord = std::shared_ptr<const Log>;

uint64_t threadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

// The texts of the records `handle` was given since the last call.
std::vector<std::string> messagesOf(korcommon::testing::StandInHandle& handle) {
  std::vector<std::string> texts;
  for (const LogRecord& record : handle.records.take()) texts.push_back(record->msg);
  return texts;
}

class TraceLogger : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The node name in records and screen lines comes from the running middleware.
    ASSERT_TRUE(!dova::getNodeName().empty() || dova::init("trace_node"));
  }
  static void TearDownTestSuite() { dova::shutdown(); }
  void SetUp() override {
    korcommon::set_log_level(1);
    korcommon::set_log_size(256);
  }

  korcommon::testing::StandInHandle handle_;  // installed for each test
  ScopedEnv screen_{"DOVA_LOG_SCREEN", std::nullopt};
};

std::string screenOutput(const std::function<void()>& call) {
  ::testing::internal::CaptureStdout();
  call();
  return ::testing::internal::GetCapturedStdout();
}

TEST_F(TraceLogger, FiltersCutsPublishesAndPrintsTheRecords) {
  const dova::Time before = dova::Time::now();
  korcommon::mtrace(4, "a/b/c.cpp", 42, "publish", "joint %d temperature %.1f C", 3, 71.5);
  const dova::Time after = dova::Time::now();
  std::vector<LogRecord> records = handle_.records.take();
  ASSERT_EQ(records.size(), 1u);
  const Log& record = *records[0];
  EXPECT_EQ(record.echo().substr(record.echo().find(",\"level\"")),
            R"(,"level":4,"name":"trace_node","msg":"joint 3 temperature 71.5 C","file":"c.cpp",)"
            R"("function":"publish","line":42,"topics":[],"pid":)" +
                std::to_string(getpid()) + ",\"tid\":" + std::to_string(threadId()) + "}");
  EXPECT_EQ(std::to_string(record.header.seq) + "|" + record.header.frame_id, "0|");
  EXPECT_THAT(record.header.stamp.toSec(),
              ::testing::AllOf(::testing::Ge(before.toSec()), ::testing::Le(after.toSec())));

  const ScopedEnv screen("DOVA_LOG_SCREEN", "1");
  // Called through a pointer too, so the exported function is checked beside the inline filter.
  void (*volatile exported)(int, const char*, int, const char*, const char*, ...) =
      &korcommon::mtrace;
  // For each configured level, how many records and lines the two calls at each message level
  // of -1, 0, 1, 2, 3, 4, 5, 8, 16, 32 make: 4 when it passes.
  const std::vector<std::pair<int, std::string>> table = {
      {1, "4444444444"}, {2, "0004444444"}, {3, "0000044444"}, {4, "0000000444"}, {5, "0000000044"},
      {0, "0000000000"}, {6, "0000000000"}, {-1, "0004444444"}};  // -1: back to the default, 2
  for (const auto& [configured, expected] : table) {
    std::string passed;
    for (const int level : {-1, 0, 1, 2, 3, 4, 5, 8, 16, 32}) {
      korcommon::set_log_level(configured);
      const std::string printed = screenOutput([&] {
        korcommon::mtrace(level, "f.cpp", 1, "filter", "level %d", level);
        exported(level, "f.cpp", 1, "filter", "level %d", level);
      });
      const auto lines = std::count(printed.begin(), printed.end(), '\n');
      passed += std::to_string(static_cast<long>(handle_.records.take().size()) + lines);
    }
    EXPECT_EQ(passed, expected) << "configured level " << configured;
  }

  korcommon::set_log_level(1);
  const std::string ten = "0123456789";
  for (const int size : {8, 1, 10, 11, 0, -3}) {
    korcommon::set_log_size(size);  // 0 and -3 are ignored: the size stays 11
    korcommon::mtrace(2, "f.cpp", 1, "cut", "%s", ten.c_str());
  }
  EXPECT_EQ(korcommon::ROBOT_LOG_SIZE.load(), 11);
  korcommon::mtrace(2, "f.cpp", 1, "cut", "ab%ccd", 0);
  // Sizes far beyond any stack buffer: the whole text fits exactly, or is cut by one.
  korcommon::set_log_size(100000);
  const std::string fits(99999, 'x');
  korcommon::mtrace(2, "f.cpp", 1, "cut", "%s", fits.c_str());
  korcommon::mtrace(2, "f.cpp", 1, "cut", "%sz", fits.c_str());
  EXPECT_THAT(messagesOf(handle_),
              ::testing::ElementsAre("0123456", "", "012345678", ten, ten, ten, "ab", fits, fits));

  // Level: the low 8 bits; file: the last path component; ids: the process's and the calling
  // thread's, in the record and on the screen.
  uint64_t worker = 0;
  std::string printed;
  std::thread([&] {
    worker = threadId();
    printed = screenOutput([] {
      korcommon::mtrace(300, "/abs//dir/x.h", 7, "f", "x");
      korcommon::mtrace(2, nullptr, 7, "f", "x");
      korcommon::mtrace(2, "dir/", 7, "f", "x");
    });
  }).join();
  records = handle_.records.take();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(std::to_string(records[0]->level) + " " + records[0]->file + "|" + records[1]->file +
                "|" + records[2]->file + " " + std::to_string(records[0]->tid),
            "44 x.h|| " + std::to_string(worker));
  EXPECT_THAT(printed, ::testing::HasSubstr("(" + std::to_string(getpid()) + "/" +
                                            std::to_string(worker) + "): "));

  // The screen line, whatever the publishing.
  const ScopedEnv zone("TZ", "KST-9");  // far from UTC, so that a line in UTC would show
  tzset();
  handle_.running = false;
  const time_t now = time(nullptr);
  const std::string output = screenOutput([] { korcommon::mtrace(2, "a/b/c.cpp", 12, "f", "hi"); });
  EXPECT_TRUE(handle_.records.take().empty());
  char local[64];
  strftime(local, sizeof local, "%Y-%m-%d %H:%M", localtime(&now));
  const std::string ids = std::to_string(getpid()) + "/" + std::to_string(threadId());
  EXPECT_THAT(output, ::testing::MatchesRegex(
                          std::string(local) + ":[0-9]{2}\\.[0-9]{3} I/trace_node\\(" + ids +
                          "\\): \x1b\\[1;00mc\\.cpp\\(12\\) clk\\([1-9][0-9]*\\.(0|[1-9][0-9]*)\\) "
                          "hi\x1b\\[1;00m\n"));

  // Letter and colour by level; nanoseconds are not padded.
  korcommon::detail::ScreenLine fields;
  fields.clock = dova::Time(12, 5000);
  std::string letters;
  for (const int level : {1, 2, 4, 8, 16, 32, 3}) {
    fields.level = level;
    const std::string line = korcommon::detail::screenLine(fields, true);
    const size_t colour = line.find("): \x1b[1;") + 7;
    letters += line.substr(24, 2) + line.substr(colour, 2) + " ";
    EXPECT_EQ(line.compare(colour + 2, 17, "m(0) clk(12.5000)"), 0) << line;
  }
  EXPECT_EQ(letters, "D/00 I/00 W/33 E/31 F/31 D/00 D/00 ");

  // Without the middleware the plain base handle answers: printed only, with no node name.
  dova::setNodeHandle(nullptr);
  dova::shutdown();
  const std::string alone = screenOutput([] { korcommon::mtrace(16, "c.cpp", 1, "f", "x"); });
  ASSERT_TRUE(dova::init("trace_node"));
  EXPECT_THAT(alone, ::testing::HasSubstr(" F/(" + std::to_string(getpid()) + "/"));
}

std::string numbered(int number) { return "message number " + std::to_string(number) + " of many"; }

TEST_F(TraceLogger, ConcurrentCallsNeitherLoseNorRewriteRecords) {
  // Every message is cut to one of the sizes in use, never garbled, and none is lost.
  const std::string text(200, 'k');
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; !done; ++i) {
      korcommon::set_log_size(16 + (i % 4) * 64);
      korcommon::set_log_level(1 + i % 2);
    }
  });
  std::vector<std::thread> loggers;
  for (int thread = 0; thread < 4; ++thread) {
    loggers.emplace_back([&] {
      for (int call = 0; call < 300; ++call)
        korcommon::mtrace(2, "c.cpp", 1, "f", "%s", text.c_str());
    });
  }
  for (std::thread& logger : loggers) logger.join();
  done = true;
  setter.join();
  const std::vector<std::string> messages = messagesOf(handle_);
  ASSERT_EQ(messages.size(), 1200u);
  EXPECT_THAT(messages, ::testing::Each(::testing::AnyOf(text.substr(0, 15), text.substr(0, 79),
                                                         text.substr(0, 143), text)));

  korcommon::set_log_size(256);  // back from the setter's sizes
  // Records are recycled, but never while anything still holds or watches one: not when it is
  // released on another thread, nor after its own thread ended, nor for a trace from a thread's
  // last destructors.
  std::vector<std::pair<int, LogRecord>> held;
  std::vector<std::weak_ptr<const Log>> watched;
  korcommon::testing::Inbox<std::pair<int, LogRecord>> queue;
  int call = 0;
  handle_.on_log = [&](const LogRecord& record) {
    if (call % 3 == 0) held.emplace_back(call, record);
    watched.push_back(record);
    queue.add({call++, record});
  };
  int checked = 0;
  int mismatches = 0;
  std::thread consumer([&] {
    // Each batch is released here, on the consumer's thread.
    while (checked < 3002 && queue.waitFor(1)) {
      for (const auto& [number, record] : queue.take()) {
        mismatches += record->msg != numbered(number);
        ++checked;
      }
    }
  });
  for (int i = 0; i < 3000; ++i) korcommon::mtrace(2, "c.cpp", i, "f", "%s", numbered(i).c_str());
  struct TracesWhenDestroyed {
    ~TracesWhenDestroyed() { korcommon::mtrace(2, "c.cpp", 1, "f", "%s", numbered(3001).c_str()); }
  };
  std::thread([] {
    thread_local TracesWhenDestroyed tracer;
    static_cast<void>(&tracer);
    korcommon::mtrace(2, "c.cpp", 1, "f", "%s", numbered(3000).c_str());
  }).join();
  consumer.join();
  EXPECT_THAT((std::vector<int>{call, checked, mismatches}), ::testing::ElementsAre(3002, 3002, 0));
  for (const auto& [number, record] : held) EXPECT_EQ(record->msg, numbered(number));
  for (size_t i = 0; i < 3000; ++i) EXPECT_EQ(watched[i].expired(), i % 3 != 0) << i;
}

// From unread settings, each row of tests/data/log/environment.txt: the variables it sets, the
// setters first when it says so, then the calls it describes, summarised as it writes them.
TEST_F(TraceLogger, ReadsTheEnvironmentAtTheFirstCallOnly) {
  const auto variable = [](const std::string& field) {
    return field == "-" ? std::nullopt : std::optional<std::string>(field);
  };
  for (const auto& row : korcommon::testing::tableRows("log/environment.txt", 6)) {
    korcommon::ROBOT_LOG_LEVEL = -1;
    korcommon::ROBOT_LOG_SIZE = -1;
    const ScopedEnv level("DOVA_LOG_LEVEL", variable(row[0]));
    const ScopedEnv size("DOVA_LOG_SIZE", variable(row[1]));
    const ScopedEnv screen("DOVA_LOG_SCREEN", variable(row[2]));
    const bool setters_first = row[3] == "setters first";
    if (setters_first) {
      korcommon::set_log_level(3);
      korcommon::set_log_size(64);
    }
    const std::string printed = screenOutput([&] {
      for (const int call : {1, 2, 3, 4, 5, 8, 16, 32}) {
        korcommon::mtrace(call, "c.cpp", 1, "env", "%d", call);
      }
      korcommon::mtrace(2, "c.cpp", 1, "env", "%s", std::string(300, 's').c_str());
      if (setters_first) korcommon::set_log_level(-1);
      const ScopedEnv later_level("DOVA_LOG_LEVEL", "5");
      const ScopedEnv later_screen("DOVA_LOG_SCREEN", "1");
      korcommon::mtrace(8, "c.cpp", 1, "env", "L8");
      korcommon::mtrace(16, "c.cpp", 1, "env", "L16");
    });
    std::string summary;
    for (const std::string& message : messagesOf(handle_)) {
      summary += (message[0] == 's' ? std::to_string(message.size()) : message) + " ";
    }
    EXPECT_EQ(summary + "/ " + std::to_string(std::count(printed.begin(), printed.end(), '\n')) +
                  " lines / level " + std::to_string(korcommon::ROBOT_LOG_LEVEL.load()) + " size " +
                  std::to_string(korcommon::ROBOT_LOG_SIZE.load()),
              row[4])
        << row[5];
  }
}

// formatTrace, which renders the logger's text, against std::vsnprintf itself: every case
// formats the same format and arguments with both into buffers of many sizes and compares the
// bytes, so any difference from glibc, in the text or in where it is cut, fails here. The cases
// are the rows of tests/data/trace.

// Both functions into buffers of 1 and 2 bytes, the middle, one byte short, the exact fit and a
// roomy buffer, and for texts shorter than `every_cut_below` a cut at every byte: every byte
// vsnprintf wrote, its terminator included, must match, and formatTrace must leave the 16 bytes
// past the buffer alone.
__attribute__((format(printf, 2, 3))) ::testing::AssertionResult matchesVsnprintf(
    size_t every_cut_below, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list copy;
  va_copy(copy, arguments);
  const int measured = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  // -1 reports a character the locale cannot encode: the sizes reach well past where it stopped.
  const size_t length = measured < 0 ? 64 : static_cast<size_t>(measured);
  std::vector<size_t> sizes = {1, 2, length / 2 + 1, std::max<size_t>(length, 1), length + 1, 256};
  for (size_t size = 3; length < every_cut_below && size < length; ++size) sizes.push_back(size);
  ::testing::AssertionResult result = ::testing::AssertionSuccess();
  for (size_t at = 0; result && at < sizes.size(); ++at) {
    std::vector<char> expected(sizes[at] + 16, 'Z');  // Z: not written
    std::vector<char> actual(expected);
    va_copy(copy, arguments);
    const int written = std::vsnprintf(expected.data(), sizes[at], format, copy);
    va_end(copy);
    va_copy(copy, arguments);
    korcommon::detail::formatTrace(actual.data(), sizes[at], format, copy);
    va_end(copy);
    // What vsnprintf wrote and the guard; on -1 what came before the character is still written.
    const size_t kept = written < 0 ? std::strlen(expected.data()) + 1
                                    : std::min(static_cast<size_t>(written), sizes[at] - 1) + 1;
    const auto compared = [kept](const std::vector<char>& bytes) {
      return std::string(bytes.data(), kept) + std::string(bytes.end() - 16, bytes.end());
    };
    if (compared(actual) != compared(expected)) {
      result = ::testing::AssertionFailure()
               << "format \"" << format << "\" into " << sizes[at]
               << " bytes, and the 16 past them:"
               << "\n  vsnprintf   " << ::testing::PrintToString(compared(expected))
               << "\n  formatTrace " << ::testing::PrintToString(compared(actual));
    }
  }
  va_end(arguments);
  return result;
}

// A row's `ints`, then its `values`. printf ignores arguments past those the format reads, so
// every row passes eight values.
template <typename ValueT, typename... Ints>
::testing::AssertionResult matchesWith(size_t every_cut_below, const char* format,
                                       const std::vector<int>& ints, const std::vector<ValueT>& v,
                                       Ints... leading) {
  if constexpr (sizeof...(Ints) < 4) {
    if (sizeof...(Ints) < ints.size())
      return matchesWith(every_cut_below, format, ints, v, leading..., ints[sizeof...(Ints)]);
  }
  return matchesVsnprintf(every_cut_below, format, leading..., v[0], v[1], v[2], v[3], v[4], v[5],
                          v[6], v[7]);
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

// The rows of `table` whose value kind is one of `kinds`. A row whose format holds "{}" runs
// once for each flag, width and precision, put in its place, and is cut at every byte only
// while its text is short.
void expectRowsMatch(const std::string& table, const std::string& kinds) {
  std::vector<std::string> forms;
  for (const std::string flags : {"", "-", "0", "-0", "+", " ", "#"}) {
    for (const std::string size : {"", "9", ".0", ".3", "25.17", ".40", "120.2"}) {
      forms.push_back(flags + size);
    }
  }
  for (const auto& row : korcommon::testing::tableRows(table, 5)) {
    EXPECT_NE(std::string("ildLs").find(row[2]), std::string::npos) << row[4];
    if (kinds.find(row[2]) == std::string::npos) continue;
    std::vector<int> ints;
    for (const std::string& text : split(row[1])) ints.push_back(static_cast<int>(integer(text)));
    const std::vector<std::string> texts = split(row[3]);
    ASSERT_LE(texts.size(), 8u) << row[4];
    const bool swept = row[0].find("{}") != std::string::npos;
    for (const std::string& form : swept ? forms : std::vector<std::string>{""}) {
      std::string format = row[0];
      for (size_t at = format.find("{}"); at != std::string::npos; at = format.find("{}", at)) {
        format.replace(at, 2, form);
      }
      const auto matches = [&](auto parse) {
        std::vector<decltype(parse(texts[0]))> values(8);
        std::transform(texts.begin(), texts.end(), values.begin(), parse);
        return matchesWith(swept ? 64 : 1024, format.c_str(), ints, values);
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
}

// The tables, and the forms no row can pass; then, as another rounding mode or decimal point
// sends every float to vsnprintf, the float rows under each.
TEST(TraceFormat, TablesMatchVsnprintf) {
  expectRowsMatch("trace/format.txt", "ildLs");
  expectRowsMatch("trace/sweep.txt", "ildLs");
  EXPECT_TRUE(matchesVsnprintf(1024, "<%s>", std::string(300, 'x').c_str()));
  // Wide characters outside ASCII, which the C locale cannot encode.
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: %lc", 7, static_cast<wint_t>(0xe9)));
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: %ls", 7, L"\u00e9t\u00e9"));
  int position = 0;
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: %p", 7, static_cast<void*>(&position)));
  EXPECT_TRUE(matchesVsnprintf(1024, "at %d: ab%ncd", 7, &position));

  const int saved_mode = std::fegetround();
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    ASSERT_EQ(std::fesetround(mode), 0);
    expectRowsMatch("trace/format.txt", "d");
  }
  std::fesetround(saved_mode);
  // The build compiles the locale beside the tests.
  const korcommon::testing::ScopedEnv locale_path("LOCPATH", KORCOMMON_TEST_LOCALE_DIR);
  const locale_t comma_locale = newlocale(LC_NUMERIC_MASK, "de_DE.UTF-8", nullptr);
  ASSERT_NE(comma_locale, nullptr) << "the locale was not compiled into " KORCOMMON_TEST_LOCALE_DIR;
  const locale_t saved_locale = uselocale(comma_locale);
  expectRowsMatch("trace/format.txt", "id");
  uselocale(saved_locale);
  freelocale(comma_locale);
}

}  // namespace
