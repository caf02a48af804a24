#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// GCC 12 reports a false -Wmaybe-uninitialized inside <regex> in optimised
// builds; the warning is about the library's code, not ours.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop

#include "dova/filesystem/filesystem.h"
#include "dova/init.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/os/node_handle_base.h"
#include "dova/time.h"
#include "korcommon/log.h"
#include "scoped_env.h"

namespace {

using dova::dova_msgs::Log;
using LogRecord = std::shared_ptr<const Log>;

constexpr int kDebug = 1;
constexpr int kInfo = 2;
constexpr int kWarn = 4;
constexpr int kError = 8;
constexpr int kFatal = 16;

pid_t kernelThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

using korcommon::testing::ScopedEnv;

// Stands in for the middleware's node handle: ok() answers what the test
// says, and log() keeps every record it is handed. Thread-safe.
class RecordingNodeHandle : public dova::NodeHandleBase {
 public:
  bool ok() const override { return ok_.load(); }
  void log(const LogRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  }

  void setOk(bool ok) { ok_.store(ok); }
  std::vector<LogRecord> records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
  }

 private:
  std::atomic<bool> ok_{true};
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
};

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
    previous_handle_ = dova::setNodeHandle(&handle_);
    korcommon::set_log_level(1);
    korcommon::set_log_size(256);
  }
  void TearDown() override { dova::setNodeHandle(previous_handle_); }

  // The messages published since the last clear.
  std::vector<std::string> publishedMessages() const {
    std::vector<std::string> messages;
    for (const LogRecord& record : handle_.records()) messages.push_back(record->msg);
    return messages;
  }

  // The one record published by `log`, or a failure.
  template <typename Call>
  LogRecord publishedBy(Call log) {
    handle_.clear();
    log();
    const std::vector<LogRecord> records = handle_.records();
    EXPECT_EQ(records.size(), 1u);
    return records.empty() ? std::make_shared<const Log>() : records.front();
  }

  // What `log` writes on standard output.
  template <typename Call>
  static std::string screenOutput(Call log) {
    ::testing::internal::CaptureStdout();
    log();
    return ::testing::internal::GetCapturedStdout();
  }

  RecordingNodeHandle handle_;
  ScopedEnv screen_off_{"DOVA_LOG_SCREEN", std::nullopt};

 private:
  dova::NodeHandleBase* previous_handle_ = nullptr;
};

TEST_F(TraceLogger, FiltersByConfiguredLevel) {
  ScopedEnv screen("DOVA_LOG_SCREEN", "1");
  const int message_levels[] = {-1, 0, 1, 2, 3, 4, 5, 8, 16, 32};
  // For each configured level, the message levels (of the list above) that pass.
  const struct {
    int configured;
    std::vector<int> passing;
  } table[] = {
      {1, {-1, 0, 1, 2, 3, 4, 5, 8, 16, 32}},
      {2, {2, 3, 4, 5, 8, 16, 32}},
      {3, {4, 5, 8, 16, 32}},
      {4, {8, 16, 32}},
      {5, {16, 32}},
      {0, {}},  // levels outside 1..5 switch logging off
      {6, {}},
      {100, {}},
  };
  for (const auto& row : table) {
    korcommon::set_log_level(row.configured);
    for (int level : message_levels) {
      handle_.clear();
      const std::string printed =
          screenOutput([&] { korcommon::mtrace(level, "f.cpp", 1, "filter", "level %d", level); });
      const bool expected =
          std::find(row.passing.begin(), row.passing.end(), level) != row.passing.end();
      EXPECT_EQ(handle_.records().size(), expected ? 1u : 0u)
          << "configured " << row.configured << ", message level " << level;
      EXPECT_EQ(printed.empty(), !expected)
          << "configured " << row.configured << ", message level " << level;
    }
  }
}

