#include "doctor_command.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"
#include "dova/options.h"
#include "exit_status.h"
#include "korcommon/ImptData.h"
#include "korcommon/log.h"
#include "node_census.h"
#include "option_checks.h"
#include "session.h"
#include "terminal.h"
#include "trace_capture.h"

namespace korcommon::cli {
namespace {

constexpr char kImptDataDirectory[] = "/opt/quor/imptdata";

struct Check {
  enum Status { kOk, kWarn, kFail };
  Status status = kOk;
  std::string name;
  std::string detail;
  std::string hint;  // what to do about a WARN or FAIL
};

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

bool isSet(const char* name) { return std::getenv(name) != nullptr; }

// The environment value as the trace logger and the worker pool read it: strtol in base 10
// (leading blanks, a sign and trailing junk accepted), cut to 32 bits.
int32_t readAsLogger(const std::string& text) {
  return static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

std::string quoted(const std::string& text) { return "\"" + oneLine(text) + "\""; }

// The transport line and the nodes line. The census is kept by the caller until the
// session has shut down, since the middleware delivers to its subscribers until then.
void checkMiddleware(double wait_seconds, std::vector<Check>& checks,
                     std::unique_ptr<NodeCensus>& census) {
  const std::string transport = cliTransport();
  Check transport_check{Check::kOk, "transport", "", ""};
  Check nodes_check{Check::kWarn, "nodes", "", ""};

  Session session("korcommon_doctor_" + std::to_string(getpid()));
  // What init made of the request and the environment, as the platform resolved it.
  const std::optional<dova::Options> used =
      session.joined() ? dova::runningOptions() : std::nullopt;
  if (!used) {
    transport_check.status = Check::kFail;
    transport_check.detail = transport + " cannot start: " + session.error();
    transport_check.hint = dova::acceptedOptions() +
                           ", and CYCLONEDDS_URI (when set) a valid Cyclone DDS configuration";
    nodes_check.detail = "not checked: the middleware did not start";
    nodes_check.hint = "fix the transport first";
    checks.push_back(transport_check);
    checks.push_back(nodes_check);
    return;
  }

  const std::string domain = std::to_string(used->domain_id);
  const std::string mode = std::to_string(used->mode);
  if (used->transport == "local") {
    transport_check.status = Check::kWarn;
    transport_check.detail = "local (DOVA_TRANSPORT=local), mode " + mode +
                             ": every process is its own world, nothing reaches another";
    transport_check.hint = "unset DOVA_TRANSPORT (the tool then uses dds) or set it to dds";
  } else {
    const std::string uri = environment("CYCLONEDDS_URI");
    transport_check.detail = used->transport + ", domain " + domain + ", mode " + mode + ", " +
                             (uri.empty() ? std::string("loopback only (CYCLONEDDS_URI unset)")
                                          : "networked (CYCLONEDDS_URI=" + oneLine(uri) + ")");
  }

  census = std::make_unique<NodeCensus>(session, wait_seconds);
  const std::set<std::string> nodes = census->names();
  if (!census->subscribed()) {
    nodes_check.detail = "not checked: cannot subscribe to /diagnostics_value and /dova_log";
    nodes_check.hint = "see the errors above";
  } else if (nodes.empty()) {
    char waited[32];
    std::snprintf(waited, sizeof waited, "%g", wait_seconds);
    nodes_check.detail = std::string("no other node seen in ") + waited + " s";
    nodes_check.hint =
        "start the robot's processes, or give them and this tool the same transport, "
        "DOVA_DOMAIN_ID (now " +
        domain + ") and CYCLONEDDS_URI";
  } else {
    nodes_check.status = Check::kOk;
    std::string names;
    for (const std::string& node : nodes) names += (names.empty() ? "" : ", ") + oneLine(node);
    nodes_check.detail = std::to_string(nodes.size()) +
                         (nodes.size() == 1 ? " other node seen: " : " other nodes seen: ") + names;
  }
  checks.push_back(transport_check);
  checks.push_back(nodes_check);
}

Check checkImportantData() {
  Check check{Check::kOk, "important data", "", ""};
  const std::string directory = kImptDataDirectory;
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) {
    check.status = Check::kFail;
    check.detail = directory + ": " + std::strerror(errno);
    check.hint = "storing the serial number creates it: korcommon imptdata set sn <SN>";
    return check;
  }
  if (!S_ISDIR(status.st_mode)) {
    check.status = Check::kFail;
    check.detail = directory + " is not a directory";
    check.hint = "move it away; storing the serial number then creates the directory";
    return check;
  }
  DIR* listing = opendir(directory.c_str());
  if (listing == nullptr) {
    check.status = Check::kFail;
    check.detail = directory + " cannot be read: " + std::strerror(errno);
    check.hint = "the robot's processes read their calibration there: chmod -R 777 " + directory;
    return check;
  }
  closedir(listing);
  // A probe file of our own: writing is the only reliable test (a read-only mount, a full
  // disk), and the stored values are never touched.
  const std::string probe = directory + "/.korcommon_doctor_probe_" + std::to_string(getpid());
  const int file = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  bool written = file >= 0;
  int error = errno;
  if (written) {
    constexpr char kContent[] = "probe\n";
    written =
        write(file, kContent, sizeof kContent - 1) == static_cast<ssize_t>(sizeof kContent - 1);
    error = errno;
    written = close(file) == 0 && written;
    if (unlink(probe.c_str()) != 0 && written) {
      written = false;
      error = errno;
    }
  }
  if (!written) {
    check.status = Check::kFail;
    check.detail = directory + " cannot be written: " + std::strerror(error);
    check.hint = "the robot stores its calibration there: check the mount and free space";
    return check;
  }
  check.detail = directory + " readable and writable";
  if ((status.st_mode & 0777) != 0777) {
    // The store opens it to every user after each write, so processes of other accounts
    // can rewrite it; a narrower mode means someone changed it by hand.
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    check.status = Check::kWarn;
    check.detail += ", but mode " + std::string(mode) + " keeps other accounts out";
    check.hint = "chmod -R 777 " + directory;
  }
  return check;
}

Check checkSerialNumber() {
  Check check{Check::kOk, "serial number", "", ""};
  std::string sn;
  std::string reported;
  {
    const TraceCapture reports;
    sn = ImptData::getSN();
    reported = reports.first();
  }
  if (!reported.empty()) {
    check.status = Check::kFail;
    check.detail = "cannot be read: " + oneLine(reported);
    check.hint = "store it again: korcommon imptdata set sn <SN>";
  } else if (sn.empty()) {
    check.status = Check::kFail;
    check.detail = "none stored";
    check.hint = "signals carry it as their accid: korcommon imptdata set sn <SN>";
  } else {
    check.detail = oneLine(sn);
  }
  return check;
}

// The trace logger's settings as its first call will read them.
Check checkTrace() {
  Check check{Check::kOk, "trace", "", ""};
  static const char* const kLevels[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  std::vector<std::string> hints;

  int32_t level = korcommon::detail::kDefaultLogLevel;
  if (isSet("DOVA_LOG_LEVEL")) level = readAsLogger(environment("DOVA_LOG_LEVEL"));
  if (level >= 1 && level <= 5) {
    check.detail = "level " + std::to_string(level) + " (" + kLevels[level - 1] +
                   (level == 5 ? " only" : " and up") +
                   (isSet("DOVA_LOG_LEVEL") ? ")" : ", default)");
  } else {
    check.status = Check::kWarn;
    check.detail = "DOVA_LOG_LEVEL=" + quoted(environment("DOVA_LOG_LEVEL")) + " switches it off";
    hints.push_back("DOVA_LOG_LEVEL takes 1 (debug and up) to 5 (fatal only); unset, " +
                    std::to_string(korcommon::detail::kDefaultLogLevel));
  }

  const std::string default_size =
      std::to_string(korcommon::detail::kDefaultLogSize) + "-byte messages";
  if (!isSet("DOVA_LOG_SIZE")) {
    check.detail += ", " + default_size + " (default)";
  } else if (const int32_t size = readAsLogger(environment("DOVA_LOG_SIZE")); size > 0) {
    check.detail += ", " + std::to_string(size) + "-byte messages";
  } else {
    check.status = Check::kWarn;
    check.detail += ", DOVA_LOG_SIZE=" + quoted(environment("DOVA_LOG_SIZE")) + " ignored (" +
                    default_size + ")";
    hints.emplace_back("DOVA_LOG_SIZE takes a positive byte count");
  }

  const bool screen = isSet("DOVA_LOG_SCREEN") && readAsLogger(environment("DOVA_LOG_SCREEN")) == 1;
  check.detail += screen ? ", screen lines on" : ", screen lines off";
  for (const std::string& hint : hints) check.hint += (check.hint.empty() ? "" : "; ") + hint;
  return check;
}

// The CPUs this process may run on, as "0-3,6".
std::string cpuListText(const cpu_set_t& allowed) {
  std::string text;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(static_cast<size_t>(cpu), &allowed)) continue;
    int last = cpu;
    while (last + 1 < CPU_SETSIZE && CPU_ISSET(static_cast<size_t>(last + 1), &allowed)) ++last;
    if (!text.empty()) text += ',';
    text += std::to_string(cpu);
    if (last > cpu) text += "-" + std::to_string(last);
    cpu = last;
  }
  return text;
}

// Where the worker pools pin their threads. An unusable CPU leaves them unpinned silently,
// so this is the only place it shows.
Check checkWorkerCpu() {
  Check check{Check::kOk, "worker cpu", "", ""};
  if (!isSet("DOVA_SCHED_CPU") || environment("DOVA_SCHED_CPU").empty()) {
    check.detail = "worker threads not pinned (DOVA_SCHED_CPU unset)";
    return check;
  }
  const std::string text = environment("DOVA_SCHED_CPU");
  const int32_t cpu = readAsLogger(text);
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  const bool known = sched_getaffinity(0, sizeof allowed, &allowed) == 0;
  if (known && (cpu < 0 || cpu >= CPU_SETSIZE || !CPU_ISSET(static_cast<size_t>(cpu), &allowed))) {
    check.status = Check::kWarn;
    check.detail = "DOVA_SCHED_CPU=" + quoted(text) + " names CPU " + std::to_string(cpu) +
                   ", which this process cannot use: worker threads stay unpinned";
    check.hint = "pick one of the CPUs " + cpuListText(allowed);
    return check;
  }
  check.detail = "worker threads pinned to CPU " + std::to_string(cpu);
  if (text != std::to_string(cpu)) {
    check.status = Check::kWarn;
    check.detail += " (DOVA_SCHED_CPU=" + quoted(text) + " is read as " + std::to_string(cpu) + ")";
    check.hint = "write the CPU number alone";
  }
  return check;
}

void runDoctor(double wait_seconds, bool no_color) {
  std::vector<Check> checks;
  {
    std::unique_ptr<NodeCensus> census;  // declared first: freed after the session ends
    checkMiddleware(wait_seconds, checks, census);
  }
  checks.push_back(checkImportantData());
  checks.push_back(checkSerialNumber());
  checks.push_back(checkTrace());
  checks.push_back(checkWorkerCpu());

  const bool colour = colourWanted(no_color);
  int failures = 0;
  int warnings = 0;
  for (const Check& check : checks) {
    static const char* const kWords[] = {"OK  ", "WARN", "FAIL"};
    static const char* const kColours[] = {kGreen, kYellow, kRed};
    std::string word = kWords[check.status];
    if (colour) word = coloured(kColours[check.status], word);
    writeLine(word + "  " + check.name + ": " + check.detail);
    if (check.status != Check::kOk) writeLine("      hint: " + check.hint);
    failures += check.status == Check::kFail ? 1 : 0;
    warnings += check.status == Check::kWarn ? 1 : 0;
  }
  const auto counted = [](int count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
  };
  if (failures > 0) {
    writeLine("not ready (" + counted(failures, "failure") + ", " + counted(warnings, "warning") +
              ")");
    exitWith(kNo);
  }
  writeLine(warnings > 0 ? "ready (" + counted(warnings, "warning") + ")" : "ready");
}

}  // namespace

