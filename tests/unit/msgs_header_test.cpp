#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "dova/msgs/number_cast.h"
#include "dova/msgs/std_msgs/Header.h"
#include "msgs_test_bytes.h"

namespace {

using dova::std_msgs::Header;
using korcommon::testing::bytesAsString;
using korcommon::testing::compactHex;
using korcommon::testing::encode;
using korcommon::testing::fromHex;
using korcommon::testing::toHex;

constexpr char kExceptionPrefix[] = "Caught dova::json::Exception: ";

Header makeHeader(uint32_t seq, uint32_t sec, uint32_t nsec, std::string frame_id) {
  Header header;
  header.seq = seq;
  header.stamp.sec = sec;
  header.stamp.nsec = nsec;
  header.frame_id = std::move(frame_id);
  return header;
}

void expectSameHeader(const Header& actual, const Header& expected) {
  EXPECT_EQ(actual.seq, expected.seq);
  EXPECT_EQ(actual.stamp.sec, expected.stamp.sec);
  EXPECT_EQ(actual.stamp.nsec, expected.stamp.nsec);
  EXPECT_EQ(actual.frame_id, expected.frame_id);
}

// Runs parse and returns what it printed on standard output.
std::string parseCapturingStdout(Header& target, const std::string& json) {
  ::testing::internal::CaptureStdout();
  target.parse(&target, json);
  return ::testing::internal::GetCapturedStdout();
}

TEST(StdMsgsHeader, DescribesItselfWithTheAgreedConstants) {
  const Header header;
  EXPECT_EQ(header.getType(), "std_msgs/Header");
  EXPECT_EQ(header.getMD5(), "2176decaecbce78abc3b96ef049fabed");
  EXPECT_EQ(header.getDefinition(), "uint32 seq\ntime stamp\nstring frame_id\n");
  EXPECT_EQ(header.getDefinition().size(), 38u);
  EXPECT_EQ(header.getHeader(), nullptr);
  EXPECT_EQ(header.seq, 0u);
  EXPECT_EQ(header.stamp.sec, 0u);
  EXPECT_EQ(header.stamp.nsec, 0u);
  EXPECT_TRUE(header.frame_id.empty());
  EXPECT_TRUE(header.caller_id.empty());
}

TEST(StdMsgsHeader, EncodesFieldsAtFixedLittleEndianOffsets) {
  EXPECT_EQ(toHex(encode(makeHeader(7, 12, 500, "base"))),
            compactHex("07000000 0c000000 f4010000 04000000 62617365"));
  // An empty frame_id still carries its four-byte zero count.
  EXPECT_EQ(toHex(encode(Header())), compactHex("00000000 00000000 00000000 00000000"));
  EXPECT_EQ(toHex(encode(makeHeader(0xFFFFFFFF, 0x01020304, 999999999, "x"))),
            compactHex("ffffffff 04030201 ffc99a3b 01000000 78"));
  // Any byte value is carried, NUL included.
  EXPECT_EQ(toHex(encode(makeHeader(1, 2, 3, bytesAsString({0x00, 0xFF, 0x0A})))),
            compactHex("01000000 02000000 03000000 03000000 00ff0a"));
}

TEST(StdMsgsHeader, SerializeWritesExactlyItsLengthAtAnUnalignedPosition) {
  const Header header = makeHeader(7, 12, 500, "base");
  ASSERT_EQ(header.serializedLength(), 20);
  std::vector<uint8_t> buffer(1 + 20 + 8, 0xAB);
  EXPECT_EQ(header.serialize(buffer.data() + 1, 20), 20);
  EXPECT_EQ(toHex(buffer), compactHex("ab 07000000 0c000000 f4010000 04000000 62617365 "
                                      "abababababababab"));
}

TEST(StdMsgsHeader, DeserializeReplacesEveryFieldOfAReusedMessage) {
  std::vector<uint8_t> bytes = fromHex("ab 07000000 0c000000 f4010000 04000000 62617365 cdcd");
  Header header = makeHeader(99, 98, 97, "a much longer frame id than the encoded one");
  EXPECT_EQ(header.deserialize(bytes.data() + 1, 20), 20);
  expectSameHeader(header, makeHeader(7, 12, 500, "base"));

  // A round trip of a binary frame id into the same, now longer, message.
  const Header binary = makeHeader(0x80000001, 0xFFFFFFFE, 0, bytesAsString({0, 1, 0x7F, 0xC3}));
  bytes = encode(binary);
  EXPECT_EQ(header.deserialize(bytes.data(), static_cast<int>(bytes.size())), 20);
  expectSameHeader(header, binary);
}

TEST(StdMsgsHeader, EchoesOneLineOfJson) {
  EXPECT_EQ(makeHeader(7, 12, 500, "base").echo(),
            R"({"seq":7,"stamp":{"sec":12,"nsec":500},"frame_id":"base"})");
  EXPECT_EQ(Header().echo(), R"({"seq":0,"stamp":{"sec":0,"nsec":0},"frame_id":""})");
  EXPECT_EQ(makeHeader(4294967295u, 4294967295u, 4294967295u, "a\"b\\c\n").echo(),
            R"({"seq":4294967295,"stamp":{"sec":4294967295,"nsec":4294967295},)"
            R"("frame_id":"a\"b\\c\n"})");
}

