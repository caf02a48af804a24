#include "korcommon/Diagnostics.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"
#include "dova/os/node_handle_base.h"
#include "dova/time.h"
#include "trace_capture.h"

namespace {

using dova::SubscriberBase;
using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;
using korcommon::testing::TraceCapture;
using Clock = std::chrono::steady_clock;
using DiagnosticValuePtr = std::shared_ptr<const DiagnosticValue>;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kTopic[] = "/diagnostics_value";

long currentTid() { return syscall(SYS_gettid); }

std::string currentThreadName() {
  char name[17] = {};
  prctl(PR_GET_NAME, name, 0, 0, 0);
  return name;
}

size_t processThreadCount() {
  size_t count = 0;
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (const dirent* entry = readdir(tasks)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(tasks);
  }
  return count;
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// One report as a user function received it.
struct Arrival {
  DiagnosticValuePtr value;
  Clock::time_point at;
  long tid;
  std::string thread_name;
};

// Collects what a user function receives, from any thread. Owned through a
// shared pointer that the user function holds, so a delivery that comes late
// (the hand-over thread is detached) never touches a finished test's stack.
class Inbox : public std::enable_shared_from_this<Inbox> {
 public:
  static std::shared_ptr<Inbox> create() { return std::make_shared<Inbox>(); }

  korcommon::Diagnostics::Callback callback() {
    return [self = shared_from_this()](const DiagnosticValuePtr& value) { self->add(value); };
  }

  void add(const DiagnosticValuePtr& value) {
    Arrival arrival{value, Clock::now(), currentTid(), currentThreadName()};
    std::lock_guard<std::mutex> lock(mutex_);
    arrivals_.push_back(std::move(arrival));
    changed_.notify_all();
  }

  // True once at least `count` reports arrived, false at the deadline.
  bool waitFor(size_t count, Clock::duration timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return arrivals_.size() >= count; });
  }

  std::vector<Arrival> arrivals() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return arrivals_;
  }

  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const Arrival& arrival : arrivals()) result.push_back(arrival.value->name);
    return result;
  }

  size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return arrivals_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Arrival> arrivals_;
};

// A typed subscriber that records which entry point the platform used, then
// decodes as usual into an inbox.
class ProbeSubscriber : public dova::Subscriber<DiagnosticValue> {
 public:
  explicit ProbeSubscriber(std::shared_ptr<Inbox> inbox, const std::string& topic = kTopic)
      : inbox_(std::move(inbox)) {
    callback_kind = 2;
    callback_ptr = inbox_->callback();
    setTopic(topic);
  }

  void callback(uint8_t* data, int len) override {
    ++frames;
    Subscriber::callback(data, len);
  }
  void intraProcess(const std::shared_ptr<const dova::Msg>& m) override {
    ++messages;
    Subscriber::intraProcess(m);
  }

  std::atomic<int> frames{0};
  std::atomic<int> messages{0};

 private:
  std::shared_ptr<Inbox> inbox_;
};

// Runs every task already posted to the subscription's pool: the pool has
// one thread and runs its tasks in order, so a marker task posted now runs
// after them. False when the marker did not run within 5 s.
bool drainPool(const SubscriberBase& subscriber) {
  std::shared_ptr<dova::ThreadPool> pool;
  {
    std::lock_guard<std::mutex> lock(dova::nh()->subscribers_mutex);
    const auto found = dova::nh()->pools.find(subscriber.topic_id);
    if (found == dova::nh()->pools.end()) return true;  // no pool: deliveries are synchronous
    pool = found->second;
  }
  auto marker = std::make_shared<Inbox>();
  pool->post([marker] { marker->add(std::make_shared<DiagnosticValue>()); });
  return marker->waitFor(1, seconds(5));
}

dova::Options optionsFor(int mode, bool intra_process = true) {
  dova::Options options;
  options.transport = "local";
  options.mode = mode;
  options.intra_process = intra_process;
  return options;
}

// Stands in for the middleware when a test needs to see exactly what the
// library hands over, or to pretend the middleware is not running.
class RecordingHandle : public dova::NodeHandleBase {
 public:
  explicit RecordingHandle(bool running) : running_(running) {
    inited = 1;
    mode = 1;
  }
  bool ok() const override { return running_; }
  void diag(const DiagnosticValue& value) override { published.push_back(value); }
  void log(const std::shared_ptr<const Log>& record) override { logged.push_back(record); }
  void negotiateTopics(SubscriberBase* subscriber) override { negotiated.push_back(subscriber); }

