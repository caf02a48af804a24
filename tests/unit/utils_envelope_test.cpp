#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dova/json/writer.h"
#include "dova/param.h"
#include "korcommon/utils.h"
#include "private_opt.h"
#include "trace_capture.h"

namespace korcommon {
namespace {

using dova::json::Number;
using dova::json::Object;
using dova::json::String;

constexpr char kSerialNumberFile[] = "/opt/quor/imptdata/sn.yaml";

std::string write(const Object& object) {
  std::ostringstream stream;
  dova::json::Writer::Write(object, stream);
  return stream.str();
}

// The reports, each as "function: text"; every one must be at ERROR from the envelope's source
// file.
std::string reportsOf(const testing::TraceCapture& trace) {
  std::string reports;
  for (const testing::TraceReport& report : trace.reports()) {
    EXPECT_EQ(report.level, 8);
    EXPECT_NE(report.file.find("utils"), std::string::npos);
    reports += report.function + ": " + report.text + "\n";
  }
  return reports;
}

double wallClockMilliseconds() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::milli>(since_epoch).count();
}

class SignalEnvelopeCreate : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    std::filesystem::remove_all("/opt/quor");
    dova::Param(kSerialNumberFile).set("sn", "RB-0001");
  }
  void TearDown() override { std::filesystem::remove_all("/opt/quor"); }
};

// The envelope as the text overload and the object overload make it from `arguments`.
template <typename... Arguments>
std::vector<std::string> bothForms(const Arguments&... arguments) {
  return {createSigString(arguments...), write(createSigJson(arguments...))};
}

TEST_F(SignalEnvelopeCreate, FillsTheMembersInOrderFromWhatItIsGiven) {
  Object pose;
  pose["x"] = Number(0.5);
  const double before = wallClockMilliseconds();
  // Per payload: guid and timestamp given, the guid only, the timestamp only, neither.
  const std::vector<std::vector<std::string>> made = {
      bothForms("walk", "g-1", 7L, "on"), bothForms("walk", "g-1", "on"),
      bothForms("walk", 7L, "on"),        bothForms("walk", "on"),
      bothForms("walk", "g-1", 7L, pose), bothForms("walk", "g-1", pose),
      bothForms("walk", 7L, pose),        bothForms("walk", pose)};
  const double after = wallClockMilliseconds();
  // A generated guid is written as "G" and a generated timestamp as 0 below.
  std::vector<std::string> actual;
  std::vector<std::string> expected;
  std::set<std::string> guids;
  bool fractional = false;
  for (size_t call = 0; call < made.size(); ++call) {
    const bool guid_given = call % 4 < 2;
    const bool timestamp_given = call % 2 == 0;
    for (const std::string& text : made[call]) {
      Object envelope = parseSigToJson(text);
      if (!guid_given) {
        guids.insert(getSigString(envelope["guid"]));
        envelope["guid"] = String("G");
      }
      if (!timestamp_given) {
        // One millisecond of slack for the two clocks' rounding.
        const double milliseconds = getSigNumber(envelope["timestamp"]);
        EXPECT_TRUE(milliseconds >= before - 1 && milliseconds <= after + 1) << milliseconds;
        fractional = fractional || std::floor(milliseconds) != milliseconds;
        envelope["timestamp"] = Number(0);
      }
      actual.push_back(write(envelope));
      expected.push_back(std::string(R"({"accid":"RB-0001","title":"walk","guid":)") +
                         (guid_given ? R"("g-1")" : R"("G")") +
                         ",\"timestamp\":" + (timestamp_given ? "7" : "0") +
                         (call < 4 ? R"(,"data":"on"})" : R"(,"data":{"x":0.5}})"));
    }
  }
  EXPECT_EQ(actual, expected);
  EXPECT_EQ(guids.size(), 8u);
  for (const std::string& guid : guids) EXPECT_EQ(guid.size(), 36u) << guid;
  EXPECT_TRUE(fractional) << "generated timestamps keep the sub-millisecond part";

  // Payloads and timestamps are stored as given.
  const std::string head = R"({"accid":"RB-0001","title":"t","guid":"g","timestamp":)";
  EXPECT_EQ(createSigString("t", "g", 1L, R"({"x":1})"), head + R"(1,"data":"{\"x\":1}"})");
  EXPECT_EQ(createSigString("t", "g", 1L, Object()), head + R"(1,"data":{}})");
  EXPECT_EQ(createSigString("t", "g", -1L, "d"), head + R"(-1,"data":"d"})");
  EXPECT_EQ(createSigString("t", "g", 9007199254740993L, "d"),
            head + R"(9007199254740992,"data":"d"})");
  EXPECT_EQ(createSigString("", "", 1L, ""),
            R"({"accid":"RB-0001","title":"","guid":"","timestamp":1,"data":""})");

  // Envelope names inside the payload stay nested; the payload is a deep copy.
  Object payload;
  payload["accid"] = String("forged");
  payload["inner"]["k"] = Number(1);
  const Object envelope = createSigJson("t", "g", 1L, payload);
  payload["inner"]["k"] = Number(2);
  EXPECT_EQ(write(envelope), head + R"(1,"data":{"accid":"forged","inner":{"k":1}}})");

  // The accid is read from the serial number file on every call.
  testing::TraceCapture trace;
  dova::Param(kSerialNumberFile).set("sn", "RB-0002");
  EXPECT_EQ(parseSigAccid(createSigString("t", "d")), "RB-0002");
  // A file without the key, and no file at all, give "" silently.
  std::filesystem::remove(kSerialNumberFile);
  dova::Param(kSerialNumberFile).set("other", "x");
  EXPECT_EQ(getRobotAccid(), "");
  std::filesystem::remove_all("/opt/quor");
  EXPECT_EQ(createSigString("t", "g", 1L, "d"),
            R"({"accid":"","title":"t","guid":"g","timestamp":1,"data":"d"})");
  EXPECT_EQ(reportsOf(trace), "");

  // A file the platform cannot read: its error is reported, and the envelope is still made.
  for (const std::string content : {"- not\n- a mapping\n", "sn: [1, 2]\n"}) {
    std::filesystem::create_directories("/opt/quor/imptdata");
    std::ofstream(kSerialNumberFile) << content;
    std::string platform_error = "none";
    try {
      std::string value;
      dova::Param(kSerialNumberFile).get("sn", value);
    } catch (const std::runtime_error& error) {
      platform_error = error.what();
    }
    testing::TraceCapture unreadable;
    EXPECT_EQ(parseSigAccid(createSigString("t", "d")), "");
    EXPECT_EQ(reportsOf(unreadable), "getRobotAccid: " + platform_error + "\n");
  }
}

}  // namespace
}  // namespace korcommon
