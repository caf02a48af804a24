// A simulated robot coming up: its components report their health through
// korcommon::Diagnostics while a monitor follows them, as a robot's operator
// station would. Runs for about ten seconds on the in-process transport.
#include <dova/init.h>
#include <korcommon/Diagnostics.h>
#include <korcommon/log.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using dova::diagnostic_msgs::DiagnosticValue;

constexpr int kOk = 0;
constexpr int kWarn = 1;
constexpr int kError = 2;
constexpr auto kRunTime = std::chrono::seconds(10);
constexpr auto kReportPeriod = std::chrono::milliseconds(250);

const Clock::time_point kStart = Clock::now();

double secondsSinceStart() { return std::chrono::duration<double>(Clock::now() - kStart).count(); }

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
      std::printf("[%5.1fs] monitor: start-up state, %s\n", secondsSinceStart(),
                  "reporters in name order");
      started_ = true;
    }
    last_[report->name] = {report->level, report->code};
    std::printf("[%5.1fs]   %s %-36s code %3d  %-30s (from %s)\n", secondsSinceStart(),
                levelName(report->level), report->name.c_str(), report->code,
                report->message.c_str(), report->caller_id.c_str());
    std::fflush(stdout);
  }

 private:
  std::mutex mutex_;
  bool started_ = false;
  std::map<std::string, std::pair<int, int>> last_;  // name -> level, code
};

void runComponent(const Component& component, const std::atomic<bool>& running) {
  int last_level = kOk;
  while (running) {
    const Report report = component.state(secondsSinceStart());
    korcommon::Diagnostics::publish(component.name, component.frame, report.code, report.level,
                                    report.message);
    if (report.level != last_level) {
      const int trace_level = report.level == kError ? 8 : report.level == kWarn ? 4 : 2;
      korcommon::mtrace(trace_level, __FILE__, __LINE__, "runComponent", "%s: %s",
                        component.name.c_str(), report.message.c_str());
      last_level = report.level;
    }
    std::this_thread::sleep_for(kReportPeriod);
  }
}

}  // namespace

int main() {
  setenv("DOVA_LOG_SCREEN", "1", 0);  // show the components' traces as coloured lines
  if (!dova::init("robot")) return 1;
  korcommon::mtrace(2, __FILE__, __LINE__, "main", "robot coming up: %zu components",
                    robotComponents().size());

  std::atomic<bool> running{true};
  std::vector<std::thread> threads;
  const std::vector<Component> components = robotComponents();
  for (const Component& component : components) {
    threads.emplace_back(runComponent, std::cref(component), std::cref(running));
  }

  // The monitor joins a moment later, as an operator's would: the current
  // state of every reporter reaches it in one batch after three seconds.
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  Monitor monitor;
  korcommon::mtrace(2, __FILE__, __LINE__, "main", "monitor subscribing to /diagnostics_value");
  korcommon::Diagnostics::subscribe(
      [&monitor](const std::shared_ptr<const DiagnosticValue>& report) {
        monitor.onReport(report);
      });

  std::this_thread::sleep_until(kStart + kRunTime);
  running = false;
  for (std::thread& thread : threads) thread.join();
  korcommon::mtrace(2, __FILE__, __LINE__, "main", "robot shutting down");
  dova::shutdown();
  return 0;
}
