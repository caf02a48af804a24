// The simulated robot's monitor process, on DDS over loopback in a domain of its own.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "child_process.h"
#include "dds_domain.h"

namespace {

using korcommon::testing::ChildProcess;
using namespace std::chrono_literals;

TEST(ExampleMonitor, PrintsTheStartUpStateOfReportersHeardLateInTheRun) {
  setenv("DOVA_TRANSPORT", "dds", 1);
  korcommon::testing::claimDdsDomain();  // and loopback only
  ChildProcess reporter(KORCOMMON_CLI, {"diag", "pub", "late/knee", "warn", "7", "hot", "--rate",
                                        "5", "--verbose", "--node", "late_knee"});
  ASSERT_TRUE(reporter.waitForOutput("published #1:", 20s)) << reporter.errors();

  // A run that began 8 s ago ends 2 s from now, before the batch of the reports the monitor
  // first hears (due 3 s after the first of them) is handed over.
  const auto run_start = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::system_clock::now().time_since_epoch()) -
                         8s;
  ChildProcess monitor(SIMULATED_ROBOT, {"monitor", std::to_string(run_start.count())});
  EXPECT_EQ(monitor.wait(30s), 0) << monitor.errors();
  const std::string output = monitor.output();
  EXPECT_NE(output.find("monitor: start-up state"), std::string::npos) << output;
  EXPECT_NE(output.find("WARN  late/knee"), std::string::npos) << output;
  EXPECT_NE(output.find("(from late_knee)\n"), std::string::npos) << output;

  reporter.signal(SIGINT);
  EXPECT_EQ(reporter.wait(30s), 0) << reporter.errors();
}

}  // namespace
