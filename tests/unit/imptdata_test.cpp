#include "korcommon/ImptData.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "dova/filesystem/filesystem.h"
#include "private_opt.h"
#include "read_file.h"
#include "trace_capture.h"

namespace {
namespace fs = std::filesystem;

using korcommon::ImptData;
using korcommon::testing::readFile;
using korcommon::testing::TraceCapture;

constexpr char kDataDirectory[] = "/opt/quor/imptdata";

class ImptDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    fs::remove_all("/opt/quor");
  }
  void TearDown() override {
    if (korcommon::testing::hasPrivateOpt()) mount(nullptr, "/opt", nullptr, MS_REMOUNT, nullptr);
  }

  static void writeFile(const std::string& file, const std::string& content) {
    fs::create_directories(fs::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << content;
  }

  static unsigned modeOf(const std::string& file) {
    struct stat status {};
    EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
  }

  static void remountOpt(unsigned long flags) {
    ASSERT_EQ(mount(nullptr, "/opt", nullptr, MS_REMOUNT | flags, nullptr), 0)
        << std::strerror(errno);
  }
};

TEST_F(ImptDataTest, JointOffsetsRoundTripBitForBit) {
  std::mt19937_64 random(12);
  std::uniform_real_distribution<double> angle(-3.14159, 3.14159);
  std::vector<double> offsets;
  for (int joint = 0; joint < 12; ++joint) offsets.push_back(angle(random));
  offsets[3] = -0.0;
  offsets[7] = 1e-300;

  TraceCapture capture;
  ASSERT_TRUE(ImptData::setJointOffset(offsets));
  const std::vector<double> read_back = ImptData::getJointOffset();
  ASSERT_EQ(read_back.size(), offsets.size());
  for (size_t i = 0; i < offsets.size(); ++i) {
    EXPECT_EQ(std::memcmp(&read_back[i], &offsets[i], sizeof(double)), 0) << "joint " << i;
  }
  EXPECT_TRUE(capture.reports().empty());

  const std::vector<double> limits = {-1.5, 1.5, -0.25, 2.75};
  ASSERT_TRUE(ImptData::setJointLimit(limits));
  EXPECT_EQ(ImptData::getJointLimit(), limits);
  EXPECT_EQ(ImptData::getJointOffset(), read_back) << "files are separate";
}

TEST_F(ImptDataTest, SettersOpenTheDirectoryToEveryone) {
  ASSERT_TRUE(ImptData::setSN("RB-0042"));
  EXPECT_EQ(ImptData::getSN(), "RB-0042");
  EXPECT_EQ(modeOf(kDataDirectory), 0777u);
  EXPECT_EQ(modeOf(std::string(kDataDirectory) + "/sn.yaml"), 0777u);

  // Every setter opens the whole directory, including files written by others.
  writeFile(std::string(kDataDirectory) + "/other.yaml", "x: 1\n");
  ASSERT_EQ(chmod((std::string(kDataDirectory) + "/other.yaml").c_str(), 0600), 0);
  ASSERT_TRUE(ImptData::setJointLimit({1.0}));
  EXPECT_EQ(modeOf(std::string(kDataDirectory) + "/other.yaml"), 0777u);
}

TEST_F(ImptDataTest, EmptyInputIsRefusedAndTouchesNothing) {
  ASSERT_TRUE(ImptData::setJointOffset({0.1, 0.2}));
  ASSERT_TRUE(ImptData::setSN("RB-1"));
  const std::string offsets_before = readFile(std::string(kDataDirectory) + "/joint_offset.yaml");

  TraceCapture capture;
  EXPECT_FALSE(ImptData::setJointOffset({}));
  EXPECT_FALSE(ImptData::setJointLimit({}));
  EXPECT_FALSE(ImptData::setSN(""));
  ASSERT_EQ(capture.reports().size(), 3u);
  EXPECT_EQ(capture.reports()[0].text, "joint_offset data is empty");
  EXPECT_EQ(capture.reports()[0].function, "setJointOffset");
  EXPECT_EQ(capture.reports()[1].text, "joint_limit data is empty");
  EXPECT_EQ(capture.reports()[1].function, "setJointLimit");
  EXPECT_EQ(capture.reports()[2].text, "sn data is empty");
  EXPECT_EQ(capture.reports()[2].function, "setSN");
  for (const auto& report : capture.reports()) EXPECT_EQ(report.level, 8);

  EXPECT_EQ(readFile(std::string(kDataDirectory) + "/joint_offset.yaml"), offsets_before);
  EXPECT_FALSE(fs::exists(std::string(kDataDirectory) + "/joint_limit.yaml"));
  EXPECT_EQ(ImptData::getSN(), "RB-1");
}

TEST_F(ImptDataTest, MissingFilesOrKeysReadAsEmptyWithoutReport) {
  TraceCapture capture;
  EXPECT_TRUE(ImptData::getJointOffset().empty());
  EXPECT_TRUE(ImptData::getSN().empty());
  writeFile(std::string(kDataDirectory) + "/joint_limit.yaml", "something_else: [1, 2]\n");
  EXPECT_TRUE(ImptData::getJointLimit().empty());
  EXPECT_TRUE(capture.reports().empty());
  EXPECT_FALSE(fs::exists(std::string(kDataDirectory) + "/joint_offset.yaml"))
      << "a getter never creates files";
}

