// The three messages through one typed suite: golden encodings and echo texts, parse tables,
// the agreed constants, and the frame check that guards decoding of received bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/frame_check.h"
#include "dova/msgs/std_msgs/Header.h"
#include "table_rows.h"

namespace {

using korcommon::testing::tableRows;

std::vector<uint8_t> fromHex(const std::string& hex) {
  std::vector<uint8_t> bytes;
  for (size_t at = 0; at + 1 < hex.size(); at += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

std::string toHex(const std::vector<uint8_t>& bytes) {
  std::ostringstream hex;
  for (const uint8_t byte : bytes) hex << std::hex << std::setw(2) << std::setfill('0') << +byte;
  return hex.str();
}

// Whether the frame check accepts `message` behind a transport prefix of `prefix` bytes.
template <typename MessageT>
bool frameFits(const std::vector<uint8_t>& message, size_t prefix = dova::msgs::kFramePrefixSize) {
  // Exactly its bytes, so that AddressSanitizer catches a read past them.
  std::vector<uint8_t> frame(prefix + message.size(), 'n');
  std::copy(message.begin(), message.end(), frame.begin() + static_cast<ptrdiff_t>(prefix));
  return dova::msgs::isWellFormedFrame<MessageT>(frame.data(), frame.size());
}

// Decodes `bytes`, a copy holding exactly them as above, into `message`: what it consumed, and
// its encoding afterwards, at an odd address after a guard byte, with guard bytes after it that
// must stay.
template <typename MessageT>
std::string decodeAndEncode(MessageT& message, std::vector<uint8_t> bytes) {
  const int consumed = message.deserialize(bytes.data(), static_cast<int>(bytes.size()));
  std::vector<uint8_t> out(1 + static_cast<size_t>(message.serializedLength()) + 8, 0xAB);
  const int written = message.serialize(out.data() + 1, message.serializedLength());
  return std::to_string(consumed) + " " + std::to_string(written) + " " + toHex(out);
}

template <typename MessageT>
class MessageCodec : public ::testing::Test {
 protected:
  // The golden rows of this type: the encoding in hexadecimal, echo(), what the row checks.
  static std::vector<std::vector<std::string>> rows(const std::string& table, size_t fields) {
    std::vector<std::vector<std::string>> mine;
    for (auto& row : tableRows(table, fields)) {
      if (row[0] == MessageT().getType()) mine.emplace_back(row.begin() + 1, row.end());
    }
    EXPECT_FALSE(mine.empty());
    return mine;
  }

  // The stale message: the type's first golden row.
  static MessageT stale() {
    MessageT message;
    decodeAndEncode(message, fromHex(rows("msgs/golden.txt", 4)[0][0]));
    return message;
  }

  // parse() of `json` into `target` through another message: what it printed, "-" for nothing.
  static std::string parse(MessageT& target, const std::string& json) {
    const MessageT receiver;
    MessageT caller = receiver;
    ::testing::internal::CaptureStdout();
    caller.parse(&target, json);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(caller.echo(), receiver.echo()) << "parse() changed the message it ran on";
    return printed.empty() ? "-" : printed;
  }
};

using Messages = ::testing::Types<dova::std_msgs::Header, dova::diagnostic_msgs::DiagnosticValue,
                                  dova::dova_msgs::Log>;
TYPED_TEST_SUITE(MessageCodec, Messages);

TYPED_TEST(MessageCodec, GoldenEncodingsEchoesAndFrames) {
  for (const auto& row : this->rows("msgs/golden.txt", 4)) {
    SCOPED_TRACE(row[2]);
    const std::vector<uint8_t> bytes = fromHex(row[0]);
    const std::string size = std::to_string(bytes.size());
    TypeParam message = this->stale();
    EXPECT_EQ(decodeAndEncode(message, bytes),
              size + " " + size + " ab" + row[0] + "abababababababab");
    EXPECT_EQ(message.echo(), row[1]);
    TypeParam parsed = this->stale();
    EXPECT_EQ(this->parse(parsed, row[1]), "-");
    EXPECT_EQ(parsed.echo(), row[1]);

    // A frame holds exactly one message: every cut and any byte more is refused.
    const auto whole = static_cast<ptrdiff_t>(bytes.size());
    for (ptrdiff_t cut = 0; cut <= whole; ++cut) {
      EXPECT_EQ(frameFits<TypeParam>({bytes.begin(), bytes.begin() + cut}), cut == whole) << cut;
    }
    EXPECT_FALSE(frameFits<TypeParam>(fromHex(row[0] + "00")));
  }
  EXPECT_FALSE(frameFits<TypeParam>({}, dova::msgs::kFramePrefixSize - 1)) << "no whole prefix";
}

TYPED_TEST(MessageCodec, ParseTableAndAgreedConstants) {
  for (const auto& row : this->rows("msgs/parse.txt", 5)) {
    TypeParam target = this->stale();
    EXPECT_EQ(this->parse(target, row[0]), row[2]) << row[3];
    EXPECT_EQ(target.echo(), row[1]) << row[3];
  }
  const auto constants = this->rows("msgs/constants.txt", 4);
  ASSERT_EQ(constants.size(), 1u);
  const TypeParam message;
  EXPECT_EQ(message.getMD5() + " " + message.getDefinition(),
            constants[0][0] + " " + constants[0][1]);
  const dova::std_msgs::Header* own_header = nullptr;
  if constexpr (!std::is_same_v<TypeParam, dova::std_msgs::Header>) own_header = &message.header;
  EXPECT_EQ(message.getHeader(), own_header);
}

}  // namespace
