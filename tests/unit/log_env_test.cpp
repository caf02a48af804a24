// The trace logger reads "DOVA_LOG_LEVEL" and "DOVA_LOG_SIZE" once, at its
// first call, so every case here needs a process of its own with its own
// environment: each is registered as a separate ctest test that runs this
// binary with one --gtest_filter and the environment the case expects.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/os/node_handle_base.h"
#include "korcommon/log.h"

namespace {

using LogRecord = std::shared_ptr<const dova::dova_msgs::Log>;

constexpr int kDebug = 1;
constexpr int kInfo = 2;
constexpr int kWarn = 4;
constexpr int kError = 8;
constexpr int kFatal = 16;

// Stands in for the middleware's node handle: always ok, and keeps every
// record it is handed.
class RecordingNodeHandle : public dova::NodeHandleBase {
 public:
  bool ok() const override { return true; }
  void log(const LogRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  }
  std::vector<std::string> messages() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> texts;
    for (const LogRecord& record : records_) texts.push_back(record->msg);
    return texts;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
};

class TraceLoggerEnv : public ::testing::Test {
 protected:
  void SetUp() override {
    // Nothing may have logged yet in this process, or the case tests nothing.
    ASSERT_LT(korcommon::ROBOT_LOG_LEVEL.load(), 0);
    ASSERT_LT(korcommon::ROBOT_LOG_SIZE.load(), 0);
    previous_ = dova::setNodeHandle(&handle_);
  }
  void TearDown() override { dova::setNodeHandle(previous_); }

  static void logAtEveryLevel() {
    for (int level : {kDebug, kInfo, 3, kWarn, 5, kError, kFatal, 32}) {
      korcommon::mtrace(level, "c.cpp", 1, "env", "level %d", level);
    }
  }

  RecordingNodeHandle handle_;

 private:
  dova::NodeHandleBase* previous_ = nullptr;
};

using Messages = std::vector<std::string>;

// No variables: level 2, size 256.
TEST_F(TraceLoggerEnv, Defaults) {
  logAtEveryLevel();
  EXPECT_EQ(handle_.messages(), (Messages{"level 2", "level 3", "level 4", "level 5", "level 8",
                                          "level 16", "level 32"}));
  EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), 2);
  EXPECT_EQ(korcommon::ROBOT_LOG_SIZE.load(), 256);
}

// DOVA_LOG_LEVEL=3: WARN and up; 3 and 5 are no constants but compare as numbers.
TEST_F(TraceLoggerEnv, Level3) {
  logAtEveryLevel();
  EXPECT_EQ(handle_.messages(),
            (Messages{"level 4", "level 5", "level 8", "level 16", "level 32"}));
  EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), 3);
}

// DOVA_LOG_LEVEL=" 4junk": read the way strtol reads it.
TEST_F(TraceLoggerEnv, LevelParsedLikeStrtol) {
  logAtEveryLevel();
  EXPECT_EQ(handle_.messages(), (Messages{"level 8", "level 16", "level 32"}));
  EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), 4);
}

// DOVA_LOG_LEVEL=0 or 6, with the screen on: nothing is ever published or printed.
TEST_F(TraceLoggerEnv, LoggingOff) {
  ::testing::internal::CaptureStdout();
  logAtEveryLevel();
  logAtEveryLevel();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(handle_.messages().empty());
}

// DOVA_LOG_LEVEL=-1: the level stays unread, so every call reads the
// environment again; a later value takes effect at the next call.
TEST_F(TraceLoggerEnv, NegativeLevelRereadsTheEnvironment) {
  logAtEveryLevel();
  EXPECT_TRUE(handle_.messages().empty());
  EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), -1);

  setenv("DOVA_LOG_LEVEL", "5", 1);
  korcommon::mtrace(kError, "c.cpp", 1, "env", "dropped at 5");
  korcommon::mtrace(kFatal, "c.cpp", 1, "env", "passes at 5");
  EXPECT_EQ(handle_.messages(), Messages{"passes at 5"});
  EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), 5);
}

// DOVA_LOG_SIZE=8, with the screen on: ten characters become seven, published and printed.
TEST_F(TraceLoggerEnv, Size8) {
  ::testing::internal::CaptureStdout();
  korcommon::mtrace(kInfo, "c.cpp", 1, "env", "0123456789");
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(handle_.messages(), Messages{"0123456"});
  EXPECT_NE(printed.find(") 0123456\x1b[1;00m\n"), std::string::npos) << printed;
  EXPECT_EQ(printed.find("01234567"), std::string::npos) << printed;
  EXPECT_EQ(korcommon::ROBOT_LOG_SIZE.load(), 8);
}

// DOVA_LOG_SIZE=-5, 0, or a value that is 0 as a 32-bit integer: the default 256 stays.
TEST_F(TraceLoggerEnv, NonPositiveSizeKeepsTheDefault) {
  const std::string text(300, 's');
  korcommon::mtrace(kInfo, "c.cpp", 1, "env", "%s", text.c_str());
  EXPECT_EQ(handle_.messages(), Messages{text.substr(0, 255)});
  EXPECT_EQ(korcommon::ROBOT_LOG_SIZE.load(), 256);
}

// DOVA_LOG_LEVEL=5 and DOVA_LOG_SIZE=4: setters called before the first call win,
// and the environment is not read for them; a negative level later goes back to it.
TEST_F(TraceLoggerEnv, SettersWinOverTheEnvironment) {
  korcommon::set_log_level(2);
  korcommon::set_log_size(64);
  korcommon::mtrace(kInfo, "c.cpp", 1, "env", "set before the first call");
  EXPECT_EQ(handle_.messages(), Messages{"set before the first call"});

  korcommon::set_log_level(-1);
  korcommon::mtrace(kError, "c.cpp", 1, "env", "dropped at 5");
  korcommon::mtrace(kFatal, "c.cpp", 1, "env", "back to the environment");
  EXPECT_EQ(handle_.messages(), (Messages{"set before the first call", "back to the environment"}));
  EXPECT_EQ(korcommon::ROBOT_LOG_LEVEL.load(), 5);
  EXPECT_EQ(korcommon::ROBOT_LOG_SIZE.load(), 64);
}

}  // namespace
