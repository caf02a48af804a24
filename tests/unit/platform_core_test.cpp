// The platform's small services: clocks and durations, identifiers, CPU affinity, paths.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "dova/cpu.h"
#include "dova/filesystem/filesystem.h"
#include "dova/guid.h"
#include "dova/time.h"
#include "private_opt.h"

namespace {

namespace dfs = dova::filesystem;

std::string text(const dova::Duration& duration) {
  return std::to_string(duration.sec) + "." + std::to_string(duration.nsec);
}

TEST(DovaTime, DifferencesAreNormalisedAndClocksAgreeWithTheSystem) {
  EXPECT_EQ(text(dova::Time(10, 200) - dova::Time(8, 900)), "1.999999300");
  EXPECT_EQ(text(dova::Time(8, 900) - dova::Time(10, 200)), "-2.700");
  // Seconds beyond INT32_MAX apart still subtract through 64 bits.
  EXPECT_EQ(text(dova::Time(4000000000u, 0) - dova::Time(3999999999u, 5)), "0.999999995");
  EXPECT_EQ(text(dova::Duration(-0.5)), "-1.500000000");
  EXPECT_DOUBLE_EQ(dova::Duration(1.25).toSec(), 1.25);

  const dova::Time wall = dova::Time::WallTime();
  EXPECT_NEAR(wall.toSec(), static_cast<double>(std::time(nullptr)), 2.0);
  EXPECT_NEAR(dova::Time::now().toSec(), wall.toSec(), 2.0);
  const dova::Time before = dova::Time::monotonic();
  dova::Duration(0, 20000000).wallSleep();
  dova::Duration(-1, 0).wallSleep();  // returns at once
  const double slept = (dova::Time::monotonic() - before).toSec();
  EXPECT_GE(slept, 0.020);
  EXPECT_LT(slept, 0.5);
}

TEST(DovaGuid, UuidsAreRandomVersion4AndIdsNeverRepeat) {
  std::set<std::string> uuids;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = dova::guid::uuid();
    std::string shape = id;
    for (char& c : shape) c = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ? 'x' : c;
    shape[14] = id[14];
    shape[19] = std::string("89ab").find(id[19]) != std::string::npos ? 'v' : id[19];
    ASSERT_EQ(shape, "xxxxxxxx-xxxx-4xxx-vxxx-xxxxxxxxxxxx") << id;
    uuids.insert(id);
  }
  EXPECT_EQ(uuids.size(), 1000u);

  std::vector<std::vector<uint32_t>> ids(4);
  std::vector<std::thread> threads;
  for (auto& list : ids) {
    threads.emplace_back([&list] {
      for (int i = 0; i < 20000; ++i) list.push_back(dova::guid::uint32());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<uint32_t> unique;
  for (const auto& list : ids) unique.insert(list.begin(), list.end());
  EXPECT_EQ(unique.size(), 80000u);
  EXPECT_EQ(unique.count(0), 0u);
}

TEST(DovaCpu, PinsTheCallingThreadOnly) {
  cpu_set_t main_before;
  ASSERT_EQ(sched_getaffinity(0, sizeof main_before, &main_before), 0);
  std::thread([] {
    dova::cpu::setaffinity(0);
    cpu_set_t set;
    ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    EXPECT_TRUE(CPU_COUNT(&set) == 1 && CPU_ISSET(0, &set));
  }).join();
  cpu_set_t main_after;
  ASSERT_EQ(sched_getaffinity(0, sizeof main_after, &main_after), 0);
  EXPECT_TRUE(CPU_EQUAL(&main_before, &main_after));
  for (const int cpu : {-1, 100000, CPU_SETSIZE - 1}) {
    EXPECT_THROW(dova::cpu::setaffinity(cpu), std::system_error) << cpu;
  }
}

TEST(DovaFilesystem, PathsErrorsAndDirectories) {
  EXPECT_EQ(dfs::path("/opt//quor///imptdata/").string(), "/opt/quor/imptdata/");
  EXPECT_EQ(dfs::path("//").string() + dfs::path(static_cast<const char*>(nullptr)).string(), "/");
  EXPECT_EQ(dfs::path("/a//b").filename().string(), "b");
  EXPECT_EQ(dfs::path("dir/").filename().string(), "");
  EXPECT_EQ(dfs::path("/opt/quor/x.yaml").parent_path().string(), "/opt/quor");

  const std::error_code code(EACCES, std::generic_category());
  const dfs::filesystem_error with_path(dfs::errorText(EACCES), dfs::path("/opt//x/"), code);
  const std::system_error& as_system_error = with_path;
  EXPECT_EQ(std::string(as_system_error.what()),
            std::string(std::strerror(EACCES)) + ": '/opt/x/'");
  EXPECT_EQ(with_path.code(), code);
  EXPECT_STREQ(dfs::filesystem_error("no such thing", code).what(), "no such thing");

  KORCOMMON_REQUIRE_PRIVATE_OPT();
  const mode_t previous = umask(022);
  std::error_code error;
  EXPECT_TRUE(dfs::create_directories(dfs::path("/opt/fs_test//a/b/c/"), error));
  struct stat status {};
  ASSERT_EQ(stat("/opt/fs_test/a/b", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_FALSE(dfs::create_directories(dfs::path("/opt/fs_test/a/b/c"), error) || error)
      << "an existing directory is nothing new and no error";
  std::ofstream("/opt/fs_test/file") << "x";
  EXPECT_FALSE(dfs::create_directories(dfs::path("/opt/fs_test/file/sub"), error));
  EXPECT_TRUE(error);
  EXPECT_THROW(dfs::create_directories(dfs::path("/opt/fs_test/file/sub")), dfs::filesystem_error);
  umask(previous);
}

}  // namespace
