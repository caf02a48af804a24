#ifndef DOVA_MSGS_STD_MSGS_HEADER_H_
#define DOVA_MSGS_STD_MSGS_HEADER_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "dova/json/elements.h"
#include "dova/msgs/json_parse.h"
#include "dova/msgs/json_text.h"
#include "dova/msgs/msg.h"
#include "dova/msgs/number_cast.h"
#include "dova/msgs/wire.h"
#include "dova/time.h"

namespace dova::std_msgs {

// The standard header that other messages embed as their first field: a
// sequence number, the time of the data and the frame it refers to.
//
// Wire layout (L = frame_id size): seq u32 @0, stamp.sec u32 @4,
// stamp.nsec u32 @8, L u32 @12, frame_id bytes @16; 16 + L bytes in all.
//
// A plain value: concurrent const calls are safe, changes need exclusive access.
class Header final : public Msg {
 public:
  int serialize(uint8_t* buf, int /*size*/) const override {
    return static_cast<int>(writeTo(buf) - buf);
  }

  int deserialize(uint8_t* buf, int /*size*/) override {
    return static_cast<int>(readFrom(buf) - buf);
  }

  int serializedLength() const override { return static_cast<int>(wireSize()); }

  std::string getType() const override { return "std_msgs/Header"; }
  std::string getMD5() const override { return "2176decaecbce78abc3b96ef049fabed"; }
  std::string getDefinition() const override {
    return "uint32 seq\n"
           "time stamp\n"
           "string frame_id\n";
  }

  std::string echo() const override {
    std::string text;
    text.reserve(kEchoFixedSize + frame_id.size());
    appendEcho(text);
    return text;
  }

  // Fills the Header that `target` points to. "seq", "stamp.sec" and
  // "stamp.nsec" are truncated to 64-bit integers whose low 32 bits are
  // stored; nsec is not normalised into sec. Missing or mistyped members give
  // 0 or "". Unreadable text prints one line and changes nothing.
  void parse(Msg* target, const std::string& json) override {
    auto& header = *static_cast<Header*>(target);  // the caller guarantees the type
    msgs::parseJsonObject(json, [&header](json::Object& object) {
      header.seq = msgs::truncateToLow32(msgs::numberMember(object, "seq"));
      auto& stamp_object = object["stamp"].ConvertTo<json::Object>();
      header.stamp.sec = msgs::truncateToLow32(msgs::numberMember(stamp_object, "sec"));
      header.stamp.nsec = msgs::truncateToLow32(msgs::numberMember(stamp_object, "nsec"));
      header.frame_id = msgs::stringMember(object, "frame_id");
    });
  }

  // Non-virtual codec for the messages that embed a header, so their
  // encoders make no virtual call. Same contracts as serialize/deserialize.
  size_t wireSize() const {
    return sizeof seq + sizeof stamp.sec + sizeof stamp.nsec + msgs::stringWireSize(frame_id);
  }

  uint8_t* writeTo(uint8_t* out) const {
    out = msgs::writeUint32(out, seq);
    out = msgs::writeUint32(out, stamp.sec);
    out = msgs::writeUint32(out, stamp.nsec);
    return msgs::writeString(out, frame_id);
  }

  const uint8_t* readFrom(const uint8_t* in) {
    in = msgs::readUint32(in, seq);
    in = msgs::readUint32(in, stamp.sec);
    in = msgs::readUint32(in, stamp.nsec);
    return msgs::readString(in, frame_id);
  }

  void appendEcho(std::string& out) const {
    out.append("{\"seq\":");
    msgs::appendUnsigned(out, seq);
    out.append(",\"stamp\":{\"sec\":");
    msgs::appendUnsigned(out, stamp.sec);
    out.append(",\"nsec\":");
    msgs::appendUnsigned(out, stamp.nsec);
    out.append("},\"frame_id\":");
    msgs::appendJsonString(out, frame_id);
    out.push_back('}');
  }

  // Characters of the echo text besides the quoted frame_id, with room for
  // three ten-digit numbers.
  static constexpr size_t kEchoFixedSize = 80;

  uint32_t seq = 0;
  dova::Time stamp;
  std::string frame_id;
};

}  // namespace dova::std_msgs

#endif  // DOVA_MSGS_STD_MSGS_HEADER_H_
