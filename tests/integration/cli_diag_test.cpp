// The live commands of the korcommon tool (diag, log, doctor), with real processes on DDS
// over loopback in a domain of this test process's own; the command lines and answers of
// tests/data/cli/diag.json.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "cli_rows.h"
#include "dds_domain.h"
#include "dova/json/reader.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/time.h"
#include "korcommon/ImptData.h"
#include "private_opt.h"
#include "read_file.h"

namespace {

namespace fs = std::filesystem;
using korcommon::testing::ChildProcess;
using korcommon::testing::expectRows;
using korcommon::testing::rowsOf;
using korcommon::testing::runTool;
using korcommon::testing::ToolResult;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The lines of "diag echo --json", read with the project's JSON reader.
std::vector<dova::json::Object> jsonLines(const std::string& text) {
  std::vector<dova::json::Object> objects;
  for (const std::string& line : linesOf(text)) {
    std::istringstream stream(line);
    dova::json::Reader::Read(objects.emplace_back(), stream);
  }
  return objects;
}
std::string text(const dova::json::Object& report, const char* name) {
  return dova::json::String(report[name]).Value();
}
double number(const dova::json::Object& report, const char* name) {
  return dova::json::Number(report[name]).Value();
}
std::vector<std::string> namesOf(const std::string& json_lines) {
  std::vector<std::string> names;
  for (const auto& report : jsonLines(json_lines)) names.push_back(text(report, "name"));
  return names;
}

class CliDiag : public ::testing::Test {
 protected:
  void SetUp() override {
    // The commands' defaults (dds, mode 1, trace settings as shipped), whatever the caller's.
    for (const char* name : {"DOVA_TRANSPORT", "DOVA_MODE", "DOVA_LOG_LEVEL", "DOVA_LOG_SIZE",
                             "DOVA_LOG_SCREEN", "DOVA_SCHED_CPU", "NO_COLOR"}) {
      unsetenv(name);
    }
    domain_ = korcommon::testing::claimDdsDomain();
  }
  void TearDown() override {
    if (korcommon::testing::hasPrivateOpt()) mount(nullptr, "/opt", nullptr, MS_REMOUNT, nullptr);
  }

  static std::unique_ptr<ChildProcess> start(const std::vector<std::string>& arguments) {
    return std::make_unique<ChildProcess>(KORCOMMON_CLI, arguments);
  }
  // "diag pub ARGUMENTS --verbose" in the background, once its first report is out.
  static std::unique_ptr<ChildProcess> publisher(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"diag", "pub"});
    arguments.push_back("--verbose");
    auto child = start(arguments);
    EXPECT_TRUE(child->waitForOutput("published #1:")) << child->errors();
    return child;
  }

  std::string domain_;
};

TEST_F(CliDiag, PublishArgumentsAndUsage) {
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "usage"));
  setenv("DOVA_TRANSPORT", "carrier-pigeon", 1);
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "no middleware"));
}

TEST_F(CliDiag, EchoArgumentsAndUsage) {
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "echo usage", {{"DOMAIN", domain_}}));
}

TEST_F(CliDiag, MonitorArgumentsAndUsage) {
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "monitor usage", {{"DOMAIN", domain_}}));
}

TEST_F(CliDiag, LogEchoArgumentsAndUsage) {
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "log echo usage", {{"DOMAIN", domain_}}));
}

TEST_F(CliDiag, NodesArgumentsAndUsage) {
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "nodes usage", {{"DOMAIN", domain_}}));
}

TEST_F(CliDiag, ReportReachesEchoesInAnotherProcessMemberByMember) {
  const std::string message = "say \"hi\"\n\ttab, backslash \\ and \xC3\xBC";
  const double before = dova::Time::now().toSec();
  // Started first; the publisher's linger covers the echoes' discovery.
  auto json_echo = start(
      {"diag", "echo", "--json", "--name", "^round_trip$", "--count", "1", "--timeout", "30"});
  auto text_echo = start({"diag", "echo", "--name", "^round_trip$", "--timeout", "30"});
  EXPECT_EQ(runTool(KORCOMMON_CLI,
                    {"diag", "pub", "round_trip", "warn", "-42", message, "--frame", "base_link",
                     "--count", "3", "--rate", "10", "--linger", "3", "--node", "round_trip_node"})
                .status,
            0);
  ASSERT_EQ(json_echo->wait(), 0) << json_echo->errors();
  const std::vector<dova::json::Object> reports = jsonLines(json_echo->output());
  ASSERT_EQ(reports.size(), 1u) << json_echo->output();
  std::vector<std::string> members;
  for (const auto& member : reports[0]) members.push_back(member.name);
  EXPECT_EQ(members, (std::vector<std::string>{"name", "level", "code", "message", "frame_id",
                                               "stamp", "caller_id"}));
  EXPECT_EQ(number(reports[0], "level"), 1);
  EXPECT_EQ(number(reports[0], "code"), -42);
  EXPECT_EQ(text(reports[0], "message"), message);
  EXPECT_EQ(text(reports[0], "frame_id"), "base_link");
  EXPECT_EQ(text(reports[0], "caller_id"), "round_trip_node");
  EXPECT_GE(number(reports[0], "stamp"), before - 1.0);
  EXPECT_LE(number(reports[0], "stamp"), dova::Time::now().toSec() + 1.0);
  // The text form: one line even for a message with a line feed, no colour off a terminal.
  ASSERT_TRUE(text_echo->waitForOutput("\n")) << text_echo->errors();
  EXPECT_TRUE(std::regex_match(
      linesOf(text_echo->output()).front(),
      std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} WARN  round_trip \[-42\] say "hi"\\n\t)"
                 R"(tab, backslash \\ and )"
                 "\xC3\xBC"
                 R"(  \(from round_trip_node, frame )"
                 R"(base_link\))")))
      << text_echo->output();
  text_echo->signal(SIGINT);  // Ctrl-C ends a live echo cleanly
  EXPECT_EQ(text_echo->wait(), 0) << text_echo->errors();
}

