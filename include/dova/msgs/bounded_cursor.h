#ifndef DOVA_MSGS_BOUNDED_CURSOR_H_
#define DOVA_MSGS_BOUNDED_CURSOR_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace dova::msgs {

// A read position inside [data, data + size) that never moves past the end:
// the frame walk follows an untrusted encoding field by field with it. Every
// step checks the bytes left first, so no length prefix (0xFFFFFFFF included)
// can overflow the offset or make a read leave the buffer. A failed step
// leaves the position where it was.
//
// One cursor belongs to one walk; it is not shared between threads.
class BoundedCursor {
 public:
  // REQUIRES: data points to at least `size` readable bytes (null only when size is 0).
  BoundedCursor(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t consumed() const { return offset_; }
  size_t remaining() const { return size_ - offset_; }

  bool skip(size_t count) {
    if (count > remaining()) {
      return false;
    }
    offset_ += count;
    return true;
  }

  bool readUint32(uint32_t& value) {
    if (remaining() < sizeof value) {
      return false;
    }
    std::memcpy(&value, data_ + offset_, sizeof value);
    offset_ += sizeof value;
    return true;
  }

  // A string field: a 32-bit count and that many bytes.
  bool skipString() {
    uint32_t count = 0;
    return readUint32(count) && skip(count);
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t offset_ = 0;
};

}  // namespace dova::msgs

#endif  // DOVA_MSGS_BOUNDED_CURSOR_H_