void addDoctorCommand(CLI::App& app) {
  auto wait_seconds = std::make_shared<double>(2.0);
  auto no_color = std::make_shared<bool>(false);
  CLI::App* doctor = app.add_subcommand("doctor", "Check whether this machine is ready");
  doctor->add_option("--wait", *wait_seconds, "Listen S seconds for other nodes")
      ->capture_default_str()
      ->type_name("S")
      ->check(zeroOrMore());
  doctor->add_flag("--no-color", *no_color, "No colour, even on a terminal");
  doctor->footer(
      "One line per check, then a hint line for each that is not OK:\n"
      "  OK|WARN|FAIL  <check>: <detail>\n"
      "      hint: <what to do>\n"
      "Checks: transport (DOVA_TRANSPORT, default dds; loopback only unless CYCLONEDDS_URI\n"
      "is set), nodes (other processes heard on /diagnostics_value and /dova_log), important\n"
      "data (/opt/quor/imptdata readable and writable, tested with a probe file that is\n"
      "removed again), serial number, trace (DOVA_LOG_LEVEL, DOVA_LOG_SIZE, DOVA_LOG_SCREEN),\n"
      "worker cpu (DOVA_SCHED_CPU). The last line says \"ready\" or \"not ready\".\n"
      "\n"
      "Exit status: 0 no check failed; 1 a check failed; 2 bad usage.");
  doctor->callback([wait_seconds, no_color] { runDoctor(*wait_seconds, *no_color); });
}

}  // namespace korcommon::cli
