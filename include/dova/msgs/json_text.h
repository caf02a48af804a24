#ifndef DOVA_MSGS_JSON_TEXT_H_
#define DOVA_MSGS_JSON_TEXT_H_

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

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

namespace json_text_detail {

inline bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Bytes that cannot be copied as they are: the escaped ones and the leads of
// two- and three-byte sequences. Everything else goes through in bulk.
constexpr std::array<bool, 256> makeSpecialTable() {
  std::array<bool, 256> table{};
  for (int byte : {'"', '\\', '\b', '\t', '\n', '\f', '\r'}) {
    table[static_cast<size_t>(byte)] = true;
  }
  for (size_t byte = 0xC0; byte <= 0xEF; ++byte) {
    table[byte] = true;
  }
  return table;
}
inline constexpr std::array<bool, 256> kSpecial = makeSpecialTable();

inline void appendUnicodeEscape(std::string& out, unsigned code_point) {
  static constexpr char kHex[] = "0123456789abcdef";
  const char escape[6] = {'\\',
                          'u',
                          kHex[(code_point >> 12) & 0xF],
                          kHex[(code_point >> 8) & 0xF],
                          kHex[(code_point >> 4) & 0xF],
                          kHex[code_point & 0xF]};
  out.append(escape, sizeof escape);
}

}  // namespace json_text_detail

// Appends `text` as a JSON string literal, quotes included. Two- and
// three-byte UTF-8 sequences become "\u" escapes with four lowercase hex
// digits; a lead byte without its continuation bytes is copied as it is.
// Backslash, quote, and bytes 8, 9, 10, 12 and 13 get their short escapes.
// The other control characters are deliberately copied unescaped, and
// four-byte sequences and stray continuation bytes pass through unchanged:
// readers of this text rely on exactly this output.
inline void appendJsonString(std::string& out, std::string_view text) {
  using json_text_detail::isContinuation;
  using json_text_detail::kSpecial;
  const auto byteAt = [&text](size_t index) { return static_cast<unsigned char>(text[index]); };

  out.push_back('"');
  const size_t size = text.size();
  size_t run_start = 0;
  size_t i = 0;
  while (i < size) {
    const unsigned char byte = byteAt(i);
    if (!kSpecial[byte]) {
      ++i;
      continue;
    }
    out.append(text.data() + run_start, i - run_start);
    if ((byte & 0xE0) == 0xC0 && i + 1 < size && isContinuation(byteAt(i + 1))) {
      json_text_detail::appendUnicodeEscape(out, (byte & 0x1Fu) << 6 | (byteAt(i + 1) & 0x3Fu));
      i += 2;
    } else if ((byte & 0xF0) == 0xE0 && i + 2 < size && isContinuation(byteAt(i + 1)) &&
               isContinuation(byteAt(i + 2))) {
      json_text_detail::appendUnicodeEscape(
          out, (byte & 0x0Fu) << 12 | (byteAt(i + 1) & 0x3Fu) << 6 | (byteAt(i + 2) & 0x3Fu));
      i += 3;
    } else {
      switch (byte) {
        case '"':
          out.append("\\\"");
          break;
        case '\\':
          out.append("\\\\");
          break;
        case '\b':
          out.append("\\b");
          break;
        case '\t':
          out.append("\\t");
          break;
        case '\n':
          out.append("\\n");
          break;
        case '\f':
          out.append("\\f");
          break;
        case '\r':
          out.append("\\r");
          break;
        default:  // an incomplete lead byte: copied as it is
          out.push_back(static_cast<char>(byte));
          break;
      }
      ++i;
    }
    run_start = i;
  }
  out.append(text.data() + run_start, size - run_start);
  out.push_back('"');
}

}  // namespace dova::msgs

#endif  // DOVA_MSGS_JSON_TEXT_H_