  std::vector<DiagnosticValue> published;
  std::vector<std::shared_ptr<const Log>> logged;
  std::vector<SubscriberBase*> negotiated;

 private:
  bool running_;
};

size_t occurrences(const std::string& text, const std::string& fragment) {
  size_t count = 0;
  for (size_t at = text.find(fragment); at != std::string::npos;
       at = text.find(fragment, at + fragment.size())) {
    ++count;
  }
  return count;
}

// Declared after a test's subscribers, so that on every way out of the test,
// a failed ASSERT included, the node stops before they are freed.
class StopNodeOnExit {
 public:
  StopNodeOnExit() = default;
  ~StopNodeOnExit() { dova::shutdown(); }
  StopNodeOnExit(const StopNodeOnExit&) = delete;
  StopNodeOnExit& operator=(const StopNodeOnExit&) = delete;
};

class Diagnostics : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("DOVA_TRANSPORT");
    unsetenv("DOVA_MODE");
    unsetenv("DOVA_LOG_SCREEN");
  }
  void TearDown() override {
    dova::setNodeHandle(nullptr);
    dova::shutdown();
  }
};

TEST_F(Diagnostics, BeforeInitEveryCallReportsPleaseInitOnceAndDoesNothingElse) {
  RecordingHandle not_running(false);
  dova::setNodeHandle(&not_running);
  setenv("DOVA_LOG_SCREEN", "1", 1);  // the library's trace logger prints its lines

  ::testing::internal::CaptureStdout();
  korcommon::Diagnostics::publish("hip", 3, 1, "warm");
  korcommon::Diagnostics::publish("hip", "base_link", 3, 1, "warm");
  korcommon::Diagnostics::publish("knee", 0, 0, "");
  auto never_called = Inbox::create();
  korcommon::Diagnostics::subscribe(never_called->callback());
  const std::string printed = ::testing::internal::GetCapturedStdout();

  EXPECT_EQ(occurrences(printed, "Please init dova!"), 4u) << printed;
  EXPECT_EQ(occurrences(printed, "Diagnostics.cpp("), 4u) << "reported from the library's file";
  EXPECT_EQ(occurrences(printed, " E/"), 4u) << "at ERROR: " << printed;
  EXPECT_TRUE(not_running.published.empty());
  EXPECT_TRUE(not_running.logged.empty()) << "no log record while the middleware is down";
  EXPECT_TRUE(not_running.negotiated.empty());
  EXPECT_TRUE(not_running.pools.empty()) << "no subscription was registered";
  EXPECT_TRUE(not_running.subscribers.empty());

  dova::setNodeHandle(nullptr);  // the platform's plain handle: not running either
  ::testing::internal::CaptureStdout();
  korcommon::Diagnostics::publish("hip", 3, 1, "warm");
  const std::string plain = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(occurrences(plain, "Please init dova!"), 1u) << plain;
}

TEST_F(Diagnostics, PublishTakesCodeBeforeLevelAndStampsTheCurrentTime) {
  RecordingHandle handle(true);
  dova::setNodeHandle(&handle);

  const dova::Time before = dova::Time::now();
  korcommon::Diagnostics::publish("battery", 3, 1, "low");
  korcommon::Diagnostics::publish("camera", "head_link", 17, 2, "no frames");
  const dova::Time after = dova::Time::now();

  ASSERT_EQ(handle.published.size(), 2u);
  const DiagnosticValue& short_form = handle.published[0];
  EXPECT_EQ(short_form.name, "battery");
  EXPECT_EQ(short_form.code, 3) << "the first integer is the code";
  EXPECT_EQ(short_form.level, DiagnosticValue::WARN) << "the second integer is the level";
  EXPECT_EQ(short_form.message, "low");
  EXPECT_EQ(short_form.header.frame_id, "");
  EXPECT_EQ(short_form.header.seq, 0u);

  const DiagnosticValue& with_frame = handle.published[1];
  EXPECT_EQ(with_frame.name, "camera");
  EXPECT_EQ(with_frame.header.frame_id, "head_link");
  EXPECT_EQ(with_frame.code, 17);
  EXPECT_EQ(with_frame.level, DiagnosticValue::ERROR);
  EXPECT_EQ(with_frame.message, "no frames");
  EXPECT_EQ(with_frame.header.seq, 0u);

  for (const DiagnosticValue& value : handle.published) {
    // A negative span has a negative sec.
    EXPECT_GE((value.header.stamp - before).sec, 0) << "stamp earlier than the call";
    EXPECT_GE((after - value.header.stamp).sec, 0) << "stamp later than the call";
    EXPECT_NE(value.header.stamp.sec, 0u);
  }
  EXPECT_TRUE(handle.logged.empty()) << "a successful publish traces nothing";
}

