#include "dova/os/threadpool.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dova/time.h"
#include "dova/trace.h"
#include "scoped_env.h"
#include "threads.h"
#include "trace_capture.h"

namespace {

using korcommon::testing::TraceCapture;
using korcommon::testing::TraceReport;
using Signal = korcommon::testing::Inbox<bool>;  // open: add(true); wait: waitFor(1)
using Names = std::multiset<std::string>;

double wallSeconds() { return dova::Time::WallTime().toSec(); }

// Wall time of the last slow task of this process. The slow-task report is limited to one
// a second for the whole process: ctest runs each case in a process of its own, but when
// the whole binary runs at once a case that expects a report waits out an earlier one.
double last_slow_task = 0;

void waitOutSlowReportWindow() {
  while (wallSeconds() < last_slow_task + 1.1) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Keeps the worker busy for `ms` of the middleware clock, the one the pool times tasks with.
void spendMilliseconds(double ms) {
  const dova::Time start = dova::Time::now();
  while ((dova::Time::now() - start).toSec() * 1000.0 < ms) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  last_slow_task = wallSeconds();
}

// Runs every task posted to the one-thread `pool` before, and waits until they are done.
void drain(dova::ThreadPool& pool) {
  auto done = std::make_shared<Signal>();
  pool.post([done] { done->add(true); });
  ASSERT_TRUE(done->waitFor(1)) << "the pool did not run a task within the deadline";
}

// The slow-task reports in `capture`, as "POOL MS REMAINING" for the pool's name.
std::vector<std::string> slowReports(const TraceCapture& capture) {
  std::vector<std::string> reports;
  const std::regex shape(R"((\S+) timeescape (\d+\.\d\d) ms, remained task: (\d+))");
  for (const TraceReport& report : capture.reports()) {
    std::smatch parts;
    if (report.function != "thread_loop") continue;
    EXPECT_EQ(report.level, dova::WARN);
    EXPECT_NE(report.file.find("dova/os/threadpool.h"), std::string::npos) << report.file;
    EXPECT_TRUE(std::regex_match(report.text, parts, shape)) << report.text;
    reports.push_back(parts[1].str() + " " + parts[2].str() + " " + parts[3].str());
  }
  return reports;
}

// The names of the threads of a new pool: one task per thread, each held until all of
// them started, so that every thread runs exactly one.
Names threadNamesOf(const std::string& pool_name, int thread_count) {
  auto names = std::make_shared<korcommon::testing::Inbox<std::string>>();
  auto finished = std::make_shared<Signal>();
  dova::ThreadPool pool(pool_name, thread_count);
  for (int i = 0; i < thread_count; ++i) {
    pool.post([=] {
      names->add(korcommon::testing::currentThreadName());
      EXPECT_TRUE(names->waitFor(static_cast<size_t>(thread_count))) << "too few threads";
      finished->add(true);
    });
  }
  EXPECT_TRUE(finished->waitFor(static_cast<size_t>(thread_count))) << pool_name;
  const std::vector<std::string> all = names->items();
  return Names(all.begin(), all.end());
}

TEST(ThreadPool, NamesItsThreads) {
  EXPECT_EQ(threadNamesOf("dova_pool", 1), Names{"dova_pool"});
  EXPECT_EQ(threadNamesOf("io", 2), (Names{"io_0", "io_1"}));
  // Longer than 15 characters: the beginning is cut, so that the index survives.
  EXPECT_EQ(threadNamesOf("abcdefghijklmnop", 3),
            (Names{"defghijklmnop_0", "defghijklmnop_1", "defghijklmnop_2"}));
  EXPECT_EQ(threadNamesOf("abcdefghijklmnop", 1), Names{"bcdefghijklmnop"});
  EXPECT_EQ(threadNamesOf("abcdefghijklmno", 1), Names{"abcdefghijklmno"});
}

TEST(ThreadPool, MiddlewarePostsThroughTheFieldsOfItsDataModel) {
  dova::ThreadPool pool("fields_pool", 2);
  EXPECT_EQ(pool.name, "fields_pool");
  EXPECT_EQ(pool.thread_count, 2);
  EXPECT_TRUE(pool.running);
  // Idle workers wait for work inside a turn of their loop: both count.
  const auto deadline = std::chrono::steady_clock::now() + korcommon::testing::kDeadline;
  while (pool.active != 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(pool.active, 2);
  // The middleware's own posting: append under queue_mutex, then signal.
  auto ran = std::make_shared<Signal>();
  {
    std::lock_guard<std::mutex> lock(pool.queue_mutex);
    pool.tasks.push_back([ran] { ran->add(true); });
  }
  pool.queue_cond.notify_one();
  EXPECT_TRUE(ran->waitFor(1));
}

TEST(ThreadPool, RunsTasksOfManyPostersInOrderOnOneThread) {
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 500;
  // (poster, sequence) pairs, touched only by the worker until `done` opens.
  std::vector<std::pair<int, int>> order;
  std::set<std::thread::id> workers;
  auto done = std::make_shared<Signal>();
  dova::ThreadPool pool("order_pool", 1);
  std::vector<std::thread> posters;
  for (int poster = 0; poster < kPosters; ++poster) {
    posters.emplace_back([&, poster] {
      for (int i = 0; i < kTasksEach; ++i) {
        pool.post([&, poster, i] {
          order.emplace_back(poster, i);
          workers.insert(std::this_thread::get_id());
        });
      }
    });
  }
  for (std::thread& poster : posters) poster.join();
  // A task posted from a task goes behind everything queued before.
  pool.post([&] { pool.post([&, done] { order.emplace_back(-1, 0), done->add(true); }); });
  ASSERT_TRUE(done->waitFor(1));
  ASSERT_EQ(order.size(), static_cast<size_t>(kPosters * kTasksEach + 1));
  std::vector<int> next(kPosters, 0);
  for (size_t i = 0; i + 1 < order.size(); ++i) {
    EXPECT_EQ(order[i].second, next[static_cast<size_t>(order[i].first)]++);
  }
  EXPECT_EQ(order.back().first, -1);
  EXPECT_EQ(workers.size(), 1u);
  EXPECT_EQ(workers.count(std::this_thread::get_id()), 0u);
}

std::optional<cpu_set_t> workerAffinity(std::optional<std::string> cpu) {
  const korcommon::testing::ScopedEnv setting("DOVA_SCHED_CPU", cpu);
  auto affinity = std::make_shared<korcommon::testing::Inbox<cpu_set_t>>();
  dova::ThreadPool pool("pinned_pool", 1);
  pool.post([affinity] {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    affinity->add(set);
  });
  if (!affinity->waitFor(1)) return std::nullopt;
  return affinity->items()[0];
}

TEST(ThreadPool, PinsWorkersToTheConfiguredCpu) {
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  std::vector<int> cpus;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(static_cast<size_t>(cpu), &allowed)) cpus.push_back(cpu);
  }
  // The first and the last CPU this process may use, so that the value matters.
  for (const int target : {cpus.front(), cpus.back()}) {
    const std::optional<cpu_set_t> pinned = workerAffinity(std::to_string(target));
    ASSERT_TRUE(pinned);
    EXPECT_EQ(CPU_COUNT(&*pinned), 1) << target;
    EXPECT_TRUE(CPU_ISSET(static_cast<size_t>(target), &*pinned)) << target;
  }
  // Unset, empty, or a CPU that cannot be used: unpinned; and never the pool's creator.
  for (const std::optional<std::string>& cpu :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("99999"), std::optional<std::string>("-1")}) {
    const std::optional<cpu_set_t> unpinned = workerAffinity(cpu);
    ASSERT_TRUE(unpinned);
    EXPECT_TRUE(CPU_EQUAL(&*unpinned, &allowed)) << cpu.value_or("(unset)");
  }
  cpu_set_t after;
  sched_getaffinity(0, sizeof after, &after);
  EXPECT_TRUE(CPU_EQUAL(&after, &allowed));
}

