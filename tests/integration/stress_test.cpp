// Load and fault tests: many publishers, dying publishers, misbehaving
// subscribers, shutdown under load, killed writers and full disks. Each is
// bounded in time by its deadlines and the ctest TIMEOUT.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "dds_fixture.h"
#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "korcommon/Diagnostics.h"
#include "korcommon/ImptData.h"
#include "private_opt.h"
#include "read_file.h"
#include "trace_capture.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using korcommon::testing::ChildProcess;
using namespace std::chrono_literals;

// Checks, per publisher, that codes arrive as 0, 1, 2, ... with none lost.
class SequenceCheck {
 public:
  void add(const std::string& publisher, int code) {
    std::lock_guard<std::mutex> lock(mutex_);
    int& next = next_[publisher];
    if (code != next) ++out_of_order_;
    next = code + 1;
    ++received_;
    changed_.notify_all();
  }

  bool waitForTotal(size_t total, std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return received_ >= total; });
  }

  size_t received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }
  size_t outOfOrder() {
    std::lock_guard<std::mutex> lock(mutex_);
    return out_of_order_;
  }
  std::map<std::string, int> nextCodes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return next_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, int> next_;
  size_t received_ = 0;
  size_t out_of_order_ = 0;
};

using Stress = korcommon::testing::DdsFixture;

TEST_F(Stress, EightThreadsOfFiftyThousandReportsOnTheLocalTransport) {
  constexpr int kThreads = 8;
  constexpr int kReports = 50000;
  ASSERT_TRUE(dova::init("stress_local", dova::Options{"local", 1, true, -1}));
  auto check = std::make_shared<SequenceCheck>();
  subscribe([check](const DiagnosticValue& value) { check->add(value.name, value.code); });

  std::vector<std::thread> publishers;
  for (int t = 0; t < kThreads; ++t) {
    publishers.emplace_back([t] {
      const std::string name = "publisher_" + std::to_string(t);
      for (int i = 0; i < kReports; ++i) korcommon::Diagnostics::publish(name, i, 0, "load");
    });
  }
  for (std::thread& publisher : publishers) publisher.join();
  ASSERT_TRUE(check->waitForTotal(kThreads * kReports, 120s)) << check->received();
  EXPECT_EQ(check->outOfOrder(), 0u);
  for (const auto& publisher : check->nextCodes()) EXPECT_EQ(publisher.second, kReports);
  RecordProperty("delivered", static_cast<int>(check->received()));
}

TEST_F(Stress, FourProcessesOfTwentyThousandReportsOverDds) {
  constexpr int kProcesses = 4;
  constexpr int kReports = 20000;
  ASSERT_TRUE(dova::init("stress_dds", dova::Options{"dds", 1, true, -1}));
  auto check = std::make_shared<SequenceCheck>();
  subscribe([check](const DiagnosticValue& value) { check->add(value.caller_id, value.code); });
  std::vector<std::unique_ptr<ChildProcess>> publishers;
  for (int p = 0; p < kProcesses; ++p) {
    publishers.push_back(
        probe({"publish", "load" + std::to_string(p), std::to_string(kReports), "1", "1", "-1"}));
  }
  ASSERT_TRUE(check->waitForTotal(kProcesses * kReports, 180s)) << check->received();
  EXPECT_EQ(check->outOfOrder(), 0u);
  ASSERT_EQ(check->nextCodes().size(), static_cast<size_t>(kProcesses));
  for (const auto& publisher : check->nextCodes()) EXPECT_EQ(publisher.second, kReports);
}

TEST_F(Stress, PublisherKilledMidStreamLeavesAnUnbrokenPrefix) {
  ASSERT_TRUE(dova::init("stress_kill", dova::Options{"dds", 1, true, -1}));
  auto check = std::make_shared<SequenceCheck>();
  subscribe([check](const DiagnosticValue& value) { check->add(value.caller_id, value.code); });
  auto victim = probe({"publish", "victim", "1000000", "1", "1", "-1"});
  ASSERT_TRUE(check->waitForTotal(2000, 60s));
  victim->signal(SIGKILL);
  victim->wait(10s);                   // reaps it; a process ended by a signal has no exit status
  std::this_thread::sleep_for(500ms);  // let anything in flight land
  EXPECT_EQ(check->outOfOrder(), 0u) << "whatever arrived is an unbroken prefix";

  auto survivor = probe({"publish", "survivor", "100", "1", "1", "-1"});
  ASSERT_TRUE(check->waitForTotal(check->received() + 100, 60s)) << "the subscriber still works";
}

