// The platform's node handle serving subscriptions: registration racing
// shutdown, and what one more subscriber costs a publisher.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/os/node_handle_base.h"
#include "trace_capture.h"

namespace {

// Heap allocations of the thread that turned counting on.
thread_local bool counting_allocations = false;
thread_local size_t allocations = 0;

}  // namespace

// Replaced as a pair, so malloc and free do match: the compiler, seeing both
// in one file, would take free() in operator delete for a mismatch.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  if (counting_allocations) ++allocations;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
#pragma GCC diagnostic pop

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using korcommon::testing::TraceCapture;
using Clock = std::chrono::steady_clock;
using Subscribers = std::vector<std::unique_ptr<dova::Subscriber<DiagnosticValue>>>;

// Threads of this process with the name `name`.
size_t threadsNamed(const std::string& name) {
  size_t count = 0;
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (const dirent* entry = readdir(tasks)) {
      if (entry->d_name[0] == '.') continue;
      std::string comm;
      std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"), comm);
      if (comm == name) ++count;
    }
    closedir(tasks);
  }
  return count;
}

// Whether the pool threads come back to `count` within a deadline (a
// released pool's worker leaves a moment after the pool is gone).
bool poolThreadsReturnTo(size_t count) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (threadsNamed("dova_pool") != count) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

dova::Options localMode(int mode) {
  dova::Options options;
  options.transport = "local";
  options.mode = mode;
  return options;
}

std::unique_ptr<dova::Subscriber<DiagnosticValue>> newSubscriber() {
  auto subscriber = std::make_unique<dova::Subscriber<DiagnosticValue>>();
  subscriber->callback_kind = 0;
  subscriber->callback_ref = [](const DiagnosticValue&) {};
  subscriber->setTopic("/diagnostics_value");
  return subscriber;
}

TEST(DovaDispatch, SubscribeRacingShutdownLeavesNoPoolThreadBehind) {
  const size_t pool_threads = threadsNamed("dova_pool");

  // A registration that passed the inited check just before shutdown
  // records its pool after shutdown released the others.
  ASSERT_TRUE(dova::init("racer", localMode(1)));
  dova::NodeHandleBase* stopped = dova::nh();
  dova::shutdown();
  stopped->inited = 1;  // as the registration saw it
  Subscribers late;
  late.push_back(newSubscriber());
  stopped->subscribe(*late.back(), false, true, -1);
  EXPECT_TRUE(stopped->pools.empty()) << "a pool nothing will ever post to";
  EXPECT_TRUE(poolThreadsReturnTo(pool_threads));

  // The same race run for real: registrations on one thread, shutdown on
  // another; those that come too late are refused with an error.
  const TraceCapture refusals;
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(dova::init("racer", localMode(1 + round % 2)));
    dova::NodeHandleBase* handle = dova::nh();
    Subscribers racing;
    for (int i = 0; i < 8; ++i) racing.push_back(newSubscriber());
    std::atomic<bool> started{false};
    std::thread subscribing([&racing, &started, handle] {
      started = true;
      for (const auto& subscriber : racing) handle->subscribe(*subscriber, false, true, -1);
    });
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (!started && Clock::now() < deadline) std::this_thread::yield();
    dova::shutdown();
    subscribing.join();
  }
  EXPECT_TRUE(poolThreadsReturnTo(pool_threads));
}

// Heap allocations on the publishing thread per report, in mode 1 with
// `subscriber_count` subscribers, each served by its own pool.
double allocationsPerReport(int subscriber_count) {
  constexpr int kReports = 200;
  struct Received {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
  } received;
  if (!dova::init("publisher", localMode(1))) return -1.0;
  Subscribers subscribers;
  for (int i = 0; i < subscriber_count; ++i) {
    subscribers.push_back(newSubscriber());
    subscribers.back()->callback_ref = [&received](const DiagnosticValue&) {
      std::lock_guard<std::mutex> lock(received.mutex);
      ++received.count;
      received.changed.notify_all();
    };
    dova::nh()->subscribe(*subscribers.back(), false, true, -1);
  }
  DiagnosticValue report;
  report.name = "hip";
  report.message = "warm";
  dova::nh()->diag(report);  // the topic's first publication sets it up

  allocations = 0;
  counting_allocations = true;
  for (int i = 0; i < kReports; ++i) dova::nh()->diag(report);
  counting_allocations = false;
  const size_t counted = allocations;

  std::unique_lock<std::mutex> lock(received.mutex);
  const bool all = received.changed.wait_for(lock, std::chrono::seconds(10), [&] {
    return received.count == (kReports + 1) * subscriber_count;
  });
  lock.unlock();
  dova::shutdown();
  return all ? static_cast<double>(counted) / kReports : -1.0;
}

TEST(DovaDispatch, EachMoreSubscriberCostsThePublisherItsTaskOnly) {
  const double one = allocationsPerReport(1);
  const double five = allocationsPerReport(5);
  ASSERT_GT(one, 0.0) << "the deliveries did not all arrive";
  ASSERT_GT(five, 0.0) << "the deliveries did not all arrive";
  // The task posted to the subscriber's pool, and now and then a new block
  // of a queue; the publication's type, checksum and publisher are shared.
  EXPECT_LT((five - one) / 4, 1.5) << "one subscriber: " << one << ", five: " << five;
}

}  // namespace
