// What the fuzzers share: the property check, reading JSON text, and which texts survive JSON
// quoting.
//
// A failed check prints what broke and aborts, which libFuzzer reports as a crash (saving the
// input) and which fails the corpus replay test.
#ifndef KORCOMMON_FUZZ_FUZZ_SUPPORT_H_
#define KORCOMMON_FUZZ_FUZZ_SUPPORT_H_

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>

#include "dova/json/reader.h"

namespace korcommon::fuzz {

[[noreturn]] inline void failCheck(const char* file, int line, const char* condition,
                                   const std::string& message) {
  std::fprintf(stderr, "%s:%d: check failed: %s\n  %s\n", file, line, condition, message.c_str());
  std::fflush(stderr);
  std::abort();
}

// Reads `text` into `object`: the reader's message on failure, empty on success. Any other
// exception escapes, and ends the run as a crash.
inline std::string readJson(const std::string& text, dova::json::Object& object) {
  std::istringstream stream(text);
  try {
    dova::json::Reader::Read(object, stream);
    return "";
  } catch (const dova::json::Exception& exception) {
    return exception.what()[0] == '\0' ? "(empty message)" : exception.what();
  }
}

// Whether `text` comes back unchanged when the JSON writer (or a message's echo) quotes it and
// the JSON reader reads the quoted text again.
// The writer turns every two- and three-byte UTF-8 sequence into a \u escape and deliberately
// accepts overlong forms and surrogate code points; the reader decodes an escape to the
// shortest UTF-8 form and pairs surrogates. So a text survives exactly when it holds no overlong
// two- or three-byte form and no encoded surrogate. A lead byte never continues a sequence, so
// such a form is found wherever it starts. Every other byte (raw controls, four-byte sequences,
// stray continuation bytes) passes through both unchanged.
inline bool survivesJsonEscaping(const std::string& text) {
  static const std::regex kReencoded(
      "[\xC0\xC1][\x80-\xBF]|\xE0[\x80-\x9F][\x80-\xBF]|\xED[\xA0-\xBF][\x80-\xBF]");
  return !std::regex_search(text, kReencoded);
}

}  // namespace korcommon::fuzz

#define FUZZ_CHECK(condition, message)                                                       \
  do {                                                                                       \
    if (!(condition)) ::korcommon::fuzz::failCheck(__FILE__, __LINE__, #condition, message); \
  } while (false)

#endif  // KORCOMMON_FUZZ_FUZZ_SUPPORT_H_
