// Writes JSON documents as text.
#ifndef DOVA_JSON_WRITER_H_
#define DOVA_JSON_WRITER_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <locale>
#include <ostream>
#include <string>

#include "dova/json/detail/decimal.h"
#include "dova/json/elements.h"
#include "dova/json/string_escapes.h"

namespace dova::json {

// Writes a document to a stream in the compact layout (no whitespace at all) or the indented
// one (a line per member or element, tab indentation). The compact text is a wire format: it
// is byte-exact, with numbers as 20 significant digits and two- and three-byte UTF-8 sequences
// as \u escapes.
//
// Writing leaves formatting state on the stream: precision 20 and the decimal base after a
// number, the hexadecimal base and fill '0' after a \u escape. A Writer touches only its
// stream, so threads may write separate documents at once.
class Writer : private ConstVisitor {
 public:
  // Writes `element` (an Object, an Array or an UnknownElement), then flushes the stream.
  template <typename ElementTypeT>
  static void Write(const ElementTypeT& element, std::ostream& stream, bool indented = false);

 private:
  Writer(std::ostream& stream, bool indented) : stream_(stream), indented_(indented) {}

  void Write_i(const Object& object);
  void Write_i(const Array& array);
  void Write_i(const String& string);
  void Write_i(const UnknownElement& element);

  void Visit(const Array& array) override { Write_i(array); }
  void Visit(const Object& object) override { Write_i(object); }
  void Visit(const Number& number) override;
  void Visit(const String& string) override { Write_i(string); }
  void Visit(const Boolean& boolean) override;
  void Visit(const Null& null) override;

  void writeString(const std::string& text);
  void writeUnicodeEscape(unsigned code);
  void writeNewline();
  void writeTabs();

  // Text collects in buffer_ and goes to the stream in blocks, which is much cheaper than
  // one stream call per token.
  void put(char character);
  void append(const char* text, size_t length);
  void drain();

  // Whether the stream formats numbers as the C locale with default flags does, so that they
  // can be formatted here without the stream and give the same text.
  bool formatsNumbersPlainly();
  bool formatsEscapesPlainly();
  bool hasPlainLocale();

  static constexpr size_t kBufferSize = 4096;

