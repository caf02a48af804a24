#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/trace.h"
#include "trace_capture.h"

namespace {

using korcommon::testing::TraceCapture;
using korcommon::testing::TraceReport;

class DovaInit : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("DOVA_TRANSPORT");
    unsetenv("DOVA_MODE");
    unsetenv("DOVA_DOMAIN_ID");
  }
  void TearDown() override {
    dova::setNodeHandle(nullptr);
    dova::shutdown();
  }
};

TEST_F(DovaInit, PlainHandleBeforeInitAndAfterShutdown) {
  EXPECT_NE(dova::nh(), nullptr);
  EXPECT_FALSE(dova::nh()->ok());
  EXPECT_EQ(dova::nh()->inited, 0u);
  EXPECT_EQ(dova::getNodeName(), "");

  ASSERT_TRUE(dova::init("walker"));
  dova::NodeHandleBase* running = dova::nh();
  EXPECT_TRUE(running->ok());
  EXPECT_EQ(running->inited, 1u);
  EXPECT_EQ(running->mode, 1u) << "mode 1 is the default";
  EXPECT_EQ(dova::getNodeName(), "walker");

  dova::shutdown();
  EXPECT_FALSE(dova::nh()->ok());
  EXPECT_EQ(dova::nh()->inited, 0u);
  EXPECT_EQ(dova::getNodeName(), "");
  // A caller that kept the old pointer sees a stopped handle, not freed memory.
  EXPECT_FALSE(running->ok());

  dova::shutdown();  // a second shutdown is harmless
  ASSERT_TRUE(dova::init("walker_again")) << "init works again after shutdown";
  EXPECT_EQ(dova::getNodeName(), "walker_again");
}

TEST_F(DovaInit, RefusesBadRequestsWithAnErrorAndChangesNothing) {
  TraceCapture capture;
  EXPECT_FALSE(dova::init(""));
  EXPECT_FALSE(dova::init("n", dova::Options{"carrier-pigeon", -1, true, -1}));
  EXPECT_FALSE(dova::init("n", dova::Options{"", 3, true, -1}));
  EXPECT_FALSE(dova::init("n", dova::Options{"", -2, true, -1}));
  EXPECT_FALSE(dova::init("n", dova::Options{"", 0, true, 233}));
  EXPECT_FALSE(dova::nh()->ok());
  EXPECT_EQ(dova::getNodeName(), "");

  ASSERT_TRUE(dova::init("first"));
  EXPECT_FALSE(dova::init("second"));
  EXPECT_EQ(dova::getNodeName(), "first");

  ASSERT_EQ(capture.reports().size(), 6u);
  for (const TraceReport& record : capture.reports()) {
    EXPECT_EQ(record.level, dova::ERROR);
    EXPECT_EQ(record.function, "init");
    EXPECT_FALSE(record.text.empty());
  }
  EXPECT_NE(capture.reports()[1].text.find("carrier-pigeon"), std::string::npos);
  EXPECT_NE(capture.reports()[5].text.find("first"), std::string::npos);
}

TEST_F(DovaInit, OptionsFallBackToTheEnvironment) {
  setenv("DOVA_MODE", "2", 1);
  setenv("DOVA_TRANSPORT", "local", 1);
  ASSERT_TRUE(dova::init("env_node"));
  EXPECT_EQ(dova::nh()->mode, 2u);
  dova::shutdown();

  ASSERT_TRUE(dova::init("explicit", dova::Options{"", 0, true, -1}));
  EXPECT_EQ(dova::nh()->mode, 0u) << "an explicit mode wins over DOVA_MODE";
  dova::shutdown();

  TraceCapture capture;
  setenv("DOVA_MODE", "fast", 1);
  EXPECT_FALSE(dova::init("bad_env"));
  setenv("DOVA_MODE", "1", 1);
  setenv("DOVA_TRANSPORT", "smoke-signals", 1);
  EXPECT_FALSE(dova::init("bad_env"));
  setenv("DOVA_TRANSPORT", "local", 1);
  setenv("DOVA_DOMAIN_ID", "-5", 1);
  EXPECT_FALSE(dova::init("bad_env"));
  EXPECT_EQ(capture.reports().size(), 3u);
}