TEST_F(CliDiag, LateJoinersGetTheLatestStateOfLiveReportersFilteredAndInOrder) {
  // A reporter that has ended leaves no state behind.
  EXPECT_EQ(runTool(KORCOMMON_CLI, {"diag", "pub", "s/gone", "error", "1", "gone", "--linger", "0"})
                .status,
            0);
  auto quiet = publisher(
      {"s/quiet", "ok", "12", "published once", "--linger", "60", "--node", "quiet_node"});
  auto error = publisher({"t/error", "error", "2", "broken", "--linger", "60"});
  auto warn =
      publisher({"s/warn", "warn", "3", "still here", "--rate", "10", "--node", "warn_node"});
  auto fine = publisher({"s/a_fine", "ok", "0", "fine", "--rate", "20", "--node", "fine_node"});

  // Side by side, each waiting out the same 3-s collection.
  const double joined = dova::Time::now().toSec();
  auto all_s = start({"diag", "echo", "--once", "--json", "--name", "^s/"});
  // The filters, the answers when nothing comes, the other forms of output; checked after
  // all_s, which they keep company.
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "late joiners", {{"DOMAIN", domain_}}), true);

  // One report per name, in name order, the latest, though the busy ones sent dozens.
  ASSERT_EQ(all_s->wait(), 0) << all_s->errors();
  const std::vector<dova::json::Object> reports = jsonLines(all_s->output());
  ASSERT_EQ(namesOf(all_s->output()), (std::vector<std::string>{"s/a_fine", "s/quiet", "s/warn"}));
  EXPECT_EQ(text(reports[0], "caller_id"), "fine_node");
  EXPECT_GT(number(reports[0], "stamp"), joined + 1.5) << "the last one of the collection";
  EXPECT_EQ(text(reports[1], "caller_id"), "quiet_node");
  EXPECT_EQ(number(reports[1], "code"), 12);
  EXPECT_LT(number(reports[1], "stamp"), joined) << "replayed from before the join";
  // Without --duration the monitor runs until Ctrl-C; publishers end on SIGINT and SIGTERM.
  auto live = start({"diag", "monitor", "--refresh", "0.2"});
  ASSERT_TRUE(live->waitForOutput("s/warn")) << live->errors();
  live->signal(SIGINT);
  EXPECT_EQ(live->wait(), 0) << live->errors();
  warn->signal(SIGINT);
  EXPECT_EQ(warn->wait(), 0) << warn->errors();
  EXPECT_GT(linesOf(warn->output()).size(), 20u);
  quiet->signal(SIGTERM);
  EXPECT_EQ(quiet->wait(), 0) << quiet->errors();
  EXPECT_EQ(quiet->output(), "published #1: s/quiet OK [12] published once\n");
}

TEST_F(CliDiag, LogEchoShowsTheRecordsOfATracingProcess) {
  ChildProcess tracer(DDS_PROBE, {"trace", "cli_tracer", "disk /data: 97% full, \"low\""});
  ASSERT_TRUE(tracer.waitForOutput("traced at line ")) << tracer.errors();
  const std::string line = linesOf(tracer.output()).front().substr(15);
  const std::string pid = std::to_string(tracer.pid());
  // Joining later still shows the node's latest record, as the trace logger's screen line.
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "log echo", {{"PID", pid}, {"LINE", line}}));
  const ToolResult json =
      runTool(KORCOMMON_CLI, {"log", "echo", "--json", "--level", "error", "--count", "1"});
  EXPECT_EQ(json.status, 0) << json.err;
  dova::dova_msgs::Log record;
  record.parse(&record, json.out);
  EXPECT_EQ(record.level, dova::dova_msgs::Log::ERROR);
  EXPECT_EQ(record.name, "cli_tracer");
  EXPECT_EQ(record.msg, "disk /data: 97% full, \"low\"");
  EXPECT_EQ(record.file, "dds_probe.cpp");
  EXPECT_EQ(record.function, "main");
  EXPECT_EQ(std::to_string(record.line), line);
  EXPECT_EQ(std::to_string(record.pid), pid);
  tracer.signal(SIGTERM);
  EXPECT_EQ(tracer.wait(), 0);
}

TEST_F(CliDiag, DoctorFailsWithoutASerialNumberAndIsReadyWithOne) {
  KORCOMMON_REQUIRE_PRIVATE_OPT();
  fs::remove_all("/opt/quor");
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "doctor bare", {{"DOMAIN", domain_}}));
  EXPECT_FALSE(fs::exists("/opt/quor")) << "a check must not create the store";

  ASSERT_TRUE(korcommon::ImptData::setSN("RB-0042"));
  auto peer =
      publisher({"doctor/peer", "ok", "0", "here", "--linger", "60", "--node", "doctor_peer"});
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "doctor ready", {{"DOMAIN", domain_}}));
  // The write probe leaves nothing behind and touches no stored value.
  EXPECT_EQ(std::distance(fs::directory_iterator("/opt/quor/imptdata"), {}), 1);
  EXPECT_EQ(korcommon::ImptData::getSN(), "RB-0042");

  peer.reset();
  setenv("DOVA_LOG_LEVEL", "0", 1);
  ASSERT_EQ(mount(nullptr, "/opt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "doctor read-only", {{"DOMAIN", domain_}}));
}

}  // namespace
