#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/os/node_handle_base.h"
#include "stand_in_handle.h"
#include "trace_capture.h"

namespace {

using dova::SubscriberBase;
using dova::diagnostic_msgs::DiagnosticValue;
using DiagnosticSubscriber = dova::Subscriber<DiagnosticValue>;
using DiagnosticValuePtr = std::shared_ptr<const DiagnosticValue>;

DiagnosticValue sampleReport() {
  DiagnosticValue value;
  value.header.seq = 7;
  value.header.stamp = dova::Time(1700000000, 123456789);
  value.header.frame_id = "base_link";
  value.level = DiagnosticValue::WARN;
  value.name = "hip_motor";
  value.code = -42;
  value.message = "too warm";
  return value;
}

std::vector<uint8_t> encoded(const DiagnosticValue& value) {
  std::vector<uint8_t> bytes(static_cast<size_t>(value.serializedLength()));
  value.serialize(bytes.data(), value.serializedLength());
  return bytes;
}

// A frame as the transport delivers it: `sender` NUL-padded or cut to the 32-byte prefix,
// then the encoding, and not one byte more.
std::vector<uint8_t> frameOf(const std::string& sender, const DiagnosticValue& value) {
  std::vector<uint8_t> frame(32, 0);
  std::memcpy(frame.data(), sender.data(), std::min<size_t>(sender.size(), 32));
  const std::vector<uint8_t> message = encoded(value);
  frame.insert(frame.end(), message.begin(), message.end());
  return frame;
}

// One call of a user function: its slot, what it received, and for the shared-pointer
// slots the pointer itself and its owners during the call.
struct Call {
  uint32_t slot;
  DiagnosticValue value;
  const DiagnosticValue* address;
  SubscriberBase* self;
  DiagnosticValuePtr pointer;
  long owners;
};

// Fills all four slots, so that a kind calling the wrong one is seen.
void fillEverySlot(DiagnosticSubscriber& sub, std::vector<Call>& calls) {
  sub.callback_ref = [&calls](const DiagnosticValue& v) {
    calls.push_back({0, v, &v, nullptr, {}, 0});
  };
  sub.callback_ref_sub = [&calls](const DiagnosticValue& v, SubscriberBase* self) {
    calls.push_back({1, v, &v, self, {}, 0});
  };
  // The owners are counted before the call's record takes its own.
  sub.callback_ptr = [&calls](const DiagnosticValuePtr& v) {
    const long owners = v.use_count();
    calls.push_back({2, *v, v.get(), nullptr, v, owners});
  };
  sub.callback_ptr_sub = [&calls](const DiagnosticValuePtr& v, SubscriberBase* self) {
    const long owners = v.use_count();
    calls.push_back({3, *v, v.get(), self, v, owners});
  };
}

TEST(Subscriber, EachKindCallsItsOwnSlotWithFramesAndSharedMessages) {
  const DiagnosticValue sent = sampleReport();
  for (uint32_t kind = 0; kind < 5; ++kind) {
    SCOPED_TRACE("callback_kind " + std::to_string(kind));
    DiagnosticSubscriber sub;
    std::vector<Call> calls;
    fillEverySlot(sub, calls);
    sub.callback_kind = kind;

    // Frames: decoded from byte 32 on, the caller id is the prefix up to its first NUL.
    for (const std::string& sender : {std::string("front_left_leg"), std::string(40, 'x')}) {
      std::vector<uint8_t> frame = frameOf(sender, sent);
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
    std::vector<uint8_t> frame = frameOf("node", sent);
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
      EXPECT_EQ(encoded(calls[i].value), encoded(sent));
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
  using korcommon::testing::TraceReport;
  struct Row {
    uint32_t inited;
    uint32_t mode;
    bool accepted;
    std::vector<std::string> traces;  // "LEVEL text", %u standing for the id
  };
  const Row rows[] = {
      {0, 1, false, {"8 DOVA no inited!"}},
      {1, 0, true, {}},  // the middleware's subscribe only: no id, no pool
      {1, 1, true, {"1 Subscribers[%u] topic_id: %u, topic_name: /diagnostics_value"}},
      {1, 2, true, {"1 Subscribers[%u] topic_id: %u, topic_name: /diagnostics_value"}},
      {1, 3, false, {}},  // an unknown mode is refused silently
      {1, 0xFFFFFFFF, false, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("inited " + std::to_string(row.inited) + ", mode " + std::to_string(row.mode));
    korcommon::testing::StandInHandle handle(true, row.mode);
    handle.inited = row.inited;
    DiagnosticSubscriber sub;
    sub.setTopic("/diagnostics_value");
    const korcommon::testing::TraceCapture trace;
    EXPECT_EQ(handle.subscribe(sub, true, false, 7), row.accepted);

    const bool pooled = row.accepted && row.mode != 0;
    EXPECT_EQ(sub.topic_id != 0, pooled);
    EXPECT_EQ(handle.pools.size(), pooled ? 1u : 0u);
    EXPECT_EQ(handle.subscribers.size(), pooled ? 1u : 0u);
    EXPECT_EQ(handle.subscribers[sub.topic_id], pooled ? &sub : nullptr);
    EXPECT_EQ(sub.negotiated(), row.accepted && row.mode == 2);
    EXPECT_EQ(handle.negotiated.items(),
              pooled ? std::vector<SubscriberBase*>{&sub} : std::vector<SubscriberBase*>{});
    // The flags and the number reach the middleware's subscribe unchanged, when it is called.
    EXPECT_EQ(sub.getLatch(), row.accepted);
    EXPECT_EQ(sub.getQueueSize(), row.accepted ? 7 : 0);
    std::vector<std::string> traces;
    for (const TraceReport& report : trace.reports()) {
      EXPECT_EQ(report.function, "subscribe");
      EXPECT_NE(report.file.find("dova/os/node_handle_base"), std::string::npos) << report.file;
      traces.push_back(std::to_string(report.level) + " " + report.text);
    }
    std::vector<std::string> expected = row.traces;
    for (std::string& text : expected) {
      // The id is printed twice on purpose, as the key and as topic_id.
      for (size_t at; (at = text.find("%u")) != std::string::npos;) {
        text.replace(at, 2, std::to_string(sub.topic_id));
      }
    }
    EXPECT_EQ(traces, expected);
  }
}

TEST(Subscriber, EachRegistrationGetsAPoolOfOneThreadNamedDovaPool) {
  korcommon::testing::StandInHandle handle(true, 1);
  DiagnosticSubscriber first;
  DiagnosticSubscriber second;
  ASSERT_TRUE(handle.subscribe(first, true, true, -1));
  ASSERT_TRUE(handle.subscribe(second, true, true, -1));
  ASSERT_NE(first.topic_id, second.topic_id);
  ASSERT_EQ(handle.pools.size(), 2u);
  EXPECT_EQ(handle.subscribers[second.topic_id], &second);
  // A pool of more threads would name them dova_pool_0, dova_pool_1, ...
  auto workers = std::make_shared<korcommon::testing::Inbox<std::string>>();
  for (const auto& pool : handle.pools) {
    pool.second->post([workers] { workers->add(korcommon::testing::currentThreadName()); });
  }
  ASSERT_TRUE(workers->waitFor(2));
  EXPECT_EQ(workers->items(), (std::vector<std::string>{"dova_pool", "dova_pool"}));
}

}  // namespace
