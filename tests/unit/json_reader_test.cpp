#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <limits>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "read_file.h"

namespace {

using dova::json::Boolean;
using dova::json::Exception;
using dova::json::Null;
using dova::json::Number;
using dova::json::Object;
using dova::json::Reader;
using dova::json::String;
using dova::json::UnknownElement;
using dova::json::Writer;

Object read(const std::string& text) {
  Object object;
  std::istringstream stream(text);
  Reader::Read(object, stream);
  return object;
}

template <typename ErrorT>
ErrorT failure(std::istream& stream, Object* object = nullptr) {
  Object scratch;
  try {
    Reader::Read(object != nullptr ? *object : scratch, stream);
  } catch (const ErrorT& error) {
    return error;
  }
  throw std::logic_error("no error reading the text");
}

template <typename ErrorT>
ErrorT failure(const std::string& text, Object* object = nullptr) {
  std::istringstream stream(text);
  return failure<ErrorT>(stream, object);
}

using Position = std::tuple<uint32_t, uint32_t, uint32_t>;

Position position(uint32_t line, uint32_t column, uint32_t offset) {
  return {line, column, offset};
}

Position at(const Reader::Location& location) {
  return {location.line, location.column, location.offset};
}

std::string write(const Object& object) {
  std::ostringstream stream;
  Writer::Write(object, stream);
  return stream.str();
}

std::string repeat(const std::string& text, int count) {
  std::string repeated;
  for (int copy = 0; copy < count; ++copy) repeated += text;
  return repeated;
}

TEST(JsonReader, ReadsEveryKindInOrder) {
  EXPECT_TRUE(read("{}").empty());
  EXPECT_TRUE(read(" \t\r\n\v\f{ }\n ").empty());

  const Object object =
      read(R"({"s":"x","n":-1.5e2,"t":true,"f":false,"z":null,"a":[1,[],{}],"o":{"k":"v"}})");
  EXPECT_EQ(write(object), R"({"s":"x","n":-150,"t":true,"f":false,"z":null,"a":[1,[],{}],)"
                           R"("o":{"k":"v"}})");
  EXPECT_TRUE(object["f"] == UnknownElement(Boolean(false)));
  EXPECT_TRUE(object["z"] == UnknownElement(Null()));
}

TEST(JsonReader, ReportsEachErrorWithItsMessage) {
  struct Case {
    std::string text;
    bool scanning;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"{a:1}", true, "Unexpected character in stream: a"},
      {R"({"a":+1})", true, "Unexpected character in stream: +"},
      {R"({"a":nulls})", true, "Unexpected character in stream: s"},
      {R"({"b":tru})", true, "Expected string: true"},
      {R"({"b":nul)", true, "Expected string: null"},
      {R"({"a":"x)", true, "Expected string: \""},
      {R"({"a":"x\)", true, "Expected string: \""},
      {R"({"a":"\q"})", true, "Unrecognized escape sequence found in string: \\q"},
      {"{\"a\":\"\\\n\"}", true, "Unrecognized escape sequence found in string: \\\n"},
      {R"({"a":"\u00g0"})", true, "Unrecognized hexadecimal character found in string: g"},
      {R"({"a":"\u12)", true, "Unrecognized hexadecimal character found in string: \xFF"},
      {R"({"a":"\ud800x"})", true, "Missing unicode low surrogate in string: x"},
      {R"({"a":"\ud800\n"})", true, "Missing unicode low surrogate in string: n"},
      {R"({"a":"\ud800\u1234"})", true, "Missing unicode low surrogate in string: 4"},
      {R"({"a":"\udc00"})", true, "Unexpected unicode low surrogate found in string: 0"},
      {R"({"a":1)", false, "Unexpected end of token stream"},
      {R"({"a":[1,)", false, "Unexpected end of token stream"},
      {"[1,2]", false, "Unexpected token: ["},
      {"{1:2}", false, "Unexpected token: 1"},
      {R"({"a" 1})", false, "Unexpected token: 1"},
      {R"({"a":})", false, "Unexpected token: }"},
      {R"({"a":1,})", false, "Unexpected token: }"},
      {R"({"a":[1,]})", false, "Unexpected token: ]"},
      {R"({"a":1 "b":2})", false, "Unexpected token: b"},
      {R"({"n":1234567:8})", false, "Unexpected token: :"},
      {R"({"n":1.5.3})", false, "Unexpected character in NUMBER token: ."},
      {R"({"n":1-2})", false, "Unexpected character in NUMBER token: -"},
      // what() is a C string: the NUL ends it.
      {std::string("{\"n\":1\0}", 8), false, "Unexpected character in NUMBER token: "},
      // Extraction fails before the end; the stream then answers end-of-file to peek.
      {R"({"n":-+})", false, "Unexpected character in NUMBER token: \xFF"},
      {R"({"a":1,"a":2})", false, "Duplicate object member token: a"},
      {R"({"a":1}{)", false, "Expected End of token stream; found {"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.text);
    try {
      read(test.text);
      ADD_FAILURE() << "no error";
    } catch (const Reader::ScanException& error) {
      EXPECT_TRUE(test.scanning);
      EXPECT_EQ(error.what(), test.message);
    } catch (const Reader::ParseException& error) {
      EXPECT_FALSE(test.scanning);
      EXPECT_EQ(error.what(), test.message);
    }
  }
  EXPECT_THROW(read("{a}"), Exception);
  EXPECT_THROW(read("{a}"), std::exception);
}