TEST_F(TraceLogger, CutsTheMessageToTheBufferSize) {
  const std::string ten = "0123456789";
  const struct {
    int size;
    std::string expected;
  } cases[] = {
      {8, "0123456"}, {1, ""}, {10, "012345678"}, {11, ten}, {12, ten},
  };
  for (const auto& c : cases) {
    korcommon::set_log_size(c.size);
    const LogRecord record =
        publishedBy([&] { korcommon::mtrace(kInfo, "f.cpp", 1, "cut", "%s", ten.c_str()); });
    EXPECT_EQ(record->msg, c.expected) << "size " << c.size;
  }

  // The message is the text up to the first NUL, like the C string it is formatted as.
  korcommon::set_log_size(64);
  EXPECT_EQ(publishedBy([] { korcommon::mtrace(kInfo, "f.cpp", 1, "cut", "ab%ccd", 0); })->msg,
            "ab");

  // The default size of 256 keeps 255 characters.
  korcommon::set_log_size(256);
  const std::string long_text(300, 'y');
  EXPECT_EQ(publishedBy([&] {
              korcommon::mtrace(kInfo, "f.cpp", 1, "cut", "%s", long_text.c_str());
            })->msg,
            long_text.substr(0, 255));

  // Sizes far beyond any stack buffer: the whole text fits exactly, or is cut by one.
  korcommon::set_log_size(100000);
  const std::string fits(99999, 'x');
  EXPECT_EQ(
      publishedBy([&] { korcommon::mtrace(kInfo, "f.cpp", 1, "cut", "%s", fits.c_str()); })->msg,
      fits);
  const std::string overflows = fits + "z";
  EXPECT_EQ(publishedBy([&] {
              korcommon::mtrace(kInfo, "f.cpp", 1, "cut", "%s", overflows.c_str());
            })->msg,
            fits);
}

TEST_F(TraceLogger, IgnoresNonPositiveSizes) {
  korcommon::set_log_size(8);
  korcommon::set_log_size(0);
  korcommon::set_log_size(-3);
  EXPECT_EQ(korcommon::ROBOT_LOG_SIZE.load(), 8);
  EXPECT_EQ(publishedBy([] { korcommon::mtrace(kInfo, "f.cpp", 1, "size", "0123456789"); })->msg,
            "0123456");
}

TEST_F(TraceLogger, NegativeLevelSendsTheNextCallBackToTheEnvironment) {
  {
    ScopedEnv level("DOVA_LOG_LEVEL", "4");
    korcommon::set_log_level(-1);
    korcommon::mtrace(kWarn, "f.cpp", 1, "reset", "dropped at level 4");
    EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), 4);
    korcommon::mtrace(kError, "f.cpp", 1, "reset", "passes at level 4");
  }
  {
    ScopedEnv level("DOVA_LOG_LEVEL", std::nullopt);
    korcommon::set_log_level(-1);
    korcommon::mtrace(kDebug, "f.cpp", 1, "reset", "dropped at the default");
    EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), 2);
    korcommon::mtrace(kInfo, "f.cpp", 1, "reset", "passes at the default");
  }
  EXPECT_EQ(publishedMessages(),
            (std::vector<std::string>{"passes at level 4", "passes at the default"}));
}

