// Fuzzes the JSON reader, and the writer through it. Properties checked on every input:
//  - Reading gives an Object or throws dova::json::Exception; nothing else escapes, and what was
//    read before an error can still be written.
//  - A document read is written (compact) and read again: equal, when its texts survive the
//    writer's quoting (fuzz_support.h); otherwise it may change once, or fail to read back as a
//    lone surrogate or a duplicate name, and must be stable after that one change. Its indented
//    text reads back to it as well.
//  - Each number-like run of the input, read as a member value, gives exactly what extracting a
//    double with a string stream gives, and fails exactly when the extraction does not reach the
//    end, naming the character the extraction stopped at (the reader's fast paths must agree).
//    The corpus holds sweeps of such runs: printed doubles of every magnitude and ties.
//  - The value of each run read, and the first eight bytes taken as a double, are written as
//    printf's %.20g writes them, and a finite value's text reads back to the same bits.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "fuzz_support.h"

namespace {

using dova::json::Object;
using korcommon::fuzz::readJson;

std::string writeText(const Object& object, bool indented = false) {
  std::ostringstream stream;
  dova::json::Writer::Write(object, stream, indented);
  return stream.str();
}

void checkDocument(const std::string& text) {
  Object first;
  if (!readJson(text, first).empty()) {
    writeText(first);
    return;
  }
  // Every byte above ASCII of a text read lies in a string, and escapes always decode to shortest
  // forms, so the document's texts survive exactly when the input's bytes do.
  const bool survives = korcommon::fuzz::survivesJsonEscaping(text);
  Object second;
  const std::string error = readJson(writeText(first), second);
  if (!error.empty()) {
    FUZZ_CHECK(!survives && (error.rfind("Unexpected unicode low surrogate", 0) == 0 ||
                             error.rfind("Missing unicode low surrogate", 0) == 0 ||
                             error.rfind("Duplicate object member token: ", 0) == 0),
               "the compact text of a document read does not read back: " + error);
    return;
  }
  FUZZ_CHECK(!survives || second == first, "compact text reads back to another document");
  const std::string compact = writeText(second);
  Object third;
  Object from_indented;
  FUZZ_CHECK(readJson(compact, third).empty() && third == second && writeText(third) == compact,
             "a document read back is not stable: " + compact);
  FUZZ_CHECK(readJson(writeText(second, true), from_indented).empty() && from_indented == second,
             "indented text reads back to another document");
}

bool sameBits(double left, double right) { return std::memcmp(&left, &right, sizeof left) == 0; }

void checkNumberWritten(double value) {
  std::ostringstream text;
  dova::json::Writer::Write(dova::json::UnknownElement(dova::json::Number(value)), text);
  char expected[64];
  std::snprintf(expected, sizeof expected, "%.20g", value);
  FUZZ_CHECK(text.str() == expected, "number written as " + text.str());
  Object back;
  // The writer deliberately writes the non-finite values as non-JSON text.
  FUZZ_CHECK(!std::isfinite(value) || (readJson("{\"n\":" + text.str() + "}", back).empty() &&
                                       sameBits(back["n"].ConvertTo<dova::json::Number>(), value)),
             "a written number reads back as another: " + text.str());
}

void checkNumberTokens(const std::string& text) {
  // The number scan takes a NUL as well.
  const std::string run_characters("0123456789.eE-+", 16);
  size_t end = 0;
  for (size_t begin; (begin = text.find_first_of("-0123456789", end)) != std::string::npos;) {
    end = std::min(text.find_first_not_of(run_characters, begin), text.size());
    const std::string token = text.substr(begin, end - begin);
    std::istringstream extraction(token);
    double expected = 0.0;
    extraction >> expected;
    const std::string stop(1, static_cast<char>(extraction.peek()));
    Object document;
    const std::string error = readJson("{\"n\":" + token + "}", document);
    const std::string refused = "Unexpected character in NUMBER token: " + stop;
    // what() ends at a NUL, as c_str() does.
    FUZZ_CHECK(error == (extraction.eof() ? "" : refused.c_str()),
               "number token " + token + ": " + error);
    FUZZ_CHECK(!error.empty() || sameBits(document["n"].ConvertTo<dova::json::Number>(), expected),
               "number token " + token + " read as another value");
    checkNumberWritten(expected);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkDocument(text);
  checkNumberTokens(text);
  double value;
  if (size < sizeof value) return 0;
  std::memcpy(&value, data, sizeof value);
  checkNumberWritten(value);
  return 0;
}
