// The live commands of the korcommon tool (diag pub/echo/monitor, log echo, doctor), each
// test with real processes on DDS over loopback in a domain of its own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "dds_domain.h"
#include "dova/json/reader.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "korcommon/ImptData.h"
#include "private_opt.h"
#include "read_file.h"
#include "tool_runner.h"

namespace {

namespace fs = std::filesystem;
using korcommon::testing::ChildProcess;
using korcommon::testing::expectOneErrorLine;
using korcommon::testing::readFile;
using korcommon::testing::ToolResult;
using namespace std::chrono_literals;

// Generous, for DDS start-up and discovery on a loaded machine; the commands' own
// --timeout options end them well before.
constexpr auto kStartTimeout = 20s;
constexpr auto kEndTimeout = 40s;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

double wallSeconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// One line of "diag echo --json", read with the project's JSON reader.
struct JsonReport {
  explicit JsonReport(const std::string& line) {
    std::istringstream stream(line);
    dova::json::Reader::Read(object, stream);
  }
  std::string text(const char* name) const {
    return object[name].CastTo<dova::json::String>().Value();
  }
  double number(const char* name) const {
    return object[name].CastTo<dova::json::Number>().Value();
  }
  std::vector<std::string> memberNames() const {
    std::vector<std::string> names;
    for (const auto& member : object) names.push_back(member.name);
    return names;
  }
  dova::json::Object object;
};

std::set<fs::path> listing(const fs::path& directory) {
  std::set<fs::path> paths;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    paths.insert(entry.path());
  }
  return paths;
}

std::vector<JsonReport> jsonReports(const std::string& output) {
  std::vector<JsonReport> reports;
  for (const std::string& line : linesOf(output)) reports.emplace_back(line);
  return reports;
}

std::vector<std::string> namesOf(const std::vector<JsonReport>& reports) {
  std::vector<std::string> names;
  for (const JsonReport& report : reports) names.push_back(report.text("name"));
  return names;
}

int exitStatus(ChildProcess& child) { return child.wait(kEndTimeout).value_or(-1); }

class CliDiag : public ::testing::Test {
 protected:
  void SetUp() override {
    // The platform pins Cyclone to loopback only while CYCLONEDDS_URI is unset.
    unsetenv("CYCLONEDDS_URI");
    // The commands' defaults (dds, mode 1, trace settings as shipped), whatever the caller's.
    for (const char* name : {"DOVA_TRANSPORT", "DOVA_MODE", "DOVA_LOG_LEVEL", "DOVA_LOG_SIZE",
                             "DOVA_LOG_SCREEN", "DOVA_SCHED_CPU", "NO_COLOR"}) {
      unsetenv(name);
    }
    // A domain that no other test process running meanwhile uses, so that tests running
    // side by side never hear each other; the commands started here inherit it.
    domain_ = korcommon::testing::claimDdsDomain();
  }
  void TearDown() override {
    // The doctor test makes the private /opt read-only.
    if (korcommon::testing::hasPrivateOpt()) mount(nullptr, "/opt", nullptr, MS_REMOUNT, nullptr);
  }

  static bool hasLine(const std::string& output, const std::string& start) {
    for (const std::string& line : linesOf(output)) {
      if (line.rfind(start, 0) == 0) return true;
    }
    return false;
  }

  ToolResult run(const std::vector<std::string>& arguments) const { return tool_.run(arguments); }

  static std::unique_ptr<ChildProcess> start(const std::vector<std::string>& arguments) {
    auto child = std::make_unique<ChildProcess>(KORCOMMON_CLI, arguments);
    EXPECT_TRUE(child->started());
    return child;
  }

  // "diag pub ARGUMENTS --verbose" in the background, once its first report is out.
  static std::unique_ptr<ChildProcess> startPublisher(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"diag", "pub"});
    arguments.push_back("--verbose");
    auto child = start(arguments);
    EXPECT_TRUE(child->waitForOutput("published #1:", kStartTimeout)) << child->errors();
    return child;
  }

  std::string domain_;
  korcommon::testing::ToolRunner tool_{KORCOMMON_CLI};
};

