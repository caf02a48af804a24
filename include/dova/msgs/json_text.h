#ifndef DOVA_MSGS_JSON_TEXT_H_
#define DOVA_MSGS_JSON_TEXT_H_

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dova/json/string_escapes.h"

// Text building blocks of the messages' one-line JSON rendering (echo): each
// function appends to a caller's string, so a whole message renders into one
// buffer. Stateless; safe on any thread.
namespace dova::msgs {

inline void appendUnsigned(std::string& out, uint64_t value) {
  std::array<char, 20> digits;
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  out.append(digits.data(), result.ptr);
}

inline void appendSigned(std::string& out, int64_t value) {
  std::array<char, 20> digits;
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  out.append(digits.data(), result.ptr);
}

// Appends `text` as a JSON string literal, quotes included, escaped as the JSON writer escapes
// strings (see dova::json::string_escapes::specialPiece): readers of this text rely on exactly
// that output.
inline void appendJsonString(std::string& out, std::string_view text) {
  namespace escapes = json::string_escapes;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  out.push_back('"');
  size_t run = 0;  // the first byte not appended yet
  size_t next = 0;
  while (next < length) {
    if (!escapes::kSpecialBytes[bytes[next]]) {
      ++next;
      continue;
    }
    const escapes::SpecialPiece piece = escapes::specialPiece(bytes + next, length - next);
    if (piece.kind == escapes::SpecialPiece::kRaw) {
      ++next;  // copied with the run it belongs to
      continue;
    }
    out.append(text.data() + run, next - run);
    if (piece.kind == escapes::SpecialPiece::kCodePoint) {
      const std::array<char, 6> escape = escapes::unicodeEscape(piece.code);
      out.append(escape.data(), escape.size());
    } else {
      out.append(piece.text, 2);
    }
    next += piece.length;
    run = next;
  }
  out.append(text.data() + run, length - run);
  out.push_back('"');
}

}  // namespace dova::msgs

#endif  // DOVA_MSGS_JSON_TEXT_H_
