// Fuzzes the frame walker and, behind it, the message codecs.
//
// Frames come from other processes, so the platform walks every frame before any message
// decodes it: deserialize() trusts its buffer completely. The input is taken both as an
// encoded message (for walkMessage of each type) and as a whole frame, a 32-byte transport
// prefix and one message (for isWellFormedFrame). Properties, for each of the three messages:
//  - The walker agrees with a plain reference walk written here with 64-bit offsets, led by
//    the C++ types of the message's fields.
//  - Whenever the walker accepts, deserialize() on a copy of exactly the accepted size (so the
//    address sanitizer catches a read past it) consumes exactly that size into a message full
//    of stale values, and serializing the message gives back the same bytes.
//  - getCallerId() gives the node name the prefix carries.
//  - echo() then parse() restores the message; only texts the JSON writer deliberately
//    re-encodes (overlong forms, surrogates) and 64-bit ids beyond a double's 53 bits differ.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/frame_check.h"
#include "dova/msgs/number_cast.h"
#include "dova/msgs/std_msgs/Header.h"
#include "dova/os/node_handle_base.h"
#include "fuzz_support.h"

namespace {

template <auto Member, typename Record>
auto& valueOf(dova::msgs::Field<Member> /*field*/, Record& record) {
  return record.*Member;
}

// Calls visit(value) on each field of `record` that is not itself a message, in wire order.
template <typename Record, typename Visit>
void forEachLeaf(Record& record, Visit&& visit) {
  const auto leaf = [&visit](auto& value) {
    if constexpr (std::is_base_of_v<dova::Msg, std::decay_t<decltype(value)>>) {
      forEachLeaf(value, visit);
    } else {
      visit(value);
    }
  };
  std::apply([&](auto... field) { (leaf(valueOf(field, record)), ...); },
             std::decay_t<Record>::fields());
}

// The reference walk: every field read through one bounds test on 64-bit offsets.
struct ReferenceWalk {
  const uint8_t* data;
  uint64_t size;
  uint64_t offset = 0;
  bool ok = true;

  void skip(uint64_t count) {
    ok = ok && count <= size - offset;
    if (ok) offset += count;
  }
  uint32_t readUint32() {
    uint32_t value = 0;
    if (ok && size - offset >= sizeof value) std::memcpy(&value, data + offset, sizeof value);
    skip(sizeof value);
    return value;
  }
  template <typename T>
  void operator()(const T& /*value*/) {
    if constexpr (std::is_integral_v<T>) {
      skip(sizeof(T));
    } else if constexpr (std::is_same_v<T, dova::Time>) {
      skip(8);
    } else if constexpr (std::is_same_v<T, std::string>) {
      skip(readUint32());
    } else {
      const uint32_t count = readUint32();
      for (uint32_t index = 0; index < count && ok; ++index) skip(readUint32());
    }
  }
};

template <typename MessageT>
std::optional<size_t> referenceWalk(const uint8_t* data, size_t size) {
  ReferenceWalk walk{data, size};
  const MessageT layout;
  forEachLeaf(layout, walk);
  return walk.ok ? std::optional<size_t>(static_cast<size_t>(walk.offset)) : std::nullopt;
}

// Fills every field with a value that decoding must replace entirely.
const auto makeStale = [](auto& value) {
  using T = std::decay_t<decltype(value)>;
  if constexpr (std::is_integral_v<T>) {
    value = 7;
  } else if constexpr (std::is_same_v<T, dova::Time>) {
    value = dova::Time(7, 7);
  } else if constexpr (std::is_same_v<T, std::string>) {
    value = "stale";
  } else {
    value.assign(5, "stale");
  }
};

template <typename MessageT>
std::vector<uint8_t> encode(const MessageT& message) {
  std::vector<uint8_t> bytes(static_cast<size_t>(message.serializedLength()));
  const int written = message.serialize(bytes.data(), static_cast<int>(bytes.size()));
  FUZZ_CHECK(static_cast<size_t>(written) == bytes.size(), "serialize() and serializedLength()");
  return bytes;
}

template <typename MessageT>
void checkMessage(const uint8_t* data, size_t size) {
  const size_t prefix = dova::msgs::kFramePrefixSize;
  const bool well_formed =
      size >= prefix && referenceWalk<MessageT>(data + prefix, size - prefix) == size - prefix;
  FUZZ_CHECK(dova::msgs::isWellFormedFrame<MessageT>(data, size) == well_formed,
             "isWellFormedFrame of a " + MessageT().getType() + " frame");

  const std::optional<size_t> walked = dova::msgs::walkMessage<MessageT>(data, size);
  FUZZ_CHECK(walked == referenceWalk<MessageT>(data, size), "the walker and the reference walk");
  if (!walked) return;
  FUZZ_CHECK(dova::msgs::fitsExactly<MessageT>(data, *walked), "fitsExactly of accepted size");
  std::vector<uint8_t> exact(data, data + *walked);  // exactly the size accepted
  MessageT message;
  forEachLeaf(message, makeStale);
  const int consumed = message.deserialize(exact.data(), static_cast<int>(*walked));
  FUZZ_CHECK(static_cast<size_t>(consumed) == *walked, "deserialize() consumed another size");
  FUZZ_CHECK(encode(message) == std::vector<uint8_t>(data, data + *walked),
             "serialize() of what was decoded");

  // Every text must survive the JSON quoting of echo(), and a 64-bit id comes back as what a
  // JSON number (a double) keeps of it.
  MessageT expected = message;
  bool texts_survive = true;
  const auto survives = [&texts_survive](const std::string& text) {
    texts_survive = texts_survive && korcommon::fuzz::survivesJsonEscaping(text);
  };
  forEachLeaf(expected, [&survives](auto& value) {
    using T = std::decay_t<decltype(value)>;
    if constexpr (std::is_same_v<T, uint64_t>) {
      value = dova::msgs::truncateToUint64(static_cast<double>(value));
    } else if constexpr (std::is_same_v<T, std::string>) {
      survives(value);
    } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
      for (const std::string& text : value) survives(text);
    }
  });
  MessageT parsed;
  MessageT receiver;           // parse() fills its target, never the message it is called on
  std::ostringstream printed;  // parse() reports on standard output
  std::streambuf* const standard_output = std::cout.rdbuf(printed.rdbuf());
  receiver.parse(&parsed, message.echo());
  std::cout.rdbuf(standard_output);
  FUZZ_CHECK(encode(receiver) == encode(MessageT()), "parse() changed the message it ran on");
  if (!texts_survive) return;
  FUZZ_CHECK(printed.str().empty(), "parse() of echo() reported: " + printed.str());
  FUZZ_CHECK(encode(parsed) == encode(expected), "parse() of echo() gave another message");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  checkMessage<dova::std_msgs::Header>(data, size);
  checkMessage<dova::diagnostic_msgs::DiagnosticValue>(data, size);
  checkMessage<dova::dova_msgs::Log>(data, size);
  // The node name a frame's prefix carries: up to the first NUL, all 32 bytes without one.
  const char* const text = reinterpret_cast<const char*>(data);
  const size_t named =
      size < dova::msgs::kFramePrefixSize ? 0 : strnlen(text, dova::msgs::kFramePrefixSize);
  FUZZ_CHECK(dova::getCallerId(const_cast<uint8_t*>(data), static_cast<int>(size)) ==
                 std::string(text, named),
             "getCallerId");
  return 0;
}
