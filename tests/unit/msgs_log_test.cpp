#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "dova/msgs/dova_msgs/Log.h"
#include "msgs_test_bytes.h"

namespace {

using dova::dova_msgs::Log;
using korcommon::testing::compactHex;
using korcommon::testing::encode;
using korcommon::testing::fromHex;
using korcommon::testing::toHex;

constexpr char kExceptionPrefix[] = "Caught dova::json::Exception: ";
constexpr uint64_t kTopBit = uint64_t{1} << 63;

// A record with every field set, two topics, and its encoding.
Log plannerRecord() {
  Log record;
  record.header.seq = 5;
  record.header.stamp.sec = 1700000001;
  record.header.stamp.nsec = 999;
  record.level = Log::ERROR;
  record.name = "leg_controller";
  record.msg = "step failed";
  record.file = "gait.cpp";
  record.function = "plan";
  record.line = 120;
  record.topics = {"a", "bc"};
  record.pid = 1234;
  record.tid = (uint64_t{1} << 40) | 2;  // high bytes in use, still exact as a JSON number
  return record;
}
constexpr char kPlannerRecordHex[] =
    "05000000 01f15365 e7030000 00000000 "    // header: seq, sec, nsec, empty frame_id
    "08 "                                     // level ERROR
    "0e000000 6c65675f636f6e74726f6c6c6572 "  // "leg_controller"
    "0b000000 73746570206661696c6564 "        // "step failed"
    "08000000 676169742e637070 "              // "gait.cpp"
    "04000000 706c616e "                      // "plan"
    "78000000 "                               // line 120
    "02000000 01000000 61 02000000 6263 "     // topics "a", "bc"
    "d204000000000000 0200000000010000";      // pid, tid

void expectSameRecord(const Log& actual, const Log& expected) {
  EXPECT_EQ(actual.header.seq, expected.header.seq);
  EXPECT_EQ(actual.header.stamp.sec, expected.header.stamp.sec);
  EXPECT_EQ(actual.header.stamp.nsec, expected.header.stamp.nsec);
  EXPECT_EQ(actual.header.frame_id, expected.header.frame_id);
  EXPECT_EQ(actual.level, expected.level);
  EXPECT_EQ(actual.name, expected.name);
  EXPECT_EQ(actual.msg, expected.msg);
  EXPECT_EQ(actual.file, expected.file);
  EXPECT_EQ(actual.function, expected.function);
  EXPECT_EQ(actual.line, expected.line);
  EXPECT_EQ(actual.topics, expected.topics);
  EXPECT_EQ(actual.pid, expected.pid);
  EXPECT_EQ(actual.tid, expected.tid);
}

std::string parseCapturingStdout(Log& target, const std::string& json) {
  ::testing::internal::CaptureStdout();
  target.parse(&target, json);
  return ::testing::internal::GetCapturedStdout();
}

TEST(DovaMsgsLog, DescribesItselfWithTheAgreedConstants) {
  const Log record;
  EXPECT_EQ(record.getType(), "dova_msgs/Log");
  EXPECT_EQ(record.getMD5(), "c455707f8997b806ee5cc58566a8ed1c");
  const std::string definition = record.getDefinition();
  EXPECT_EQ(definition.size(), 339u);
  EXPECT_EQ(definition,
            "byte DEBUG=1\nbyte INFO=2\nbyte WARN=4\nbyte ERROR=8\nbyte FATAL=16\n"
            "std_msgs/Header header\nbyte level\nstring name\nstring msg\nstring file\n"
            "string function\nuint32 line\nstring[] topics\nuint64 pid\nuint64 tid\n" +
                std::string(80, '=') +
                "\nMSG: std_msgs/Header\nuint32 seq\ntime stamp\nstring frame_id\n");
  EXPECT_EQ(record.getHeader(), &record.header);
  EXPECT_EQ(Log::DEBUG, 1);
  EXPECT_EQ(Log::INFO, 2);
  EXPECT_EQ(Log::WARN, 4);
  EXPECT_EQ(Log::ERROR, 8);
  EXPECT_EQ(Log::FATAL, 16);
}

TEST(DovaMsgsLog, EmptyRecordEncodesAsFiftySevenBytes) {
  const Log record;
  EXPECT_EQ(record.serializedLength(), 57);
  EXPECT_EQ(toHex(encode(record)), std::string(114, '0'));

  Log sparse;
  sparse.level = Log::FATAL;
  sparse.pid = 1;
  sparse.tid = 2;
  EXPECT_EQ(toHex(encode(sparse)),
            compactHex("00000000 00000000 00000000 00000000 10 00000000 00000000 00000000 "
                       "00000000 00000000 00000000 0100000000000000 0200000000000000"));
}

TEST(DovaMsgsLog, EncodesAFilledRecordAsTheGoldenBytes) {
  const Log record = plannerRecord();
  EXPECT_EQ(record.serializedLength(), 105);
  EXPECT_EQ(toHex(encode(record)), compactHex(kPlannerRecordHex));

  Log with_frame = record;
  with_frame.header.frame_id = "imu";
  with_frame.topics.push_back("");
  // Three frame bytes, then an empty topic costs its four-byte count.
  EXPECT_EQ(with_frame.serializedLength(), 105 + 3 + 4);
  EXPECT_EQ(encode(with_frame).size(), 112u);
}

TEST(DovaMsgsLog, DecodingReplacesTheTopicListOfAReusedRecord) {
  std::vector<uint8_t> bytes = fromHex(kPlannerRecordHex);
  Log record;
  record.header.frame_id = "stale";
  record.level = Log::DEBUG;
  record.name = "stale";
  record.msg = "a stale message that is longer than the new one";
  record.line = 9;
  record.topics = {"one", "two", "three", "four", "five"};
  record.pid = 77;
  EXPECT_EQ(record.deserialize(bytes.data(), static_cast<int>(bytes.size())), 105);
  expectSameRecord(record, plannerRecord());
  ASSERT_EQ(record.topics.size(), 2u);

  // And growing: from no topics to two, and back to none.
  Log grown;
  EXPECT_EQ(grown.deserialize(bytes.data(), static_cast<int>(bytes.size())), 105);
  expectSameRecord(grown, plannerRecord());
  std::vector<uint8_t> empty = encode(Log());
  EXPECT_EQ(grown.deserialize(empty.data(), static_cast<int>(empty.size())), 57);
  expectSameRecord(grown, Log());
}

TEST(DovaMsgsLog, SerializeDeserializeRoundTrips) {
  Log extremes;
  extremes.header.frame_id = std::string("\0\xFF", 2);
  extremes.level = -128;
  extremes.line = std::numeric_limits<uint32_t>::max();
  extremes.topics = {"", std::string(300, 't'), ""};
  extremes.pid = std::numeric_limits<uint64_t>::max();
  extremes.tid = 0;
  for (const Log& original : {Log(), plannerRecord(), extremes}) {
    std::vector<uint8_t> bytes = encode(original);
    Log decoded = plannerRecord();
    EXPECT_EQ(decoded.deserialize(bytes.data(), static_cast<int>(bytes.size())),
              original.serializedLength());
    expectSameRecord(decoded, original);
  }
}

TEST(DovaMsgsLog, LevelByteIsSignExtended) {
  std::vector<uint8_t> bytes = encode(Log());
  bytes[16] = 0xFF;
  Log record;
  record.deserialize(bytes.data(), static_cast<int>(bytes.size()));
  EXPECT_EQ(record.level, -1);
  EXPECT_NE(record.echo().find(R"("level":-1,)"), std::string::npos) << record.echo();
}

TEST(DovaMsgsLog, EchoesOneLineOfJson) {
  EXPECT_EQ(plannerRecord().echo(),
            R"({"header":{"seq":5,"stamp":{"sec":1700000001,"nsec":999},"frame_id":""},)"
            R"("level":8,"name":"leg_controller","msg":"step failed","file":"gait.cpp",)"
            R"("function":"plan","line":120,"topics":["a","bc"],"pid":1234,)"
            R"("tid":1099511627778})");
  EXPECT_EQ(Log().echo(), R"({"header":{"seq":0,"stamp":{"sec":0,"nsec":0},"frame_id":""},)"
                          R"("level":0,"name":"","msg":"","file":"","function":"","line":0,)"
                          R"("topics":[],"pid":0,"tid":0})");

  Log record;
  record.msg = "quote \" tab \t caf\xC3\xA9";
  record.topics = {"/odom\n"};
  record.line = 4294967295u;
  record.pid = std::numeric_limits<uint64_t>::max();
  const std::string text = record.echo();
  EXPECT_NE(text.find(R"("msg":"quote \" tab \t caf\u00e9",)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("line":4294967295,"topics":["/odom\n"],)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("pid":18446744073709551615,)"), std::string::npos) << text;
}

TEST(DovaMsgsLog, EchoThenParseRestoresEveryField) {
  Log unusual = plannerRecord();
  unusual.header.frame_id = "map\\x";
  unusual.level = -128;
  unusual.msg = "multi\nline \"quoted\" \xE2\x82\xAC\x01";
  unusual.topics = {"", "/a", "\xC3\xA9"};
  unusual.pid = 18446744073709549568u;  // 2^64 - 2048: exact as a double
  unusual.tid = kTopBit;
  for (const Log& original : {Log(), plannerRecord(), unusual}) {
    SCOPED_TRACE(original.echo());
    Log parsed = plannerRecord();
    parsed.topics = {"1", "2", "3", "4", "5"};
    EXPECT_EQ(parseCapturingStdout(parsed, original.echo()), "");
    expectSameRecord(parsed, original);
  }
}

TEST(DovaMsgsLog, ParseConvertsNumbersToTheFieldWidths) {
  struct Case {
    const char* json;
    int8_t level;
    uint32_t line;
    uint64_t pid;
  };
  const Case cases[] = {
      {R"({"header":{},"level":2,"line":3.9,"pid":1234.99})", 2, 3, 1234},
      {R"({"header":{},"level":300,"line":-1,"pid":-1})", 44, 4294967295u,
       std::numeric_limits<uint64_t>::max()},
      {R"({"header":{},"level":255,"line":4294967297,"pid":9223372036854775808})", -1, 1, kTopBit},
      {R"({"header":{},"level":-129,"line":1e300,"pid":1e20})", 127, 0, kTopBit},
      {R"({"header":{},"level":1e10,"line":0.5,"pid":12345678901234567890})", 0, 0,
       12345678901234567168u},  // the nearest double
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    Log record = plannerRecord();
    EXPECT_EQ(parseCapturingStdout(record, c.json), "");
    EXPECT_EQ(record.level, c.level);
    EXPECT_EQ(record.line, c.line);
    EXPECT_EQ(record.pid, c.pid);
  }
}

TEST(DovaMsgsLog, ParseTurnsMissingAndMistypedMembersIntoDefaultsSilently) {
  Log record = plannerRecord();
  std::string json = plannerRecord().echo();
  json.replace(json.find(R"("msg":"step failed",)"), 20, "");
  EXPECT_EQ(parseCapturingStdout(record, json), "");
  Log expected = plannerRecord();
  expected.msg.clear();
  expectSameRecord(record, expected);

  record = plannerRecord();
  EXPECT_EQ(
      parseCapturingStdout(
          record, R"({"header":{},"level":"8","name":1,"line":"120","topics":"a","pid":[1]})"),
      "");
  expectSameRecord(record, Log());

  record = plannerRecord();
  EXPECT_EQ(parseCapturingStdout(record, R"({"header":{},"topics":["x",7,null,{"y":1},"z"]})"), "");
  EXPECT_EQ(record.topics, (std::vector<std::string>{"x", "", "", "", "z"}));
}

TEST(DovaMsgsLog, ParseReportsABadHeaderOnceAndStillTakesTheOtherMembers) {
  Log record = plannerRecord();
  EXPECT_EQ(parseCapturingStdout(record, R"({"level":4,"name":"n","line":7,"topics":["t"]})"),
            std::string(kExceptionPrefix) + "Unexpected token: null\n");
  Log expected;
  expected.header = plannerRecord().header;  // untouched
  expected.level = Log::WARN;
  expected.name = "n";
  expected.line = 7;
  expected.topics = {"t"};
  expectSameRecord(record, expected);
}

TEST(DovaMsgsLog, ParseOfUnreadableTextPrintsOneLineAndChangesNothing) {
  const char* const inputs[] = {
      "",   "{", R"({"level":4,})", R"({"topics":["a",]})", R"({"name":"\q"})", R"({"line":1.5.3})",
      "[]",
  };
  for (const char* json : inputs) {
    SCOPED_TRACE(json);
    Log record = plannerRecord();
    const std::string printed = parseCapturingStdout(record, json);
    EXPECT_EQ(printed.rfind(kExceptionPrefix, 0), 0u) << printed;
    EXPECT_EQ(printed.find('\n'), printed.size() - 1) << "exactly one line: " << printed;
    expectSameRecord(record, plannerRecord());
  }
}

TEST(DovaMsgsLog, ParseFillsTheTargetNotTheReceiver) {
  Log receiver = plannerRecord();
  Log target;
  receiver.parse(&target, R"({"header":{"seq":2},"name":"t","topics":["x"],"tid":3})");
  EXPECT_EQ(target.header.seq, 2u);
  EXPECT_EQ(target.name, "t");
  EXPECT_EQ(target.topics, std::vector<std::string>{"x"});
  EXPECT_EQ(target.tid, 3u);
  expectSameRecord(receiver, plannerRecord());
}

}  // namespace