TEST_F(TraceLogger, PublishesTheRecordFields) {
  const dova::Time before = dova::Time::now();
  const LogRecord record = publishedBy([] {
    korcommon::mtrace(kWarn, "a/b/c.cpp", 42, "publish", "joint %d temperature %.1f C", 3, 71.5);
  });
  const dova::Time after = dova::Time::now();

  EXPECT_EQ(record->level, 4);
  EXPECT_EQ(record->name, "trace_node");
  EXPECT_EQ(record->file, "c.cpp");
  EXPECT_EQ(record->line, 42u);
  EXPECT_EQ(record->function, "publish");
  EXPECT_EQ(record->msg, "joint 3 temperature 71.5 C");
  EXPECT_GE(record->header.stamp.toSec(), before.toSec());
  EXPECT_LE(record->header.stamp.toSec(), after.toSec());
  EXPECT_EQ(record->header.seq, 0u);
  EXPECT_EQ(record->header.frame_id, "");
  EXPECT_TRUE(record->topics.empty());
  EXPECT_EQ(record->pid, static_cast<uint64_t>(getpid()));
  EXPECT_EQ(record->tid, static_cast<uint64_t>(kernelThreadId()));

  // The level keeps its low 8 bits, whatever the value.
  EXPECT_EQ(publishedBy([] { korcommon::mtrace(32, "c.cpp", 1, "f", "x"); })->level, 32);
  EXPECT_EQ(publishedBy([] { korcommon::mtrace(300, "c.cpp", 1, "f", "x"); })->level, 44);

  // The file is reduced to its last path component.
  const struct {
    const char* file;
    std::string expected;
  } files[] = {
      {nullptr, ""},           {"c.cpp", "c.cpp"}, {"/abs/dir/x.h", "x.h"},
      {"a//b/c.cpp", "c.cpp"}, {"dir/", ""},       {"", ""},
  };
  for (const auto& f : files) {
    EXPECT_EQ(publishedBy([&] { korcommon::mtrace(kInfo, f.file, 7, "f", "x"); })->file, f.expected)
        << (f.file == nullptr ? "null" : f.file);
  }
  // The same last component as the path utilities give, for odd paths too.
  for (const char* file : {"/", "//", "a/.", "..", "./x", "a/b/.hidden", "trailing//", "//net",
                           "no_slash", "a/b/c.d.e", "dir\\file.cpp"}) {
    EXPECT_EQ(publishedBy([&] { korcommon::mtrace(kInfo, file, 7, "f", "x"); })->file,
              dova::filesystem::path(file).filename().string())
        << file;
  }
}

TEST_F(TraceLogger, CallsThroughAFunctionPointerBehaveAlike) {
  // Volatile, so the call reaches the exported function itself and not a
  // call-site copy of the filter.
  void (*volatile trace)(int, const char*, int, const char*, const char*, ...) = &korcommon::mtrace;
  korcommon::set_log_level(3);
  trace(kInfo, "c.cpp", 1, "f", "dropped %d", 1);
  trace(kWarn, "a/c.cpp", 2, "f", "passes %d %.1f", 2, 0.5);
  const std::vector<LogRecord> records = handle_.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]->msg, "passes 2 0.5");
  EXPECT_EQ(records[0]->file, "c.cpp");
  EXPECT_EQ(records[0]->line, 2u);
}

TEST_F(TraceLogger, RecordCarriesTheCallingThread) {
  const LogRecord from_main =
      publishedBy([] { korcommon::mtrace(kInfo, "c.cpp", 1, "f", "main"); });
  handle_.clear();
  pid_t worker_tid = 0;
  std::thread worker([&] {
    worker_tid = kernelThreadId();
    korcommon::mtrace(kInfo, "c.cpp", 2, "f", "worker");
  });
  worker.join();

  const std::vector<LogRecord> records = handle_.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]->msg, "worker");
  EXPECT_EQ(records[0]->tid, static_cast<uint64_t>(worker_tid));
  EXPECT_NE(records[0]->tid, from_main->tid);
  EXPECT_EQ(records[0]->pid, static_cast<uint64_t>(getpid()));
  // The calling thread's id again after another thread logged.
  EXPECT_EQ(publishedBy([] { korcommon::mtrace(kInfo, "c.cpp", 3, "f", "main again"); })->tid,
            static_cast<uint64_t>(kernelThreadId()));
}

TEST_F(TraceLogger, PublishesNothingWhenTheHandleIsNotOk) {
  handle_.setOk(false);
  korcommon::mtrace(kFatal, "c.cpp", 1, "f", "nobody listens");
  EXPECT_TRUE(handle_.records().empty());

  // Without the middleware the plain base handle answers: the call is only
  // printed, with an empty node name.
  dova::setNodeHandle(nullptr);
  dova::shutdown();
  ScopedEnv screen("DOVA_LOG_SCREEN", "1");
  const std::string output =
      screenOutput([] { korcommon::mtrace(kFatal, "c.cpp", 12, "f", "no middleware"); });
  ASSERT_TRUE(dova::init("trace_node"));
  EXPECT_NE(output.find("F/(" + std::to_string(getpid()) + "/"), std::string::npos) << output;
}

