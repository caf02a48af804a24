// "korcommon sig" and the tool's top level: the command lines of tests/data/cli/sig.json, on
// the envelopes in tests/data/cli/sig.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "cli_rows.h"
#include "dova/param.h"
#include "private_opt.h"

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

TEST_F(CliSig, MakeInspectAndHelp) {
  expectRows(
      KORCOMMON_CLI,
      rowsOf("sig.json", "make",
             {{"VERSION", KORCOMMON_VERSION},
              {"GUID", "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"},
              {"NOW", R"(1[0-9]{12}(\.[0-9]+)?)"}}));  // milliseconds since the epoch
  expectRows(KORCOMMON_CLI,
             rowsOf("sig.json", "inspect", {{"DIR", KORCOMMON_TEST_DATA_DIR "/cli/sig"}}));
  expectRows(KORCOMMON_CLI, rowsOf("sig.json", "help"));
}

}  // namespace
