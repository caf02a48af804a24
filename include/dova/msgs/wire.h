#ifndef DOVA_MSGS_WIRE_H_
#define DOVA_MSGS_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

// Binary building blocks of the message codec: fixed-size integers in host
// byte order and strings as a 32-bit byte count followed by the bytes.
// Stateless; safe on any thread.
//
// Each write function stores one value at `out` and returns the position just
// after it; each read function loads one value from `in` and returns the
// position just after it. Positions need no alignment: every access is a
// byte copy.
//
// None of them checks bounds. REQUIRES: the writer's buffer has room for the
// value, and the reader's buffer holds the whole value (for a string, the
// count and as many bytes as it says). The frame walk in
// dova/msgs/frame_check.h is the way to establish that for untrusted input.

// The wire format is little-endian and the values are copied in host order.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "dova messages are encoded in host byte order, which must be little-endian");

namespace dova::msgs {

template <typename Integer>
uint8_t* writeInteger(uint8_t* out, Integer value) {
  static_assert(std::is_integral_v<Integer>);
  std::memcpy(out, &value, sizeof value);
  return out + sizeof value;
}

template <typename Integer>
const uint8_t* readInteger(const uint8_t* in, Integer& value) {
  static_assert(std::is_integral_v<Integer>);
  std::memcpy(&value, in, sizeof value);
  return in + sizeof value;
}

// The count is the size truncated to 32 bits, as the format defines it.
inline uint8_t* writeString(uint8_t* out, const std::string& value) {
  const auto count = static_cast<uint32_t>(value.size());
  out = writeInteger(out, count);
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the format has no terminator.
  std::memcpy(out, value.data(), count);
  return out + count;
}

// Replaces the content of `value`; its capacity is reused when large enough.
inline const uint8_t* readString(const uint8_t* in, std::string& value) {
  uint32_t count = 0;
  in = readInteger(in, count);
  value.assign(reinterpret_cast<const char*>(in), count);
  return in + count;
}

// Encoded size of a string: the count and the bytes.
inline size_t stringWireSize(const std::string& value) {
  return sizeof(uint32_t) + static_cast<uint32_t>(value.size());
}

}  // namespace dova::msgs

#endif  // DOVA_MSGS_WIRE_H_
