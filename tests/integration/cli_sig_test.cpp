// "korcommon sig" and the tool's top level: the command lines of tests/data/cli/sig.json.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cli_rows.h"
#include "dova/param.h"
#include "private_opt.h"
#include "read_file.h"
#include "scratch_directory.h"

namespace {

using korcommon::testing::expectRows;
using korcommon::testing::rowsOf;

class CliSig : public ::testing::Test {
 protected:
  void SetUp() override {
    // The account id is the serial number in /opt, which must be this test's private one.
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    std::filesystem::remove_all("/opt/quor");
    dova::Param("/opt/quor/imptdata/sn.yaml").set("sn", "RB-0001");
  }
};

TEST_F(CliSig, MakeAndInspect) {
  expectRows(
      KORCOMMON_CLI,
      rowsOf("sig.json", "make",
             {{"VERSION", KORCOMMON_VERSION},
              {"GUID", "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"},
              {"NOW", R"(1[0-9]{12}(\.[0-9]+)?)"}}));  // milliseconds since the epoch
  const korcommon::testing::ScratchDirectory files("korcommon_sig");
  const std::string directory = files.path().string();
  korcommon::testing::writeFile(directory + "/valid.json",
                                R"({"accid":"RB-0001","title":"walk","guid":"g-1",)"
                                R"("timestamp":1700000000123.4567871,"data":{"x":0.5}})");
  korcommon::testing::writeFile(directory + "/invalid.json",
                                R"({"title":"a\nb","guid":7,"timestamp":"x","data":null})");
  korcommon::testing::writeFile(directory + "/trailing.json", R"({"title":"t"} trailing)");
  expectRows(KORCOMMON_CLI, rowsOf("sig.json", "inspect", {{"DIR", directory}}));
}

TEST_F(CliSig, HelpCommandPrintsTheCommandsOwnHelpWithExamples) {
  expectRows(KORCOMMON_CLI, rowsOf("sig.json", "help"));
}

}  // namespace
