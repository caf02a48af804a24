#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
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
    for (const char* name : {"DOVA_TRANSPORT", "DOVA_MODE", "DOVA_DOMAIN_ID"}) unsetenv(name);
  }
  void TearDown() override {
    dova::setNodeHandle(nullptr);
    dova::shutdown();
  }
};

TEST_F(DovaInit, PlainHandleBeforeInitAndAfterShutdown) {
  EXPECT_FALSE(dova::nh()->ok());
  EXPECT_EQ(dova::nh()->inited, 0u);
  EXPECT_EQ(dova::getNodeName(), "");
  ASSERT_TRUE(dova::init("walker"));
  dova::NodeHandleBase* running = dova::nh();
  EXPECT_TRUE(running->ok());
  EXPECT_EQ(running->inited, 1u);
  EXPECT_EQ(running->mode, 1u) << "the default mode";
  EXPECT_EQ(dova::getNodeName(), "walker");

  dova::shutdown();
  EXPECT_FALSE(dova::nh()->ok());
  EXPECT_EQ(dova::nh()->inited, 0u);
  EXPECT_EQ(dova::getNodeName(), "");
  EXPECT_FALSE(running->ok()) << "a kept pointer sees a stopped handle, not freed memory";
  dova::shutdown();  // a second shutdown is harmless
  ASSERT_TRUE(dova::init("walker_again")) << "init works again after shutdown";
  EXPECT_EQ(dova::getNodeName(), "walker_again");
}

TEST_F(DovaInit, RefusesBadRequestsWithAnErrorAndChangesNothing) {
  const TraceCapture capture;
  const struct {
    const char* node;
    dova::Options options;
    const char* named;  // in the error
  } refused[] = {
      {"", {}, ""},
      {"n", {"carrier-pigeon", -1, true, -1}, "carrier-pigeon"},
      {"n", {"", 3, true, -1}, "3"},
      {"n", {"", -2, true, -1}, "-2"},
      {"n", {"", 0, true, 233}, "233"},
  };
  for (const auto& request : refused) EXPECT_FALSE(dova::init(request.node, request.options));
  EXPECT_FALSE(dova::nh()->ok());
  EXPECT_EQ(dova::getNodeName(), "");
  ASSERT_TRUE(dova::init("first"));
  EXPECT_FALSE(dova::init("second")) << "already running";
  EXPECT_EQ(dova::getNodeName(), "first");

  // The environment stands in for options not given; bad values there are refused too.
  dova::shutdown();
  for (const auto& [name, value] : std::vector<std::pair<const char*, const char*>>{
           {"DOVA_MODE", "fast"}, {"DOVA_TRANSPORT", "smoke-signals"}, {"DOVA_DOMAIN_ID", "-5"}}) {
    setenv(name, value, 1);
    EXPECT_FALSE(dova::init("bad_env")) << name;
    unsetenv(name);
  }
  const std::vector<TraceReport> reports = capture.reports();
  ASSERT_EQ(reports.size(), 9u);
  for (size_t i = 0; i < reports.size(); ++i) {
    EXPECT_EQ(reports[i].level, dova::ERROR);
    EXPECT_EQ(reports[i].function, "init");
    const std::string named = i < 5 ? refused[i].named : i == 5 ? "first" : "";
    EXPECT_NE(reports[i].text.find(named), std::string::npos) << reports[i].text;
    EXPECT_NE(reports[i].text, "");
  }
}

TEST_F(DovaInit, ModeComesFromTheOptionsThenTheEnvironment) {
  setenv("DOVA_MODE", "2", 1);
  setenv("DOVA_TRANSPORT", "local", 1);
  ASSERT_TRUE(dova::init("env_node"));
  EXPECT_EQ(dova::nh()->mode, 2u);
  dova::shutdown();
  ASSERT_TRUE(dova::init("explicit", dova::Options{"", 0, true, -1}));
  EXPECT_EQ(dova::nh()->mode, 0u);
}

TEST_F(DovaInit, InstalledHandleStandsInUntilRemoved) {
  dova::NodeHandleBase stand_in;
  EXPECT_EQ(dova::setNodeHandle(&stand_in), nullptr);
  EXPECT_EQ(dova::nh(), &stand_in);
  ASSERT_TRUE(dova::init("node"));
  EXPECT_EQ(dova::nh(), &stand_in) << "an installed handle wins over the platform's";
  EXPECT_EQ(dova::setNodeHandle(nullptr), &stand_in);
  EXPECT_TRUE(dova::nh()->ok()) << "the platform's handle is back";
}

TEST(DovaCallerId, TakesThePrefixUpToTheFirstNul) {
  uint8_t named[40] = {};
  std::memcpy(named, "leg_controller", 14);
  uint8_t full[40];
  std::memset(full, 'x', sizeof full);
  uint8_t empty[32] = {};
  EXPECT_EQ(dova::getCallerId(named, 40), "leg_controller");
  EXPECT_EQ(dova::getCallerId(named, 32), "leg_controller");
  EXPECT_EQ(dova::getCallerId(named, 31), "") << "shorter than the prefix";
  EXPECT_EQ(dova::getCallerId(nullptr, 40), "");
  EXPECT_EQ(dova::getCallerId(full, 40), std::string(32, 'x')) << "no NUL: all 32 bytes";
  EXPECT_EQ(dova::getCallerId(empty, 32), "");
}

TEST(DovaTrace, SinkReceivesFormattedTextUntilTheDefaultIsBack) {
  std::vector<TraceReport> records;
  EXPECT_FALSE(dova::setTraceSink([&records](int level, const char* file, int line,
                                             const char* function, const std::string& text) {
    records.push_back({level, file, line, function, text});
  })) << "the default sink is reported as empty";
  dova::mtrace(dova::WARN, "a/b/c.cpp", 12, "thread_loop", false, "%s took %.2f ms", "pool", 51.5);
  const std::string long_text(5000, 'z');
  dova::mtrace(dova::DEBUG, "d.cpp", 3, "quiet", false, "%s", long_text.c_str());
  EXPECT_TRUE(dova::setTraceSink(nullptr));
  ::testing::internal::CaptureStderr();
  dova::mtrace(dova::INFO, "dir/file.cpp", 7, "hidden", false, "not shown");
  dova::mtrace(dova::INFO, "dir/file.cpp", 8, "forced", true, "shown %d", 1);
  dova::mtrace(dova::WARN, "dir/file.cpp", 9, "warned", false, "shown %d", 2);
  const std::string printed = ::testing::internal::GetCapturedStderr();

  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, dova::WARN);
  EXPECT_EQ(records[0].file, "a/b/c.cpp");
  EXPECT_EQ(records[0].line, 12);
  EXPECT_EQ(records[0].function, "thread_loop");
  EXPECT_EQ(records[0].text, "pool took 51.50 ms");
  EXPECT_EQ(records[1].text, long_text) << "long texts are not cut";
  // The default sink: WARN and above, or every level with the flag.
  EXPECT_EQ(printed.find("not shown"), std::string::npos) << printed;
  EXPECT_NE(printed.find("[INFO] forced (file.cpp:8): shown 1\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("[WARN] warned (file.cpp:9): shown 2\n"), std::string::npos) << printed;
}

}  // namespace
