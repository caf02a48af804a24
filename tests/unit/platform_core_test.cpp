// The platform's lifecycle and small services: init and shutdown, the trace sink, frame
// prefixes, clocks and durations, identifiers, CPUs, paths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dova/cpu.h"
#include "dova/filesystem/filesystem.h"
#include "dova/guid.h"
#include "dova/init.h"
#include "dova/time.h"
#include "private_opt.h"
#include "scoped_env.h"
#include "table_rows.h"
#include "trace_capture.h"

namespace {

namespace dfs = dova::filesystem;
using korcommon::testing::ScopedEnv;
using ::testing::Each;
using ::testing::MatchesRegex;

class DovaInit : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"DOVA_TRANSPORT", "DOVA_MODE", "DOVA_DOMAIN_ID"}) unsetenv(name);
  }
  void TearDown() override {
    dova::setNodeHandle(nullptr);
    dova::shutdown();
  }
};

TEST_F(DovaInit, LifecycleAndTheInstalledHandle) {
  // A handle's running state, the initialised flag and the node's name, as one text.
  const auto state = [](const dova::NodeHandleBase* handle) {
    return std::to_string(handle->ok()) + " " + std::to_string(handle->inited) + " " +
           dova::getNodeName();
  };
  EXPECT_EQ(state(dova::nh()), "0 0 ") << "before init";
  dova::NodeHandleBase stand_in;
  EXPECT_EQ(dova::setNodeHandle(&stand_in), nullptr);
  ASSERT_TRUE(dova::init("walker"));
  EXPECT_EQ(dova::nh(), &stand_in) << "an installed handle wins over the platform's";
  EXPECT_EQ(dova::setNodeHandle(nullptr), &stand_in);
  dova::NodeHandleBase* running = dova::nh();
  EXPECT_EQ(state(running) + " mode " + std::to_string(running->mode), "1 1 walker mode 1");
  dova::shutdown();
  EXPECT_EQ(state(dova::nh()), "0 0 ") << "after shutdown";
  EXPECT_FALSE(running->ok()) << "a kept pointer sees a stopped handle, not freed memory";
}

TEST_F(DovaInit, OptionsComeBeforeTheEnvironmentAndBadOnesAreRefusedAloud) {
  korcommon::testing::TraceCapture capture;
  const auto given = [](const std::string& field) { return field == "-" ? "" : field; };
  for (const auto& row : korcommon::testing::tableRows("platform/init.txt", 9)) {
    SCOPED_TRACE(row[8]);
    const ScopedEnv setting(row[4].c_str(),
                            row[5] == "-" ? std::nullopt : std::optional<std::string>(row[5]));
    const bool accepted = row[6] != "refused";
    capture.clear();
    ASSERT_EQ(dova::init(given(row[0]),
                         dova::Options{given(row[1]), std::stoi(row[2]), true, std::stoi(row[3])}),
              accepted);
    if (accepted) {
      EXPECT_EQ(std::to_string(dova::nh()->mode), row[6]);
      EXPECT_FALSE(dova::init("second")) << "already running";
      EXPECT_EQ(dova::getNodeName(), "n");
      dova::shutdown();
    } else {
      EXPECT_FALSE(dova::nh()->ok()) << "nothing changed";
    }
    // One ERROR from init: the refusal, naming what is wrong, or the second start, the node.
    EXPECT_EQ(capture.reports().size(), 1u);
    EXPECT_EQ(capture.count(dova::ERROR, "init", accepted ? "\"n\"" : row[7]), 1u);
  }
}

// What a frame's prefix names, from every length, is the frame fuzzer's.
TEST(DovaCallerId, NoFrameHasNoName) { EXPECT_EQ(dova::getCallerId(nullptr, 40), ""); }

