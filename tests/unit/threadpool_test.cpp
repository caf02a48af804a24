#include "dova/os/threadpool.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dova/time.h"
#include "dova/trace.h"
#include "scoped_env.h"
#include "trace_capture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr auto kDeadline = seconds(10);  // no wait of a passing test comes near it

double wallSeconds() { return dova::Time::WallTime().toSec(); }

double secondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// A one-shot signal between threads.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cond_.notify_all();
  }
  bool isOpen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }
  // False when the gate is still closed after `timeout`.
  bool waitFor(steady_clock::duration timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [this] { return open_; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cond_;
  bool open_ = false;
};

// Counts arrivals; lets threads wait until a number of them arrived.
class Arrivals {
 public:
  void arrive() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    cond_.notify_all();
  }
  bool waitFor(int count, steady_clock::duration timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int count_ = 0;
};

// An object whose destruction opens `gate`: captured by a task, it tells when
// the pool destroyed that task.
std::shared_ptr<void> openOnDestruction(Gate& gate) {
  return std::shared_ptr<void>(nullptr, [&gate](void*) { gate.open(); });
}

// Posts a marker to the one-thread `pool`: its gate opens once every task
// posted before it, and its slow-task report, are done.
std::shared_ptr<Gate> postMarker(dova::ThreadPool& pool) {
  auto done = std::make_shared<Gate>();
  pool.post([done] { done->open(); });
  return done;
}

void drain(dova::ThreadPool& pool) {
  ASSERT_TRUE(postMarker(pool)->waitFor()) << "the pool did not run a task within the deadline";
}

using korcommon::testing::TraceCapture;
using korcommon::testing::TraceReport;

// The reports `capture` got from `function`, in order.
std::vector<TraceReport> reportsFrom(const TraceCapture& capture, const std::string& function) {
  std::vector<TraceReport> selected;
  for (const TraceReport& report : capture.snapshot()) {
    if (report.function == function) selected.push_back(report);
  }
  return selected;
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The elapsed milliseconds and queued-task count of a slow-task report of
// `pool_name`, or nullopt when the text has another shape.
std::optional<std::pair<double, long>> parseSlowReport(const std::string& text,
                                                       const std::string& pool_name) {
  const std::string head = pool_name + " timeescape ";
  if (text.compare(0, head.size(), head) != 0) return std::nullopt;
  const char* cursor = text.c_str() + head.size();
  char* end = nullptr;
  const double elapsed = std::strtod(cursor, &end);
  const std::string middle = " ms, remained task: ";
  // Exactly two decimals.
  const char* point = std::strchr(cursor, '.');
  if (end == cursor || point == nullptr || end - point != 3) return std::nullopt;
  if (std::string(end, std::min(std::strlen(end), middle.size())) != middle) return std::nullopt;
  cursor = end + middle.size();
  const long remained = std::strtol(cursor, &end, 10);
  if (end == cursor || *end != '\0') return std::nullopt;
  return std::make_pair(elapsed, remained);
}

// The slow-task report is limited to one a second for the whole process.
// ctest runs every case in a process of its own, but when the whole binary
// runs at once a case that expects a report first waits until the window of
// an earlier case's slow task has passed.
std::atomic<double> last_slow_task_end{0.0};

void waitOutSlowReportWindow() {
  const double until = last_slow_task_end.load() + 1.1;
  while (wallSeconds() < until) std::this_thread::sleep_for(milliseconds(10));
}

// Keeps the calling worker busy for `ms` milliseconds of the middleware clock,
// the clock the pool times its tasks with, so the pool measures at least that.
void spendMilliseconds(double ms) {
  const dova::Time start = dova::Time::now();
  while ((dova::Time::now() - start).toSec() * 1000.0 < ms) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  if (ms >= 50.0) last_slow_task_end.store(wallSeconds());
}

using korcommon::testing::ScopedEnv;

std::string currentThreadName() {
  char name[17] = {};
  prctl(PR_GET_NAME, name, 0, 0, 0);
  return name;
}

// The names of the threads of a new pool: one task per thread, each held
// until all of them started, so that every thread runs exactly one.
std::multiset<std::string> threadNamesOf(const std::string& pool_name, int thread_count) {
  std::mutex mutex;
  std::multiset<std::string> names;
  Arrivals started;
  Arrivals finished;
  dova::ThreadPool pool(pool_name, thread_count);  // destroyed first, before what its tasks use
  for (int i = 0; i < thread_count; ++i) {
    pool.post([&] {
      {
        std::lock_guard<std::mutex> lock(mutex);
        names.insert(currentThreadName());
      }
      started.arrive();
      EXPECT_TRUE(started.waitFor(thread_count)) << pool_name << ": too few threads";
      finished.arrive();
    });
  }
  EXPECT_TRUE(finished.waitFor(thread_count)) << pool_name;
  std::lock_guard<std::mutex> lock(mutex);
  return names;
}

TEST(ThreadPool, NamesItsThreads) {
  using Names = std::multiset<std::string>;
  EXPECT_EQ(threadNamesOf("dova_pool", 1), Names{"dova_pool"});
  EXPECT_EQ(threadNamesOf("io", 2), (Names{"io_0", "io_1"}));
  // Longer than 15 characters: the beginning is cut, so the index survives.
  EXPECT_EQ(threadNamesOf("abcdefghijklmnop", 3),
            (Names{"defghijklmnop_0", "defghijklmnop_1", "defghijklmnop_2"}));
  EXPECT_EQ(threadNamesOf("abcdefghijklmnop", 1), Names{"bcdefghijklmnop"});
  EXPECT_EQ(threadNamesOf("abcdefghijklmno", 1), Names{"abcdefghijklmno"});
  EXPECT_EQ(threadNamesOf("abcdefghijklm", 2), (Names{"abcdefghijklm_0", "abcdefghijklm_1"}));
}

TEST(ThreadPool, MiddlewarePostsThroughTheFieldsOfItsDataModel) {
  dova::ThreadPool pool("fields_pool", 2);
  EXPECT_EQ(pool.name, "fields_pool");
  EXPECT_EQ(pool.thread_count, 2);
  EXPECT_TRUE(pool.running);
  // Idle workers wait for work inside a turn of their loop: both count.
  const auto deadline = steady_clock::now() + kDeadline;
  while (pool.active != 2 && steady_clock::now() < deadline) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  EXPECT_EQ(pool.active, 2);

  // The middleware's own posting: append under queue_mutex, then signal.
  Gate ran;
  {
    std::lock_guard<std::mutex> lock(pool.queue_mutex);
    pool.tasks.push_back([&ran] { ran.open(); });
  }
  pool.queue_cond.notify_one();
  EXPECT_TRUE(ran.waitFor());
}

TEST(ThreadPool, RunsTasksInOrderOnOneThread) {
  constexpr int kTasks = 500;
  std::vector<int> order;  // touched only by the worker until `done` opens
  std::set<std::thread::id> workers;
  Gate all_posted;
  Gate done;
  dova::ThreadPool pool("order_pool", 1);
  for (int i = 0; i < kTasks; ++i) {
    pool.post([&, i] {
      // A task posted from a task, once all are queued, goes behind all of them.
      if (i == 0) {
        EXPECT_TRUE(all_posted.waitFor());
        pool.post([&] {
          order.push_back(-1);
          done.open();
        });
      }
      order.push_back(i);
      workers.insert(std::this_thread::get_id());
    });
  }
  all_posted.open();
  ASSERT_TRUE(done.waitFor());

  ASSERT_EQ(order.size(), static_cast<size_t>(kTasks + 1));
  for (int i = 0; i < kTasks; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
  EXPECT_EQ(order.back(), -1);
  EXPECT_EQ(workers.size(), 1u);
  EXPECT_EQ(workers.count(std::this_thread::get_id()), 0u);
}

TEST(ThreadPool, TakesTasksFromManyThreads) {
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 500;
  std::atomic<int> ran{0};
  Arrivals finished;
  dova::ThreadPool pool("busy_posters", 3);
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&] {
      for (int i = 0; i < kTasksEach; ++i) {
        pool.post([&] {
          ran.fetch_add(1);
          finished.arrive();
        });
      }
    });
  }
  for (std::thread& poster : posters) poster.join();
  EXPECT_TRUE(finished.waitFor(kPosters * kTasksEach));
  EXPECT_EQ(ran.load(), kPosters * kTasksEach);
}

