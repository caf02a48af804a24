// Fuzzes the signal envelope's inspection and parsing of received text.
//
// Only the functions that take text apart are called: the creating ones read the robot's serial
// number file, and a fuzzer must not depend on or touch the machine's important data.
//
// Each function is checked against what the JSON reader itself makes of the input:
//  - text the reader refuses gives the neutral result (false, "", the partial object, -1) and
//    exactly one ERROR report, under the function's own name, whose text equals the reader's
//    message byte for byte, so a '%' in received text never acts as a printf conversion;
//  - text the reader accepts gives the members' presence and values, without any report;
//  - the empty text gives the documented answer of each function.
// The typed getters are checked on every member of a document read.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "dova/json/elements.h"
#include "dova/json/reader.h"
#include "dova/trace.h"
#include "fuzz_check.h"
#include "korcommon/utils.h"

namespace {

using dova::json::Boolean;
using dova::json::Number;
using dova::json::Object;
using dova::json::String;
using dova::json::UnknownElement;

struct Report {
  int level;
  std::string function;
  std::string text;
};

std::vector<Report>& reports() {
  static std::vector<Report> collected;
  return collected;
}

// The reader's own verdict on the input, the oracle for every function below.
struct Reading {
  bool empty = false;
  bool read = false;
  std::string error;  // the reader's message when it refused the text
  Object object;      // what it read, partly when it refused the text
};

Reading readInput(const std::string& text) {
  Reading reading;
  reading.empty = text.empty();
  std::istringstream stream(text);
  try {
    dova::json::Reader::Read(reading.object, stream);
    reading.read = true;
  } catch (const std::exception& error) {
    reading.error = error.what();
  }
  return reading;
}

// Checks the reports made since the last call: none when `function` is null, otherwise exactly
// one at ERROR under `function` carrying the reader's message.
void checkReports(const Reading& reading, const char* function) {
  std::vector<Report>& made = reports();
  if (function == nullptr) {
    FUZZ_CHECK(made.empty(),
               "unexpected report under " + made.front().function + ": " + made.front().text);
  } else {
    FUZZ_CHECK(made.size() == 1, std::string("expected one report under ") + function + ", got " +
                                     std::to_string(made.size()));
    FUZZ_CHECK(made.front().level == dova::ERROR, "a report not at ERROR");
    FUZZ_CHECK(made.front().function == function,
               "reported under " + made.front().function + ", not " + function);
    FUZZ_CHECK(made.front().text == reading.error,
               "reported \"" + made.front().text + "\" for the reader's \"" + reading.error + "\"");
  }
  made.clear();
}

// The report a text function makes: the reader's error unless the text read.
const char* expectedReport(const Reading& reading, const char* function) {
  return reading.read ? nullptr : function;
}

bool has(const Reading& reading, const char* name) {
  return reading.object.Find(name) != reading.object.end();
}

void checkMemberTests(const std::string& text, const Reading& reading) {
  struct MemberTest {
    const char* function;
    const char* member;
    bool (*test)(const std::string&);
    bool empty_is_read;  // whether an empty text goes to the reader (and is reported)
  };
  const MemberTest tests[] = {
      {"hasSigAccid", "accid", &korcommon::hasSigAccid, true},
      {"hasSigTitle", "title", &korcommon::hasSigTitle, true},
      {"hasSigGuid", "guid", &korcommon::hasSigGuid, true},
      {"hasSigTimestamp", "timestamp", &korcommon::hasSigTimestamp, false},
      {"hasSigData", "data", &korcommon::hasSigData, false},
  };
  for (const MemberTest& test : tests) {
    const bool result = test.test(text);
    if (reading.empty && !test.empty_is_read) {
      FUZZ_CHECK(!result, std::string(test.function) + " of the empty text");
      checkReports(reading, nullptr);
      continue;
    }
    FUZZ_CHECK(result == (reading.read && has(reading, test.member)),
               std::string(test.function) + " answered " + (result ? "true" : "false"));
    checkReports(reading, expectedReport(reading, test.function));
  }

  // The text form deliberately leaves "accid" out; a bad text is reported once, by the first
  // test, which ends the conjunction.
  const bool valid = korcommon::isSigValid(text);
  FUZZ_CHECK(valid == (reading.read && has(reading, "title") && has(reading, "guid") &&
                       has(reading, "timestamp") && has(reading, "data")),
             "isSigValid of the text");
  checkReports(reading, expectedReport(reading, "hasSigTitle"));
}

void checkParsers(const std::string& text, const Reading& reading) {
  const Object parsed = korcommon::parseSigToJson(text);
  if (reading.empty) {
    FUZZ_CHECK(parsed.empty(), "parseSigToJson of the empty text is not empty");
    checkReports(reading, nullptr);
  } else {
    // On an error the caller deliberately gets the members read before it.
    FUZZ_CHECK(parsed == reading.object, "parseSigToJson gave another object than the reader");
    checkReports(reading, expectedReport(reading, "parseSigToJson"));
  }

  struct MemberParser {
    const char* function;
    const char* member;
    std::string (*parse)(const std::string&);
  };
  const MemberParser parsers[] = {
      {"parseSigAccid", "accid", &korcommon::parseSigAccid},
      {"parseSigTitle", "title", &korcommon::parseSigTitle},
      {"parseSigGuid", "guid", &korcommon::parseSigGuid},
  };
  for (const MemberParser& parser : parsers) {
    const std::string result = parser.parse(text);
    std::string expected;
    if (reading.read) {
      // A missing member or one of another kind reads as "".
      const auto member = reading.object.Find(parser.member);
      UnknownElement::ConstCastVisitor_T<String> string;
      if (member != reading.object.end()) member->element.Accept(string);
      if (string.element != nullptr) expected = string.element->Value();
    }
    FUZZ_CHECK(result == expected, std::string(parser.function) + " gave \"" + result + "\"");
    checkReports(reading, reading.empty ? nullptr : expectedReport(reading, parser.function));
  }

  const long timestamp = korcommon::parseSigTimestamp(text);
  if (!reading.read) {
    FUZZ_CHECK(timestamp == -1,
               "parseSigTimestamp of unreadable text: " + std::to_string(timestamp));
    checkReports(reading, reading.empty ? nullptr : "parseSigTimestamp");
    return;
  }
  checkReports(reading, nullptr);
  const auto member = reading.object.Find("timestamp");
  UnknownElement::ConstCastVisitor_T<Number> number;
  if (member != reading.object.end()) member->element.Accept(number);
  const double milliseconds = number.element != nullptr ? number.element->Value() : 0.0;
  constexpr double kBound = 9223372036854775808.0;  // 2^63
  if (milliseconds >= -kBound && milliseconds < kBound) {
    FUZZ_CHECK(timestamp == static_cast<long>(milliseconds),
               "parseSigTimestamp did not truncate: " + std::to_string(timestamp));
  } else {
    // Out of the range of long: the processor's conversion result, the lowest long.
    FUZZ_CHECK(timestamp == std::numeric_limits<long>::min(),
               "parseSigTimestamp out of range: " + std::to_string(timestamp));
  }
}

// The Object overloads and the typed getters on what the reader made of the input.
void checkObjectFunctions(const Reading& reading) {
  const Object& object = reading.object;
  FUZZ_CHECK(korcommon::hasSigAccid(object) == has(reading, "accid"), "hasSigAccid of an object");
  FUZZ_CHECK(korcommon::hasSigTitle(object) == has(reading, "title"), "hasSigTitle of an object");
  FUZZ_CHECK(korcommon::hasSigGuid(object) == has(reading, "guid"), "hasSigGuid of an object");
  FUZZ_CHECK(korcommon::hasSigTimestamp(object) == has(reading, "timestamp"),
             "hasSigTimestamp of an object");
  FUZZ_CHECK(korcommon::hasSigData(object) == has(reading, "data"), "hasSigData of an object");
  FUZZ_CHECK(korcommon::isSigValid(object) ==
                 (has(reading, "accid") && has(reading, "title") && has(reading, "guid") &&
                  has(reading, "timestamp") && has(reading, "data")),
             "isSigValid of an object");

  for (const Object::Member& member : object) {
    const UnknownElement& element = member.element;
    UnknownElement::ConstCastVisitor_T<Number> number;
    UnknownElement::ConstCastVisitor_T<Boolean> boolean;
    UnknownElement::ConstCastVisitor_T<String> string;
    element.Accept(number);
    element.Accept(boolean);
    element.Accept(string);
    try {
      const double value = korcommon::getSigNumber(element);
      FUZZ_CHECK(number.element != nullptr && value == number.element->Value(),
                 "getSigNumber of " + member.name);
    } catch (const dova::json::Exception& error) {
      FUZZ_CHECK(number.element == nullptr && std::string(error.what()) == "Bad cast",
                 "getSigNumber threw " + std::string(error.what()));
    }
    try {
      const bool value = korcommon::getSigBool(element);
      FUZZ_CHECK(boolean.element != nullptr && value == boolean.element->Value(),
                 "getSigBool of " + member.name);
    } catch (const dova::json::Exception& error) {
      FUZZ_CHECK(boolean.element == nullptr && std::string(error.what()) == "Bad cast",
                 "getSigBool threw " + std::string(error.what()));
    }
    try {
      const std::string value = korcommon::getSigString(element);
      FUZZ_CHECK(string.element != nullptr && value == string.element->Value(),
                 "getSigString of " + member.name);
    } catch (const dova::json::Exception& error) {
      FUZZ_CHECK(string.element == nullptr && std::string(error.what()) == "Bad cast",
                 "getSigString threw " + std::string(error.what()));
    }
  }
  checkReports(reading, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Collected for the checks instead of being printed on standard error.
  dova::setTraceSink([](int level, const char* /*file*/, int /*line*/, const char* function,
                        const std::string& text) {
    reports().push_back(Report{level, function == nullptr ? "" : function, text});
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const Reading reading = readInput(text);
  reports().clear();
  checkMemberTests(text, reading);
  checkParsers(text, reading);
  checkObjectFunctions(reading);
  return 0;
}
