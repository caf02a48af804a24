#ifndef DOVA_MSGS_NUMBER_CAST_H_
#define DOVA_MSGS_NUMBER_CAST_H_

#include <cstdint>
#include <limits>

// Conversions of JSON numbers (doubles) to integers: the messages' integer
// fields, and the timestamp read from a signal envelope, follow one rule.
// Every value, NaN and infinities included, has a defined result: in range,
// truncation toward zero; out of range or NaN, the result the x86-64
// truncating conversion gives (the "integer indefinite" value, the lowest
// number of the type). Messages rendered on that target and read back
// elsewhere must decode to the same fields, so the result is spelled out here
// rather than left to the language, where it would be undefined.
// Stateless; safe on any thread.
namespace dova::msgs {

// Truncated toward zero; out of range or NaN: -2^31.
inline int32_t truncateToInt32(double value) {
  // Exact bounds: every double strictly between them truncates into range.
  if (value > -2147483649.0 && value < 2147483648.0) {
    return static_cast<int32_t>(value);
  }
  return std::numeric_limits<int32_t>::min();
}

// Truncated toward zero; out of range or NaN: -2^63.
inline int64_t truncateToInt64(double value) {
  if (value >= -9223372036854775808.0 && value < 9223372036854775808.0) {
    return static_cast<int64_t>(value);
  }
  return std::numeric_limits<int64_t>::min();
}

// Values of 2^63 and above: 2^63 is subtracted, the rest converted as a signed
// 64-bit integer, and the top bit set. Below 2^63: the signed 64-bit
// conversion, reinterpreted, so negative values wrap as two's complement.
// Out of range or NaN: 2^63.
inline uint64_t truncateToUint64(double value) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  constexpr uint64_t kTopBit = uint64_t{1} << 63;
  if (value >= kTwoTo63) {
    return static_cast<uint64_t>(truncateToInt64(value - kTwoTo63)) | kTopBit;
  }
  return static_cast<uint64_t>(truncateToInt64(value));
}

// The low 32 bits of the 64-bit truncation: 4294967297 gives 1, -1 gives
// 4294967295, out of range or NaN gives 0.
inline uint32_t truncateToLow32(double value) {
  return static_cast<uint32_t>(static_cast<uint64_t>(truncateToInt64(value)));
}

// The low 8 bits of the 32-bit truncation, as a signed byte: 300 gives 44,
// 255 gives -1, out of range or NaN gives 0.
inline int8_t truncateToLow8(double value) {
  return static_cast<int8_t>(static_cast<uint8_t>(static_cast<uint32_t>(truncateToInt32(value))));
}

}  // namespace dova::msgs

#endif  // DOVA_MSGS_NUMBER_CAST_H_
