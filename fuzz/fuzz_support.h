// What the fuzzers share: the property check, reading JSON text, and which texts survive JSON
// quoting.
//
// A failed check prints what broke and aborts, which libFuzzer reports as a crash (saving the
// input) and which fails the corpus replay test.
#ifndef KORCOMMON_FUZZ_FUZZ_SUPPORT_H_
#define KORCOMMON_FUZZ_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdio>
#include <cstdlib>
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
// shortest UTF-8 form and pairs surrogates. So a text survives exactly when each sequence the
// writer converts is already the shortest form of a code point that is not a surrogate. Every
// other byte (raw controls, four-byte sequences, stray continuation bytes) passes through both
// unchanged.
inline bool survivesJsonEscaping(const std::string& text) {
  const auto byteAt = [&text](size_t index) { return static_cast<unsigned char>(text[index]); };
  const auto isContinuation = [&byteAt](size_t index) { return (byteAt(index) & 0xC0) == 0x80; };
  size_t next = 0;
  while (next < text.size()) {
    const unsigned lead = byteAt(next);
    const size_t left = text.size() - next;
    if ((lead & 0xE0) == 0xC0 && left >= 2 && isContinuation(next + 1)) {
      const unsigned code = ((lead & 0x1Fu) << 6) | (byteAt(next + 1) & 0x3Fu);
      if (code < 0x80) return false;
      next += 2;
    } else if ((lead & 0xF0) == 0xE0 && left >= 3 && isContinuation(next + 1) &&
               isContinuation(next + 2)) {
      const unsigned code =
          ((lead & 0x0Fu) << 12) | ((byteAt(next + 1) & 0x3Fu) << 6) | (byteAt(next + 2) & 0x3Fu);
      if (code < 0x800 || (code & 0xF800) == 0xD800) return false;
      next += 3;
    } else {
      ++next;
    }
  }
  return true;
}

}  // namespace korcommon::fuzz

#define FUZZ_CHECK(condition, message)                                                       \
  do {                                                                                       \
    if (!(condition)) ::korcommon::fuzz::failCheck(__FILE__, __LINE__, #condition, message); \
  } while (false)

#endif  // KORCOMMON_FUZZ_FUZZ_SUPPORT_H_
