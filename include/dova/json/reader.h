// Reads JSON documents from text.
#ifndef DOVA_JSON_READER_H_
#define DOVA_JSON_READER_H_

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <vector>

#include "dova/json/elements.h"

namespace dova {
namespace json {

// Parses JSON text into an Object in two passes: the whole input is first scanned into tokens,
// then the tokens are parsed. Errors are thrown, as ScanException for bad characters and as
// ParseException for bad token order, with their positions in the text.
//
// The reader is stricter and looser than RFC 8259 in the same ways as the system it serves:
// the top level must be an object, duplicate member names are an error, raw control
// characters inside strings are kept, and number tokens are judged by stream extraction.
// Nesting deeper than kMaxNestingDepth containers is refused.
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

  void Scan(Tokens& tokens, InputStream& input);
  std::string MatchString(InputStream& input);
  void MatchExpectedString(InputStream& input, std::string_view expected);
  std::string matchNumber(InputStream& input);
  void appendUnicodeEscape(InputStream& input, std::string& text, unsigned& high_surrogate);

  std::string& MatchExpectedToken(Token::Type type, TokenStream& tokens);
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
  static void consume(std::streambuf& buffer, int count) {
    (buffer.*&BufferAccess::gbump)(count);
  }
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
    if (atEnd()) {
      const Token last = tokens_.empty() ? Token() : tokens_.back();
      throw ParseException("Unexpected end of token stream", last.begin, last.end);
    }
    return tokens_[next_];
  }

  // REQUIRES: !atEnd().
  void Get() { ++next_; }

 private:
  Tokens& tokens_;
  size_t next_ = 0;
};

// Answers whether a name is already a member of an object being read. Small objects are
// searched in place; from kIndexedSize members on, a hash index keeps a text with very many
// members from making reading quadratic.
class Reader::MemberIndex {
 public:
  explicit MemberIndex(const Object& object) : object_(object) {}

  bool contains(const std::string& name) {
    if (names_.empty()) {
      if (object_.size() < kIndexedSize) return object_.Find(name) != object_.end();
      for (const Object::Member& member : object_) names_.insert(member.name);
    }
    return names_.count(name) != 0;
  }

  // REQUIRES: `name` lives in the object (the view must outlive the index).
  void add(const std::string& name) {
    if (!names_.empty()) names_.insert(name);
  }

 private:
  static constexpr size_t kIndexedSize = 32;

  const Object& object_;
  std::unordered_set<std::string_view> names_;
};

inline void Reader::Read(Object& object, std::istream& stream) { Read_i(object, stream); }

template <typename ElementTypeT>
void Reader::Read_i(ElementTypeT& element, std::istream& stream) {
  Reader reader;
  Tokens tokens;
  InputStream input(stream);
  reader.Scan(tokens, input);

  TokenStream token_stream(tokens);
  reader.Parse(element, token_stream);
  if (!token_stream.atEnd()) {
    const Token& token = token_stream.Peek();
    throw ParseException("Expected End of token stream; found " + token.value, token.begin,
                         token.end);
  }
}

namespace reader_detail {

// isspace in the C locale.
constexpr bool isSpace(int code) {
  return code == ' ' || code == '\t' || code == '\n' || code == '\v' || code == '\f' ||
         code == '\r';
}

// The characters a number token is made of. NUL is deliberately one of them.
constexpr bool isNumberCharacter(int code) {
  return (code >= '0' && code <= '9') || code == '.' || code == 'e' || code == 'E' ||
         code == '-' || code == '+' || code == '\0';
}

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

constexpr Reader::Token::Type punctuationType(int code) {
  switch (code) {
    case '{':
      return Reader::Token::ObjectBegin;
    case '}':
      return Reader::Token::ObjectEnd;
    case '[':
      return Reader::Token::ArrayBegin;
    case ']':
      return Reader::Token::ArrayEnd;
    case ',':
      return Reader::Token::Comma;
    default:
      return Reader::Token::Colon;
  }
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
    throw ScanException(
        "Unexpected character in stream: " + std::string(1, Traits::to_char_type(Traits::eof())),
        input.location());
  }
  // in_avail() is the whole remaining text for string streams and a lower bound otherwise.
  tokens.reserve(static_cast<size_t>(
      std::clamp<std::streamsize>(input.available() / reader_detail::kBytesPerToken, 0,
                                  reader_detail::kMaxReservedTokens)));

