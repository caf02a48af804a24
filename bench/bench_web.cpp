// The dashboard under the robot's full load: "korcommon web" as a process of its own, this
// process publishing 500 reporters at 10 Hz each (5,000 reports/s) and 1,000 trace records/s
// over DDS on loopback, and three pages following /api/events. Prints, per page, the reports,
// trace records and messages per second that reached it and how old the reports were on
// arrival, and the server's resident memory (VmRSS) through the run.
//
// usage: bench_web [--seconds N]   (default 10; the load target is judged over 60)
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dds_domain.h"
#include "dova/init.h"
#include "korcommon/Diagnostics.h"
#include "korcommon/log.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kReporters = 500;
constexpr int kReportHz = 10;
constexpr int kRecordsPerSecond = 1000;
constexpr int kPages = 3;
constexpr auto kTick = 10ms;  // the publisher's step: 50 reports and 10 records

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

size_t occurrences(const std::string& text, const char* piece) {
  size_t count = 0;
  for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
    ++count;
  }
  return count;
}

// The server: "korcommon web" on a free loopback port, its first line read for the URL.
class Server {
 public:
  Server() {
    int pipe_ends[2];
    if (pipe(pipe_ends) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(pipe_ends[1], STDOUT_FILENO);
      close(pipe_ends[0]);
      execl(KORCOMMON_CLI, KORCOMMON_CLI, "web", "--port", "0", "--node", "bench_web_server",
            static_cast<char*>(nullptr));
      _exit(127);
    }
    close(pipe_ends[1]);
    std::string line;
    char c = 0;
    while (read(pipe_ends[0], &c, 1) == 1 && c != '\n') line += c;
    close(pipe_ends[0]);
    const size_t colon = line.find("127.0.0.1:");
    if (colon != std::string::npos) port_ = std::atoi(line.c_str() + colon + 10);
  }
  ~Server() {
    if (pid_ > 0 && !stopped_) stop();
  }

  int port() const { return port_; }

  // kB of resident memory.
  long rss() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
  }

  // Ctrl-C, as an operator stops it; the exit status, or -1.
  int stop() {
    stopped_ = true;
    kill(pid_, SIGINT);
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  bool stopped_ = false;
};

// One page's event stream, counted.
class Page {
 public:
  explicit Page(int port) : client_("127.0.0.1", port) {
    thread_ = std::thread([this] {
      client_.Get("/api/events", [this](const char* data, size_t length) {
        buffer_.append(data, length);
        for (size_t end; (end = buffer_.find("\n\n")) != std::string::npos;) {
          count(buffer_.substr(0, end));
          buffer_.erase(0, end + 2);
        }
        return !stop_;
      });
    });
  }
  ~Page() {
    stop_ = true;
    thread_.join();
  }

  // Starts counting afresh: the snapshot and start-up are not part of the measure.
  void reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    messages_ = reports_ = records_ = bytes_ = 0;
    ages_.clear();
  }

  void print(int index, double seconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::sort(ages_.begin(), ages_.end());
    const auto age = [this](double quantile) {
      return ages_.empty()
                 ? 0.0
                 : ages_[static_cast<size_t>(quantile * static_cast<double>(ages_.size() - 1))];
    };
    std::printf(
        "page %d: %8.0f reports/s %6.0f records/s %5.1f messages/s %7.0f kB/s; "
        "report age on arrival p50 %.0f ms, p99 %.0f ms\n",
        index, static_cast<double>(reports_) / seconds, static_cast<double>(records_) / seconds,
        static_cast<double>(messages_) / seconds, static_cast<double>(bytes_) / seconds / 1024.0,
        age(0.5) * 1000.0, age(0.99) * 1000.0);
  }

 private:
  void count(const std::string& message) {
    const double now = wallSeconds();
    std::lock_guard<std::mutex> lock(mutex_);
    ++messages_;
    bytes_ += message.size();
    reports_ += occurrences(message, "{\"report\":");
    records_ += occurrences(message, "{\"header\":");
    // Report stamps are numbers; the records' stamps are objects and are passed over.
    for (size_t at = message.find("\"stamp\":"); at != std::string::npos;
         at = message.find("\"stamp\":", at + 1)) {
      char* end = nullptr;
      const double stamp = std::strtod(message.c_str() + at + 8, &end);
      if (end != message.c_str() + at + 8) ages_.push_back(now - stamp);
    }
  }

  httplib::Client client_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::string buffer_;
  std::mutex mutex_;
  size_t messages_ = 0, reports_ = 0, records_ = 0, bytes_ = 0;
  std::vector<double> ages_;
};

