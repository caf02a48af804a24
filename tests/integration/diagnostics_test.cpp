// korcommon::Diagnostics::publish and korcommon::Diagnostics::subscribe, and the platform's
// delivery on the in-process transport in every mode.
#include "korcommon/Diagnostics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"
#include "stand_in_handle.h"
#include "threads.h"
#include "trace_capture.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::msgs::kDiagnosticsTopic;
using korcommon::testing::TraceCapture;
using Clock = std::chrono::steady_clock;
using DiagnosticValuePtr = std::shared_ptr<const DiagnosticValue>;
using namespace std::chrono_literals;

// One report as a user function received it.
struct Arrival {
  DiagnosticValuePtr value;
  Clock::time_point at;
  std::thread::id tid;
  std::string thread;
};
using Inbox = korcommon::testing::Inbox<Arrival>;
using Signal = korcommon::testing::Inbox<bool>;

// A user function that keeps what it receives in `inbox`, which it holds: a delivery that
// comes late (the hand-over thread is detached) never touches a finished test.
korcommon::Diagnostics::Callback collect(const std::shared_ptr<Inbox>& inbox) {
  return [inbox](const DiagnosticValuePtr& value) {
    inbox->add(
        {value, Clock::now(), std::this_thread::get_id(), korcommon::testing::currentThreadName()});
  };
}

std::vector<std::string> namesIn(const std::vector<Arrival>& arrivals) {
  std::vector<std::string> names;
  for (const Arrival& arrival : arrivals) names.push_back(arrival.value->name);
  return names;
}

// A subscriber of `T` on `topic` calling `function` with each message, which counts the entry
// points the platform used.
template <typename T = DiagnosticValue>
struct Probe : dova::Subscriber<T> {
  explicit Probe(std::function<void(const std::shared_ptr<const T>&)> function,
                 const std::string& topic = kDiagnosticsTopic) {
    this->callback_kind = 2;
    this->callback_ptr = std::move(function);
    this->setTopic(topic);
  }
  void callback(uint8_t* data, int len) override {
    ++frames;
    dova::Subscriber<T>::callback(data, len);
  }
  void intraProcess(const std::shared_ptr<const dova::Msg>& m) override {
    ++messages;
    dova::Subscriber<T>::intraProcess(m);
  }
  std::atomic<int> frames{0};
  std::atomic<int> messages{0};
};

class Diagnostics : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"DOVA_TRANSPORT", "DOVA_MODE", "DOVA_LOG_SCREEN"}) unsetenv(name);
  }
  void TearDown() override { dova::shutdown(); }

  static void start(const char* node, int mode, bool intra_process = true) {
    ASSERT_TRUE(dova::init(node, dova::Options{"local", mode, intra_process, -1}));
  }
  // Subscribes `probe`, which the fixture keeps until after the shutdown.
  template <typename T>
  Probe<T>& subscribe(std::shared_ptr<Probe<T>> probe, bool latch = false, int queue_size = -1) {
    kept_.push_back(probe);
    EXPECT_TRUE(dova::nh()->subscribe(*probe, latch, true, queue_size));
    return *probe;
  }
  Probe<>& subscribe(korcommon::Diagnostics::Callback function, bool latch = false,
                     int queue_size = -1) {
    return subscribe(std::make_shared<Probe<>>(std::move(function)), latch, queue_size);
  }
  // Waits until the pools of `subscribers` have run everything posted to them so far.
  static bool drainPools(const std::vector<const dova::SubscriberBase*>& subscribers) {
    auto done = std::make_shared<Signal>();
    size_t posted = 0;
    {
      std::lock_guard<std::mutex> lock(dova::nh()->subscribers_mutex);
      for (const dova::SubscriberBase* subscriber : subscribers) {
        const auto found = dova::nh()->pools.find(subscriber->topic_id);
        if (found == dova::nh()->pools.end()) continue;  // mode 0: nothing queued
        found->second->post([done] { done->add(true); });
        ++posted;
      }
    }
    return done->waitFor(posted);
  }

 private:
  std::vector<std::shared_ptr<dova::SubscriberBase>> kept_;
};

