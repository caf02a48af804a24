#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/os/node_handle_base.h"
#include "trace_capture.h"

namespace {

using dova::SubscriberBase;
using dova::diagnostic_msgs::DiagnosticValue;
using korcommon::testing::TraceCapture;
using korcommon::testing::TraceReport;
using DiagnosticSubscriber = dova::Subscriber<DiagnosticValue>;
using DiagnosticValuePtr = std::shared_ptr<const DiagnosticValue>;

constexpr size_t kPrefixSize = 32;

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

// A frame as the transport delivers it: `sender` NUL-padded (or cut) to the
// 32-byte prefix, then the encoding, and not one byte more.
std::vector<uint8_t> frameOf(const std::string& sender, const DiagnosticValue& value) {
  std::vector<uint8_t> frame(kPrefixSize + static_cast<size_t>(value.serializedLength()), 0);
  std::memcpy(frame.data(), sender.data(), std::min(sender.size(), kPrefixSize));
  value.serialize(frame.data() + kPrefixSize, value.serializedLength());
  return frame;
}

void expectSameReport(const DiagnosticValue& actual, const DiagnosticValue& expected) {
  EXPECT_EQ(actual.header.seq, expected.header.seq);
  EXPECT_EQ(actual.header.stamp, expected.header.stamp);
  EXPECT_EQ(actual.header.frame_id, expected.header.frame_id);
  EXPECT_EQ(actual.level, expected.level);
  EXPECT_EQ(actual.name, expected.name);
  EXPECT_EQ(actual.code, expected.code);
  EXPECT_EQ(actual.message, expected.message);
}

// What the four user functions saw, one entry per call.
struct Seen {
  std::vector<uint32_t> kinds;
  std::vector<DiagnosticValue> values;
  std::vector<const DiagnosticValue*> addresses;
  std::vector<long> use_counts;  // of the shared pointer received, during the call
  std::vector<SubscriberBase*> subscribers;
};

// Fills all four slots, so a kind that calls the wrong slot is seen.
void installAll(DiagnosticSubscriber& sub, Seen& seen) {
  sub.callback_ref = [&seen](const DiagnosticValue& value) {
    seen.kinds.push_back(0);
    seen.values.push_back(value);
    seen.addresses.push_back(&value);
  };
  sub.callback_ref_sub = [&seen](const DiagnosticValue& value, SubscriberBase* self) {
    seen.kinds.push_back(1);
    seen.values.push_back(value);
    seen.addresses.push_back(&value);
    seen.subscribers.push_back(self);
  };
  sub.callback_ptr = [&seen](const DiagnosticValuePtr& value) {
    seen.kinds.push_back(2);
    seen.values.push_back(*value);
    seen.addresses.push_back(value.get());
    seen.use_counts.push_back(value.use_count());
  };
  sub.callback_ptr_sub = [&seen](const DiagnosticValuePtr& value, SubscriberBase* self) {
    seen.kinds.push_back(3);
    seen.values.push_back(*value);
    seen.addresses.push_back(value.get());
    seen.use_counts.push_back(value.use_count());
    seen.subscribers.push_back(self);
  };
}

TEST(Subscriber, FrameIsDecodedFromByte32WithTheCallerIdOfThePrefix) {
  const DiagnosticValue sent = sampleReport();
  for (uint32_t kind = 0; kind < 4; ++kind) {
    SCOPED_TRACE("callback_kind " + std::to_string(kind));
    DiagnosticSubscriber sub;
    Seen seen;
    installAll(sub, seen);
    sub.callback_kind = kind;

    std::vector<uint8_t> frame = frameOf("front_left_leg", sent);
    ASSERT_EQ(frame.size(), kPrefixSize + 32 + 9 + 9 + 8) << "exactly 32 + N bytes";
    sub.callback(frame.data(), static_cast<int>(frame.size()));

    ASSERT_EQ(seen.kinds, std::vector<uint32_t>{kind});
    expectSameReport(seen.values[0], sent);
    EXPECT_EQ(seen.values[0].caller_id, "front_left_leg");
    if (kind == 1 || kind == 3) {
      ASSERT_EQ(seen.subscribers.size(), 1u);
      EXPECT_EQ(seen.subscribers[0], &sub);
    }
    if (kind >= 2) {
      // The subscriber released its own reference once the call returned,
      // but during the call it was the only owner.
      EXPECT_EQ(seen.use_counts, std::vector<long>{1});
    }
  }
}

TEST(Subscriber, CallerIdTakesTheWholePrefixWhenItHasNoNul) {
  const std::string long_name(40, 'x');
  DiagnosticSubscriber sub;
  Seen seen;
  installAll(sub, seen);
  for (uint32_t kind : {0u, 2u}) {
    sub.callback_kind = kind;
    std::vector<uint8_t> frame = frameOf(long_name, sampleReport());
    sub.callback(frame.data(), static_cast<int>(frame.size()));
  }
  ASSERT_EQ(seen.values.size(), 2u);
  for (const DiagnosticValue& value : seen.values) {
    EXPECT_EQ(value.caller_id, std::string(32, 'x'));
    EXPECT_EQ(value.name, "hip_motor") << "the message still starts at byte 32";
  }
}

TEST(Subscriber, KeptPointerOutlivesTheCallAndOwnsItsMessage) {
  DiagnosticSubscriber sub;
  DiagnosticValuePtr kept;
  sub.callback_ptr = [&kept](const DiagnosticValuePtr& value) { kept = value; };
  sub.callback_kind = 2;
  {
    std::vector<uint8_t> frame = frameOf("arm", sampleReport());
    sub.callback(frame.data(), static_cast<int>(frame.size()));
    std::fill(frame.begin(), frame.end(), uint8_t{0xAA});  // the frame is gone
  }
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept.use_count(), 1) << "the subscriber kept no reference of its own";
  expectSameReport(*kept, sampleReport());
  EXPECT_EQ(kept->caller_id, "arm");
}

