#include "korcommon/log.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// GCC 12 reports a false -Wmaybe-uninitialized inside <regex> in optimised builds.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop

#include "dova/init.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/os/node_handle_base.h"
#include "scoped_env.h"
#include "stand_in_handle.h"
#include "table_rows.h"
#include "threads.h"

namespace {

using dova::dova_msgs::Log;
using korcommon::testing::ScopedEnv;
using LogRecord = std::shared_ptr<const Log>;

uint64_t threadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

using korcommon::testing::StandInHandle;

// The texts of the records `handle` was given since the last call.
std::vector<std::string> messagesOf(StandInHandle& handle) {
  std::vector<std::string> texts;
  for (const LogRecord& record : handle.records.take()) texts.push_back(record->msg);
  return texts;
}

class TraceLogger : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The node name in records and screen lines comes from the running middleware.
    if (dova::getNodeName().empty()) {
      ASSERT_TRUE(dova::init("trace_node"));
    }
  }
  static void TearDownTestSuite() { dova::shutdown(); }
  void SetUp() override {
    korcommon::set_log_level(1);
    korcommon::set_log_size(256);
  }

  // The one message published by `call`, or "(N records)".
  template <typename Call>
  std::string published(Call call) {
    call();
    const std::vector<std::string> messages = messagesOf(handle_);
    return messages.size() == 1 ? messages[0] : "(" + std::to_string(messages.size()) + " records)";
  }

  StandInHandle handle_;  // installed for each test
  ScopedEnv screen_{"DOVA_LOG_SCREEN", std::nullopt};
};

std::string screenOutput(const std::function<void()>& call) {
  ::testing::internal::CaptureStdout();
  call();
  return ::testing::internal::GetCapturedStdout();
}

TEST_F(TraceLogger, FiltersByLevelAndCutsToTheBufferSize) {
  const ScopedEnv screen("DOVA_LOG_SCREEN", "1");
  // Called through a pointer too, so the exported function is checked beside the inline filter.
  void (*volatile exported)(int, const char*, int, const char*, const char*, ...) =
      &korcommon::mtrace;
  // For each configured level, the message levels of -1, 0, 1, 2, 3, 4, 5, 8, 16, 32 that pass.
  const std::vector<std::pair<int, std::string>> table = {
      {1, "1111111111"}, {2, "0001111111"}, {3, "0000011111"}, {4, "0000000111"}, {5, "0000000011"},
      {0, "0000000000"}, {6, "0000000000"}, {-1, "0001111111"}};  // -1: back to the default, 2
  for (const auto& [configured, expected] : table) {
    std::string passed;
    for (const int level : {-1, 0, 1, 2, 3, 4, 5, 8, 16, 32}) {
      korcommon::set_log_level(configured);
      const std::string printed = screenOutput([&] {
        korcommon::mtrace(level, "f.cpp", 1, "filter", "level %d", level);
        exported(level, "f.cpp", 1, "filter", "level %d", level);
      });
      const size_t records = handle_.records.take().size();
      EXPECT_EQ(printed.empty(), records == 0);
      passed += records == 2 ? "1" : records == 0 ? "0" : "?";
    }
    EXPECT_EQ(passed, expected) << "configured level " << configured;
  }

  korcommon::set_log_level(1);
  const std::string ten = "0123456789";
  for (const auto& [size, expected] : std::vector<std::pair<int, std::string>>{
           {8, "0123456"}, {1, ""}, {10, "012345678"}, {11, ten}, {0, ten}, {-3, ten}}) {
    korcommon::set_log_size(size);  // 0 and -3 are ignored: the size stays 11
    EXPECT_EQ(published([&] { korcommon::mtrace(2, "f.cpp", 1, "cut", "%s", ten.c_str()); }),
              expected)
        << size;
  }
  EXPECT_EQ(korcommon::ROBOT_LOG_SIZE.load(), 11);
  EXPECT_EQ(published([] { korcommon::mtrace(2, "f.cpp", 1, "cut", "ab%ccd", 0); }), "ab");
  // Sizes far beyond any stack buffer: the whole text fits exactly, or is cut by one.
  korcommon::set_log_size(100000);
  const std::string fits(99999, 'x');
  EXPECT_EQ(published([&] { korcommon::mtrace(2, "f.cpp", 1, "cut", "%s", fits.c_str()); }), fits);
  EXPECT_EQ(published([&] { korcommon::mtrace(2, "f.cpp", 1, "cut", "%sz", fits.c_str()); }), fits);
}

