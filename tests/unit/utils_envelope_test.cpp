#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "dova/param.h"
#include "korcommon/utils.h"
#include "private_opt.h"
#include "trace_capture.h"

namespace korcommon {
namespace {

using dova::json::Object;
using dova::json::UnknownElement;

constexpr char kSerialNumberFile[] = "/opt/quor/imptdata/sn.yaml";

double wallClockMilliseconds() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::milli>(since_epoch).count();
}

std::vector<std::string> memberNames(const Object& object) {
  std::vector<std::string> names;
  for (const auto& member : object) names.push_back(member.name);
  return names;
}

Object readText(const std::string& text) {
  Object object;
  std::istringstream stream(text);
  dova::json::Reader::Read(object, stream);
  return object;
}

std::string writeText(const Object& object) {
  std::stringstream stream;
  dova::json::Writer::Write(object, stream);
  return stream.str();
}

void writeSerialNumberFile(const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(kSerialNumberFile).parent_path());
  std::ofstream(kSerialNumberFile) << content;
}

// 36 characters: lowercase hexadecimal digits in groups of 8-4-4-4-12 joined by hyphens.
bool isUuid(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool hyphen_position = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = text[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (hyphen_position ? c != '-' : !hex) return false;
  }
  return true;
}

// What the envelope must hold; an unset guid or timestamp must have been generated.
struct Expected {
  std::string title;
  std::optional<std::string> guid;
  std::optional<double> timestamp;
  UnknownElement data;
};

// Checks an envelope made between `made_after` and `made_before` (wall-clock milliseconds).
void expectEnvelope(const Object& envelope, const Expected& expected, double made_after,
                    double made_before) {
  ASSERT_EQ(memberNames(envelope),
            (std::vector<std::string>{"accid", "title", "guid", "timestamp", "data"}));
  EXPECT_EQ(getSigString(envelope.Find("accid")->element), "RB-0001");
  EXPECT_EQ(getSigString(envelope.Find("title")->element), expected.title);
  const std::string guid = getSigString(envelope.Find("guid")->element);
  if (expected.guid) {
    EXPECT_EQ(guid, *expected.guid);
  } else {
    EXPECT_TRUE(isUuid(guid)) << guid;
  }
  const double timestamp = getSigNumber(envelope.Find("timestamp")->element);
  if (expected.timestamp) {
    EXPECT_EQ(timestamp, *expected.timestamp);
  } else {
    // One millisecond of slack for the two clocks' rounding.
    EXPECT_GE(timestamp, made_after - 1.0);
    EXPECT_LE(timestamp, made_before + 1.0);
  }
  EXPECT_TRUE(envelope.Find("data")->element == expected.data);
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

TEST_F(SignalEnvelopeCreate, ExamplesAreByteExact) {
  EXPECT_EQ(createSigString("walk", "g-1", 1700000000123L, "on"),
            R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":1700000000123,)"
            R"("data":"on"})");

  Object pose;
  pose["x"] = dova::json::Number(0.5);
  EXPECT_EQ(createSigString("pose", "g-2", 5L, pose),
            R"({"accid":"RB-0001","title":"pose","guid":"g-2","timestamp":5,"data":{"x":0.5}})");
}

TEST_F(SignalEnvelopeCreate, JsonOverloadsFillEveryMemberInOrder) {
  Object payload;
  payload["speed"] = dova::json::Number(1.25);
  payload["on"] = dova::json::Boolean(true);
  const UnknownElement text_data = dova::json::String("on");
  const UnknownElement object_data = payload;

  const double before = wallClockMilliseconds();
  const std::vector<std::pair<Object, Expected>> cases = {
      {createSigJson("walk", "g-1", 7L, "on"), {"walk", "g-1", 7.0, text_data}},
      {createSigJson("walk", "g-1", "on"), {"walk", "g-1", std::nullopt, text_data}},
      {createSigJson("walk", 7L, "on"), {"walk", std::nullopt, 7.0, text_data}},
      {createSigJson("walk", "on"), {"walk", std::nullopt, std::nullopt, text_data}},
      {createSigJson("pose", "g-2", 7L, payload), {"pose", "g-2", 7.0, object_data}},
      {createSigJson("pose", "g-2", payload), {"pose", "g-2", std::nullopt, object_data}},
      {createSigJson("pose", 7L, payload), {"pose", std::nullopt, 7.0, object_data}},
      {createSigJson("pose", payload), {"pose", std::nullopt, std::nullopt, object_data}},
  };
  const double after = wallClockMilliseconds();

  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("createSigJson overload #" + std::to_string(i + 1));
    expectEnvelope(cases[i].first, cases[i].second, before, after);
  }
}