TEST_F(CliDiag, ReportReachesEchoesInAnotherProcessMemberByMember) {
  const std::string message = "say \"hi\"\n\ttab, backslash \\ and \xC3\xBC";
  const double before = wallSeconds();
  // Started first; the publisher's linger covers the echoes' discovery.
  auto json_echo = start(
      {"diag", "echo", "--json", "--name", "^cli/round_trip$", "--count", "1", "--timeout", "30"});
  auto text_echo = start({"diag", "echo", "--name", "^cli/round_trip$", "--timeout", "30"});
  const ToolResult published =
      run({"diag", "pub", "cli/round_trip", "warn", "-42", message, "--frame", "base_link",
           "--count", "3", "--rate", "10", "--linger", "3", "--node", "round_trip_node"});
  EXPECT_EQ(published.status, 0) << published.err;
  EXPECT_EQ(published.out, "");  // quiet without --verbose

  ASSERT_EQ(exitStatus(*json_echo), 0) << json_echo->errors();
  const double after = wallSeconds();
  const std::vector<JsonReport> reports = jsonReports(json_echo->output());
  ASSERT_EQ(reports.size(), 1u) << json_echo->output();
  const JsonReport& report = reports.front();
  EXPECT_EQ(report.memberNames(), (std::vector<std::string>{"name", "level", "code", "message",
                                                            "frame_id", "stamp", "caller_id"}));
  EXPECT_EQ(report.text("name"), "cli/round_trip");
  EXPECT_EQ(report.number("level"), 1);
  EXPECT_EQ(report.number("code"), -42);
  EXPECT_EQ(report.text("message"), message);
  EXPECT_EQ(report.text("frame_id"), "base_link");
  EXPECT_EQ(report.text("caller_id"), "round_trip_node");
  EXPECT_GE(report.number("stamp"), before - 1.0);
  EXPECT_LE(report.number("stamp"), after + 1.0);

  // The text form: one line even for a message with a line feed, no colour off a terminal.
  ASSERT_TRUE(text_echo->waitForOutput("\n", kStartTimeout)) << text_echo->errors();
  const std::vector<std::string> lines = linesOf(text_echo->output());
  ASSERT_GE(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      lines.front(),
      std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} WARN  cli/round_trip \[-42\] )"
                 R"(say "hi"\\n\ttab, backslash \\ and )"
                 "\xC3\xBC"
                 R"(  \(from round_trip_node, frame )"
                 R"(base_link\))")))
      << lines.front();
  // Ctrl-C ends a live echo cleanly.
  text_echo->signal(SIGINT);
  EXPECT_EQ(exitStatus(*text_echo), 0) << text_echo->errors();
}

TEST_F(CliDiag, LevelIsANameOrANumberAndNothingElse) {
  const std::vector<std::pair<std::string, int>> spellings = {
      {"ok", 0}, {"warn", 1}, {"error", 2}, {"0", 0}, {"1", 1}, {"2", 2}, {"ERROR", 2}};
  std::vector<std::unique_ptr<ChildProcess>> publishers;
  for (const auto& spelling : spellings) {
    publishers.push_back(startPublisher({"level/" + spelling.first, spelling.first, "0",
                                         "as " + spelling.first, "--linger", "60"}));
  }
  const ToolResult echo =
      run({"diag", "echo", "--once", "--json", "--name", "^level/", "--timeout", "30"});
  EXPECT_EQ(echo.status, 0) << echo.err;
  std::map<std::string, double> levels;
  for (const JsonReport& report : jsonReports(echo.out)) {
    levels[report.text("name")] = report.number("level");
  }
  ASSERT_EQ(levels.size(), spellings.size()) << echo.out;
  for (const auto& spelling : spellings) {
    EXPECT_EQ(levels["level/" + spelling.first], spelling.second) << spelling.first;
  }

  // Anything else is bad usage, refused before the middleware is joined.
  for (const std::string bad : {"3", "-1", "bad", "", "warning", "1.0"}) {
    const ToolResult refused =
        run({"diag", "pub", "level/bad", bad, "0", "never", "--linger", "0"});
    EXPECT_EQ(refused.status, 2) << "\"" << bad << "\"";
    expectOneErrorLine(refused);
    EXPECT_NE(refused.err.find("LEVEL"), std::string::npos) << refused.err;
    EXPECT_EQ(refused.out, "");
  }
  const ToolResult bad_filter = run({"diag", "echo", "--level", "3", "--timeout", "1"});
  EXPECT_EQ(bad_filter.status, 2);
  expectOneErrorLine(bad_filter);
}

