#ifndef DOVA_MSGS_FRAME_CHECK_H_
#define DOVA_MSGS_FRAME_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <optional>

#include "dova/msgs/bounded_cursor.h"
#include "dova/msgs/field_list.h"

// Bounds-checked walking of encoded messages and frames, for input from
// outside the process. Message deserialize() trusts its buffer completely;
// the transport runs these checks first, so a frame whose length prefixes
// point past its end is dropped instead of read out of bounds.
//
// The walk follows the message type's field list without decoding: no
// allocation, no string copies, at most one step per four bytes of input.
// Every length prefix and element count is checked against the bytes left
// (see BoundedCursor), so no prefix value can make the walk read outside
// [data, data + size).
//
// Stateless; safe on any thread.
namespace dova::msgs {

// Bytes of the transport prefix (the sender's node name, NUL-padded) that
// precede the encoded message in every frame.
inline constexpr size_t kFramePrefixSize = 32;

// The size of the encoded MessageT at the start of `data` when the whole
// encoding lies within the first `size` bytes; nullopt when any field would
// end past them. Bytes after the encoding are not looked at.
// REQUIRES: data points to at least `size` readable bytes (null only when
// size is 0).
template <typename MessageT>
std::optional<size_t> walkMessage(const uint8_t* data, size_t size) {
  BoundedCursor cursor(data, size);
  if (!FieldCodec<MessageT>::walk(cursor)) {
    return std::nullopt;
  }
  return cursor.consumed();
}

// True when `data` holds exactly one encoded MessageT: its encoding fits and
// ends on the last of the `size` bytes. REQUIRES: as for walkMessage.
template <typename MessageT>
bool fitsExactly(const uint8_t* data, size_t size) {
  return walkMessage<MessageT>(data, size) == size;
}

// True when `frame` is a transport prefix followed by exactly one encoded
// MessageT. Such a frame can be handed to MessageT's
// deserialize(frame + kFramePrefixSize, size - kFramePrefixSize) safely. A
// frame shorter than the prefix gives false.
// REQUIRES: frame points to at least `size` readable bytes (null only when
// size is 0).
template <typename MessageT>
bool isWellFormedFrame(const uint8_t* frame, size_t size) {
  return size >= kFramePrefixSize &&
         fitsExactly<MessageT>(frame + kFramePrefixSize, size - kFramePrefixSize);
}

}  // namespace dova::msgs

#endif  // DOVA_MSGS_FRAME_CHECK_H_