TEST_F(Diagnostics, PublishFillsTheReportAndBeforeInitOnlyComplains) {
  {
    korcommon::testing::StandInHandle down(false);
    setenv("DOVA_LOG_SCREEN", "1", 1);  // the library's trace logger prints its lines
    ::testing::internal::CaptureStdout();
    korcommon::Diagnostics::publish("hip", 3, 1, "warm");
    korcommon::Diagnostics::publish("hip", "base_link", 3, 1, "warm");
    korcommon::Diagnostics::subscribe(collect(std::make_shared<Inbox>()));
    const std::string printed = ::testing::internal::GetCapturedStdout();
    // At ERROR, from the library's file, once per call.
    EXPECT_TRUE(std::regex_match(
        printed, std::regex(R"((.* E/.*Diagnostics\.cpp\(\d+\) .*Please init dova!.*\n){3})")))
        << printed;
    EXPECT_EQ(down.reports.size() + down.records.size() + down.pools.size(), 0u);
  }
  korcommon::testing::StandInHandle up(true);
  const dova::Time before = dova::Time::now();
  korcommon::Diagnostics::publish("battery", 3, 1, "low");  // code first, then level
  korcommon::Diagnostics::publish("camera", "head_link", 17, 2, "no frames");
  const dova::Time after = dova::Time::now();
  std::vector<std::string> published;
  for (const DiagnosticValue& value : up.reports.items()) {
    published.push_back(value.name + " " + value.header.frame_id + " " +
                        std::to_string(value.code) + " " + std::to_string(value.level) + " " +
                        value.message + " " + std::to_string(value.header.seq));
    EXPECT_GE((value.header.stamp - before).sec, 0) << "stamped before the call";
    EXPECT_GE((after - value.header.stamp).sec, 0) << "stamped after the call";
  }
  EXPECT_EQ(published,
            (std::vector<std::string>{"battery  3 1 low 0", "camera head_link 17 2 no frames 0"}));
  EXPECT_EQ(up.records.size(), 0u) << "a successful publish traces nothing";
}

TEST_F(Diagnostics, StartUpReportsAreCollectedPerNameAndHandedOverInNameOrder) {
  // Mode 2 through frames: the subscription's checksum is negotiated and the caller id comes
  // from the frame's prefix.
  start("monitor", 2, false);
  auto inbox = std::make_shared<Inbox>();
  const Clock::time_point subscribed = Clock::now();
  korcommon::Diagnostics::subscribe(collect(inbox));
  // The first report at 1 s puts the hand-over at 4 s.
  std::this_thread::sleep_until(subscribed + 1s);
  korcommon::Diagnostics::publish("b", 7, 1, "");
  korcommon::Diagnostics::publish("a", 1, 0, "superseded");
  korcommon::Diagnostics::publish("", 5, 0, "unnamed, superseded");
  korcommon::Diagnostics::publish("a", 2, 2, "latest");
  korcommon::Diagnostics::publish("", 6, 0, "unnamed, latest");
  // Past the collection but before the hand-over: still one of the batch.
  std::this_thread::sleep_until(subscribed + 3500ms);
  korcommon::Diagnostics::publish("z", 3, 0, "");
  ASSERT_TRUE(inbox->waitFor(4));
  korcommon::Diagnostics::publish("c", 9, 0, "");
  ASSERT_TRUE(inbox->waitFor(5, 2s)) << "not collected for another 3 s";

  const std::vector<Arrival> arrivals = inbox->items();
  std::vector<std::string> delivered;
  for (const Arrival& arrival : arrivals) {
    delivered.push_back(arrival.value->name + " " + std::to_string(arrival.value->code));
    EXPECT_EQ(arrival.value->caller_id, "monitor");
  }
  EXPECT_EQ(delivered, (std::vector<std::string>{" 6", "a 2", "b 7", "z 3", "c 9"}))
      << "the latest of each name, in name order, then each report as it comes";
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_GE(arrivals[i].at - subscribed, 3950ms) << "handed over 3 s after the first report";
    EXPECT_EQ(arrivals[i].tid, arrivals[0].tid) << "the whole batch on the hand-over thread";
  }
  // After the hand-over each report goes straight through, on the pool's thread.
  EXPECT_EQ(arrivals[4].thread, "dova_pool");
  EXPECT_NE(arrivals[4].tid, arrivals[0].tid);
}

