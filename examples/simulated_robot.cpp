// A simulated robot coming up: its components report their health through
// korcommon::Diagnostics while a monitor follows them, as a robot's operator
// station would. Runs for about ten seconds.
//
//   simulated_robot                   every component and the monitor in a
//                                     process of its own, on the DDS
//                                     transport (loopback only)
//   simulated_robot --single-process [SECONDS]
//                                     all of them in one process, on the
//                                     in-process transport
// The launcher's children are this program again, given a role:
//   simulated_robot component INDEX START_MS | monitor START_MS
#include <dova/init.h>
#include <dova/msgs/dova_msgs/Log.h>
#include <dova/msgs/topics.h>
#include <korcommon/Diagnostics.h>
#include <korcommon/log.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;

// Short names for the report levels the components table uses.
constexpr int kOk = DiagnosticValue::OK;
constexpr int kWarn = DiagnosticValue::WARN;
constexpr int kError = DiagnosticValue::ERROR;
constexpr auto kRunTime = std::chrono::seconds(10);
constexpr auto kReportPeriod = std::chrono::milliseconds(250);

// The robot's start, on the wall clock, shared by every process of the run.
using WallClock = std::chrono::system_clock;
WallClock::time_point run_start = WallClock::now();

double secondsSinceStart() {
  return std::chrono::duration<double>(WallClock::now() - run_start).count();
}

std::atomic<bool> interrupted{false};

void onSignal(int) { interrupted = true; }

// Sleeps until `until` or a stop signal, whichever comes first.
void sleepUntil(WallClock::time_point until) {
  while (!interrupted && WallClock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// What a component says about itself at a moment of the run.
struct Report {
  int code;
  int level;
  std::string message;
};

struct Component {
  std::string name;
  std::string frame;
  std::function<Report(double)> state;  // seconds since start -> report
};

std::string format(const char* pattern, double value) {
  char text[96];
  std::snprintf(text, sizeof text, pattern, value);
  return text;
}

std::vector<Component> robotComponents() {
  std::vector<Component> components;
  for (const char* leg : {"front_left", "front_right", "rear_left", "rear_right"}) {
    const std::string name = std::string("joint/") + leg + "_knee/temperature";
    const bool troubled = std::string(leg) == "front_left";
    components.push_back({name, std::string(leg) + "_knee", [troubled](double t) {
                            // The front left knee overheats while the robot trots, then cools.
                            double celsius = 41.0 + 1.5 * t;
                            if (troubled)
                              celsius = t < 7.0 ? 45.0 + 4.5 * t : 76.5 - 9.0 * (t - 7.0);
                            if (celsius >= 75.0) {
                              return Report{102, kError, format("%.1f C, motor derated", celsius)};
                            }
                            if (celsius >= 65.0) {
                              return Report{101, kWarn, format("%.1f C above limit", celsius)};
                            }
                            return Report{0, kOk, format("%.1f C", celsius)};
                          }});
  }
  components.push_back(
      {"battery/charge", "battery", [](double t) {
         const double percent = 23.0 - 0.5 * t;
         if (percent < 20.0) {
           return Report{201, kWarn, format("%.0f %% left, return to dock", percent)};
         }
         return Report{0, kOk, format("%.0f %% left", percent)};
       }});
  components.push_back({"imu/orientation", "imu_link", [](double t) {
                          if (t > 5.0 && t < 7.0)
                            return Report{301, kWarn, "gyro drift, recalibrating"};
                          return Report{0, kOk, "calibrated"};
                        }});
  components.push_back({"gait/planner", "base", [](double t) {
                          return t < 4.0 ? Report{0, kOk, "standing"} : Report{1, kOk, "trotting"};
                        }});
  return components;
}

const char* levelName(int level) {
  switch (level) {
    case kOk:
      return "OK   ";
    case kWarn:
      return "WARN ";
    case kError:
      return "ERROR";
    default:
      return "?    ";
  }
}

// Writes one complete line to standard output at once. Off a terminal (`make demo > demo.log`,
// a pipe) standard output is block-buffered: a line left in the buffer is lost if the
// process ends before flushing it.
__attribute__((format(printf, 1, 2))) void printLine(const char* pattern, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, pattern);
  const int length = std::vsnprintf(line, sizeof line - 1, pattern, arguments);
  va_end(arguments);
  if (length < 0) return;
  size_t size = std::min(static_cast<size_t>(length), sizeof line - 2);
  line[size++] = '\n';
  std::fwrite(line, 1, size, stdout);
  std::fflush(stdout);
}

// Prints the start-up batch, then only what changes.
class Monitor {
 public:
  void onReport(const std::shared_ptr<const DiagnosticValue>& report) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto known = last_.find(report->name);
    const bool changed = known == last_.end() || known->second.first != report->level ||
                         known->second.second != report->code;
    if (!changed) return;
    if (!started_) {
      printLine("[%5.1fs] monitor: start-up state, reporters in name order", secondsSinceStart());
      started_ = true;
    }
    last_[report->name] = {report->level, report->code};
    printLine("[%5.1fs]   %s %-36s code %3d  %-30s (from %s)", secondsSinceStart(),
              levelName(report->level), report->name.c_str(), report->code, report->message.c_str(),
              report->caller_id.c_str());
  }

  // Whether the start-up batch has been printed.
  bool started() {
    std::lock_guard<std::mutex> lock(mutex_);
    return started_;
  }

 private:
  std::mutex mutex_;
  bool started_ = false;
  std::map<std::string, std::pair<int, int>> last_;  // name -> level, code
};