TEST_F(Diagnostics, StartUpReportsAreCollectedPerNameAndHandedOverInNameOrder) {
  ASSERT_TRUE(dova::init("monitor", optionsFor(1)));
  auto inbox = Inbox::create();
  korcommon::Diagnostics::subscribe(inbox->callback());

  const Clock::time_point first_sent = Clock::now();
  korcommon::Diagnostics::publish("b", 7, 1, "");
  korcommon::Diagnostics::publish("a", 1, 0, "superseded");
  korcommon::Diagnostics::publish("", 5, 0, "unnamed, superseded");
  korcommon::Diagnostics::publish("a", 2, 2, "latest");
  korcommon::Diagnostics::publish("", 6, 0, "unnamed, latest");

  ASSERT_TRUE(inbox->waitFor(3, seconds(8)));
  const std::vector<Arrival> batch = inbox->arrivals();
  ASSERT_EQ(batch.size(), 3u);
  EXPECT_EQ(inbox->names(), (std::vector<std::string>{"", "a", "b"}));
  EXPECT_EQ(batch[0].value->code, 6) << "two empty names collapse into the latest";
  EXPECT_EQ(batch[1].value->code, 2) << "the later report of a replaces the earlier";
  EXPECT_EQ(batch[1].value->message, "latest");
  EXPECT_EQ(batch[2].value->code, 7);
  for (const Arrival& arrival : batch) {
    EXPECT_GE(secondsBetween(first_sent, arrival.at), 2.95) << "held for 3 s";
    EXPECT_EQ(arrival.value->caller_id, "monitor");
    EXPECT_EQ(arrival.tid, batch[0].tid) << "the whole batch on the hand-over thread";
  }

  // After the hand-over each report goes straight through, on the pool's thread.
  const Clock::time_point sent = Clock::now();
  korcommon::Diagnostics::publish("c", 9, 0, "direct");
  ASSERT_TRUE(inbox->waitFor(4, seconds(2)));
  const Arrival direct = inbox->arrivals()[3];
  EXPECT_EQ(direct.value->name, "c");
  EXPECT_LT(secondsBetween(sent, direct.at), 1.0);
  EXPECT_EQ(direct.thread_name, "dova_pool");
  EXPECT_NE(direct.tid, batch[0].tid);

  for (const Arrival& arrival : inbox->arrivals()) EXPECT_NE(arrival.value->code, 1);
  EXPECT_EQ(inbox->size(), 4u);
}

TEST_F(Diagnostics, ReportAfterThreeSecondsJoinsAPendingHandOver) {
  ASSERT_TRUE(dova::init("monitor", optionsFor(1)));
  auto inbox = Inbox::create();
  const Clock::time_point subscribed = Clock::now();
  korcommon::Diagnostics::subscribe(inbox->callback());

  // The first report at 1 s puts the hand-over at 4 s; "z" at 3.5 s is past
  // the collection but before the hand-over. Delivered directly it would come
  // first; in the batch it follows "m" in name order.
  std::this_thread::sleep_until(subscribed + milliseconds(1000));
  korcommon::Diagnostics::publish("m", 1, 0, "");
  std::this_thread::sleep_until(subscribed + milliseconds(3500));
  korcommon::Diagnostics::publish("z", 2, 0, "");

  ASSERT_TRUE(inbox->waitFor(2, seconds(5)));
  EXPECT_EQ(inbox->names(), (std::vector<std::string>{"m", "z"}));
  for (const Arrival& arrival : inbox->arrivals()) {
    EXPECT_GE(secondsBetween(subscribed, arrival.at), 3.95);
  }

  korcommon::Diagnostics::publish("a", 3, 0, "");
  ASSERT_TRUE(inbox->waitFor(3, seconds(2)));
  EXPECT_EQ(inbox->names(), (std::vector<std::string>{"m", "z", "a"}));
}

