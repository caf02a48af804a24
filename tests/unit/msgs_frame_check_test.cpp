#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/frame_check.h"
#include "dova/msgs/std_msgs/Header.h"
#include "msgs_test_bytes.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;
using dova::msgs::fitsExactly;
using dova::msgs::isWellFormedFrame;
using dova::msgs::kFramePrefixSize;
using dova::msgs::walkDiagnosticValue;
using dova::msgs::walkHeader;
using dova::msgs::walkLog;
using dova::std_msgs::Header;
using korcommon::testing::encode;

// Bytes in a heap block of exactly their size, so that AddressSanitizer
// catches a walker that reads even one byte past the end.
class ExactBuffer {
 public:
  ExactBuffer(const uint8_t* data, size_t size)
      : bytes_(size == 0 ? nullptr : new uint8_t[size]), size_(size) {
    if (size != 0) {
      std::memcpy(bytes_.get(), data, size);
    }
  }
  explicit ExactBuffer(const std::vector<uint8_t>& bytes)
      : ExactBuffer(bytes.data(), bytes.size()) {}

  const uint8_t* data() const { return bytes_.get(); }
  size_t size() const { return size_; }

 private:
  std::unique_ptr<uint8_t[]> bytes_;
  size_t size_;
};

std::vector<uint8_t> asFrame(const std::vector<uint8_t>& message) {
  // Sized once and filled in place: growing it with insert() trips a false
  // -Warray-bounds of GCC 12 in optimised builds.
  std::vector<uint8_t> frame(kFramePrefixSize + message.size(), 0);
  const char sender[] = "leg_node";
  std::memcpy(frame.data(), sender, sizeof sender - 1);
  std::copy(message.begin(), message.end(), frame.begin() + kFramePrefixSize);
  return frame;
}

void putUint32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

Header filledHeader() {
  Header header;
  header.seq = 9;
  header.stamp.sec = 100;
  header.frame_id = "odom";
  return header;
}

DiagnosticValue filledValue() {
  DiagnosticValue value;
  value.header = filledHeader();
  value.level = DiagnosticValue::ERROR;
  value.name = "motor_temp";
  value.code = 3;
  value.message = "too hot";
  return value;
}

Log filledLog() {
  Log record;
  record.header = filledHeader();
  record.level = Log::WARN;
  record.name = "leg_controller";
  record.msg = "slip";
  record.file = "gait.cpp";
  record.function = "plan";
  record.line = 120;
  record.topics = {"/a", "", "/odom"};
  record.pid = 1;
  record.tid = 2;
  return record;
}

// One message type under test: its walker, its encoding and its name.
struct Subject {
  const char* type_name;
  std::optional<size_t> (*walk)(const uint8_t*, size_t);
  bool (*fits)(const uint8_t*, size_t);
  std::vector<uint8_t> encoding;
};

std::vector<Subject> filledSubjects() {
  return {
      {"std_msgs/Header", walkHeader, fitsExactly<Header>, encode(filledHeader())},
      {"diagnostic_msgs/DiagnosticValue", walkDiagnosticValue, fitsExactly<DiagnosticValue>,
       encode(filledValue())},
      {"dova_msgs/Log", walkLog, fitsExactly<Log>, encode(filledLog())},
  };
}

TEST(FrameCheck, AcceptsExactlyTheEncodingOfEachType) {
  for (const Subject& subject : filledSubjects()) {
    SCOPED_TRACE(subject.type_name);
    const ExactBuffer message(subject.encoding);
    EXPECT_EQ(subject.walk(message.data(), message.size()), message.size());
    EXPECT_TRUE(subject.fits(message.data(), message.size()));
    const ExactBuffer frame(asFrame(subject.encoding));
    EXPECT_TRUE(isWellFormedFrame(subject.type_name, frame.data(), frame.size()));
  }
}

TEST(FrameCheck, RejectsEveryTruncation) {
  for (const Subject& subject : filledSubjects()) {
    SCOPED_TRACE(subject.type_name);
    const std::vector<uint8_t> frame = asFrame(subject.encoding);
    for (size_t cut = 0; cut < subject.encoding.size(); ++cut) {
      SCOPED_TRACE(cut);
      const ExactBuffer message(subject.encoding.data(), cut);
      EXPECT_EQ(subject.walk(message.data(), message.size()), std::nullopt);
      EXPECT_FALSE(subject.fits(message.data(), message.size()));
      const ExactBuffer cut_frame(frame.data(), kFramePrefixSize + cut);
      EXPECT_FALSE(isWellFormedFrame(subject.type_name, cut_frame.data(), cut_frame.size()));
    }
  }
}

