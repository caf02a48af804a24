// Reads JSON documents from text.
#ifndef DOVA_JSON_READER_H_
#define DOVA_JSON_READER_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "dova/json/detail/decimal.h"
#include "dova/json/elements.h"

namespace dova {
namespace json {

// Parses JSON text into an Object in two passes: the whole input is first scanned into tokens,
// then the tokens are parsed. Errors are thrown, as ScanException for bad characters and as
// ParseException for bad token order, with their positions in the text.
//
// Callers rely on where the reader departs from RFC 8259: the top level must be an object,
// duplicate member names are an error, raw control characters inside strings are kept, and
// number tokens are judged by stream extraction. Nesting deeper than kMaxNestingDepth
// containers is refused.
//
// A Reader keeps no state between calls; threads may read separate documents at once.
class Reader {
 public:
  // A position in the input: line feeds consumed, characters since the last line feed, and
  // characters since the start.
  struct Location {
    uint32_t line = 0;
    uint32_t column = 0;
    uint32_t offset = 0;
  };

  struct Token {
    enum Type {
      ObjectBegin,
      ObjectEnd,
      ArrayBegin,
      ArrayEnd,
      Comma,
      Colon,
      StringToken,
      NumberToken,
      BooleanToken,
      NullToken,
    };

    Type type = ObjectBegin;
    // The token's text; for a string, its decoded value without the quotes.
    std::string value;
    Location begin;  // before the token's first character
    Location end;    // after its last character
  };

  class ScanException : public Exception {
   public:
    ScanException(const std::string& message, const Location& where)
        : Exception(message), location(where) {}

    Location location;
  };

  class ParseException : public Exception {
   public:
    ParseException(const std::string& message, const Location& first, const Location& last)
        : Exception(message), begin(first), end(last) {}

    Location begin;
    Location end;
  };

  // Containers nested deeper than this are refused: copying, comparing, writing and destroying
  // a document all recurse, so a hostile text must not build an arbitrarily deep one.
  static constexpr int kMaxNestingDepth = 512;

  // Reads one document whose top level is an object into `object`, adding to the members it
  // already has. On an error the members read before it stay.
  static void Read(Object& object, std::istream& stream);

  template <typename ElementTypeT>
  static void Read_i(ElementTypeT& element, std::istream& stream);

 private:
  class BufferAccess;
  class InputStream;
  class TokenStream;
  class MemberIndex;
  using Tokens = std::vector<Token>;

  Reader() = default;

  static void Scan(Tokens& tokens, InputStream& input);
  static void MatchString(InputStream& input, std::string& text);
  static void matchStringRest(InputStream& input, std::string& text);
  static void MatchExpectedString(InputStream& input, std::string_view expected);
  static void matchNumber(InputStream& input, std::string& text);
  static void appendUnicodeEscape(InputStream& input, std::string& text, unsigned& high_surrogate);

  std::string& MatchExpectedToken(Token::Type type, TokenStream& tokens);
  // The throws stay out of line, so the scanning and parsing loops stay small.
  [[noreturn, gnu::noinline, gnu::cold]] static void throwUnexpectedToken(const Token& token) {
    throw ParseException("Unexpected token: " + token.value, token.begin, token.end);
  }
  [[noreturn, gnu::noinline, gnu::cold]] static void throwUnexpectedCharacter(
      char character, const Location& where) {
    throw ScanException("Unexpected character in stream: " + std::string(1, character), where);
  }
  void Parse(UnknownElement& element, TokenStream& tokens);
  void Parse(Object& object, TokenStream& tokens);
  void Parse(Array& array, TokenStream& tokens);
  double parseNumber(const Token& token);
  bool numbersReadAsInCLocale();
  void enterContainer(const Token& opening);

  int nesting_depth_ = 0;
  enum class LocaleCheck { kUnchecked, kPlain, kLocalised } locale_check_ = LocaleCheck::kUnchecked;
};

// Reaches the get area of any stream buffer through pointers to its protected members, which
// a derived class may form, so that the reader scans buffered text in place.
class Reader::BufferAccess : public std::streambuf {
 public:
  static char* next(std::streambuf& buffer) { return (buffer.*&BufferAccess::gptr)(); }
  static char* end(std::streambuf& buffer) { return (buffer.*&BufferAccess::egptr)(); }
  static void consume(std::streambuf& buffer, int count) { (buffer.*&BufferAccess::gbump)(count); }
};

// The caller's stream with the position reached in it. Characters are read in place from the
// stream buffer's get area; a stream call per character would dominate reading. The buffer's
// own position catches up when more input is needed and when the InputStream goes away, so
// the stream is left just after the last character consumed, as with get().
class Reader::InputStream {
 public:
  using Traits = std::istream::traits_type;

