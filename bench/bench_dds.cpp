// Diagnostic reports between two processes over Cyclone DDS on loopback, beside
// Cyclone's own ddsperf measuring the same path in the same run:
//   latency    one report there and its answer back, halved (ddsperf ping/pong's
//              method), in mode 0 (delivery on DDS's thread) and mode 1 (through
//              the subscription's pool), median and 99th percentile;
//   throughput reports published back to back to a process that counts them and
//              checks that none is lost or reordered (ddsperf pub/sub).
// Each figure is printed with its ratio to ddsperf's; lower latency ratios and
// higher throughput ratios are better. The exit status is 1 when a report was
// lost or reordered.
//
// Usage: bench_dds [--seconds N]
// The program starts its own partner processes (itself, with a role as first
// argument, and ddsperf), all pinned to the loopback interface, in a DDS domain
// above the tests' that it claims for the run (two runs at once take turns).
// Reports carry this run's id in their names; partners ignore any others.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "dova/init.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/topics.h"
#include "dova/options.h"
#include "dova/os/node_handle_base.h"

extern char** environ;

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using Clock = std::chrono::steady_clock;

// Names of the reports, each followed by the run's id.
constexpr char kPing[] = "bench/ping/";
constexpr char kPong[] = "bench/pong/";
constexpr char kLast[] = "bench/last/";
constexpr char kMessage[] = "temperature 71.5 C above limit";

struct Figures {
  double median_us = 0;
  double p99_us = 0;
  size_t round_trips = 0;  // ours only
};

double percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0;
  const auto rank = static_cast<size_t>(fraction * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(rank),
                   samples.end());
  return samples[rank];
}

// A child process; killed and reaped when the object goes.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t quiet;  // the partner's own reports would garble ours
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    if (posix_spawnp(&pid_, args[0], &quiet, nullptr, args.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&quiet);
  }
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool started() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

// Runs a command to its end and returns what it printed on standard output.
std::string capture(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char buffer[4096];
  size_t got = 0;
  while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
  pclose(pipe);
  return output;
}

// Every number that follows `label` in ddsperf's per-second lines.
std::vector<double> column(const std::string& output, const std::string& label) {
  std::vector<double> values;
  const std::regex pattern(label + "\\s*([0-9.]+)");
  for (auto it = std::sregex_iterator(output.begin(), output.end(), pattern);
       it != std::sregex_iterator(); ++it) {
    values.push_back(std::stod((*it)[1].str()));
  }
  return values;
}

double median(std::vector<double> values) { return percentile(std::move(values), 0.5); }

// ddsperf runs with the configuration the platform pins itself to when it has
// none (loopback, unicast discovery), so both measure one path. The platform
// adds write batching to it, as ddsperf's publisher switches on for itself.
std::string peerConfiguration() {
  return std::string("CYCLONEDDS_URI=") + dova::ddsLoopbackConfiguration();
}

std::string ddsperf(int domain, int seconds, const std::string& mode) {
  return "env '" + peerConfiguration() + "' ddsperf -i " + std::to_string(domain) + " -D " +
         std::to_string(seconds) + " -Qminmatch:1 -Qinitwait:10 " + mode + " 2>/dev/null";
}

// ddsperf's ping/pong round trip, halved; per-second percentiles, their medians.
std::optional<Figures> ddsperfLatency(int domain, int seconds, size_t frame_size) {
  Child pong({"env", peerConfiguration(), "ddsperf", "-i", std::to_string(domain), "-D",
              std::to_string(seconds + 15), "pong"});
  if (!pong.started()) return std::nullopt;
  const std::string output =
      capture(ddsperf(domain, seconds, "ping size " + std::to_string(frame_size)));
  const std::vector<double> medians = column(output, " 50%");
  const std::vector<double> tails = column(output, " 99%");
  if (medians.empty() || tails.empty()) return std::nullopt;
  return Figures{median(medians) / 2, median(tails) / 2};
}

// ddsperf's pub/sub rate in samples per second (the median of its per-second rates).
std::optional<double> ddsperfThroughput(int domain, int seconds, size_t frame_size) {
  Child publisher({"env", peerConfiguration(), "ddsperf", "-i", std::to_string(domain), "-D",
                   std::to_string(seconds + 1), "-Qminmatch:1", "-Qinitwait:10", "pub", "size",
                   std::to_string(frame_size)});
  if (!publisher.started()) return std::nullopt;
  const std::vector<double> rates = column(capture(ddsperf(domain, seconds, "sub")), "rate");
  if (rates.empty()) return std::nullopt;
  return median(rates) * 1000;  // printed in kS/s
}

// A subscriber to every report on the diagnostics topic that hands each one to `on_report`
// on whichever thread the platform delivers it.
class ReportListener {
 public:
  explicit ReportListener(std::function<void(const DiagnosticValue&)> on_report)
      : on_report_(std::move(on_report)) {
    subscriber_.callback_kind = 2;
    subscriber_.callback_ptr = [this](const std::shared_ptr<const DiagnosticValue>& value) {
      on_report_(*value);
    };
    subscriber_.setTopic(dova::msgs::kDiagnosticsTopic);
  }
  bool subscribe() { return dova::nh()->subscribe(subscriber_, false, true, -1); }

