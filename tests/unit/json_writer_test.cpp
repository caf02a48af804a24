#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "dova/json/writer.h"

namespace {

using dova::json::Array;
using dova::json::Boolean;
using dova::json::Null;
using dova::json::Number;
using dova::json::Object;
using dova::json::String;
using dova::json::UnknownElement;
using dova::json::Writer;

template <typename ElementT>
std::string write(const ElementT& element, bool indented = false) {
  std::ostringstream stream;
  Writer::Write(element, stream, indented);
  return stream.str();
}

// The compact text of a one-member object {"s": text}.
std::string writeString(const std::string& text) {
  Object object;
  object["s"] = String(text);
  return write(object);
}

std::string writeNumber(double value) { return write(UnknownElement(Number(value))); }

TEST(JsonWriter, CompactLayout) {
  Object envelope;
  envelope["accid"] = String("A1");
  envelope["n"] = Number(2);
  EXPECT_EQ(write(envelope), R"({"accid":"A1","n":2})");

  Object data;
  data["data"] = Object();
  EXPECT_EQ(write(data), R"({"data":{}})");
  EXPECT_EQ(write(Object()), "{}");
  EXPECT_EQ(writeString("\"\n\xC3\xA9"), R"({"s":"\"\n\u00e9"})");

  Object mixed;
  mixed["x"] = Number(0.1);
  mixed["b"] = Boolean(false);
  mixed["z"] = Null();
  EXPECT_EQ(write(mixed), R"({"x":0.10000000000000000555,"b":false,"z":null})");

  Array array;
  array.Insert(Array());
  array.Insert(Boolean(true));
  array.Insert(String(""));
  EXPECT_EQ(write(array), R"([[],true,""])");
  EXPECT_EQ(write(UnknownElement()), "null");
}

TEST(JsonWriter, IndentedLayout) {
  Object object;
  object["a"] = Number(1);
  object["b"][size_t{1}] = Null();
  object["b"][size_t{0}] = Boolean(true);
  EXPECT_EQ(write(object, true), "{\n\t\"a\" : 1,\n\t\"b\" : [\n\t\ttrue,\n\t\tnull\n\t]\n}");

  Object empties;
  empties["o"] = Object();
  empties["a"] = Array();
  EXPECT_EQ(write(empties, true), "{\n\t\"o\" : {},\n\t\"a\" : []\n}");
  EXPECT_EQ(write(Object(), true), "{}");
  EXPECT_EQ(write(Array(), true), "[]");
}

TEST(JsonWriter, EscapesOnlyQuoteBackslashAndFiveControlCharacters) {
  EXPECT_EQ(writeString(""), R"({"s":""})");
  EXPECT_EQ(writeString("\"\\\b\f\n\r\t"), R"({"s":"\"\\\b\f\n\r\t"})");
  const std::string raw("\x01\x1F\x7F/\v\0", 6);
  EXPECT_EQ(writeString(raw), "{\"s\":\"" + raw + "\"}");

  Object named;
  named["a\"b\n\xC3\xA9"] = Null();
  EXPECT_EQ(write(named), R"({"a\"b\n\u00e9":null})");
}

TEST(JsonWriter, ConvertsTwoAndThreeByteUtf8ToEscapes) {
  EXPECT_EQ(writeString("\xC2\x80\xDF\xBF"), R"({"s":"\u0080\u07ff"})");
  EXPECT_EQ(writeString("x\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBFy"),
            R"({"s":"x\u0800\u20ac\uffffy"})");
  // Overlong forms and surrogate code points are converted without complaint.
  EXPECT_EQ(writeString("\xC0\x80\xE0\x80\x80\xED\xA0\x80"), R"({"s":"\u0000\u0000\ud800"})");
}

TEST(JsonWriter, KeepsOtherBytesAboveAsciiRaw) {
  const std::vector<std::string> raw = {
      "\xF0\x9F\x98\x80",  // four-byte sequence
      "\x80\xBF",          // stray continuation bytes
      "\xF8\xFF",          // never valid
      "a\xC3",             // two-byte lead at the end
      "a\xE2\x82",         // three-byte lead and one continuation at the end
      "\xE2",              // three-byte lead at the end
      "\xC3"
      "A",  // lead without its continuation
      "\xE2\x82"
      "A",  // three-byte sequence cut short
  };
  for (const std::string& text : raw) {
    EXPECT_EQ(writeString(text), "{\"s\":\"" + text + "\"}");
  }
  EXPECT_EQ(writeString("\xE2\xE2\x82\xAC"), "{\"s\":\"\xE2\\u20ac\"}");
}

