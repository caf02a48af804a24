// The korcommon tool where it needs no DDS, on a private /opt: "korcommon imptdata", whose
// refused command lines leave the store as it was, "korcommon sig", whose envelopes carry the
// serial number as their account id, the tool's top level, and the bash completion and the man
// page the build writes from the tool's command tree. The command lines of
// tests/data/cli/imptdata.json, sig.json (on the envelopes in tests/data/cli/sig) and
// reference.json, group by group, in order.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cli_rows.h"
#include "korcommon/ImptData.h"
#include "private_opt.h"
#include "read_file.h"

namespace {

namespace fs = std::filesystem;
using korcommon::ImptData;
using korcommon::testing::expectRows;
using korcommon::testing::readFile;
using korcommon::testing::rowsOf;

constexpr char kStore[] = "/opt/quor/imptdata";
constexpr char kOffsets[] = "/opt/quor/imptdata/joint_offset.yaml";

class CliOffline : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    fs::remove_all("/opt/quor");
  }
  void TearDown() override {
    if (korcommon::testing::hasPrivateOpt()) umount2(kStore, MNT_DETACH);
  }
};

// Refused command lines change nothing.
TEST_F(CliOffline, ImptdataSetGetShowAndRefuse) {
  expectRows(KORCOMMON_CLI, rowsOf("imptdata.json", "empty"));
  EXPECT_FALSE(fs::exists("/opt/quor")) << "reading must not create the store";
  ASSERT_TRUE(ImptData::setJointOffset({1.0, 2.0}));
  const std::string before = readFile(kOffsets);
  expectRows(KORCOMMON_CLI, rowsOf("imptdata.json", "refused"));
  EXPECT_EQ(readFile(kOffsets), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(kStore), {}), 1) << "only joint_offset.yaml";
  expectRows(KORCOMMON_CLI, rowsOf("imptdata.json", "set"));
  EXPECT_TRUE(fs::is_directory("/opt/quor/imptdata/urdf"));
  ASSERT_TRUE(ImptData::setJointLimit({1.0 / 3.0, -2.0 / 7.0}));
  expectRows(KORCOMMON_CLI, rowsOf("imptdata.json", "every digit"));
  EXPECT_EQ(ImptData::getJointLimit(), (std::vector<double>{1.0 / 3.0, -2.0 / 7.0}));
}

TEST_F(CliOffline, ImptdataStorageFaultsAreOneErrorLineAndKeepTheOldValues) {
  fs::create_directories(kStore);
  ASSERT_EQ(mount("tiny", kStore, "tmpfs", 0, "size=16k"), 0);
  ASSERT_TRUE(ImptData::setSN("RB-1"));
  ASSERT_TRUE(ImptData::setJointOffset(std::vector<double>(12, 0.5)));
  const std::string offsets = readFile(kOffsets);
  korcommon::testing::writeFile("/opt/quor/imptdata/joint_limit.yaml", "joint_limit: [1, {\n");
  korcommon::testing::writeFile("/opt/quor/imptdata/filler", std::string(64 * 1024, 'x'));
  std::string many = "0.3333333333333333";
  for (int i = 0; i < 4000; ++i) many += ",0.3333333333333333";
  expectRows(KORCOMMON_CLI, rowsOf("imptdata.json", "full disk", {{"MANY", many}}));
  EXPECT_EQ(readFile(kOffsets), offsets);
  EXPECT_EQ(std::distance(fs::directory_iterator(kStore), {}), 4) << "sn, offsets, limits, filler";

  ASSERT_EQ(mount(nullptr, kStore, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  expectRows(KORCOMMON_CLI, rowsOf("imptdata.json", "read-only"));
}

TEST_F(CliOffline, SigMakeInspectAndHelp) {
  ASSERT_TRUE(ImptData::setSN("RB-0001"));
  expectRows(
      KORCOMMON_CLI,
      rowsOf("sig.json", "sig",
             {{"VERSION", KORCOMMON_VERSION},
              {"GUID", "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"},
              {"NOW", R"(1[0-9]{12}(\.[0-9]+)?)"},  // milliseconds since the epoch
              {"DIR", KORCOMMON_TEST_DATA_DIR "/cli/sig"}}));
}

// Completion rows give the words typed, the last one being completed, and what is offered; the
// man page row its section heads, usage lines and item lists as rendered.
TEST(CliReference, BashCompletionAndManPage) {
  expectRows(
      "/bin/bash",
      rowsOf("reference.json", "reference",
             {{"COMPLETION", KORCOMMON_COMPLETION},
              {"COMPLETE", R"(source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); )"
                           R"(_korcommon; echo "${COMPREPLY[*]}")"},
              {"MAN_PAGE", KORCOMMON_MAN_PAGE},
              {"MAN", R"(set -o pipefail; groff -man -Tascii -ww -P-cbou "$0" | )"
                      R"(grep -E '^ {3}korcommon |^ {7}korcommon .*\[OPTIONS\]|ITEM {3}What')"}}));
}

}  // namespace
