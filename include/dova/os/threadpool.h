#ifndef DOVA_OS_THREADPOOL_H_
#define DOVA_OS_THREADPOOL_H_

#include <sys/prctl.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "dova/cpu.h"
#include "dova/time.h"
#include "dova/trace.h"

namespace dova {

// A small pool of named worker threads. The node handle gives each
// subscription a pool of one thread, so the work posted for that subscription
// runs in order on a thread of its own.
//
// post() may be called from any thread. Destroying the pool stops it: pending
// tasks are dropped unrun, and the destructor waits up to 3 s for the workers
// to leave, warning when they do not. Workers are detached, never joined.
// A task that takes 50 ms or more is reported, at most once a second for the
// whole process.
class ThreadPool {
  // What the workers share with the pool object. Each worker holds it too, so
  // a worker that outlives the bounded wait of the destructor still finds it.
  struct State {
    State(std::string pool_name, int threads) : name(std::move(pool_name)), thread_count(threads) {}

    std::deque<std::function<void()>> tasks;
    std::mutex queue_mutex;
    std::condition_variable queue_cond;
    std::atomic<bool> running{true};
    std::mutex active_mutex;
    std::atomic<int> active{0};  // workers inside one turn of their loop
    std::string name;
    int thread_count = 0;
  };

  std::shared_ptr<State> state_;  // first: the public references below point into it

 public:
  ThreadPool(const std::string& pool_name, int threads)
      : state_(std::make_shared<State>(pool_name, threads)),
        tasks(state_->tasks),
        queue_mutex(state_->queue_mutex),
        queue_cond(state_->queue_cond),
        running(state_->running),
        active_mutex(state_->active_mutex),
        active(state_->active),
        name(state_->name),
        thread_count(state_->thread_count) {
    for (int index = 0; index < threads; ++index) {
      std::thread(&ThreadPool::thread_loop, state_, index).detach();
    }
  }

  ~ThreadPool() {
    running = false;
    {
      std::lock_guard<std::mutex> lock(queue_mutex);
      tasks.clear();  // pending tasks are never run
      queue_cond.notify_all();
    }
    wait_completed(3);
  }

  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Appends `task` at the back of the queue; it runs after every task posted before it.
  void post(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    tasks.push_back(std::move(task));
    queue_cond.notify_one();
  }

  // Waits until no worker is inside a turn of its loop, at most `timeout_s`
  // seconds, polling every millisecond; warns when they are still busy.
  void wait_completed(int timeout_s) {
    if (active <= 0) return;
    for (int poll = 0; poll < timeout_s * 1000; ++poll) {
      Duration(0, 1000000).wallSleep();
      if (active < 1) return;
    }
    mtrace(WARN, __FILE__, __LINE__, "wait_completed", false,
           "Blocked - %s wait_completed timeout=%ds", name.c_str(), timeout_s);
    std::cout << "Warning: "
              << "Blocked - " << name << " wait_completed timeout=" << timeout_s << "s"
              << std::endl;
  }

  // The pool's state under the names of its data model, for the middleware's
  // side: it posts by appending to `tasks` under `queue_mutex` and signalling
  // `queue_cond`, as post() does. They refer into the state the workers share;
  // `queue_mutex` guards `tasks`, `active_mutex` guards changes of `active`.
  std::deque<std::function<void()>>& tasks;  // pending tasks, taken from the front
  std::mutex& queue_mutex;
  std::condition_variable& queue_cond;  // signalled when tasks arrive or the pool stops
  std::atomic<bool>& running;           // true until destruction begins
  std::mutex& active_mutex;
  std::atomic<int>& active;  // workers inside one turn of their loop (waiting or running)
  std::string& name;         // also the base of the thread names
  int& thread_count;

 private:
  // Wall-clock seconds of the last slow-task report, shared by every pool of
  // the process so that a burst of slow tasks cannot flood the trace.
  static std::atomic<double>& lastSlowReport() {
    static std::atomic<double> last{0.0};
    return last;
  }

  static std::string threadName(const State& state, int index) {
    std::string thread_name = state.name;
    if (state.thread_count > 1) thread_name += "_" + std::to_string(index);
    // Cut from the front, deliberately: the distinguishing index survives.
    constexpr size_t kMaxThreadName = 15;
    if (thread_name.size() > kMaxThreadName) {
      thread_name.erase(0, thread_name.size() - kMaxThreadName);
    }
    return thread_name;
  }

  static void pinToConfiguredCpu() {
    const char* cpu = std::getenv("DOVA_SCHED_CPU");
    if (cpu == nullptr || *cpu == '\0') return;
    try {
      cpu::setaffinity(static_cast<int>(std::strtol(cpu, nullptr, 10)));
    } catch (const std::exception&) {
      // An unusable CPU leaves the worker unpinned, silently.
    }
  }

  static void reportIfSlow(State& state, const Duration& elapsed) {
    const double elapsed_ms =
        static_cast<double>(elapsed.sec) * 1000.0 + static_cast<double>(elapsed.nsec) * 1e-6;
    if (elapsed_ms < 50.0) return;
    const Time wall = Time::WallTime();
    const double now = static_cast<double>(wall.sec) + static_cast<double>(wall.nsec) * 1e-9;
    std::atomic<double>& last = lastSlowReport();
    const double previous = last.load(std::memory_order_relaxed);
    if (now - previous > 1.0 || now < previous) {
      last.store(now, std::memory_order_relaxed);
      long remaining = 0;
      {
        std::lock_guard<std::mutex> lock(state.queue_mutex);
        remaining = static_cast<long>(state.tasks.size());
      }
      mtrace(WARN, __FILE__, __LINE__, "thread_loop", false,
             "%s timeescape %.2f ms, remained task: %ld", state.name.c_str(), elapsed_ms,
             remaining);
    }
  }

  // The worker holds its own reference to the state for as long as it runs.
  static void thread_loop(
      std::shared_ptr<State> state,  // NOLINT(performance-unnecessary-value-param)
      int index) {
    prctl(PR_SET_NAME, threadName(*state, index).c_str(), 0, 0, 0);
    pinToConfiguredCpu();
    if (!state->running) return;

    for (;;) {
      {
        std::lock_guard<std::mutex> lock(state->active_mutex);
        ++state->active;
      }
      std::function<void()> task;
      {
        std::unique_lock<std::mutex> lock(state->queue_mutex);
        while (state->tasks.empty() && state->running) state->queue_cond.wait(lock);
        if (state->running && !state->tasks.empty()) {
          task = std::move(state->tasks.front());
          state->tasks.pop_front();
        }
      }
      if (task && state->running) {
        const Time start = Time::now();
        task();
        reportIfSlow(*state, Time::now() - start);
      }
      {
        std::lock_guard<std::mutex> lock(state->active_mutex);
        --state->active;
      }
      task = nullptr;
      if (!state->running) return;
    }
  }
};

}  // namespace dova

#endif  // DOVA_OS_THREADPOOL_H_
