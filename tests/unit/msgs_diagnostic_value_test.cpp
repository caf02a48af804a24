#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "msgs_test_bytes.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using korcommon::testing::bytesAsString;
using korcommon::testing::compactHex;
using korcommon::testing::encode;
using korcommon::testing::fromHex;
using korcommon::testing::toHex;

constexpr char kExceptionPrefix[] = "Caught dova::json::Exception: ";
constexpr int32_t kInt32Min = std::numeric_limits<int32_t>::min();

// The motor report used throughout, and its encoding.
DiagnosticValue motorReport() {
  DiagnosticValue value;
  value.header.seq = 42;
  value.header.stamp.sec = 1700000000;
  value.header.stamp.nsec = 250000000;
  value.header.frame_id = "base";
  value.level = DiagnosticValue::WARN;
  value.name = "motor_temp";
  value.code = 3;
  value.message = "temperature 71.5 C above limit";
  return value;
}
constexpr char kMotorReportHex[] =
    "2a000000 00f15365 80b2e60e 04000000 62617365 "  // header: seq, sec, nsec, "base"
    "01000000 "                                      // level
    "0a000000 6d6f746f725f74656d70 "                 // "motor_temp"
    "03000000 "                                      // code
    "1e000000 74656d70657261747572652037312e3520432061626f7665206c696d6974";

void expectSameValue(const DiagnosticValue& actual, const DiagnosticValue& expected) {
  EXPECT_EQ(actual.header.seq, expected.header.seq);
  EXPECT_EQ(actual.header.stamp.sec, expected.header.stamp.sec);
  EXPECT_EQ(actual.header.stamp.nsec, expected.header.stamp.nsec);
  EXPECT_EQ(actual.header.frame_id, expected.header.frame_id);
  EXPECT_EQ(actual.level, expected.level);
  EXPECT_EQ(actual.name, expected.name);
  EXPECT_EQ(actual.code, expected.code);
  EXPECT_EQ(actual.message, expected.message);
}

std::string parseCapturingStdout(DiagnosticValue& target, const std::string& json) {
  ::testing::internal::CaptureStdout();
  target.parse(&target, json);
  return ::testing::internal::GetCapturedStdout();
}

TEST(DiagnosticValue, DescribesItselfWithTheAgreedConstants) {
  const DiagnosticValue value;
  EXPECT_EQ(value.getType(), "diagnostic_msgs/DiagnosticValue");
  EXPECT_EQ(value.getMD5(), "879d5c821998ca0ab6e3520e8c63e5fc");
  const std::string definition = value.getDefinition();
  EXPECT_EQ(definition.size(), 251u);
  EXPECT_EQ(definition,
            "std_msgs/Header header\nint32 OK=0\nint32 WARN=1\nint32 ERROR=2\nint32 level\n"
            "string name\nint32 code\nstring message\n" +
                std::string(80, '=') +
                "\nMSG: std_msgs/Header\nuint32 seq\ntime stamp\nstring frame_id\n");
  EXPECT_EQ(value.getHeader(), &value.header);
  EXPECT_EQ(DiagnosticValue::OK, 0);
  EXPECT_EQ(DiagnosticValue::WARN, 1);
  EXPECT_EQ(DiagnosticValue::ERROR, 2);
}

TEST(DiagnosticValue, DefaultMessageEncodesAsThirtyTwoZeroBytes) {
  const DiagnosticValue value;
  EXPECT_EQ(value.serializedLength(), 32);
  EXPECT_EQ(toHex(encode(value)), std::string(64, '0'));
}