  explicit InputStream(std::istream& stream)
      : stream_(stream), buffer_(stream.rdbuf()), ready_(std::istream::sentry(stream, true)) {}
  ~InputStream() { release(); }
  InputStream(const InputStream&) = delete;
  InputStream& operator=(const InputStream&) = delete;

  // False when the stream was already failed; then it must not be read.
  bool ready() const { return ready_; }
  bool streamAtEof() const { return stream_.eof(); }
  // Characters the stream can give without waiting; -1 when it knows there are none.
  std::streamsize available() { return buffer_->in_avail(); }

  // The next character as Traits::to_int_type gives it, or Traits::eof() at the end, which
  // also marks the stream at its end as peek() does.
  int peekCode() {
    if (next_ == end_ && !refill()) return Traits::eof();
    return Traits::to_int_type(*next_);
  }

  bool atEnd() { return peekCode() == Traits::eof(); }

  // Consumes a character. Past the end this is the end-of-file value taken as a character,
  // which still counts as one.
  char Get() {
    if (next_ == end_ && !refill()) {
      stream_.setstate(std::ios_base::failbit);
      ++released_offset_;
      return Traits::to_char_type(Traits::eof());
    }
    const char character = *next_++;
    if (character == '\n') {
      ++line_;
      line_start_ = offset();
    }
    return character;
  }

  // The characters buffered from the next one on, [next(), end()): callers scan runs in them.
  const char* next() const { return next_; }
  const char* end() const { return end_; }

  // Consumes the next `count` buffered characters, none of them a line feed.
  void skipInLine(size_t count) { next_ += count; }

  Location location() const {
    Location location;
    location.line = line_;
    location.offset = offset();
    location.column = location.offset - line_start_;
    return location;
  }

 private:
  // Characters consumed so far. Kept as a pointer difference: counting in the scanning loops
  // would cost more than the scanning itself.
  uint32_t offset() const { return released_offset_ + static_cast<uint32_t>(next_ - released_); }

  // Makes the buffer's position ours, then has it fetch more input. False at the end.
  bool refill() {
    release();
    if (buffer_->sgetc() == Traits::eof()) {
      stream_.setstate(std::ios_base::eofbit);
      return false;
    }
    next_ = BufferAccess::next(*buffer_);
    end_ = BufferAccess::end(*buffer_);
    if (next_ == end_) {
      // An unbuffered stream buffer: take its characters one at a time.
      single_ = Traits::to_char_type(buffer_->sbumpc());
      unbuffered_ = true;
      next_ = &single_;
      end_ = next_ + 1;
    }
    released_ = next_;
    return true;
  }

  void release() {
    released_offset_ = offset();
    if (unbuffered_) {
      // A character taken but not consumed goes back.
      if (next_ != end_) buffer_->sputbackc(single_);
      unbuffered_ = false;
    } else if (next_ != released_) {
      BufferAccess::consume(*buffer_, static_cast<int>(next_ - released_));
    }
    next_ = end_ = released_ = nullptr;
  }

  std::istream& stream_;
  std::streambuf* const buffer_;
  const bool ready_;
  const char* next_ = nullptr;
  const char* end_ = nullptr;
  const char* released_ = nullptr;  // where the buffer's own position is
  bool unbuffered_ = false;
  char single_ = 0;
  uint32_t released_offset_ = 0;  // offset() at released_
  uint32_t line_ = 0;
  uint32_t line_start_ = 0;  // offset() after the last line feed
};

// The scanned tokens and a cursor into them.
class Reader::TokenStream {
 public:
  explicit TokenStream(Tokens& tokens) : tokens_(tokens) {}

  bool atEnd() const { return next_ == tokens_.size(); }

  // The current token; at the end, throws "Unexpected end of token stream" at the last token
  // (at the start of the input when there is none).
  Token& Peek() {
    if (atEnd()) throwUnexpectedEnd();
    return tokens_[next_];
  }

