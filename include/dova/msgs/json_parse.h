#ifndef DOVA_MSGS_JSON_PARSE_H_
#define DOVA_MSGS_JSON_PARSE_H_

#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "dova/json/elements.h"
#include "dova/json/reader.h"
#include "dova/json/writer.h"

// The frame every message parser shares: read the text into a JSON object,
// let the message take its members, and turn any standard exception into one
// line on standard output. Stateless; safe on any thread (the report lines of
// concurrent failures may interleave).
namespace dova::msgs {

// Reads `json` into an object and calls `fill(object)`. A standard exception
// from either step is caught and printed as "Caught dova::json::Exception: "
// and its what() text; other exceptions propagate. The members are fetched
// through the writable access, so a missing or mistyped member never throws:
// it reads as the default of the requested kind.
template <typename Fill>
void parseJsonObject(const std::string& json, Fill&& fill) {
  try {
    json::Object object;
    std::istringstream stream(json);
    json::Reader::Read(object, stream);
    fill(object);
  } catch (const std::exception& error) {
    // Deliberate: the prefix names the JSON exception whatever the real type.
    std::cout << "Caught dova::json::Exception: " << error.what() << std::endl;
  }
}

// An element back as compact JSON text; a Null element gives "null".
inline std::string writeJsonText(const json::UnknownElement& element) {
  std::ostringstream stream;
  json::Writer::Write(element, stream);
  return stream.str();
}

inline double numberMember(json::Object& object, const std::string& name) {
  return object[name].ConvertTo<json::Number>();
}

inline const std::string& stringMember(json::Object& object, const std::string& name) {
  return object[name].ConvertTo<json::String>();
}

}  // namespace dova::msgs

#endif  // DOVA_MSGS_JSON_PARSE_H_