TEST(DovaTrace, SinkReceivesFormattedTextUntilTheDefaultIsBack) {
  std::vector<korcommon::testing::TraceReport> records;
  EXPECT_FALSE(dova::setTraceSink([&records](int level, const char* file, int line,
                                             const char* function, const std::string& text) {
    records.push_back({level, file, line, function, text});
  })) << "the default sink is reported as empty";
  dova::mtrace(dova::WARN, "a/b/c.cpp", 12, "thread_loop", false, "%s took %.2f ms", "pool", 51.5);
  const std::string long_text(5000, 'z');
  dova::mtrace(dova::DEBUG, "d.cpp", 3, "quiet", false, "%s", long_text.c_str());
  EXPECT_TRUE(dova::setTraceSink(nullptr));
  ::testing::internal::CaptureStderr();
  dova::mtrace(dova::INFO, "dir/file.cpp", 7, "hidden", false, "not shown");
  dova::mtrace(dova::INFO, "dir/file.cpp", 8, "forced", true, "shown %d", 1);
  dova::mtrace(dova::WARN, "dir/file.cpp", 9, "warned", false, "shown %d", 2);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[INFO] forced (file.cpp:8): shown 1\n[WARN] warned (file.cpp:9): shown 2\n")
      << "the default sink: WARN and above, or every level with the flag";
  ASSERT_EQ(records.size(), 2u);
  const auto& first = records[0];
  EXPECT_EQ(std::to_string(first.level) + " " + first.file + ":" + std::to_string(first.line) +
                " " + first.function + " " + first.text,
            "4 a/b/c.cpp:12 thread_loop pool took 51.50 ms");
  EXPECT_EQ(records[1].text, long_text) << "long texts are not cut";
}

TEST(DovaTime, DifferencesAreNormalisedAndClocksAgreeWithTheSystem) {
  const auto text = [](const dova::Duration& d) {
    return std::to_string(d.sec) + "." + std::to_string(d.nsec);
  };
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
  EXPECT_THAT(slept, ::testing::AllOf(::testing::Ge(0.020), ::testing::Lt(0.5)));
}

TEST(DovaGuid, UuidsAreRandomVersion4AndIdsNeverRepeat) {
  std::set<std::string> uuids;
  for (int i = 0; i < 1000; ++i) uuids.insert(dova::guid::uuid());
  EXPECT_EQ(uuids.size(), 1000u);
  EXPECT_THAT(uuids, Each(MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-"
                                       "[0-9a-f]{12}")));
  std::vector<std::vector<uint32_t>> ids(4, std::vector<uint32_t>(20000));
  std::vector<std::thread> threads;
  for (auto& list : ids) {
    threads.emplace_back([&list] { std::generate(list.begin(), list.end(), dova::guid::uint32); });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<uint32_t> unique = {0};
  for (const auto& list : ids) unique.insert(list.begin(), list.end());
  EXPECT_EQ(unique.size(), 80001u) << "80000 different ids, none of them 0";
}

TEST(DovaCpu, RefusesCpusThatCannotBeUsed) {
  // Pinning itself is seen through the pool's workers, which pin with it.
  for (const int cpu : {-1, 100000, CPU_SETSIZE - 1}) {
    EXPECT_THROW(dova::cpu::setaffinity(cpu), std::system_error) << cpu;
  }
}

TEST(DovaFilesystem, PathsErrorsAndDirectories) {
  EXPECT_EQ(dfs::path("/opt//quor///imptdata/").string(), "/opt/quor/imptdata/");
  EXPECT_EQ(dfs::path("//").string() + dfs::path(static_cast<const char*>(nullptr)).string(), "/");
  EXPECT_EQ(dfs::path("/a//b").filename().string() + dfs::path("dir/").filename().string(), "b");
  EXPECT_EQ(dfs::path("/opt/quor/x.yaml").parent_path().string(), "/opt/quor");

  // The error's text with a path is seen through the important-data store.
  const std::error_code code(EACCES, std::generic_category());
  EXPECT_STREQ(dfs::filesystem_error("no such thing", code).what(), "no such thing");
  EXPECT_EQ(dfs::filesystem_error("x", dfs::path("/opt//x/"), code).path1().string(), "/opt/x/");

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
