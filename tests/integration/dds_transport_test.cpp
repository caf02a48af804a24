#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "child_process.h"
#include "dds_fixture.h"
#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "trace_capture.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using korcommon::testing::ChildProcess;
using korcommon::testing::TraceCapture;
using namespace std::chrono_literals;

struct Received {
  std::string caller_id;
  std::string name;
  int code;
};

// Collects the reports one subscription receives, from any thread.
class Inbox {
 public:
  void add(const DiagnosticValue& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back({value.caller_id, value.name, value.code});
    changed_.notify_all();
  }

  bool waitFor(const std::function<bool(const std::vector<Received>&)>& done,
               std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(received_); });
  }

  bool waitForCount(size_t count, std::chrono::milliseconds timeout) {
    return waitFor([count](const std::vector<Received>& all) { return all.size() >= count; },
                   timeout);
  }

  std::vector<Received> snapshot() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Received> received_;
};

class DdsTransport : public korcommon::testing::DdsFixture {
 protected:
  bool join(int mode = 1) { return dova::init("dds_test", dova::Options{"dds", mode, true, -1}); }

  // Collects the diagnostics of every process in the inbox.
  void subscribeInbox(bool latched) {
    subscribe([this](const DiagnosticValue& value) { inbox.add(value); }, latched);
  }

  Inbox inbox;
};

TEST_F(DdsTransport, LateJoinerReceivesLatestReportPerNameFromEachLivePublisher) {
  // Two live publishers, 30 reports each over three names, published before
  // anybody listens.
  auto alpha = probe({"publish", "alpha", "30", "3", "0", "-1"});
  auto beta = probe({"publish", "beta", "30", "3", "0", "-1"});
  ASSERT_TRUE(alpha->waitForOutput("published 30", 30s)) << alpha->errors();
  ASSERT_TRUE(beta->waitForOutput("published 30", 30s)) << beta->errors();

  ASSERT_TRUE(join());
  subscribeInbox(true);
  ASSERT_TRUE(inbox.waitForCount(6, 30s));
  // Anything beyond the state would arrive right behind it.
  EXPECT_FALSE(inbox.waitForCount(7, 1s));

  std::map<std::string, int> latest;
  for (const Received& report : inbox.snapshot()) {
    EXPECT_EQ(report.name.rfind(report.caller_id + "/r", 0), 0u) << report.name;
    latest[report.name] = report.code;
  }
  const std::map<std::string, int> expected = {{"alpha/r0", 27}, {"alpha/r1", 28}, {"alpha/r2", 29},
                                               {"beta/r0", 27},  {"beta/r1", 28},  {"beta/r2", 29}};
  EXPECT_EQ(latest, expected);
}

TEST_F(DdsTransport, EveryReportArrivesInOrderPerPublisher) {
  ASSERT_TRUE(join());
  subscribeInbox(false);
  constexpr int kPublishers = 3;
  constexpr int kReports = 2000;
  std::vector<std::unique_ptr<ChildProcess>> publishers;
  for (int p = 0; p < kPublishers; ++p) {
    publishers.push_back(
        probe({"publish", "pub" + std::to_string(p), std::to_string(kReports), "1", "1", "-1"}));
  }
  ASSERT_TRUE(inbox.waitForCount(kPublishers * kReports, 60s))
      << "received " << inbox.snapshot().size();

  std::map<std::string, int> next_code;
  for (const Received& report : inbox.snapshot()) {
    int& expected = next_code[report.caller_id];
    EXPECT_EQ(report.code, expected) << "from " << report.caller_id;
    expected = report.code + 1;
  }
  EXPECT_EQ(next_code.size(), static_cast<size_t>(kPublishers));
  for (const auto& publisher : next_code) EXPECT_EQ(publisher.second, kReports);
}

TEST_F(DdsTransport, KilledPublisherLeavesTheSubscriberRunning) {
  ASSERT_TRUE(join());
  subscribeInbox(false);
  auto doomed = probe({"publish", "doomed", "100", "1", "1", "-1"});
  ASSERT_TRUE(doomed->waitForOutput("published 100", 30s)) << doomed->errors();
  doomed->signal(SIGKILL);
  ASSERT_FALSE(doomed->wait(10s).has_value()) << "killed by a signal";

  auto survivor = probe({"publish", "survivor", "50", "1", "1", "-1"});
  ASSERT_TRUE(inbox.waitFor(
      [](const std::vector<Received>& all) {
        size_t from_survivor = 0;
        for (const Received& report : all) from_survivor += report.caller_id == "survivor";
        return from_survivor == 50;
      },
      30s));
}

TEST_F(DdsTransport, MalformedSamplesAreDroppedWithAWarning) {
  TraceCapture capture;
  ASSERT_TRUE(join());
  subscribeInbox(false);
  auto raw = probe({"raw", "crafter", "truncated", "overlong", "short", "good"});
  ASSERT_TRUE(inbox.waitForCount(1, 30s)) << raw->errors();
  ASSERT_TRUE(raw->waitForOutput("sent 4", 30s));
  EXPECT_FALSE(inbox.waitForCount(2, 500ms));

  const std::vector<Received> received = inbox.snapshot();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].name, "raw/good");
  EXPECT_EQ(received[0].caller_id, "crafter");
  EXPECT_EQ(capture.count(dova::WARN, "deliver", "not one well-formed"), 3u);
}

TEST_F(DdsTransport, ChecksumNegotiationRefusesAnotherMessageType) {
  TraceCapture capture;
  ASSERT_TRUE(join(2));
  subscribeInbox(false);
  auto raw = probe({"raw", "stranger", "md5", "md5", "good"});
  ASSERT_TRUE(inbox.waitForCount(1, 30s)) << raw->errors();
  ASSERT_TRUE(raw->waitForOutput("sent 3", 30s));
  EXPECT_FALSE(inbox.waitForCount(2, 500ms));
  ASSERT_EQ(inbox.snapshot().size(), 1u);
  EXPECT_EQ(inbox.snapshot()[0].name, "raw/good");
  EXPECT_EQ(capture.count(dova::WARN, "negotiateTopics", "stranger"), 1u)
      << "one warning per refused publisher";
}

}  // namespace