TEST_F(SignalEnvelopeCreate, StringOverloadsWriteTheSameEnvelopeAsCompactText) {
  Object payload;
  payload["speed"] = dova::json::Number(1.25);
  const UnknownElement text_data = dova::json::String("on");
  const UnknownElement object_data = payload;

  const double before = wallClockMilliseconds();
  const std::vector<std::pair<std::string, Expected>> cases = {
      {createSigString("walk", "g-1", 7L, "on"), {"walk", "g-1", 7.0, text_data}},
      {createSigString("walk", "g-1", "on"), {"walk", "g-1", std::nullopt, text_data}},
      {createSigString("walk", 7L, "on"), {"walk", std::nullopt, 7.0, text_data}},
      {createSigString("walk", "on"), {"walk", std::nullopt, std::nullopt, text_data}},
      {createSigString("pose", "g-2", 7L, payload), {"pose", "g-2", 7.0, object_data}},
      {createSigString("pose", "g-2", payload), {"pose", "g-2", std::nullopt, object_data}},
      {createSigString("pose", 7L, payload), {"pose", std::nullopt, 7.0, object_data}},
      {createSigString("pose", payload), {"pose", std::nullopt, std::nullopt, object_data}},
  };
  const double after = wallClockMilliseconds();

  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("createSigString overload #" + std::to_string(i + 1) + ": " + cases[i].first);
    const Object envelope = readText(cases[i].first);
    expectEnvelope(envelope, cases[i].second, before, after);
    // Compact: the text is exactly the writer's output, no whitespace anywhere.
    EXPECT_EQ(cases[i].first, writeText(envelope));
    EXPECT_EQ(cases[i].first.find_first_of(" \t\n"), std::string::npos);
  }
}

TEST_F(SignalEnvelopeCreate, GeneratedGuidsAndTimestampsAreFresh) {
  std::set<std::string> guids;
  bool fractional_timestamp = false;
  for (int i = 0; i < 5; ++i) {
    const Object envelope = createSigJson("t", "d");
    guids.insert(getSigString(envelope.Find("guid")->element));
    const double timestamp = getSigNumber(envelope.Find("timestamp")->element);
    fractional_timestamp = fractional_timestamp || std::floor(timestamp) != timestamp;
  }
  EXPECT_EQ(guids.size(), 5u);
  for (const std::string& guid : guids) EXPECT_EQ(guid.size(), 36u) << guid;
  // Milliseconds carry the sub-millisecond part; whole milliseconds five times would mean the
  // nanoseconds were dropped.
  EXPECT_TRUE(fractional_timestamp);
}

TEST_F(SignalEnvelopeCreate, GeneratedTimestampTextKeepsTwentyDigits) {
  // The generated form of 1700000000 s and 123456789 ns, as written into the envelope text.
  Object envelope = createSigJson("walk", "g-1", 0L, "on");
  envelope["timestamp"] = dova::json::Number(1700000000.0 * 1000.0 + 123456789.0 * 0.000001);
  const std::string text = writeText(envelope);
  EXPECT_EQ(text,
            R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":1700000000123.4567871,)"
            R"("data":"on"})");
  // A receiver keeps the whole milliseconds.
  EXPECT_EQ(parseSigTimestamp(text), 1700000000123L);
}

