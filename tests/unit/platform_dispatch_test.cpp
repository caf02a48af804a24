// The platform's node handle serving subscriptions: registration racing
// shutdown.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/os/node_handle_base.h"
#include "trace_capture.h"

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

}  // namespace
