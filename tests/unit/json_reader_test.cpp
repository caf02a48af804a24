#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "table_rows.h"

namespace {

using dova::json::Object;
using dova::json::Reader;

std::string where(const Reader::Location& location) {
  return std::to_string(location.line) + "," + std::to_string(location.column) + "," +
         std::to_string(location.offset);
}

std::string write(const Object& object) {
  std::ostringstream stream;
  dova::json::Writer::Write(object, stream);
  return stream.str();
}

// The compact text of what the reader makes of `text` (read into `object`), or "scan |", "parse |"
// with the message and the positions, as the error tables write them.
std::string readInto(Object& object, std::istream& stream) {
  try {
    Reader::Read(object, stream);
    return write(object);
  } catch (const Reader::ScanException& error) {
    return std::string("scan | ") + error.what() + " | " + where(error.location);
  } catch (const Reader::ParseException& error) {
    return std::string("parse | ") + error.what() + " | " + where(error.begin) + " " +
           where(error.end);
  }
}

// Serves its text a character at a time, without a buffer, as unbuffered stream buffers do.
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

// What the reader makes of `text`, the same from a buffered and an unbuffered stream.
std::string read(const std::string& text) {
  Object object;
  std::istringstream buffered(text);
  const std::string result = readInto(object, buffered);
  UnbufferedText unbuffered_text(text);
  std::istream unbuffered(&unbuffered_text);
  Object again;
  EXPECT_EQ(readInto(again, unbuffered), result) << "unbuffered";
  return result;
}

TEST(JsonReader, TablesOfValuesAndErrors) {
  for (const auto& row : korcommon::testing::tableRows("json/reader_values.txt", 3)) {
    EXPECT_EQ(read(row[0]), row[1]) << row[2];
  }
  for (const auto& row : korcommon::testing::tableRows("json/reader_errors.txt", 5)) {
    EXPECT_EQ(read(row[0]), row[1] + " | " + row[2] + " | " + row[3]) << row[4];
  }
}

TEST(JsonReader, AddsToTheTargetAndKeepsWhatWasReadBeforeAnError) {
  Object object;
  object["x"] = dova::json::Number(1);
  std::istringstream more(R"({"y":2,"z":{"c":2,"c":3},"w":4})");
  EXPECT_EQ(readInto(object, more), "parse | Duplicate object member token: c | 0,18,18 0,21,21");
  EXPECT_EQ(write(object), R"({"x":1,"y":2})");
  std::istringstream again(R"({"x":3})");
  EXPECT_EQ(readInto(object, again), "parse | Duplicate object member token: x | 0,1,1 0,4,4");

  // Past the size where member names are indexed, duplicates are found all the same.
  std::string members;
  for (int member = 0; member < 100; ++member) members += "\"m" + std::to_string(member) + "\":0,";
  for (const std::string name : {"m7", "m99"}) {
    EXPECT_NE(read("{" + members + "\"" + name + "\":1}").find("token: " + name + " |"),
              std::string::npos);
  }
  EXPECT_EQ(read("{" + members + "\"m100\":1}"), "{" + members + "\"m100\":1}");
}

TEST(JsonReader, RefusesNestingDeeperThan512Levels) {
  const auto nested = [](int levels, const std::string& innermost) {
    std::string text;
    for (int level = 1; level < levels; ++level) text += level % 2 ? R"({"a":)" : "[";
    text += innermost;
    for (int level = levels - 1; level >= 1; --level) text += level % 2 ? "}" : "]";
    return text;
  };
  EXPECT_EQ(read(nested(512, "{}")).substr(0, 10), R"({"a":[{"a")");
  EXPECT_EQ(read(nested(513, "[]")),
            "parse | Nesting deeper than 512 levels at token: [ | 0,1536,1536 0,1537,1537");
  EXPECT_EQ(read(R"({"a":)" + std::string(100000, '[')),
            "parse | Nesting deeper than 512 levels at token: [ | 0,516,516 0,517,517");
}

TEST(JsonReader, LeavesTheStreamJustAfterWhatItRead) {
  // A mismatching character is consumed, an unexpected one is not, and a document read whole.
  for (const auto& [text, rest] : std::vector<std::pair<std::string, std::string>>{
           {R"({"b":tru}x)", "x"}, {"{a}", "a}"}, {R"({"a":1} )", ""}}) {
    UnbufferedText unbuffered_text(text);
    std::istream unbuffered(&unbuffered_text);
    Object object;
    readInto(object, unbuffered);
    unbuffered.clear();
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(unbuffered), {}), rest) << text;
  }
  // A stream already at its end holds no tokens; a failed one reads as the end-of-file value.
  for (const auto state : {std::ios_base::eofbit, std::ios_base::failbit}) {
    std::istringstream stream("{}");
    stream.setstate(state);
    Object object;
    EXPECT_EQ(readInto(object, stream),
              state == std::ios_base::eofbit
                  ? "parse | Unexpected end of token stream | 0,0,0 0,0,0"
                  : "scan | Unexpected character in stream: \xFF | 0,0,0");
  }
}

