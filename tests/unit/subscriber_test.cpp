// The typed subscriber's two entry points and its registration with a node handle.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/os/node_handle_base.h"
#include "read_file.h"
#include "stand_in_handle.h"
#include "table_rows.h"
#include "threads.h"
#include "trace_capture.h"

namespace {

using dova::SubscriberBase;
using dova::diagnostic_msgs::DiagnosticValue;
using DiagnosticSubscriber = dova::Subscriber<DiagnosticValue>;
using DiagnosticValuePtr = std::shared_ptr<const DiagnosticValue>;

// A frame as the transport delivers it: `sender` NUL-padded or cut to the 32-byte prefix,
// then the encoding of `value`, and not one byte more.
std::vector<uint8_t> frameOf(const DiagnosticValue& value, const std::string& sender = "") {
  std::vector<uint8_t> frame(32 + static_cast<size_t>(value.serializedLength()), 0);
  std::memcpy(frame.data(), sender.data(), std::min<size_t>(sender.size(), 32));
  value.serialize(frame.data() + 32, value.serializedLength());
  return frame;
}

// One call of a user function: its slot, what it received, and for the shared-pointer
// slots the pointer itself and its owners during the call.
struct Call {
  uint32_t slot;
  DiagnosticValue value;
  const DiagnosticValue* address;
  SubscriberBase* self;
  long owners;  // counted before `pointer` takes its own
  DiagnosticValuePtr pointer;
};

TEST(Subscriber, EachKindCallsItsOwnSlotWithFramesAndSharedMessages) {
  DiagnosticValue sent;
  sent.header.seq = 7;
  sent.header.stamp = dova::Time(1700000000, 123456789);
  sent.header.frame_id = "base_link";
  sent.level = DiagnosticValue::WARN;
  sent.name = "hip_motor";
  sent.code = -42;
  sent.message = "too warm";
  for (uint32_t kind = 0; kind < 5; ++kind) {
    SCOPED_TRACE("callback_kind " + std::to_string(kind));
    DiagnosticSubscriber sub;
    std::vector<Call> calls;
    // All four slots filled, so that a kind calling the wrong one is seen.
    sub.callback_ref = [&](const DiagnosticValue& v) { calls.push_back({0, v, &v, {}, 0, {}}); };
    sub.callback_ref_sub = [&](const DiagnosticValue& v, SubscriberBase* self) {
      calls.push_back({1, v, &v, self, 0, {}});
    };
    sub.callback_ptr = [&](const DiagnosticValuePtr& v) {
      calls.push_back({2, *v, v.get(), {}, v.use_count(), v});
    };
    sub.callback_ptr_sub = [&](const DiagnosticValuePtr& v, SubscriberBase* self) {
      calls.push_back({3, *v, v.get(), self, v.use_count(), v});
    };
    sub.callback_kind = kind;

    // Frames: decoded from byte 32 on, the caller id is the prefix up to its first NUL.
    for (const std::string& sender : {std::string("front_left_leg"), std::string(40, 'x')}) {
      std::vector<uint8_t> frame = frameOf(sent, sender);
      sub.callback(frame.data(), static_cast<int>(frame.size()));
      std::fill(frame.begin(), frame.end(), uint8_t{0xAA});  // the frame is gone
    }
    // A shared message is handed over as it is: no copy, no new owner, caller_id untouched.
    auto published = std::make_shared<DiagnosticValue>(sent);
    published->caller_id = "same_process";
    const std::shared_ptr<const dova::Msg> message = published;
    sub.intraProcess(message);
    // Disabled, neither entry calls anything.
    sub.setEnabled(false);
    std::vector<uint8_t> frame = frameOf(sent, "node");
    sub.callback(frame.data(), static_cast<int>(frame.size()));
    sub.intraProcess(message);

    if (kind == 4) {
      EXPECT_TRUE(calls.empty()) << "an unknown kind calls nothing";
      continue;
    }
    ASSERT_EQ(calls.size(), 3u);
    const std::string callers[] = {"front_left_leg", std::string(32, 'x'), "same_process"};
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].slot, kind);
      EXPECT_EQ(frameOf(calls[i].value), frameOf(sent));
      EXPECT_EQ(calls[i].value.caller_id, callers[i]);
      EXPECT_EQ(calls[i].self, kind % 2 == 1 ? &sub : nullptr);
    }
    EXPECT_EQ(calls[2].address, published.get());
    if (kind >= 2) {
      // During the call the subscriber held the decoded message alone; the receiver's
      // copy of the pointer outlives the frame and owns its message.
      EXPECT_EQ(calls[0].owners, 1);
      EXPECT_EQ(calls[0].pointer.use_count(), 1);
      EXPECT_EQ(calls[0].pointer->name, sent.name);
      EXPECT_EQ(calls[2].owners, 2) << "`published` and `message` only";
    }
    // With the selected slot empty, whatever the others hold, the call throws.
    const std::function<void()> empty_slot[] = {
        [&] { sub.callback_ref = nullptr; }, [&] { sub.callback_ref_sub = nullptr; },
        [&] { sub.callback_ptr = nullptr; }, [&] { sub.callback_ptr_sub = nullptr; }};
    empty_slot[kind]();
    sub.setEnabled(true);
    EXPECT_THROW(sub.callback(frame.data(), static_cast<int>(frame.size())),
                 std::bad_function_call);
    EXPECT_THROW(sub.intraProcess(message), std::bad_function_call);
    EXPECT_EQ(calls.size(), 3u);
  }
}