TEST_F(CliDiag, LateJoinerGetsTheLatestReportOfEachLiveReporterOnce) {
  // A reporter that has ended leaves no state behind.
  const ToolResult gone =
      run({"diag", "pub", "late/gone", "error", "1", "from an ended process", "--linger", "0"});
  ASSERT_EQ(gone.status, 0) << gone.err;
  auto quiet = startPublisher(
      {"late/quiet", "warn", "5", "published once", "--linger", "60", "--node", "late_quiet"});
  auto busy =
      startPublisher({"late/busy", "ok", "0", "busy", "--rate", "20", "--node", "late_busy"});

  const double joined = wallSeconds();
  const ToolResult echo =
      run({"diag", "echo", "--once", "--json", "--name", "^late/", "--timeout", "30"});
  EXPECT_EQ(echo.status, 0) << echo.err;
  const std::vector<JsonReport> reports = jsonReports(echo.out);
  // One per name, in name order, though the busy reporter sent some sixty meanwhile.
  ASSERT_EQ(namesOf(reports), (std::vector<std::string>{"late/busy", "late/quiet"})) << echo.out;
  EXPECT_EQ(reports[0].text("caller_id"), "late_busy");
  EXPECT_EQ(reports[1].text("caller_id"), "late_quiet");
  EXPECT_EQ(reports[1].number("code"), 5);
  // The quiet one was replayed from before the join; the busy one's is its latest, sent
  // near the end of the 3-s collection, not the first that arrived.
  EXPECT_LT(reports[1].number("stamp"), joined);
  EXPECT_GT(reports[0].number("stamp"), joined + 1.5);

  // Repeating and lingering publishers end cleanly on SIGINT and SIGTERM.
  busy->signal(SIGINT);
  EXPECT_EQ(exitStatus(*busy), 0) << busy->errors();
  EXPECT_GT(linesOf(busy->output()).size(), 20u);
  quiet->signal(SIGTERM);
  EXPECT_EQ(exitStatus(*quiet), 0) << quiet->errors();
  EXPECT_EQ(linesOf(quiet->output()),
            (std::vector<std::string>{"published #1: late/quiet WARN [5] published once"}));
}

