// The JSON library: what the reader makes of texts and streams, what the writer writes, and how
// the elements behave as values.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ext/stdio_sync_filebuf.h>
#include <filesystem>
#include <iomanip>
#include <iterator>
#include <locale>
#include <memory>
#include <memory_resource>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dova/json/elements.h"
#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "dova/msgs/msg.h"
#include "table_rows.h"

namespace {

using dova::json::Array;
using dova::json::Boolean;
using dova::json::Exception;
using dova::json::Number;
using dova::json::Object;
using dova::json::Reader;
using dova::json::String;
using dova::json::UnknownElement;
using dova::json::Writer;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

std::string write(const UnknownElement& element, bool indented = false) {
  std::ostringstream stream;
  Writer::Write(element, stream, indented);
  return stream.str();
}

std::string where(const Reader::Location& location) {
  return std::to_string(location.line) + "," + std::to_string(location.column) + "," +
         std::to_string(location.offset);
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

// A stream over `content` without a buffer: each character is taken from a memory file as it is
// read, as from any unbuffered stream.
struct UnbufferedText {
  explicit UnbufferedText(std::string content)
      : text(std::move(content)),
        file(fmemopen(text.data(), text.size(), "r"), std::fclose),
        buffer(file.get()),
        stream(&buffer) {}
  std::string text;
  std::unique_ptr<FILE, int (*)(FILE*)> file;
  __gnu_cxx::stdio_sync_filebuf<char> buffer;
  std::istream stream;
};

// What the reader makes of `text`, the same from a buffered and an unbuffered stream.
std::string read(const std::string& text) {
  Object object;
  std::istringstream buffered(text);
  const std::string result = readInto(object, buffered);
  UnbufferedText unbuffered(text);
  Object again;
  EXPECT_EQ(readInto(again, unbuffered.stream), result) << "unbuffered";
  return result;
}

// Four threads read the tables at once: readings share no state.
TEST(JsonReader, TablesOfValuesAndErrorsOnFourThreads) {
  auto rows = korcommon::testing::tableRows("json/reader_values.txt", 3);
  for (const auto& row : korcommon::testing::tableRows("json/reader_errors.txt", 5)) {
    rows.push_back({row[0], row[1] + " | " + row[2] + " | " + row[3], row[4]});
  }
  const auto readAll = [&rows] {
    for (const auto& row : rows) EXPECT_EQ(read(row[0]), row[1]) << row[2];
  };
  std::vector<std::thread> threads(3);
  for (std::thread& thread : threads) thread = std::thread(readAll);
  readAll();
  for (std::thread& thread : threads) thread.join();
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
    EXPECT_THAT(read("{" + members + "\"" + name + "\":1}"), HasSubstr("token: " + name + " |"));
  }
  EXPECT_EQ(read("{" + members + "\"m100\":1}"), "{" + members + "\"m100\":1}");
}

// The reader's own buffers do not depend on the program's default memory resource.
TEST(JsonReader, ReadsLargeDocumentsWhateverTheDefaultMemoryResource) {
  std::string members;
  for (int member = 0; member < 1000; ++member) members += "\"m" + std::to_string(member) + "\":0,";
  const std::string text = "{" + members + "\"end\":1}";
  const auto restore = [](std::pmr::memory_resource* previous) {
    std::pmr::set_default_resource(previous);
  };
  const std::unique_ptr<std::pmr::memory_resource, decltype(restore)> previous(
      std::pmr::set_default_resource(std::pmr::null_memory_resource()), restore);
  EXPECT_EQ(read(text), text);
}

TEST(JsonReader, RefusesNestingDeeperThan512Levels) {
  // 511 levels, objects and arrays in turn, around a 512th.
  std::string open;
  std::string close;
  for (int level = 1; level < 512; ++level) {
    open += level % 2 ? R"({"a":)" : "[";
    close.insert(0, level % 2 ? "}" : "]");
  }
  EXPECT_EQ(read(open + "{}" + close).substr(0, 10), R"({"a":[{"a")");
  EXPECT_EQ(read(open + "[[]]" + close),
            "parse | Nesting deeper than 512 levels at token: [ | 0,1536,1536 0,1537,1537");
  EXPECT_EQ(read(R"({"a":)" + std::string(100000, '[')),
            "parse | Nesting deeper than 512 levels at token: [ | 0,516,516 0,517,517");
}

TEST(JsonReader, LeavesTheStreamJustAfterWhatItRead) {
  // A mismatching character is consumed, an unexpected one is not, and a document read whole.
  for (const auto& [text, rest] : std::vector<std::pair<std::string, std::string>>{
           {R"({"b":tru}x)", "x"}, {"{a}", "a}"}, {R"({"a":1} )", ""}}) {
    UnbufferedText unbuffered(text);
    Object object;
    readInto(object, unbuffered.stream);
    unbuffered.stream.clear();
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(unbuffered.stream), {}), rest) << text;
  }
  // A stream already at its end holds no tokens; a failed one reads as the end-of-file value.
  std::istringstream at_end("{}");
  std::istringstream failed("{}");
  at_end.setstate(std::ios_base::eofbit);
  failed.setstate(std::ios_base::failbit);
  Object object;
  EXPECT_EQ(readInto(object, at_end), "parse | Unexpected end of token stream | 0,0,0 0,0,0");
  EXPECT_EQ(readInto(object, failed), "scan | Unexpected character in stream: \xFF | 0,0,0");
}