TEST_F(ImptDataTest, UnreadableDataIsReportedUnderTheOperationsName) {
  writeFile(std::string(kDataDirectory) + "/joint_offset.yaml", "joint_offset: [1, {\n");
  writeFile(std::string(kDataDirectory) + "/joint_limit.yaml", "joint_limit: [1, abc]\n");
  writeFile(std::string(kDataDirectory) + "/sn.yaml", "sn: [not, a, string]\n");

  TraceCapture capture;
  EXPECT_TRUE(ImptData::getJointOffset().empty());
  EXPECT_TRUE(ImptData::getJointLimit().empty());
  EXPECT_TRUE(ImptData::getSN().empty());
  EXPECT_FALSE(ImptData::setJointOffset({1.0})) << "the malformed file cannot be updated";
  const std::vector<std::string> expected = {"getJointOffset", "getJointLimit", "getSN",
                                             "setJointOffset"};
  ASSERT_EQ(capture.reports().size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(capture.reports()[i].function, expected[i]);
    EXPECT_EQ(capture.reports()[i].level, 8);
    EXPECT_NE(capture.reports()[i].text.find("/opt/quor/imptdata/"), std::string::npos)
        << "the report names the file: " << capture.reports()[i].text;
  }
  EXPECT_EQ(readFile(std::string(kDataDirectory) + "/joint_offset.yaml"), "joint_offset: [1, {\n");
}

TEST_F(ImptDataTest, ReadOnlyStorageFailsCleanly) {
  ASSERT_TRUE(ImptData::setSN("RB-7"));
  const std::string before = readFile(std::string(kDataDirectory) + "/sn.yaml");
  remountOpt(MS_RDONLY);

  TraceCapture capture;
  EXPECT_FALSE(ImptData::setSN("RB-8"));
  ASSERT_EQ(capture.reports().size(), 1u);
  EXPECT_EQ(capture.reports()[0].function, "setSN");
  EXPECT_EQ(ImptData::getSN(), "RB-7") << "reads still work";
  EXPECT_EQ(readFile(std::string(kDataDirectory) + "/sn.yaml"), before);

  fs::remove_all("/opt/quor/imptdata/urdf");  // fails quietly: read-only
  try {
    ImptData::getUrdfDir();
    ADD_FAILURE() << "getUrdfDir succeeded on a read-only /opt";
  } catch (const dova::filesystem::filesystem_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string(std::strerror(EROFS)) + ": '/opt/quor/imptdata/urdf/'");
    EXPECT_EQ(error.code().value(), EROFS);
  }
}

TEST_F(ImptDataTest, UrdfDirIsCreatedAndOpenedAtEveryCall) {
  EXPECT_EQ(ImptData::getUrdfDir(), "/opt/quor/imptdata/urdf/");
  EXPECT_TRUE(fs::is_directory("/opt/quor/imptdata/urdf"));
  EXPECT_EQ(modeOf("/opt/quor/imptdata/urdf"), 0777u);

  writeFile("/opt/quor/imptdata/urdf/robot.urdf", "<robot/>");
  ASSERT_EQ(chmod("/opt/quor/imptdata/urdf/robot.urdf", 0600), 0);
  ASSERT_EQ(chmod("/opt/quor/imptdata/urdf", 0700), 0);
  EXPECT_EQ(ImptData::getUrdfDir(), "/opt/quor/imptdata/urdf/");
  EXPECT_EQ(modeOf("/opt/quor/imptdata/urdf"), 0777u) << "an existing directory is opened too";
  EXPECT_EQ(modeOf("/opt/quor/imptdata/urdf/robot.urdf"), 0777u);
}

TEST_F(ImptDataTest, UrdfDirThatIsALinkIsReportedAndNotOpened) {
  writeFile("/opt/elsewhere/secret", "key");
  ASSERT_EQ(chmod("/opt/elsewhere", 0700), 0);
  ASSERT_EQ(chmod("/opt/elsewhere/secret", 0600), 0);
  fs::create_directories(kDataDirectory);
  ASSERT_EQ(symlink("/opt/elsewhere", "/opt/quor/imptdata/urdf"), 0) << std::strerror(errno);

  TraceCapture capture;
  EXPECT_EQ(ImptData::getUrdfDir(), "/opt/quor/imptdata/urdf/");
  EXPECT_EQ(modeOf("/opt/elsewhere"), 0700u);
  EXPECT_EQ(modeOf("/opt/elsewhere/secret"), 0600u);
  ASSERT_EQ(capture.reports().size(), 1u);
  EXPECT_EQ(capture.reports()[0].level, dova::ERROR);
  EXPECT_EQ(capture.reports()[0].function, "getUrdfDir");
  EXPECT_NE(capture.reports()[0].text.find("/opt/quor/imptdata/urdf"), std::string::npos);
}

// A writer killed at any moment leaves the old or the new complete value.
TEST_F(ImptDataTest, KilledWriterLeavesOldOrNewValue) {
  const std::vector<double> old_value(12, 0.125);
  const std::vector<double> new_value(12, -0.375);
  ASSERT_TRUE(ImptData::setJointOffset(old_value));
  int rounds_with_new = 0;
  for (int round = 0; round < 25; ++round) {
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      for (;;) ImptData::setJointOffset(new_value);
    }
    usleep(static_cast<useconds_t>(1000 + round * 300));
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);

    TraceCapture capture;
    const std::vector<double> value = ImptData::getJointOffset();
    EXPECT_TRUE(value == old_value || value == new_value) << "round " << round;
    EXPECT_TRUE(capture.reports().empty()) << capture.reports()[0].text;
    if (value == new_value) {
      ++rounds_with_new;
      ASSERT_TRUE(ImptData::setJointOffset(old_value));
    }
  }
  EXPECT_GT(rounds_with_new, 0) << "the writer never got to write: the test proves nothing";
}

}  // namespace