TEST_F(Diagnostics, DirectDeliveryStartsNoThreadAndTheUserFunctionNeverOverlapsItself) {
  // Mode 0 delivers on the publishing thread: direct means done before publish returns.
  start("monitor", 0);
  auto inbox = std::make_shared<Inbox>();
  const Clock::time_point subscribed = Clock::now();
  korcommon::Diagnostics::subscribe(collect(inbox));
  std::this_thread::sleep_until(subscribed + 3100ms);  // the collection lapses unused
  const auto threads = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
  };
  const auto threads_before = threads();
  korcommon::Diagnostics::publish("late", 4, 1, "");
  korcommon::Diagnostics::publish("later", 5, 1, "");
  EXPECT_EQ(inbox->size(), 2u) << "both delivered before publish returned";
  EXPECT_EQ(threads(), threads_before) << "no hand-over thread was started";
  EXPECT_EQ(namesIn(inbox->items()), (std::vector<std::string>{"late", "later"}));
  for (const Arrival& arrival : inbox->items()) EXPECT_EQ(arrival.tid, std::this_thread::get_id());

  // A second subscription: each publishing thread delivers by itself, so the threads race
  // each other, the hand-over thread and the switch to direct delivery.
  auto inside = std::make_shared<std::atomic<int>>(0);
  auto overlaps = std::make_shared<std::atomic<int>>(0);
  auto serialised = std::make_shared<Inbox>();
  korcommon::Diagnostics::subscribe(
      [inside, overlaps, store = collect(serialised)](const DiagnosticValuePtr& v) {
        if (inside->fetch_add(1) != 0) overlaps->fetch_add(1);
        const Clock::time_point until = Clock::now() + 20us;
        while (Clock::now() < until) {
        }  // widens the window in which a second call would overlap
        store(v);
        inside->fetch_sub(1);
      });
  const Clock::time_point start = Clock::now();
  korcommon::Diagnostics::publish("seed", 0, 0, "");  // the hand-over is due at 3 s
  std::this_thread::sleep_until(start + 2700ms);
  std::atomic<int> published{3};  // the seed, and the two above replayed on subscribing
  std::vector<std::thread> publishers;
  for (int index = 0; index < 4; ++index) {
    publishers.emplace_back([index, start, &published] {
      for (int sequence = 0; Clock::now() < start + 3600ms; ++sequence) {
        korcommon::Diagnostics::publish(
            "w" + std::to_string(index) + "-" + std::to_string(sequence), sequence, 0, "");
        published.fetch_add(1);
        std::this_thread::sleep_for(200us);
      }
    });
  }
  for (std::thread& publisher : publishers) publisher.join();
  const auto expected = static_cast<size_t>(published.load());
  ASSERT_TRUE(serialised->waitFor(expected)) << serialised->size() << " of " << expected;
  EXPECT_EQ(overlaps->load(), 0);
  EXPECT_EQ(serialised->size(), expected) << "every uniquely named report arrives exactly once";
  EXPECT_GT(expected, 20u);
}