TEST(FrameCheck, RejectsTrailingBytesButStillMeasuresTheMessage) {
  for (const Subject& subject : filledSubjects()) {
    SCOPED_TRACE(subject.type_name);
    std::vector<uint8_t> longer = subject.encoding;
    longer.push_back(0);
    const ExactBuffer message(longer);
    EXPECT_EQ(subject.walk(message.data(), message.size()), subject.encoding.size());
    EXPECT_FALSE(subject.fits(message.data(), message.size()));
    const ExactBuffer frame(asFrame(longer));
    EXPECT_FALSE(isWellFormedFrame(subject.type_name, frame.data(), frame.size()));
  }
}

TEST(FrameCheck, RejectsLengthPrefixesBeyondTheData) {
  // Offsets of every string count in the filled encodings.
  const size_t frame_id = 12;
  const size_t header_end = 16 + 4;  // "odom"
  struct Corruption {
    const char* name;
    size_t subject;  // index into filledSubjects()
    size_t offset;
  };
  const Corruption corruptions[] = {
      {"Header frame_id", 0, frame_id},
      {"DiagnosticValue frame_id", 1, frame_id},
      {"DiagnosticValue name", 1, header_end + 4},
      {"DiagnosticValue message", 1, header_end + 4 + 4 + 10 + 4},
      {"Log frame_id", 2, frame_id},
      {"Log name", 2, header_end + 1},
      {"Log msg", 2, header_end + 1 + 4 + 14},
      {"Log file", 2, header_end + 1 + 4 + 14 + 4 + 4},
      {"Log function", 2, header_end + 1 + 4 + 14 + 4 + 4 + 4 + 8},
      {"Log first topic", 2, header_end + 1 + 4 + 14 + 4 + 4 + 4 + 8 + 4 + 4 + 4 + 4},
  };
  const std::vector<Subject> subjects = filledSubjects();
  for (const Corruption& corruption : corruptions) {
    SCOPED_TRACE(corruption.name);
    const Subject& subject = subjects[corruption.subject];
    const size_t remaining = subject.encoding.size() - corruption.offset - 4;
    for (uint32_t count : {0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFCu,
                           static_cast<uint32_t>(remaining + 1)}) {
      SCOPED_TRACE(count);
      std::vector<uint8_t> corrupted = subject.encoding;
      putUint32(corrupted, corruption.offset, count);
      const ExactBuffer message(corrupted);
      EXPECT_EQ(subject.walk(message.data(), message.size()), std::nullopt);
      const ExactBuffer frame(asFrame(corrupted));
      EXPECT_FALSE(isWellFormedFrame(subject.type_name, frame.data(), frame.size()));
    }
  }
}

TEST(FrameCheck, RejectsTopicCountsTheDataCannotHold) {
  const std::vector<uint8_t> encoding = encode(filledLog());
  const size_t count_offset = 16 + 4 + 1 + (4 + 14) + (4 + 4) + (4 + 8) + (4 + 4) + 4;
  std::vector<uint8_t> check = encoding;
  uint32_t stored = 0;
  std::memcpy(&stored, check.data() + count_offset, sizeof stored);
  ASSERT_EQ(stored, 3u) << "the offset must point at the topic count";

  const size_t after_count = encoding.size() - count_offset - 4;
  for (uint32_t count :
       {0xFFFFFFFFu, 0x7FFFFFFFu, 0x40000000u, 4u, static_cast<uint32_t>(after_count / 4),
        static_cast<uint32_t>(after_count / 4 + 1)}) {
    SCOPED_TRACE(count);
    std::vector<uint8_t> corrupted = encoding;
    putUint32(corrupted, count_offset, count);
    const ExactBuffer message(corrupted);
    EXPECT_EQ(walkLog(message.data(), message.size()), std::nullopt);
  }
  // Fewer topics than stored: the rest reads as pid and tid, and bytes are
  // left over, so the frame does not hold exactly one record.
  std::vector<uint8_t> fewer = encoding;
  putUint32(fewer, count_offset, 2);
  const ExactBuffer message(fewer);
  EXPECT_FALSE(fitsExactly<Log>(message.data(), message.size()));
}

TEST(FrameCheck, AcceptsTheLargestTopicCountTheDataCanHold) {
  // Empty topics take only their four-byte count: a record of many of them
  // brings the count close to its bound and is as valid as any.
  Log record;
  record.topics.assign(1000, "");
  const ExactBuffer message(encode(record));
  EXPECT_EQ(walkLog(message.data(), message.size()), message.size());
  EXPECT_TRUE(fitsExactly<Log>(message.data(), message.size()));
}