TEST_F(Diagnostics, WithoutEarlyReportsDeliveryIsDirectAndNoThreadStarts) {
  // Mode 0 delivers on the publishing thread, so "direct" means: done
  // before publish returns, on this thread.
  ASSERT_TRUE(dova::init("monitor", optionsFor(0)));
  auto inbox = Inbox::create();
  const Clock::time_point subscribed = Clock::now();
  korcommon::Diagnostics::subscribe(inbox->callback());
  std::this_thread::sleep_until(subscribed + milliseconds(3100));  // let the collection lapse

  const size_t threads_before = processThreadCount();
  korcommon::Diagnostics::publish("late", 4, 1, "");
  ASSERT_EQ(inbox->size(), 1u);
  korcommon::Diagnostics::publish("later", 5, 1, "");
  ASSERT_EQ(inbox->size(), 2u);
  EXPECT_EQ(processThreadCount(), threads_before) << "no hand-over thread was started";
  for (const Arrival& arrival : inbox->arrivals()) EXPECT_EQ(arrival.tid, currentTid());
  EXPECT_EQ(inbox->names(), (std::vector<std::string>{"late", "later"}));
}

TEST_F(Diagnostics, UserFunctionNeverRunsConcurrentlyWithItselfAndLosesNothing) {
  // Mode 0: every publishing thread delivers by itself, so the threads race
  // each other, the hand-over thread and the switch to direct delivery.
  ASSERT_TRUE(dova::init("monitor", optionsFor(0)));
  struct Watch {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
  };
  auto watch = std::make_shared<Watch>();
  auto inbox = Inbox::create();
  korcommon::Diagnostics::subscribe([watch, inbox](const DiagnosticValuePtr& value) {
    if (watch->inside.fetch_add(1) != 0) watch->overlaps.fetch_add(1);
    const Clock::time_point until = Clock::now() + std::chrono::microseconds(20);
    while (Clock::now() < until) {
    }  // widen the window in which a second call would overlap
    inbox->add(value);
    watch->inside.fetch_sub(1);
  });

  const Clock::time_point start = Clock::now();
  korcommon::Diagnostics::publish("seed", 0, 0, "");  // the hand-over is due at 3 s
  std::this_thread::sleep_until(start + milliseconds(2700));
  std::atomic<int> published{1};
  std::vector<std::thread> publishers;
  for (int index = 0; index < 4; ++index) {
    publishers.emplace_back([index, start, &published] {
      for (int sequence = 0; Clock::now() < start + milliseconds(3600); ++sequence) {
        korcommon::Diagnostics::publish(
            "w" + std::to_string(index) + "-" + std::to_string(sequence), sequence, 0, "");
        published.fetch_add(1);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }
  for (std::thread& publisher : publishers) publisher.join();

  const size_t expected = static_cast<size_t>(published.load());
  ASSERT_TRUE(inbox->waitFor(expected, seconds(5))) << inbox->size() << " of " << expected;
  EXPECT_EQ(watch->overlaps.load(), 0);
  EXPECT_EQ(inbox->size(), expected) << "every uniquely named report arrives exactly once";
  EXPECT_GT(expected, 20u);
}

TEST_F(Diagnostics, LatchedReportsFromBeforeSubscribingFormTheStartUpBatch) {
  // Through real frames: the caller id comes from the transport prefix.
  ASSERT_TRUE(dova::init("body_node", optionsFor(2, false)));
  korcommon::Diagnostics::publish("a", 1, 0, "superseded");
  korcommon::Diagnostics::publish("b", 5, 1, "");
  korcommon::Diagnostics::publish("a", 2, 2, "latest");

  auto inbox = Inbox::create();
  const Clock::time_point subscribed = Clock::now();
  korcommon::Diagnostics::subscribe(inbox->callback());
  ASSERT_TRUE(inbox->waitFor(2, seconds(8)));
  const std::vector<Arrival> batch = inbox->arrivals();
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(inbox->names(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(batch[0].value->code, 2);
  EXPECT_EQ(batch[0].value->message, "latest");
  EXPECT_EQ(batch[1].value->code, 5);
  for (const Arrival& arrival : batch) {
    EXPECT_EQ(arrival.value->caller_id, "body_node");
    EXPECT_GE(secondsBetween(subscribed, arrival.at), 2.95);
  }

  korcommon::Diagnostics::publish("c", 3, 0, "");
  ASSERT_TRUE(inbox->waitFor(3, seconds(2)));
  EXPECT_EQ(inbox->arrivals()[2].value->caller_id, "body_node");
  EXPECT_EQ(inbox->size(), 3u);
}

TEST_F(Diagnostics, EveryFieldArrivesThroughFramesAndSharedMessagesInEveryMode) {
  for (const bool intra_process : {false, true}) {
    for (const int mode : {0, 1, 2}) {
      SCOPED_TRACE("mode " + std::to_string(mode) + (intra_process ? ", shared" : ", frames"));
      ASSERT_TRUE(dova::init("leg_controller", optionsFor(mode, intra_process)));
      auto inbox = Inbox::create();
      ProbeSubscriber subscriber(inbox);
      const StopNodeOnExit stop_node;
      ASSERT_TRUE(dova::nh()->subscribe(subscriber, false, true, -1));

      korcommon::Diagnostics::publish("knee", "knee_link", 12, 2, "stalled\n\"hot\"");
      korcommon::Diagnostics::publish("hip", 0, 0, "");
      ASSERT_TRUE(inbox->waitFor(2, seconds(5)));
      const std::vector<Arrival> arrivals = inbox->arrivals();
      ASSERT_EQ(arrivals.size(), 2u);
      const DiagnosticValue& knee = *arrivals[0].value;
      EXPECT_EQ(knee.name, "knee");
      EXPECT_EQ(knee.header.frame_id, "knee_link");
      EXPECT_EQ(knee.code, 12);
      EXPECT_EQ(knee.level, 2);
      EXPECT_EQ(knee.message, "stalled\n\"hot\"");
      EXPECT_EQ(knee.header.seq, 0u);
      EXPECT_NE(knee.header.stamp.sec, 0u);
      EXPECT_EQ(arrivals[1].value->name, "hip") << "in publishing order";
      for (const Arrival& arrival : arrivals) {
        EXPECT_EQ(arrival.value->caller_id, "leg_controller");
        if (mode == 0) {
          EXPECT_EQ(arrival.tid, currentTid()) << "mode 0 delivers on the publishing thread";
        } else {
          EXPECT_EQ(arrival.thread_name, "dova_pool");
        }
      }
      EXPECT_EQ(subscriber.frames.load(), intra_process ? 0 : 2);
      EXPECT_EQ(subscriber.messages.load(), intra_process ? 2 : 0);
    }
  }
}

TEST_F(Diagnostics, ModeTwoRefusesPublishersWithAnotherChecksumWarningOnce) {
  for (const bool intra_process : {false, true}) {
    for (const int mode : {1, 2}) {
      SCOPED_TRACE("mode " + std::to_string(mode) + (intra_process ? ", shared" : ", frames"));
      ASSERT_TRUE(dova::init("arm_node", optionsFor(mode, intra_process)));
      TraceCapture trace;
      auto agreeing_inbox = Inbox::create();
      auto other_inbox = Inbox::create();
      ProbeSubscriber agreeing(agreeing_inbox);
      ProbeSubscriber other_version(other_inbox);
      other_version.msg_md5 = "0123456789abcdef0123456789abcdef";
      const StopNodeOnExit stop_node;
      // Latched before the mismatching subscriber joins: its replay is refused too.
      korcommon::Diagnostics::publish("elbow", 9, 0, "");
      ASSERT_TRUE(dova::nh()->subscribe(agreeing, false, true, -1));
      ASSERT_TRUE(dova::nh()->subscribe(other_version, true, true, -1));
      EXPECT_EQ(other_version.negotiated(), mode == 2);

      for (int code = 0; code < 3; ++code) korcommon::Diagnostics::publish("wrist", code, 0, "");
      ASSERT_TRUE(agreeing_inbox->waitFor(3, seconds(5)));
      ASSERT_TRUE(drainPool(other_version));
      EXPECT_EQ(agreeing_inbox->size(), 3u);
      if (mode == 2) {
        EXPECT_EQ(other_inbox->size(), 0u) << "frames of a mismatching publisher are dropped";
        EXPECT_EQ(other_version.frames.load() + other_version.messages.load(), 0);
        EXPECT_EQ(trace.count(dova::WARN, "negotiateTopics", "arm_node"), 1u)
            << "one warning per publisher, not per frame";
      } else {
        EXPECT_EQ(other_inbox->size(), 4u) << "mode 1 does not negotiate";
        EXPECT_EQ(trace.count(dova::WARN, "negotiateTopics"), 0u);
      }
    }
  }
}

TEST_F(Diagnostics, FrameOfAnotherTypeIsDroppedWithAWarningAndNeverDecoded) {
  for (const int mode : {0, 1}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    ASSERT_TRUE(dova::init("mixed_node", optionsFor(mode, false)));
    TraceCapture trace;

    // A Log subscriber on the diagnostics topic: a DiagnosticValue frame read
    // as a Log has a name length of 0x03000000 bytes.
    std::atomic<int> logs_decoded{0};
    dova::Subscriber<Log> log_reader;
    log_reader.callback_kind = 0;
    log_reader.callback_ref = [&logs_decoded](const Log&) { logs_decoded.fetch_add(1); };
    log_reader.setTopic(kTopic);
    // A DiagnosticValue subscriber on the log topic, reading Log frames.
    auto wrong_topic_inbox = Inbox::create();
    ProbeSubscriber on_log_topic(wrong_topic_inbox, dova::msgs::kLogTopic);
    // And one that matches, which must be unaffected.
    auto inbox = Inbox::create();
    ProbeSubscriber matching(inbox);
    const StopNodeOnExit stop_node;
    ASSERT_TRUE(dova::nh()->subscribe(log_reader, false, true, -1));
    ASSERT_TRUE(dova::nh()->subscribe(on_log_topic, false, true, -1));
    ASSERT_TRUE(dova::nh()->subscribe(matching, false, true, -1));

    korcommon::Diagnostics::publish("hip", 3, 1, "x");
    auto record = std::make_shared<Log>();
    record->name = "leg";
    record->msg = "a log record on its own topic";
    record->level = 2;
    dova::nh()->log(record);

    ASSERT_TRUE(inbox->waitFor(1, seconds(5)));
    ASSERT_TRUE(drainPool(log_reader));
    ASSERT_TRUE(drainPool(on_log_topic));
    EXPECT_EQ(inbox->names(), std::vector<std::string>{"hip"});
    EXPECT_EQ(logs_decoded.load(), 0);
    EXPECT_EQ(on_log_topic.frames.load(), 0) << "the subscriber never saw the frame";
    EXPECT_EQ(wrong_topic_inbox->size(), 0u);
    EXPECT_EQ(trace.count(dova::WARN, "deliver", "dova_msgs/Log"), 1u);
    EXPECT_EQ(trace.count(dova::WARN, "deliver", "diagnostic_msgs/DiagnosticValue"), 1u);
    EXPECT_EQ(trace.count(dova::WARN, "deliver", "mixed_node"), 2u) << "naming the publisher";
  }
}

TEST_F(Diagnostics, ThrowingSubscriberDoesNotStopDeliveriesToOthers) {
  for (const int mode : {0, 1}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    ASSERT_TRUE(dova::init("monitor", optionsFor(mode)));
    TraceCapture trace;
    std::atomic<int> thrower_calls{0};
    dova::Subscriber<DiagnosticValue> thrower;
    thrower.callback_kind = 0;
    thrower.callback_ref = [&thrower_calls](const DiagnosticValue& value) {
      thrower_calls.fetch_add(1);
      if (value.code % 2 == 0) throw std::runtime_error("sensor table corrupt");
      throw 42;  // not a standard exception
    };
    thrower.setTopic(kTopic);
    auto inbox = Inbox::create();
    ProbeSubscriber steady(inbox);
    const StopNodeOnExit stop_node;
    ASSERT_TRUE(dova::nh()->subscribe(thrower, false, true, -1));  // served first
    ASSERT_TRUE(dova::nh()->subscribe(steady, false, true, -1));

    for (int code = 0; code < 4; ++code) korcommon::Diagnostics::publish("r", code, 0, "");
    ASSERT_TRUE(inbox->waitFor(4, seconds(5)));
    ASSERT_TRUE(drainPool(thrower));
    EXPECT_EQ(thrower_calls.load(), 4) << "a subscriber that threw still gets the next ones";
    EXPECT_EQ(inbox->size(), 4u);
    EXPECT_EQ(trace.count(dova::ERROR, "deliver", "sensor table corrupt"), 2u);
    EXPECT_EQ(trace.count(dova::ERROR, "deliver", "non-standard"), 2u);
  }
}

TEST_F(Diagnostics, BoundedQueueDropsTheOldestWaitingDelivery) {
  ASSERT_TRUE(dova::init("monitor", optionsFor(1)));
  struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
  };
  auto gate = std::make_shared<Gate>();
  auto inbox = Inbox::create();
  dova::Subscriber<DiagnosticValue> bounded;
  bounded.callback_kind = 2;
  bounded.callback_ptr = [gate, inbox](const DiagnosticValuePtr& value) {
    inbox->add(value);
    std::unique_lock<std::mutex> lock(gate->mutex);
    if (gate->entered) return;
    gate->entered = true;
    gate->changed.notify_all();
    gate->changed.wait_for(lock, seconds(5), [&] { return gate->released; });
  };
  bounded.setTopic(kTopic);
  auto unbounded_inbox = Inbox::create();
  ProbeSubscriber unbounded(unbounded_inbox);
  const StopNodeOnExit stop_node;
  ASSERT_TRUE(dova::nh()->subscribe(bounded, false, true, 2));
  ASSERT_TRUE(dova::nh()->subscribe(unbounded, false, true, -1));

  korcommon::Diagnostics::publish("r0", 0, 0, "");
  {
    std::unique_lock<std::mutex> lock(gate->mutex);
    ASSERT_TRUE(gate->changed.wait_for(lock, seconds(5), [&] { return gate->entered; }));
  }
  // The pool is busy with r0, so these wait in a queue of two.
  for (int index = 1; index <= 5; ++index) {
    korcommon::Diagnostics::publish("r" + std::to_string(index), index, 0, "");
  }
  {
    std::lock_guard<std::mutex> lock(gate->mutex);
    gate->released = true;
    gate->changed.notify_all();
  }
  ASSERT_TRUE(inbox->waitFor(3, seconds(5)));
  ASSERT_TRUE(drainPool(bounded));
  EXPECT_EQ(inbox->names(), (std::vector<std::string>{"r0", "r4", "r5"}));
  ASSERT_TRUE(unbounded_inbox->waitFor(6, seconds(5)));
  EXPECT_EQ(unbounded_inbox->names(),
            (std::vector<std::string>{"r0", "r1", "r2", "r3", "r4", "r5"}));
}

TEST_F(Diagnostics, LatchedJoinerNeverSeesTheReplayedStateAfterANewerReport) {
  // Mode 0 replays the latched state on the joining thread while publishers
  // already deliver to the new subscription: a newer report must not arrive
  // before the older state, or the joiner keeps the stale one.
  ASSERT_TRUE(dova::init("monitor", optionsFor(0)));
  std::atomic<bool> publishing{true};
  std::thread publisher([&publishing] {
    for (int code = 0; publishing.load(); ++code) korcommon::Diagnostics::publish("x", code, 0, "");
  });
  struct Codes {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> seen;
  };
  std::vector<std::unique_ptr<dova::Subscriber<DiagnosticValue>>> joiners;
  int out_of_order = 0;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    auto codes = std::make_shared<Codes>();
    auto joiner = std::make_unique<dova::Subscriber<DiagnosticValue>>();
    joiner->callback_kind = 0;
    joiner->callback_ref = [codes](const DiagnosticValue& value) {
      std::lock_guard<std::mutex> lock(codes->mutex);
      codes->seen.push_back(value.code);
      codes->changed.notify_all();
    };
    joiner->setTopic(kTopic);
    joiners.push_back(std::move(joiner));  // registered subscribers stay alive
    // No ASSERT while the publisher runs: leaving early would skip its join.
    if (!dova::nh()->subscribe(*joiners.back(), true, true, -1)) {
      ADD_FAILURE() << "subscribe failed";
      break;
    }
    std::unique_lock<std::mutex> lock(codes->mutex);
    if (!codes->changed.wait_for(lock, seconds(2), [&] { return codes->seen.size() >= 3; })) {
      ADD_FAILURE() << "joiner " << attempt << " got fewer than 3 reports within 2 s";
      break;
    }
    joiners.back()->setEnabled(false);  // keeps later attempts fast; it stays registered
    if (!std::is_sorted(codes->seen.begin(), codes->seen.end())) ++out_of_order;
  }
  publishing = false;
  publisher.join();
  EXPECT_EQ(out_of_order, 0) << "of " << joiners.size() << " joiners";
}

TEST_F(Diagnostics, ShutdownWaitsForDeliveriesInFlightAndStartsNoMore) {
  for (const int mode : {0, 1}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    ASSERT_TRUE(dova::init("monitor", optionsFor(mode)));
    struct Progress {
      std::mutex mutex;
      std::condition_variable changed;
      int started = 0;
      int finished = 0;
      bool shut_down = false;
      int started_after_shutdown = 0;
    };
    auto progress = std::make_shared<Progress>();
    auto slow = std::make_unique<dova::Subscriber<DiagnosticValue>>();
    slow->callback_kind = 0;
    slow->callback_ref = [progress](const DiagnosticValue&) {
      {
        std::lock_guard<std::mutex> lock(progress->mutex);
        ++progress->started;
        if (progress->shut_down) ++progress->started_after_shutdown;
        progress->changed.notify_all();
      }
      std::this_thread::sleep_for(milliseconds(300));  // a slow callback, on purpose
      std::lock_guard<std::mutex> lock(progress->mutex);
      ++progress->finished;
      progress->changed.notify_all();
    };
    slow->setTopic(kTopic);
    ASSERT_TRUE(dova::nh()->subscribe(*slow, false, true, -1));

    // Mode 0 delivers on the publishing thread, so publish from another one.
    std::thread publisher([] {
      for (int index = 0; index < 5; ++index) korcommon::Diagnostics::publish("s", index, 0, "");
    });
    bool entered = false;
    {
      std::unique_lock<std::mutex> lock(progress->mutex);
      entered = progress->changed.wait_for(lock, seconds(5), [&] { return progress->started > 0; });
    }
    dova::shutdown();
    {
      std::lock_guard<std::mutex> lock(progress->mutex);
      EXPECT_TRUE(entered) << "no delivery started within 5 s";
      EXPECT_EQ(progress->finished, progress->started) << "shutdown returned mid-delivery";
      progress->shut_down = true;
    }
    publisher.join();
    slow.reset();  // the user may free a subscriber once shutdown has returned

    std::unique_lock<std::mutex> lock(progress->mutex);
    const int started = progress->started;
    EXPECT_FALSE(progress->changed.wait_for(lock, milliseconds(500), [&] {
      return progress->started != started;
    })) << "a delivery started after shutdown";
    EXPECT_EQ(progress->started_after_shutdown, 0);
    EXPECT_LT(progress->started, 5) << "the pending deliveries were dropped";
  }
}

TEST_F(Diagnostics, SubscriberStopsTheMiddlewareFromItsOwnPoolThread) {
  // The subscriber's own pool must not wait for the very delivery that
  // destroys it: shutdown returns without the blocked-pool warning.
  ASSERT_TRUE(dova::init("stopping_node", optionsFor(1)));
  TraceCapture trace;
  struct Progress {
    std::mutex mutex;
    std::condition_variable changed;
    bool shut_down = false;
  };
  auto progress = std::make_shared<Progress>();
  auto stopping = std::make_unique<dova::Subscriber<DiagnosticValue>>();
  stopping->callback_kind = 2;
  stopping->callback_ptr = [progress](const std::shared_ptr<const DiagnosticValue>&) {
    dova::shutdown();
    std::lock_guard<std::mutex> lock(progress->mutex);
    progress->shut_down = true;
    progress->changed.notify_all();
  };
  stopping->setTopic(kTopic);
  ASSERT_TRUE(dova::nh()->subscribe(*stopping, false, true, -1));
  korcommon::Diagnostics::publish("knee", 1, 0, "");
  std::unique_lock<std::mutex> lock(progress->mutex);
  ASSERT_TRUE(progress->changed.wait_for(lock, seconds(10), [&] { return progress->shut_down; }));
  EXPECT_EQ(trace.count(dova::WARN, "wait_completed"), 0u);
}

}  // namespace