TEST(DiagnosticValue, PlacesEachFieldAfterTheVariableLengthOnesBeforeIt) {
  DiagnosticValue value;
  value.header.frame_id = "f";
  value.level = -2;
  value.name = "nm";
  value.code = 0x01020304;
  value.message = "abc";
  ASSERT_EQ(value.serializedLength(), 38);
  const std::vector<uint8_t> bytes = encode(value);
  ASSERT_EQ(bytes.size(), 38u);
  const auto u32At = [&bytes](size_t offset) {
    uint32_t field = 0;
    std::memcpy(&field, bytes.data() + offset, sizeof field);
    return field;
  };
  EXPECT_EQ(u32At(12), 1u);  // frame_id length
  EXPECT_EQ(bytes[16], 'f');
  EXPECT_EQ(u32At(17), 0xFFFFFFFEu);  // level -2
  EXPECT_EQ(u32At(21), 2u);           // name length
  EXPECT_EQ(std::string(bytes.begin() + 25, bytes.begin() + 27), "nm");
  EXPECT_EQ(u32At(27), 0x01020304u);  // code
  EXPECT_EQ(u32At(31), 3u);           // message length
  EXPECT_EQ(std::string(bytes.begin() + 35, bytes.end()), "abc");
}

TEST(DiagnosticValue, EncodesAFilledReportAsTheGoldenBytes) {
  const DiagnosticValue value = motorReport();
  EXPECT_EQ(value.serializedLength(), 76);
  EXPECT_EQ(toHex(encode(value)), compactHex(kMotorReportHex));
}

TEST(DiagnosticValue, DecodesTheGoldenBytesIntoAReusedMessage) {
  std::vector<uint8_t> bytes = fromHex(kMotorReportHex);
  DiagnosticValue value;
  value.header.frame_id = "a frame id longer than the encoded one";
  value.level = DiagnosticValue::ERROR;
  value.name = "stale name that must go";
  value.code = -77;
  value.message = "stale message";
  value.caller_id = "sender";
  EXPECT_EQ(value.deserialize(bytes.data(), static_cast<int>(bytes.size())), 76);
  expectSameValue(value, motorReport());
  EXPECT_EQ(value.caller_id, "sender");  // not part of the encoding
}

TEST(DiagnosticValue, SerializeDeserializeRoundTrips) {
  DiagnosticValue extremes;
  extremes.header.seq = 0xFFFFFFFF;
  extremes.level = kInt32Min;
  extremes.name = bytesAsString({0x00, 0xFF, '"', '\n'});
  extremes.code = std::numeric_limits<int32_t>::max();
  extremes.message = std::string(1000, 'm');
  for (const DiagnosticValue& original : {DiagnosticValue(), motorReport(), extremes}) {
    std::vector<uint8_t> bytes = encode(original);
    DiagnosticValue decoded = motorReport();
    EXPECT_EQ(decoded.deserialize(bytes.data(), static_cast<int>(bytes.size())),
              original.serializedLength());
    expectSameValue(decoded, original);
  }
}

TEST(DiagnosticValue, EchoesOneLineOfJson) {
  EXPECT_EQ(motorReport().echo(),
            R"({"header":{"seq":42,"stamp":{"sec":1700000000,"nsec":250000000},)"
            R"("frame_id":"base"},"level":1,"name":"motor_temp","code":3,)"
            R"("message":"temperature 71.5 C above limit"})");
  EXPECT_EQ(DiagnosticValue().echo(),
            R"({"header":{"seq":0,"stamp":{"sec":0,"nsec":0},"frame_id":""},)"
            R"("level":0,"name":"","code":0,"message":""})");

  DiagnosticValue value;
  value.level = kInt32Min;
  value.code = -1;
  value.name = "\xC3\xA9t\xC3\xA9";
  value.message = "line one\nline two";
  EXPECT_EQ(value.echo(), R"({"header":{"seq":0,"stamp":{"sec":0,"nsec":0},"frame_id":""},)"
                          R"("level":-2147483648,"name":"\u00e9t\u00e9","code":-1,)"
                          R"("message":"line one\nline two"})");
}

TEST(DiagnosticValue, EchoThenParseRestoresEveryField) {
  DiagnosticValue unusual;
  unusual.header.seq = 4294967295u;
  unusual.header.frame_id = "caf\xC3\xA9/\"x\"";
  unusual.level = kInt32Min;
  unusual.name = "tab\there \xE2\x82\xAC";
  unusual.code = std::numeric_limits<int32_t>::max();
  unusual.message = "back\\slash\r\n\x01";
  for (const DiagnosticValue& original : {DiagnosticValue(), motorReport(), unusual}) {
    SCOPED_TRACE(original.echo());
    DiagnosticValue parsed = motorReport();
    parsed.header.frame_id = "stale";
    EXPECT_EQ(parseCapturingStdout(parsed, original.echo()), "");
    expectSameValue(parsed, original);
  }
}

