// How Reader splits text into tokens and parses them. Included by dova/json/reader.h; include
// that instead.
#ifndef DOVA_JSON_DETAIL_READER_IMPL_H_
#define DOVA_JSON_DETAIL_READER_IMPL_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "dova/json/detail/decimal.h"
#include "dova/json/detail/input_stream.h"
#include "dova/json/detail/member_index.h"
#include "dova/json/detail/scanners.h"
#include "dova/json/detail/token_texts.h"
#include "dova/json/reader.h"

namespace dova::json {
namespace detail {

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

// The text of each punctuation token, by type.
constexpr char kPunctuationTexts[] = "{}[],:";

// Bytes per token in typical documents, rounded down so that reserving by it seldom regrows.
constexpr std::streamsize kBytesPerToken = 3;
constexpr std::streamsize kMaxReservedTokens = 1 << 16;
// The store of texts holds a copy of the input and the decoded strings, which a quarter more
// room seldom outgrows; it is reserved up to this.
constexpr std::streamsize kMaxReservedText = 1 << 20;
// Room on the stack for the tokens and texts of a reading: enough for a signal envelope or a
// message's JSON, small enough for the stack of a real-time thread.
constexpr size_t kScanStackBytes = 4096;

}  // namespace detail

// The scanned tokens and their texts, and a cursor into the tokens.
class Reader::TokenStream {
 public:
  // The tokens must not change while the stream is used; `input` is what they were scanned
  // from.
  TokenStream(const Tokens& tokens, const TokenTexts& texts, const InputStream& input)
      : tokens_(tokens),
        next_(tokens.data()),
        end_(tokens.data() + tokens.size()),
        texts_(texts),
        input_(input) {}

  bool atEnd() const { return next_ == end_; }

  // The current token; at the end, throws "Unexpected end of token stream" at the last token
  // (at the start of the input when there is none).
  const Token& Peek() const {
    if (atEnd()) throwUnexpectedEnd();
    return *next_;
  }

  // REQUIRES: !atEnd().
  void Get() { ++next_; }

  Location beginOf(const Token& token) const { return locationAt(token.begin_offset); }
  Location endOf(const Token& token) const { return locationAt(token.end_offset); }

  // The text of one of the tokens, valid as long as they are.
  std::string_view text(const Token& token) const {
    switch (token.type) {
      case Token::StringToken:
      case Token::NumberToken:
        return texts_.at(token.text_offset, token.text_length);
      case Token::BooleanToken:
        return token.text_length == 4 ? "true" : "false";
      case Token::NullToken:
        return "null";
      default:
        return std::string_view(&detail::kPunctuationTexts[token.type], 1);
    }
  }

 private:
  // Apart from Peek, which then stays small enough to be inlined in the parsing loops.
  [[noreturn, gnu::noinline, gnu::cold]] void throwUnexpectedEnd() const {
    const Token last = tokens_.empty() ? Token() : tokens_.back();
    throw ParseException("Unexpected end of token stream", beginOf(last), endOf(last));
  }

  Location locationAt(uint32_t offset) const {
    Location location;
    location.line = input_.lineAt(offset);
    location.column = input_.columnAt(offset);
    location.offset = offset;
    return location;
  }