// A number token is judged by extracting a double from a string stream over it: the reader's
// value, or its error and the character it names, must be the extraction's, whatever follows.
TEST(JsonReader, NumbersMatchStreamExtractionBitForBit) {
  std::vector<std::string> tokens;
  for (const auto& row : korcommon::testing::tableRows("json/number_tokens.txt", 2)) {
    tokens.push_back(row[0]);
  }
  std::mt19937_64 random(7);
  char text[64];
  for (int count = 0; count < 3000; ++count) {
    const double spread = std::pow(10.0, std::uniform_real_distribution<>(-10.0, 40.0)(random));
    for (const char* format : {"%.20g", "%.15g", "%.4f", "%.2e"}) {
      std::snprintf(text, sizeof text, format, spread);
      tokens.push_back(text);
    }
    // Just off the midpoint between two doubles, the hardest to round.
    const long double next = std::nextafter(spread, 1e300);
    std::snprintf(text, sizeof text, "%.19Le", (spread + next) / 2);
    tokens.push_back(text);
  }
  for (const std::string& token : tokens) {
    std::istringstream extraction(token);
    double value = 0;
    extraction >> value;
    const char next = static_cast<char>(extraction.peek());
    const std::string end = std::to_string(5 + token.size());
    std::snprintf(text, sizeof text, "%.20g", value);
    for (const std::string after : {"", R"(,"a":"b")"}) {
      ASSERT_EQ(read("{\"n\":" + token + after + "}"),
                extraction.eof()
                    ? "{\"n\":" + std::string(text) + after + "}"
                    : "parse | Unexpected character in NUMBER token: " +
                          (next == 0 ? "" : std::string(1, next)) + " | 0,5,5 0," + end + "," + end)
          << token;
    }
  }
}

TEST(JsonReader, ThreadsReadSeparateDocuments) {
  const std::string text = R"({"a":[1.5,"\u00e9",{"b":null}],"c":true})";
  std::vector<std::string> results(4);
  std::vector<std::thread> threads;
  for (std::string& result : results) {
    threads.emplace_back([&] {
      for (int round = 0; round < 200 && (result = read(text)) == text; ++round) continue;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(results, std::vector<std::string>(4, text));
}

// The JSONTestSuite's parsing cases: a text is read and round-trips, or is refused with a message.
// Only objects are read, and of the valid ones only those with duplicate names are refused.
TEST(JsonReader, JsonTestSuiteReadsRoundTripOrFailCleanly) {
  std::set<std::string> refused_valid_objects;
  int files = 0;
  int round_trips = 0;
  for (const auto& entry : std::filesystem::directory_iterator(
           std::string(KORCOMMON_TEST_DATA_DIR) + "/JSONTestSuite/test_parsing")) {
    ++files;
    const std::string name = entry.path().filename().string();
    const std::string text = korcommon::testing::readFile(entry.path());
    const size_t first = text.find_first_not_of(" \t\n\v\f\r");
    const bool object_text = first != std::string::npos && text[first] == '{';
    const std::string written = read(text);
    if (written.rfind("scan | ", 0) == 0 || written.rfind("parse | ", 0) == 0) {
      if (name[0] == 'y' && object_text) refused_valid_objects.insert(name);
      continue;
    }
    EXPECT_TRUE(object_text && name[0] != 'n') << name;
    EXPECT_EQ(read(written), written) << name;
    ++round_trips;
  }
  EXPECT_EQ(files, 318);
  EXPECT_EQ(round_trips, 10);
  EXPECT_EQ(refused_valid_objects,
            (std::set<std::string>{"y_object_duplicated_key.json",
                                   "y_object_duplicated_key_and_value.json"}));
}

}  // namespace
