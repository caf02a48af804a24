// "korcommon imptdata": one row per command line, run in order on a private /opt. A refused
// command line answers status 2, nothing on standard output, one line naming the problem on
// standard error, and leaves the store as it was.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <string>
#include <vector>

#include "child_process.h"
#include "korcommon/ImptData.h"
#include "private_opt.h"
#include "read_file.h"

namespace {

namespace fs = std::filesystem;
using korcommon::ImptData;
using korcommon::testing::CliRow;
using korcommon::testing::expectRows;
using korcommon::testing::readFile;

constexpr char kStore[] = "/opt/quor/imptdata";
constexpr char kOffsets[] = "/opt/quor/imptdata/joint_offset.yaml";

class CliImptdata : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    fs::remove_all("/opt/quor");
  }
  void TearDown() override {
    if (korcommon::testing::hasPrivateOpt()) umount2(kStore, MNT_DETACH);
  }
};

TEST_F(CliImptdata, SetGetAndShow) {
  // clang-format off
  expectRows(KORCOMMON_CLI, {
    {{"imptdata", "show"}, 0,
     "serial number: (none)\njoint offsets: (none)\njoint limits:  (none)\nurdf dir:      (none)\n"},
    {{"imptdata", "get", "sn"}, 0, "(none)\n"},
    {{"imptdata", "get", "joint-limit"}, 0, "(none)\n"},
  });
  EXPECT_FALSE(fs::exists("/opt/quor")) << "reading must not create the store";
  expectRows(KORCOMMON_CLI, {
    {{"imptdata", "set", "sn", "RB-0042"}, 0, ""},
    {{"imptdata", "set", "joint-offset", "0.1,-1.5, 2e-3,0"}, 0, ""},
    {{"imptdata", "get", "joint-offset"}, 0, "0.1,-1.5,0.002,0\n"},
    {{"imptdata", "get", "sn"}, 0, "RB-0042\n"},
    {{"imptdata", "get", "urdf-dir"}, 0, "/opt/quor/imptdata/urdf/\n"},
  });
  EXPECT_TRUE(fs::is_directory("/opt/quor/imptdata/urdf"));
  // Printed lists carry every digit: setting them again stores the same doubles.
  ASSERT_TRUE(ImptData::setJointLimit({1.0 / 3.0, -2.0 / 7.0}));
  expectRows(KORCOMMON_CLI, {
    {{"imptdata", "show"}, 0,
     "serial number: RB-0042\njoint offsets: 0.1,-1.5,0.002,0\n"
     "joint limits:  0.3333333333333333,-0.2857142857142857\n"
     "urdf dir:      /opt/quor/imptdata/urdf/\n"},
    {{"imptdata", "set", "joint-limit", "0.3333333333333333,-0.2857142857142857"}, 0, ""},
  });
  // clang-format on
  EXPECT_EQ(ImptData::getJointLimit(), (std::vector<double>{1.0 / 3.0, -2.0 / 7.0}));
}