// Splits a screen line into the pieces the test checks.
struct ScreenLine {
  std::string date_time;  // "YYYY-mm-dd HH:MM:SS.mmm"
  std::string letter;
  std::string colour;
  std::string file;
  uint32_t clock_sec = 0;
  std::string clock_nsec;
  std::string text;
};

std::optional<ScreenLine> parseScreenLine(const std::string& output, const std::string& node) {
  const std::string ids =
      "\\(" + std::to_string(getpid()) + "/" + std::to_string(kernelThreadId()) + "\\): ";
  const std::regex shape("(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}) ([A-Z])/" + node +
                         ids +
                         "(\\x1b\\[1;[0-9]{2}m)([^(]*)\\(12\\) clk\\((\\d+)\\.(\\d+)\\) "
                         "([^\\x1b]*)\\x1b\\[1;00m\\n");
  std::smatch match;
  if (!std::regex_match(output, match, shape)) return std::nullopt;
  ScreenLine line;
  line.date_time = match[1];
  line.letter = match[2];
  line.colour = match[3];
  line.file = match[4];
  line.clock_sec = static_cast<uint32_t>(std::stoul(match[5]));
  line.clock_nsec = match[6];
  line.text = match[7];
  return line;
}

std::string localDateTime(const dova::Time& time) {
  const time_t seconds = static_cast<time_t>(time.sec);
  tm local{};
  localtime_r(&seconds, &local);
  char text[64];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  char milliseconds[8];
  snprintf(milliseconds, sizeof milliseconds, ".%03u", time.nsec / 1000000);
  return std::string(text) + milliseconds;
}