TEST_F(CliDiag, FiltersByLevelAndBySearchingTheName) {
  std::vector<std::unique_ptr<ChildProcess>> publishers;
  for (const auto& [name, level] : std::vector<std::pair<std::string, std::string>>{
           {"f/ok", "ok"}, {"f/warn", "warn"}, {"f/error", "error"}, {"g/error", "error"}}) {
    publishers.push_back(startPublisher({name, level, "0", "state", "--linger", "60"}));
  }
  // Side by side: each waits the same 3-s collection.
  auto warn_and_up =
      start({"diag", "echo", "--once", "--json", "--level", "warn", "--timeout", "30"});
  auto f_errors = start(
      {"diag", "echo", "--once", "--json", "--level", "error", "--name", "^f/", "--timeout", "30"});
  auto ending_ok = start({"diag", "echo", "--once", "--json", "--name", "ok$", "--timeout", "30"});
  auto no_match = start({"diag", "echo", "--once", "--json", "--name", "^h/", "--timeout", "30"});

  EXPECT_EQ(exitStatus(*warn_and_up), 0) << warn_and_up->errors();
  EXPECT_EQ(namesOf(jsonReports(warn_and_up->output())),
            (std::vector<std::string>{"f/error", "f/warn", "g/error"}));
  EXPECT_EQ(exitStatus(*f_errors), 0) << f_errors->errors();
  EXPECT_EQ(namesOf(jsonReports(f_errors->output())), (std::vector<std::string>{"f/error"}));
  EXPECT_EQ(exitStatus(*ending_ok), 0) << ending_ok->errors();
  EXPECT_EQ(namesOf(jsonReports(ending_ok->output())), (std::vector<std::string>{"f/ok"}));
  // Reports arrived, but none matched: the answer is no.
  EXPECT_EQ(exitStatus(*no_match), 1) << no_match->errors();
  EXPECT_EQ(no_match->output(), "");
}

TEST_F(CliDiag, AMiddlewareThatCannotStartIsOneErrorLineWithItsReason) {
  // The platform explains the failed start in a trace; the command says it once, on its own
  // line, and the trace does not also reach the screen.
  setenv("DOVA_TRANSPORT", "carrier-pigeon", 1);
  const ToolResult refused = run({"diag", "echo", "--timeout", "1"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err,
            "korcommon: cannot join the middleware: unknown transport \"carrier-pigeon\" "
            "(known: local, dds)\n");
}

TEST_F(CliDiag, NothingArrivingEndsWithStatusOne) {
  auto echo_timeout = start({"diag", "echo", "--timeout", "1"});
  auto echo_once = start({"diag", "echo", "--once", "--timeout", "30"});
  auto log_timeout = start({"log", "echo", "--timeout", "1"});
  for (ChildProcess* child : {echo_timeout.get(), echo_once.get(), log_timeout.get()}) {
    EXPECT_EQ(exitStatus(*child), 1) << child->errors();
    EXPECT_EQ(child->output(), "");
    EXPECT_EQ(child->errors(), "");
  }
}

TEST_F(CliDiag, LogEchoShowsTheRecordsOfATracingProcess) {
  ChildProcess tracer(TRACE_HELPER, {"cli_tracer", "disk /data is 97% full"});
  ASSERT_TRUE(tracer.waitForOutput("traced at line ", kStartTimeout)) << tracer.errors();
  const std::string line = linesOf(tracer.output()).front().substr(std::strlen("traced at line "));
  const std::string pid = std::to_string(tracer.pid());

  // Joining later still shows the node's latest record, as the trace logger's screen line.
  const ToolResult text =
      run({"log", "echo", "--node", "cli_tracer", "--count", "1", "--timeout", "30"});
  EXPECT_EQ(text.status, 0) << text.err;
  ASSERT_EQ(linesOf(text.out).size(), 1u) << text.out;
  EXPECT_TRUE(
      std::regex_match(linesOf(text.out).front(),
                       std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} E/cli_tracer\()" + pid +
                                  R"(/\d+\): cli_trace_helper\.cpp\()" + line +
                                  R"(\) clk\(\d+\.\d+\) disk /data is 97% full)")))
      << text.out;

  const ToolResult json =
      run({"log", "echo", "--json", "--level", "error", "--count", "1", "--timeout", "30"});
  EXPECT_EQ(json.status, 0) << json.err;
  ASSERT_EQ(linesOf(json.out).size(), 1u) << json.out;
  dova::dova_msgs::Log record;
  record.parse(&record, linesOf(json.out).front());
  EXPECT_EQ(record.level, dova::dova_msgs::Log::ERROR);
  EXPECT_EQ(record.name, "cli_tracer");
  EXPECT_EQ(record.msg, "disk /data is 97% full");
  EXPECT_EQ(record.file, "cli_trace_helper.cpp");
  EXPECT_EQ(record.function, "main");
  EXPECT_EQ(std::to_string(record.line), line);
  EXPECT_EQ(std::to_string(record.pid), pid);

  // Filtered out: by level (FATAL only) and by node.
  for (const std::vector<std::string>& filter :
       std::vector<std::vector<std::string>>{{"--level", "fatal"}, {"--node", "another_node"}}) {
    std::vector<std::string> arguments = {"log", "echo", "--timeout", "2"};
    arguments.insert(arguments.end(), filter.begin(), filter.end());
    const ToolResult filtered = run(arguments);
    EXPECT_EQ(filtered.status, 1) << filter.front();
    EXPECT_EQ(filtered.out, "") << filter.front();
  }
  const ToolResult bad_level = run({"log", "echo", "--level", "loud"});
  EXPECT_EQ(bad_level.status, 2);
  expectOneErrorLine(bad_level);

  tracer.signal(SIGTERM);
  EXPECT_EQ(exitStatus(tracer), 0);
}

