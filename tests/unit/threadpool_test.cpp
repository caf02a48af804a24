#include "dova/os/threadpool.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <numeric>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dova/time.h"
#include "dova/trace.h"
#include "scoped_env.h"
#include "table_rows.h"
#include "threads.h"
#include "trace_capture.h"

namespace {

using korcommon::testing::TraceCapture;
using Signal = korcommon::testing::Inbox<bool>;  // open: add(true); wait: waitFor(1)

double wallSeconds() { return dova::Time::WallTime().toSec(); }

// Wall time at which the last slow task of this process had surely been reported. The
// report is limited to one a second for the whole process: ctest runs each case in a
// process of its own, but when the whole binary runs at once a case that expects a report
// waits out an earlier one.
double last_slow_task = 0;

void waitUntilWallTime(double seconds) {
  while (wallSeconds() < seconds) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// Keeps the worker busy for `ms` of the middleware clock, the one the pool times tasks with.
void spendMilliseconds(double ms) {
  const dova::Time start = dova::Time::now();
  while ((dova::Time::now() - start).toSec() * 1000.0 < ms) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

// Runs `task` on the one-thread `pool` and waits until it is done and timed.
void runOn(dova::ThreadPool& pool, std::function<void()> task) {
  auto done = std::make_shared<Signal>();
  pool.post(std::move(task));
  pool.post([done] { done->add(true); });
  ASSERT_TRUE(done->waitFor(1)) << "the pool did not run a task within the deadline";
  last_slow_task = wallSeconds();
}

// The slow-task reports in `capture`, as "POOL MS REMAINING" for the pool's name.
std::vector<std::string> slowReports(const TraceCapture& capture) {
  std::vector<std::string> reports;
  const std::regex shape(R"((\S+) timeescape (\d+\.\d\d) ms, remained task: (\d+))");
  for (const korcommon::testing::TraceReport& report : capture.reports()) {
    std::smatch parts;
    if (report.function != "thread_loop") continue;
    EXPECT_EQ(report.level, dova::WARN);
    EXPECT_NE(report.file.find("dova/os/threadpool.h"), std::string::npos) << report.file;
    EXPECT_TRUE(std::regex_match(report.text, parts, shape)) << report.text;
    reports.push_back(parts[1].str() + " " + parts[2].str() + " " + parts[3].str());
  }
  return reports;
}

struct Worker {
  std::string name;
  cpu_set_t cpus;
};

// The workers of a new pool, with DOVA_SCHED_CPU set to `cpu`: one task per thread, each
// held until all of them started, so that every thread runs exactly one. In name order.
std::vector<Worker> workersOf(const std::string& pool_name, int thread_count,
                              std::optional<std::string> cpu = std::nullopt) {
  const korcommon::testing::ScopedEnv setting("DOVA_SCHED_CPU", std::move(cpu));
  auto workers = std::make_shared<korcommon::testing::Inbox<Worker>>();
  auto finished = std::make_shared<Signal>();
  dova::ThreadPool pool(pool_name, thread_count);
  const auto count = static_cast<size_t>(thread_count);
  for (size_t i = 0; i < count; ++i) {
    pool.post([=] {
      Worker worker{korcommon::testing::currentThreadName(), {}};
      sched_getaffinity(0, sizeof worker.cpus, &worker.cpus);
      workers->add(worker);
      EXPECT_TRUE(workers->waitFor(count)) << "too few threads";
      finished->add(true);
    });
  }
  EXPECT_TRUE(finished->waitFor(count)) << pool_name;
  std::vector<Worker> all = workers->items();
  std::sort(all.begin(), all.end(),
            [](const Worker& a, const Worker& b) { return a.name < b.name; });
  return all;
}

TEST(ThreadPool, NamesAndPinsItsWorkers) {
  for (const auto& row : korcommon::testing::tableRows("platform/thread_names.txt", 4)) {
    std::string names;
    for (const Worker& worker : workersOf(row[0], std::stoi(row[1]))) {
      names += (names.empty() ? "" : " ") + worker.name;
    }
    EXPECT_EQ(names, row[2]) << row[3];
  }
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  std::vector<int> cpus;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(static_cast<size_t>(cpu), &allowed)) cpus.push_back(cpu);
  }
  // The first and the last CPU this process may use, so that the value matters.
  for (const int target : {cpus.front(), cpus.back()}) {
    const cpu_set_t pinned = workersOf("pinned_pool", 1, std::to_string(target)).at(0).cpus;
    EXPECT_EQ(CPU_COUNT(&pinned), 1) << target;
    EXPECT_TRUE(CPU_ISSET(static_cast<size_t>(target), &pinned)) << target;
  }
  // Unset, empty, or a CPU that cannot be used: unpinned; and never the pool's creator.
  for (const std::optional<std::string>& cpu :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("99999"), std::optional<std::string>("-1")}) {
    const cpu_set_t unpinned = workersOf("free_pool", 1, cpu).at(0).cpus;
    EXPECT_TRUE(CPU_EQUAL(&unpinned, &allowed)) << cpu.value_or("(unset)");
  }
  cpu_set_t after;
  sched_getaffinity(0, sizeof after, &after);
  EXPECT_TRUE(CPU_EQUAL(&after, &allowed));
}

