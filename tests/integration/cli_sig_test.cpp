#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "dova/json/reader.h"
#include "dova/param.h"
#include "korcommon/utils.h"
#include "private_opt.h"
#include "tool_runner.h"

namespace {

namespace fs = std::filesystem;
using korcommon::testing::ToolResult;

constexpr char kValidEnvelope[] =
    R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":1700000000123.4567871,)"
    R"("data":{"x":0.5}})";

class CliSig : public ::testing::Test {
 protected:
  void SetUp() override {
    // The tool reads the serial number from /opt, which must be this test's private one.
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    fs::remove_all("/opt/quor");
    dova::Param("/opt/quor/imptdata/sn.yaml").set("sn", "RB-0001");
  }

  void TearDown() override { fs::remove_all("/opt/quor"); }

  ToolResult runTool(const std::vector<std::string>& arguments,
                     const std::string& input = "") const {
    return tool_.run(arguments, input);
  }

  fs::path writeInput(const std::string& name, const std::string& content) const {
    return tool_.writeInput(name, content);
  }

  korcommon::testing::ToolRunner tool_{KORCOMMON_CLI};
};

dova::json::Object readObject(const std::string& text) {
  dova::json::Object object;
  std::istringstream stream(text);
  dova::json::Reader::Read(object, stream);
  return object;
}

TEST_F(CliSig, VersionNamesTheProjectVersion) {
  const ToolResult run = runTool({"--version"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, std::string("korcommon ") + KORCOMMON_VERSION + "\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(CliSig, MakePrintsTheEnvelopeOfTheMatchingOverload) {
  ToolResult run =
      runTool({"sig", "make", "walk", "on", "--guid", "g-1", "--timestamp", "1700000000123"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":1700000000123,)"
                     R"("data":"on"})"
                     "\n");
  EXPECT_EQ(run.err, "");

  run = runTool({"sig", "make", "walk", "on", "--timestamp", "-1"});
  EXPECT_EQ(run.status, 0);
  const dova::json::Object given_time = readObject(run.out);
  EXPECT_EQ(korcommon::getSigNumber(given_time.Find("timestamp")->element), -1.0);
  EXPECT_EQ(korcommon::getSigString(given_time.Find("guid")->element).size(), 36u);

  const auto now =
      std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  run = runTool({"sig", "make", "walk", "on", "--guid", "g-1"});
  EXPECT_EQ(run.status, 0);
  const dova::json::Object given_guid = readObject(run.out);
  EXPECT_EQ(korcommon::getSigString(given_guid.Find("guid")->element), "g-1");
  EXPECT_NEAR(korcommon::getSigNumber(given_guid.Find("timestamp")->element), now, 60000.0);

  run = runTool({"sig", "make", "walk", "on"});
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(korcommon::isSigValid(readObject(run.out)));
  EXPECT_EQ(korcommon::parseSigAccid(run.out), "RB-0001");
}

TEST_F(CliSig, MakeNestsJsonDataOnlyWhenAsked) {
  ToolResult run = runTool(
      {"sig", "make", "pose", R"({"x":0.5})", "--guid", "g-2", "--timestamp", "5", "--json-data"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out,
            R"({"accid":"RB-0001","title":"pose","guid":"g-2","timestamp":5,"data":{"x":0.5}})"
            "\n");

  run = runTool({"sig", "make", "pose", R"({"x":0.5})", "--guid", "g-2", "--timestamp", "5"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, R"({"accid":"RB-0001","title":"pose","guid":"g-2","timestamp":5,)"
                     R"("data":"{\"x\":0.5}"})"
                     "\n");
}

// Every refused command line: status 2, nothing on standard output, and one line on standard
// error that names the problem.
TEST_F(CliSig, ErrorsNameTheProblem) {
  struct Row {
    std::vector<std::string> arguments;
    std::string input;
    std::string error;
  };
  const std::string missing = (tool_.directory() / "missing.json").string();
  const std::string directory = tool_.directory().string();
  const std::string malformed = writeInput("malformed.json", R"({"title":"t"} trailing)").string();
  const std::string timestamp_range =
      "is not a whole number of milliseconds from -9223372036854775808 to 9223372036854775807";
  const Row rows[] = {
      {{"foo"}, "", R"(unknown command "foo" (see korcommon --help))"},
      {{"--bogus"}, "", R"(unknown option "--bogus" (see korcommon --help))"},
      {{"sig"}, "", "sig: a command is required: make, inspect (see korcommon sig --help)"},
      {{"sig", "--bogus"}, "", R"(sig: unknown option "--bogus" (see korcommon sig --help))"},
      {{"sig", "frobnicate"},
       "",
       R"(sig: unknown command "frobnicate" (see korcommon sig --help))"},
      {{"help", "sig", "frob"}, "", R"(sig: unknown command "frob" (see korcommon sig --help))"},
      {{"sig", "make", "--bogus"},
       "",
       R"(sig make: unknown option "--bogus" (see korcommon sig make --help))"},
      {{"sig", "make", "walk"}, "", "sig make: DATA is required (see korcommon sig make --help)"},
      {{"sig", "make", "walk", "on", "--timestamp", "99999999999999999999999"},
       "",
       R"(sig make: --timestamp: "99999999999999999999999" )" + timestamp_range +
           " (see korcommon sig make --help)"},
      {{"sig", "make", "walk", "on", "--timestamp", "soon"},
       "",
       R"(sig make: --timestamp: "soon" )" + timestamp_range + " (see korcommon sig make --help)"},
      {{"sig", "make", "pose", "[1,2]", "--json-data"},
       "",
       "--json-data: DATA must be a JSON object"},
      {{"sig", "make", "pose", R"({"x":})", "--json-data"}, "", "--json-data: Unexpected token: }"},
      {{"sig", "inspect", "a", "b"},
       "",
       R"(sig inspect: unexpected argument "b" (see korcommon sig inspect --help))"},
      {{"sig", "inspect"}, "", "standard input: Unexpected end of token stream"},
      {{"sig", "inspect", missing}, "", "cannot open " + missing + ": No such file or directory"},
      {{"sig", "inspect", directory}, "", "cannot read " + directory + ": Is a directory"},
      {{"sig", "inspect", malformed}, "", malformed + ": Expected string: true"},
      // A message quoting a line break from the input stays on one line.
      {{"sig", "inspect"},
       "{\"a\n\":1,\"a\n\":2}",
       "standard input: Duplicate object member token: a\\n"},
  };
  for (const Row& row : rows) {
    std::string joined;
    for (const std::string& word : row.arguments) joined += word + " ";
    SCOPED_TRACE(joined);
    const ToolResult run = runTool(row.arguments, row.input);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "korcommon: " + row.error + "\n");
  }
}

TEST_F(CliSig, HelpCommandPrintsTheCommandsOwnHelpWithExamples) {
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {}, {"sig"}, {"sig", "make"}, {"sig", "inspect"}, {"help"}}) {
    std::vector<std::string> help_command = {"help"};
    help_command.insert(help_command.end(), command.begin(), command.end());
    std::vector<std::string> help_option = command;
    help_option.push_back("--help");
    const ToolResult run = runTool(help_command);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, runTool(help_option).out);
    EXPECT_NE(run.out.find("\nExamples:\n  korcommon "), std::string::npos) << run.out;
  }
}

TEST_F(CliSig, InspectShowsMembersAndValidity) {
  ToolResult run = runTool({"sig", "inspect", writeInput("valid.json", kValidEnvelope).string()});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out,
            "accid: present\n"
            "title: present\n"
            "guid: present\n"
            "timestamp: present\n"
            "data: present\n"
            "accid value: \"RB-0001\"\n"
            "title value: \"walk\"\n"
            "guid value: \"g-1\"\n"
            "timestamp value: 1700000000123\n"
            "valid\n");
  EXPECT_EQ(run.err, "");

  // Missing accid: the tool wants all five members. Values stay one line each.
  run = runTool({"sig", "inspect",
                 writeInput("invalid.json", R"({"title":"a\nb","guid":7,)"
                                            R"("timestamp":"x","data":null})")
                     .string()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "accid: missing\n"
            "title: present\n"
            "guid: present\n"
            "timestamp: present\n"
            "data: present\n"
            "accid value: \"\"\n"
            "title value: \"a\\nb\"\n"
            "guid value: \"\"\n"
            "timestamp value: 0\n"
            "invalid\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(CliSig, InspectReadsStandardInputByDefault) {
  const ToolResult made = runTool({"sig", "make", "walk", "on"});
  ASSERT_EQ(made.status, 0);
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"sig", "inspect"}, {"sig", "inspect", "-"}}) {
    const ToolResult run = runTool(arguments, made.out);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("accid value: \"RB-0001\"\n"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.substr(run.out.size() - 6), "valid\n");
  }
}

}  // namespace
