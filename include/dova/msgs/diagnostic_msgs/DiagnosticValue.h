#ifndef DOVA_MSGS_DIAGNOSTIC_MSGS_DIAGNOSTICVALUE_H_
#define DOVA_MSGS_DIAGNOSTIC_MSGS_DIAGNOSTICVALUE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "dova/json/elements.h"
#include "dova/msgs/json_parse.h"
#include "dova/msgs/json_text.h"
#include "dova/msgs/msg.h"
#include "dova/msgs/number_cast.h"
#include "dova/msgs/std_msgs/Header.h"
#include "dova/msgs/wire.h"

namespace dova::diagnostic_msgs {

// One diagnostic report: which component reports (name), how severe it is
// (level), a numeric code and a free-text message, stamped by a header.
// Published on "/diagnostics_value".
//
// Wire layout (L1, L2, L3 = sizes of header.frame_id, name, message):
// header @0 (16 + L1), level i32 @16+L1, name @20+L1 (4 + L2),
// code i32 @24+L1+L2, message @28+L1+L2 (4 + L3); 32 + L1 + L2 + L3 bytes.
//
// A plain value: concurrent const calls are safe, changes need exclusive access.
class DiagnosticValue final : public Msg {
 public:
  // Values of `level`; others are carried unchanged.
  static constexpr int32_t OK = 0;
  static constexpr int32_t WARN = 1;
  static constexpr int32_t ERROR = 2;

  int serialize(uint8_t* buf, int /*size*/) const override {
    uint8_t* out = header.writeTo(buf);
    out = msgs::writeInt32(out, level);
    out = msgs::writeString(out, name);
    out = msgs::writeInt32(out, code);
    out = msgs::writeString(out, message);
    return static_cast<int>(out - buf);
  }

  int deserialize(uint8_t* buf, int /*size*/) override {
    const uint8_t* in = header.readFrom(buf);
    in = msgs::readInt32(in, level);
    in = msgs::readString(in, name);
    in = msgs::readInt32(in, code);
    in = msgs::readString(in, message);
    return static_cast<int>(in - buf);
  }

  int serializedLength() const override {
    return static_cast<int>(header.wireSize() + sizeof level + msgs::stringWireSize(name) +
                            sizeof code + msgs::stringWireSize(message));
  }

  std::string getType() const override { return "diagnostic_msgs/DiagnosticValue"; }
  std::string getMD5() const override { return "879d5c821998ca0ab6e3520e8c63e5fc"; }
  std::string getDefinition() const override {
    return "std_msgs/Header header\n"
           "int32 OK=0\n"
           "int32 WARN=1\n"
           "int32 ERROR=2\n"
           "int32 level\n"
           "string name\n"
           "int32 code\n"
           "string message\n"
           "================================================================================\n"
           "MSG: std_msgs/Header\n"
           "uint32 seq\n"
           "time stamp\n"
           "string frame_id\n";
  }

  const std_msgs::Header* getHeader() const override { return &header; }

  std::string echo() const override {
    std::string text;
    text.reserve(std_msgs::Header::kEchoFixedSize + kEchoFixedSize + header.frame_id.size() +
                 name.size() + message.size());
    text.append("{\"header\":");
    header.appendEcho(text);
    text.append(",\"level\":");
    msgs::appendSigned(text, level);
    text.append(",\"name\":");
    msgs::appendJsonString(text, name);
    text.append(",\"code\":");
    msgs::appendSigned(text, code);
    text.append(",\"message\":");
    msgs::appendJsonString(text, message);
    text.push_back('}');
    return text;
  }

  // Fills the DiagnosticValue that `target` points to. "level" and "code"
  // are truncated to 32-bit integers (out of range: -2147483648). Missing or
  // mistyped members give 0 or "". Unreadable text prints one line and
  // changes nothing; a bad "header" member is reported by the header's own
  // parser (one line), leaves the header as it was, and the other fields are
  // still taken.
  void parse(Msg* target, const std::string& json) override {
    auto& value = *static_cast<DiagnosticValue*>(target);  // the caller guarantees the type
    msgs::parseJsonObject(json, [&value](json::Object& object) {
      // Deliberate round trip through text: the header's own parser reads it.
      value.header.parse(&value.header, msgs::writeJsonText(object["header"]));
      value.level = msgs::truncateToInt32(msgs::numberMember(object, "level"));
      value.name = msgs::stringMember(object, "name");
      value.code = msgs::truncateToInt32(msgs::numberMember(object, "code"));
      value.message = msgs::stringMember(object, "message");
    });
  }

  std_msgs::Header header;
  int32_t level = 0;
  std::string name;
  int32_t code = 0;
  std::string message;

 private:
  // Characters of the echo text besides the header and the quoted strings,
  // with room for two eleven-character numbers.
  static constexpr size_t kEchoFixedSize = 80;
};

}  // namespace dova::diagnostic_msgs

#endif  // DOVA_MSGS_DIAGNOSTIC_MSGS_DIAGNOSTICVALUE_H_