TEST_F(DovaInit, InstalledHandleStandsInUntilRemoved) {
  struct StandIn : dova::NodeHandleBase {
    bool ok() const override { return true; }
  } stand_in;

  EXPECT_EQ(dova::setNodeHandle(&stand_in), nullptr);
  EXPECT_EQ(dova::nh(), &stand_in);
  ASSERT_TRUE(dova::init("node"));
  EXPECT_EQ(dova::nh(), &stand_in) << "an installed handle wins over the platform's";
  EXPECT_EQ(dova::setNodeHandle(nullptr), &stand_in);
  EXPECT_NE(dova::nh(), &stand_in);
  EXPECT_TRUE(dova::nh()->ok()) << "the platform's handle is back";
}

TEST_F(DovaInit, ConcurrentCallersAlwaysGetAUsableHandle) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&stop] {
      while (!stop.load()) {
        dova::NodeHandleBase* handle = dova::nh();
        (void)handle->ok();
        (void)dova::getNodeName();
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    ASSERT_TRUE(dova::init("churn"));
    dova::shutdown();
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
}

TEST(DovaCallerId, TakesThePrefixUpToTheFirstNul) {
  uint8_t frame[40] = {};
  std::memcpy(frame, "leg_controller", 14);
  EXPECT_EQ(dova::getCallerId(frame, 40), "leg_controller");
  EXPECT_EQ(dova::getCallerId(frame, 32), "leg_controller");
  EXPECT_EQ(dova::getCallerId(frame, 31), "") << "shorter than the prefix";
  EXPECT_EQ(dova::getCallerId(nullptr, 40), "");

  std::memset(frame, 'x', sizeof frame);
  EXPECT_EQ(dova::getCallerId(frame, 40), std::string(32, 'x')) << "no NUL: all 32 bytes";

  std::memset(frame, 0, sizeof frame);
  EXPECT_EQ(dova::getCallerId(frame, 32), "");
}

TEST(DovaTrace, SinkReceivesFormattedTextAndCanBeRestored) {
  std::vector<TraceReport> records;
  dova::TraceSink previous =
      dova::setTraceSink([&records](int level, const char* file, int line, const char* function,
                                    const std::string& text) {
        records.push_back({level, file, line, function, text});
      });
  EXPECT_FALSE(previous) << "the default sink is reported as empty";

  dova::mtrace(dova::WARN, "a/b/c.cpp", 12, "thread_loop", false, "%s took %.2f ms", "pool", 51.5);
  const std::string long_text(5000, 'z');
  dova::mtrace(dova::DEBUG, __FILE__, __LINE__, "quiet", false, "%s", long_text.c_str());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, dova::WARN);
  EXPECT_EQ(records[0].file, "a/b/c.cpp");
  EXPECT_EQ(records[0].line, 12);
  EXPECT_EQ(records[0].function, "thread_loop");
  EXPECT_EQ(records[0].text, "pool took 51.50 ms");
  EXPECT_EQ(records[1].text, long_text) << "long texts are not cut";

  EXPECT_TRUE(static_cast<bool>(dova::setTraceSink(nullptr)));
  dova::mtrace(dova::ERROR, "f.cpp", 1, "f", false, "to standard error");
  EXPECT_EQ(records.size(), 2u) << "the default sink is back";
}

TEST(DovaTrace, DefaultSinkPrintsWarningsAndAboveOrEverythingWithTheFlag) {
  ::testing::internal::CaptureStderr();
  dova::mtrace(dova::INFO, "dir/file.cpp", 7, "hidden", false, "not shown");
  dova::mtrace(dova::INFO, "dir/file.cpp", 8, "forced", true, "shown %d", 1);
  dova::mtrace(dova::WARN, "dir/file.cpp", 9, "warned", false, "shown %d", 2);
  const std::string output = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(output.find("not shown"), std::string::npos);
  EXPECT_NE(output.find("[INFO] forced (file.cpp:8): shown 1\n"), std::string::npos) << output;
  EXPECT_NE(output.find("[WARN] warned (file.cpp:9): shown 2\n"), std::string::npos) << output;
}

}  // namespace
