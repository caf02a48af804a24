// Fuzzes the frame walker and, behind it, the message codecs.
//
// Frames come from other processes, so the platform walks every frame before any message
// decodes it: deserialize() trusts its buffer completely. The input is taken both as an
// encoded message (for walkMessage of each type) and as a whole frame, a 32-byte transport
// prefix and one message (for isWellFormedFrame). Properties:
//  - Each walker agrees with a plain reference walk written here with 64-bit offsets.
//  - Whenever a walker accepts, deserialize() on a copy of exactly the accepted size (so the
//    address sanitizer catches a read past it) consumes exactly that size, and serializing the
//    message gives back the same bytes.
//  - Whenever a frame is accepted, the typed subscriber decodes it with the sender's node name
//    from the prefix, as the platform's delivery does.
//  - echo() then parse() restores the message; only texts the JSON writer deliberately
//    re-encodes (overlong forms, surrogates) and 64-bit ids beyond a double's 53 bits differ.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/frame_check.h"
#include "dova/msgs/number_cast.h"
#include "dova/msgs/std_msgs/Header.h"
#include "dova/os/node_handle_base.h"
#include "fuzz_support.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;
using dova::std_msgs::Header;
using korcommon::fuzz::survivesJsonEscaping;

// The reference walk: every field read through one bounds test on 64-bit offsets.
class ReferenceWalk {
 public:
  ReferenceWalk(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  void skip(uint64_t count) {
    if (ok_ && count <= size_ - offset_) {
      offset_ += count;
    } else {
      ok_ = false;
    }
  }

  uint32_t readUint32() {
    uint32_t value = 0;
    if (ok_ && size_ - offset_ >= sizeof value) std::memcpy(&value, data_ + offset_, sizeof value);
    skip(sizeof value);
    return value;
  }

  void skipString() { skip(readUint32()); }

  std::optional<size_t> result() const {
    return ok_ ? std::optional<size_t>(static_cast<size_t>(offset_)) : std::nullopt;
  }

  bool ok() const { return ok_; }

 private:
  const uint8_t* data_;
  uint64_t size_;
  uint64_t offset_ = 0;
  bool ok_ = true;
};

void walkHeaderFields(ReferenceWalk& walk) {
  walk.skip(12);  // seq, stamp
  walk.skipString();
}

std::optional<size_t> referenceHeader(const uint8_t* data, size_t size) {
  ReferenceWalk walk(data, size);
  walkHeaderFields(walk);
  return walk.result();
}

std::optional<size_t> referenceDiagnosticValue(const uint8_t* data, size_t size) {
  ReferenceWalk walk(data, size);
  walkHeaderFields(walk);
  walk.skip(4);  // level
  walk.skipString();
  walk.skip(4);  // code
  walk.skipString();
  return walk.result();
}

std::optional<size_t> referenceLog(const uint8_t* data, size_t size) {
  ReferenceWalk walk(data, size);
  walkHeaderFields(walk);
  walk.skip(1);  // level
  // name, msg, file, function
  for (int field = 0; field < 4; ++field) walk.skipString();
  walk.skip(4);  // line
  const uint32_t topics = walk.readUint32();
  for (uint32_t topic = 0; topic < topics && walk.ok(); ++topic) walk.skipString();
  walk.skip(16);  // pid, tid
  return walk.result();
}

std::unique_ptr<uint8_t[]> exactCopy(const uint8_t* data, size_t size) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
  std::memcpy(copy.get(), data, size);
  return copy;
}

template <typename MessageT>
std::vector<uint8_t> encode(const MessageT& message) {
  std::vector<uint8_t> bytes(static_cast<size_t>(message.serializedLength()));
  const int written = message.serialize(bytes.data(), static_cast<int>(bytes.size()));
  FUZZ_CHECK(static_cast<size_t>(written) == bytes.size(), "serialize() and serializedLength()");
  return bytes;
}

// Messages to decode into, holding stale values that decoding must replace entirely.
template <typename MessageT>
MessageT staleMessage() {
  MessageT message;
  message.header.frame_id = "stale frame";
  return message;
}

template <>
Header staleMessage<Header>() {
  Header header;
  header.seq = 7;
  header.frame_id = "stale frame";
  return header;
}

template <>
Log staleMessage<Log>() {
  Log log;
  log.header.frame_id = "stale frame";
  log.name = "stale name";
  log.topics.assign(5, "stale topic");
  return log;
}

// Whether every text of the message survives the JSON quoting of echo().
bool textsSurvive(const Header& header) { return survivesJsonEscaping(header.frame_id); }

bool textsSurvive(const DiagnosticValue& value) {
  return textsSurvive(value.header) && survivesJsonEscaping(value.name) &&
         survivesJsonEscaping(value.message);
}

bool textsSurvive(const Log& log) {
  bool survive = textsSurvive(log.header) && survivesJsonEscaping(log.name) &&
                 survivesJsonEscaping(log.msg) && survivesJsonEscaping(log.file) &&
                 survivesJsonEscaping(log.function);
  for (const std::string& topic : log.topics) survive = survive && survivesJsonEscaping(topic);
  return survive;
}

// What parse(echo()) gives back: the message itself, but 64-bit ids pass through a double.
template <typename MessageT>
MessageT afterJsonRoundTrip(const MessageT& message) {
  return message;
}