  // REQUIRES: !atEnd().
  void Get() { ++next_; }

 private:
  // Apart from Peek, which then stays small enough to be inlined in the parsing loops.
  [[noreturn, gnu::noinline, gnu::cold]] void throwUnexpectedEnd() const {
    const Token last = tokens_.empty() ? Token() : tokens_.back();
    throw ParseException("Unexpected end of token stream", last.begin, last.end);
  }

  Tokens& tokens_;
  size_t next_ = 0;
};

// Answers whether a name is already a member of an object being read. A 64-bit filter of the
// names seen answers most questions at once; the members are searched only when it cannot.
// Small objects are searched in place; from kIndexedSize members on, a hash index keeps a text
// with very many members from making reading quadratic.
class Reader::MemberIndex {
 public:
  explicit MemberIndex(const Object& object) : object_(object) {
    for (const Object::Member& member : object_) seen_ |= filterBit(member.name);
  }

  bool contains(const std::string& name) {
    if ((seen_ & filterBit(name)) == 0) return false;
    if (names_.empty()) {
      if (object_.size() < kIndexedSize) return object_.Find(name) != object_.end();
      for (const Object::Member& member : object_) names_.insert(member.name);
    }
    return names_.count(name) != 0;
  }

  // REQUIRES: `name` lives in the object (the view must outlive the index).
  void add(const std::string& name) {
    seen_ |= filterBit(name);
    if (!names_.empty()) names_.insert(name);
  }

 private:
  static constexpr size_t kIndexedSize = 32;

  // One of 64 bits, chosen by the name's length and two of its characters (the first is the
  // terminating NUL for an empty name).
  static uint64_t filterBit(const std::string& name) {
    const auto first = static_cast<unsigned char>(name[0]);
    const auto middle = static_cast<unsigned char>(name[name.size() / 2]);
    return uint64_t{1} << ((first * 7u + middle * 3u + name.size()) % 64);
  }