TEST_F(CliImptdata, BadValuesAreRefusedAndChangeNothing) {
  ASSERT_TRUE(ImptData::setJointOffset({1.0, 2.0}));
  const std::string before = readFile(kOffsets);
  const auto offsets = [](const std::string& value, const std::string& bad) {
    return CliRow{
        {"imptdata", "set", "joint-offset", value},
        2,
        "",
        "korcommon: not a number: \"" + bad + "\" (expected V1,V2,... of finite numbers)\n"};
  };
  // clang-format off
  expectRows(KORCOMMON_CLI, {
    offsets("1,abc", "abc"), offsets("", ""), offsets("1,,2", ""), offsets("1,", ""),
    offsets("1,inf", "inf"), offsets("0x10", "0x10"), offsets("1 2", "1 2"),
    {{"imptdata", "set", "sn", ""}, 2, "", "korcommon: the serial number must not be empty\n"},
    {{"imptdata", "set", "sn", " \t "}, 2, "", "korcommon: the serial number must not be blank\n"},
    {{"imptdata", "set", "sn", "RB-1\nRB-2"}, 2, "",
     "korcommon: the serial number must not contain a line break\n"},
    {{"imptdata", "set", "sn", "RB-1\r"}, 2, "",
     "korcommon: the serial number must not contain a line break\n"},
    {{"imptdata", "set", "urdf-dir", "/x"}, 2, "",
     "korcommon: imptdata set: ITEM: urdf-dir not in {sn,joint-offset,joint-limit} "
     "(see korcommon imptdata set --help)\n"},
    {{"imptdata", "get", "colour"}, 2, "",
     "korcommon: imptdata get: ITEM: colour not in {sn,joint-offset,joint-limit,urdf-dir} "
     "(see korcommon imptdata get --help)\n"},
    {{"imptdata", "set", "joint-limit"}, 2, "",
     "korcommon: imptdata set: VALUE is required (see korcommon imptdata set --help)\n"},
    {{"imptdata", "set", "sn", "RB-1", "RB-2"}, 2, "",
     "korcommon: imptdata set: unexpected argument \"RB-2\" (see korcommon imptdata set --help)\n"},
    {{"imptdata"}, 2, "",
     "korcommon: imptdata: a command is required: show, get, set "
     "(see korcommon imptdata --help)\n"},
  });
  // clang-format on
  EXPECT_EQ(readFile(kOffsets), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(kStore), {}), 1) << "only joint_offset.yaml";
}

TEST_F(CliImptdata, StorageFaultsAreOneErrorLineAndKeepTheOldValues) {
  fs::create_directories(kStore);
  ASSERT_EQ(mount("tiny", kStore, "tmpfs", 0, "size=16k"), 0);
  ASSERT_TRUE(ImptData::setSN("RB-1"));
  ASSERT_TRUE(ImptData::setJointOffset(std::vector<double>(12, 0.5)));
  const std::string offsets = readFile(kOffsets);
  // A full disk: the new version cannot be written whole, so the old file stays.
  korcommon::testing::writeFile("/opt/quor/imptdata/filler", std::string(64 * 1024, 'x'));
  std::string many = "0.3333333333333333";
  for (int i = 0; i < 4000; ++i) many += ",0.3333333333333333";
  // clang-format off
  expectRows(KORCOMMON_CLI, {
    {{"imptdata", "set", "joint-offset", many}, 2, "",
     "~korcommon: cannot store joint-offset: .*No space left on device\n"},
  });
  // clang-format on
  EXPECT_EQ(readFile(kOffsets), offsets);
  EXPECT_EQ(std::distance(fs::directory_iterator(kStore), {}), 3) << "sn, offsets and filler";

  ASSERT_EQ(mount(nullptr, kStore, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  // clang-format off
  expectRows(KORCOMMON_CLI, {
    {{"imptdata", "set", "sn", "RB-2"}, 2, "",
     "korcommon: cannot store sn: /opt/quor/imptdata/sn.yaml: cannot create a temporary file in "
     "/opt/quor/imptdata: Read-only file system\n"},
    {{"imptdata", "get", "urdf-dir"}, 2, "",
     "korcommon: cannot create the urdf directory: Read-only file system: "
     "'/opt/quor/imptdata/urdf/'\n"},
    {{"imptdata", "get", "sn"}, 0, "RB-1\n"},
  });
  ASSERT_EQ(mount(nullptr, kStore, nullptr, MS_REMOUNT, nullptr), 0);
  fs::remove("/opt/quor/imptdata/filler");
  korcommon::testing::writeFile("/opt/quor/imptdata/joint_limit.yaml", "joint_limit: [1, {\n");
  expectRows(KORCOMMON_CLI, {
    // A damaged file is not (none), and it hides none of the other values.
    {{"imptdata", "show"}, 2,
     "serial number: RB-1\njoint offsets: 0.5,0.5,0.5,0.5,0.5,0.5,0.5,0.5,0.5,0.5,0.5,0.5\n"
     "joint limits:  (unreadable)\nurdf dir:      (none)\n",
     "korcommon: cannot read the joint limits: /opt/quor/imptdata/joint_limit.yaml: malformed "
     "YAML: yaml-cpp: error at line 2, column 1: end of map flow not found\n"},
  });
  // clang-format on
}

}  // namespace