TEST_F(CliDiag, MonitorShowsEveryReporterWorstFirstAndMarksSilentOnesStale) {
  auto quiet = startPublisher(
      {"mon/quiet", "ok", "12", "published once", "--linger", "60", "--node", "mon_quiet"});
  auto warn =
      startPublisher({"mon/warn", "warn", "3", "still here", "--rate", "10", "--node", "mon_warn"});
  auto fine = startPublisher({"mon/a_fine", "ok", "0", "fine", "--rate", "10", "--node", "mon_ok"});

  const ToolResult monitor =
      run({"diag", "monitor", "--duration", "3", "--refresh", "1", "--stale", "1"});
  EXPECT_EQ(monitor.status, 0) << monitor.err;
  // Off a terminal a new table follows every refresh; the last one shows the end state.
  const size_t last = monitor.out.rfind("diag monitor at ");
  ASSERT_NE(last, std::string::npos) << monitor.out;
  EXPECT_NE(monitor.out.find("diag monitor at "), last) << "expected more than one table";
  std::vector<std::string> table = linesOf(monitor.out.substr(last));
  ASSERT_GE(table.size(), 2u);
  EXPECT_EQ(table[1].rfind("LEVEL  NAME", 0), 0u) << table[1];
  std::vector<std::string> rows;
  for (const std::string& row : table) {
    if (row.find(" mon/") != std::string::npos) rows.push_back(row);
  }
  ASSERT_EQ(rows.size(), 3u) << monitor.out;
  // The silent reporter first, although OK; then WARN before OK, though "a_fine" sorts first.
  const std::regex spaces(" +");
  const auto cells = [&spaces](const std::string& row) {
    return std::string(std::regex_replace(row, spaces, " "));
  };
  EXPECT_TRUE(std::regex_match(
      cells(rows[0]), std::regex(R"(OK mon/quiet 12 published once mon_quiet \S+s stale)")))
      << rows[0];
  EXPECT_TRUE(std::regex_match(cells(rows[1]),
                               std::regex(R"(WARN mon/warn 3 still here mon_warn [0-9.]+s)")))
      << rows[1];
  EXPECT_TRUE(
      std::regex_match(cells(rows[2]), std::regex(R"(OK mon/a_fine 0 fine mon_ok [0-9.]+s)")))
      << rows[2];

  // Without --duration it runs until Ctrl-C.
  auto live = start({"diag", "monitor", "--refresh", "0.2", "--duration", "30"});
  ASSERT_TRUE(live->waitForOutput("mon/warn", kStartTimeout)) << live->errors();
  live->signal(SIGINT);
  EXPECT_EQ(exitStatus(*live), 0) << live->errors();
}

