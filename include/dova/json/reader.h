// Reads JSON documents from text.
#ifndef DOVA_JSON_READER_H_
#define DOVA_JSON_READER_H_

#include <cstdint>
#include <istream>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

#include "dova/json/elements.h"

namespace dova::json {
namespace detail {
class InputStream;
class TokenTexts;
}  // namespace detail

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

    Token() = default;
    Token(Type token_type, uint32_t offset, uint32_t length, uint32_t begin, uint32_t end)
        : type(token_type),
          text_offset(offset),
          text_length(length),
          begin_offset(begin),
          end_offset(end) {}

    Type type = ObjectBegin;
    // Where the token's text stands in the reading's store of texts: for a string its
    // decoded value without the quotes, for a number its characters. Punctuation and keywords
    // store none; their texts are fixed, a keyword's told by its length.
    uint32_t text_offset = 0;
    uint32_t text_length = 0;
    // Characters before the token's first character and after its last; the lines and
    // columns are worked out from them only for an error.
    uint32_t begin_offset = 0;
    uint32_t end_offset = 0;
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
  class TokenStream;
  using InputStream = detail::InputStream;
  using TokenTexts = detail::TokenTexts;
  using Tokens = std::pmr::vector<Token>;

  Reader() = default;

  static Location locationOf(const InputStream& input);
  // Scans the whole input into `tokens`, their texts into `texts`.
  static void Scan(Tokens& tokens, TokenTexts& texts, InputStream& input);
  // Where a token's text stands in the store of texts: Token's text_offset and text_length.
  struct TextPlace {
    uint32_t offset = 0;
    uint32_t length = 0;
  };
  static TextPlace MatchString(InputStream& input, TokenTexts& texts);
  static void matchStringRest(InputStream& input, std::pmr::string& text);
  static void MatchExpectedString(InputStream& input, std::string_view expected);
  static TextPlace matchNumber(InputStream& input, TokenTexts& texts);
  static void appendUnicodeEscape(InputStream& input, std::pmr::string& text,
                                  unsigned& high_surrogate);

  void MatchExpectedToken(Token::Type type, TokenStream& tokens);
  // The throws stay out of line, so the scanning and parsing loops stay small.
  [[noreturn]] static void throwUnexpectedToken(const Token& token, const TokenStream& tokens);
  [[noreturn, gnu::noinline, gnu::cold]] static void throwUnexpectedCharacter(
      char character, const Location& where) {
    throw ScanException("Unexpected character in stream: " + std::string(1, character), where);
  }
  void Parse(UnknownElement& element, TokenStream& tokens);
  void Parse(Object& object, TokenStream& tokens);
  void Parse(Array& array, TokenStream& tokens);
  double parseNumber(const Token& token, const TokenStream& tokens);
  bool numbersReadAsInCLocale();
  void enterContainer(const Token& opening, const TokenStream& tokens);

  int nesting_depth_ = 0;
  enum class LocaleCheck { kUnchecked, kPlain, kLocalised } locale_check_ = LocaleCheck::kUnchecked;
};

}  // namespace dova::json

// The scanning and parsing behind Reader, header code like the rest of the library.
#include "dova/json/detail/reader_impl.h"

#endif  // DOVA_JSON_READER_H_