TEST(StdMsgsHeader, EchoThenParseRestoresEveryField) {
  const std::vector<Header> originals = {
      Header(),
      makeHeader(7, 12, 500, "base"),
      makeHeader(4294967295u, 1700000000, 999999999, "odom/\"quoted\"\\tab\tline\n"),
      makeHeader(3, 4, 5, "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \x01\x7F"),
  };
  for (const Header& original : originals) {
    SCOPED_TRACE(original.echo());
    Header parsed = makeHeader(11, 22, 33, "stale");
    EXPECT_EQ(parseCapturingStdout(parsed, original.echo()), "");
    expectSameHeader(parsed, original);
  }
}

TEST(StdMsgsHeader, ParseTruncatesNumbersAndKeepsTheLow32Bits) {
  struct Case {
    const char* json;
    uint32_t seq;
  };
  const Case cases[] = {
      {R"({"seq":4294967297})", 1},        // 2^32 + 1
      {R"({"seq":-1})", 4294967295u},      // two's complement
      {R"({"seq":3.9})", 3},               // toward zero
      {R"({"seq":-0.9})", 0},              // toward zero, not floor
      {R"({"seq":-4294967295})", 1},       // low bits of a negative
      {R"({"seq":1e19})", 0},              // beyond int64: low bits of -2^63
      {R"({"seq":9007199254740993})", 0},  // rounds to 2^53 as a double
      {R"({"seq":1e400})", 0},             // overflowing text
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    Header header = makeHeader(5, 5, 5, "x");
    EXPECT_EQ(parseCapturingStdout(header, c.json), "");
    EXPECT_EQ(header.seq, c.seq);
  }

  Header header;
  parseCapturingStdout(header, R"({"stamp":{"sec":12.7,"nsec":2500000000}})");
  EXPECT_EQ(header.stamp.sec, 12u);
  EXPECT_EQ(header.stamp.nsec, 2500000000u);  // not normalised into sec
}

TEST(StdMsgsHeader, ParseTurnsMissingAndMistypedMembersIntoDefaultsSilently) {
  Header header = makeHeader(1, 2, 3, "old");
  EXPECT_EQ(parseCapturingStdout(header, R"({"seq":7,"stamp":{"sec":12,"nsec":500}})"), "");
  expectSameHeader(header, makeHeader(7, 12, 500, ""));

  header = makeHeader(1, 2, 3, "old");
  EXPECT_EQ(
      parseCapturingStdout(header, R"({"seq":"7","stamp":[12,500],"frame_id":42,"extra":true})"),
      "");
  expectSameHeader(header, makeHeader(0, 0, 0, ""));

  header = makeHeader(1, 2, 3, "old");
  EXPECT_EQ(parseCapturingStdout(header, R"({"stamp":{"nsec":true},"frame_id":"f"})"), "");
  expectSameHeader(header, makeHeader(0, 0, 0, "f"));

  header = makeHeader(1, 2, 3, "old");
  EXPECT_EQ(parseCapturingStdout(header, "{}"), "");
  expectSameHeader(header, Header());
}

TEST(StdMsgsHeader, ParseOfUnreadableTextPrintsOneLineAndChangesNothing) {
  struct Case {
    const char* json;
    const char* reason;  // empty: only the prefix is checked
  };
  const Case cases[] = {
      {"[1,2]", "Unexpected token: ["},
      {"null", "Unexpected token: null"},
      {"", "Unexpected end of token stream"},
      {R"({"seq":1}{)", "Expected End of token stream; found {"},
      {R"({"seq":1,"seq":2})", "Duplicate object member token: seq"},
      {R"({"seq":1)", ""},
      {R"({"seq":1,"frame_id":"unterminated})", ""},
      {R"({seq:1})", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    Header header = makeHeader(7, 12, 500, "base");
    const std::string printed = parseCapturingStdout(header, c.json);
    ASSERT_EQ(printed.rfind(kExceptionPrefix, 0), 0u) << printed;
    EXPECT_EQ(printed.find('\n'), printed.size() - 1) << "exactly one line: " << printed;
    if (*c.reason != '\0') {
      EXPECT_EQ(printed, std::string(kExceptionPrefix) + c.reason + "\n");
    }
    expectSameHeader(header, makeHeader(7, 12, 500, "base"));
  }
}

TEST(StdMsgsHeader, ParseFillsTheTargetNotTheReceiver) {
  Header receiver = makeHeader(1, 2, 3, "receiver");
  Header target;
  receiver.parse(&target, R"({"seq":9,"stamp":{"sec":8,"nsec":7},"frame_id":"t"})");
  expectSameHeader(target, makeHeader(9, 8, 7, "t"));
  expectSameHeader(receiver, makeHeader(1, 2, 3, "receiver"));
}

