// Where the JSON reader keeps the texts of the tokens it scans.
#ifndef DOVA_JSON_DETAIL_TOKEN_TEXTS_H_
#define DOVA_JSON_DETAIL_TOKEN_TEXTS_H_

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <string>
#include <string_view>

#include "dova/json/detail/input_stream.h"

namespace dova::json::detail {

// The texts of the tokens of one reading, in one store. The input's buffered characters are
// copied in as they are reached, so a token that stands in the input as it is, as most
// strings and numbers do, is only a place in the copy; a text that differs from its input
// characters (a string with escapes, a token cut by a refill of the buffer) is appended apart.
// Places are offsets, which stay valid as the store grows. Not thread-safe: one reading uses
// it.
class TokenTexts {
 public:
  explicit TokenTexts(std::pmr::memory_resource* memory) : store_(memory) {}

  void reserve(size_t size) { store_.reserve(size); }

  // Copies the input's buffered characters in when they are new since the last call.
  void follow(const InputStream& input) {
    if (input.refills() == refills_) return;
    refills_ = input.refills();
    copied_ = input.next();
    copied_offset_ = store_.size();
    store_.append(copied_, static_cast<size_t>(input.end() - copied_));
  }

  // The place of `text` in the store.
  // REQUIRES: `text` points into the buffered characters the last follow() copied.
  uint32_t offsetOf(const char* text) const {
    return static_cast<uint32_t>(copied_offset_ + static_cast<size_t>(text - copied_));
  }

  // Where a text is appended apart; its place is the size before appending.
  std::pmr::string& appended() { return store_; }

  std::string_view at(uint32_t offset, uint32_t length) const {
    return std::string_view(store_.data() + offset, length);
  }

 private:
  std::pmr::string store_;
  uint32_t refills_ = 0;          // input.refills() when the buffer was copied
  const char* copied_ = nullptr;  // the first buffered character copied
  size_t copied_offset_ = 0;      // its place in the store
};

}  // namespace dova::json::detail

#endif  // DOVA_JSON_DETAIL_TOKEN_TEXTS_H_