TEST(Subscriber, IntraProcessHandsOverTheSameObjectWithoutCopyOrNewReference) {
  for (uint32_t kind = 0; kind < 4; ++kind) {
    SCOPED_TRACE("callback_kind " + std::to_string(kind));
    DiagnosticSubscriber sub;
    Seen seen;
    installAll(sub, seen);
    sub.callback_kind = kind;

    auto published = std::make_shared<DiagnosticValue>(sampleReport());
    published->caller_id = "same_process_node";
    const std::shared_ptr<const dova::Msg> message = published;
    const long owners = message.use_count();
    sub.intraProcess(message);

    ASSERT_EQ(seen.kinds, std::vector<uint32_t>{kind});
    EXPECT_EQ(seen.addresses[0], published.get()) << "no copy of the message";
    expectSameReport(seen.values[0], sampleReport());
    EXPECT_EQ(seen.values[0].caller_id, "same_process_node") << "caller_id is left as it is";
    if (kind >= 2) {
      EXPECT_EQ(seen.use_counts, std::vector<long>{owners}) << "no new reference";
    }
    if (kind == 1 || kind == 3) {
      ASSERT_EQ(seen.subscribers.size(), 1u);
      EXPECT_EQ(seen.subscribers[0], &sub);
    }
    EXPECT_EQ(message.use_count(), owners);
  }
}

TEST(Subscriber, DisabledSubscriberCallsNothingAndUnknownKindIsIgnored) {
  std::vector<uint8_t> frame = frameOf("node", sampleReport());
  const std::shared_ptr<const dova::Msg> message = std::make_shared<DiagnosticValue>();
  for (uint32_t kind = 0; kind < 4; ++kind) {
    DiagnosticSubscriber sub;
    Seen seen;
    installAll(sub, seen);
    sub.callback_kind = kind;
    EXPECT_TRUE(sub.getEnabled()) << "a subscriber starts enabled";
    sub.setEnabled(false);
    EXPECT_FALSE(sub.getEnabled());
    sub.callback(frame.data(), static_cast<int>(frame.size()));
    sub.intraProcess(message);
    EXPECT_TRUE(seen.kinds.empty()) << "kind " << kind;

    sub.setEnabled(true);
    sub.callback(frame.data(), static_cast<int>(frame.size()));
    sub.intraProcess(message);
    EXPECT_EQ(seen.kinds.size(), 2u) << "kind " << kind << " works again once enabled";
  }

  DiagnosticSubscriber unknown;
  Seen seen;
  installAll(unknown, seen);
  unknown.callback_kind = 4;
  EXPECT_NO_THROW(unknown.callback(frame.data(), static_cast<int>(frame.size())));
  EXPECT_NO_THROW(unknown.intraProcess(message));
  EXPECT_TRUE(seen.kinds.empty());
}