TEST(JsonReader, ReportsWhereErrorsHappen) {
  // Before an unexpected character, after a mismatching or escaped one.
  EXPECT_EQ(at(failure<Reader::ScanException>("{\n  x}").location), position(1, 2, 4));
  EXPECT_EQ(at(failure<Reader::ScanException>(R"({"b":tru})").location), position(0, 9, 9));
  EXPECT_EQ(at(failure<Reader::ScanException>(R"({"a":"\q"})").location), position(0, 8, 8));
  EXPECT_EQ(at(failure<Reader::ScanException>(R"({"b":tr)").location), position(0, 7, 7));
  // A raw line feed in a string starts a new line.
  EXPECT_EQ(at(failure<Reader::ScanException>("{\"a\":\"x\ny\",\"b\":@}").location),
            position(1, 7, 15));
  EXPECT_EQ(at(failure<Reader::ScanException>("{\"a\":\"\n\"@").location), position(1, 1, 8));

  const Reader::ParseException duplicate = failure<Reader::ParseException>(R"({"a":1,"a":2})");
  EXPECT_EQ(at(duplicate.begin), position(0, 7, 7));
  EXPECT_EQ(at(duplicate.end), position(0, 10, 10));
  const Reader::ParseException trailing = failure<Reader::ParseException>("{\n\"a\":1}{");
  EXPECT_EQ(at(trailing.begin), position(1, 6, 8));
  EXPECT_EQ(at(trailing.end), position(1, 7, 9));
  const Reader::ParseException truncated = failure<Reader::ParseException>(R"({"a":12)");
  EXPECT_EQ(at(truncated.begin), position(0, 5, 5));
  EXPECT_EQ(at(truncated.end), position(0, 7, 7));
}

TEST(JsonReader, EmptyInputIsAnEndOfTokensAtTheStart) {
  for (const std::string text : {"", " \n\t\r "}) {
    const Reader::ParseException error = failure<Reader::ParseException>(text);
    EXPECT_STREQ(error.what(), "Unexpected end of token stream");
    EXPECT_EQ(at(error.begin), position(0, 0, 0));
    EXPECT_EQ(at(error.end), position(0, 0, 0));
  }
}

// Serves its text a character at a time without a buffer, as unbuffered stream buffers do.
class UnbufferedText : public std::streambuf {
 public:
  explicit UnbufferedText(std::string text) : text_(std::move(text)) {}

 protected:
  int_type underflow() override {
    return next_ < text_.size() ? traits_type::to_int_type(text_[next_]) : traits_type::eof();
  }
  int_type uflow() override {
    const int_type next = underflow();
    if (next != traits_type::eof()) ++next_;
    return next;
  }
  int_type pbackfail(int_type character) override {
    if (next_ == 0) return traits_type::eof();
    --next_;
    return character;
  }

 private:
  std::string text_;
  size_t next_ = 0;
};

