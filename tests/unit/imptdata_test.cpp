#include "korcommon/ImptData.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "private_opt.h"
#include "read_file.h"
#include "trace_capture.h"

namespace {

namespace fs = std::filesystem;
using korcommon::ImptData;
using korcommon::testing::readFile;
using korcommon::testing::TraceCapture;

const std::string kDirectory = "/opt/quor/imptdata/";

unsigned modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

void writeFile(const std::string& name, const std::string& content) {
  fs::create_directories(fs::path(kDirectory + name).parent_path());
  std::ofstream(kDirectory + name, std::ios::binary) << content;
}

// The reports made, one "function: text" a line.
std::string reportsOf(const TraceCapture& capture) {
  std::string reports;
  for (const auto& report : capture.reports()) {
    EXPECT_EQ(report.level, 8);
    reports += report.function + ": " + report.text + "\n";
  }
  return reports;
}

class ImptDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    fs::remove_all("/opt/quor");
  }
};

TEST_F(ImptDataTest, ValuesRoundTripAndEveryWriteOpensTheDirectory) {
  TraceCapture capture;
  const std::vector<double> offsets = {0.1, -0.0, 1e-300, -3.14159, 2.5, 0, 1, 2, 3, 4, 5, 1.0 / 3};
  ASSERT_TRUE(ImptData::setJointOffset(offsets));
  const std::vector<double> read_back = ImptData::getJointOffset();
  ASSERT_EQ(read_back.size(), offsets.size());
  EXPECT_EQ(std::memcmp(read_back.data(), offsets.data(), sizeof(double) * offsets.size()), 0);
  ASSERT_TRUE(ImptData::setSN("RB-0042"));
  EXPECT_EQ(ImptData::getSN(), "RB-0042");
  EXPECT_EQ(modeOf(kDirectory + "sn.yaml"), 0777u);

  // Every setter opens the whole directory, files written by others included.
  writeFile("notes/other.txt", "x");
  ASSERT_EQ(chmod((kDirectory + "notes/other.txt").c_str(), 0600), 0);
  ASSERT_TRUE(ImptData::setJointLimit({-1.5, 1.5}));
  EXPECT_EQ(ImptData::getJointLimit(), (std::vector<double>{-1.5, 1.5}));
  EXPECT_EQ(ImptData::getJointOffset(), read_back) << "each value has its own file";
  EXPECT_EQ(modeOf(kDirectory + "notes/other.txt"), 0777u);
  EXPECT_EQ(modeOf(kDirectory), 0777u);
  EXPECT_EQ(reportsOf(capture), "");
}

TEST_F(ImptDataTest, EmptyMissingAndUnreadableValues) {
  TraceCapture capture;
  // Missing files or keys read as empty, silently, and create nothing.
  writeFile("joint_limit.yaml", "something_else: [1, 2]\n");
  EXPECT_TRUE(ImptData::getJointOffset().empty() && ImptData::getJointLimit().empty());
  EXPECT_EQ(ImptData::getSN(), "");
  EXPECT_FALSE(fs::exists(kDirectory + "joint_offset.yaml"));
  // Empty input is refused and touches nothing.
  EXPECT_FALSE(ImptData::setJointOffset({}) || ImptData::setJointLimit({}) || ImptData::setSN(""));
  EXPECT_EQ(reportsOf(capture),
            "setJointOffset: joint_offset data is empty\nsetJointLimit: joint_limit data is empty\n"
            "setSN: sn data is empty\n");
  EXPECT_EQ(readFile(kDirectory + "joint_limit.yaml"), "something_else: [1, 2]\n");

  // Unreadable files are reported under the operation's name, naming the file.
  writeFile("joint_offset.yaml", "joint_offset: [1, {\n");
  writeFile("joint_limit.yaml", "joint_limit: [1, abc]\n");
  writeFile("sn.yaml", "sn: [not, a, string]\n");
  capture.clear();
  EXPECT_TRUE(ImptData::getJointOffset().empty() && ImptData::getJointLimit().empty());
  EXPECT_EQ(ImptData::getSN(), "");
  EXPECT_FALSE(ImptData::setJointOffset({1.0}));
  const std::string reports = reportsOf(capture);
  for (const std::string& expected :
       {"getJointOffset: " + kDirectory + "joint_offset.yaml", "getJointLimit: " + kDirectory,
        "getSN: " + kDirectory + "sn.yaml", "setJointOffset: " + kDirectory + "joint_offset"}) {
    EXPECT_NE(reports.find(expected), std::string::npos) << reports;
  }
  EXPECT_EQ(std::count(reports.begin(), reports.end(), '\n'), 4);
  EXPECT_EQ(readFile(kDirectory + "joint_offset.yaml"), "joint_offset: [1, {\n");
}

TEST_F(ImptDataTest, UrdfDirIsCreatedAndOpenedAtEveryCall) {
  EXPECT_EQ(ImptData::getUrdfDir(), kDirectory + "urdf/");
  EXPECT_EQ(modeOf(kDirectory + "urdf"), 0777u);
  writeFile("urdf/robot.urdf", "<robot/>");
  ASSERT_EQ(chmod((kDirectory + "urdf/robot.urdf").c_str(), 0600), 0);
  ASSERT_EQ(chmod((kDirectory + "urdf").c_str(), 0700), 0);
  EXPECT_EQ(ImptData::getUrdfDir(), kDirectory + "urdf/");
  EXPECT_EQ(modeOf(kDirectory + "urdf"), 0777u);
  EXPECT_EQ(modeOf(kDirectory + "urdf/robot.urdf"), 0777u);

  // A link in its place is reported and its target left alone; the path is still returned.
  fs::remove_all(kDirectory + "urdf");
  fs::create_directories("/opt/elsewhere");
  ASSERT_EQ(chmod("/opt/elsewhere", 0700), 0);
  ASSERT_EQ(symlink("/opt/elsewhere", (kDirectory + "urdf").c_str()), 0) << std::strerror(errno);
  TraceCapture capture;
  EXPECT_EQ(ImptData::getUrdfDir(), kDirectory + "urdf/");
  EXPECT_EQ(modeOf("/opt/elsewhere"), 0700u);
  const std::string reports = reportsOf(capture);
  EXPECT_EQ(reports.rfind("getUrdfDir: ", 0), 0u) << reports;
  EXPECT_NE(reports.find(kDirectory + "urdf"), std::string::npos) << reports;
  EXPECT_EQ(std::count(reports.begin(), reports.end(), '\n'), 1);
}

}  // namespace