template <>
Log afterJsonRoundTrip<Log>(const Log& log) {
  Log expected = log;
  expected.pid = dova::msgs::truncateToUint64(static_cast<double>(log.pid));
  expected.tid = dova::msgs::truncateToUint64(static_cast<double>(log.tid));
  return expected;
}

// Standard output, where parse() reports, collected for the duration of a scope.
class CapturedStandardOutput {
 public:
  CapturedStandardOutput() : previous_(std::cout.rdbuf(captured_.rdbuf())) {}
  ~CapturedStandardOutput() { std::cout.rdbuf(previous_); }
  CapturedStandardOutput(const CapturedStandardOutput&) = delete;
  CapturedStandardOutput& operator=(const CapturedStandardOutput&) = delete;

  std::string text() const { return captured_.str(); }

 private:
  std::ostringstream captured_;
  std::streambuf* previous_;
};

template <typename MessageT>
void checkJsonRoundTrip(const MessageT& message) {
  const std::string echo = message.echo();
  MessageT parsed;
  MessageT receiver;  // parse() fills its target, never the message it is called on
  std::string printed;
  {
    const CapturedStandardOutput output;
    receiver.parse(&parsed, echo);
    printed = output.text();
  }
  FUZZ_CHECK(encode(receiver) == encode(MessageT()), "parse() changed the message it ran on");
  if (!textsSurvive(message)) return;
  FUZZ_CHECK(printed.empty(), "parse() of echo() reported: " + printed);
  FUZZ_CHECK(encode(parsed) == encode(afterJsonRoundTrip(message)),
             "parse() of echo() gave another message: " + echo);
}

template <typename MessageT>
void checkDecoding(const uint8_t* data, size_t size,
                   std::optional<size_t> (*reference)(const uint8_t*, size_t)) {
  const std::optional<size_t> walked = dova::msgs::walkMessage<MessageT>(data, size);
  FUZZ_CHECK(walked == reference(data, size), "the walker and the reference walk disagree");
  if (!walked) return;
  const size_t length = *walked;
  FUZZ_CHECK(dova::msgs::fitsExactly<MessageT>(data, length), "fitsExactly of an accepted size");

  const std::unique_ptr<uint8_t[]> exact = exactCopy(data, length);
  MessageT message = staleMessage<MessageT>();
  const int consumed = message.deserialize(exact.get(), static_cast<int>(length));
  FUZZ_CHECK(static_cast<size_t>(consumed) == length, "deserialize() consumed another size");
  const std::vector<uint8_t> encoded = encode(message);
  FUZZ_CHECK(encoded.size() == length && std::memcmp(encoded.data(), data, length) == 0,
             "serialize() does not give back the bytes decoded");
  checkJsonRoundTrip(message);
}

// The node name a frame's prefix carries: up to the first NUL, all 32 bytes without one.
std::string prefixName(const uint8_t* frame) {
  const char* prefix = reinterpret_cast<const char*>(frame);
  return std::string(prefix, strnlen(prefix, dova::msgs::kFramePrefixSize));
}

template <typename MessageT>
void checkFrame(const uint8_t* data, size_t size,
                std::optional<size_t> (*reference)(const uint8_t*, size_t)) {
  const std::string type = MessageT().getType();
  const size_t prefix = dova::msgs::kFramePrefixSize;
  const bool expected = size >= prefix && reference(data + prefix, size - prefix) == size - prefix;
  FUZZ_CHECK(dova::msgs::isWellFormedFrame<MessageT>(data, size) == expected,
             "isWellFormedFrame of a " + type + " frame");
  if (!expected) return;

  // As the platform delivers an accepted frame: a subscriber of the type decodes it in place.
  for (const uint32_t kind : {0u, 2u}) {
    const std::unique_ptr<uint8_t[]> frame = exactCopy(data, size);
    dova::Subscriber<MessageT> subscriber;
    subscriber.callback_kind = kind;
    int deliveries = 0;
    const auto check = [&](const MessageT& received) {
      ++deliveries;
      FUZZ_CHECK(received.caller_id == prefixName(data), "the caller id of a delivered frame");
      const std::vector<uint8_t> encoded = encode(received);
      FUZZ_CHECK(encoded.size() == size - prefix &&
                     std::memcmp(encoded.data(), data + prefix, encoded.size()) == 0,
                 "a delivered frame decodes to another message");
    };
    subscriber.callback_ref = check;
    subscriber.callback_ptr = [&check](const std::shared_ptr<const MessageT>& received) {
      check(*received);
    };
    subscriber.callback(frame.get(), static_cast<int>(size));
    FUZZ_CHECK(deliveries == 1, "an accepted frame was not delivered once");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  checkDecoding<Header>(data, size, &referenceHeader);
  checkDecoding<DiagnosticValue>(data, size, &referenceDiagnosticValue);
  checkDecoding<Log>(data, size, &referenceLog);

  checkFrame<Header>(data, size, &referenceHeader);
  checkFrame<DiagnosticValue>(data, size, &referenceDiagnosticValue);
  checkFrame<Log>(data, size, &referenceLog);

  const std::string caller = dova::getCallerId(const_cast<uint8_t*>(data), static_cast<int>(size));
  FUZZ_CHECK(caller == (size < dova::msgs::kFramePrefixSize ? std::string() : prefixName(data)),
             "getCallerId");
  return 0;
}
