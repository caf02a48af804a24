// A diagnostic report's trip from korcommon::Diagnostics::publish to the
// user's function on the local transport: latency per report (median and
// 99th percentile) and throughput, with deliveries on the publishing thread
// (mode 0) and through the subscription's worker pool (mode 1), each with
// shared messages and with real frames.
//
// The subscriber is registered directly with nh()->subscribe, not through
// Diagnostics::subscribe, whose 3-second start-up collection would hold the
// first reports back (BM_DiagStartupBatch measures that collection itself).
// Each report carries its index in `code`; the send time
// sits in a side table under that index, read with a steady clock.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/topics.h"
#include "dova/os/node_handle_base.h"
#include "korcommon/Diagnostics.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using Clock = std::chrono::steady_clock;

// A running node with one subscriber whose function stamps each arrival.
class DiagnosticsLoop {
 public:
  DiagnosticsLoop(int mode, bool intra_process, size_t capacity)
      : sent_(capacity), latency_ns_(capacity) {
    dova::Options options;
    options.transport = "local";
    options.mode = mode;
    options.intra_process = intra_process;
    ready_ = dova::init("bench_diag", options);
    subscriber_.callback_kind = 2;
    subscriber_.callback_ptr = [this](const std::shared_ptr<const DiagnosticValue>& value) {
      const auto index = static_cast<size_t>(value->code);
      if (index < latency_ns_.size()) {
        latency_ns_[index] =
            std::chrono::duration<double, std::nano>(Clock::now() - sent_[index]).count();
      }
      delivered_.fetch_add(1, std::memory_order_release);
    };
    subscriber_.setTopic(dova::msgs::kDiagnosticsTopic);
    ready_ = ready_ && dova::nh()->subscribe(subscriber_, false, true, -1);
  }

  ~DiagnosticsLoop() { dova::shutdown(); }  // returns once no delivery runs

  DiagnosticsLoop(const DiagnosticsLoop&) = delete;
  DiagnosticsLoop& operator=(const DiagnosticsLoop&) = delete;

  bool ready() const { return ready_; }

  // REQUIRES: index < capacity.
  void publish(size_t index) {
    sent_[index] = Clock::now();
    korcommon::Diagnostics::publish("motor_temp", static_cast<int>(index),
                                    dova::diagnostic_msgs::DiagnosticValue::WARN,
                                    "temperature 71.5 C above limit");
  }