// The JSONTestSuite's parsing cases: the reader accepts exactly the listed texts, which then
// round-trip, and refuses every other with a message.
TEST(JsonReader, JsonTestSuiteReadsRoundTripOrFailCleanly) {
  std::vector<std::string> accepted;
  for (const auto& entry : std::filesystem::directory_iterator(
           std::string(KORCOMMON_TEST_DATA_DIR) + "/JSONTestSuite/test_parsing")) {
    const std::string written = read(korcommon::testing::readFile(entry.path()));
    if (written.rfind("scan | ", 0) == 0 || written.rfind("parse | ", 0) == 0) continue;
    accepted.push_back(entry.path().filename().string());
    EXPECT_EQ(read(written), written) << accepted.back();
  }
  std::sort(accepted.begin(), accepted.end());
  std::vector<std::string> listed;
  for (const auto& row : korcommon::testing::tableRows("json/test_suite_accepted.txt", 2)) {
    listed.push_back(row[0]);
  }
  EXPECT_EQ(accepted, listed);
}

// A buffer that marks each flush with a '|' in its text.
struct FlushMarker : std::stringbuf {
  int sync() override { return sputc('|') == '|' ? 0 : -1; }
};

TEST(JsonWriter, LayoutsFlushedAtEachLineAndAtTheEnd) {
  Object object;
  std::istringstream text(R"({"a":1,"b":[true,null],"c":{},"d":[]})");
  Reader::Read(object, text);
  for (const bool indented : {false, true}) {
    FlushMarker buffer;
    std::ostream stream(&buffer);
    Writer::Write(object, stream, indented);
    EXPECT_EQ(buffer.str(), indented
                                ? "{\n|\t\"a\" : 1,\n|\t\"b\" : [\n|\t\ttrue,\n|\t\tnull\n|\t],\n|"
                                  "\t\"c\" : {},\n|\t\"d\" : []\n|}|"
                                : R"({"a":1,"b":[true,null],"c":{},"d":[]}|)");
  }
  EXPECT_EQ(write(Object(), true), "{}");
  EXPECT_EQ(write(Array(), true), "[]");
  EXPECT_EQ(write(UnknownElement(Boolean(false))), "false");
}

