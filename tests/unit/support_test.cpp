// The test support code that keeps tests running side by side apart and ends hung programs.
#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "dds_domain.h"
#include "scratch_directory.h"
#include "tool_runner.h"

namespace {

using korcommon::testing::ChildProcess;
using korcommon::testing::ScratchDirectory;
using korcommon::testing::ToolResult;
using namespace std::chrono_literals;

// The domain a "support_child claim" reports once it holds it; checks that the child's
// DOVA_DOMAIN_ID says the same.
std::string claimedBy(const ChildProcess& child) {
  EXPECT_TRUE(child.waitForOutput("\n", 10s)) << child.errors();
  std::istringstream words(child.output());
  std::string domain;
  std::string variable;
  words >> domain >> variable;
  EXPECT_EQ(variable, "DOVA_DOMAIN_ID=" + domain);
  return domain;
}

TEST(DdsDomain, ClaimsAreExclusiveUntilTheirHolderEnds) {
  // The lock files of a directory of this test's own, so that neither the claims of test
  // processes running meanwhile nor these get in each other's way.
  const ScratchDirectory locks("korcommon_domains");
  ASSERT_FALSE(locks.path().empty());
  const std::map<std::string, std::string> environment = {{"TMPDIR", locks.path().string()}};

  // Started together, both try the lowest id first; one of them must move on.
  ChildProcess first(SUPPORT_CHILD, {"claim"}, environment);
  ChildProcess second(SUPPORT_CHILD, {"claim"}, environment);
  const std::string first_domain = claimedBy(first);
  const std::string second_domain = claimedBy(second);
  EXPECT_EQ((std::set<std::string>{first_domain, second_domain}),
            (std::set<std::string>{"1", "2"}));

  // A holder killed without any chance to clean up gives its id back; the other keeps its own.
  first.signal(SIGKILL);
  first.wait(10s);
  ASSERT_TRUE(first.ended());
  ChildProcess third(SUPPORT_CHILD, {"claim"}, environment);
  EXPECT_EQ(claimedBy(third), first_domain);

  // With every id held, a claim fails at once and says why.
  std::vector<int> held;
  for (int domain = korcommon::testing::kFirstTestDomain;
       domain <= korcommon::testing::kLastTestDomain; ++domain) {
    const std::string path =
        (locks.path() / korcommon::testing::ddsDomainLockName(domain)).string();
    const int descriptor = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_GE(descriptor, 0) << path;
    // The two that the children hold refuse; they are taken all the same.
    if (descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0) held.push_back(descriptor);
  }
  EXPECT_EQ(held.size(), static_cast<size_t>(korcommon::testing::kLastTestDomain -
                                             korcommon::testing::kFirstTestDomain - 1));
  ChildProcess refused(SUPPORT_CHILD, {"claim"}, environment);
  EXPECT_EQ(refused.wait(10s), 1) << refused.output();
  EXPECT_NE(refused.errors().find("no free DDS domain"), std::string::npos) << refused.errors();
  EXPECT_EQ(refused.output(), "");
  for (const int descriptor : held) close(descriptor);
}

TEST(ToolRunner, KillsAProgramStillRunningAtItsTimeout) {
  const korcommon::testing::ToolRunner runner(SUPPORT_CHILD);
  const auto started = std::chrono::steady_clock::now();
  ToolResult hung;
  EXPECT_NONFATAL_FAILURE(hung = runner.run({"hang"}, "", 300ms), "timed out: ");
  EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
  EXPECT_TRUE(hung.timed_out);
  EXPECT_EQ(hung.status, -1);
  EXPECT_EQ(hung.out, "hanging\n") << "what it printed before the kill";

  // A program that ends in time reports its status and nothing else.
  const ToolResult ended = runner.run({"unknown"}, "", 300ms);
  EXPECT_FALSE(ended.timed_out);
  EXPECT_EQ(ended.status, 2);
}

}  // namespace
