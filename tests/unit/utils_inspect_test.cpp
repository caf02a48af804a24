#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "dova/json/reader.h"
#include "korcommon/utils.h"
#include "trace_capture.h"

namespace korcommon {
namespace {

using dova::json::Object;
using dova::json::UnknownElement;
using testing::TraceCapture;

constexpr char kEnvelope[] =
    R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":1700000000123.4567871,)"
    R"("data":{"x":0.5}})";

Object readText(const std::string& text) {
  Object object;
  std::istringstream stream(text);
  dova::json::Reader::Read(object, stream);
  return object;
}

std::vector<std::string> memberNames(const Object& object) {
  std::vector<std::string> names;
  for (const auto& member : object) names.push_back(member.name);
  return names;
}

// A text function and the name it reports under.
struct Reporter {
  const char* name;
  std::function<void(const std::string&)> call;
};

// Every text function that reads and reports, each checking its neutral result.
std::vector<Reporter> reportersExpectingNeutral() {
  return {
      {"hasSigAccid", [](const std::string& s) { EXPECT_FALSE(hasSigAccid(s)); }},
      {"hasSigTitle", [](const std::string& s) { EXPECT_FALSE(hasSigTitle(s)); }},
      {"hasSigGuid", [](const std::string& s) { EXPECT_FALSE(hasSigGuid(s)); }},
      {"hasSigTimestamp", [](const std::string& s) { EXPECT_FALSE(hasSigTimestamp(s)); }},
      {"hasSigData", [](const std::string& s) { EXPECT_FALSE(hasSigData(s)); }},
      // What parseSigToJson keeps of a bad text is checked on its own below.
      {"parseSigToJson", [](const std::string& s) { parseSigToJson(s); }},
      {"parseSigAccid", [](const std::string& s) { EXPECT_EQ(parseSigAccid(s), ""); }},
      {"parseSigTitle", [](const std::string& s) { EXPECT_EQ(parseSigTitle(s), ""); }},
      {"parseSigGuid", [](const std::string& s) { EXPECT_EQ(parseSigGuid(s), ""); }},
      {"parseSigTimestamp", [](const std::string& s) { EXPECT_EQ(parseSigTimestamp(s), -1); }},
  };
}

// Runs every reporting function on `text`: each must answer its neutral result and report
// exactly once, under its own name, at ERROR, with `expected_text` (any text when empty).
void expectEachReportsOnce(const std::string& text, const std::string& expected_text) {
  for (const Reporter& reporter : reportersExpectingNeutral()) {
    SCOPED_TRACE(reporter.name);
    TraceCapture trace;
    reporter.call(text);
    ASSERT_EQ(trace.reports().size(), 1u);
    const testing::TraceReport& report = trace.reports()[0];
    EXPECT_EQ(report.function, reporter.name);
    EXPECT_EQ(report.level, 8);
    EXPECT_NE(report.file.find("utils"), std::string::npos) << report.file;
    if (expected_text.empty()) {
      EXPECT_FALSE(report.text.empty());
    } else {
      EXPECT_EQ(report.text, expected_text);
    }
  }
}

TEST(SignalEnvelopeInspect, ObjectMemberTestsLookAtNamesOnly) {
  TraceCapture trace;
  const Object full = readText(kEnvelope);
  EXPECT_TRUE(hasSigAccid(full));
  EXPECT_TRUE(hasSigTitle(full));
  EXPECT_TRUE(hasSigGuid(full));
  EXPECT_TRUE(hasSigTimestamp(full));
  EXPECT_TRUE(hasSigData(full));
  EXPECT_TRUE(isSigValid(full));

  // Null and wrong kinds count as present.
  const Object odd_kinds =
      readText(R"({"accid":null,"title":1,"guid":[],"timestamp":"soon","data":false})");
  EXPECT_TRUE(isSigValid(odd_kinds));

  // Each member missing in turn; names are case-sensitive.
  const std::vector<std::pair<std::string, std::function<bool(const Object&)>>> tests = {
      {"accid", [](const Object& o) { return hasSigAccid(o); }},
      {"title", [](const Object& o) { return hasSigTitle(o); }},
      {"guid", [](const Object& o) { return hasSigGuid(o); }},
      {"timestamp", [](const Object& o) { return hasSigTimestamp(o); }},
      {"data", [](const Object& o) { return hasSigData(o); }},
  };
  for (const auto& [name, test] : tests) {
    SCOPED_TRACE(name);
    Object without;
    for (const auto& member : full) {
      if (member.name != name) without[member.name] = member.element;
    }
    without["Data"] = dova::json::Null();
    without["ACCID"] = dova::json::Null();
    EXPECT_FALSE(test(without));
    EXPECT_FALSE(isSigValid(without));
  }
  EXPECT_FALSE(hasSigData(Object()));
  EXPECT_TRUE(trace.reports().empty());
}

TEST(SignalEnvelopeInspect, TextMemberTestsReadTheText) {
  TraceCapture trace;
  EXPECT_TRUE(hasSigAccid(kEnvelope));
  EXPECT_TRUE(hasSigTitle(kEnvelope));
  EXPECT_TRUE(hasSigGuid(kEnvelope));
  EXPECT_TRUE(hasSigTimestamp(kEnvelope));
  EXPECT_TRUE(hasSigData(kEnvelope));
  EXPECT_TRUE(hasSigData(R"({"data":null})"));
  EXPECT_FALSE(hasSigData(R"({"Data":1})"));
  EXPECT_FALSE(hasSigAccid(R"({"data":{"accid":"nested"}})"));
  EXPECT_FALSE(hasSigAccid("{}"));
  EXPECT_FALSE(hasSigTitle("{}"));
  EXPECT_FALSE(hasSigGuid("{}"));
  EXPECT_FALSE(hasSigTimestamp("{}"));
  EXPECT_FALSE(hasSigData("{}"));
  // A missing member is not an error.
  EXPECT_TRUE(trace.reports().empty());
}

TEST(SignalEnvelopeInspect, EmptyTextIsReportedOnlyByTheFirstThreeMemberTests) {
  for (const auto& [name, test] :
       std::vector<std::pair<std::string, std::function<bool(const std::string&)>>>{
           {"hasSigAccid", [](const std::string& s) { return hasSigAccid(s); }},
           {"hasSigTitle", [](const std::string& s) { return hasSigTitle(s); }},
           {"hasSigGuid", [](const std::string& s) { return hasSigGuid(s); }}}) {
    SCOPED_TRACE(name);
    TraceCapture trace;
    EXPECT_FALSE(test(""));
    ASSERT_EQ(trace.reports().size(), 1u);
    EXPECT_EQ(trace.reports()[0].function, name);
    EXPECT_EQ(trace.reports()[0].text, "Unexpected end of token stream");
  }

  TraceCapture trace;
  EXPECT_FALSE(hasSigTimestamp(""));
  EXPECT_FALSE(hasSigData(""));
  EXPECT_TRUE(parseSigToJson("").empty());
  EXPECT_EQ(parseSigAccid(""), "");
  EXPECT_EQ(parseSigTitle(""), "");
  EXPECT_EQ(parseSigGuid(""), "");
  EXPECT_EQ(parseSigTimestamp(""), -1);
  EXPECT_TRUE(trace.reports().empty());

  // Whitespace is not empty: it goes to the reader.
  expectEachReportsOnce(" \n", "Unexpected end of token stream");
}

TEST(SignalEnvelopeInspect, MalformedTextIsReportedUnderEachFunctionsOwnName) {
  expectEachReportsOnce("{", "Unexpected end of token stream");
  expectEachReportsOnce(R"({"title":tru})", "Expected string: true");
  expectEachReportsOnce(R"([{"title":"t"}])", "Unexpected token: [");
  expectEachReportsOnce(R"({"title":"t"}{)", "Expected End of token stream; found {");
  expectEachReportsOnce(R"({"title":"t","title":"u"})", "Duplicate object member token: title");
}

TEST(SignalEnvelopeInspect, PercentInReceivedTextReachesTheTraceVerbatim) {
  // Reader messages quote the input; without escaping these would be printf conversions
  // (%n writes through a garbage pointer).
  expectEachReportsOnce(R"({"a":%n%s})", "Unexpected character in stream: %");
  expectEachReportsOnce(R"({"%n%s%%d":1,"%n%s%%d":2})", "Duplicate object member token: %n%s%%d");
  expectEachReportsOnce(R"({}"%s%s%s%n")", "Expected End of token stream; found %s%s%s%n");
}

TEST(SignalEnvelopeInspect, NestingBombsGiveTheNeutralResult) {
  const std::string arrays = R"({"data":)" + std::string(100000, '[');
  const std::string objects = [] {
    std::string text = "{";
    for (int i = 0; i < 100000; ++i) text += R"("a":{)";
    return text;
  }();
  expectEachReportsOnce(arrays, "");
  expectEachReportsOnce(objects, "");

  TraceCapture trace;
  EXPECT_FALSE(isSigValid(arrays));
  EXPECT_EQ(trace.reports().size(), 1u);
}

TEST(SignalEnvelopeInspect, TextValidityDeliberatelySkipsAccid) {
  constexpr char kNoAccid[] = R"({"title":"t","guid":"g","timestamp":1,"data":""})";
  TraceCapture trace;
  EXPECT_TRUE(isSigValid(kNoAccid));
  EXPECT_FALSE(isSigValid(readText(kNoAccid)));
  EXPECT_TRUE(isSigValid(kEnvelope));
  EXPECT_FALSE(isSigValid(R"({"accid":"a","guid":"g","timestamp":1,"data":""})"));
  EXPECT_FALSE(isSigValid(R"({"accid":"a","title":"t","timestamp":1,"data":""})"));
  EXPECT_FALSE(isSigValid(R"({"accid":"a","title":"t","guid":"g","data":""})"));
  EXPECT_FALSE(isSigValid(R"({"accid":"a","title":"t","guid":"g","timestamp":1})"));
  EXPECT_TRUE(trace.reports().empty());

  // Unreadable text stops at the first test: one report, by hasSigTitle.
  for (const std::string text : {"", "{", "nonsense"}) {
    SCOPED_TRACE(text);
    trace.clear();
    EXPECT_FALSE(isSigValid(text));
    ASSERT_EQ(trace.reports().size(), 1u);
    EXPECT_EQ(trace.reports()[0].function, "hasSigTitle");
  }
}

TEST(SignalEnvelopeInspect, TypedGettersReadOnlyTheirOwnKind) {
  TraceCapture trace;
  EXPECT_EQ(getSigNumber(dova::json::Number(-2.5)), -2.5);
  EXPECT_TRUE(getSigBool(dova::json::Boolean(true)));
  EXPECT_FALSE(getSigBool(dova::json::Boolean(false)));
  EXPECT_EQ(getSigString(dova::json::String("RB-0001")), "RB-0001");

  const Object envelope = readText(kEnvelope);
  EXPECT_EQ(getSigString(envelope.Find("title")->element), "walk");
  EXPECT_EQ(getSigNumber(envelope.Find("timestamp")->element), 1700000000123.4567871);

  const auto expectBadCast = [](const std::function<void()>& call) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const dova::json::Exception& error) {
      EXPECT_STREQ(error.what(), "Bad cast");
    }
  };
  // No conversion between kinds, however close the value.
  expectBadCast([] { getSigBool(dova::json::Number(1)); });
  expectBadCast([] { getSigNumber(dova::json::Boolean(true)); });
  expectBadCast([] { getSigNumber(dova::json::String("1")); });
  expectBadCast([] { getSigString(dova::json::Number(1)); });
  expectBadCast([] { getSigString(UnknownElement()); });
  expectBadCast([] { getSigNumber(Object()); });
  EXPECT_TRUE(trace.reports().empty());
}

