#ifndef DOVA_MSGS_FRAME_CHECK_H_
#define DOVA_MSGS_FRAME_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

// Bounds-checked walking of encoded messages and frames, for input from
// outside the process. Message deserialize() trusts its buffer completely;
// the transport runs these checks first, so a frame whose length prefixes
// point past its end is dropped instead of read out of bounds.
//
// A walker follows the encoding field by field without decoding it: no
// allocation, no string copies, at most one step per four bytes of input.
// Every length prefix and the topic count of a Log are checked against the
// bytes left, so no prefix value (0xFFFFFFFF included) can overflow an offset
// or make the walk read outside [data, data + size).
//
// Stateless; safe on any thread.
namespace dova {

namespace std_msgs {
class Header;
}
namespace diagnostic_msgs {
class DiagnosticValue;
}
namespace dova_msgs {
class Log;
}

namespace msgs {

// Bytes of the transport prefix (the sender's node name, NUL-padded) that
// precede the encoded message in every frame.
inline constexpr size_t kFramePrefixSize = 32;

namespace frame_check_detail {

// A read position inside [data, data + size) that never moves past the end.
class BoundedCursor {
 public:
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

inline bool walkHeaderFields(BoundedCursor& cursor) {
  return cursor.skip(3 * sizeof(uint32_t)) && cursor.skipString();  // seq, stamp; frame_id
}

inline bool walkDiagnosticValueFields(BoundedCursor& cursor) {
  return walkHeaderFields(cursor) && cursor.skip(sizeof(int32_t)) && cursor.skipString() &&
         cursor.skip(sizeof(int32_t)) && cursor.skipString();  // level, name, code, message
}

inline bool walkLogFields(BoundedCursor& cursor) {
  if (!walkHeaderFields(cursor) || !cursor.skip(sizeof(int8_t))) {
    return false;
  }
  for (int field = 0; field < 4; ++field) {  // name, msg, file, function
    if (!cursor.skipString()) {
      return false;
    }
  }
  uint32_t topic_count = 0;
  if (!cursor.skip(sizeof(uint32_t)) || !cursor.readUint32(topic_count)) {  // line; count
    return false;
  }
  // Each topic takes at least its 4-byte count, so a larger count cannot fit:
  // reject it before walking any topic.
  if (topic_count > cursor.remaining() / sizeof(uint32_t)) {
    return false;
  }
  for (uint32_t topic = 0; topic < topic_count; ++topic) {
    if (!cursor.skipString()) {
      return false;
    }
  }
  return cursor.skip(2 * sizeof(uint64_t));  // pid, tid
}

template <bool (*walkFields)(BoundedCursor&)>
std::optional<size_t> walk(const uint8_t* data, size_t size) {
  BoundedCursor cursor(data, size);
  if (!walkFields(cursor)) {
    return std::nullopt;
  }
  return cursor.consumed();
}

}  // namespace frame_check_detail

// The size of the encoded message at the start of `data` when the whole
// encoding lies within the first `size` bytes; nullopt when any field
// would end past them. Bytes after the encoding are not looked at.
// REQUIRES: data points to at least `size` readable bytes (null only when
// size is 0).
inline std::optional<size_t> walkHeader(const uint8_t* data, size_t size) {
  return frame_check_detail::walk<frame_check_detail::walkHeaderFields>(data, size);
}

inline std::optional<size_t> walkDiagnosticValue(const uint8_t* data, size_t size) {
  return frame_check_detail::walk<frame_check_detail::walkDiagnosticValueFields>(data, size);
}

inline std::optional<size_t> walkLog(const uint8_t* data, size_t size) {
  return frame_check_detail::walk<frame_check_detail::walkLogFields>(data, size);
}

// True when `data` holds exactly one encoded message of type MessageT: its
// encoding fits and ends on the last of the `size` bytes. Defined for
// std_msgs::Header, diagnostic_msgs::DiagnosticValue and dova_msgs::Log.
// REQUIRES: as for the walkers.
template <typename MessageT>
bool fitsExactly(const uint8_t* data, size_t size);

template <>
inline bool fitsExactly<std_msgs::Header>(const uint8_t* data, size_t size) {
  return walkHeader(data, size) == size;
}

template <>
inline bool fitsExactly<diagnostic_msgs::DiagnosticValue>(const uint8_t* data, size_t size) {
  return walkDiagnosticValue(data, size) == size;
}

template <>
inline bool fitsExactly<dova_msgs::Log>(const uint8_t* data, size_t size) {
  return walkLog(data, size) == size;
}

// True when `frame` is a transport prefix followed by exactly one encoded
// message of the type named `msg_type` ("std_msgs/Header",
// "diagnostic_msgs/DiagnosticValue" or "dova_msgs/Log"). Such a frame can be
// handed to that type's deserialize(frame + kFramePrefixSize,
// size - kFramePrefixSize) safely. A frame shorter than the prefix, and
// any other type name, gives false: an unknown layout cannot be vouched for.
// REQUIRES: frame points to at least `size` readable bytes (null only when
// size is 0).
inline bool isWellFormedFrame(std::string_view msg_type, const uint8_t* frame, size_t size) {
  if (size < kFramePrefixSize) {
    return false;
  }
  const uint8_t* message = frame + kFramePrefixSize;
  const size_t message_size = size - kFramePrefixSize;
  if (msg_type == "diagnostic_msgs/DiagnosticValue") {
    return fitsExactly<diagnostic_msgs::DiagnosticValue>(message, message_size);
  }
  if (msg_type == "dova_msgs/Log") {
    return fitsExactly<dova_msgs::Log>(message, message_size);
  }
  if (msg_type == "std_msgs/Header") {
    return fitsExactly<std_msgs::Header>(message, message_size);
  }
  return false;
}

}  // namespace msgs
}  // namespace dova

#endif  // DOVA_MSGS_FRAME_CHECK_H_