// The message echo quotes as the writer does.
TEST(JsonWriter, QuotesNamesAndValuesAlike) {
  for (const auto& row : korcommon::testing::tableRows("json/quoting.txt", 3)) {
    Object object;
    object[row[0]] = String(row[0]);
    EXPECT_EQ(write(object), "{" + row[1] + ":" + row[1] + "}") << row[2];
    EXPECT_EQ(dova::Msg::matchString2(row[0]), row[1]) << row[2];
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
  stream << 255 << std::dec << "|" << stream.precision() << "|" << stream.fill() << "|"
         << stream.width();
  EXPECT_EQ(stream.str(), "255\"\\u00e9\"ff|20|0|0");

  // Flags, a width and a locale the caller set apply as to any insertion.
  Array array;
  array.Insert(Number(1e20));
  array.Insert(String("\xC3\xA9"));
  array.Insert(Number(2));
  std::ostringstream set_up;
  set_up << std::showpos << std::setw(8);
  Writer::Write(array, set_up);
  set_up << std::noshowpos << std::uppercase;
  Writer::Write(array, set_up);
  set_up.imbue(std::locale(set_up.getloc(), new GroupThousands));
  Writer::Write(UnknownElement(Number(1700000000.0)), set_up);
  set_up.setstate(std::ios_base::badbit);
  Writer::Write(UnknownElement(String("\xC3\xA9")), set_up);
  EXPECT_EQ(set_up.str(), R"([  +1e+20,"\u00e9",+2][1E+20,"\u00E9",2]1,700,000,000)");
}

TEST(JsonElements, NonConstAccessConvertsAndGrowsConstAccessThrows) {
  UnknownElement element = String("text");
  EXPECT_EQ(element.ConvertTo<Number>().Value(), 0.0);  // another kind becomes the default
  element.ConvertTo<Number>() = 7.5;                    // the same kind is kept in place
  EXPECT_EQ(element.CastTo<Number>().Value(), 7.5);
  EXPECT_EQ(write(element.ConvertTo<Array>()), "[]");
  element[size_t{2}] = String("x");
  element["a"]["b"].ConvertTo<Number>();
  element["c"];
  EXPECT_EQ(write(element), R"({"a":{"b":0},"c":null})");
  element["a"] = Boolean(true);
  EXPECT_EQ(write(element), R"({"a":true,"c":null})");  // new names at the end, old ones in place
  element = Array();
  element[size_t{2}] = String("x");
  EXPECT_EQ(write(element), R"([null,null,"x"])");

  const UnknownElement null;
  EXPECT_THAT([] { static_cast<void>(UnknownElement(String("t")).CastTo<Number>()); },
              ThrowsMessage<Exception>("Bad cast"));
  EXPECT_THAT([&] { static_cast<void>(static_cast<const Boolean&>(null)); },
              ThrowsMessage<Exception>("Bad cast"));
  Object object;
  object.Insert(Object::Member("k", Number(1)));
  EXPECT_THAT([&] { object.Insert(Object::Member("k", Number(2))); },
              ThrowsMessage<Exception>("Object member already exists: k"));
  const Object::Member again("k");
  EXPECT_THROW(object.Insert(again), Exception);
  object.Insert(Object::Member("first"), object.begin());
  EXPECT_EQ(write(object), R"({"first":null,"k":1})");
  EXPECT_EQ(object.Find("K"), object.end());
}

TEST(JsonElements, CopiesAreDeepAndAssignmentFromAChildIsSafe) {
  UnknownElement original;
  original["list"][size_t{1}] = Number(2);
  original["list"][size_t{0}]["name"] = String("a text too long for any small buffer");
  UnknownElement copy = original;
  copy["list"][size_t{1}] = Number(3);
  EXPECT_EQ(write(original), R"({"list":[{"name":"a text too long for any small buffer"},2]})");

  const UnknownElement& itself = original;
  original = itself;
  original = original["list"];
  original = original[size_t{0}];
  original = std::move(original["name"]);
  EXPECT_EQ(write(original), R"("a text too long for any small buffer")");
  UnknownElement moved = std::move(copy);
  EXPECT_EQ(write(copy), "null");
  EXPECT_EQ(write(moved), R"({"list":[{"name":"a text too long for any small buffer"},3]})");
}

TEST(JsonElements, EqualityComparesKindValueAndOrder) {
  for (const auto& row : korcommon::testing::tableRows("json/equality.txt", 4)) {
    Object pair;
    std::istringstream text(R"({"l":)" + row[0] + R"(,"r":)" + row[1] + "}");
    Reader::Read(pair, text);
    EXPECT_EQ(std::to_string(pair["l"] == pair["r"]) + std::to_string(pair["r"] == pair["l"]),
              row[2] == "equal" ? "11" : "00")
        << row[3];
  }
  EXPECT_FALSE(UnknownElement(Number(std::nan(""))) == UnknownElement(Number(std::nan(""))));
}

}  // namespace