TEST_F(CliDiag, DoctorFailsWithoutASerialNumberAndIsReadyWithOne) {
  KORCOMMON_REQUIRE_PRIVATE_OPT();
  fs::remove_all("/opt/quor");
  const ToolResult bare = run({"doctor", "--wait", "0.5"});
  EXPECT_EQ(bare.status, 1) << bare.out << bare.err;
  EXPECT_TRUE(hasLine(bare.out, "OK    transport: dds, domain " + domain_ +
                                    ", mode 1, loopback only (CYCLONEDDS_URI unset)"))
      << bare.out;
  EXPECT_TRUE(hasLine(bare.out, "WARN  nodes: no other node seen")) << bare.out;
  EXPECT_TRUE(hasLine(bare.out, "FAIL  important data: /opt/quor/imptdata: ")) << bare.out;
  EXPECT_TRUE(hasLine(bare.out, "FAIL  serial number: none stored")) << bare.out;
  EXPECT_NE(bare.out.find("FAIL  serial number: none stored\n      hint: "), std::string::npos);
  EXPECT_EQ(linesOf(bare.out).back(), "not ready (2 failures, 1 warning)");
  EXPECT_FALSE(fs::exists("/opt/quor")) << "a check must not create the store";

  ASSERT_TRUE(korcommon::ImptData::setSN("RB-0042"));
  const std::set<fs::path> stored = listing("/opt/quor/imptdata");
  const std::string sn_file = readFile("/opt/quor/imptdata/sn.yaml");
  auto peer =
      startPublisher({"doctor/peer", "ok", "0", "here", "--linger", "60", "--node", "doctor_peer"});
  const ToolResult ready = run({"doctor", "--wait", "3"});
  EXPECT_EQ(ready.status, 0) << ready.out << ready.err;
  EXPECT_EQ(ready.out.find("FAIL"), std::string::npos) << ready.out;
  // Only the peer is expected, but a test of another program may share the domain.
  EXPECT_TRUE(std::regex_search(
      ready.out, std::regex(R"(\nOK    nodes: \d+ other nodes? seen: .*doctor_peer)")))
      << ready.out;
  EXPECT_TRUE(hasLine(ready.out, "OK    important data: /opt/quor/imptdata readable and writable"))
      << ready.out;
  EXPECT_TRUE(hasLine(ready.out, "OK    serial number: RB-0042")) << ready.out;
  EXPECT_TRUE(hasLine(ready.out, "OK    trace: level 2 (INFO and up, default)")) << ready.out;
  EXPECT_EQ(linesOf(ready.out).back(), "ready");
  // The write probe leaves nothing behind and touches no stored value.
  EXPECT_EQ(listing("/opt/quor/imptdata"), stored);
  EXPECT_EQ(readFile("/opt/quor/imptdata/sn.yaml"), sn_file);

  // Settings that switch trace logging off are a warning, not a failure.
  setenv("DOVA_LOG_LEVEL", "0", 1);
  const ToolResult quiet_logs = run({"doctor", "--wait", "0"});
  unsetenv("DOVA_LOG_LEVEL");
  EXPECT_EQ(quiet_logs.status, 0) << quiet_logs.out;
  EXPECT_TRUE(hasLine(quiet_logs.out, "WARN  trace: DOVA_LOG_LEVEL=\"0\" switches it off"))
      << quiet_logs.out;

  // A store that cannot be written is not ready, though the serial number still reads.
  ASSERT_EQ(mount(nullptr, "/opt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const ToolResult read_only = run({"doctor", "--wait", "0"});
  EXPECT_EQ(read_only.status, 1) << read_only.out;
  EXPECT_TRUE(
      hasLine(read_only.out, "FAIL  important data: /opt/quor/imptdata cannot be written: "))
      << read_only.out;
  EXPECT_TRUE(hasLine(read_only.out, "OK    serial number: RB-0042")) << read_only.out;
}

}  // namespace