TEST_F(Stress, ThrowingOrBlockingSubscriberDoesNotStopTheOthers) {
  ASSERT_TRUE(dova::init("stress_misbehaving", dova::Options{"local", 1, true, -1}));
  korcommon::testing::TraceCapture capture;
  auto release = std::make_shared<std::atomic<bool>>(false);
  subscribe([](const DiagnosticValue&) { throw std::runtime_error("bad callback"); });
  subscribe([release](const DiagnosticValue&) {
    while (!*release) std::this_thread::sleep_for(1ms);
  });
  auto check = std::make_shared<SequenceCheck>();
  subscribe([check](const DiagnosticValue& value) { check->add(value.name, value.code); });
  for (int i = 0; i < 1000; ++i) korcommon::Diagnostics::publish("steady", i, 0, "x");
  EXPECT_TRUE(check->waitForTotal(1000, 30s));
  EXPECT_EQ(check->outOfOrder(), 0u);
  EXPECT_GE(capture.count(dova::ERROR, "deliver", "bad callback"), 1u);
  *release = true;
}

TEST_F(Stress, ShutdownWithDeliveriesInFlight) {
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(dova::init("stress_shutdown", dova::Options{"local", 1, true, -1}));
    auto calls = std::make_shared<std::atomic<int>>(0);
    subscribe([calls](const DiagnosticValue&) {
      ++*calls;
      std::this_thread::sleep_for(2ms);
    });
    std::atomic<bool> publishing{true};
    std::thread publisher([&publishing] {
      for (int i = 0; publishing; ++i) korcommon::Diagnostics::publish("busy", i, 0, "x");
    });
    std::this_thread::sleep_for(50ms);
    dova::shutdown();
    const int after_shutdown = calls->load();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(calls->load(), after_shutdown) << "no delivery starts after shutdown";
    publishing = false;
    publisher.join();
  }
}

class StressStore : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    std::filesystem::remove_all("/opt/quor");
  }
  void TearDown() override {
    if (korcommon::testing::hasPrivateOpt()) umount2("/opt/quor/imptdata", MNT_DETACH);
  }
};

TEST_F(StressStore, FullDiskLeavesTheOldFileAndReportsWhy) {
  std::filesystem::create_directories("/opt/quor/imptdata");
  ASSERT_EQ(mount("tiny", "/opt/quor/imptdata", "tmpfs", 0, "size=16k"), 0) << std::strerror(errno);
  ASSERT_TRUE(korcommon::ImptData::setJointOffset(std::vector<double>(12, 0.5)));
  const std::string before = korcommon::testing::readFile("/opt/quor/imptdata/joint_offset.yaml");
  // Fill the file system so that a new version cannot be written.
  {
    std::ofstream filler("/opt/quor/imptdata/filler", std::ios::binary);
    const std::string block(1024, 'x');
    for (int i = 0; i < 64 && filler; ++i) filler << block;
  }

  korcommon::testing::TraceCapture capture;
  EXPECT_FALSE(korcommon::ImptData::setJointOffset(std::vector<double>(4000, 1.0 / 3.0)));
  ASSERT_EQ(capture.reports().size(), 1u);
  EXPECT_EQ(capture.reports()[0].function, "setJointOffset");
  EXPECT_NE(capture.reports()[0].text.find("No space left on device"), std::string::npos)
      << capture.reports()[0].text;

  EXPECT_EQ(korcommon::testing::readFile("/opt/quor/imptdata/joint_offset.yaml"), before);
  EXPECT_EQ(korcommon::ImptData::getJointOffset(), std::vector<double>(12, 0.5));
  for (const auto& entry : std::filesystem::directory_iterator("/opt/quor/imptdata")) {
    const std::string file = entry.path().filename().string();
    EXPECT_TRUE(file == "joint_offset.yaml" || file == "filler") << "left behind: " << file;
  }
}

}  // namespace