TEST(ThreadPool, RunsTasksOfManyPostersInOrderOnOneThread) {
  // What the tasks of each poster saw, touched only by the worker.
  std::vector<std::vector<int>> seen(4);
  std::set<std::thread::id> workers;
  auto done = std::make_shared<korcommon::testing::Inbox<std::vector<std::vector<int>>>>();
  dova::ThreadPool pool("order_pool", 1);
  std::vector<std::thread> posters;
  for (size_t poster = 0; poster < seen.size(); ++poster) {
    posters.emplace_back([&, poster] {
      for (int i = 0; i < 500; ++i) {
        pool.post([&, poster, i] {
          seen[poster].push_back(i);
          workers.insert(std::this_thread::get_id());
        });
      }
    });
  }
  for (std::thread& poster : posters) poster.join();
  // A task posted from a task goes behind everything queued before.
  pool.post([&] { pool.post([&, done] { done->add(seen); }); });
  std::vector<int> each(500);
  std::iota(each.begin(), each.end(), 0);
  ASSERT_TRUE(done->waitFor(1));
  EXPECT_EQ(done->items()[0], std::vector<std::vector<int>>(4, each));
  EXPECT_EQ(workers.size(), 1u);
  EXPECT_EQ(workers.count(std::this_thread::get_id()), 0u);
}

TEST(ThreadPool, ReportsTasksOf50MsOrMoreOnceASecondAcrossPools) {
  waitUntilWallTime(last_slow_task + 1.1);
  const TraceCapture capture;
  dova::ThreadPool first("first_pool", 1);
  dova::ThreadPool second("second_pool_long", 1);  // its thread is "econd_pool_long"
  runOn(first, [] { spendMilliseconds(49.0); });
  // A loaded machine may stretch that task past 50 ms; it is then rightly reported.
  for (const std::string& report : slowReports(capture)) {
    EXPECT_GE(std::stod(report.substr(11)), 50.0) << report;
  }
  waitUntilWallTime(last_slow_task + 1.1);
  const size_t before = slowReports(capture).size();

  // A slow task with three more queued behind it when it ends, the last a marker.
  auto queued = std::make_shared<Signal>();
  first.post([queued] {
    EXPECT_TRUE(queued->waitFor(1));
    spendMilliseconds(50.0);
  });
  auto done = std::make_shared<Signal>();
  first.post([] {});
  first.post([] {});
  first.post([done] { done->add(true); });
  const double released = wallSeconds();  // the report comes 50 ms or more later
  queued->add(true);
  ASSERT_TRUE(done->waitFor(1));
  const double reported = wallSeconds();  // the report came before
  std::vector<std::string> reports = slowReports(capture);
  ASSERT_EQ(reports.size(), before + 1);
  EXPECT_TRUE(std::regex_match(reports.back(), std::regex(R"(first_pool \d+\.\d\d 3)")))
      << reports.back();
  EXPECT_LT(std::stod(reports.back().substr(11)), 5000.0);

  // Within the same second, from another pool and from the same one: no report.
  runOn(second, [] { spendMilliseconds(60.0); });
  runOn(first, [] { spendMilliseconds(60.0); });
  ASSERT_LT(wallSeconds() - released, 0.95) << "the machine is too slow for this case";
  EXPECT_EQ(slowReports(capture).size(), before + 1);
  // More than a second later the next slow task reports again.
  waitUntilWallTime(reported + 1.05);
  runOn(second, [] { spendMilliseconds(60.0); });
  reports = slowReports(capture);
  ASSERT_EQ(reports.size(), before + 2);
  EXPECT_EQ(reports.back().rfind("second_pool_long ", 0), 0u)
      << "the pool's name, not the thread's";
}

// An object that adds to `signal` when it is destroyed: captured by a task, it tells when
// the pool destroyed that task.
std::shared_ptr<void> signalOnDestruction(const std::shared_ptr<Signal>& signal) {
  return std::shared_ptr<void>(nullptr, [signal](void*) { signal->add(true); });
}

TEST(ThreadPool, DestroyingDropsPendingTasksAndWaitsThreeSecondsAtMostForABusyWorker) {
  waitUntilWallTime(last_slow_task + 1.1);
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
  auto running = std::make_shared<Signal>();
  {
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
  EXPECT_EQ(release->size() + freed->size(), 2u);
  EXPECT_EQ(ran->size(), 0u);

  // A worker still busy: the destructor warns after 3 s and returns.
  auto stuck_release = std::make_shared<Signal>();
  auto gone = std::make_shared<Signal>();
  const auto start = std::chrono::steady_clock::now();
  {
    dova::ThreadPool pool("stuck_pool", 1);
    pool.post([stuck_release, running, guard = signalOnDestruction(gone)] {
      running->add(true);
      EXPECT_TRUE(stuck_release->waitFor(1));
    });
    EXPECT_TRUE(running->waitFor(2));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2950));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Warning: Blocked - stuck_pool wait_completed timeout=3s\n")
      << "the idle pools warn of nothing";
  ASSERT_EQ(
      capture.count(dova::WARN, "wait_completed", "Blocked - stuck_pool wait_completed timeout=3s"),
      1u);
  EXPECT_NE(capture.reports()[0].file.find("dova/os/threadpool.h"), std::string::npos);

  // The task ends after its pool is gone: the worker still times it, reports it under the
  // pool's name and leaves, without touching freed memory.
  EXPECT_EQ(gone->size(), 0u);
  stuck_release->add(true);
  ASSERT_TRUE(gone->waitFor(1));
  last_slow_task = wallSeconds();
  const std::vector<std::string> slow = slowReports(capture);
  ASSERT_FALSE(slow.empty());
  EXPECT_TRUE(std::regex_match(slow.back(), std::regex(R"(stuck_pool \d+\.\d\d 0)")))
      << slow.back();
  EXPECT_GE(std::stod(slow.back().substr(11)), 2950.0);
}

}  // namespace
