// The DDS transport between processes, on loopback in a domain of this test process's own.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"
#include "dds_domain.h"
#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/topics.h"
#include "korcommon/Diagnostics.h"
#include "threads.h"
#include "trace_capture.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using korcommon::testing::ChildProcess;
using namespace std::chrono_literals;

using Inbox = korcommon::testing::Inbox<DiagnosticValue>;

size_t countFrom(const std::vector<DiagnosticValue>& all, const std::string& prefix) {
  size_t count = 0;
  for (const DiagnosticValue& report : all) count += report.caller_id.rfind(prefix, 0) == 0;
  return count;
}

class DdsTransport : public ::testing::Test {
 protected:
  void SetUp() override { korcommon::testing::claimDdsDomain(); }
  void TearDown() override { dova::shutdown(); }

  // Joins as "dds_test" and subscribes the inbox to the reports of every process.
  void join(int mode, bool latched) {
    ASSERT_TRUE(dova::init("dds_test", dova::Options{"dds", mode, true, -1}));
    subscriber_.setTopic(dova::msgs::kDiagnosticsTopic);
    subscriber_.callback_kind = 0;
    subscriber_.callback_ref = [inbox = inbox_, then = then_](const DiagnosticValue& value) {
      if (then) then();
      inbox->add(value);
    };
    ASSERT_TRUE(dova::nh()->subscribe(subscriber_, latched, true, -1));
  }

  std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
  std::function<void()> then_;  // run by the subscriber before each report goes in the inbox

 private:
  dova::Subscriber<DiagnosticValue> subscriber_;  // outlives the shutdown in TearDown
};

TEST_F(DdsTransport, LateJoinerGetsTheLatestPerNameAndNoMalformedOrForeignSample) {
  // 30 reports each over three names, before anybody listens.
  ChildProcess alpha(DDS_PROBE, {"publish", "alpha", "30", "3", "0"});
  ChildProcess beta(DDS_PROBE, {"publish", "beta", "30", "3", "0"});
  ASSERT_TRUE(alpha.waitForOutput("published 30")) << alpha.errors();
  ASSERT_TRUE(beta.waitForOutput("published 30")) << beta.errors();
  korcommon::testing::TraceCapture capture;
  // Hand-made samples, written once the joiner is there; only the last is sound.
  ChildProcess raw(DDS_PROBE,
                   {"raw", "crafter", "truncated", "overlong", "short", "md5", "md5", "good"});
  join(2, true);
  // Samples of one writer arrive in order: once the last is in, the others were handled.
  ASSERT_TRUE(inbox_->waitFor(7)) << raw.errors();
  EXPECT_FALSE(inbox_->waitFor(8, 1s)) << "anything beyond the state would come right behind it";
  std::vector<std::string> latest;
  for (const DiagnosticValue& report : inbox_->items()) {
    latest.push_back(report.name + " " + report.caller_id + " " + std::to_string(report.code));
  }
  std::sort(latest.begin(), latest.end());
  EXPECT_EQ(latest,
            (std::vector<std::string>{"alpha/r0 alpha 27", "alpha/r1 alpha 28", "alpha/r2 alpha 29",
                                      "beta/r0 beta 27", "beta/r1 beta 28", "beta/r2 beta 29",
                                      "raw/good crafter 5"}));
  EXPECT_EQ(capture.count(dova::WARN, "deliver", "not one well-formed"), 3u);
  EXPECT_EQ(capture.count(dova::WARN, "negotiateTopics", "crafter"), 1u) << "once per publisher";
}

TEST_F(DdsTransport, ReportsArriveInOrderPerPublisherAndNoneIsLostToAKilledOrAnEchoingPeer) {
  join(1, false);
  ChildProcess victim(DDS_PROBE, {"publish", "victim", "1000000", "1", "1"});
  ASSERT_TRUE(inbox_->waitUntil([](const auto& all) { return countFrom(all, "victim") >= 2000; }));
  victim.signal(SIGKILL);
  victim.wait();
  constexpr size_t kReports = 2000;
  std::vector<std::unique_ptr<ChildProcess>> publishers;
  for (const char* node : {"pub0", "pub1", "pub2"}) {
    publishers.push_back(std::make_unique<ChildProcess>(
        DDS_PROBE, std::vector<std::string>{"publish", node, std::to_string(kReports), "3", "1"}));
  }
  ASSERT_TRUE(inbox_->waitUntil([](const auto& all) {
    return countFrom(all, "pub") == 3 * kReports;
  })) << countFrom(inbox_->items(), "pub");
  // Every publisher's codes count up from 0 without a gap; the victim's stop anywhere.
  std::map<std::string, int> next_code;
  for (const DiagnosticValue& report : inbox_->items()) {
    EXPECT_EQ(report.code, next_code[report.caller_id]++) << "from " << report.caller_id;
  }
  EXPECT_EQ(next_code.size(), 4u);

  // A mode 0 callback that publishes (the echo's) loses nothing. The publishers are done.
  inbox_->take();
  ChildProcess echo(DDS_PROBE, {"echo", "echo"});
  ASSERT_TRUE(echo.waitForOutput("ready")) << echo.errors();
  for (int attempt = 0; attempt < 300 && !inbox_->waitFor(1, 100ms); ++attempt) {
    korcommon::Diagnostics::publish("hello", 0, 0, "");  // until the two have found each other
  }
  // A burst far beyond what a writer may hold unacknowledged, while the echo's
  // acknowledgements arrive on the thread that runs its callback. Every 100th
  // report travels in several fragments; the echo sends the text back.
  constexpr size_t kBurst = 3000;
  const auto text = [](int code) {
    std::string letters(code % 100 == 0 ? 20000 : 200, ' ');
    for (size_t i = 0; i < letters.size(); ++i)
      letters[i] = static_cast<char>('a' + (i + static_cast<size_t>(code)) % 26);
    return letters;
  };
  for (size_t code = 0; code < kBurst; ++code) {
    korcommon::Diagnostics::publish("burst", static_cast<int>(code), 0,
                                    text(static_cast<int>(code)));
  }
  const auto echoes = [&](const std::vector<DiagnosticValue>& all) {
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const auto& report) {
      return report.name == "echo/burst" && report.message == text(report.code);
    }));
  };
  EXPECT_TRUE(inbox_->waitUntil([&](const auto& all) { return echoes(all) == kBurst; }))
      << echoes(inbox_->items()) << " echoes; " << echo.errors();
}

TEST_F(DdsTransport, AModeZeroCallbackMayShutTheNodeDown) {
  then_ = [] { dova::shutdown(); };  // on the thread that received the report
  join(0, false);
  ChildProcess publisher(DDS_PROBE, {"publish", "pub0", "1000000", "1", "1"});
  ASSERT_TRUE(inbox_->waitFor(1)) << publisher.errors();
  EXPECT_FALSE(inbox_->waitFor(2, 1s)) << "no delivery after the shutdown";
  EXPECT_FALSE(dova::nh()->ok());
}

}  // namespace