TEST(Subscriber, EmptyUserFunctionThrowsBadFunctionCall) {
  std::vector<uint8_t> frame = frameOf("node", sampleReport());
  const std::shared_ptr<const dova::Msg> message = std::make_shared<DiagnosticValue>();
  for (uint32_t kind = 0; kind < 4; ++kind) {
    SCOPED_TRACE("callback_kind " + std::to_string(kind));
    DiagnosticSubscriber sub;
    Seen seen;
    installAll(sub, seen);
    // Empty only the selected slot: the others being set must not matter.
    switch (kind) {
      case 0:
        sub.callback_ref = nullptr;
        break;
      case 1:
        sub.callback_ref_sub = nullptr;
        break;
      case 2:
        sub.callback_ptr = nullptr;
        break;
      default:
        sub.callback_ptr_sub = nullptr;
        break;
    }
    sub.callback_kind = kind;
    EXPECT_THROW(sub.callback(frame.data(), static_cast<int>(frame.size())),
                 std::bad_function_call);
    EXPECT_THROW(sub.intraProcess(message), std::bad_function_call);
    EXPECT_TRUE(seen.kinds.empty());
  }
}

TEST(Subscriber, TypeChecksumAndDefinitionComeFromTheMessage) {
  DiagnosticSubscriber sub;
  EXPECT_EQ(sub.getMsgType(), "diagnostic_msgs/DiagnosticValue");
  EXPECT_EQ(sub.getMsgMD5(), "879d5c821998ca0ab6e3520e8c63e5fc");
  EXPECT_EQ(sub.getMsgDef(), DiagnosticValue().getDefinition());
  EXPECT_FALSE(sub.negotiated());
  EXPECT_EQ(sub.topic_id, 0u);
  sub.setTopic("/diagnostics_value");
  EXPECT_EQ(sub.getTopic(), "/diagnostics_value");
  sub.setCount(5);
  EXPECT_EQ(sub.getCount(), 5);
}

// A node handle standing in for the middleware: initialised, in a chosen
// mode, recording the subscribers it is asked to negotiate for.
class StandInHandle : public dova::NodeHandleBase {
 public:
  explicit StandInHandle(uint32_t node_mode) {
    inited = 1;
    mode = node_mode;
  }
  bool ok() const override { return true; }
  void negotiateTopics(SubscriberBase* subscriber) override { negotiated.push_back(subscriber); }

  std::vector<SubscriberBase*> negotiated;
};

// Runs `task` on the pool and returns the name and kernel id of the thread
// that ran it; fails the test when the pool does not run it in time.
struct WorkerIdentity {
  std::string name;
  long tid = 0;
};

WorkerIdentity runOnPool(dova::ThreadPool& pool) {
  // Shared with the task, which may outlive this call when the pool is late.
  struct Outcome {
    std::mutex mutex;
    std::condition_variable done_cond;
    bool done = false;
    WorkerIdentity identity;
  };
  auto outcome = std::make_shared<Outcome>();
  pool.post([outcome] {
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    std::lock_guard<std::mutex> lock(outcome->mutex);
    outcome->identity.name = name;
    outcome->identity.tid = syscall(SYS_gettid);
    outcome->done = true;
    outcome->done_cond.notify_one();
  });
  std::unique_lock<std::mutex> lock(outcome->mutex);
  EXPECT_TRUE(outcome->done_cond.wait_for(lock, std::chrono::seconds(5), [&] {
    return outcome->done;
  })) << "the pool did not run the task within 5 s";
  return outcome->identity;
}

TEST(Subscriber, ModeZeroRegistersNoIdAndNoPool) {
  StandInHandle handle(0);
  DiagnosticSubscriber sub;
  sub.setTopic("/diagnostics_value");
  TraceCapture trace;
  EXPECT_TRUE(handle.subscribe(sub, true, false, 7));
  EXPECT_EQ(sub.topic_id, 0u);
  EXPECT_TRUE(handle.pools.empty());
  EXPECT_TRUE(handle.subscribers.empty());
  EXPECT_FALSE(sub.negotiated());
  EXPECT_TRUE(handle.negotiated.empty()) << "mode 0 hands the subscriber over, nothing else";
  // The flags and the integer reach the middleware's subscribe unchanged.
  EXPECT_TRUE(sub.getLatch());
  EXPECT_FALSE(sub.getReliable());
  EXPECT_EQ(sub.getQueueSize(), 7);
  EXPECT_TRUE(trace.reports().empty());
}