// The CPUs the calling thread may run on.
cpu_set_t currentAffinity() {
  cpu_set_t set;
  CPU_ZERO(&set);
  EXPECT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
  return set;
}

// The affinity of a worker of a pool created while "DOVA_SCHED_CPU" is `cpu`.
std::optional<cpu_set_t> workerAffinity(std::optional<std::string> cpu) {
  ScopedEnv setting("DOVA_SCHED_CPU", cpu);
  std::optional<cpu_set_t> affinity;
  Gate done;
  dova::ThreadPool pool("pinned_pool", 1);
  pool.post([&] {
    affinity = currentAffinity();
    done.open();
  });
  EXPECT_TRUE(done.waitFor()) << "DOVA_SCHED_CPU=" << cpu.value_or("(unset)");
  return done.isOpen() ? affinity : std::nullopt;
}

TEST(ThreadPool, PinsWorkersToTheConfiguredCpu) {
  const cpu_set_t allowed = currentAffinity();
  std::vector<int> cpus;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(static_cast<size_t>(cpu), &allowed)) cpus.push_back(cpu);
  }
  ASSERT_FALSE(cpus.empty());

  // The first and the last CPU this process may use, so the value matters.
  for (int target : {cpus.front(), cpus.back()}) {
    const std::optional<cpu_set_t> pinned = workerAffinity(std::to_string(target));
    ASSERT_TRUE(pinned);
    EXPECT_EQ(CPU_COUNT(&*pinned), 1) << "DOVA_SCHED_CPU=" << target;
    EXPECT_TRUE(CPU_ISSET(static_cast<size_t>(target), &*pinned)) << "DOVA_SCHED_CPU=" << target;
  }

  // Unset, empty, or a CPU that cannot be used: the worker runs unpinned.
  for (std::optional<std::string> cpu :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("99999"), std::optional<std::string>("-1")}) {
    const std::optional<cpu_set_t> unpinned = workerAffinity(cpu);
    ASSERT_TRUE(unpinned);
    EXPECT_TRUE(CPU_EQUAL(&*unpinned, &allowed)) << "DOVA_SCHED_CPU=" << cpu.value_or("(unset)");
  }

  // Only the workers are pinned, never the thread that made the pool.
  const cpu_set_t after = currentAffinity();
  EXPECT_TRUE(CPU_EQUAL(&after, &allowed));
}

