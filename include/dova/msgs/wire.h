#ifndef DOVA_MSGS_WIRE_H_
#define DOVA_MSGS_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

// Binary field codec shared by every message class: fixed-size integers in
// host byte order and strings as a 32-bit byte count followed by the bytes.
// Plain inline functions, so an embedding message encodes its header and its
// own fields without a virtual call per field. Stateless; safe on any thread.
//
// Each write function stores one field at `out` and returns the position just
// after it; each read function loads one field from `in` and returns the
// position just after it. Positions need no alignment: every access is a
// byte copy.
//
// None of them checks bounds. REQUIRES: the writer's buffer has room for the
// field, and the reader's buffer holds the whole field (for a string, the
// count and as many bytes as it says). The frame walker in
// dova/msgs/frame_check.h is the way to establish that for untrusted input.

// The wire format is little-endian and the fields are copied in host order.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "dova messages are encoded in host byte order, which must be little-endian");

namespace dova::msgs {

inline uint8_t* writeUint8(uint8_t* out, uint8_t value) {
  *out = value;
  return out + 1;
}

inline uint8_t* writeUint32(uint8_t* out, uint32_t value) {
  std::memcpy(out, &value, sizeof value);
  return out + sizeof value;
}

inline uint8_t* writeInt32(uint8_t* out, int32_t value) {
  std::memcpy(out, &value, sizeof value);
  return out + sizeof value;
}

inline uint8_t* writeUint64(uint8_t* out, uint64_t value) {
  std::memcpy(out, &value, sizeof value);
  return out + sizeof value;
}

// The count is the size truncated to 32 bits, as the format defines it.
inline uint8_t* writeString(uint8_t* out, const std::string& value) {
  const auto count = static_cast<uint32_t>(value.size());
  out = writeUint32(out, count);
  std::memcpy(out, value.data(), count);
  return out + count;
}

inline const uint8_t* readUint8(const uint8_t* in, uint8_t& value) {
  value = *in;
  return in + 1;
}

inline const uint8_t* readUint32(const uint8_t* in, uint32_t& value) {
  std::memcpy(&value, in, sizeof value);
  return in + sizeof value;
}

inline const uint8_t* readInt32(const uint8_t* in, int32_t& value) {
  std::memcpy(&value, in, sizeof value);
  return in + sizeof value;
}

inline const uint8_t* readUint64(const uint8_t* in, uint64_t& value) {
  std::memcpy(&value, in, sizeof value);
  return in + sizeof value;
}

// Replaces the content of `value`; its capacity is reused when large enough.
inline const uint8_t* readString(const uint8_t* in, std::string& value) {
  uint32_t count = 0;
  in = readUint32(in, count);
  value.assign(reinterpret_cast<const char*>(in), count);
  return in + count;
}

// Encoded size of a string field: the count and the bytes.
inline size_t stringWireSize(const std::string& value) {
  return sizeof(uint32_t) + static_cast<uint32_t>(value.size());
}

}  // namespace dova::msgs

#endif  // DOVA_MSGS_WIRE_H_