TEST_F(Diagnostics, EveryModeDeliversEveryFieldInOrderWhateverOtherSubscribersDo) {
  for (const bool intra_process : {false, true}) {
    for (const int mode : {0, 1, 2}) {
      SCOPED_TRACE("mode " + std::to_string(mode) + (intra_process ? ", shared" : ", frames"));
      start("leg_controller", mode, intra_process);
      const TraceCapture trace;
      // Latched before the subscribers join: replayed to the one that asks for it.
      korcommon::Diagnostics::publish("elbow", 9, 0, "");
      // Served first: a subscriber that throws a standard exception, then another kind.
      auto thrown = std::make_shared<std::atomic<int>>(0);
      auto& thrower = subscribe([thrown](const DiagnosticValuePtr& value) {
        if (thrown->fetch_add(1) == 0) throw std::runtime_error("sensor table corrupt");
        throw value->code;
      });
      // Subscribers of another type on each topic: never handed a frame they would misread
      // (a report read as a Log has a name of 0x03000000 bytes).
      auto& log_reader = subscribe(std::make_shared<Probe<dova::dova_msgs::Log>>(nullptr));
      auto& stray = subscribe(std::make_shared<Probe<>>(nullptr, dova::msgs::kLogTopic));
      // Another version of the type, latched: refused by its checksum, replay included,
      // where the subscription negotiates (mode 2 only).
      auto others = std::make_shared<Inbox>();
      auto other_version = std::make_shared<Probe<>>(collect(others));
      other_version->msg_md5 = "0123456789abcdef0123456789abcdef";
      subscribe(other_version, true);
      auto inbox = std::make_shared<Inbox>();
      auto& probe = subscribe(collect(inbox));

      korcommon::Diagnostics::publish("knee", "knee_link", 12, 2, "stalled\n\"hot\"");
      korcommon::Diagnostics::publish("hip", 0, 0, "");
      auto record = std::make_shared<dova::dova_msgs::Log>();
      record->msg = "a log record on its own topic";
      dova::nh()->log(record);
      ASSERT_TRUE(inbox->waitFor(2));
      ASSERT_TRUE(drainPools({&thrower, &log_reader, &stray, other_version.get()}));
      const std::vector<Arrival> arrivals = inbox->items();
      ASSERT_EQ(namesIn(arrivals), (std::vector<std::string>{"knee", "hip"})) << "in order";
      const DiagnosticValue& knee = *arrivals[0].value;
      EXPECT_EQ(knee.header.frame_id + " " + std::to_string(knee.code) + " " +
                    std::to_string(knee.level) + " " + knee.message,
                "knee_link 12 2 stalled\n\"hot\"");
      EXPECT_NE(knee.header.stamp.sec, 0u);
      for (const Arrival& arrival : arrivals) {
        EXPECT_EQ(arrival.value->caller_id, "leg_controller");
        EXPECT_TRUE(mode == 0 ? arrival.tid == std::this_thread::get_id()
                              : arrival.thread == "dova_pool")
            << arrival.thread;
      }
      EXPECT_EQ(probe.frames.load(), intra_process ? 0 : 2);
      EXPECT_EQ(probe.messages.load(), intra_process ? 2 : 0);
      EXPECT_EQ(namesIn(others->items()),
                (mode == 2 ? std::vector<std::string>{}
                           : std::vector<std::string>{"elbow", "knee", "hip"}));
      EXPECT_EQ(thrown->load(), 2) << "a subscriber that threw still gets the next one";
      EXPECT_EQ(trace.count(dova::ERROR, "deliver", "sensor table corrupt"), 1u);
      EXPECT_EQ(trace.count(dova::ERROR, "deliver", "non-standard"), 1u);
      EXPECT_EQ(log_reader.frames + log_reader.messages + stray.frames + stray.messages, 0);
      // Another type is refused by its checksum in mode 2 and otherwise by the frame check,
      // both aloud; shared messages are never turned into frames for it.
      const size_t checked = !intra_process && mode != 2 ? 1 : 0;
      EXPECT_EQ(trace.count(dova::WARN, "deliver", "dova_msgs/Log"), checked * 2);
      EXPECT_EQ(trace.count(dova::WARN, "deliver", "diagnostic_msgs/DiagnosticValue"), checked);
      EXPECT_EQ(trace.count(dova::WARN, "deliver", "leg_controller"), checked * 3);
      // One warning per refusing subscription, not per frame.
      EXPECT_EQ(trace.count(dova::WARN, "negotiateTopics", "leg_controller"), mode == 2 ? 3u : 0u);
      dova::shutdown();
    }
  }
}