TEST(Subscriber, RegistrationDependsOnTheNodesMode) {
  for (const auto& row : korcommon::testing::tableRows("platform/registration.txt", 5)) {
    SCOPED_TRACE(row[4]);
    const bool accepted = row[2] == "yes";
    const auto mode = static_cast<uint32_t>(std::stoul(row[1]));
    korcommon::testing::StandInHandle handle(true, mode);
    handle.inited = static_cast<uint32_t>(std::stoul(row[0]));
    DiagnosticSubscriber sub;
    DiagnosticSubscriber second;
    sub.setTopic("/diagnostics_value");
    const korcommon::testing::TraceCapture trace;
    EXPECT_EQ(handle.subscribe(sub, true, false, 7), accepted);

    const bool pooled = accepted && mode != 0;
    EXPECT_EQ(sub.topic_id != 0, pooled);
    EXPECT_EQ(handle.pools.size(), pooled ? 1u : 0u);
    EXPECT_EQ(handle.subscribers.size(), pooled ? 1u : 0u);
    EXPECT_EQ(handle.subscribers[sub.topic_id], pooled ? &sub : nullptr);
    EXPECT_EQ(sub.negotiated(), accepted && mode == 2);
    EXPECT_EQ(handle.negotiated.items(),
              pooled ? std::vector<SubscriberBase*>{&sub} : std::vector<SubscriberBase*>{});
    // The flags and the number reach the middleware's subscribe unchanged, when it is called.
    EXPECT_EQ(sub.getLatch(), accepted);
    EXPECT_EQ(sub.getQueueSize(), accepted ? 7 : 0);
    std::vector<std::string> traces;
    for (const korcommon::testing::TraceReport& report : trace.reports()) {
      EXPECT_EQ(report.function, "subscribe");
      EXPECT_NE(report.file.find("dova/os/node_handle_base"), std::string::npos) << report.file;
      traces.push_back(std::to_string(report.level) + " " + report.text);
    }
    // The id is printed twice on purpose, as the key and as topic_id.
    const std::string id = std::to_string(sub.topic_id);
    EXPECT_EQ(traces, row[3] != "-" ? std::vector<std::string>{"8 " + row[3]}
                      : pooled ? std::vector<std::string>{"1 Subscribers[" + id + "] topic_id: " +
                                                          id + ", topic_name: /diagnostics_value"}
                               : std::vector<std::string>{});
    // A second registration: a pool and an id of its own.
    if (pooled) {
      ASSERT_TRUE(handle.subscribe(second, true, true, -1));
      EXPECT_NE(second.topic_id, sub.topic_id);
      EXPECT_EQ(handle.pools.size(), 2u);
      EXPECT_EQ(handle.subscribers[second.topic_id], &second);
    }
  }
}

// Whether every thread of this process named "dova_pool" leaves within a deadline (a
// released pool's worker leaves a moment after the pool is gone).
bool poolThreadsLeave() {
  return korcommon::testing::pollUntil([] {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      if (korcommon::testing::readFile(task.path() / "comm") == "dova_pool\n") return false;
    }
    return true;
  });
}

TEST(Subscriber, RegistrationRacingShutdownLeavesNoPoolThreadBehind) {
  const korcommon::testing::TraceCapture refusals;  // too late: refused with an error
  std::vector<std::unique_ptr<DiagnosticSubscriber>> subscribers;
  const auto subscribe = [&subscribers](dova::NodeHandleBase* handle) {
    subscribers.push_back(std::make_unique<DiagnosticSubscriber>());
    subscribers.back()->setTopic("/diagnostics_value");
    handle->subscribe(*subscribers.back(), false, true, -1);
  };
  // A registration that passed the inited check just before shutdown records its pool
  // after shutdown released the others.
  ASSERT_TRUE(dova::init("racer", dova::Options{"local", 1, true, -1}));
  dova::NodeHandleBase* stopped = dova::nh();
  dova::shutdown();
  stopped->inited = 1;  // as the registration saw it
  subscribe(stopped);
  EXPECT_TRUE(stopped->pools.empty()) << "a pool nothing will ever post to";
  EXPECT_TRUE(poolThreadsLeave());

  // The same race run for real: registrations on one thread, shutdown on another.
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(dova::init("racer", dova::Options{"local", 1 + round % 2, true, -1}));
    dova::NodeHandleBase* handle = dova::nh();
    std::atomic<bool> started{false};
    std::thread racing([&] {
      started = true;
      for (int i = 0; i < 8; ++i) subscribe(handle);
    });
    while (!started) std::this_thread::yield();
    dova::shutdown();
    racing.join();
  }
  EXPECT_TRUE(poolThreadsLeave());
}

}  // namespace
