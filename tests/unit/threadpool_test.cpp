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

TEST(ThreadPool, NamesAndPinsItsWorkersButNotItsCreator) {
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  std::vector<size_t> cpus;  // the ones this process may use
  for (size_t cpu = 0; cpu < size_t{CPU_SETSIZE}; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
  }
  for (auto row : korcommon::testing::tableRows("platform/thread_names.txt", 5)) {
    cpu_set_t expected = allowed;
    if (row[2] == "first" || row[2] == "last") {
      const size_t target = row[2] == "first" ? cpus.front() : cpus.back();
      row[2] = std::to_string(target);
      CPU_ZERO(&expected);
      CPU_SET(target, &expected);
    }
    const korcommon::testing::ScopedEnv setting(
        "DOVA_SCHED_CPU", row[2] == "(unset)" ? std::nullopt : std::optional(row[2]));
    // One task per thread, each held until all of them started, so that every thread runs one.
    const size_t count = std::stoul(row[1]);
    auto workers = std::make_shared<korcommon::testing::Inbox<std::string>>();
    dova::ThreadPool pool(row[0], static_cast<int>(count));
    for (size_t i = 0; i < count; ++i) {
      pool.post([=] {
        cpu_set_t used;
        sched_getaffinity(0, sizeof used, &used);
        workers->add(korcommon::testing::currentThreadName() +
                     (CPU_EQUAL(&used, &expected) ? "" : " (on other CPUs)"));
        EXPECT_TRUE(workers->waitFor(count)) << "too few threads";
      });
    }
    ASSERT_TRUE(workers->waitFor(count)) << row[4];
    std::vector<std::string> names = workers->items();
    std::sort(names.begin(), names.end());
    std::string joined = names[0];
    for (size_t i = 1; i < names.size(); ++i) joined += " " + names[i];
    EXPECT_EQ(joined, row[3]) << row[4];
  }
  cpu_set_t after;
  sched_getaffinity(0, sizeof after, &after);
  EXPECT_TRUE(CPU_EQUAL(&after, &allowed)) << "the pool's creator was pinned";
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
}

// The slow-task reports in `capture`, as "POOL MS REMAINING" for the pool's name.
std::vector<std::string> slowReports(const TraceCapture& capture) {
  std::vector<std::string> reports;
  const std::regex shape(R"((\S+) timeescape (\d+\.\d\d) ms, remained task: (\d+))");
  for (const korcommon::testing::TraceReport& report : capture.reports()) {
    std::smatch parts;
    if (report.function != "thread_loop") continue;
    EXPECT_EQ(report.level, dova::WARN);
    EXPECT_TRUE(std::regex_match(report.text, parts, shape)) << report.text;
    reports.push_back(parts[1].str() + " " + parts[2].str() + " " + parts[3].str());
  }
  return reports;
}

// An object that adds to `signal` when it is destroyed: captured by a task, it tells when
// the pool destroyed that task.
std::shared_ptr<void> signalOnDestruction(const std::shared_ptr<Signal>& signal) {
  return std::shared_ptr<void>(nullptr, [signal](void*) { signal->add(true); });
}

// The slow-task report is limited to one a second for the whole process, so this one case
// sees every report its pools make.
TEST(ThreadPool, ReportsSlowTasksOnceASecondAndDestroyingDropsPendingTasks) {
  const TraceCapture capture;
  dova::ThreadPool first("first_pool", 1);
  dova::ThreadPool second("second_pool", 1);
  runOn(first, [] { spendMilliseconds(49.0); });
  // A loaded machine may stretch that task past 50 ms; it is then rightly reported, and the
  // next report is due a second later.
  const size_t before = slowReports(capture).size();
  for (const std::string& report : slowReports(capture)) {
    EXPECT_GE(std::stod(report.substr(11)), 50.0) << report;
  }
  if (before > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1100));

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
  const double released = dova::Time::WallTime().toSec();  // the report comes 50 ms or more later
  queued->add(true);
  ASSERT_TRUE(done->waitFor(1));
  std::vector<std::string> reports = slowReports(capture);
  ASSERT_EQ(reports.size(), before + 1);
  EXPECT_TRUE(std::regex_match(reports.back(), std::regex(R"(first_pool \d+\.\d\d 3)")))
      << reports.back();
  EXPECT_LT(std::stod(reports.back().substr(11)), 5000.0);
  // Within the same second, from another pool and from the same one: no report.
  runOn(second, [] { spendMilliseconds(60.0); });
  runOn(first, [] { spendMilliseconds(60.0); });
  ASSERT_LT(dova::Time::WallTime().toSec() - released, 0.95)
      << "the machine is too slow for this case";
  EXPECT_EQ(slowReports(capture).size(), before + 1);

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
    dova::ThreadPool pool("stuck_pool_longer", 1);  // its thread is "uck_pool_longer"
    pool.post([stuck_release, running, guard = signalOnDestruction(gone)] {
      running->add(true);
      EXPECT_TRUE(stuck_release->waitFor(1));
    });
    EXPECT_TRUE(running->waitFor(2));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2950));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Warning: Blocked - stuck_pool_longer wait_completed timeout=3s\n")
      << "the idle pools warn of nothing";
  EXPECT_EQ(capture.count(dova::WARN, "wait_completed",
                          "Blocked - stuck_pool_longer wait_completed timeout=3s"),
            1u);

  // The task ends after its pool is gone: the worker still times it and reports it, more
  // than a second after the last report, under the pool's name, and leaves without touching
  // freed memory.
  EXPECT_EQ(gone->size(), 0u);
  stuck_release->add(true);
  ASSERT_TRUE(gone->waitFor(1));
  reports = slowReports(capture);
  ASSERT_GT(reports.size(), before + 1);
  EXPECT_TRUE(std::regex_match(reports.back(), std::regex(R"(stuck_pool_longer \d+\.\d\d 0)")))
      << reports.back();
  EXPECT_GE(std::stod(reports.back().substr(18)), 2950.0);
  for (const korcommon::testing::TraceReport& report : capture.reports()) {
    EXPECT_NE(report.file.find("dova/os/threadpool.h"), std::string::npos) << report.file;
  }
}

}  // namespace
