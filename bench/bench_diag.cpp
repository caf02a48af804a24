// A diagnostic report's trip from korcommon::Diagnostics::publish to the
// user's function on the local transport: latency per report (median and
// 99th percentile) and throughput, with deliveries on the publishing thread
// (mode 0) and through the subscription's worker pool (mode 1), each with
// shared messages and with real frames.
//
// The subscriber is registered directly with nh()->subscribe, not through
// Diagnostics::subscribe, whose 3-second start-up collection would hold the
// first reports back. Each report carries its index in `code`; the send time
// sits in a side table under that index, read with a steady clock.
#include <benchmark/benchmark.h>

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

}  // namespace

BENCHMARK_MAIN();