TEST(MsgMatchString2, QuotesAndEscapesByteForByte) {
  struct Case {
    const char* name;
    std::string input;
    std::string quoted;
  };
  const std::vector<Case> cases = {
      {"empty", "", R"("")"},
      {"plain ascii and slash", "a/b c", R"("a/b c")"},
      {"two-byte sequence", "\xC3\xA9", R"("\u00e9")"},
      {"largest two-byte", "\xDF\xBF", R"("\u07ff")"},
      {"overlong two-byte NUL is still converted", bytesAsString({0xC0, 0x80}), R"("\u0000")"},
      {"three-byte euro sign", "\xE2\x82\xAC", R"("\u20ac")"},
      {"largest three-byte", "\xEF\xBF\xBF", R"("\uffff")"},
      {"lone two-byte lead at the end", "a\xC3", "\"a\xC3\""},
      {"two-byte lead before a non-continuation",
       "\xC3"
       "A",
       "\"\xC3"
       "A\""},
      {"two-byte lead before a quote", "\xC3\"", "\"\xC3\\\"\""},
      {"lone three-byte lead at the end", "\xE2", "\"\xE2\""},
      {"three-byte lead cut after two bytes", "\xE2\x82", "\"\xE2\x82\""},
      {"three-byte lead, bad second byte",
       "\xE2"
       "A\x82",
       "\"\xE2"
       "A\x82\""},
      {"three-byte lead, bad third byte", "\xE2\x82\\", "\"\xE2\x82\\\\\""},
      {"three-byte lead, then a two-byte sequence", "\xE2\xC3\xA9", "\"\xE2\\u00e9\""},
      {"stray continuation bytes", "\x80\xBF", "\"\x80\xBF\""},
      {"four-byte sequence passes through", "\xF0\x9F\x98\x80", "\"\xF0\x9F\x98\x80\""},
      {"quote and backslash", "\"\\", R"("\"\\")"},
      {"short escapes", "\b\t\n\f\r", R"("\b\t\n\f\r")"},
      {"other control characters are not escaped", bytesAsString({0x00, 0x01, 0x0B, 0x1F, 0x7F}),
       "\"" + bytesAsString({0x00, 0x01, 0x0B, 0x1F, 0x7F}) + "\""},
      {"mixed run", "x\xC3\xA9y\tz", R"("x\u00e9y\tz")"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(dova::Msg::matchString2(c.input), c.quoted) << c.name;
  }
}

TEST(MsgNumberCast, GivesTheTargetsResultForEveryDouble) {
  using dova::msgs::truncateToInt32;
  using dova::msgs::truncateToInt64;
  using dova::msgs::truncateToLow32;
  using dova::msgs::truncateToLow8;
  using dova::msgs::truncateToUint64;
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  constexpr int32_t kInt32Min = std::numeric_limits<int32_t>::min();
  constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
  constexpr uint64_t kTopBit = uint64_t{1} << 63;

  EXPECT_EQ(truncateToInt32(-3.9), -3);
  EXPECT_EQ(truncateToInt32(2147483647.9), 2147483647);
  EXPECT_EQ(truncateToInt32(2147483648.0), kInt32Min);
  EXPECT_EQ(truncateToInt32(-2147483648.9), kInt32Min);  // truncates into range
  EXPECT_EQ(truncateToInt32(-2147483649.0), kInt32Min);
  EXPECT_EQ(truncateToInt32(kNaN), kInt32Min);
  EXPECT_EQ(truncateToInt32(kInfinity), kInt32Min);
  EXPECT_EQ(truncateToInt32(-kInfinity), kInt32Min);

  EXPECT_EQ(truncateToInt64(-9223372036854775808.0), kInt64Min);
  EXPECT_EQ(truncateToInt64(9223372036854774784.0), 9223372036854774784);  // largest below 2^63
  EXPECT_EQ(truncateToInt64(9223372036854775808.0), kInt64Min);
  EXPECT_EQ(truncateToInt64(kNaN), kInt64Min);

  EXPECT_EQ(truncateToUint64(9223372036854775808.0), kTopBit);
  EXPECT_EQ(truncateToUint64(18446744073709549568.0), 18446744073709549568u);  // 2^64 - 2048
  EXPECT_EQ(truncateToUint64(18446744073709551616.0), kTopBit);                // 2^64
  EXPECT_EQ(truncateToUint64(kInfinity), kTopBit);
  EXPECT_EQ(truncateToUint64(kNaN), kTopBit);
  EXPECT_EQ(truncateToUint64(-1.0), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(truncateToUint64(-kInfinity), kTopBit);
  EXPECT_EQ(truncateToUint64(12345.99), 12345u);

  EXPECT_EQ(truncateToLow32(4294967297.0), 1u);
  EXPECT_EQ(truncateToLow32(-1.0), 4294967295u);
  EXPECT_EQ(truncateToLow32(kNaN), 0u);

  EXPECT_EQ(truncateToLow8(300.0), 44);
  EXPECT_EQ(truncateToLow8(255.0), -1);
  EXPECT_EQ(truncateToLow8(-1.5), -1);
  EXPECT_EQ(truncateToLow8(-129.0), 127);
  EXPECT_EQ(truncateToLow8(4294967296.0), 0);  // beyond int32
  EXPECT_EQ(truncateToLow8(kNaN), 0);
}

}  // namespace