void runComponent(const Component& component, const std::atomic<bool>& running) {
  int last_level = kOk;
  while (running && !interrupted) {
    const Report report = component.state(secondsSinceStart());
    korcommon::Diagnostics::publish(component.name, component.frame, report.code, report.level,
                                    report.message);
    if (report.level != last_level) {
      const int trace_level = report.level == kError  ? Log::ERROR
                              : report.level == kWarn ? Log::WARN
                                                      : Log::INFO;
      korcommon::mtrace(trace_level, __FILE__, __LINE__, "runComponent", "%s: %s",
                        component.name.c_str(), report.message.c_str());
      last_level = report.level;
    }
    sleepUntil(WallClock::now() + kReportPeriod);
  }
}

void subscribeMonitor(Monitor& monitor) {
  korcommon::mtrace(Log::INFO, __FILE__, __LINE__, "main",
                    "monitor subscribing to /diagnostics_value");
  korcommon::Diagnostics::subscribe(
      [&monitor](const std::shared_ptr<const DiagnosticValue>& report) {
        monitor.onReport(report);
      });
}

// The monitor joins a moment after the components, as an operator's would:
// the current state of every reporter reaches it in one batch three seconds
// later.
constexpr auto kMonitorJoins = std::chrono::milliseconds(600);
// The latest a monitor waits for its start-up batch: a report collected as the components stop
// is handed over one collection window later.
constexpr auto kMonitorEnds =
    kRunTime + dova::msgs::kDiagnosticsCollectionWindow + std::chrono::milliseconds(500);

int runSingleProcess(std::chrono::milliseconds run_time) {
  if (!dova::init("robot", dova::Options{"local", -1, true, -1})) return 1;
  const std::vector<Component> components = robotComponents();
  korcommon::mtrace(Log::INFO, __FILE__, __LINE__, "main", "robot coming up: %zu components",
                    components.size());
  std::atomic<bool> running{true};
  std::vector<std::thread> threads;
  for (const Component& component : components) {
    threads.emplace_back(runComponent, std::cref(component), std::cref(running));
  }
  sleepUntil(run_start + kMonitorJoins);
  Monitor monitor;
  subscribeMonitor(monitor);
  sleepUntil(run_start + run_time);
  running = false;
  for (std::thread& thread : threads) thread.join();
  korcommon::mtrace(Log::INFO, __FILE__, __LINE__, "main", "robot shutting down");
  dova::shutdown();
  return 0;
}