TEST(ThreadPool, ReportsTasksOf50MsOrMore) {
  waitOutSlowReportWindow();
  TraceCapture log;
  dova::ThreadPool pool("threshold_pool", 1);

  pool.post([] { spendMilliseconds(49.0); });
  drain(pool);
  // A loaded machine may stretch the task past 50 ms; it is then rightly
  // reported, and only the reported time can tell.
  for (const TraceReport& report : reportsFrom(log, "thread_loop")) {
    const auto parsed = parseSlowReport(report.text, "threshold_pool");
    ASSERT_TRUE(parsed) << report.text;
    EXPECT_GE(parsed->first, 50.0) << "reported a task below 50 ms: " << report.text;
    last_slow_task_end.store(wallSeconds());
  }
  waitOutSlowReportWindow();
  const size_t before = reportsFrom(log, "thread_loop").size();

  // A slow task with three more queued behind it by the time it ends.
  Gate queued;
  pool.post([&queued] {
    EXPECT_TRUE(queued.waitFor());
    spendMilliseconds(50.0);
  });
  pool.post([] {});
  pool.post([] {});
  const std::shared_ptr<Gate> done = postMarker(pool);
  queued.open();
  ASSERT_TRUE(done->waitFor());

  const std::vector<TraceReport> reports = reportsFrom(log, "thread_loop");
  ASSERT_EQ(reports.size(), before + 1);
  const TraceReport& report = reports.back();
  EXPECT_EQ(report.level, dova::WARN);
  EXPECT_TRUE(endsWith(report.file, "dova/os/threadpool.h")) << report.file;
  const auto parsed = parseSlowReport(report.text, "threshold_pool");
  ASSERT_TRUE(parsed) << report.text;
  EXPECT_GE(parsed->first, 50.0);
  EXPECT_LT(parsed->first, 5000.0);
  EXPECT_EQ(parsed->second, 3) << report.text;
}

TEST(ThreadPool, ReportsSlowTasksOnceASecondAcrossPools) {
  waitOutSlowReportWindow();
  TraceCapture log;
  dova::ThreadPool first("first_pool", 1);
  dova::ThreadPool second("second_pool", 1);

  first.post([] { spendMilliseconds(60.0); });
  drain(first);
  const double first_report = wallSeconds();
  // Within the same second, from another pool and from the same one: no report.
  second.post([] { spendMilliseconds(60.0); });
  drain(second);
  first.post([] { spendMilliseconds(60.0); });
  drain(first);
  ASSERT_LT(wallSeconds() - first_report, 0.9) << "the machine is too slow for this case";

  std::vector<TraceReport> reports = reportsFrom(log, "thread_loop");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_TRUE(parseSlowReport(reports[0].text, "first_pool")) << reports[0].text;

  // More than a second later the next slow task reports again.
  while (wallSeconds() < first_report + 1.05) std::this_thread::sleep_for(milliseconds(10));
  second.post([] { spendMilliseconds(60.0); });
  drain(second);
  reports = reportsFrom(log, "thread_loop");
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_TRUE(parseSlowReport(reports[1].text, "second_pool")) << reports[1].text;
}