TEST(SignalEnvelopeInspect, ParseSigToJsonKeepsWhatWasRead) {
  TraceCapture trace;
  const std::string text = createSigString("walk", "g-1", 5L, "on");
  const Object envelope = parseSigToJson(text);
  EXPECT_EQ(memberNames(envelope),
            (std::vector<std::string>{"accid", "title", "guid", "timestamp", "data"}));
  EXPECT_TRUE(isSigValid(envelope));
  EXPECT_EQ(getSigString(envelope.Find("data")->element), "on");
  EXPECT_TRUE(trace.reports().empty());

  // A grammar error keeps the members read before it.
  const Object partial = parseSigToJson(R"({"a":1,"b":[true],"a":2})");
  EXPECT_EQ(memberNames(partial), (std::vector<std::string>{"a", "b"}));
  ASSERT_EQ(trace.reports().size(), 1u);
  EXPECT_EQ(trace.reports()[0].function, "parseSigToJson");
  EXPECT_EQ(trace.reports()[0].text, "Duplicate object member token: a");

  // The whole text is scanned before parsing, so a bad character anywhere leaves nothing.
  trace.clear();
  EXPECT_TRUE(parseSigToJson(R"({"a":1,"b":x})").empty());
  ASSERT_EQ(trace.reports().size(), 1u);
  EXPECT_EQ(trace.reports()[0].text, "Unexpected character in stream: x");
}

