// Fuzzes the JSON reader, and the writer through it.
//
// Properties checked on every input:
//  - Reading either gives an Object or throws dova::json::Exception; nothing else escapes.
//  - A document read is written (compact) and read again: the two documents are equal and
//    write to identical text. The writer deliberately converts overlong UTF-8 forms and
//    surrogate code points, which the reader decodes differently, so a document holding such
//    text may change once (or fail to read back, as a lone surrogate or a duplicate name); it
//    must then be stable after that one change.
//  - The indented text of a document reads back to an equal document.
//  - The leading number-like run of the input read as a member value gives exactly what
//    extracting a double with a string stream gives (the reader's fast paths must agree).
//  - The first eight bytes taken as a double are written as printf's %.20g writes them, and
//    that text reads back to the same bits.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "dova/json/elements.h"
#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "fuzz_check.h"
#include "json_escaping.h"

namespace {

using dova::json::Array;
using dova::json::Number;
using dova::json::Object;
using dova::json::Reader;
using dova::json::String;
using dova::json::UnknownElement;
using dova::json::Writer;

std::string writeText(const Object& object, bool indented) {
  std::ostringstream stream;
  Writer::Write(object, stream, indented);
  return stream.str();
}

// Reads `text` into `object`; the reader's message on failure.
bool readText(const std::string& text, Object& object, std::string& error) {
  std::istringstream stream(text);
  try {
    Reader::Read(object, stream);
    return true;
  } catch (const dova::json::Exception& exception) {
    error = exception.what();
    return false;
  }
}

// Whether every member name and string of `element` survives writing and reading.
bool survives(const UnknownElement& element);

bool survives(const Object& object) {
  for (const Object::Member& member : object) {
    if (!korcommon::fuzz::survivesJsonEscaping(member.name) || !survives(member.element)) {
      return false;
    }
  }
  return true;
}

bool survives(const UnknownElement& element) {
  UnknownElement::ConstCastVisitor_T<String> string;
  element.Accept(string);
  if (string.element != nullptr) return korcommon::fuzz::survivesJsonEscaping(*string.element);
  UnknownElement::ConstCastVisitor_T<Object> object;
  element.Accept(object);
  if (object.element != nullptr) return survives(*object.element);
  UnknownElement::ConstCastVisitor_T<Array> array;
  element.Accept(array);
  if (array.element != nullptr) {
    for (const UnknownElement& child : *array.element) {
      if (!survives(child)) return false;
    }
  }
  return true;
}

// The only reader errors that writing a document which did not survive can lead to: its
// surrogate code points come back as lone \u escapes, and two member names that differed only
// in such forms (an overlong "\xC1\x81" and "A") come back equal.
bool isReencodingError(const std::string& error) {
  return error.rfind("Unexpected unicode low surrogate found in string: ", 0) == 0 ||
         error.rfind("Missing unicode low surrogate in string: ", 0) == 0 ||
         error.rfind("Duplicate object member token: ", 0) == 0;
}

// `document` was read from the compact text of another document: writing and reading it must
// change nothing, and the indented text must read back to it too.
void checkStable(const Object& document, const std::string& compact) {
  Object again;
  std::string error;
  FUZZ_CHECK(readText(compact, again, error), "compact text does not read back: " + error);
  FUZZ_CHECK(again == document, "compact text reads back to another document: " + compact);
  FUZZ_CHECK(writeText(again, false) == compact, "the document read back writes other text");

  const std::string indented = writeText(document, true);
  Object from_indented;
  FUZZ_CHECK(readText(indented, from_indented, error), "indented text does not read: " + error);
  FUZZ_CHECK(from_indented == document, "indented text reads back to another document");
}

void checkDocument(const std::string& text) {
  Object first;
  std::string error;
  if (!readText(text, first, error)) {
    // What the reader kept before the error is a complete document of its own.
    Object copy = first;
    FUZZ_CHECK(copy == first, "a partly read document differs from its copy");
    writeText(first, false);
    return;
  }
  const std::string compact = writeText(first, false);
  Object second;
  if (!readText(compact, second, error)) {
    FUZZ_CHECK(!survives(first) && isReencodingError(error),
               "compact text of a document read does not read back: " + error);
    return;
  }
  if (survives(first)) {
    FUZZ_CHECK(second == first, "compact text reads back to another document: " + compact);
    checkStable(second, compact);
  } else {
    checkStable(second, writeText(second, false));
  }
}

// The characters a number token is made of, as the reader scans them.
bool isNumberCharacter(char character) {
  return (character >= '0' && character <= '9') || character == '.' || character == 'e' ||
         character == 'E' || character == '-' || character == '+' || character == '\0';
}

uint64_t bitsOf(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

// The reader judges a number token by extracting a double from a string stream over it: only
// reaching the end of the token counts, and the value is whatever the extraction stored.
void checkNumberToken(const std::string& text) {
  if (text.empty() || !(text[0] == '-' || (text[0] >= '0' && text[0] <= '9'))) return;
  size_t length = 0;
  while (length < text.size() && isNumberCharacter(text[length])) ++length;
  const std::string token = text.substr(0, length);

  std::istringstream extraction(token);
  double expected = 0.0;
  extraction >> expected;
  const bool accepted = extraction.eof();

  Object document;
  std::string error;
  const bool read = readText("{\"n\":" + token + "}", document, error);
  FUZZ_CHECK(read == accepted, "number token " + token + (read ? " read" : " refused: " + error));
  if (!read) return;
  const double value = document["n"].ConvertTo<Number>();
  FUZZ_CHECK(bitsOf(value) == bitsOf(expected), "number token " + token + " read as another value");
}

// The writer's numbers are printf's %.20g, and 20 significant digits always read back exactly.
void checkNumberText(const uint8_t* data, size_t size) {
  double value;
  if (size < sizeof value) return;
  std::memcpy(&value, data, sizeof value);
  if (!std::isfinite(value)) return;  // the writer deliberately writes them as non-JSON text

  Object document;
  document["n"] = Number(value);
  const std::string text = writeText(document, false);
  char expected[64];
  std::snprintf(expected, sizeof expected, "%.20g", value);
  FUZZ_CHECK(text == std::string("{\"n\":") + expected + "}",
             "number written as " + text + ", not " + expected);

  Object back;
  std::string error;
  FUZZ_CHECK(readText(text, back, error), "a written number does not read: " + error);
  const double read = back["n"].ConvertTo<Number>();
  FUZZ_CHECK(bitsOf(read) == bitsOf(value), "a written number reads back as another: " + text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkDocument(text);
  checkNumberToken(text);
  checkNumberText(data, size);
  return 0;
}