  const Tokens& tokens_;
  const Token* next_;
  const Token* const end_;
  const TokenTexts& texts_;
  const InputStream& input_;
};

inline void Reader::Read(Object& object, std::istream& stream) { Read_i(object, stream); }

template <typename ElementTypeT>
void Reader::Read_i(ElementTypeT& element, std::istream& stream) {
  // The tokens and texts of a small document, as most are, fit in this buffer on the stack and
  // cost no allocation; those of a larger one go on to the heap (operator new, whatever default
  // memory resource the program has set).
  std::byte small_document[detail::kScanStackBytes];
  std::pmr::monotonic_buffer_resource memory(small_document, sizeof small_document,
                                             std::pmr::new_delete_resource());
  Tokens tokens(&memory);
  TokenTexts texts(&memory);
  InputStream input(stream);
  Scan(tokens, texts, input);

  Reader reader;
  TokenStream token_stream(tokens, texts, input);
  reader.Parse(element, token_stream);
  if (!token_stream.atEnd()) {
    const Token& token = token_stream.Peek();
    throw ParseException(
        "Expected End of token stream; found " + std::string(token_stream.text(token)),
        token_stream.beginOf(token), token_stream.endOf(token));
  }
}

inline Reader::Location Reader::locationOf(const InputStream& input) {
  Location location;
  location.line = input.line();
  location.column = input.column();
  location.offset = input.offset();
  return location;
}

inline void Reader::Scan(Tokens& tokens, TokenTexts& texts, InputStream& input) {
  using Traits = InputStream::Traits;
  if (!input.ready()) {
    // As the stream functions answer a failed stream: no input at all when it is at its end,
    // otherwise the end-of-file value read as a character.
    if (input.streamAtEof()) return;
    throwUnexpectedCharacter(Traits::to_char_type(Traits::eof()), locationOf(input));
  }
  // in_avail() is the whole remaining text for string streams and a lower bound otherwise.
  const std::streamsize available = input.available();
  tokens.reserve(static_cast<size_t>(std::clamp<std::streamsize>(available / detail::kBytesPerToken,
                                                                 0, detail::kMaxReservedTokens)));
  texts.reserve(static_cast<size_t>(
      std::clamp<std::streamsize>(available + available / 4, 0, detail::kMaxReservedText)));

  for (;;) {
    int code = input.peekCode();
    while (detail::isSpace(code)) {
      input.Get();
      code = input.peekCode();
    }
    if (code == Traits::eof()) return;
    texts.follow(input);

    // The token's fields are kept in locals and the token is constructed in the vector: built
    // on the stack field by field and copied in whole, it would be read back before its stores
    // had landed, which stalls the processor on every token.
    const uint32_t begin = input.offset();
    // The token's type is looked up by its first character. Punctuation, most of the tokens
    // and the first six types, is told apart by one well predicted branch; the rest dispatch
    // through a jump table.
    const int8_t started = detail::kStartedTokens[static_cast<size_t>(code)];
    if (started < 0) throwUnexpectedCharacter(Traits::to_char_type(code), locationOf(input));
    const auto type = static_cast<Token::Type>(started);
    if (started <= Token::Colon) {
      input.skipInLine(1);
      // One character on the same line.
      tokens.emplace_back(type, 0, 0, begin, begin + 1);
      continue;
    }
    TextPlace text;
    switch (type) {
      case Token::StringToken:
        text = MatchString(input, texts);
        break;
      case Token::BooleanToken:
      case Token::NullToken: {
        const std::string_view keyword = code == 't' ? "true" : code == 'f' ? "false" : "null";
        MatchExpectedString(input, keyword);
        text.length = static_cast<uint32_t>(keyword.size());
        break;
      }
      case Token::NumberToken:
        text = matchNumber(input, texts);
        break;
      default:  // punctuation, taken above
        break;
    }
    tokens.emplace_back(type, text.offset, text.length, begin, input.offset());
  }
}

inline void Reader::MatchExpectedString(InputStream& input, std::string_view expected) {
  for (const char character : expected) {
    if (input.atEnd() || input.Get() != character) {
      throw ScanException("Expected string: " + std::string(expected), locationOf(input));
    }
  }
}

// The shape of the number is not checked here: "1-2" is one token, judged when parsed.
// REQUIRES: the next character starts a number and is in the buffer texts last followed.
inline Reader::TextPlace Reader::matchNumber(InputStream& input, TokenTexts& texts) {
  const char* const run = input.next();
  const char* const stop = detail::findNumberRunEnd(run, input.end());
  input.skipInLine(static_cast<size_t>(stop - run));
  if (stop != input.end()) return {texts.offsetOf(run), static_cast<uint32_t>(stop - run)};
  // The number may go on in the next buffer: its pieces are put together apart.
  std::pmr::string& text = texts.appended();
  const size_t offset = text.size();
  text.append(run, static_cast<size_t>(stop - run));
  while (!input.atEnd()) {
    const char* const more = input.next();
    const char* const more_stop = detail::findNumberRunEnd(more, input.end());
    text.append(more, static_cast<size_t>(more_stop - more));
    input.skipInLine(static_cast<size_t>(more_stop - more));
    if (more_stop != input.end()) break;
  }
  return {static_cast<uint32_t>(offset), static_cast<uint32_t>(text.size() - offset)};
}

// Decodes a string token.
// REQUIRES: the next character is the opening double quote, in the buffer texts last followed.
inline Reader::TextPlace Reader::MatchString(InputStream& input, TokenTexts& texts) {
  input.skipInLine(1);
  // Most strings hold no escape or line feed and end within the buffered text: their text is
  // the input's.
  const char* const run = input.next();
  const char* const stop = detail::findStringRunEnd(run, input.end());
  if (stop != input.end() && *stop == '"') {
    input.skipInLine(static_cast<size_t>(stop - run) + 1);
    return {texts.offsetOf(run), static_cast<uint32_t>(stop - run)};
  }
  std::pmr::string& text = texts.appended();
  const size_t offset = text.size();
  matchStringRest(input, text);
  return {static_cast<uint32_t>(offset), static_cast<uint32_t>(text.size() - offset)};
}

// The general case of MatchString, from just after the opening quote.
inline void Reader::matchStringRest(InputStream& input, std::pmr::string& text) {
  unsigned high_surrogate = 0;  // a pending high surrogate, 0 when none
  const auto missingLowSurrogate = [&input](char character) {
    return ScanException("Missing unicode low surrogate in string: " + std::string(1, character),
                         locationOf(input));
  };
  for (;;) {
    if (input.atEnd()) break;
    // Copy the run of plain characters in one go.
    const char* const run = input.next();
    const char* const stop = detail::findStringRunEnd(run, input.end());
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
            locationOf(input));
    }
  }
  // The loop stops at the closing quote or at the end of the input. Deliberately lenient: a
  // high surrogate still pending here is dropped without an error.
  if (input.atEnd()) throw ScanException("Expected string: \"", locationOf(input));
  input.Get();
}