 private:
  std::function<void(const DiagnosticValue&)> on_report_;
  dova::Subscriber<DiagnosticValue> subscriber_;
};

DiagnosticValue report(const std::string& name, int code) {
  DiagnosticValue value;
  value.name = name;
  value.code = code;
  value.level = DiagnosticValue::WARN;
  value.message = kMessage;
  return value;
}

bool initNode(const char* name, int mode, int domain) {
  dova::Options options;
  options.transport = "dds";
  options.mode = mode;
  options.domain_id = domain;
  return dova::init(name, options);
}

// Waits until some process subscribes to what this one publishes; false after 10 s.
bool awaitAudience() {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (dova::remoteSubscriberCount(dova::msgs::kDiagnosticsTopic) == 0) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// Partner role "pong": answers every ping with a pong carrying the same code.
int runPong(int mode, int domain, const std::string& run) {
  if (!initNode("bench_pong", mode, domain)) return 2;
  const std::string ping = kPing + run;
  const DiagnosticValue pong = report(kPong + run, 0);
  ReportListener listener([&](const DiagnosticValue& value) {
    if (value.name != ping) return;
    DiagnosticValue answer = pong;
    answer.code = value.code;
    dova::nh()->diag(answer);
  });
  if (!listener.subscribe()) return 2;
  pause();  // until the measuring process ends it
  return 0;
}

// Partner role "sink": counts reports until the last one, which carries how many were sent,
// and prints "received N reordered M" on standard output.
int runSink(int domain, const std::string& run) {
  if (!initNode("bench_sink", 0, domain)) return 2;
  const std::string ping = kPing + run;
  const std::string last = kLast + run;
  std::mutex mutex;
  std::condition_variable done;
  long received = 0, reordered = 0, expected = -1, next_code = 0;
  ReportListener listener([&](const DiagnosticValue& value) {
    std::lock_guard<std::mutex> lock(mutex);
    if (value.name == last) {
      expected = value.code;
      done.notify_all();
      return;
    }
    if (value.name != ping) return;
    if (value.code != next_code) ++reordered;
    next_code = value.code + 1;
    ++received;
    if (received == expected) done.notify_all();
  });
  if (!listener.subscribe()) return 2;
  std::printf("ready\n");
  std::fflush(stdout);
  std::unique_lock<std::mutex> lock(mutex);
  done.wait_for(lock, std::chrono::seconds(120),
                [&] { return expected >= 0 && received >= expected; });
  std::printf("received %ld reordered %ld\n", received, reordered);
  return 0;
}

// Our ping/pong: one report out, its pong back, halved. As ddsperf's ping does,
// the next ping goes out from the function that receives the pong, on whichever
// thread the platform delivers it; the main thread only restarts a round whose
// ping or pong was lost (the partner still discovering us at the start).
std::optional<Figures> ourLatency(const std::string& self, int mode, int domain, int seconds,
                                  const std::string& run) {
  Child pong({self, "pong", std::to_string(mode), std::to_string(domain), run});
  if (!pong.started() || !initNode("bench_ping", mode, domain)) return std::nullopt;
  std::mutex mutex;
  std::condition_variable finished;  // never notified: waits end at their deadlines
  constexpr auto kLostAfter = std::chrono::milliseconds(200);
  const std::string pong_name = kPong + run;
  DiagnosticValue ping = report(kPing + run, 0);
  int code = 0;  // of the ping in flight
  bool running = true;
  Clock::time_point sent;
  std::vector<double> one_way_us;
  one_way_us.reserve(static_cast<size_t>(seconds) * 200000);
  const auto send = [&] {  // REQUIRES: mutex held
    ping.code = ++code;
    sent = Clock::now();
    dova::nh()->diag(ping);
  };
  ReportListener listener([&](const DiagnosticValue& value) {
    const Clock::time_point now = Clock::now();
    if (value.name != pong_name) return;  // our own pings among them, delivered in place
    std::lock_guard<std::mutex> lock(mutex);
    if (value.code != code || !running) return;
    one_way_us.push_back(std::chrono::duration<double, std::micro>(now - sent).count() / 2);
    send();
  });
  if (listener.subscribe() && awaitAudience()) {
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    std::unique_lock<std::mutex> lock(mutex);
    send();
    // Woken only by the deadline, so it takes no turn between a pong and the next ping.
    int before = code;
    while (!finished.wait_until(lock, std::min(end, Clock::now() + kLostAfter),
                                [&] { return Clock::now() >= end; })) {
      if (code == before) send();  // nothing came back for a while
      before = code;
    }
    running = false;
  }
  dova::shutdown();
  if (one_way_us.size() < 100) {
    std::fprintf(stderr, "bench_dds: mode %d: only %zu pings answered\n", mode, one_way_us.size());
    return std::nullopt;
  }
  return Figures{percentile(one_way_us, 0.5), percentile(one_way_us, 0.99), one_way_us.size()};
}

// Our pub/sub: reports back to back for `seconds` to a sink in another process.
std::optional<double> ourThroughput(const std::string& self, int domain, int seconds,
                                    const std::string& run, long* lost, long* reordered) {
  FILE* sink = popen((self + " sink " + std::to_string(domain) + " " + run).c_str(), "r");
  if (sink == nullptr) return std::nullopt;
  char line[128] = {};
  const bool ready = std::fgets(line, sizeof line, sink) != nullptr;
  std::optional<double> rate;
  if (ready && initNode("bench_source", 0, domain) && awaitAudience()) {
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + std::chrono::seconds(seconds);
    int sent = 0;
    DiagnosticValue ping = report(kPing + run, 0);
    for (; Clock::now() < end; ++sent) {
      ping.code = sent;
      dova::nh()->diag(ping);
    }
    dova::nh()->diag(report(kLast + run, sent));
    long received = 0;
    if (std::fgets(line, sizeof line, sink) != nullptr &&
        std::sscanf(line, "received %ld reordered %ld", &received, reordered) == 2) {
      *lost = sent - received;
      rate = sent / std::chrono::duration<double>(Clock::now() - start).count();
    }
    dova::shutdown();
  }
  pclose(sink);
  return rate;
}

// Claims one of the DDS domains above the tests' for the rest of this process, with an
// exclusive flock on a lock file named after it (the kernel drops it when the process
// ends, however it ends); waits while other runs hold both. -1 after two minutes.
int claimBenchDomain() {
  constexpr int kDomains[] = {231, 232};  // the tests claim 1 to 230; 232 is the last valid id
  const Clock::time_point deadline = Clock::now() + std::chrono::minutes(2);
  while (Clock::now() < deadline) {
    for (const int domain : kDomains) {
      const std::string lock = (std::filesystem::temp_directory_path() /
                                ("korcommon_dds_domain_" + std::to_string(domain) + ".lock"))
                                   .string();
      const int descriptor = open(lock.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
      if (descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0) return domain;
      if (descriptor >= 0) close(descriptor);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return -1;
}

void printLatency(const char* label, const std::optional<Figures>& ours,
                  const std::optional<Figures>& peer) {
  if (!ours || !peer) {
    std::printf("%-26s not measured (a process did not start or answer)\n", label);
    return;
  }
  std::printf(
      "%-26s median %7.1f us (%.2fx ddsperf's %.1f)   p99 %7.1f us (%.2fx ddsperf's %.1f)   "
      "%zu round trips\n",
      label, ours->median_us, ours->median_us / peer->median_us, peer->median_us, ours->p99_us,
      ours->p99_us / peer->p99_us, peer->p99_us, ours->round_trips);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 5 && std::strcmp(argv[1], "pong") == 0)
    return runPong(std::atoi(argv[2]), std::atoi(argv[3]), argv[4]);
  if (argc >= 4 && std::strcmp(argv[1], "sink") == 0) return runSink(std::atoi(argv[2]), argv[3]);

  int seconds = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::max(1, std::atoi(argv[i + 1]));
  }
  const int domain = claimBenchDomain();
  if (domain < 0) {
    std::fprintf(stderr, "bench_dds: DDS domains 231 and 232 stayed taken by other runs\n");
    return 2;
  }
  unsetenv("CYCLONEDDS_URI");  // the platform's processes use its own configuration
  const std::string run = std::to_string(getpid());
  const std::string self = "/proc/self/exe";
  const std::string resolved = [&] {
    char path[4096] = {};
    const ssize_t length = readlink(self.c_str(), path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string(argv[0]);
  }();

  // A frame: the 32-byte transport prefix, then the encoded report.
  const auto frame_size = static_cast<size_t>(32 + report(kPing + run, 0).serializedLength());
  std::printf("bench_dds: %zu-byte frames, %d s per measurement, domain %d, loopback\n", frame_size,
              seconds, domain);

  const std::optional<Figures> peer_latency = ddsperfLatency(domain, seconds, frame_size);
  printLatency("latency mode 0 (one way)", ourLatency(resolved, 0, domain, seconds, run),
               peer_latency);
  printLatency("latency mode 1 (one way)", ourLatency(resolved, 1, domain, seconds, run),
               peer_latency);

  const std::optional<double> peer_rate = ddsperfThroughput(domain, seconds, frame_size);
  long lost = 0, reordered = 0;
  const std::optional<double> rate =
      ourThroughput(resolved, domain, seconds, run, &lost, &reordered);
  if (rate && peer_rate) {
    std::printf(
        "throughput                 %9.0f reports/s (%.2fx ddsperf's %.0f), lost %ld, "
        "reordered %ld\n",
        *rate, *rate / *peer_rate, *peer_rate, lost, reordered);
  } else {
    std::printf("throughput                 not measured (a process did not start or answer)\n");
  }
  return lost == 0 && reordered == 0 ? 0 : 1;  // a measurement that failed says so above
}