TEST(FrameCheck, RejectsFramesWithoutAPrefixAndUnknownTypes) {
  const std::vector<uint8_t> value = encode(DiagnosticValue());
  const std::vector<uint8_t> frame = asFrame(value);
  EXPECT_TRUE(isWellFormedFrame("diagnostic_msgs/DiagnosticValue", frame.data(), frame.size()));
  EXPECT_FALSE(isWellFormedFrame("diagnostic_msgs/DiagnosticStatus", frame.data(), frame.size()));
  EXPECT_FALSE(isWellFormedFrame("", frame.data(), frame.size()));
  // The 32 zero bytes of a default value, without the prefix: only a prefix.
  const ExactBuffer bare(value);
  EXPECT_FALSE(isWellFormedFrame("diagnostic_msgs/DiagnosticValue", bare.data(), bare.size()));
  for (size_t size = 0; size < kFramePrefixSize; ++size) {
    const ExactBuffer short_frame(frame.data(), size);
    EXPECT_FALSE(isWellFormedFrame("std_msgs/Header", short_frame.data(), short_frame.size()));
  }
  EXPECT_EQ(walkHeader(nullptr, 0), std::nullopt);
  EXPECT_FALSE(isWellFormedFrame("dova_msgs/Log", nullptr, 0));
}

TEST(FrameCheck, MeasuresRandomMessagesAsTheirSerializedLength) {
  std::mt19937 random(20240611);
  const auto randomString = [&random](size_t max_size) {
    std::string text(std::uniform_int_distribution<size_t>(0, max_size)(random), '\0');
    for (char& c : text) {
      c = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(random));
    }
    return text;
  };
  const auto randomHeader = [&]() {
    Header header;
    header.seq = static_cast<uint32_t>(random());
    header.stamp.sec = static_cast<uint32_t>(random());
    header.stamp.nsec = static_cast<uint32_t>(random());
    header.frame_id = randomString(24);
    return header;
  };
  // The walker measures the encoding in a buffer of exactly its size, and
  // deserialize consumes just as much.
  const auto expectMeasured = [](const auto& message, auto walk) {
    const std::vector<uint8_t> bytes = encode(message);
    const ExactBuffer buffer(bytes);
    EXPECT_EQ(walk(buffer.data(), buffer.size()), bytes.size());
    std::vector<uint8_t> copy = bytes;
    std::remove_const_t<std::remove_reference_t<decltype(message)>> decoded;
    EXPECT_EQ(decoded.deserialize(copy.data(), static_cast<int>(copy.size())),
              static_cast<int>(bytes.size()));
  };

  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    expectMeasured(randomHeader(), walkHeader);

    DiagnosticValue value;
    value.header = randomHeader();
    value.level = static_cast<int32_t>(random());
    value.name = randomString(40);
    value.code = static_cast<int32_t>(random());
    value.message = randomString(200);
    expectMeasured(value, walkDiagnosticValue);

    Log record;
    record.header = randomHeader();
    record.level = static_cast<int8_t>(random() & 0x7F);
    record.name = randomString(20);
    record.msg = randomString(120);
    record.file = randomString(20);
    record.function = randomString(20);
    record.line = static_cast<uint32_t>(random());
    record.topics.resize(std::uniform_int_distribution<size_t>(0, 6)(random));
    for (std::string& topic : record.topics) {
      topic = randomString(12);
    }
    record.pid = (uint64_t{random()} << 32) | random();
    record.tid = (uint64_t{random()} << 32) | random();
    expectMeasured(record, walkLog);
  }
}

TEST(FrameCheck, NeverReadsOutsideRandomGarbage) {
  // Arbitrary bytes: any verdict is fine, as long as an accepted size is
  // within the data and no byte outside it is read (AddressSanitizer).
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint8_t> bytes(std::uniform_int_distribution<size_t>(0, 96)(random));
    for (uint8_t& byte : bytes) {
      // Mostly small values, so length prefixes are often plausible.
      byte = static_cast<uint8_t>(random() % 4 == 0 ? random() : random() % 8);
    }
    const ExactBuffer buffer(bytes);
    for (auto walk : {walkHeader, walkDiagnosticValue, walkLog}) {
      const std::optional<size_t> size = walk(buffer.data(), buffer.size());
      if (size) {
        EXPECT_LE(*size, buffer.size());
      }
    }
  }
}

}  // namespace
