// "korcommon sig" and the tool's top level: one row per command line.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "child_process.h"
#include "dova/param.h"
#include "private_opt.h"
#include "read_file.h"

namespace {

using korcommon::testing::expectRows;
using korcommon::testing::runTool;

constexpr char kGuid[] = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";
constexpr char kNow[] = R"(1[0-9]{12}(\.[0-9]+)?)";  // milliseconds since the epoch
const std::string kRange =
    " is not a whole number of milliseconds from -9223372036854775808 to 9223372036854775807 "
    "(see korcommon sig make --help)\n";
constexpr char kValid[] =
    R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":1700000000123.4567871,)"
    R"("data":{"x":0.5}})";
constexpr char kValidReport[] =
    "accid: present\ntitle: present\nguid: present\ntimestamp: present\ndata: present\n"
    "accid value: \"RB-0001\"\ntitle value: \"walk\"\nguid value: \"g-1\"\n"
    "timestamp value: 1700000000123\nvalid\n";

class CliSig : public ::testing::Test {
 protected:
  void SetUp() override {
    // The account id is the serial number in /opt, which must be this test's private one.
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    std::filesystem::remove_all("/opt/quor");
    dova::Param("/opt/quor/imptdata/sn.yaml").set("sn", "RB-0001");
  }
};

TEST_F(CliSig, Make) {
  const std::string made = R"(~\{"accid":"RB-0001","title":"walk","guid":")";
  // clang-format off
  expectRows(KORCOMMON_CLI, {
    {{"--version"}, 0, std::string("korcommon ") + KORCOMMON_VERSION + "\n"},
    // The overload that matches what is given: guid and time, either, or neither.
    {{"sig", "make", "walk", "on", "--guid", "g-1", "--timestamp", "1700000000123"}, 0,
     R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":1700000000123,"data":"on"})"
     "\n"},
    {{"sig", "make", "walk", "on", "--timestamp", "-1"}, 0,
     made + kGuid + R"(","timestamp":-1,"data":"on"\}\n)"},
    {{"sig", "make", "walk", "on", "--guid", "g-1"}, 0,
     made + R"(g-1","timestamp":)" + kNow + R"(,"data":"on"\}\n)"},
    {{"sig", "make", "walk", "on"}, 0,
     made + kGuid + R"(","timestamp":)" + kNow + R"(,"data":"on"\}\n)"},
    // DATA is nested as JSON only when asked, and must then be JSON.
    {{"sig", "make", "pose", R"({"x":0.5})", "--guid", "g-2", "--timestamp", "5", "--json-data"},
     0, R"({"accid":"RB-0001","title":"pose","guid":"g-2","timestamp":5,"data":{"x":0.5}})" "\n"},
    {{"sig", "make", "pose", R"({"x":0.5})", "--guid", "g-2", "--timestamp", "5"}, 0,
     R"({"accid":"RB-0001","title":"pose","guid":"g-2","timestamp":5,"data":"{\"x\":0.5}"})" "\n"},
    // Refused: status 2, nothing on standard output, one line naming the problem.
    {{"sig", "make", "pose", R"({"x":})", "--json-data"}, 2, "",
     "korcommon: --json-data: Unexpected token: }\n"},
    {{"sig", "make", "pose", "[1,2]", "--json-data"}, 2, "",
     "korcommon: --json-data: DATA must be a JSON object\n"},
    {{}, 2, "", "korcommon: a command is required: sig, imptdata, diag, log, doctor, web, help "
                "(see korcommon --help)\n"},
    {{"foo"}, 2, "", "korcommon: unknown command \"foo\" (see korcommon --help)\n"},
    {{"--bogus"}, 2, "", "korcommon: unknown option \"--bogus\" (see korcommon --help)\n"},
    {{"sig"}, 2, "", "korcommon: sig: a command is required: make, inspect "
                     "(see korcommon sig --help)\n"},
    {{"sig", "--bogus"}, 2, "",
     "korcommon: sig: unknown option \"--bogus\" (see korcommon sig --help)\n"},
    {{"sig", "frobnicate"}, 2, "",
     "korcommon: sig: unknown command \"frobnicate\" (see korcommon sig --help)\n"},
    {{"help", "sig", "frob"}, 2, "",
     "korcommon: sig: unknown command \"frob\" (see korcommon sig --help)\n"},
    {{"sig", "make", "--bogus"}, 2, "",
     "korcommon: sig make: unknown option \"--bogus\" (see korcommon sig make --help)\n"},
    {{"sig", "make", "walk"}, 2, "",
     "korcommon: sig make: DATA is required (see korcommon sig make --help)\n"},
    {{"sig", "make", "walk", "on", "--timestamp", "99999999999999999999999"}, 2, "",
     "korcommon: sig make: --timestamp: \"99999999999999999999999\"" + kRange},
    {{"sig", "make", "walk", "on", "--timestamp", "soon"}, 2, "",
     "korcommon: sig make: --timestamp: \"soon\"" + kRange},
  });
  // clang-format on
}