  for (;;) {
    int code = input.peekCode();
    while (reader_detail::isSpace(code)) {
      input.Get();
      code = input.peekCode();
    }
    if (code == Traits::eof()) return;

    Token& token = tokens.emplace_back();
    token.begin = input.location();
    switch (code) {
      case '{':
      case '}':
      case '[':
      case ']':
      case ',':
      case ':':
        token.type = reader_detail::punctuationType(code);
        token.value.push_back(input.Get());
        break;
      case '"':
        token.type = Token::StringToken;
        token.value = MatchString(input);
        break;
      case 't':
        token.type = Token::BooleanToken;
        MatchExpectedString(input, "true");
        token.value = "true";
        break;
      case 'f':
        token.type = Token::BooleanToken;
        MatchExpectedString(input, "false");
        token.value = "false";
        break;
      case 'n':
        token.type = Token::NullToken;
        MatchExpectedString(input, "null");
        token.value = "null";
        break;
      case '-':
      case '0':
      case '1':
      case '2':
      case '3':
      case '4':
      case '5':
      case '6':
      case '7':
      case '8':
      case '9':
        token.type = Token::NumberToken;
        token.value = matchNumber(input);
        break;
      default:
        throw ScanException(
            "Unexpected character in stream: " + std::string(1, Traits::to_char_type(code)),
            input.location());
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
inline std::string Reader::matchNumber(InputStream& input) {
  std::string text;
  do {
    const char* const run = input.next();
    const char* stop = run;
    while (stop != input.end() &&
           reader_detail::isNumberCharacter(InputStream::Traits::to_int_type(*stop))) {
      ++stop;
    }
    text.append(run, static_cast<size_t>(stop - run));
    input.skipInLine(static_cast<size_t>(stop - run));
  } while (input.next() == input.end() && !input.atEnd());
  return text;
}

// REQUIRES: the next character is the opening double quote.
inline std::string Reader::MatchString(InputStream& input) {
  input.Get();
  std::string text;
  unsigned high_surrogate = 0;  // a pending high surrogate, 0 when none
  const auto missingLowSurrogate = [&input](char character) {
    return ScanException("Missing unicode low surrogate in string: " + std::string(1, character),
                         input.location());
  };
  for (;;) {
    if (input.atEnd()) break;
    // Copy the run of plain characters in one go.
    const char* const run = input.next();
    const char* stop = run;
    while (stop != input.end() && !reader_detail::kEndsStringRun[static_cast<unsigned char>(*stop)]) {
      ++stop;
    }
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
  // Deliberately lenient: a high surrogate still pending here is dropped without an error.
  MatchExpectedString(input, "\"");
  return text;
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
                          byte(0x80 | ((code_point >> 6) & 0x3F)), byte(0x80 | (code_point & 0x3F))};
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
  if (token.type != type) {
    throw ParseException("Unexpected token: " + token.value, token.begin, token.end);
  }
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
      element = String(std::move(token.value));
      break;
    case Token::NumberToken:
      tokens.Get();
      element = Number(parseNumber(token));
      break;
    case Token::BooleanToken:
      tokens.Get();
      element = Boolean(token.value == "true");
      break;
    case Token::NullToken:
      tokens.Get();
      element = Null();
      break;
    default:
      throw ParseException("Unexpected token: " + token.value, token.begin, token.end);
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
      UnknownElement element;
      Parse(element, tokens);
      // A repeated name is an error, never resolved in favour of either value.
      if (names.contains(name)) {
        throw ParseException("Duplicate object member token: " + name, name_token.begin,
                             name_token.end);
      }
      names.add(object.appendUnique(std::move(name), std::move(element))->name);
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
  if (numbersReadAsInCLocale()) {
    // from_chars rounds as the stream does; whatever it does not accept whole takes the stream
    // path below.
    double value = 0.0;
    const std::from_chars_result result = std::from_chars(text.data(), text_end, value);
    if (result.ec == std::errc() && result.ptr == text_end) return value;
  }
  std::istringstream stream(text);
  double value = 0.0;
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
    const auto& punctuation = std::use_facet<std::numpunct<char>>(std::locale());
    const bool plain = punctuation.decimal_point() == '.' &&
                       (punctuation.grouping().empty() ||
                        !reader_detail::isNumberCharacter(punctuation.thousands_sep()));
    locale_check_ = plain ? LocaleCheck::kPlain : LocaleCheck::kLocalised;
  }
  return locale_check_ == LocaleCheck::kPlain;
}

}  // namespace json
}  // namespace dova

#endif  // DOVA_JSON_READER_H_
