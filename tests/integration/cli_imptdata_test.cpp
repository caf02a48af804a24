#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "korcommon/ImptData.h"
#include "private_opt.h"
#include "read_file.h"
#include "tool_runner.h"

namespace {

namespace fs = std::filesystem;
using korcommon::ImptData;
using korcommon::testing::expectOneErrorLine;
using korcommon::testing::readFile;
using korcommon::testing::ToolResult;

class CliImptdata : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    fs::remove_all("/opt/quor");
  }
  void TearDown() override {
    if (korcommon::testing::hasPrivateOpt()) mount(nullptr, "/opt", nullptr, MS_REMOUNT, nullptr);
  }

  ToolResult run(const std::vector<std::string>& arguments) const { return tool_.run(arguments); }

  korcommon::testing::ToolRunner tool_{KORCOMMON_CLI};
};

TEST_F(CliImptdata, ShowsNoneForAnEmptyStoreWithoutCreatingAnything) {
  const ToolResult shown = run({"imptdata", "show"});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(shown.out,
            "serial number: (none)\n"
            "joint offsets: (none)\n"
            "joint limits:  (none)\n"
            "urdf dir:      (none)\n");
  EXPECT_FALSE(fs::exists("/opt/quor"));
  for (const char* item : {"sn", "joint-offset", "joint-limit"}) {
    const ToolResult got = run({"imptdata", "get", item});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "(none)\n") << item;
  }
}

TEST_F(CliImptdata, SetThenGetRoundTripsExactly) {
  EXPECT_EQ(run({"imptdata", "set", "sn", "RB-0042"}).status, 0);
  const ToolResult offsets = run({"imptdata", "set", "joint-offset", "0.1,-1.5, 2e-3,0"});
  EXPECT_EQ(offsets.status, 0) << offsets.err;
  EXPECT_EQ(run({"imptdata", "set", "joint-limit", "-3.14,3.14"}).status, 0);

  EXPECT_EQ(ImptData::getSN(), "RB-0042");
  EXPECT_EQ(ImptData::getJointOffset(), (std::vector<double>{0.1, -1.5, 0.002, 0.0}));
  EXPECT_EQ(run({"imptdata", "get", "joint-offset"}).out, "0.1,-1.5,0.002,0\n");
  EXPECT_EQ(run({"imptdata", "get", "sn"}).out, "RB-0042\n");

  // Printed lists carry every digit: setting them again stores the same doubles.
  ASSERT_TRUE(ImptData::setJointLimit({1.0 / 3.0, -2.0 / 7.0}));
  const ToolResult limits = run({"imptdata", "get", "joint-limit"});
  ASSERT_EQ(
      run({"imptdata", "set", "joint-limit", limits.out.substr(0, limits.out.size() - 1)}).status,
      0);
  EXPECT_EQ(ImptData::getJointLimit(), (std::vector<double>{1.0 / 3.0, -2.0 / 7.0}));

  const ToolResult urdf = run({"imptdata", "get", "urdf-dir"});
  EXPECT_EQ(urdf.out, "/opt/quor/imptdata/urdf/\n");
  EXPECT_TRUE(fs::is_directory("/opt/quor/imptdata/urdf"));
  EXPECT_EQ(run({"imptdata", "show"}).out,
            "serial number: RB-0042\n"
            "joint offsets: 0.1,-1.5,0.002,0\n"
            "joint limits:  0.3333333333333333,-0.2857142857142857\n"
            "urdf dir:      /opt/quor/imptdata/urdf/\n");
}

