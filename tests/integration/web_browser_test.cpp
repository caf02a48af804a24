// The dashboard in a real browser: "korcommon web" and publishers as processes on DDS over
// loopback, the page driven in headless Chromium by web_page_check.mjs. Skipped, with the
// reason, where Node.js, Chromium or puppeteer-core cannot be had.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "child_process.h"
#include "dds_domain.h"

namespace {

using korcommon::testing::ChildProcess;
using namespace std::chrono_literals;

std::unique_ptr<ChildProcess> publish(const std::vector<std::string>& report,
                                      const std::vector<std::string>& options) {
  std::vector<std::string> arguments = {"diag", "pub"};
  arguments.insert(arguments.end(), report.begin(), report.end());
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.push_back("--verbose");
  auto child = std::make_unique<ChildProcess>(KORCOMMON_CLI, arguments);
  EXPECT_TRUE(child->waitForOutput("published #1:", 20s)) << child->errors();
  return child;
}

TEST(WebBrowser, PageShowsTheRobotInOrderLiveAndAsText) {
  if (std::string(NODE).empty()) GTEST_SKIP() << "Node.js is not installed";
  if (std::string(CHROMIUM).empty()) GTEST_SKIP() << "Chromium is not installed";
  unsetenv("CYCLONEDDS_URI");  // the platform keeps Cyclone on loopback only without it
  setenv("DOVA_TRANSPORT", "dds", 1);
  korcommon::testing::claimDdsDomain();

  // The robot is up before the dashboard, whose page must show its latched state at once.
  const std::vector<std::string> steady = {"--rate", "5"};
  auto battery = publish({"beta/battery", "error", "2", "12 % left"}, steady);
  auto motor = publish({"zeta/motor", "warn", "1", "<img src=x onerror=alert(1)>"}, steady);
  // Two reports, then silence while it stays alive: it turns stale on the page.
  auto imu = publish({"alpha/imu", "ok", "0", "calibrated"},
                     {"--rate", "2", "--count", "2", "--linger", "60"});

  ChildProcess web(KORCOMMON_CLI, {"web", "--port", "0", "--stale", "3", "--duration", "120"});
  ASSERT_TRUE(web.waitForOutput("(Ctrl-C stops)", 20s)) << web.errors();
  std::smatch url;
  const std::string announced = web.output();
  ASSERT_TRUE(std::regex_search(announced, url, std::regex(R"(http://127\.0\.0\.1:\d+/)")))
      << announced;

  ChildProcess page(NODE, {WEB_PAGE_CHECK, CHROMIUM, url.str()});
  int status = -1;
  const auto deadline = std::chrono::steady_clock::now() + 90s;
  while (page.output().find("ready for the live report") == std::string::npos && !page.ended() &&
         std::chrono::steady_clock::now() < deadline) {
    status = page.wait(200ms);
  }
  if (status == 77) GTEST_SKIP() << page.output();
  ASSERT_FALSE(page.ended()) << page.output() << page.errors();
  auto live = publish({"gamma/live", "error", "9", "went live"}, steady);
  EXPECT_EQ(page.wait(90s), 0) << page.output() << page.errors();

  web.signal(SIGINT);  // Ctrl-C
  EXPECT_EQ(web.wait(20s), 0) << web.errors();
}

}  // namespace
