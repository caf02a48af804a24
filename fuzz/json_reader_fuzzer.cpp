// Fuzzes the JSON reader, and the writer through it. Properties checked on every input:
//  - Reading gives an Object or throws dova::json::Exception; nothing else escapes, and what was
//    read before an error can still be written.
//  - A document read is written (compact) and read again: equal, when its texts survive the
//    writer's quoting (fuzz_support.h); otherwise it may change once, or fail to read back as a
//    lone surrogate or a duplicate name, and must be stable after that one change. Its indented
//    text reads back to it as well.
//  - The input's leading number-like run, read as a member value, gives exactly what extracting a
//    double with a string stream gives, and fails exactly when the extraction does not reach the
//    end (the reader's fast paths must agree).
//  - The first eight bytes taken as a finite double are written as printf's %.20g writes them,
//    and that text reads back to the same bits.
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

void checkNumberToken(const std::string& text) {
  if (text.empty() || !(text[0] == '-' || (text[0] >= '0' && text[0] <= '9'))) return;
  size_t length = 0;
  // strchr() finds the NUL too, which the number scan takes as well.
  while (length < text.size() && std::strchr("0123456789.eE-+", text[length]) != nullptr) ++length;
  const std::string token = text.substr(0, length);
  std::istringstream extraction(token);
  double expected = 0.0;
  extraction >> expected;
  Object document;
  const std::string error = readJson("{\"n\":" + token + "}", document);
  FUZZ_CHECK(error.empty() == extraction.eof(), "number token " + token + ": " + error);
  FUZZ_CHECK(!error.empty() || sameBits(document["n"].ConvertTo<dova::json::Number>(), expected),
             "number token " + token + " read as another value");
}

void checkNumberText(const uint8_t* data, size_t size) {
  double value;
  if (size < sizeof value) return;
  std::memcpy(&value, data, sizeof value);
  if (!std::isfinite(value)) return;  // the writer deliberately writes them as non-JSON text
  Object document;
  document["n"] = dova::json::Number(value);
  const std::string text = writeText(document);
  char expected[64];
  std::snprintf(expected, sizeof expected, "%.20g", value);
  FUZZ_CHECK(text == std::string("{\"n\":") + expected + "}", "number written as " + text);
  Object back;
  FUZZ_CHECK(
      readJson(text, back).empty() && sameBits(back["n"].ConvertTo<dova::json::Number>(), value),
      "a written number reads back as another: " + text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkDocument(text);
  checkNumberToken(text);
  checkNumberText(data, size);
  return 0;
}