// Decodes the four hex digits after "\u" and appends the code point as UTF-8, pairing
// surrogates through `high_surrogate`.
inline void Reader::appendUnicodeEscape(InputStream& input, std::pmr::string& text,
                                        unsigned& high_surrogate) {
  unsigned value = 0;
  char digit = 0;
  for (int count = 0; count < 4; ++count) {
    digit = input.Get();
    const int digit_value = detail::hexDigitValue(digit);
    if (digit_value < 0) {
      throw ScanException(
          "Unrecognized hexadecimal character found in string: " + std::string(1, digit),
          locationOf(input));
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
                          locationOf(input));
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
        locationOf(input));
  } else if (value <= 0x7FF) {
    const char utf8[2] = {byte(0xC0 | (value >> 6)), byte(0x80 | (value & 0x3F))};
    text.append(utf8, sizeof utf8);
  } else {
    const char utf8[3] = {byte(0xE0 | (value >> 12)), byte(0x80 | ((value >> 6) & 0x3F)),
                          byte(0x80 | (value & 0x3F))};
    text.append(utf8, sizeof utf8);
  }
}

[[noreturn, gnu::noinline, gnu::cold]] inline void Reader::throwUnexpectedToken(
    const Token& token, const TokenStream& tokens) {
  throw ParseException("Unexpected token: " + std::string(tokens.text(token)),
                       tokens.beginOf(token), tokens.endOf(token));
}