TEST_F(TraceLogger, PrintsTheScreenLine) {
  // A zone far from UTC, so that a line in UTC would show.
  ScopedEnv zone("TZ", "KST-9");
  tzset();
  ScopedEnv screen("DOVA_LOG_SCREEN", "1");

  const dova::Time before = dova::Time::WallTime();
  const std::string output =
      screenOutput([] { korcommon::mtrace(kInfo, "a/b/c.cpp", 12, "f", "hello"); });
  const dova::Time after = dova::Time::WallTime();

  // The exact shape, end to end.
  const std::regex exact("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} I/trace_node\\(" +
                         std::to_string(getpid()) + "/" + std::to_string(kernelThreadId()) +
                         "\\): \\x1b\\[1;00mc\\.cpp\\(12\\) clk\\(\\d+\\.\\d+\\) "
                         "hello\\x1b\\[1;00m\\n");
  EXPECT_TRUE(std::regex_match(output, exact)) << output;

  const std::optional<ScreenLine> line = parseScreenLine(output, "trace_node");
  ASSERT_TRUE(line) << output;
  // Local time of the wall clock, with milliseconds.
  EXPECT_GE(line->date_time, localDateTime(before));
  EXPECT_LE(line->date_time, localDateTime(after));
  // The middleware clock.
  EXPECT_GE(line->clock_sec, before.sec);
  EXPECT_LE(line->clock_sec, after.sec);
  EXPECT_EQ(line->file, "c.cpp");
  EXPECT_EQ(line->text, "hello");
  EXPECT_EQ(handle_.records().size(), 1u) << "printing does not replace publishing";

  // Its nanoseconds are not padded: seen on a line from the first tenth of a
  // second, which a few tries within two seconds always meet.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  bool seen_short = false;
  while (!seen_short && std::chrono::steady_clock::now() < deadline) {
    const std::optional<ScreenLine> next = parseScreenLine(
        screenOutput([] { korcommon::mtrace(kInfo, "a/b/c.cpp", 12, "f", "hello"); }),
        "trace_node");
    ASSERT_TRUE(next);
    seen_short = next->clock_nsec.size() < 9;
    EXPECT_TRUE(next->clock_nsec == "0" || next->clock_nsec[0] != '0') << next->clock_nsec;
    if (!seen_short) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(seen_short) << "no line from the first tenth of a second";
}

TEST_F(TraceLogger, ScreenLetterAndColourFollowTheLevel) {
  ScopedEnv screen("DOVA_LOG_SCREEN", "1");
  const std::string normal = "\x1b[1;00m";
  const std::string yellow = "\x1b[1;33m";
  const std::string red = "\x1b[1;31m";
  const struct {
    int level;
    const char* letter;
    std::string colour;
  } cases[] = {
      {kDebug, "D", normal}, {kInfo, "I", normal}, {kWarn, "W", yellow}, {kError, "E", red},
      {kFatal, "F", red},    {32, "D", normal},    {3, "D", normal},     {0, "D", normal},
  };
  for (const auto& c : cases) {
    const std::string output =
        screenOutput([&] { korcommon::mtrace(c.level, "x/y.cpp", 12, "f", "level %d", c.level); });
    const std::optional<ScreenLine> line = parseScreenLine(output, "trace_node");
    ASSERT_TRUE(line) << "level " << c.level << ": " << output;
    EXPECT_EQ(line->letter, c.letter) << "level " << c.level;
    EXPECT_EQ(line->colour, c.colour) << "level " << c.level;
    EXPECT_EQ(line->text, "level " + std::to_string(c.level));
  }

  // A null file prints an empty name; a cut message is printed cut.
  korcommon::set_log_size(8);
  const std::optional<ScreenLine> cut = parseScreenLine(
      screenOutput([] { korcommon::mtrace(kWarn, nullptr, 12, "f", "0123456789"); }), "trace_node");
  ASSERT_TRUE(cut);
  EXPECT_EQ(cut->file, "");
  EXPECT_EQ(cut->text, "0123456");
}

TEST_F(TraceLogger, ScreenFollowsTheEnvironmentAtEveryCall) {
  const auto printsLine = [] {
    const std::string output =
        screenOutput([] { korcommon::mtrace(kInfo, "c.cpp", 12, "f", "hello"); });
    return parseScreenLine(output, "trace_node").has_value();
  };
  const struct {
    std::optional<std::string> value;
    bool prints;
  } cases[] = {
      {std::nullopt, false}, {"2", false}, {"0", false}, {"", false},  {"-1", false},
      {"1", true},           {" 1", true}, {"1x", true}, {"01", true},
  };
  for (const auto& c : cases) {
    ScopedEnv screen("DOVA_LOG_SCREEN", c.value);
    EXPECT_EQ(printsLine(), c.prints) << "DOVA_LOG_SCREEN=" << c.value.value_or("(unset)");
  }
  // Nothing at all, not even a stray newline, when the screen is off.
  ScopedEnv screen("DOVA_LOG_SCREEN", "2");
  EXPECT_EQ(screenOutput([] { korcommon::mtrace(kFatal, "c.cpp", 12, "f", "quiet"); }), "");

  // Printed although nothing is published.
  ScopedEnv screen_on("DOVA_LOG_SCREEN", "1");
  handle_.setOk(false);
  handle_.clear();
  EXPECT_TRUE(printsLine());
  EXPECT_TRUE(handle_.records().empty());
}

TEST_F(TraceLogger, ConcurrentCallsAndSetters) {
  // Writers change the size while others log: every message is cut to one
  // of the sizes in use, never garbled, and none is lost.
  constexpr int kThreads = 4;
  constexpr int kCalls = 300;
  const std::string text(200, 'k');
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; !done.load(); ++i) {
      korcommon::set_log_size(16 + (i % 4) * 64);  // 16, 80, 144, 208
      korcommon::set_log_level(1 + i % 2);         // both let INFO through
    }
  });
  std::vector<std::thread> loggers;
  for (int t = 0; t < kThreads; ++t) {
    loggers.emplace_back([&] {
      for (int i = 0; i < kCalls; ++i)
        korcommon::mtrace(kInfo, "c.cpp", i, "f", "%s", text.c_str());
    });
  }
  for (std::thread& logger : loggers) logger.join();
  done.store(true);
  setter.join();

  const std::vector<std::string> messages = publishedMessages();
  ASSERT_EQ(messages.size(), static_cast<size_t>(kThreads * kCalls));
  for (const std::string& message : messages) {
    const size_t length = message.size();
    EXPECT_TRUE(length == 15 || length == 79 || length == 143 || length == 200) << length;
    EXPECT_EQ(message, text.substr(0, length));
  }
}