TEST(Subscriber, ModesOneAndTwoRegisterAnIdAPoolAndTheSubscriber) {
  for (uint32_t mode : {1u, 2u}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    StandInHandle handle(mode);
    DiagnosticSubscriber sub;
    sub.setTopic("/diagnostics_value");
    TraceCapture trace;
    EXPECT_TRUE(handle.subscribe(sub, false, true, -1));

    const uint32_t id = sub.topic_id;
    EXPECT_NE(id, 0u);
    ASSERT_EQ(handle.pools.size(), 1u);
    ASSERT_EQ(handle.pools.count(id), 1u);
    ASSERT_NE(handle.pools[id], nullptr);
    EXPECT_EQ(handle.pools[id]->name, "dova_pool");
    EXPECT_EQ(handle.pools[id]->thread_count, 1);
    ASSERT_EQ(handle.subscribers.size(), 1u);
    EXPECT_EQ(handle.subscribers[id], &sub);
    EXPECT_EQ(sub.negotiated(), mode == 2) << "only mode 2 negotiates";
    EXPECT_EQ(handle.negotiated, std::vector<SubscriberBase*>{&sub});
    EXPECT_FALSE(sub.getLatch());
    EXPECT_TRUE(sub.getReliable());
    EXPECT_EQ(sub.getQueueSize(), -1);

    // The id is printed twice on purpose, once as the key and once as topic_id.
    const std::string expected = "Subscribers[" + std::to_string(id) +
                                 "] topic_id: " + std::to_string(id) +
                                 ", topic_name: /diagnostics_value";
    ASSERT_EQ(trace.reports().size(), 1u);
    const TraceReport& report = trace.reports()[0];
    EXPECT_EQ(report.level, dova::DEBUG);
    EXPECT_EQ(report.function, "subscribe");
    EXPECT_EQ(report.text, expected);
    EXPECT_NE(report.file.find("dova/os/node_handle_base"), std::string::npos) << report.file;
  }
}

TEST(Subscriber, EachRegistrationGetsItsOwnOneThreadPoolNamedDovaPool) {
  StandInHandle handle(1);
  DiagnosticSubscriber first;
  DiagnosticSubscriber second;
  first.setTopic("/diagnostics_value");
  second.setTopic("/diagnostics_value");
  ASSERT_TRUE(handle.subscribe(first, true, true, -1));
  ASSERT_TRUE(handle.subscribe(second, true, true, -1));

  ASSERT_NE(first.topic_id, second.topic_id);
  ASSERT_EQ(handle.pools.size(), 2u);
  ASSERT_EQ(handle.subscribers.size(), 2u);
  EXPECT_EQ(handle.subscribers[first.topic_id], &first);
  EXPECT_EQ(handle.subscribers[second.topic_id], &second);
  ASSERT_NE(handle.pools[first.topic_id], handle.pools[second.topic_id]);

  std::set<long> workers;
  for (uint32_t id : {first.topic_id, second.topic_id}) {
    std::set<long> threads_of_this_pool;
    for (int task = 0; task < 4; ++task) {
      const WorkerIdentity worker = runOnPool(*handle.pools[id]);
      EXPECT_EQ(worker.name, "dova_pool");
      threads_of_this_pool.insert(worker.tid);
    }
    EXPECT_EQ(threads_of_this_pool.size(), 1u) << "one thread per pool";
    workers.insert(threads_of_this_pool.begin(), threads_of_this_pool.end());
  }
  EXPECT_EQ(workers.size(), 2u) << "the two pools do not share a thread";
}

TEST(Subscriber, UninitialisedHandleRefusesWithAnErrorAndUnknownModeSilently) {
  {
    StandInHandle handle(1);
    handle.inited = 0;
    DiagnosticSubscriber sub;
    TraceCapture trace;
    EXPECT_FALSE(handle.subscribe(sub, true, true, 3));
    ASSERT_EQ(trace.reports().size(), 1u);
    EXPECT_EQ(trace.reports()[0].level, dova::ERROR);
    EXPECT_EQ(trace.reports()[0].function, "subscribe");
    EXPECT_EQ(trace.reports()[0].text, "DOVA no inited!");
    EXPECT_NE(trace.reports()[0].file.find("dova/os/node_handle_base"), std::string::npos);
    EXPECT_TRUE(handle.pools.empty());
    EXPECT_TRUE(handle.subscribers.empty());
    EXPECT_EQ(sub.getQueueSize(), 0) << "the middleware's subscribe was not called";
  }
  for (uint32_t mode : {3u, 0xFFFFFFFFu}) {
    StandInHandle handle(mode);
    DiagnosticSubscriber sub;
    TraceCapture trace;
    EXPECT_FALSE(handle.subscribe(sub, true, true, 3));
    EXPECT_TRUE(trace.reports().empty()) << "an unknown mode is refused silently";
    EXPECT_EQ(sub.topic_id, 0u);
    EXPECT_TRUE(handle.pools.empty());
    EXPECT_TRUE(handle.subscribers.empty());
    EXPECT_TRUE(handle.negotiated.empty());
    EXPECT_EQ(sub.getQueueSize(), 0);
  }
}

}  // namespace