TEST(JsonReader, LeavesTheStreamJustAfterWhatItRead) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"b":tru}x)", "x"},  // a mismatching character is consumed
      {"{a}", "a}"},           // an unexpected one is not
      {R"({"a":[1,"\u00e9"]} )", ""},
  };
  for (const auto& [text, rest] : cases) {
    std::istringstream buffered(text);
    UnbufferedText unbuffered_text(text);
    std::istream unbuffered(&unbuffered_text);
    for (std::istream* stream : {static_cast<std::istream*>(&buffered), &unbuffered}) {
      SCOPED_TRACE(text);
      Object object;
      try {
        Reader::Read(object, *stream);
        EXPECT_TRUE(stream->eof());
        EXPECT_EQ(write(object), R"({"a":[1,"\u00e9"]})");
      } catch (const Exception&) {
      }
      stream->clear();
      EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*stream), {}), rest);
    }
  }

  // A stream already failed is not read: at its end it holds no tokens, otherwise its first
  // character reads as the end-of-file value.
  std::istringstream at_end("{}");
  at_end.setstate(std::ios_base::eofbit);
  EXPECT_STREQ(failure<Reader::ParseException>(at_end).what(), "Unexpected end of token stream");
  std::istringstream failed("{}");
  failed.setstate(std::ios_base::failbit);
  EXPECT_STREQ(failure<Reader::ScanException>(failed).what(),
               "Unexpected character in stream: \xFF");
}

