// The JSON reader's cursor over the caller's stream.
#ifndef DOVA_JSON_DETAIL_INPUT_STREAM_H_
#define DOVA_JSON_DETAIL_INPUT_STREAM_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <streambuf>
#include <vector>

namespace dova::json::detail {

// Reaches the get area of any stream buffer through pointers to its protected members, which
// a derived class may form, so that the reader scans buffered text in place.
class StreamBufferAccess : public std::streambuf {
 public:
  static char* next(std::streambuf& buffer) { return (buffer.*&StreamBufferAccess::gptr)(); }
  static char* end(std::streambuf& buffer) { return (buffer.*&StreamBufferAccess::egptr)(); }
  static void consume(std::streambuf& buffer, int count) {
    (buffer.*&StreamBufferAccess::gbump)(count);
  }
};

// The caller's stream with the position reached in it. Characters are read in place from the
// stream buffer's get area; a stream call per character would dominate reading. The buffer's
// own position catches up when more input is needed and when the InputStream goes away, so
// the stream is left just after the last character consumed, as with get().
// Not thread-safe: one reading uses it.
class InputStream {
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
      line_starts_.push_back(line_start_);
    }
    return character;
  }

  // The characters buffered from the next one on, [next(), end()): callers scan runs in them.
  const char* next() const { return next_; }
  const char* end() const { return end_; }

  // Consumes the next `count` buffered characters, none of them a line feed.
  void skipInLine(size_t count) { next_ += count; }

  // How many times the buffered characters were replaced: next() and end() point into another
  // buffer when this changes.
  uint32_t refills() const { return refills_; }

  // Where the next character is: line feeds consumed, characters since the last line feed,
  // and characters consumed in all.
  uint32_t line() const { return line_; }
  uint32_t column() const { return offset() - line_start_; }
  // Kept as a pointer difference: counting in the scanning loops would cost more than the
  // scanning itself.
  uint32_t offset() const { return released_offset_ + static_cast<uint32_t>(next_ - released_); }

  // The line and the column of an offset already consumed.
  uint32_t lineAt(uint32_t at) const {
    return static_cast<uint32_t>(std::upper_bound(line_starts_.begin(), line_starts_.end(), at) -
                                 line_starts_.begin());
  }
  uint32_t columnAt(uint32_t at) const {
    const uint32_t line = lineAt(at);
    return at - (line == 0 ? 0 : line_starts_[line - 1]);
  }

 private:
  // Makes the buffer's position ours, then has it fetch more input. False at the end.
  bool refill() {
    release();
    if (buffer_->sgetc() == Traits::eof()) {
      stream_.setstate(std::ios_base::eofbit);
      return false;
    }
    next_ = StreamBufferAccess::next(*buffer_);
    end_ = StreamBufferAccess::end(*buffer_);
    if (next_ == end_) {
      // An unbuffered stream buffer: take its characters one at a time.
      single_ = Traits::to_char_type(buffer_->sbumpc());
      unbuffered_ = true;
      next_ = &single_;
      end_ = next_ + 1;
    }
    released_ = next_;
    ++refills_;
    return true;
  }

  void release() {
    released_offset_ = offset();
    if (unbuffered_) {
      // A character taken but not consumed goes back.
      if (next_ != end_) buffer_->sputbackc(single_);
      unbuffered_ = false;
    } else if (next_ != released_) {
      StreamBufferAccess::consume(*buffer_, static_cast<int>(next_ - released_));
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
  uint32_t refills_ = 0;
  uint32_t line_ = 0;
  uint32_t line_start_ = 0;            // offset() after the last line feed
  std::vector<uint32_t> line_starts_;  // offset() after each line feed
};

}  // namespace dova::json::detail

#endif  // DOVA_JSON_DETAIL_INPUT_STREAM_H_