TEST(ThreadPool, ReportsTasksOf50MsOrMoreOnceASecondAcrossPools) {
  waitOutSlowReportWindow();
  const TraceCapture capture;
  dova::ThreadPool first("first_pool", 1);
  dova::ThreadPool second("second_pool", 1);
  first.post([] { spendMilliseconds(49.0); });
  drain(first);
  // A loaded machine may stretch that task past 50 ms; it is then rightly reported.
  for (const std::string& report : slowReports(capture)) {
    EXPECT_GE(std::stod(report.substr(11)), 50.0) << report;
  }
  waitOutSlowReportWindow();
  const size_t before = slowReports(capture).size();

  // A slow task with three more queued behind it when it ends, the last a marker.
  auto queued = std::make_shared<Signal>();
  auto done = std::make_shared<Signal>();
  first.post([queued] {
    EXPECT_TRUE(queued->waitFor(1));
    spendMilliseconds(50.0);
  });
  first.post([] {});
  first.post([] {});
  first.post([done] { done->add(true); });
  queued->add(true);
  ASSERT_TRUE(done->waitFor(1));
  const double reported = wallSeconds();
  std::vector<std::string> reports = slowReports(capture);
  ASSERT_EQ(reports.size(), before + 1);
  EXPECT_TRUE(std::regex_match(reports.back(), std::regex(R"(first_pool \d+\.\d\d 3)")))
      << reports.back();
  EXPECT_LT(std::stod(reports.back().substr(11)), 5000.0);

  // Within the same second, from another pool and from the same one: no report.
  second.post([] { spendMilliseconds(60.0); });
  drain(second);
  first.post([] { spendMilliseconds(60.0); });
  drain(first);
  ASSERT_LT(wallSeconds() - reported, 0.9) << "the machine is too slow for this case";
  EXPECT_EQ(slowReports(capture).size(), before + 1);
  // More than a second later the next slow task reports again.
  while (wallSeconds() < reported + 1.05)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  second.post([] { spendMilliseconds(60.0); });
  drain(second);
  reports = slowReports(capture);
  ASSERT_EQ(reports.size(), before + 2);
  EXPECT_EQ(reports.back().rfind("second_pool ", 0), 0u) << reports.back();
}