TEST(JsonWriter, NumbersHaveTwentySignificantDigits) {
  EXPECT_EQ(writeNumber(1.0), "1");
  EXPECT_EQ(writeNumber(0.5), "0.5");
  EXPECT_EQ(writeNumber(0.1), "0.10000000000000000555");
  EXPECT_EQ(writeNumber(3.14), "3.1400000000000001243");
  EXPECT_EQ(writeNumber(1700000000.0), "1700000000");
  EXPECT_EQ(writeNumber(1e19), "10000000000000000000");
  EXPECT_EQ(writeNumber(1e20), "1e+20");
  EXPECT_EQ(writeNumber(1e-05), "1.0000000000000000818e-05");
  EXPECT_EQ(writeNumber(0.0001), "0.00010000000000000000479");
  EXPECT_EQ(writeNumber(-0.0), "-0");
  EXPECT_EQ(writeNumber(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(writeNumber(-std::numeric_limits<double>::infinity()), "-inf");
  EXPECT_EQ(writeNumber(std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(JsonWriter, NumbersMatchPrintfTwentyDigitsOverManyValues) {
  std::vector<double> values = {
      123456.0 + std::ldexp(1.0, -15),  // 21 exact digits ending in 5: a rounding tie
      std::numeric_limits<double>::max(),
      std::numeric_limits<double>::min(),
      std::numeric_limits<double>::denorm_min(),
      -std::numeric_limits<double>::quiet_NaN(),
      9.9999999999999999e19,
      18446744073709551616.0,
  };
  // Every bit pattern, whole numbers, short binary fractions, and values spread evenly over
  // the magnitudes documents hold, with their neighbours.
  std::mt19937_64 random(20240601);
  std::uniform_real_distribution<double> decimal_exponent(-15.0, 21.0);
  for (int count = 0; count < 20000; ++count) {
    const uint64_t bits = random();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    values.push_back(value);
    values.push_back(static_cast<double>(static_cast<int64_t>(bits) >> (bits % 64)));
    values.push_back(std::ldexp(static_cast<double>(bits % 100000), -static_cast<int>(bits % 40)));
    const double spread = std::pow(10.0, decimal_exponent(random));
    values.insert(values.end(), {spread, -std::nextafter(spread, 0.0)});
  }
  for (int exponent = -14; exponent <= 21; ++exponent) {
    const double power = std::pow(10.0, exponent);
    values.insert(values.end(), {power, std::nextafter(power, 0.0), std::nextafter(power, 1e300)});
  }
  for (const double value : values) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%.20g", value);
    ASSERT_EQ(writeNumber(value), expected);
  }
}

TEST(JsonWriter, LeavesFormattingStateOnTheStream) {
  std::ostringstream stream;
  stream << std::hex;
  Writer::Write(UnknownElement(Number(255)), stream);
  EXPECT_EQ(stream.str(), "255");
  EXPECT_EQ(stream.precision(), 20);
  EXPECT_EQ(stream.flags() & std::ios_base::basefield, std::ios_base::dec);

  Writer::Write(UnknownElement(String("\xC3\xA9")), stream);
  EXPECT_EQ(stream.flags() & std::ios_base::basefield, std::ios_base::hex);
  EXPECT_EQ(stream.fill(), '0');
  EXPECT_EQ(stream.width(), 0);
  stream << 255 << ' ';
  EXPECT_EQ(stream.str(), "255\"\\u00e9\"ff ");

  std::ostringstream failed;
  failed.setstate(std::ios_base::badbit);
  Writer::Write(UnknownElement(String("\xC3\xA9")), failed);
  EXPECT_EQ(failed.str(), "");
  // A refused insertion does not use up the width.
  EXPECT_EQ(failed.width(), 4);
}

class GroupThousands : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(JsonWriter, FormatsNumbersAndEscapesAsTheStreamIsSetUp) {
  std::ostringstream flagged;
  flagged << std::showpos << std::uppercase;
  Array array;
  array.Insert(Number(1e20));
  array.Insert(String("\xC3\xA9"));
  Writer::Write(array, flagged);
  EXPECT_EQ(flagged.str(), R"([+1E+20,"\u00E9"])");

  // Only a formatted insertion uses up a width the caller set: here the first number.
  std::ostringstream padded;
  padded.width(4);
  Array numbers;
  numbers.Insert(Number(1));
  numbers.Insert(Number(2));
  Writer::Write(numbers, padded);
  EXPECT_EQ(padded.str(), "[   1,2]");

  std::ostringstream grouped;
  grouped.imbue(std::locale(grouped.getloc(), new GroupThousands));
  Writer::Write(UnknownElement(Number(1700000000.0)), grouped);
  EXPECT_EQ(grouped.str(), "1,700,000,000");
}

// Records how much text had arrived at each flush.
class FlushRecorder : public std::stringbuf {
 public:
  std::vector<size_t> flushed_at;

 protected:
  int sync() override {
    flushed_at.push_back(str().size());
    return 0;
  }
};

TEST(JsonWriter, FlushesAtEachIndentedLineAndAtTheEnd) {
  Object object;
  object["a"] = Number(1);
  object["b"] = Array();

  FlushRecorder compact_buffer;
  std::ostream compact(&compact_buffer);
  Writer::Write(object, compact);
  EXPECT_EQ(compact_buffer.flushed_at, std::vector<size_t>{14});

  FlushRecorder indented_buffer;
  std::ostream indented(&indented_buffer);
  Writer::Write(object, indented, true);
  // "{\n", "\t\"a\" : 1,\n", "\t\"b\" : []\n", "}"
  EXPECT_EQ(indented_buffer.flushed_at, (std::vector<size_t>{2, 12, 22, 23}));
}

}  // namespace