TEST_F(TraceLogger, PublishesTheRecordOfTheCallingThread) {
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
  EXPECT_EQ(record.header.seq, 0u);
  EXPECT_EQ(record.header.frame_id, "");
  EXPECT_GE(record.header.stamp.toSec(), before.toSec());
  EXPECT_LE(record.header.stamp.toSec(), after.toSec());

  // Level: the low 8 bits; file: the last path component; ids: the process's and the calling
  // thread's, in the record and on the screen.
  const ScopedEnv screen("DOVA_LOG_SCREEN", "1");
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
  EXPECT_EQ(records[0]->level, 44);
  EXPECT_EQ(records[0]->file + "|" + records[1]->file + "|" + records[2]->file, "x.h||");
  EXPECT_EQ(records[0]->tid, worker);
  EXPECT_NE(worker, threadId());
  EXPECT_NE(printed.find("(" + std::to_string(getpid()) + "/" + std::to_string(worker) + "): "),
            std::string::npos)
      << printed;
}

TEST_F(TraceLogger, PrintsTheScreenLineWhateverThePublishing) {
  const ScopedEnv zone("TZ", "KST-9");  // far from UTC, so that a line in UTC would show
  tzset();
  const ScopedEnv screen("DOVA_LOG_SCREEN", "1");
  handle_.running = false;
  const time_t now = time(nullptr);
  const std::string output = screenOutput([] { korcommon::mtrace(2, "a/b/c.cpp", 12, "f", "hi"); });
  EXPECT_TRUE(handle_.records.take().empty());
  char local[64];
  strftime(local, sizeof local, "%Y-%m-%d %H:%M", localtime(&now));
  const std::string ids = std::to_string(getpid()) + "/" + std::to_string(threadId());
  EXPECT_TRUE(std::regex_match(
      output, std::regex(std::string(local) + ":\\d\\d\\.\\d{3} I/trace_node\\(" + ids +
                         "\\): \\x1b\\[1;00mc\\.cpp\\(12\\) clk\\([1-9]\\d*\\.(0|[1-9]\\d*)\\) "
                         "hi\\x1b\\[1;00m\\n")))
      << output;

  // Nanoseconds are not padded: seen on a line from the first tenth of a second.
  bool short_seen = false;
  for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
       !short_seen && std::chrono::steady_clock::now() < end;) {
    const std::string line = screenOutput([] { korcommon::mtrace(2, "c.cpp", 1, "f", "x"); });
    const size_t dot = line.find('.', line.find("clk("));
    short_seen = line.find(')', dot) - dot - 1 < 9;
    if (!short_seen) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(short_seen) << "no line from the first tenth of a second";

  // Letter and colour by level; a null file prints an empty name.
  std::string letters;
  for (const int level : {1, 2, 4, 8, 16, 32, 3}) {
    const std::string line = screenOutput([&] { korcommon::mtrace(level, nullptr, 1, "f", "x"); });
    const size_t colour = line.find("): \x1b[1;") + 7;
    letters += line.substr(24, 2) + line.substr(colour, 2) + " ";
    EXPECT_EQ(line.compare(colour + 2, 9, "m(1) clk("), 0) << line;
  }
  EXPECT_EQ(letters, "D/00 I/00 W/33 E/31 F/31 D/00 D/00 ");
  // The variable is read at every call and must be 1 as an integer.
  const std::vector<std::optional<std::string>> settings = {std::nullopt, "2",  "0",  "",  "-1",
                                                            "1",          " 1", "1x", "01"};
  std::string printing;
  for (const std::optional<std::string>& value : settings) {
    const ScopedEnv setting("DOVA_LOG_SCREEN", value);
    printing +=
        screenOutput([] { korcommon::mtrace(16, "c.cpp", 1, "f", "x"); }).empty() ? "0" : "1";
  }
  EXPECT_EQ(printing, "000001111");

  // Without the middleware the plain base handle answers: printed only, with no node name.
  dova::setNodeHandle(nullptr);
  dova::shutdown();
  const std::string alone = screenOutput([] { korcommon::mtrace(16, "c.cpp", 1, "f", "x"); });
  ASSERT_TRUE(dova::init("trace_node"));
  EXPECT_NE(alone.find(" F/(" + std::to_string(getpid()) + "/"), std::string::npos) << alone;
}

