#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <iomanip>
#include <limits>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "dova/json/writer.h"
#include "table_rows.h"

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

TEST(JsonWriter, CompactAndIndentedLayouts) {
  Object object;
  object["a"] = Number(1);
  object["b"][size_t{1}] = Null();
  object["b"][size_t{0}] = Boolean(true);
  object["c"] = Object();
  object["d"] = Array();
  EXPECT_EQ(write(object), R"({"a":1,"b":[true,null],"c":{},"d":[]})");
  EXPECT_EQ(
      write(object, true),
      "{\n\t\"a\" : 1,\n\t\"b\" : [\n\t\ttrue,\n\t\tnull\n\t],\n\t\"c\" : {},\n\t\"d\" : []\n}");
  EXPECT_EQ(write(Object(), true), "{}");
  EXPECT_EQ(write(Array(), true), "[]");
  EXPECT_EQ(write(UnknownElement(Boolean(false))), "false");
}

TEST(JsonWriter, QuotesNamesAndValuesAlike) {
  for (const auto& row : korcommon::testing::tableRows("json/quoting.txt", 3)) {
    Object object;
    object[row[0]] = String(row[0]);
    EXPECT_EQ(write(object), "{" + row[1] + ":" + row[1] + "}") << row[2];
  }
}

TEST(JsonWriter, NumbersAreTwentyDigitsAsPrintfWritesThem) {
  using limits = std::numeric_limits<double>;
  std::vector<double> values = {
      -0.0,          limits::infinity(),  -limits::infinity(), std::nan(""), 18446744073709551616.0,
      limits::max(), limits::denorm_min()};
  // The magnitudes documents hold with their neighbours, and binary fractions, whose digits end
  // in exact ties.
  for (double value = 1e-15; value < 1e22; value *= 1.0123) {
    values.insert(values.end(), {value, std::nextafter(value, 0.0), -std::nextafter(value, 1e300)});
  }
  for (int whole = 1; whole < 100000; whole += 997) {
    for (int shift = 0; shift < 45; shift += 4) values.push_back(std::ldexp(whole, -shift));
  }
  for (const double value : values) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%.20g", value);
    ASSERT_EQ(write(UnknownElement(Number(value))), expected);
  }
}

class GroupThousands : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(JsonWriter, UsesAndLeavesTheStreamsFormatting) {
  std::ostringstream stream;
  stream << std::hex;
  Writer::Write(UnknownElement(Number(255)), stream);
  Writer::Write(UnknownElement(String("\xC3\xA9")), stream);
  EXPECT_EQ(stream.precision(), 20);
  EXPECT_EQ(stream.fill(), '0');
  EXPECT_EQ(stream.width(), 0);
  stream << 255;
  EXPECT_EQ(stream.str(), "255\"\\u00e9\"ff");

  // Flags, a width and a locale the caller set apply as to any insertion.
  Array array;
  array.Insert(Number(1e20));
  array.Insert(String("\xC3\xA9"));
  array.Insert(Number(2));
  std::ostringstream signed_stream;
  signed_stream << std::showpos << std::setw(8);
  Writer::Write(array, signed_stream);
  EXPECT_EQ(signed_stream.str(), R"([  +1e+20,"\u00e9",+2])");
  std::ostringstream upper;
  upper << std::uppercase;
  Writer::Write(array, upper);
  EXPECT_EQ(upper.str(), R"([1E+20,"\u00E9",2])");
  std::ostringstream grouped;
  grouped.imbue(std::locale(grouped.getloc(), new GroupThousands));
  Writer::Write(UnknownElement(Number(1700000000.0)), grouped);
  EXPECT_EQ(grouped.str(), "1,700,000,000");

  std::ostringstream failed;
  failed.setstate(std::ios_base::badbit);
  Writer::Write(UnknownElement(String("\xC3\xA9")), failed);
  EXPECT_EQ(failed.str(), "");
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
  for (const bool indented : {false, true}) {
    FlushRecorder buffer;
    std::ostream stream(&buffer);
    Writer::Write(object, stream, indented);
    // "{\n", "\t\"a\" : 1,\n", "\t\"b\" : []\n", "}"
    const std::vector<size_t> expected =
        indented ? std::vector<size_t>{2, 12, 22, 23} : std::vector<size_t>{14};
    EXPECT_EQ(buffer.flushed_at, expected);
  }
}

}  // namespace
