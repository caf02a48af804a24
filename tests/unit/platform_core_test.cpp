#include <gtest/gtest.h>
#include <sched.h>

#include <cmath>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "dova/cpu.h"
#include "dova/guid.h"
#include "dova/time.h"

namespace {

TEST(DovaTime, DifferenceIsNormalised) {
  const dova::Duration forward = dova::Time(10, 200) - dova::Time(8, 900);
  EXPECT_EQ(forward.sec, 1);
  EXPECT_EQ(forward.nsec, 999999300);
  EXPECT_DOUBLE_EQ(forward.toSec(), 1.9999993);

  const dova::Duration backward = dova::Time(8, 900) - dova::Time(10, 200);
  EXPECT_EQ(backward.sec, -2);
  EXPECT_EQ(backward.nsec, 700);
  EXPECT_NEAR(backward.toSec(), -1.9999993, 1e-12);

  // Seconds beyond INT32_MAX apart still subtract through 64 bits.
  const dova::Duration wide = dova::Time(4000000000u, 0) - dova::Time(3999999999u, 5);
  EXPECT_EQ(wide.sec, 0);
  EXPECT_EQ(wide.nsec, 999999995);
}

TEST(DovaTime, ClocksAgreeWithTheSystem) {
  const dova::Time wall = dova::Time::WallTime();
  const double system_now = static_cast<double>(std::time(nullptr));
  EXPECT_NEAR(wall.toSec(), system_now, 2.0);
  EXPECT_LT(wall.nsec, 1000000000u);
  EXPECT_NEAR(dova::Time::now().toSec(), wall.toSec(), 2.0);

  const dova::Time before = dova::Time::monotonic();
  dova::Duration(0, 20000000).wallSleep();
  const double slept = (dova::Time::monotonic() - before).toSec();
  EXPECT_GE(slept, 0.020);
  EXPECT_LT(slept, 2.0);

  const dova::Time start = dova::Time::monotonic();
  dova::Duration(-1, 0).wallSleep();
  EXPECT_LT((dova::Time::monotonic() - start).toSec(), 0.5) << "negative sleeps return at once";
}

TEST(DovaTime, DurationFromSeconds) {
  const dova::Duration d(1.25);
  EXPECT_EQ(d.sec, 1);
  EXPECT_EQ(d.nsec, 250000000);
  const dova::Duration negative(-0.5);
  EXPECT_EQ(negative.sec, -1);
  EXPECT_EQ(negative.nsec, 500000000);
  EXPECT_DOUBLE_EQ(negative.toSec(), -0.5);
}

TEST(DovaGuid, UuidIsRandomVersion4) {
  const std::regex shape("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = dova::guid::uuid();
    ASSERT_EQ(id.size(), 36u);
    ASSERT_TRUE(std::regex_match(id, shape)) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(DovaGuid, Uint32IsNonZeroAndNeverRepeatedAcrossThreads) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 20000;
  std::vector<std::vector<uint32_t>> ids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&ids, t] {
      for (int i = 0; i < kPerThread; ++i) ids[static_cast<size_t>(t)].push_back(dova::guid::uint32());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<uint32_t> unique;
  for (const auto& list : ids) {
    for (uint32_t id : list) {
      EXPECT_NE(id, 0u);
      unique.insert(id);
    }
  }
  EXPECT_EQ(unique.size(), static_cast<size_t>(kThreads * kPerThread));
}

TEST(DovaCpu, PinsTheCallingThreadOnly) {
  cpu_set_t main_before;
  ASSERT_EQ(sched_getaffinity(0, sizeof main_before, &main_before), 0);

  std::thread([] {
    dova::cpu::setaffinity(0);
    cpu_set_t set;
    ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    EXPECT_EQ(CPU_COUNT(&set), 1);
    EXPECT_TRUE(CPU_ISSET(0, &set));
  }).join();

  cpu_set_t main_after;
  ASSERT_EQ(sched_getaffinity(0, sizeof main_after, &main_after), 0);
  EXPECT_TRUE(CPU_EQUAL(&main_before, &main_after));

  EXPECT_THROW(dova::cpu::setaffinity(-1), std::system_error);
  EXPECT_THROW(dova::cpu::setaffinity(100000), std::system_error);
  EXPECT_THROW(dova::cpu::setaffinity(CPU_SETSIZE - 1), std::system_error)
      << "a CPU the machine does not have";
}

}  // namespace
