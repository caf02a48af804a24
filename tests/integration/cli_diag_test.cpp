// The live commands of the korcommon tool (diag, log, doctor, web), with real processes on DDS
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
#include <string>
#include <vector>

#include "child_process.h"
#include "cli_rows.h"
#include "dds_domain.h"
#include "dova/time.h"
#include "korcommon/ImptData.h"
#include "private_opt.h"

namespace {

namespace fs = std::filesystem;
using korcommon::testing::ChildProcess;
using korcommon::testing::expectRows;
using korcommon::testing::rowsOf;
using namespace std::chrono_literals;

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

TEST_F(CliDiag, ArgumentsAndUsageOfEveryCommandAndAReportMemberByMember) {
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "usage", {{"DOMAIN", domain_}}));
  // A report reaches echoes in another process.
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "round trip"), true);
  setenv("DOVA_TRANSPORT", "carrier-pigeon", 1);
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "no middleware"));
}

TEST_F(CliDiag, LateJoinersGetTheLatestStateOfLiveReportersFilteredAndInOrder) {
  // A reporter that has ended leaves no state behind.
  EXPECT_EQ(start({"diag", "pub", "s/gone", "error", "1", "gone", "--linger", "0"})->wait(), 0);
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
  const std::string reports = all_s->output();
  std::smatch stamps;
  ASSERT_TRUE(std::regex_match(
      reports, stamps,
      std::regex(R"(\{"name":"s/a_fine","level":0,"code":0,"message":"fine","frame_id":"",)"
                 R"("stamp":([0-9.]+),"caller_id":"fine_node"\}\n)"
                 R"(\{"name":"s/quiet","level":0,"code":12,"message":"published once",)"
                 R"("frame_id":"","stamp":([0-9.]+),"caller_id":"quiet_node"\}\n)"
                 R"(\{"name":"s/warn",.*"caller_id":"warn_node"\}\n)")))
      << reports;
  EXPECT_GT(std::stod(stamps[1]), joined + 1.5) << "the last one of the collection";
  EXPECT_LT(std::stod(stamps[2]), joined) << "replayed from before the join";
  // Without --duration the monitor runs until Ctrl-C; publishers end on SIGINT and SIGTERM.
  auto live = start({"diag", "monitor", "--refresh", "0.2"});
  ASSERT_TRUE(live->waitForOutput("s/warn")) << live->errors();
  for (const auto& [child, number] :
       {std::pair{live.get(), SIGINT}, {warn.get(), SIGINT}, {quiet.get(), SIGTERM}}) {
    child->signal(number);
    EXPECT_EQ(child->wait(), 0) << child->errors();
  }
  EXPECT_NE(warn->output().find("\npublished #21: s/warn"), std::string::npos) << "every 0.1 s";
  EXPECT_EQ(quiet->output(), "published #1: s/quiet OK [12] published once\n");
}

TEST_F(CliDiag, LogEchoShowsTheRecordsOfATracingProcess) {
  ChildProcess tracer(DDS_PROBE, {"trace", "cli_tracer", "disk /data: 97% full, \"low\""});
  ASSERT_TRUE(tracer.waitForOutput("traced at line ")) << tracer.errors();
  const std::string traced = tracer.output();
  const std::string line = traced.substr(15, traced.find('\n') - 15);
  // Joining later still shows the node's latest record, as the trace logger's screen line.
  expectRows(KORCOMMON_CLI, rowsOf("diag.json", "log echo",
                                   {{"PID", std::to_string(tracer.pid())}, {"LINE", line}}));
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

// The dashboard in a real browser: "korcommon web" fed by publishers, its page driven in
// headless Chromium by web_page_check.mjs. Skipped, with the reason, where Node.js, Chromium or
// puppeteer-core cannot be had.
TEST_F(CliDiag, WebPageShowsTheRobotInOrderLiveAndAsText) {
  if (!*NODE || !*CHROMIUM) GTEST_SKIP() << "Node.js or Chromium is not installed";
  // The robot is up before the dashboard, whose page must show its latched state at once.
  auto battery = publisher({"beta/battery", "error", "2", "12 % left", "--rate", "5"});
  auto motor =
      publisher({"zeta/motor", "warn", "1", "<img src=x onerror=alert(1)>", "--rate", "5"});
  // Two reports, then silence while it stays alive: it turns stale on the page.
  auto imu = publisher(
      {"alpha/imu", "ok", "0", "calibrated", "--rate", "2", "--count", "2", "--linger", "60"});
  auto web = start({"web", "--port", "0", "--stale", "3", "--duration", "120"});
  ASSERT_TRUE(web->waitForOutput("(Ctrl-C stops)", 20s)) << web->errors();
  std::smatch url;
  const std::string announced = web->output();
  ASSERT_TRUE(std::regex_search(announced, url, std::regex(R"(http://127\.0\.0\.1:\d+/)")))
      << announced;

  ChildProcess page(NODE, {WEB_PAGE_CHECK, CHROMIUM, url.str()});
  if (!page.waitForOutput("ready for the live report", 90s) && page.wait(1s) == 77) {
    GTEST_SKIP() << page.output();
  }
  ASSERT_FALSE(page.ended()) << page.output() << page.errors();
  auto live = publisher({"gamma/live", "error", "9", "went live", "--rate", "5"});
  EXPECT_EQ(page.wait(90s), 0) << page.output() << page.errors();
  web->signal(SIGINT);  // Ctrl-C
  EXPECT_EQ(web->wait(20s), 0) << web->errors();
}

}  // namespace