  std::ostream& stream_;
  const bool indented_;
  int32_t tab_depth_ = 0;
  enum class LocaleCheck { kUnchecked, kPlain, kLocalised } locale_check_ = LocaleCheck::kUnchecked;
  size_t buffered_ = 0;
  std::array<char, kBufferSize> buffer_;
};

template <typename ElementTypeT>
void Writer::Write(const ElementTypeT& element, std::ostream& stream, bool indented) {
  Writer writer(stream, indented);
  writer.Write_i(element);
  writer.drain();
  stream.flush();
}

inline void Writer::Write_i(const Object& object) {
  if (object.empty()) {
    append("{}", 2);
    return;
  }
  put('{');
  if (indented_) writeNewline();
  ++tab_depth_;
  for (auto member = object.begin(); member != object.end();) {
    if (indented_) writeTabs();
    writeString(member->name);
    if (indented_) {
      append(" : ", 3);
    } else {
      put(':');
    }
    member->element.Accept(*this);
    if (++member != object.end()) put(',');
    if (indented_) writeNewline();
  }
  --tab_depth_;
  if (indented_) writeTabs();
  put('}');
}

inline void Writer::Write_i(const Array& array) {
  if (array.empty()) {
    append("[]", 2);
    return;
  }
  put('[');
  if (indented_) writeNewline();
  ++tab_depth_;
  for (auto element = array.begin(); element != array.end();) {
    if (indented_) writeTabs();
    element->Accept(*this);
    if (++element != array.end()) put(',');
    if (indented_) writeNewline();
  }
  --tab_depth_;
  if (indented_) writeTabs();
  put(']');
}

inline void Writer::Write_i(const String& string) { writeString(string.Value()); }

inline void Writer::Write_i(const UnknownElement& element) { element.Accept(*this); }

inline void Writer::Visit(const Number& number) {
  stream_.precision(20);
  stream_.setf(std::ios_base::dec, std::ios_base::basefield);
  if (formatsNumbersPlainly()) {
    // Infinities and NaN deliberately come out as "inf" and "nan", which is not JSON; the
    // writer does not guard against them.
    if (kBufferSize - buffered_ < detail::kTwentyDigitsRoom) drain();
    char* const text = buffer_.data() + buffered_;
    buffered_ += static_cast<size_t>(detail::formatTwentyDigits(number.Value(), text) - text);
  } else {
    drain();
    stream_ << number.Value();
  }
}

inline void Writer::Visit(const Boolean& boolean) {
  if (boolean.Value()) {
    append("true", 4);
  } else {
    append("false", 5);
  }
}

inline void Writer::Visit(const Null&) { append("null", 4); }

inline void Writer::writeString(const std::string& text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  put('"');
  size_t next = 0;
  while (next < length) {
    // Copy plain bytes straight into the buffer, as many as fit.
    if (buffered_ == kBufferSize) drain();
    const size_t limit = std::min(length, next + (kBufferSize - buffered_));
    char* out = buffer_.data() + buffered_;
    size_t scan = next;
    while (scan < limit && !string_escapes::kSpecialBytes[bytes[scan]]) {
      *out++ = static_cast<char>(bytes[scan++]);
    }
    buffered_ += scan - next;
    next = scan;
    if (next == limit) continue;  // the end of the text, or a full buffer

    const string_escapes::SpecialPiece piece =
        string_escapes::specialPiece(bytes + next, length - next);
    switch (piece.kind) {
      case string_escapes::SpecialPiece::kCodePoint:
        writeUnicodeEscape(piece.code);
        break;
      case string_escapes::SpecialPiece::kShort:
        append(piece.text, 2);
        break;
      case string_escapes::SpecialPiece::kRaw:
        put(static_cast<char>(bytes[next]));
        break;
    }
    next += piece.length;
  }
  put('"');
}

inline void Writer::writeUnicodeEscape(unsigned code) {
  stream_.setf(std::ios_base::hex, std::ios_base::basefield);
  stream_.fill('0');
  if (formatsEscapesPlainly()) {
    const std::array<char, 6> escape = string_escapes::unicodeEscape(code);
    append(escape.data(), escape.size());
    // As after a formatted insertion: the width is used up, unless the stream refused output.
    stream_.width(stream_.good() ? 0 : 4);
  } else {
    drain();
    stream_.write("\\u", 2);
    stream_.width(4);
    stream_ << static_cast<int>(code);
  }
}

// A line feed, then a flush, as std::endl does.
inline void Writer::writeNewline() {
  put(stream_.widen('\n'));
  drain();
  stream_.flush();
}

inline void Writer::writeTabs() {
  for (int32_t tab = 0; tab < tab_depth_; ++tab) put('\t');
}

inline void Writer::put(char character) {
  if (buffered_ == kBufferSize) drain();
  buffer_[buffered_++] = character;
}

inline void Writer::append(const char* text, size_t length) {
  if (length > kBufferSize - buffered_) {
    drain();
    if (length > kBufferSize) {
      stream_.write(text, static_cast<std::streamsize>(length));
      return;
    }
  }
  std::char_traits<char>::copy(buffer_.data() + buffered_, text, length);
  buffered_ += length;
}

inline void Writer::drain() {
  if (buffered_ == 0) return;
  stream_.write(buffer_.data(), static_cast<std::streamsize>(buffered_));
  buffered_ = 0;
}

inline bool Writer::formatsNumbersPlainly() {
  constexpr std::ios_base::fmtflags kFormatting =
      std::ios_base::floatfield | std::ios_base::showpos | std::ios_base::showpoint |
      std::ios_base::uppercase;
  return (stream_.flags() & kFormatting) == 0 && stream_.width() == 0 && hasPlainLocale();
}

inline bool Writer::formatsEscapesPlainly() {
  constexpr std::ios_base::fmtflags kFormatting =
      std::ios_base::left | std::ios_base::showbase | std::ios_base::uppercase;
  return (stream_.flags() & kFormatting) == 0 && hasPlainLocale();
}

inline bool Writer::hasPlainLocale() {
  if (locale_check_ == LocaleCheck::kUnchecked) {
    const std::locale locale = stream_.getloc();
    bool plain = locale == std::locale::classic();
    if (!plain) {
      const auto& punctuation = std::use_facet<std::numpunct<char>>(locale);
      plain = punctuation.decimal_point() == '.' && punctuation.grouping().empty();
    }
    locale_check_ = plain ? LocaleCheck::kPlain : LocaleCheck::kLocalised;
  }
  return locale_check_ == LocaleCheck::kPlain;
}

}  // namespace dova::json

#endif  // DOVA_JSON_WRITER_H_