  // Waits until `count` reports have arrived; false after 5 s. Yields while
  // waiting, so the pool's thread gets a core even on a small machine.
  bool awaitDelivered(uint64_t count) const {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
    while (delivered_.load(std::memory_order_acquire) < count) {
      if (Clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }

  std::vector<double>& latencies() { return latency_ns_; }

 private:
  std::vector<Clock::time_point> sent_;
  std::vector<double> latency_ns_;
  std::atomic<uint64_t> delivered_{0};
  dova::Subscriber<DiagnosticValue> subscriber_;
  bool ready_ = false;
};

double percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0.0;
  const auto rank = static_cast<size_t>(fraction * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(rank),
                   samples.end());
  return samples[rank];
}

// One report at a time: the next is published once the previous arrived, so
// each sample is the whole trip without queueing behind earlier reports.
void BM_DiagPublishToCallbackLatency(benchmark::State& state) {
  const auto capacity = static_cast<size_t>(state.max_iterations);
  DiagnosticsLoop loop(static_cast<int>(state.range(0)), state.range(1) != 0, capacity);
  if (!loop.ready()) {
    state.SkipWithError("dova::init or subscribe failed");
    return;
  }
  size_t index = 0;
  for (auto _ : state) {
    loop.publish(index);
    if (!loop.awaitDelivered(index + 1)) {
      state.SkipWithError("a report did not arrive within 5 s");
      return;
    }
    ++index;
  }
  std::vector<double>& latencies = loop.latencies();
  latencies.resize(index);
  state.counters["median_us"] = percentile(latencies, 0.5) / 1000.0;
  state.counters["p99_us"] = percentile(latencies, 0.99) / 1000.0;
  state.SetItemsProcessed(static_cast<int64_t>(index));
}

// Back to back: batches of reports published as fast as they go, each batch
// timed until its last report has arrived.
void BM_DiagThroughput(benchmark::State& state) {
  constexpr size_t kBatch = 1000;
  DiagnosticsLoop loop(static_cast<int>(state.range(0)), state.range(1) != 0, kBatch);
  if (!loop.ready()) {
    state.SkipWithError("dova::init or subscribe failed");
    return;
  }
  uint64_t published = 0;
  for (auto _ : state) {
    for (size_t index = 0; index < kBatch; ++index) loop.publish(index);
    published += kBatch;
    if (!loop.awaitDelivered(published)) {
      state.SkipWithError("a batch did not arrive within 5 s");
      return;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(published));
}

// The processor time the calling thread has used, in nanoseconds.
double threadCpuNs() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// A robot's growth: `reporters` components each publish a report, to `subscribers`
// subscriptions with a pool each. Only the publishing is timed (each round's
// deliveries are awaited outside it); per_subscriber_ns, the publish cost per
// report and subscriber, should stay flat across both numbers. It is wall time,
// which on a machine with fewer cores than subscriptions includes the pools'
// threads running in the publisher's stead; per_subscriber_cpu_ns counts the
// publishing thread's own processor time only.
void BM_DiagPublishCost(benchmark::State& state) {
  const auto reporters = static_cast<size_t>(state.range(0));
  const auto subscribers = static_cast<size_t>(state.range(1));
  dova::Options options;
  options.transport = "local";
  options.mode = 1;
  if (!dova::init("bench_diag", options)) {
    state.SkipWithError("dova::init failed");
    return;
  }
  std::vector<std::string> names;
  for (size_t i = 0; i < reporters; ++i) names.push_back("component_" + std::to_string(i));
  std::atomic<uint64_t> delivered{0};
  std::vector<std::unique_ptr<dova::Subscriber<DiagnosticValue>>> subscriptions;
  for (size_t i = 0; i < subscribers; ++i) {
    auto subscriber = std::make_unique<dova::Subscriber<DiagnosticValue>>();
    subscriber->callback_kind = 2;
    subscriber->callback_ptr = [&delivered](const std::shared_ptr<const DiagnosticValue>&) {
      delivered.fetch_add(1, std::memory_order_release);
    };
    subscriber->setTopic(dova::msgs::kDiagnosticsTopic);
    if (!dova::nh()->subscribe(*subscriber, false, true, -1)) {
      state.SkipWithError("subscribe failed");
      dova::shutdown();
      return;
    }
    subscriptions.push_back(std::move(subscriber));
  }
  double publish_ns = 0;
  double publish_cpu_ns = 0;
  uint64_t published = 0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    const double cpu_start = threadCpuNs();
    for (const std::string& name : names) {
      korcommon::Diagnostics::publish(name, 1, DiagnosticValue::WARN, "temperature 71.5 C");
    }
    publish_cpu_ns += threadCpuNs() - cpu_start;
    publish_ns += std::chrono::duration<double, std::nano>(Clock::now() - start).count();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    published += reporters;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
    while (delivered.load(std::memory_order_acquire) < published * subscribers) {
      if (Clock::now() > deadline) {
        state.SkipWithError("a round did not arrive within 5 s");
        break;
      }
      std::this_thread::yield();
    }
  }
  dova::shutdown();  // returns once no delivery runs
  const auto deliveries = static_cast<double>(std::max<uint64_t>(1, published * subscribers));
  state.counters["per_subscriber_ns"] = publish_ns / deliveries;
  state.counters["per_subscriber_cpu_ns"] = publish_cpu_ns / deliveries;
  state.SetItemsProcessed(static_cast<int64_t>(published));
}

// A subscription that starts while 10,000 components' reports are the latched
// state: they are replayed to it, collected, and handed over together once
// the collection window closes. The time measured runs from the window's
// close (at the latest; it opens when the replay begins, after subscribe() is
// called) to the batch's last report reaching the callback.
void BM_DiagStartupBatch(benchmark::State& state) {
  constexpr size_t kReporters = 10000;
  for (auto _ : state) {
    dova::Options options;
    options.transport = "local";
    if (!dova::init("bench_diag", options)) {
      state.SkipWithError("dova::init failed");
      return;
    }
    for (size_t i = 0; i < kReporters; ++i) {
      korcommon::Diagnostics::publish("component_" + std::to_string(i), 0, DiagnosticValue::OK,
                                      "running");
    }
    auto arrived = std::make_shared<std::atomic<size_t>>(0);
    auto last_arrival = std::make_shared<Clock::time_point>();
    const Clock::time_point window_close = Clock::now() + dova::msgs::kDiagnosticsCollectionWindow;
    korcommon::Diagnostics::subscribe(
        [arrived, last_arrival](const std::shared_ptr<const DiagnosticValue>&) {
          *last_arrival = Clock::now();
          arrived->fetch_add(1, std::memory_order_release);
        });
    const Clock::time_point deadline = window_close + std::chrono::seconds(10);
    while (arrived->load(std::memory_order_acquire) < kReporters && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    dova::shutdown();
    if (arrived->load(std::memory_order_acquire) < kReporters) {
      state.SkipWithError("the batch did not arrive within 10 s of the window's close");
      return;
    }
    state.SetIterationTime(std::chrono::duration<double>(*last_arrival - window_close).count());
  }
}

// Arguments: mode (0 direct, 1 pool), then 1 for shared messages or 0 for frames.
BENCHMARK(BM_DiagPublishToCallbackLatency)
    ->ArgNames({"mode", "intra"})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Args({0, 0})
    ->Args({1, 0})
    ->UseRealTime();
BENCHMARK(BM_DiagThroughput)
    ->ArgNames({"mode", "intra"})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Args({0, 0})
    ->Args({1, 0})
    ->UseRealTime();
BENCHMARK(BM_DiagPublishCost)
    ->ArgNames({"reporters", "subscribers"})
    ->ArgsProduct({{10, 100, 1000}, {1, 4, 16}})
    ->UseManualTime();
BENCHMARK(BM_DiagStartupBatch)->Iterations(1)->Unit(benchmark::kMillisecond)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