// One component as a process of its own; its node is named after it.
int runComponentProcess(size_t index) {
  const std::vector<Component> components = robotComponents();
  if (index >= components.size()) return 2;
  const Component& component = components[index];
  std::string node = component.frame;
  if (!dova::init(node)) return 1;
  std::atomic<bool> running{true};
  std::thread reporter(runComponent, std::cref(component), std::cref(running));
  sleepUntil(run_start + kRunTime);
  running = false;
  reporter.join();
  dova::shutdown();
  return 0;
}

int runMonitorProcess() {
  if (!dova::init("monitor")) return 1;
  sleepUntil(run_start + kMonitorJoins);
  Monitor monitor;
  subscribeMonitor(monitor);
  sleepUntil(run_start + kRunTime + std::chrono::milliseconds(300));
  // On a busy machine the components may be heard only late in the run, and their start-up
  // batch comes a collection window after the first report: wait for it rather than end
  // with it unprinted.
  while (!monitor.started() && !interrupted && WallClock::now() < run_start + kMonitorEnds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  dova::shutdown();
  return 0;
}

pid_t startChild(const std::vector<std::string>& arguments) {
  const pid_t child = fork();
  if (child != 0) return child;
  // A child must not outlive the launcher, however the launcher ends.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::vector<char*> argv;
  std::vector<std::string> words = arguments;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  execv("/proc/self/exe", argv.data());
  _exit(127);
}

// Starts every component and the monitor as processes, waits for the run to
// end (or Ctrl-C), then makes sure every child is gone.
int runLauncher() {
  setenv("DOVA_TRANSPORT", "dds", 1);
  setenv("DOVA_DOMAIN_ID", "42", 0);
  unsetenv("CYCLONEDDS_URI");  // the demo stays on loopback
  const std::string start = std::to_string(
      std::chrono::duration_cast<std::chrono::milliseconds>(run_start.time_since_epoch()).count());

  const size_t count = robotComponents().size();
  printLine("robot coming up: %zu components and a monitor, each a process on DDS (loopback)",
            count);
  std::vector<pid_t> children;
  for (size_t index = 0; index < count; ++index) {
    children.push_back(startChild({"simulated_robot", "component", std::to_string(index), start}));
  }
  children.push_back(startChild({"simulated_robot", "monitor", start}));

  // The children end on their own; after Ctrl-C, or when one is late, they are told to.
  std::set<pid_t> running(children.begin(), children.end());
  const auto reap = [&running](WallClock::time_point deadline) {
    while (!running.empty() && WallClock::now() < deadline) {
      const pid_t ended = waitpid(-1, nullptr, WNOHANG);
      if (ended > 0) {
        running.erase(ended);
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    }
  };
  const WallClock::time_point last_end = run_start + kMonitorEnds + std::chrono::seconds(1);
  while (!interrupted && !running.empty() && WallClock::now() < last_end) {
    reap(std::min(last_end, WallClock::now() + std::chrono::milliseconds(100)));
  }
  for (const pid_t child : running) kill(child, SIGTERM);
  reap(WallClock::now() + std::chrono::seconds(5));
  for (const pid_t child : running) kill(child, SIGKILL);
  while (waitpid(-1, nullptr, 0) > 0) {
  }
  printLine("robot shut down: every process has ended");
  return interrupted ? 130 : 0;
}

WallClock::time_point fromMilliseconds(const std::string& text) {
  return WallClock::time_point(std::chrono::milliseconds(std::atoll(text.c_str())));
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);
  setenv("DOVA_LOG_SCREEN", "1", 0);  // show the components' traces as coloured lines
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return runLauncher();
  if (args.size() <= 2 && args[0] == "--single-process") {
    // SECONDS shortens the run, as the smoke test does.
    return runSingleProcess(args.size() == 2 ? std::chrono::seconds(std::atol(args[1].c_str()))
                                             : std::chrono::milliseconds(kRunTime));
  }
  if (args.size() == 3 && args[0] == "component") {
    run_start = fromMilliseconds(args[2]);
    return runComponentProcess(static_cast<size_t>(std::atol(args[1].c_str())));
  }
  if (args.size() == 2 && args[0] == "monitor") {
    run_start = fromMilliseconds(args[1]);
    return runMonitorProcess();
  }
  std::fprintf(stderr, "usage: simulated_robot [--single-process [SECONDS]]\n");
  return 2;
}
