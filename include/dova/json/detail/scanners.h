// The character classes and word-at-a-time scanners the JSON reader splits text into tokens
// with. A word scanner tests eight characters at once, so that the varying lengths of strings
// and numbers cost no mispredictions.
#ifndef DOVA_JSON_DETAIL_SCANNERS_H_
#define DOVA_JSON_DETAIL_SCANNERS_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace dova::json::detail {

// isspace in the C locale: space, and tab to carriage return.
constexpr bool isSpace(int code) { return code == ' ' || (code >= '\t' && code <= '\r'); }

// The characters a number token is made of. NUL is deliberately one of them.
constexpr bool isNumberCharacter(int code) {
  return (code >= '0' && code <= '9') || code == '.' || code == 'e' || code == 'E' || code == '-' ||
         code == '+' || code == '\0';
}

constexpr std::array<bool, 256> kNumberCharacters = [] {
  std::array<bool, 256> characters{};
  for (size_t code = 0; code < characters.size(); ++code) {
    characters[code] = isNumberCharacter(static_cast<int>(code));
  }
  return characters;
}();

constexpr int hexDigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

// Characters that end a run of plain characters inside a string: the closing quote, an escape,
// and a line feed (which moves the position to a new line).
constexpr std::array<bool, 256> kEndsStringRun = [] {
  std::array<bool, 256> ends{};
  ends['"'] = ends['\\'] = ends['\n'] = true;
  return ends;
}();

// The character at `text[index]` in byte `index` of a word.
inline uint64_t byteAt(const char* text, size_t index) {
  return uint64_t{static_cast<unsigned char>(text[index])} << (8 * index);
}

// The four characters at `text` in the low half of a word, the first in the lowest byte.
inline uint64_t loadFour(const char* text) {
  return byteAt(text, 0) | byteAt(text, 1) | byteAt(text, 2) | byteAt(text, 3);
}

// The eight characters at `text` as one word, the first in the lowest byte, whatever the byte
// order of the machine (compilers make this a single load).
inline uint64_t loadWord(const char* text) { return loadFour(text) | loadFour(text + 4) << 32; }

constexpr uint64_t kOnes = 0x0101010101010101u;
constexpr uint64_t kHighBits = 0x8080808080808080u;
constexpr uint64_t kLowBits = 0x7F7F7F7F7F7F7F7Fu;

// The high bit of each byte of `word` equal to `byte`. Exact for every byte.
constexpr uint64_t equalBytes(uint64_t word, unsigned char byte) {
  const uint64_t differences = word ^ (kOnes * byte);
  return ~(((differences & kLowBits) + kLowBits) | differences) & kHighBits;
}

// The first character in [begin, end) that ends a run of plain string characters, or end.
// Whole words of eight characters are tested at once.
inline const char* findStringRunEnd(const char* begin, const char* end) {
  while (end - begin >= 8) {
    const uint64_t word = loadWord(begin);
    const uint64_t found = equalBytes(word, '"') | equalBytes(word, '\\') | equalBytes(word, '\n');
    if (found != 0) return begin + __builtin_ctzll(found) / 8;
    begin += 8;
  }
  while (begin != end && !kEndsStringRun[static_cast<unsigned char>(*begin)]) ++begin;
  return begin;
}

// The high bit of each byte of `word` that is a decimal digit. Exact for every byte: no carry
// crosses from one byte into the next.
constexpr uint64_t digitBytes(uint64_t word) {
  const uint64_t offsets = word ^ (kOnes * '0');  // below 10 exactly for the digits
  return ~(((offsets & kLowBits) + kOnes * (0x80 - 10)) | offsets) & kHighBits;
}

// The high bit of each byte of `word` that can be part of a number token.
constexpr uint64_t numberBytes(uint64_t word) {
  // Setting bit 5 of every byte turns 'E' into 'e' and nothing else into it.
  return digitBytes(word) | equalBytes(word, '.') | equalBytes(word | (kOnes * 0x20), 'e') |
         equalBytes(word, '-') | equalBytes(word, '+') | equalBytes(word, '\0');
}

// The first character in [begin, end) that cannot be part of a number token, or end. Whole
// words of eight characters are tested at once, so that the varying lengths of numbers cost
// no mispredictions.
inline const char* findNumberRunEnd(const char* begin, const char* end) {
  while (end - begin >= 8) {
    const uint64_t others = ~numberBytes(loadWord(begin)) & kHighBits;
    if (others != 0) return begin + __builtin_ctzll(others) / 8;
    begin += 8;
  }
  while (begin != end && kNumberCharacters[static_cast<unsigned char>(*begin)]) ++begin;
  return begin;
}

}  // namespace dova::json::detail

#endif  // DOVA_JSON_DETAIL_SCANNERS_H_
