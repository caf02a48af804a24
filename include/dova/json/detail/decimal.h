// Doubles as decimal text and back, exact to the bit and independent of the locale. The JSON
// reader and writer and the trace formatter convert their numbers here.
//
// Conversions go through std::from_chars and std::to_chars, which are exact. Two forms that
// documents and traces write all the time are computed here instead, several times faster:
// "%.20g" and "%.*f" of values whose scaled digits fit 128 and 64 bits. Both take the exact
// binary value, scale it by a power of ten in integers and round half to even, as glibc's
// printf rounds in the default rounding mode.
#ifndef DOVA_JSON_DETAIL_DECIMAL_H_
#define DOVA_JSON_DETAIL_DECIMAL_H_

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <system_error>

namespace dova::json::detail {

__extension__ using Uint128 = unsigned __int128;

// Reads all of [begin, end) as a decimal number into `value`, correctly rounded. False, leaving
// `value`, when the text is not one number from end to end or its value is beyond the range of
// a double.
inline bool readDecimal(const char* begin, const char* end, double& value) {
  double read = 0.0;
  const std::from_chars_result result = std::from_chars(begin, end, read);
  if (result.ec != std::errc() || result.ptr != end) return false;
  value = read;
  return true;
}

// A finite double's exact magnitude, significand * 2^exponent, and its sign.
struct BinaryValue {
  uint64_t significand = 0;
  int exponent = 0;
  bool negative = false;
};

// REQUIRES: `value` is finite.
inline BinaryValue binaryValue(double value) {
  constexpr int kFractionBits = std::numeric_limits<double>::digits - 1;
  constexpr int kExponentBias = std::numeric_limits<double>::max_exponent - 1;
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  BinaryValue binary;
  binary.negative = (bits >> 63) != 0;
  binary.significand = bits & ((uint64_t{1} << kFractionBits) - 1);
  const auto biased_exponent = static_cast<int>((bits >> kFractionBits) & 0x7FF);
  binary.exponent = 1 - kExponentBias - kFractionBits;  // subnormals
  if (biased_exponent != 0) {
    binary.significand |= uint64_t{1} << kFractionBits;
    binary.exponent = biased_exponent - kExponentBias - kFractionBits;
  }
  return binary;
}

// 5^0 to 5^32; times a 53-bit significand each stays below 2^128. A value times 10^k is its
// significand times 5^k with k added to its exponent.
constexpr std::array<Uint128, 33> kPowersOfFive = [] {
  std::array<Uint128, 33> powers{};
  Uint128 power = 1;
  for (Uint128& entry : powers) {
    entry = power;
    power *= 5;
  }
  return powers;
}();

// product / 2^shift, rounded half to even.
// REQUIRES: 0 < shift < the width of Unsigned.
template <typename Unsigned>
Unsigned shiftRoundingHalfToEven(Unsigned product, int shift) {
  const Unsigned quotient = product >> shift;
  const Unsigned remainder = product - (quotient << shift);
  const Unsigned half = Unsigned{1} << (shift - 1);
  return quotient + Unsigned{remainder > half || (remainder == half && (quotient & 1) != 0)};
}

constexpr std::array<char, 200> kDigitPairs = [] {
  std::array<char, 200> pairs{};
  for (size_t pair = 0; pair < 100; ++pair) {
    pairs[2 * pair] = static_cast<char>('0' + pair / 10);
    pairs[2 * pair + 1] = static_cast<char>('0' + pair % 10);
  }
  return pairs;
}();

// Writes `value` (below 10^10) as ten digits, with leading zeros. The digit pairs are computed
// side by side rather than in one chain of divisions.
inline void writeTenDigits(uint64_t value, char* digits) {
  const auto writePair = [](unsigned pair, char* to) {
    std::memcpy(to, kDigitPairs.data() + 2 * static_cast<size_t>(pair), 2);
  };
  const auto rest = static_cast<uint32_t>(value % 100000000);
  const auto upper = rest / 10000;
  const auto lower = rest % 10000;
  writePair(static_cast<unsigned>(value / 100000000), digits);
  writePair(upper / 100, digits + 2);
  writePair(upper % 100, digits + 4);
  writePair(lower / 100, digits + 6);
  writePair(lower % 100, digits + 8);
}

// Room formatTwentyDigits needs: the longest "%.20g" text of a double is 27 characters (sign,
// 20 digits, point, "e-308"), and its copies overshoot it.
constexpr size_t kTwentyDigitsRoom = 48;

// Formats `value` as printf's "%.20g" does: the first 20 significant digits of its exact
// binary value, rounded half to even; fixed notation for decimal exponents from -4 to 19,
// exponent notation otherwise; trailing zeros dropped. Magnitudes from 1e-13 to 1e20, nearly
// every number a document holds, are done here; std::to_chars gives the same text for the rest.
// Returns the end of the text.
// REQUIRES: `out` has room for kTwentyDigitsRoom characters.
inline char* formatTwentyDigits(double value, char* out) {
  constexpr auto kTenToTheNineteen = Uint128{10000000000000000000u};
  constexpr Uint128 kTenToTheTwenty = kTenToTheNineteen * 10;
  constexpr uint64_t kTenToTheTen = 10000000000u;
  const double magnitude = std::fabs(value);
  if (!(magnitude >= 1e-13 && magnitude < 1e20)) {
    if (magnitude == 0) {
      if (std::signbit(value)) *out++ = '-';
      *out++ = '0';
      return out;
    }
    return std::to_chars(out, out + kTwentyDigitsRoom, value, std::chars_format::general, 20).ptr;
  }

  // Whole numbers below 2^53 are their own exact digits.
  if (magnitude < 9007199254740992.0) {
    const auto whole = static_cast<uint64_t>(magnitude);
    if (static_cast<double>(whole) == magnitude) {
      if (std::signbit(value)) *out++ = '-';
      return std::to_chars(out, out + kTwentyDigitsRoom, whole).ptr;
    }
  }

  // The range above leaves only normal numbers, whose significand has its 53rd bit set.
  const BinaryValue binary = binaryValue(value);
  // floor(log10(magnitude)) is this estimate or one more: 78913 / 2^18 is log10(2) rounded.
  int decimal_exponent = ((binary.exponent + 52) * 78913) >> 18;
  // digits = magnitude * 10^(19 - decimal_exponent), rounded, in [10^19, 10^20).
  Uint128 digits = 0;
  for (;;) {
    const auto scale = static_cast<size_t>(19 - decimal_exponent);
    if (scale >= kPowersOfFive.size()) {
      return std::to_chars(out, out + kTwentyDigitsRoom, value, std::chars_format::general, 20).ptr;
    }
    const Uint128 product = binary.significand * kPowersOfFive[scale];
    const int twos = binary.exponent + static_cast<int>(scale);
    digits = twos >= 0 ? product << twos : shiftRoundingHalfToEven(product, -twos);
    if (digits < kTenToTheTwenty) break;
    // Either the estimate was one short, or the digits rounded up to 10^20; one scale less
    // gives 10^19 then.
    ++decimal_exponent;
  }

  // 10^10 = 2^10 * 5^10: dividing in two steps keeps the division in 64 bits.
  char text[40] = {};
  const auto high = static_cast<uint64_t>(digits >> 10) / (kTenToTheTen >> 10);
  writeTenDigits(high, text);
  writeTenDigits(static_cast<uint64_t>(digits - Uint128{high} * kTenToTheTen), text + 10);
  int significant = 20;
  while (text[significant - 1] == '0') --significant;

  if (binary.negative) *out++ = '-';
  // Copies text[from, to); the copy is always 20 bytes long, which compiles to two moves.
  const auto copy = [&out, &text](int from, int to) {
    std::memcpy(out, text + from, 20);
    out += to - from;
  };
  if (decimal_exponent < -4 || decimal_exponent >= 20) {
    *out++ = text[0];
    if (significant > 1) {
      *out++ = '.';
      copy(1, significant);
    }
    *out++ = 'e';
    *out++ = decimal_exponent < 0 ? '-' : '+';
    const int exponent_digits = decimal_exponent < 0 ? -decimal_exponent : decimal_exponent;
    *out++ = static_cast<char>('0' + exponent_digits / 10);
    *out++ = static_cast<char>('0' + exponent_digits % 10);
  } else if (decimal_exponent >= 0) {
    const int integer_digits = decimal_exponent + 1;
    copy(0, integer_digits);
    if (significant > integer_digits) {
      *out++ = '.';
      copy(integer_digits, significant);
    }
  } else {
    *out++ = '0';
    *out++ = '.';
    for (int zero = -decimal_exponent - 1; zero > 0; --zero) *out++ = '0';
    copy(0, significant);
  }
  return out;
}

// Room formatFixed needs at `precision`: a sign, the 309 integer digits of the largest double,
// the point and the fraction.
constexpr size_t fixedRoom(int precision) {
  return 1 + (std::numeric_limits<double>::max_exponent10 + 1) + 1 + static_cast<size_t>(precision);
}

// |value| * 10^precision, rounded half to even, into `scaled`; false when that is 2^64 or more.
// REQUIRES: 0 <= precision <= 19 (kPowersOfFive[precision] below 2^45).
inline bool scaleToInteger(const BinaryValue& binary, int precision, uint64_t& scaled) {
  // A 53-bit significand times 5^4 (< 2^10) still fits 64 bits.
  constexpr int kLargestNarrowScale = 4;
  // |value| * 10^precision == significand * 5^precision * 2^twos.
  const Uint128 power = kPowersOfFive[static_cast<size_t>(precision)];
  const int twos = binary.exponent + precision;
  if (twos >= 0) {
    const Uint128 product = binary.significand * power;
    if (twos >= 64 || (product >> (64 - twos)) != 0) return false;
    scaled = static_cast<uint64_t>(product << twos);
  } else if (precision <= kLargestNarrowScale && twos > -64) {
    // The common reading, in 64-bit arithmetic.
    scaled = shiftRoundingHalfToEven(binary.significand * static_cast<uint64_t>(power), -twos);
  } else if (twos > -128) {
    const Uint128 rounded = shiftRoundingHalfToEven(binary.significand * power, -twos);
    if (rounded > std::numeric_limits<uint64_t>::max()) return false;
    scaled = static_cast<uint64_t>(rounded);
  } else {
    // Shifted 128 bits or more, the product, below 2^98, is below half a unit.
    scaled = 0;
  }
  return true;
}

// `value` in fixed notation with `precision` fraction digits, as printf's "%.*f" writes it.
// When |value| * 10^precision rounds to below 2^64 the digits are computed here; std::to_chars
// gives the same text for the rest. Returns the end of the text.
// REQUIRES: `value` is finite; precision >= 0; `out` has room for fixedRoom(precision)
// characters.
inline char* formatFixed(double value, int precision, char* out) {
  // The digits of a 64-bit integer, the unit the parts are copied in.
  constexpr size_t kDigitBlock = std::numeric_limits<uint64_t>::digits10 + 1;
  constexpr int kLargestScale = std::numeric_limits<uint64_t>::digits10;
  static_assert(1 + kDigitBlock + 1 + 2 * kDigitBlock <= fixedRoom(0));
  const BinaryValue binary = binaryValue(value);
  uint64_t scaled = 0;
  if (precision > kLargestScale || !scaleToInteger(binary, precision, scaled)) {
    return std::to_chars(out, out + fixedRoom(precision), value, std::chars_format::fixed,
                         precision)
        .ptr;
  }

  // The parts go out in whole blocks, which compile to a few moves where a call to copy a
  // handful of bytes would cost more than the rest of this function; what a block carries past
  // its part is overwritten by the next part or lies beyond the text.
  char digits[2 * kDigitBlock] = {};  // a block can start at any digit
  const auto count =
      static_cast<size_t>(std::to_chars(digits, digits + kDigitBlock, scaled).ptr - digits);
  const auto scale = static_cast<size_t>(precision);
  const size_t integer_digits = count > scale ? count - scale : 0;
  if (binary.negative) *out++ = '-';  // also for -0.0 and what rounds to 0
  if (integer_digits == 0) {
    *out++ = '0';
  } else {
    std::memcpy(out, digits, kDigitBlock);
    out += integer_digits;
  }
  if (scale > 0) {
    *out++ = '.';
    const size_t fraction_digits = count - integer_digits;
    std::memset(out, '0', kDigitBlock);
    out += scale - fraction_digits;
    std::memcpy(out, digits + integer_digits, kDigitBlock);
    out += fraction_digits;
  }
  return out;
}

}  // namespace dova::json::detail

#endif  // DOVA_JSON_DETAIL_DECIMAL_H_
