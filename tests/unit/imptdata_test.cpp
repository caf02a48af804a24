#include "korcommon/ImptData.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "private_opt.h"
#include "read_file.h"
#include "trace_capture.h"

namespace {

namespace fs = std::filesystem;
using korcommon::ImptData;
using korcommon::testing::readFile;
using korcommon::testing::writeFile;
using ::testing::MatchesRegex;

const std::string kDirectory = "/opt/quor/imptdata/";

// The permission bits of each path below the store's directory, in octal, one after the other.
std::string modesOf(const std::vector<std::string>& names) {
  std::ostringstream modes;
  for (const std::string& name : names) {
    modes << std::oct << static_cast<unsigned>(fs::status(kDirectory + name).permissions()) << " ";
  }
  return modes.str();
}

// One store on the private /opt: missing, refused, stored and unreadable values, then the
// URDF directory.
TEST(ImptData, StoresReadsAndReportsOnAPrivateOpt) {
  KORCOMMON_REQUIRE_PRIVATE_OPT();
  fs::remove_all("/opt/quor");
  korcommon::testing::TraceCapture capture;
  // The reports made since the last call, one "function: text" a line; all of them errors.
  const auto reports = [&capture] {
    std::string text;
    for (const auto& report : capture.reports()) {
      EXPECT_EQ(report.level, dova::ERROR);
      text += report.function + ": " + report.text + "\n";
    }
    capture.clear();
    return text;
  };

  // Missing files or keys read as empty, silently, and create nothing.
  fs::create_directories(kDirectory + "notes");
  writeFile(kDirectory + "joint_limit.yaml", "something_else: [1, 2]\n");
  EXPECT_TRUE(ImptData::getJointOffset().empty() && ImptData::getJointLimit().empty());
  EXPECT_EQ(ImptData::getSN(), "");
  EXPECT_FALSE(fs::exists(kDirectory + "joint_offset.yaml"));
  // Empty input is refused and touches nothing.
  EXPECT_FALSE(ImptData::setJointOffset({}) || ImptData::setJointLimit({}) || ImptData::setSN(""));
  EXPECT_EQ(reports(),
            "setJointOffset: joint_offset data is empty\nsetJointLimit: joint_limit data is empty\n"
            "setSN: sn data is empty\n");
  EXPECT_EQ(readFile(kDirectory + "joint_limit.yaml"), "something_else: [1, 2]\n");

  const std::vector<double> offsets = {0.1, -0.0, 1e-300, -3.14159, 2.5, 0, 1, 2, 3, 4, 5, 1.0 / 3};
  ASSERT_TRUE(ImptData::setJointOffset(offsets));
  const std::vector<double> read_back = ImptData::getJointOffset();
  ASSERT_EQ(read_back.size(), offsets.size());
  EXPECT_EQ(std::memcmp(read_back.data(), offsets.data(), sizeof(double) * offsets.size()), 0);
  ASSERT_TRUE(ImptData::setSN("RB-0042"));
  EXPECT_EQ(ImptData::getSN(), "RB-0042");
  EXPECT_EQ(modesOf({"sn.yaml"}), "777 ");
  // Every setter opens the whole directory, files written by others included.
  writeFile(kDirectory + "notes/other.txt", "x");
  ASSERT_EQ(chmod((kDirectory + "notes/other.txt").c_str(), 0600), 0);
  ASSERT_TRUE(ImptData::setJointLimit({-1.5, 1.5}));
  EXPECT_EQ(ImptData::getJointLimit(), (std::vector<double>{-1.5, 1.5}));
  EXPECT_EQ(ImptData::getJointOffset(), read_back) << "each value has its own file";
  EXPECT_EQ(modesOf({"notes/other.txt", ""}), "777 777 ");
  EXPECT_EQ(reports(), "");

  // Unreadable files are reported under the operation's name, naming the file.
  writeFile(kDirectory + "joint_offset.yaml", "joint_offset: [1, {\n");
  writeFile(kDirectory + "joint_limit.yaml", "joint_limit: [1, abc]\n");
  writeFile(kDirectory + "sn.yaml", "sn: [not, a, string]\n");
  EXPECT_TRUE(ImptData::getJointOffset().empty() && ImptData::getJointLimit().empty());
  EXPECT_EQ(ImptData::getSN(), "");
  EXPECT_FALSE(ImptData::setJointOffset({1.0}));
  const std::string line = "[^\n]*\n";
  EXPECT_THAT(reports(),
              MatchesRegex("getJointOffset: " + kDirectory + "joint_offset.yaml" + line +
                           "getJointLimit: " + kDirectory + line + "getSN: " + kDirectory +
                           "sn.yaml" + line + "setJointOffset: " + kDirectory + line));
  EXPECT_EQ(readFile(kDirectory + "joint_offset.yaml"), "joint_offset: [1, {\n");

  // The URDF directory is created, from nothing, and opened with all it holds at every call.
  fs::remove_all("/opt/quor");
  EXPECT_EQ(ImptData::getUrdfDir(), kDirectory + "urdf/");
  EXPECT_EQ(modesOf({"urdf"}), "777 ");
  writeFile(kDirectory + "urdf/robot.urdf", "<robot/>");
  ASSERT_EQ(chmod((kDirectory + "urdf/robot.urdf").c_str(), 0600), 0);
  ASSERT_EQ(chmod((kDirectory + "urdf").c_str(), 0700), 0);
  EXPECT_EQ(ImptData::getUrdfDir(), kDirectory + "urdf/");
  EXPECT_EQ(modesOf({"urdf", "urdf/robot.urdf"}), "777 777 ");
  // A link in its place is reported and its target left alone; the path is still returned.
  fs::remove_all(kDirectory + "urdf");
  ASSERT_EQ(mkdir("/opt/quor/elsewhere", 0700), 0);
  ASSERT_EQ(symlink("/opt/quor/elsewhere", (kDirectory + "urdf").c_str()), 0)
      << std::strerror(errno);
  EXPECT_EQ(ImptData::getUrdfDir(), kDirectory + "urdf/");
  EXPECT_EQ(modesOf({"../elsewhere"}), "700 ");
  EXPECT_EQ(reports(),
            "getUrdfDir: " + kDirectory + "urdf is a symbolic link: its mode is left unchanged\n");
}

}  // namespace