TEST_F(TraceLogger, ConcurrentCallsAndSetters) {
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
  for (const std::string& message : messages) {
    EXPECT_TRUE(message == text.substr(0, 15) || message == text.substr(0, 79) ||
                message == text.substr(0, 143) || message == text)
        << message;
  }
}

std::string numbered(int number) { return "message number " + std::to_string(number) + " of many"; }

// Records are recycled, but never while anything still holds or watches one: not when it is
// released on another thread, nor after its own thread ended, nor for a trace from a thread's
// last destructors.
TEST_F(TraceLogger, RecordsAreNeverRewrittenWhileHeld) {
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
  EXPECT_EQ(call, 3002);
  EXPECT_EQ(checked, 3002);
  EXPECT_EQ(mismatches, 0);
  for (const auto& [number, record] : held) EXPECT_EQ(record->msg, numbered(number));
  for (size_t i = 0; i < 3000; ++i) EXPECT_EQ(watched[i].expired(), i % 3 != 0) << i;
}

// In a child process from unread settings: sets `variables` ("NAME=value;..."), runs the setters
// first when asked, makes the calls of tests/data/log/environment.txt and prints what they
// published, what was printed and the settings afterwards on standard error.
[[noreturn]] void summarizeFirstCalls(const std::string& variables, bool setters_first) {
  korcommon::ROBOT_LOG_LEVEL = -1;
  korcommon::ROBOT_LOG_SIZE = -1;
  for (const char* name : {"DOVA_LOG_LEVEL", "DOVA_LOG_SIZE", "DOVA_LOG_SCREEN"}) unsetenv(name);
  std::istringstream list(variables);
  for (std::string variable; std::getline(list, variable, ';');) {
    setenv(variable.substr(0, variable.find('=')).c_str(),
           variable.substr(variable.find('=') + 1).c_str(), 1);
  }
  if (setters_first) {
    korcommon::set_log_level(3);
    korcommon::set_log_size(64);
  }
  StandInHandle handle;
  const std::string printed = screenOutput([&] {
    for (const int level : {1, 2, 3, 4, 5, 8, 16, 32}) {
      korcommon::mtrace(level, "c.cpp", 1, "env", "%d", level);
    }
    korcommon::mtrace(2, "c.cpp", 1, "env", "%s", std::string(300, 's').c_str());
    if (setters_first) korcommon::set_log_level(-1);
    setenv("DOVA_LOG_LEVEL", "5", 1);
    korcommon::mtrace(8, "c.cpp", 1, "env", "L8");
    korcommon::mtrace(16, "c.cpp", 1, "env", "L16");
  });
  std::string summary;
  for (const std::string& message : messagesOf(handle)) {
    summary += (summary.empty() ? "" : " ") +
               (message[0] == 's' ? std::to_string(message.size()) : message);
  }
  std::fprintf(stderr, "summary: %s / %td lines / level %d size %d\n", summary.c_str(),
               std::count(printed.begin(), printed.end(), '\n'), korcommon::ROBOT_LOG_LEVEL.load(),
               korcommon::ROBOT_LOG_SIZE.load());
  std::fflush(stderr);
  _exit(0);
}

TEST(TraceLoggerEnvironment, ReadAtTheFirstCallOnly) {
  for (const auto& row : korcommon::testing::tableRows("log/environment.txt", 4)) {
    EXPECT_EXIT(summarizeFirstCalls(row[0], row[1] == "setters first"),
                ::testing::ExitedWithCode(0), "summary: " + row[2] + "\n")
        << row[3];
  }
}

}  // namespace
