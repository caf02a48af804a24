#ifndef KORCOMMON_TESTS_UNIT_MSGS_TEST_BYTES_H_
#define KORCOMMON_TESTS_UNIT_MSGS_TEST_BYTES_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

// Byte helpers for the message codec tests: golden encodings are written as
// hex (spaces allowed for readability) and compared as hex, so a failure
// shows where the bytes differ.
namespace korcommon::testing {

inline std::string toHex(const uint8_t* data, size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * size);
  for (size_t i = 0; i < size; ++i) {
    hex.push_back(kDigits[data[i] >> 4]);
    hex.push_back(kDigits[data[i] & 0xF]);
  }
  return hex;
}

inline std::string toHex(const std::vector<uint8_t>& bytes) {
  return toHex(bytes.data(), bytes.size());
}

// Golden hex without its spaces.
inline std::string compactHex(std::string_view spaced) {
  std::string hex;
  for (char c : spaced) {
    if (c != ' ') {
      hex.push_back(c);
    }
  }
  return hex;
}

inline std::vector<uint8_t> fromHex(std::string_view spaced) {
  const std::string hex = compactHex(spaced);
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// The message's encoding, checked against what serializedLength() promised.
template <typename MessageT>
std::vector<uint8_t> encode(const MessageT& message) {
  std::vector<uint8_t> bytes(static_cast<size_t>(message.serializedLength()));
  const int written = message.serialize(bytes.data(), static_cast<int>(bytes.size()));
  EXPECT_EQ(static_cast<size_t>(written), bytes.size());
  return bytes;
}

inline std::string bytesAsString(std::initializer_list<uint8_t> bytes) {
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_UNIT_MSGS_TEST_BYTES_H_