// Every refused command line: status 2, nothing on standard output, one line on standard
// error that names the problem, and the store as it was.
TEST_F(CliImptdata, ErrorsNameTheProblemAndChangeNothing) {
  ASSERT_TRUE(ImptData::setJointOffset({1.0, 2.0}));
  const std::string before = readFile("/opt/quor/imptdata/joint_offset.yaml");
  const std::string list = " (expected V1,V2,... of finite numbers)";
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"imptdata", "set", "joint-offset", "1,abc"}, R"(not a number: "abc")" + list},
      {{"imptdata", "set", "joint-offset", ""}, R"(not a number: "")" + list},
      {{"imptdata", "set", "joint-offset", "1,,2"}, R"(not a number: "")" + list},
      {{"imptdata", "set", "joint-offset", "1,"}, R"(not a number: "")" + list},
      {{"imptdata", "set", "joint-offset", "1,inf"}, R"(not a number: "inf")" + list},
      {{"imptdata", "set", "joint-offset", "0x10"}, R"(not a number: "0x10")" + list},
      {{"imptdata", "set", "joint-offset", "1 2"}, R"(not a number: "1 2")" + list},
      {{"imptdata", "set", "sn", ""}, "the serial number must not be empty"},
      {{"imptdata", "set", "sn", " \t "}, "the serial number must not be blank"},
      {{"imptdata", "set", "sn", "RB-1\nRB-2"}, "the serial number must not contain a line break"},
      {{"imptdata", "set", "sn", "RB-1\r"}, "the serial number must not contain a line break"},
      {{"imptdata", "set", "urdf-dir", "/x"},
       "imptdata set: ITEM: urdf-dir not in {sn,joint-offset,joint-limit} "
       "(see korcommon imptdata set --help)"},
      {{"imptdata", "get", "colour"},
       "imptdata get: ITEM: colour not in {sn,joint-offset,joint-limit,urdf-dir} "
       "(see korcommon imptdata get --help)"},
      {{"imptdata", "set", "joint-limit"},
       "imptdata set: VALUE is required (see korcommon imptdata set --help)"},
      {{"imptdata", "set", "sn", "RB-1", "RB-2"},
       R"(imptdata set: unexpected argument "RB-2" (see korcommon imptdata set --help))"},
      {{"imptdata"},
       "imptdata: a command is required: show, get, set (see korcommon imptdata --help)"},
  };
  for (const auto& [arguments, error] : rows) {
    SCOPED_TRACE(arguments.back());
    const ToolResult result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "korcommon: " + error + "\n");
  }
  EXPECT_EQ(readFile("/opt/quor/imptdata/joint_offset.yaml"), before);
  EXPECT_FALSE(fs::exists("/opt/quor/imptdata/joint_limit.yaml"));
  EXPECT_FALSE(fs::exists("/opt/quor/imptdata/sn.yaml"));
}

TEST_F(CliImptdata, UnwritableOrUnreadableStorageIsAnError) {
  ASSERT_TRUE(ImptData::setSN("RB-1"));
  ASSERT_EQ(mount(nullptr, "/opt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
      << std::strerror(errno);
  ToolResult result = run({"imptdata", "set", "sn", "RB-2"});
  EXPECT_EQ(result.status, 2);
  expectOneErrorLine(result);
  EXPECT_NE(result.err.find("sn.yaml"), std::string::npos) << result.err;
  result = run({"imptdata", "get", "urdf-dir"});
  EXPECT_EQ(result.status, 2);
  expectOneErrorLine(result);
  ASSERT_EQ(mount(nullptr, "/opt", nullptr, MS_REMOUNT, nullptr), 0);
  EXPECT_EQ(ImptData::getSN(), "RB-1");

  // A malformed file is not (none), and it hides none of the other values.
  std::ofstream("/opt/quor/imptdata/joint_limit.yaml") << "joint_limit: [1, {\n";
  result = run({"imptdata", "show"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out,
            "serial number: RB-1\n"
            "joint offsets: (none)\n"
            "joint limits:  (unreadable)\n"
            "urdf dir:      (none)\n");
  expectOneErrorLine(result);
  EXPECT_EQ(result.err.rfind("korcommon: cannot read the joint limits: ", 0), 0u) << result.err;
}

}  // namespace