TEST_F(CliSig, Inspect) {
  const korcommon::testing::ScratchDirectory files("korcommon_sig");
  const std::string directory = files.path().string();
  const std::string valid = directory + "/valid.json";
  const std::string invalid = directory + "/invalid.json";
  const std::string trailing = directory + "/trailing.json";
  const std::string missing = directory + "/missing.json";
  korcommon::testing::writeFile(valid, kValid);
  korcommon::testing::writeFile(trailing, R"({"title":"t"} trailing)");
  korcommon::testing::writeFile(invalid,
                                R"({"title":"a\nb","guid":7,"timestamp":"x","data":null})");
  // clang-format off
  expectRows(KORCOMMON_CLI, {
    {{"sig", "inspect", valid}, 0, kValidReport},
    {{"sig", "inspect"}, 0, kValidReport, "", kValid},
    {{"sig", "inspect", "-"}, 0, kValidReport, "", kValid},
    // No accid: invalid, status 1; values of the wrong kind are neutral; one line each.
    {{"sig", "inspect", invalid}, 1,
     "accid: missing\ntitle: present\nguid: present\ntimestamp: present\ndata: present\n"
     "accid value: \"\"\ntitle value: \"a\\nb\"\nguid value: \"\"\ntimestamp value: 0\n"
     "invalid\n"},
    // Input that cannot be read or is not JSON: status 2 and one line saying why.
    {{"sig", "inspect"}, 2, "", "korcommon: standard input: Unexpected end of token stream\n"},
    {{"sig", "inspect", missing}, 2, "",
     "korcommon: cannot open " + missing + ": No such file or directory\n"},
    {{"sig", "inspect", directory}, 2, "",
     "korcommon: cannot read " + directory + ": Is a directory\n"},
    {{"sig", "inspect", trailing}, 2, "", "korcommon: " + trailing + ": Expected string: true\n"},
    {{"sig", "inspect"}, 2, "",
     "korcommon: standard input: Duplicate object member token: a\\n\n", "{\"a\n\":1,\"a\n\":2}"},
    {{"sig", "inspect", "a", "b"}, 2, "",
     "korcommon: sig inspect: unexpected argument \"b\" (see korcommon sig inspect --help)\n"},
  });
  // clang-format on
}

TEST_F(CliSig, HelpCommandPrintsTheCommandsOwnHelpWithExamples) {
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {}, {"sig"}, {"sig", "make"}, {"sig", "inspect"}, {"help"}}) {
    std::vector<std::string> help_command = {"help"};
    help_command.insert(help_command.end(), command.begin(), command.end());
    std::vector<std::string> help_option = command;
    help_option.push_back("--help");
    const korcommon::testing::ToolResult help = runTool(KORCOMMON_CLI, help_command);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out, runTool(KORCOMMON_CLI, help_option).out);
    EXPECT_NE(help.out.find("\nExamples:\n  korcommon "), std::string::npos) << help.out;
  }
}

}  // namespace