// A node handle that passes every record to the test's function.
class ForwardingNodeHandle : public dova::NodeHandleBase {
 public:
  explicit ForwardingNodeHandle(std::function<void(const LogRecord&)> forward)
      : forward_(std::move(forward)) {}
  bool ok() const override { return true; }
  void log(const LogRecord& record) override { forward_(record); }

 private:
  std::function<void(const LogRecord&)> forward_;
};

// Installs `handle` for the scope.
class ScopedNodeHandle {
 public:
  explicit ScopedNodeHandle(dova::NodeHandleBase* handle)
      : previous_(dova::setNodeHandle(handle)) {}
  ~ScopedNodeHandle() { dova::setNodeHandle(previous_); }
  ScopedNodeHandle(const ScopedNodeHandle&) = delete;
  ScopedNodeHandle& operator=(const ScopedNodeHandle&) = delete;

 private:
  dova::NodeHandleBase* previous_;
};

std::string numberedMessage(int number) {
  // Long enough that the text lives on the heap, where a reused buffer shows.
  return "message number " + std::to_string(number) + " of the recycling test";
}

TEST_F(TraceLogger, RecyclesRecordsOnlyOnceNothingReachesThem) {
  constexpr int kCalls = 300;
  // A record still held, or still watched through a weak_ptr, is never
  // rewritten; a weak_ptr to a record nobody holds has expired.
  std::vector<std::pair<int, LogRecord>> held;
  std::vector<std::weak_ptr<const Log>> watched;
  {
    int call = 0;
    ForwardingNodeHandle keeping([&](const LogRecord& record) {
      if (call % 3 == 0) held.emplace_back(call, record);
      watched.push_back(record);
      ++call;
    });
    const ScopedNodeHandle installed(&keeping);
    for (int i = 0; i < kCalls; ++i) {
      korcommon::mtrace(kInfo, "c.cpp", i, "f", "%s", numberedMessage(i).c_str());
    }
  }
  for (const auto& [number, record] : held) {
    EXPECT_EQ(record->msg, numberedMessage(number));
    EXPECT_EQ(record->line, static_cast<uint32_t>(number));
  }
  for (size_t i = 0; i < watched.size(); ++i) {
    if (i % 3 != 0) {
      EXPECT_TRUE(watched[i].expired()) << i;
    }
  }
}

