// How string bytes are escaped in JSON text. The document writer and the messages' one-line
// rendering both escape through here, so that the two always write the same text.
#ifndef DOVA_JSON_STRING_ESCAPES_H_
#define DOVA_JSON_STRING_ESCAPES_H_

#include <array>
#include <cstddef>

namespace dova::json::string_escapes {

constexpr bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The two-character escape of `byte`, or null when it has none.
constexpr const char* shortEscape(unsigned char byte) {
  switch (byte) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\b':
      return "\\b";
    case '\f':
      return "\\f";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return nullptr;
  }
}

// Bytes that are not copied through unchanged: the ones with a short escape and the leads of
// two- and three-byte UTF-8 sequences (0xC0 to 0xEF).
constexpr std::array<bool, 256> specialBytes() {
  std::array<bool, 256> special{};
  for (size_t byte = 0; byte < special.size(); ++byte) {
    special[byte] =
        shortEscape(static_cast<unsigned char>(byte)) != nullptr || (byte >= 0xC0 && byte <= 0xEF);
  }
  return special;
}

constexpr std::array<bool, 256> kSpecialBytes = specialBytes();

// The six characters "\uXXXX" of a code point below 0x10000, in lowercase hexadecimal.
inline std::array<char, 6> unicodeEscape(unsigned code) {
  static constexpr char kDigits[] = "0123456789abcdef";
  return {'\\',
          'u',
          kDigits[(code >> 12) & 0xF],
          kDigits[(code >> 8) & 0xF],
          kDigits[(code >> 4) & 0xF],
          kDigits[code & 0xF]};
}

// How a special byte and the bytes after it are written inside a JSON string.
struct SpecialPiece {
  enum Kind {
    kCodePoint,  // a two- or three-byte UTF-8 sequence, written as the \u escape of `code`
    kShort,      // a byte with a short escape, written as the two characters at `text`
    kRaw,        // a lead byte whose sequence is cut short, written as it is
  };

  Kind kind;
  size_t length;  // the bytes of the text it stands for
  unsigned code = 0;
  const char* text = nullptr;
};

// What the special byte at `bytes[0]`, with `left` bytes from it to the end of the text,
// becomes.
//
// Only two- and three-byte sequences are converted. Four-byte sequences, stray continuation
// bytes and truncated sequences stay raw, overlong forms and surrogate code points are
// deliberately converted without complaint, and control characters without a short escape
// are not special at all: readers of this text rely on exactly this output.
// REQUIRES: kSpecialBytes[bytes[0]].
inline SpecialPiece specialPiece(const unsigned char* bytes, size_t left) {
  const unsigned char lead = bytes[0];
  if ((lead & 0xE0) == 0xC0 && left >= 2 && isContinuation(bytes[1])) {
    return {SpecialPiece::kCodePoint, 2, ((lead & 0x1Fu) << 6) | (bytes[1] & 0x3Fu)};
  }
  if ((lead & 0xF0) == 0xE0 && left >= 3 && isContinuation(bytes[1]) && isContinuation(bytes[2])) {
    return {SpecialPiece::kCodePoint, 3,
            ((lead & 0x0Fu) << 12) | ((bytes[1] & 0x3Fu) << 6) | (bytes[2] & 0x3Fu)};
  }
  if (const char* escaped = shortEscape(lead)) return {SpecialPiece::kShort, 1, 0, escaped};
  return {SpecialPiece::kRaw, 1};
}

}  // namespace dova::json::string_escapes

#endif  // DOVA_JSON_STRING_ESCAPES_H_