TEST(SignalEnvelopeInspect, MemberExtractionReadsStringsOnly) {
  TraceCapture trace;
  EXPECT_EQ(parseSigAccid(kEnvelope), "RB-0001");
  EXPECT_EQ(parseSigTitle(kEnvelope), "walk");
  EXPECT_EQ(parseSigGuid(kEnvelope), "g-1");
  EXPECT_EQ(parseSigTitle(R"({"title":"caf\u00e9 \"x\""})"), "caf\xc3\xa9 \"x\"");

  // Missing or not a string: "" and no report.
  EXPECT_EQ(parseSigAccid(R"({"accid":5})"), "");
  EXPECT_EQ(parseSigTitle(R"({"title":null})"), "");
  EXPECT_EQ(parseSigGuid(R"({"guid":{"id":"g"}})"), "");
  EXPECT_EQ(parseSigGuid("{}"), "");
  EXPECT_EQ(parseSigAccid(R"({"data":{"accid":"nested"}})"), "");
  EXPECT_TRUE(trace.reports().empty());
}

TEST(SignalEnvelopeInspect, TimestampTellsUnreadableFromMissing) {
  TraceCapture trace;
  EXPECT_EQ(parseSigTimestamp(kEnvelope), 1700000000123L);
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":-2.7})"), -2);
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":9007199254740992})"), 9007199254740992L);
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":"123"})"), 0);
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":true})"), 0);
  EXPECT_EQ(parseSigTimestamp("{}"), 0);
  // Numbers beyond long convert as the processor converts them, both signs to the lowest long.
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":9223372036854775808})"),
            std::numeric_limits<long>::min());
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":1e300})"), std::numeric_limits<long>::min());
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":-1e300})"), std::numeric_limits<long>::min());
  EXPECT_EQ(parseSigTimestamp(R"({"timestamp":-9223372036854775808})"),
            std::numeric_limits<long>::min());
  EXPECT_TRUE(trace.reports().empty());

  EXPECT_EQ(parseSigTimestamp("{"), -1);
  ASSERT_EQ(trace.reports().size(), 1u);
  EXPECT_EQ(trace.reports()[0].function, "parseSigTimestamp");
}

}  // namespace
}  // namespace korcommon