TEST_F(Diagnostics, LatchedJoinerNeverSeesTheReplayedStateAfterANewerReport) {
  // Mode 0 replays the latched state on the joining thread while publishers already
  // deliver to the new subscription: a newer report must not arrive before the older state.
  start("monitor", 0);
  std::atomic<bool> publishing{true};
  std::thread publisher([&publishing] {
    for (int code = 0; publishing; ++code) korcommon::Diagnostics::publish("x", code, 0, "");
  });
  int out_of_order = 0;
  int attempt = 0;
  for (; attempt < 1000; ++attempt) {
    auto codes = std::make_shared<korcommon::testing::Inbox<int>>();
    auto& joiner =
        subscribe([codes](const DiagnosticValuePtr& value) { codes->add(value->code); }, true);
    // No ASSERT while the publisher runs: leaving early would skip its join.
    if (!codes->waitFor(3)) break;
    joiner.setEnabled(false);  // keeps later attempts fast; it stays registered
    const std::vector<int> seen = codes->items();
    out_of_order += !std::is_sorted(seen.begin(), seen.end());
  }
  publishing = false;
  publisher.join();
  EXPECT_EQ(attempt, 1000) << "a joiner got fewer than 3 reports within the deadline";
  EXPECT_EQ(out_of_order, 0) << "of " << attempt << " joiners";
}

TEST_F(Diagnostics, ShutdownWaitsForDeliveriesInFlightAndStartsNoMore) {
  for (const int mode : {0, 1}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    start("monitor", mode);
    auto started = std::make_shared<korcommon::testing::Inbox<int>>();
    auto finished = std::make_shared<Signal>();
    subscribe([started, finished](const DiagnosticValuePtr& value) {
      started->add(value->code);
      std::this_thread::sleep_for(300ms);  // a slow callback, on purpose
      finished->add(true);
    });
    // Mode 0 delivers on the publishing thread, so publish from another one.
    std::thread publisher([] {
      for (int index = 0; index < 5; ++index) korcommon::Diagnostics::publish("s", index, 0, "");
    });
    EXPECT_TRUE(started->waitFor(1));
    dova::shutdown();
    EXPECT_EQ(finished->size(), started->size()) << "shutdown returned mid-delivery";
    const size_t delivered = started->size();
    publisher.join();
    EXPECT_FALSE(started->waitFor(delivered + 1, 500ms)) << "a delivery started after shutdown";
    EXPECT_LT(started->size(), 5u) << "the pending deliveries were dropped";
  }

  // A bounded queue drops the oldest waiting delivery.
  start("stopping_node", 1);
  auto entered = std::make_shared<Signal>();
  auto release = std::make_shared<Signal>();
  auto bounded = std::make_shared<Inbox>();
  subscribe(
      [entered, release, store = collect(bounded)](const DiagnosticValuePtr& value) {
        store(value);
        if (entered->size() == 0) {
          entered->add(true);
          EXPECT_TRUE(release->waitFor(1));
        }
      },
      false, 2);
  auto unbounded = std::make_shared<Inbox>();
  subscribe(collect(unbounded));
  korcommon::Diagnostics::publish("r0", 0, 0, "");
  ASSERT_TRUE(entered->waitFor(1));
  // The pool is busy with r0, so these wait in a queue of two.
  for (int index = 1; index <= 5; ++index) {
    korcommon::Diagnostics::publish("r" + std::to_string(index), index, 0, "");
  }
  release->add(true);
  ASSERT_TRUE(bounded->waitFor(3));
  ASSERT_TRUE(unbounded->waitFor(6));
  EXPECT_EQ(namesIn(unbounded->items()),
            (std::vector<std::string>{"r0", "r1", "r2", "r3", "r4", "r5"}));
  EXPECT_FALSE(bounded->waitFor(4, 200ms));
  EXPECT_EQ(namesIn(bounded->items()), (std::vector<std::string>{"r0", "r4", "r5"}));

  // A subscriber that stops the middleware from its own pool's thread: the pool must not
  // wait for the very delivery that destroys it, so no blocked warning.
  const TraceCapture trace;
  auto stopped = std::make_shared<Signal>();
  subscribe([stopped](const DiagnosticValuePtr&) {
    dova::shutdown();
    stopped->add(true);
  });
  korcommon::Diagnostics::publish("knee", 1, 0, "");
  ASSERT_TRUE(stopped->waitFor(1));
  EXPECT_EQ(trace.count(dova::WARN, "wait_completed"), 0u);
}

}  // namespace