TEST_F(SignalEnvelopeCreate, PayloadsAreStoredAsGiven) {
  // JSON inside a text payload stays text, escaped by the writer.
  EXPECT_EQ(createSigString("t", "g", 1L, R"({"x":1})"),
            R"({"accid":"RB-0001","title":"t","guid":"g","timestamp":1,"data":"{\"x\":1}"})");
  EXPECT_EQ(createSigString("t", "g", 1L, Object()),
            R"({"accid":"RB-0001","title":"t","guid":"g","timestamp":1,"data":{}})");

  // Envelope names inside the payload are nested, not merged into the envelope.
  Object impostor;
  impostor["accid"] = dova::json::String("forged");
  impostor["guid"] = dova::json::Number(3);
  EXPECT_EQ(createSigString("t", "g", 1L, impostor),
            R"({"accid":"RB-0001","title":"t","guid":"g","timestamp":1,)"
            R"("data":{"accid":"forged","guid":3}})");

  // The payload is a deep copy: changing the caller's object later leaves the envelope alone.
  Object payload;
  payload["inner"]["k"] = dova::json::Number(1);
  const Object envelope = createSigJson("t", "g", 1L, payload);
  payload["inner"]["k"] = dova::json::Number(2);
  payload["added"] = dova::json::Boolean(true);
  EXPECT_EQ(writeText(envelope),
            R"({"accid":"RB-0001","title":"t","guid":"g","timestamp":1,"data":{"inner":{"k":1}}})");

  // Empty title and guid are stored without complaint.
  EXPECT_EQ(createSigString("", "", 1L, ""),
            R"({"accid":"RB-0001","title":"","guid":"","timestamp":1,"data":""})");
}

TEST_F(SignalEnvelopeCreate, GivenTimestampsConvertToDouble) {
  EXPECT_EQ(createSigString("t", "g", -1L, "d"),
            R"({"accid":"RB-0001","title":"t","guid":"g","timestamp":-1,"data":"d"})");
  // Above 2^53 the conversion to double loses the low digits.
  EXPECT_EQ(createSigString("t", "g", 9007199254740993L, "d"),
            R"({"accid":"RB-0001","title":"t","guid":"g","timestamp":9007199254740992,)"
            R"("data":"d"})");
}

TEST_F(SignalEnvelopeCreate, AccidIsReadFromTheSerialNumberFileOnEveryCall) {
  testing::TraceCapture trace;
  EXPECT_EQ(getRobotAccid(), "RB-0001");

  // Not cached: a serial number written now is carried by the next envelope.
  dova::Param(kSerialNumberFile).set("sn", "RB-0002");
  EXPECT_EQ(getRobotAccid(), "RB-0002");
  EXPECT_EQ(parseSigAccid(createSigString("t", "d")), "RB-0002");

  // A file without the key, and no file at all, give "" silently.
  std::filesystem::remove(kSerialNumberFile);
  dova::Param(kSerialNumberFile).set("other", "x");
  EXPECT_EQ(getRobotAccid(), "");
  std::filesystem::remove_all("/opt/quor");
  EXPECT_EQ(getRobotAccid(), "");
  EXPECT_EQ(createSigString("t", "g", 1L, "d"),
            R"({"accid":"","title":"t","guid":"g","timestamp":1,"data":"d"})");
  EXPECT_TRUE(trace.reports().empty());
}

TEST_F(SignalEnvelopeCreate, UnreadableSerialNumberFileIsReportedAndGivesEmptyAccid) {
  // A file that is not a mapping, and a mapping whose "sn" is not text.
  for (const std::string content : {"- not\n- a mapping\n", "sn: [1, 2]\n"}) {
    SCOPED_TRACE(content);
    writeSerialNumberFile(content);
    std::string expected_text;
    try {
      std::string value;
      dova::Param(kSerialNumberFile).get("sn", value);
    } catch (const std::runtime_error& error) {
      expected_text = error.what();
    }
    ASSERT_FALSE(expected_text.empty()) << "the platform accepted a malformed file";

    testing::TraceCapture trace;
    EXPECT_EQ(getRobotAccid(), "");
    ASSERT_EQ(trace.reports().size(), 1u);
    EXPECT_EQ(trace.reports()[0].function, "getRobotAccid");
    EXPECT_EQ(trace.reports()[0].level, 8);
    EXPECT_EQ(trace.reports()[0].text, expected_text);

    // The envelope is still made, with an empty accid.
    trace.clear();
    EXPECT_EQ(createSigString("t", "g", 1L, "d"),
              R"({"accid":"","title":"t","guid":"g","timestamp":1,"data":"d"})");
    ASSERT_EQ(trace.reports().size(), 1u);
    EXPECT_EQ(trace.reports()[0].function, "getRobotAccid");
  }
}

}  // namespace
}  // namespace korcommon