TEST(DiagnosticValue, ParseTruncatesLevelAndCodeToInt32) {
  struct Case {
    const char* json;
    int32_t level;
    int32_t code;
  };
  const Case cases[] = {
      {R"({"header":{},"level":2.9,"code":-2.9})", 2, -2},
      {R"({"header":{},"level":2147483647,"code":-2147483648})", 2147483647, kInt32Min},
      {R"({"header":{},"level":2147483648,"code":-2147483649})", kInt32Min, kInt32Min},
      {R"({"header":{},"level":1e300,"code":4294967297})", kInt32Min, kInt32Min},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    DiagnosticValue value = motorReport();
    EXPECT_EQ(parseCapturingStdout(value, c.json), "");
    EXPECT_EQ(value.level, c.level);
    EXPECT_EQ(value.code, c.code);
  }
}

TEST(DiagnosticValue, ParseTurnsMissingAndMistypedMembersIntoDefaultsSilently) {
  DiagnosticValue value = motorReport();
  EXPECT_EQ(parseCapturingStdout(value, R"({"header":{"seq":3},"level":"2","name":7,)"
                                        R"("code":[1],"message":{"a":1}})"),
            "");
  DiagnosticValue expected;
  expected.header.seq = 3;  // a partial header still replaces every header field
  expectSameValue(value, expected);

  value = motorReport();
  EXPECT_EQ(parseCapturingStdout(value, R"({"header":{},"name":"n"})"), "");
  expected = DiagnosticValue();
  expected.name = "n";
  expectSameValue(value, expected);
}

TEST(DiagnosticValue, ParseReportsABadHeaderOnceAndStillTakesTheOtherMembers) {
  struct Case {
    const char* json;
    const char* printed;
  };
  const Case cases[] = {
      // A missing header is added as null, and null is not an object.
      {R"({"level":2,"name":"n","code":5,"message":"m"})",
       "Caught dova::json::Exception: Unexpected token: null\n"},
      {R"({"header":17,"level":2,"name":"n","code":5,"message":"m"})",
       "Caught dova::json::Exception: Unexpected token: 17\n"},
      {R"({"header":"h","level":2,"name":"n","code":5,"message":"m"})",
       "Caught dova::json::Exception: Unexpected token: h\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    DiagnosticValue value = motorReport();
    EXPECT_EQ(parseCapturingStdout(value, c.json), c.printed);
    DiagnosticValue expected = motorReport();  // header untouched
    expected.level = 2;
    expected.name = "n";
    expected.code = 5;
    expected.message = "m";
    expectSameValue(value, expected);
  }
}

TEST(DiagnosticValue, ParseOfUnreadableTextPrintsOneLineAndChangesNothing) {
  const char* const inputs[] = {
      "",
      "not json",
      R"({"header":{"seq":1},"level":1)",
      R"({"level":1,"level":2})",
      R"(["header"])",
      R"({"header":{"seq":1}} trailing)",
  };
  for (const char* json : inputs) {
    SCOPED_TRACE(json);
    DiagnosticValue value = motorReport();
    const std::string printed = parseCapturingStdout(value, json);
    EXPECT_EQ(printed.rfind(kExceptionPrefix, 0), 0u) << printed;
    EXPECT_EQ(printed.find('\n'), printed.size() - 1) << "exactly one line: " << printed;
    expectSameValue(value, motorReport());
  }
}

TEST(DiagnosticValue, ParseFillsTheTargetNotTheReceiver) {
  DiagnosticValue receiver = motorReport();
  DiagnosticValue target;
  receiver.parse(&target, R"({"header":{"seq":1},"level":2,"name":"t","code":4,"message":""})");
  EXPECT_EQ(target.header.seq, 1u);
  EXPECT_EQ(target.name, "t");
  EXPECT_EQ(target.code, 4);
  expectSameValue(receiver, motorReport());
}

}  // namespace