// The robot: every tick, the next slice of reporters and of trace records.
void publishUntil(Clock::time_point end, std::atomic<long>& reports) {
  constexpr int kReportsPerTick = kReporters * kReportHz / 100;
  constexpr int kRecordsPerTick = kRecordsPerSecond / 100;
  std::vector<std::string> names;
  for (int i = 0; i < kReporters; ++i) names.push_back("joint/" + std::to_string(i) + "/state");
  int next = 0;
  for (Clock::time_point tick = Clock::now(); tick < end; tick += kTick) {
    for (int i = 0; i < kReportsPerTick; ++i, next = (next + 1) % kReporters) {
      const int level = next % 50 == 0 ? 2 : next % 7 == 0 ? 1 : 0;
      korcommon::Diagnostics::publish(names[static_cast<size_t>(next)], level * 100, level,
                                      "temperature nominal, load within limits");
      ++reports;
    }
    for (int i = 0; i < kRecordsPerTick; ++i) {
      korcommon::mtrace(2, __FILE__, __LINE__, "publishUntil", "control cycle %d done", next);
    }
    std::this_thread::sleep_until(tick + kTick);
  }
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 10.0;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atof(argv[i + 1]);
  }
  // Loopback only, in a domain no test running beside holds.
  unsetenv("CYCLONEDDS_URI");
  unsetenv("DOVA_LOG_LEVEL");  // the records are traced at INFO, the default level
  setenv("DOVA_TRANSPORT", "dds", 1);
  korcommon::testing::claimDdsDomain();

  Server server;
  if (server.port() <= 0) {
    std::fprintf(stderr, "bench_web: the server did not start\n");
    return 1;
  }
  dova::Options options;
  options.transport = "dds";
  if (!dova::init("bench_web_robot", options)) return 1;

  std::vector<std::unique_ptr<Page>> pages;
  for (int i = 0; i < kPages; ++i) pages.push_back(std::make_unique<Page>(server.port()));

  std::printf("bench_web: %d reporters x %d Hz + %d trace records/s for %.0f s, %d pages\n",
              kReporters, kReportHz, kRecordsPerSecond, seconds, kPages);
  std::atomic<long> published{0};
  const Clock::time_point start = Clock::now();
  const Clock::time_point end = start + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(seconds + 2.0));
  std::thread robot(publishUntil, end, std::ref(published));

  // Two seconds to warm up (discovery, first snapshot), then the measure.
  std::this_thread::sleep_until(start + 2s);
  for (auto& page : pages) page->reset();
  const long published_at_start = published;
  const long rss_start = server.rss();
  long rss_max = rss_start;
  std::printf("server RSS: %ld kB at the start", rss_start);
  const Clock::time_point measure_start = Clock::now();
  for (int second = 1; Clock::now() < end; ++second) {
    std::this_thread::sleep_until(measure_start + std::chrono::seconds(second));
    const long rss = server.rss();
    rss_max = std::max(rss_max, rss);
    if (second % 10 == 0) std::printf(", %ld kB at %d s", rss, second);
  }
  const double measured = std::chrono::duration<double>(Clock::now() - measure_start).count();
  std::printf("; %ld kB at the end, %ld kB at most\n", server.rss(), rss_max);
  std::printf("published: %.0f reports/s\n",
              static_cast<double>(published - published_at_start) / measured);
  for (int i = 0; i < kPages; ++i) pages[static_cast<size_t>(i)]->print(i + 1, measured);

  robot.join();
  const int status = server.stop();
  pages.clear();
  dova::shutdown();
  std::printf("server stopped by SIGINT with status %d\n", status);
  return status == 0 ? 0 : 1;
}
