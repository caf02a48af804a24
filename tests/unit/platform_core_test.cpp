#include <gtest/gtest.h>
#include <sched.h>

#include <cmath>
#include <cstdlib>
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

// True for the 36-character lowercase form of a random (version 4, RFC 4122 variant) UUID.
bool isVersion4Uuid(const std::string& id) {
  if (id.size() != 36) return false;
  for (size_t i = 0; i < id.size(); ++i) {
    const bool dash_position = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = id[i];
    if (dash_position != (c == '-')) return false;
    if (!dash_position && !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return id[14] == '4' && std::string("89ab").find(id[19]) != std::string::npos;
}

TEST(DovaGuid, UuidIsRandomVersion4) {
  EXPECT_FALSE(isVersion4Uuid("0b5c2c7e-6a0e-1bde-9a53-7c1a52f3c2d1")) << "version 1";
  EXPECT_FALSE(isVersion4Uuid("0B5C2C7E-6A0E-4BDE-9A53-7C1A52F3C2D1")) << "uppercase";
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = dova::guid::uuid();
    ASSERT_TRUE(isVersion4Uuid(id)) << id;
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
      for (int i = 0; i < kPerThread; ++i)
        ids[static_cast<size_t>(t)].push_back(dova::guid::uint32());
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