// An object that adds to `signal` when it is destroyed: captured by a task, it tells when
// the pool destroyed that task.
std::shared_ptr<void> signalOnDestruction(const std::shared_ptr<Signal>& signal) {
  return std::shared_ptr<void>(nullptr, [signal](void*) { signal->add(true); });
}

TEST(ThreadPool, DestroyingAnIdlePoolDropsPendingTasksWithoutWaiting) {
  const TraceCapture capture;
  ::testing::internal::CaptureStdout();
  auto ran = std::make_shared<Signal>();
  {
    auto started = std::make_shared<Signal>();
    dova::ThreadPool idle("idle_pool", 3);
    for (int i = 0; i < 3; ++i) idle.post([started] { started->add(true); });
    EXPECT_TRUE(started->waitFor(3));
  }
  // The first pending task's destruction releases the running one, so the worker is idle
  // as soon as the pool stops; the pending tasks are destroyed, never run.
  auto release = std::make_shared<Signal>();
  {
    auto running = std::make_shared<Signal>();
    dova::ThreadPool busy("pending_pool", 1);
    busy.post([running, release] {
      running->add(true);
      EXPECT_TRUE(release->waitFor(1));
    });
    ASSERT_TRUE(running->waitFor(1));
    busy.post([ran, guard = signalOnDestruction(release)] { ran->add(true); });
    for (int i = 0; i < 4; ++i) busy.post([ran] { ran->add(true); });
  }
  // A pool without threads never runs what it is given, and frees it.
  auto freed = std::make_shared<Signal>();
  {
    dova::ThreadPool empty("empty_pool", 0);
    empty.post([ran, guard = signalOnDestruction(freed)] { ran->add(true); });
  }
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "") << "no blocked-pool warning";
  EXPECT_EQ(capture.count(dova::WARN, "wait_completed"), 0u);
  EXPECT_EQ(release->size(), 1u);
  EXPECT_EQ(freed->size(), 1u);
  EXPECT_EQ(ran->size(), 0u);
}

TEST(ThreadPool, DestroyingABusyPoolWarnsAfterThreeSecondsAndOutlivesTheTask) {
  waitOutSlowReportWindow();
  const TraceCapture capture;
  auto release = std::make_shared<Signal>();
  auto gone = std::make_shared<Signal>();
  auto running = std::make_shared<Signal>();
  ::testing::internal::CaptureStdout();
  const auto start = std::chrono::steady_clock::now();
  {
    dova::ThreadPool pool("stuck_pool", 1);
    pool.post([release, running, guard = signalOnDestruction(gone)] {
      running->add(true);
      EXPECT_TRUE(release->waitFor(1));
      last_slow_task = wallSeconds();
    });
    EXPECT_TRUE(running->waitFor(1));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2950));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Warning: Blocked - stuck_pool wait_completed timeout=3s\n");
  const std::vector<TraceReport> blocked = capture.reports();
  ASSERT_EQ(blocked.size(), 1u);
  EXPECT_EQ(blocked[0].level, dova::WARN);
  EXPECT_EQ(blocked[0].function, "wait_completed");
  EXPECT_EQ(blocked[0].text, "Blocked - stuck_pool wait_completed timeout=3s");
  EXPECT_NE(blocked[0].file.find("dova/os/threadpool.h"), std::string::npos);

  // The task ends after its pool is gone: the worker still times it, reports it under the
  // pool's name and leaves, without touching freed memory.
  EXPECT_EQ(gone->size(), 0u);
  release->add(true);
  ASSERT_TRUE(gone->waitFor(1));
  const std::vector<std::string> slow = slowReports(capture);
  ASSERT_EQ(slow.size(), 1u);
  EXPECT_TRUE(std::regex_match(slow[0], std::regex(R"(stuck_pool \d+\.\d\d 0)"))) << slow[0];
  EXPECT_GE(std::stod(slow[0].substr(11)), 2950.0);
}

}  // namespace
