// The platform's lifecycle and small services: init and shutdown, the trace sink, frame
// prefixes, clocks and durations, identifiers, CPUs, paths.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
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
  const korcommon::testing::TraceCapture capture;
  const auto given = [](const std::string& field) { return field == "-" ? "" : field; };
  for (const auto& row : korcommon::testing::tableRows("platform/init.txt", 8)) {
    SCOPED_TRACE(row[7]);
    const std::string variable = row[4] == "-" ? "DOVA_MODE" : row[4].substr(0, row[4].find('='));
    const ScopedEnv setting(variable.c_str(),
                            row[4] == "-"
                                ? std::nullopt
                                : std::optional<std::string>(row[4].substr(variable.size() + 1)));
    const bool accepted = row[5] != "refused";
    const size_t traces = capture.reports().size();
    ASSERT_EQ(dova::init(given(row[0]),
                         dova::Options{given(row[1]), std::stoi(row[2]), true, std::stoi(row[3])}),
              accepted);
    if (accepted) {
      EXPECT_EQ(std::to_string(dova::nh()->mode), row[5]);
      EXPECT_FALSE(dova::init("second")) << "already running";
      EXPECT_EQ(dova::getNodeName(), "n");
      dova::shutdown();
    } else {
      EXPECT_FALSE(dova::nh()->ok()) << "nothing changed";
    }
    const std::vector<korcommon::testing::TraceReport> reports = capture.reports();
    ASSERT_EQ(reports.size(), traces + 1);
    EXPECT_EQ(reports.back().level, dova::ERROR);
    EXPECT_EQ(reports.back().function, "init");
    EXPECT_NE(reports.back().text.find(accepted ? "\"n\"" : row[6]), std::string::npos)
        << reports.back().text;
  }
}

TEST(DovaCallerId, TakesThePrefixUpToTheFirstNul) {
  uint8_t named[40] = "leg_controller";
  uint8_t full[40];
  std::memset(full, 'x', sizeof full);
  EXPECT_EQ(dova::getCallerId(named, 32), "leg_controller");
  EXPECT_EQ(dova::getCallerId(named, 31), "") << "shorter than the prefix";
  EXPECT_EQ(dova::getCallerId(nullptr, 40), "");
  EXPECT_EQ(dova::getCallerId(full, 40), std::string(32, 'x')) << "no NUL: all 32 bytes";
}

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
  EXPECT_GE(slept, 0.020);
  EXPECT_LT(slept, 0.5);
}

TEST(DovaGuid, UuidsAreRandomVersion4AndIdsNeverRepeat) {
  std::set<std::string> uuids;
  const std::regex version4("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  for (int i = 0; i < 1000; ++i) {
    const std::string id = dova::guid::uuid();
    ASSERT_TRUE(std::regex_match(id, version4)) << id;
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
  std::set<uint32_t> unique = {0};
  for (size_t i = 0; i < ids.size(); ++i) {
    threads[i].join();
    unique.insert(ids[i].begin(), ids[i].end());
  }
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