inline void Reader::MatchExpectedToken(Token::Type type, TokenStream& tokens) {
  const Token& token = tokens.Peek();
  tokens.Get();
  if (token.type != type) throwUnexpectedToken(token, tokens);
}

inline void Reader::enterContainer(const Token& opening, const TokenStream& tokens) {
  if (++nesting_depth_ > kMaxNestingDepth) {
    throw ParseException("Nesting deeper than " + std::to_string(kMaxNestingDepth) +
                             " levels at token: " + std::string(tokens.text(opening)),
                         tokens.beginOf(opening), tokens.endOf(opening));
  }
}

inline void Reader::Parse(UnknownElement& element, TokenStream& tokens) {
  const Token& token = tokens.Peek();
  switch (token.type) {
    case Token::ObjectBegin:
      Parse(element.ConvertTo<Object>(), tokens);
      break;
    case Token::ArrayBegin:
      Parse(element.ConvertTo<Array>(), tokens);
      break;
    case Token::StringToken:
      tokens.Get();
      element.release();
      element.hold<String>(std::string(tokens.text(token)));
      break;
    case Token::NumberToken: {
      tokens.Get();
      const double number = parseNumber(token, tokens);
      element.release();
      element.hold<Number>(number);
      break;
    }
    case Token::BooleanToken:
      tokens.Get();
      element.release();
      element.hold<Boolean>(tokens.text(token) == "true");
      break;
    case Token::NullToken:
      tokens.Get();
      element.release();
      break;
    default:
      throwUnexpectedToken(token, tokens);
  }
}

inline void Reader::Parse(Object& object, TokenStream& tokens) {
  const Token& opening = tokens.Peek();
  MatchExpectedToken(Token::ObjectBegin, tokens);
  enterContainer(opening, tokens);
  if (tokens.atEnd()) MatchExpectedToken(Token::ObjectEnd, tokens);
  if (tokens.Peek().type != Token::ObjectEnd) {
    detail::MemberIndex names(object);
    bool more = true;
    while (more) {
      const Token& name_token = tokens.Peek();
      MatchExpectedToken(Token::StringToken, tokens);
      const std::string_view name = tokens.text(name_token);
      MatchExpectedToken(Token::Colon, tokens);
      const bool taken = names.contains(name);
      // The value is parsed straight into a new last member, which goes again when the value
      // fails or the name is taken: only complete members stay in the object.
      const auto member = object.appendUnchecked(std::string(name));
      try {
        Parse(member->element, tokens);
        // A repeated name is an error, never resolved in favour of either value.
        if (taken) {
          throw ParseException("Duplicate object member token: " + member->name,
                               tokens.beginOf(name_token), tokens.endOf(name_token));
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
  enterContainer(opening, tokens);
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
inline double Reader::parseNumber(const Token& token, const TokenStream& tokens) {
  const std::string_view text = tokens.text(token);
  const char* const text_end = text.data() + text.size();
  // readDecimal rounds correctly, as the stream does; whatever it does not accept whole takes
  // the stream path below.
  double value = 0.0;
  if (numbersReadAsInCLocale() && detail::readDecimal(text.data(), text_end, value)) return value;
  std::istringstream stream{std::string(text)};
  stream >> value;
  if (!stream.eof()) {
    const char next = std::istringstream::traits_type::to_char_type(stream.peek());
    throw ParseException("Unexpected character in NUMBER token: " + std::string(1, next),
                         tokens.beginOf(token), tokens.endOf(token));
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
               !detail::isNumberCharacter(punctuation.thousands_sep()));
    }
    locale_check_ = plain ? LocaleCheck::kPlain : LocaleCheck::kLocalised;
  }
  return locale_check_ == LocaleCheck::kPlain;
}

}  // namespace dova::json

#endif  // DOVA_JSON_DETAIL_READER_IMPL_H_