TEST(ThreadPool, DestroyingAnIdlePoolIsQuickAndDropsPendingTasks) {
  TraceCapture log;
  ::testing::internal::CaptureStdout();

  // Idle workers, all waiting for work, wake and leave at once.
  const auto idle_start = steady_clock::now();
  {
    Arrivals started;
    dova::ThreadPool pool("idle_pool", 3);
    for (int i = 0; i < 3; ++i) {
      pool.post([&started] {
        started.arrive();
        EXPECT_TRUE(started.waitFor(3));
      });
    }
    EXPECT_TRUE(started.waitFor(3));
  }
  const double idle_seconds = secondsSince(idle_start);

  // Tasks still queued when the pool goes are destroyed, never run. The
  // first pending task's destruction releases the running one, so the
  // worker leaves as soon as the pool stops.
  std::atomic<int> pending_ran{0};
  Gate running;
  Gate release;
  const auto busy_start = steady_clock::now();
  {
    dova::ThreadPool pool("pending_pool", 1);
    pool.post([&] {
      running.open();
      EXPECT_TRUE(release.waitFor());
    });
    ASSERT_TRUE(running.waitFor());
    pool.post([&pending_ran, guard = openOnDestruction(release)] { ++pending_ran; });
    for (int i = 0; i < 4; ++i) pool.post([&pending_ran] { ++pending_ran; });
  }
  const double busy_seconds = secondsSince(busy_start);

  // A pool without threads never runs what it is given, and frees it.
  Gate freed;
  {
    dova::ThreadPool pool("empty_pool", 0);
    pool.post([&pending_ran, guard = openOnDestruction(freed)] { ++pending_ran; });
  }

  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_LT(idle_seconds, 1.5);
  EXPECT_LT(busy_seconds, 1.5);
  EXPECT_TRUE(release.isOpen());
  EXPECT_TRUE(freed.isOpen());
  EXPECT_EQ(pending_ran.load(), 0);
  EXPECT_EQ(printed, "");
  EXPECT_TRUE(reportsFrom(log, "wait_completed").empty());
}

TEST(ThreadPool, DestroyingABusyPoolWarnsAfterThreeSecondsAndOutlivesTheTask) {
  waitOutSlowReportWindow();
  TraceCapture log;
  Gate release;
  Gate task_gone;
  Gate running;

  ::testing::internal::CaptureStdout();
  const auto start = steady_clock::now();
  {
    dova::ThreadPool pool("stuck_pool", 1);
    pool.post([&release, &running, guard = openOnDestruction(task_gone)] {
      running.open();
      EXPECT_TRUE(release.waitFor(seconds(20)));
      last_slow_task_end.store(wallSeconds());
    });
    EXPECT_TRUE(running.waitFor());
  }
  const double destroy_seconds = secondsSince(start);
  const std::string printed = ::testing::internal::GetCapturedStdout();

  EXPECT_GE(destroy_seconds, 2.95);
  EXPECT_LT(destroy_seconds, 10.0);
  EXPECT_EQ(printed, "Warning: Blocked - stuck_pool wait_completed timeout=3s\n");
  const std::vector<TraceReport> blocked = reportsFrom(log, "wait_completed");
  ASSERT_EQ(blocked.size(), 1u);
  EXPECT_EQ(blocked[0].level, dova::WARN);
  EXPECT_EQ(blocked[0].text, "Blocked - stuck_pool wait_completed timeout=3s");
  EXPECT_TRUE(endsWith(blocked[0].file, "dova/os/threadpool.h")) << blocked[0].file;

  // The task finishes after its pool is gone: the worker still times it,
  // reports it under the pool's name and leaves, without touching freed memory.
  EXPECT_FALSE(task_gone.isOpen());
  release.open();
  ASSERT_TRUE(task_gone.waitFor());
  const std::vector<TraceReport> slow = reportsFrom(log, "thread_loop");
  ASSERT_EQ(slow.size(), 1u);
  const auto parsed = parseSlowReport(slow[0].text, "stuck_pool");
  ASSERT_TRUE(parsed) << slow[0].text;
  EXPECT_GE(parsed->first, 2950.0);
  EXPECT_EQ(parsed->second, 0);
}

}  // namespace
