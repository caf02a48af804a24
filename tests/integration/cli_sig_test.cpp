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
using korcommon::testing::expectOneErrorLine;
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

  run = runTool({"sig", "make", "pose", R"({"x":})", "--json-data"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "korcommon: --json-data: Unexpected token: }\n");

  run = runTool({"sig", "make", "pose", "[1]", "--json-data"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "korcommon: --json-data: Unexpected token: [\n");
}

TEST_F(CliSig, BadUsageIsOneLineAndStatusTwo) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"sig"},
                                             {"sig", "make", "walk"},
                                             {"sig", "make", "walk", "on", "--timestamp", "soon"},
                                             {"sig", "inspect", "a", "b"},
                                             {"sig", "frobnicate"}}) {
    std::string joined;
    for (const std::string& word : arguments) joined += word + " ";
    SCOPED_TRACE(joined);
    const ToolResult run = runTool(arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    expectOneErrorLine(run);
  }
}

TEST_F(CliSig, HelpDescribesEveryCommand) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"--help"},
                                             {"sig", "--help"},
                                             {"sig", "make", "--help"},
                                             {"sig", "inspect", "--help"}}) {
    const ToolResult run = runTool(arguments);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("Usage"), std::string::npos) << run.out;
  }
  EXPECT_NE(runTool({"sig", "make", "--help"}).out.find("--json-data"), std::string::npos);
  EXPECT_NE(runTool({"sig", "inspect", "--help"}).out.find("Exit status"), std::string::npos);
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

  const ToolResult empty = runTool({"sig", "inspect"}, "");
  EXPECT_EQ(empty.status, 2);
  EXPECT_EQ(empty.out, "");
  EXPECT_EQ(empty.err, "korcommon: standard input: Unexpected end of token stream\n");
}

TEST_F(CliSig, InspectUnreadableInputIsStatusTwo) {
  const std::string missing = (tool_.directory() / "missing.json").string();
  ToolResult run = runTool({"sig", "inspect", missing});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "korcommon: cannot open " + missing + ": No such file or directory\n");

  run = runTool({"sig", "inspect", tool_.directory().string()});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  expectOneErrorLine(run);

  const std::string malformed = writeInput("malformed.json", R"({"title":"t"} trailing)").string();
  run = runTool({"sig", "inspect", malformed});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "korcommon: " + malformed + ": Expected string: true\n");

  // A message quoting a line break from the input stays on one line.
  run = runTool({"sig", "inspect"}, "{\"a\n\":1,\"a\n\":2}");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "korcommon: standard input: Duplicate object member token: a\\n\n");
}

}  // namespace