TEST(JsonReader, DecodesEscapes) {
  const auto text = [](const std::string& json) {
    return read(R"({"s":")" + json + R"("})")["s"].CastTo<String>().Value();
  };
  EXPECT_EQ(text(R"(\"\\\/\b\f\n\r\t)"), "\"\\/\b\f\n\r\t");
  EXPECT_EQ(text(R"(\u0041\u00e9\u00E9\u07ff\u0800\u20ac\uffff)"),
            "A\xC3\xA9\xC3\xA9\xDF\xBF\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF");
  EXPECT_EQ(text(R"(\ud83d\ude00)"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(text(R"(\udbff\udfff)"), "\xF4\x8F\xBF\xBF");
  // An escape below 0x80 leaves a high surrogate pending; one still pending at the end is
  // dropped.
  EXPECT_EQ(text(R"(\ud83d\u0041\ude00)"), "A\xF0\x9F\x98\x80");
  EXPECT_EQ(text(R"(a\ud800)"), "a");
  // Raw control characters and bytes are kept as they are.
  EXPECT_EQ(text("\t\n\x01\xC3"), "\t\n\x01\xC3");
}

TEST(JsonReader, NumbersReadAsStreamExtractionDoes) {
  const auto number = [](const std::string& json) {
    return read(R"({"n":)" + json + "}")["n"].CastTo<Number>().Value();
  };
  EXPECT_EQ(number("-"), 0.0);
  EXPECT_EQ(number("1e"), 0.0);
  EXPECT_EQ(number("1e+"), 0.0);
  EXPECT_EQ(number("0123"), 123.0);
  EXPECT_EQ(number("1E2"), 100.0);
  EXPECT_EQ(number("1."), 1.0);
  EXPECT_TRUE(std::signbit(number("-0")));
  EXPECT_EQ(number("1e400"), std::numeric_limits<double>::max());
  EXPECT_EQ(number("-1e400"), -std::numeric_limits<double>::max());
  EXPECT_EQ(number("1e-400"), 0.0);
  EXPECT_EQ(number("4.9e-324"), std::numeric_limits<double>::denorm_min());
}

// What a string stream extraction makes of `token`: the message's last character when it does
// not reach the end, otherwise the double's bits.
std::pair<bool, uint64_t> streamExtraction(const std::string& token) {
  std::istringstream stream(token);
  double value = 0.0;
  stream >> value;
  if (!stream.eof()) return {true, static_cast<unsigned char>(stream.peek())};
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return {false, bits};
}

// What the reader makes of `token` as the value of a member, followed by `rest` of the object.
std::pair<bool, uint64_t> readerExtraction(const std::string& token, const std::string& rest) {
  Object object;
  std::istringstream stream("{\"n\":" + token + rest + "}");
  try {
    Reader::Read(object, stream);
  } catch (const Reader::ParseException& error) {
    const std::string message = error.what();
    const std::string prefix = "Unexpected character in NUMBER token: ";
    EXPECT_EQ(message.substr(0, prefix.size()), prefix);
    // A NUL character ends what() early.
    return {true, message.size() > prefix.size() ? static_cast<unsigned char>(message.back()) : 0};
  }
  const double value = object["n"].CastTo<Number>().Value();
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return {false, bits};
}

TEST(JsonReader, NumbersMatchStreamExtractionBitForBit) {
  std::vector<std::string> tokens = {std::string(400, '9'), "0." + std::string(330, '0') + "1",
                                     std::string("1\0", 2), std::string("1e\0", 3)};
  std::istringstream hand_picked(
      "0 -0 -0.0 0e0 -0e-5 00 007.5 1.7976931348623157e308 1.7976931348623158e308 "
      "1.7976931348623159e308 2e308 -2e308 2.4703282292062327e-324 2.4703282292062328e-324 "
      "1e-324 2.2250738585072011e-308 9007199254740993 123456.000030517578125 1e -e5 1e5e5 "
      "1..2 -.5 --1 1+1 0e+-1 12345678 1234567812345678 0.12345678 12345678.87654321 "
      "9007199254740992.5 1234567890123456789 12345678901234567890 -1234567890.123456789 "
      "0.0000000000000000000001 100000000000000000000000 -000000000000000000000.5");
  for (std::string token; hand_picked >> token;) tokens.push_back(token);
  // Every bit pattern and values spread over the magnitudes documents hold, in the forms
  // writers use; the writer's own is 20 digits. Then texts just off the midpoint between two
  // doubles, the hardest to round, and random runs of number characters.
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> decimal_exponent(-10.0, 40.0);
  const std::string alphabet("0123456789.eE-+\0", 16);
  char text[64];
  for (int count = 0; count < 20000; ++count) {
    const uint64_t bits = random();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    const char* formats[] = {"%.17g", "%.20g", "%.3e", "%g", "%.0f"};
    if (std::isfinite(value)) {
      std::snprintf(text, sizeof text, formats[bits % 5], value);
      if (std::strlen(text) < sizeof text - 1) tokens.push_back(text);
    }
    const double spread = std::pow(10.0, decimal_exponent(random));
    for (const char* format : {"%.20g", "%.19e", "%.15g", "%.4f", "%.7g", "%.2e"}) {
      std::snprintf(text, sizeof text, format, spread);
      tokens.push_back(text);
    }
    const long double midpoint =
        (static_cast<long double>(spread) + std::nextafter(spread, 1e300)) / 2;
    std::snprintf(text, sizeof text, "%.19Le", midpoint);
    tokens.push_back(text);
    std::string noise(1, "-0123456789"[random() % 11]);
    for (uint64_t length = random() % 10; length > 0; --length) {
      noise.push_back(alphabet[random() % alphabet.size()]);
    }
    tokens.push_back(noise);
  }
  for (const std::string& token : tokens) {
    SCOPED_TRACE(token);
    const auto expected = streamExtraction(token);
    // Near the end of the text and with more text after it, where the scanner takes words of
    // characters at a time.
    ASSERT_EQ(readerExtraction(token, ""), expected);
    ASSERT_EQ(readerExtraction(token, R"(,"after":"the number")"), expected);
  }
}

TEST(JsonReader, ErrorKeepsTheMembersReadBeforeIt) {
  Object object;
  failure<Reader::ParseException>(R"({"a":1,"b":{"c":2,"c":3},"d":4})", &object);
  EXPECT_EQ(write(object), R"({"a":1})");

  // Scanning the whole text comes first, so a bad character leaves nothing read.
  Object scanned;
  failure<Reader::ScanException>(R"({"a":1,"b":x})", &scanned);
  EXPECT_TRUE(scanned.empty());
}

TEST(JsonReader, AddsToTheTargetWithoutClearingIt) {
  Object object;
  object["x"] = Number(1);
  std::istringstream more(R"({"y":2})");
  Reader::Read(object, more);
  EXPECT_EQ(write(object), R"({"x":1,"y":2})");

  const Reader::ParseException error = failure<Reader::ParseException>(R"({"x":3})", &object);
  EXPECT_STREQ(error.what(), "Duplicate object member token: x");
  EXPECT_EQ(write(object), R"({"x":1,"y":2})");

  // Past the size where names are indexed, duplicates are found the same way.
  std::string members;
  for (int member = 0; member < 100; ++member) members += "\"m" + std::to_string(member) + "\":0,";
  EXPECT_STREQ(failure<Reader::ParseException>("{" + members + "\"m7\":1}").what(),
               "Duplicate object member token: m7");
  EXPECT_STREQ(failure<Reader::ParseException>("{" + members + "\"m99\":1}").what(),
               "Duplicate object member token: m99");
  EXPECT_STREQ(failure<Reader::ParseException>("{" + members + "\"y\":1}", &object).what(),
               "Duplicate object member token: y");
  EXPECT_EQ(read("{" + members + "\"m100\":1}").size(), 101u);
}

// `levels` containers: an object holding alternately arrays and objects, the innermost empty.
std::string mixedNesting(int levels) {
  std::string opening;
  std::string closing;
  for (int level = 1; level <= levels; ++level) {
    const bool object = level % 2 == 1;
    opening += object ? (level == levels ? "{" : R"({"a":)") : "[";
    closing.insert(0, object ? "}" : "]");
  }
  return opening + closing;
}

TEST(JsonReader, RefusesNestingDeeperThan512Levels) {
  const std::string deep_objects = repeat(R"({"a":)", 511) + "{}" + repeat("}", 511);
  const Object object = read(deep_objects);
  const UnknownElement* element = &object["a"];
  for (int level = 2; level < 512; ++level) element = &(*element)["a"];
  EXPECT_TRUE(element->CastTo<Object>().empty());
  EXPECT_EQ(read(mixedNesting(512)).size(), 1u);

  struct Case {
    std::string text;
    std::string token;
    uint32_t offset;
  };
  const std::vector<Case> cases = {
      {repeat(R"({"a":)", 512) + "{}" + repeat("}", 512), "{", 2560},
      {mixedNesting(513), "{", 1536},
      {repeat(R"({"a":)", 100000), "{", 2560},
      {R"({"a":)" + repeat("[", 100000), "[", 516},
  };
  for (const Case& test : cases) {
    const Reader::ParseException error = failure<Reader::ParseException>(test.text);
    EXPECT_EQ(error.what(), "Nesting deeper than 512 levels at token: " + test.token);
    EXPECT_EQ(at(error.begin), position(0, test.offset, test.offset));
    EXPECT_EQ(at(error.end), position(0, test.offset + 1, test.offset + 1));
  }
  EXPECT_STREQ(failure<Reader::ParseException>(repeat("[", 100000)).what(), "Unexpected token: [");
}

TEST(JsonReader, ThreadsReadAndWriteSeparateDocuments) {
  const std::string text = R"({"a":[1.5,"\u00e9",{"b":null}],"c":true})";
  std::vector<std::string> results(4);
  std::vector<std::thread> threads;
  for (std::string& result : results) {
    threads.emplace_back([&text, &result] {
      for (int round = 0; round < 200; ++round) result = write(read(text));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& result : results) EXPECT_EQ(result, text);
}

// JSON texts the reader refuses: duplicate member names are an error.
const std::set<std::string> kRefusedValid = {"y_object_duplicated_key.json",
                                             "y_object_duplicated_key_and_value.json"};

TEST(JsonReader, JsonTestSuiteReadsRoundTripOrFailCleanly) {
  const std::filesystem::path folder =
      std::filesystem::path(KORCOMMON_TEST_DATA_DIR) / "JSONTestSuite" / "test_parsing";
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  ASSERT_EQ(files.size(), 318u);

  std::set<std::string> refused_valid;
  int round_trips = 0;
  for (const std::filesystem::path& file : files) {
    const std::string name = file.filename().string();
    SCOPED_TRACE(name);
    const std::string text = korcommon::testing::readFile(file);
    const size_t first = text.find_first_not_of(" \t\n\v\f\r");
    const bool object_text = first != std::string::npos && text[first] == '{';
    Object document;
    try {
      std::istringstream stream(text);
      Reader::Read(document, stream);
    } catch (const Exception&) {
      if (name[0] == 'y' && object_text) refused_valid.insert(name);
      continue;
    }
    EXPECT_TRUE(object_text) << "the top level is not an object";
    EXPECT_NE(name[0], 'n') << "an invalid text was read";

    const std::string written = write(document);
    const Object reread = read(written);
    EXPECT_TRUE(reread == document);
    EXPECT_EQ(write(reread), written);
    ++round_trips;
  }
  EXPECT_EQ(refused_valid, kRefusedValid);
  EXPECT_EQ(round_trips, 10);
}

}  // namespace