TEST_F(TraceLogger, RecordsReleasedOnOtherThreadsAndAfterTheirThreadEnded) {
  // A consumer thread checks and drops records while the logging thread goes
  // on: a record reused before its consumer let go would show another text.
  std::mutex mutex;
  std::condition_variable ready;
  std::vector<std::pair<int, LogRecord>> queue;
  bool finished = false;
  int call = 0;
  ForwardingNodeHandle queueing([&](const LogRecord& record) {
    std::lock_guard<std::mutex> lock(mutex);
    queue.emplace_back(call++, record);
    ready.notify_one();
  });
  const ScopedNodeHandle installed(&queueing);
  int mismatches = 0;
  int consumed = 0;
  std::thread consumer([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      ready.wait(lock, [&] { return !queue.empty() || finished; });
      if (queue.empty()) return;
      std::vector<std::pair<int, LogRecord>> batch;
      batch.swap(queue);
      lock.unlock();
      for (const auto& [number, record] : batch) {
        if (record->msg != numberedMessage(number)) ++mismatches;
        ++consumed;
      }
      batch.clear();  // released here, on the consumer's thread
      lock.lock();
    }
  });
  constexpr int kCalls = 20000;
  for (int i = 0; i < kCalls; ++i) {
    korcommon::mtrace(kInfo, "c.cpp", i, "f", "%s", numberedMessage(i).c_str());
  }
  // Records of a thread that has ended stay intact until their last holder
  // drops them, and are freed then (AddressSanitizer checks both).
  std::thread([&] {
    for (int i = kCalls; i < kCalls + 8; ++i) {
      korcommon::mtrace(kInfo, "c.cpp", i, "f", "%s", numberedMessage(i).c_str());
    }
  }).join();
  {
    std::lock_guard<std::mutex> lock(mutex);
    finished = true;
    ready.notify_one();
  }
  consumer.join();
  EXPECT_EQ(consumed, kCalls + 8);
  EXPECT_EQ(mismatches, 0);
}

// Destroyed after the logger's own per-thread state, and traces then.
struct TracesWhenDestroyed {
  ~TracesWhenDestroyed() { korcommon::mtrace(kInfo, "c.cpp", 2, "f", "%s", "thread ending"); }
};

TEST_F(TraceLogger, TracesFromTheLastDestructorsOfAThread) {
  std::thread([] {
    thread_local TracesWhenDestroyed tracer;
    (void)&tracer;
    korcommon::mtrace(kInfo, "c.cpp", 1, "f", "%s", "thread running");
  }).join();
  EXPECT_EQ(publishedMessages(), (std::vector<std::string>{"thread running", "thread ending"}));
}

// The record as the platform itself delivers it to a subscriber of "/dova_log",
// including the latched record a late subscriber receives on joining.
TEST_F(TraceLogger, ReachesSubscribersThroughThePlatform) {
  dova::setNodeHandle(nullptr);
  struct Received {
    std::mutex mutex;
    std::vector<LogRecord> records;
  };
  // Left to the platform until shutdown: it keeps a plain pointer to it.
  auto received = std::make_shared<Received>();
  auto subscriber = std::make_unique<dova::Subscriber<Log>>();
  subscriber->setTopic("/dova_log");
  subscriber->callback_kind = 2;
  subscriber->callback_ptr = [received](const LogRecord& record) {
    std::lock_guard<std::mutex> lock(received->mutex);
    received->records.push_back(record);
  };

  korcommon::mtrace(kInfo, "a/b/late.cpp", 5, "early", "before anyone listened");
  korcommon::mtrace(kInfo, "a/b/late.cpp", 6, "early", "latest before joining");
  ASSERT_TRUE(dova::nh()->subscribe(*subscriber, true, true, -1));
  korcommon::mtrace(kWarn, "a/b/live.cpp", 7, "live", "after joining");

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::vector<LogRecord> records;
  while (std::chrono::steady_clock::now() < deadline) {
    {
      std::lock_guard<std::mutex> lock(received->mutex);
      records = received->records;
    }
    if (records.size() >= 2) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  dova::shutdown();  // the subscriber is released by the platform before it goes
  subscriber.reset();
  ASSERT_TRUE(dova::init("trace_node"));

  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0]->msg, "latest before joining");
  EXPECT_EQ(records[0]->line, 6u);
  EXPECT_EQ(records[1]->msg, "after joining");
  EXPECT_EQ(records[1]->file, "live.cpp");
  EXPECT_EQ(records[1]->function, "live");
  EXPECT_EQ(records[1]->level, kWarn);
  for (const LogRecord& record : records) {
    EXPECT_EQ(record->name, "trace_node");
    EXPECT_EQ(record->caller_id, "trace_node");
    EXPECT_EQ(record->pid, static_cast<uint64_t>(getpid()));
    EXPECT_EQ(record->tid, static_cast<uint64_t>(kernelThreadId()));
  }
}

}  // namespace