  const Object& object_;
  uint64_t seen_ = 0;
  std::unordered_set<std::string_view> names_;
};

inline void Reader::Read(Object& object, std::istream& stream) { Read_i(object, stream); }

template <typename ElementTypeT>
void Reader::Read_i(ElementTypeT& element, std::istream& stream) {
  Tokens tokens;
  InputStream input(stream);
  Scan(tokens, input);

  Reader reader;
  TokenStream token_stream(tokens);
  reader.Parse(element, token_stream);
  if (!token_stream.atEnd()) {
    const Token& token = token_stream.Peek();
    throw ParseException("Expected End of token stream; found " + token.value, token.begin,
                         token.end);
  }
}

namespace reader_detail {

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

// The type of the token each character starts, or -1 when none does.
constexpr std::array<int8_t, 256> kStartedTokens = [] {
  std::array<int8_t, 256> types{};
  for (int8_t& type : types) type = -1;
  const auto set = [&types](char character, Reader::Token::Type type) {
    types[static_cast<unsigned char>(character)] = static_cast<int8_t>(type);
  };
  set('{', Reader::Token::ObjectBegin);
  set('}', Reader::Token::ObjectEnd);
  set('[', Reader::Token::ArrayBegin);
  set(']', Reader::Token::ArrayEnd);
  set(',', Reader::Token::Comma);
  set(':', Reader::Token::Colon);
  set('"', Reader::Token::StringToken);
  set('t', Reader::Token::BooleanToken);
  set('f', Reader::Token::BooleanToken);
  set('n', Reader::Token::NullToken);
  set('-', Reader::Token::NumberToken);
  for (char digit = '0'; digit <= '9'; ++digit) set(digit, Reader::Token::NumberToken);
  return types;
}();

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

// Bytes per token in typical documents, rounded down so that reserving by it seldom regrows.
constexpr std::streamsize kBytesPerToken = 3;
constexpr std::streamsize kMaxReservedTokens = 1 << 16;

}  // namespace reader_detail

inline void Reader::Scan(Tokens& tokens, InputStream& input) {
  using Traits = InputStream::Traits;
  if (!input.ready()) {
    // As the stream functions answer a failed stream: no input at all when it is at its end,
    // otherwise the end-of-file value read as a character.
    if (input.streamAtEof()) return;
    throwUnexpectedCharacter(Traits::to_char_type(Traits::eof()), input.location());
  }
  // in_avail() is the whole remaining text for string streams and a lower bound otherwise.
  tokens.reserve(static_cast<size_t>(std::clamp<std::streamsize>(
      input.available() / reader_detail::kBytesPerToken, 0, reader_detail::kMaxReservedTokens)));

  for (;;) {
    int code = input.peekCode();
    while (reader_detail::isSpace(code)) {
      input.Get();
      code = input.peekCode();
    }
    if (code == Traits::eof()) return;

    Token& token = tokens.emplace_back();
    const Location begin = input.location();
    token.begin = begin;
    // The token's type is looked up by its first character. Punctuation, most of the tokens
    // and the first six types, is told apart by one well predicted branch; the rest dispatch
    // through a jump table.
    const int started = reader_detail::kStartedTokens[static_cast<size_t>(code)];
    if (started < 0) throwUnexpectedCharacter(Traits::to_char_type(code), input.location());
    token.type = static_cast<Token::Type>(started);
    if (started <= Token::Colon) {
      token.value.push_back(Traits::to_char_type(code));
      input.skipInLine(1);
      // One character on the same line: cheaper than asking the input again. The end is built
      // from the local copy, never read back from the token just written: a load spanning
      // those two fresh stores would stall on store forwarding.
      token.end = Location{begin.line, begin.column + 1, begin.offset + 1};
      continue;
    }
    switch (token.type) {
      case Token::StringToken:
        MatchString(input, token.value);
        break;
      case Token::BooleanToken:
        token.value = code == 't' ? "true" : "false";
        MatchExpectedString(input, token.value);
        break;
      case Token::NullToken:
        token.value = "null";
        MatchExpectedString(input, token.value);
        break;
      case Token::NumberToken:
        matchNumber(input, token.value);
        break;
      default:  // punctuation, taken above
        break;
    }
    token.end = input.location();
  }
}

inline void Reader::MatchExpectedString(InputStream& input, std::string_view expected) {
  for (const char character : expected) {
    if (input.atEnd() || input.Get() != character) {
      throw ScanException("Expected string: " + std::string(expected), input.location());
    }
  }
}

// The shape of the number is not checked here: "1-2" is one token, judged when parsed.
inline void Reader::matchNumber(InputStream& input, std::string& text) {
  do {
    const char* const run = input.next();
    const char* const stop = reader_detail::findNumberRunEnd(run, input.end());
    text.append(run, static_cast<size_t>(stop - run));
    input.skipInLine(static_cast<size_t>(stop - run));
  } while (input.next() == input.end() && !input.atEnd());
}

// Decodes a string token into `text`.
// REQUIRES: the next character is the opening double quote.
inline void Reader::MatchString(InputStream& input, std::string& text) {
  input.Get();
  // Most strings hold no escape or line feed and end within the buffered text.
  const char* const run = input.next();
  const char* const stop = reader_detail::findStringRunEnd(run, input.end());
  if (stop != input.end() && *stop == '"') {
    text.append(run, static_cast<size_t>(stop - run));
    input.skipInLine(static_cast<size_t>(stop - run) + 1);
    return;
  }
  matchStringRest(input, text);
}

// The general case of MatchString, from just after the opening quote.
inline void Reader::matchStringRest(InputStream& input, std::string& text) {
  unsigned high_surrogate = 0;  // a pending high surrogate, 0 when none
  const auto missingLowSurrogate = [&input](char character) {
    return ScanException("Missing unicode low surrogate in string: " + std::string(1, character),
                         input.location());
  };
  for (;;) {
    if (input.atEnd()) break;
    // Copy the run of plain characters in one go.
    const char* const run = input.next();
    const char* const stop = reader_detail::findStringRunEnd(run, input.end());
    if (stop != run) {
      if (high_surrogate != 0) throw missingLowSurrogate(input.Get());
      text.append(run, static_cast<size_t>(stop - run));
      input.skipInLine(static_cast<size_t>(stop - run));
      continue;
    }
    if (*stop == '"') break;
    const char character = input.Get();
    // Raw control characters are kept, line feeds included, and a backslash at the very end of
    // the input is kept as a plain one.
    if (character != '\\' || input.atEnd()) {
      if (high_surrogate != 0) throw missingLowSurrogate(character);
      text.push_back(character);
      continue;
    }
    const char escape = input.Get();
    if (high_surrogate != 0 && escape != 'u') throw missingLowSurrogate(escape);
    switch (escape) {
      case '"':
        text.push_back('"');
        break;
      case '\\':
        text.push_back('\\');
        break;
      case '/':
        text.push_back('/');
        break;
      case 'b':
        text.push_back('\b');
        break;
      case 'f':
        text.push_back('\f');
        break;
      case 'n':
        text.push_back('\n');
        break;
      case 'r':
        text.push_back('\r');
        break;
      case 't':
        text.push_back('\t');
        break;
      case 'u':
        appendUnicodeEscape(input, text, high_surrogate);
        break;
      default:
        throw ScanException(
            "Unrecognized escape sequence found in string: \\" + std::string(1, escape),
            input.location());
    }
  }
  // The loop stops at the closing quote or at the end of the input. Deliberately lenient: a
  // high surrogate still pending here is dropped without an error.
  if (input.atEnd()) throw ScanException("Expected string: \"", input.location());
  input.Get();
}

// Decodes the four hex digits after "\u" and appends the code point as UTF-8, pairing
// surrogates through `high_surrogate`.
inline void Reader::appendUnicodeEscape(InputStream& input, std::string& text,
                                        unsigned& high_surrogate) {
  unsigned value = 0;
  char digit = 0;
  for (int count = 0; count < 4; ++count) {
    digit = input.Get();
    const int digit_value = reader_detail::hexDigitValue(digit);
    if (digit_value < 0) {
      throw ScanException(
          "Unrecognized hexadecimal character found in string: " + std::string(1, digit),
          input.location());
    }
    value = (value << 4) | static_cast<unsigned>(digit_value);
  }
  const auto byte = [](unsigned bits) { return static_cast<char>(bits); };
  if (value < 0x80) {
    // Deliberately before the surrogate checks: a pending high surrogate stays pending.
    text.push_back(byte(value));
  } else if (high_surrogate != 0) {
    if ((value & 0xFC00) != 0xDC00) {
      throw ScanException("Missing unicode low surrogate in string: " + std::string(1, digit),
                          input.location());
    }
    const unsigned code_point = 0x10000 + ((high_surrogate & 0x3FF) << 10) + (value & 0x3FF);
    high_surrogate = 0;
    const char utf8[4] = {byte(0xF0 | (code_point >> 18)), byte(0x80 | ((code_point >> 12) & 0x3F)),
                          byte(0x80 | ((code_point >> 6) & 0x3F)),
                          byte(0x80 | (code_point & 0x3F))};
    text.append(utf8, sizeof utf8);
  } else if ((value & 0xFC00) == 0xD800) {
    high_surrogate = value;
  } else if ((value & 0xFC00) == 0xDC00) {
    throw ScanException(
        "Unexpected unicode low surrogate found in string: " + std::string(1, digit),
        input.location());
  } else if (value <= 0x7FF) {
    const char utf8[2] = {byte(0xC0 | (value >> 6)), byte(0x80 | (value & 0x3F))};
    text.append(utf8, sizeof utf8);
  } else {
    const char utf8[3] = {byte(0xE0 | (value >> 12)), byte(0x80 | ((value >> 6) & 0x3F)),
                          byte(0x80 | (value & 0x3F))};
    text.append(utf8, sizeof utf8);
  }
}

inline std::string& Reader::MatchExpectedToken(Token::Type type, TokenStream& tokens) {
  Token& token = tokens.Peek();
  tokens.Get();
  if (token.type != type) throwUnexpectedToken(token);
  return token.value;
}

inline void Reader::enterContainer(const Token& opening) {
  if (++nesting_depth_ > kMaxNestingDepth) {
    throw ParseException("Nesting deeper than " + std::to_string(kMaxNestingDepth) +
                             " levels at token: " + opening.value,
                         opening.begin, opening.end);
  }
}

inline void Reader::Parse(UnknownElement& element, TokenStream& tokens) {
  Token& token = tokens.Peek();
  switch (token.type) {
    case Token::ObjectBegin:
      Parse(element.ConvertTo<Object>(), tokens);
      break;
    case Token::ArrayBegin:
      Parse(element.ConvertTo<Array>(), tokens);
      break;
    case Token::StringToken:
      // The token is consumed, so its text can move into the document.
      tokens.Get();
      element.release();
      element.hold<String>(std::move(token.value));
      break;
    case Token::NumberToken: {
      tokens.Get();
      const double number = parseNumber(token);
      element.release();
      element.hold<Number>(number);
      break;
    }
    case Token::BooleanToken:
      tokens.Get();
      element.release();
      element.hold<Boolean>(token.value == "true");
      break;
    case Token::NullToken:
      tokens.Get();
      element.release();
      break;
    default:
      throwUnexpectedToken(token);
  }
}

inline void Reader::Parse(Object& object, TokenStream& tokens) {
  const Token& opening = tokens.Peek();
  MatchExpectedToken(Token::ObjectBegin, tokens);
  enterContainer(opening);
  if (tokens.atEnd()) MatchExpectedToken(Token::ObjectEnd, tokens);
  if (tokens.Peek().type != Token::ObjectEnd) {
    MemberIndex names(object);
    bool more = true;
    while (more) {
      const Token& name_token = tokens.Peek();
      std::string& name = MatchExpectedToken(Token::StringToken, tokens);
      MatchExpectedToken(Token::Colon, tokens);
      const bool taken = names.contains(name);
      // The value is parsed straight into a new last member, which goes again when the value
      // fails or the name is taken: only complete members stay in the object.
      const Object::iterator member = object.appendUnchecked(std::move(name));
      try {
        Parse(member->element, tokens);
        // A repeated name is an error, never resolved in favour of either value.
        if (taken) {
          throw ParseException("Duplicate object member token: " + member->name, name_token.begin,
                               name_token.end);
        }
      } catch (...) {
        object.members_.erase(member);
        throw;
      }
      names.add(member->name);
      more = !tokens.atEnd() && tokens.Peek().type == Token::Comma;
      if (more) tokens.Get();
    }
  }
  MatchExpectedToken(Token::ObjectEnd, tokens);
  --nesting_depth_;
}

inline void Reader::Parse(Array& array, TokenStream& tokens) {
  const Token& opening = tokens.Peek();
  MatchExpectedToken(Token::ArrayBegin, tokens);
  enterContainer(opening);
  if (!tokens.atEnd() && tokens.Peek().type != Token::ArrayEnd) {
    bool more = true;
    while (more) {
      Parse(*array.Insert(UnknownElement()), tokens);
      more = !tokens.atEnd() && tokens.Peek().type == Token::Comma;
      if (more) tokens.Get();
    }
  }
  MatchExpectedToken(Token::ArrayEnd, tokens);
  --nesting_depth_;
}

// What extracting a double with a string stream gives, where only reaching the end of the text
// counts as success. Deliberately, texts the extraction rejects but reads to the end ("-",
// "1e", "1e+") are 0.0, and an overflowing one is the largest double.
inline double Reader::parseNumber(const Token& token) {
  const std::string& text = token.value;
  const char* const text_end = text.data() + text.size();
  // readDecimal rounds correctly, as the stream does; whatever it does not accept whole takes
  // the stream path below.
  double value = 0.0;
  if (numbersReadAsInCLocale() && detail::readDecimal(text.data(), text_end, value)) return value;
  std::istringstream stream(text);
  stream >> value;
  if (!stream.eof()) {
    const char next = std::istringstream::traits_type::to_char_type(stream.peek());
    throw ParseException("Unexpected character in NUMBER token: " + std::string(1, next),
                         token.begin, token.end);
  }
  return value;
}

// String streams take the global locale; when its decimal point is not '.' numbers read
// differently there, and only the stream path gives the same result.
inline bool Reader::numbersReadAsInCLocale() {
  if (locale_check_ == LocaleCheck::kUnchecked) {
    const std::locale global;
    bool plain = global == std::locale::classic();
    if (!plain) {
      const auto& punctuation = std::use_facet<std::numpunct<char>>(global);
      plain = punctuation.decimal_point() == '.' &&
              (punctuation.grouping().empty() ||
               !reader_detail::isNumberCharacter(punctuation.thousands_sep()));
    }
    locale_check_ = plain ? LocaleCheck::kPlain : LocaleCheck::kLocalised;
  }
  return locale_check_ == LocaleCheck::kPlain;
}

}  // namespace json
}  // namespace dova

#endif  // DOVA_JSON_READER_H_
