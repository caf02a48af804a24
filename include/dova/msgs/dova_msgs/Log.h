#ifndef DOVA_MSGS_DOVA_MSGS_LOG_H_
#define DOVA_MSGS_DOVA_MSGS_LOG_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "dova/json/elements.h"
#include "dova/msgs/json_parse.h"
#include "dova/msgs/json_text.h"
#include "dova/msgs/msg.h"
#include "dova/msgs/number_cast.h"
#include "dova/msgs/std_msgs/Header.h"
#include "dova/msgs/wire.h"

namespace dova::dova_msgs {

// One trace record as the trace logger hands it to the middleware: level,
// node name, message text, source location, related topics and the ids of
// the calling process and thread.
//
// Wire layout (F = header.frame_id size): header @0 (16 + F), level i8
// @16+F, then name, msg, file, function (each u32 count + bytes), line u32,
// topic count u32, each topic (u32 count + bytes), pid u64, tid u64.
// 57 + F + the string sizes + 4 per topic + the topic sizes bytes in all.
//
// A plain value: concurrent const calls are safe, changes need exclusive access.
class Log final : public Msg {
 public:
  // Values of `level`. Deliberately powers of two, not consecutive: the trace
  // logger's level filter relies on these exact values.
  static constexpr int8_t DEBUG = 1;
  static constexpr int8_t INFO = 2;
  static constexpr int8_t WARN = 4;
  static constexpr int8_t ERROR = 8;
  static constexpr int8_t FATAL = 16;

  int serialize(uint8_t* buf, int /*size*/) const override {
    uint8_t* out = header.writeTo(buf);
    out = msgs::writeUint8(out, static_cast<uint8_t>(level));
    out = msgs::writeString(out, name);
    out = msgs::writeString(out, msg);
    out = msgs::writeString(out, file);
    out = msgs::writeString(out, function);
    out = msgs::writeUint32(out, line);
    out = msgs::writeUint32(out, static_cast<uint32_t>(topics.size()));
    for (const std::string& topic : topics) {
      out = msgs::writeString(out, topic);
    }
    out = msgs::writeUint64(out, pid);
    out = msgs::writeUint64(out, tid);
    return static_cast<int>(out - buf);
  }

  int deserialize(uint8_t* buf, int /*size*/) override {
    const uint8_t* in = header.readFrom(buf);
    uint8_t level_byte = 0;
    in = msgs::readUint8(in, level_byte);
    level = static_cast<int8_t>(level_byte);
    in = msgs::readString(in, name);
    in = msgs::readString(in, msg);
    in = msgs::readString(in, file);
    in = msgs::readString(in, function);
    in = msgs::readUint32(in, line);
    uint32_t topic_count = 0;
    in = msgs::readUint32(in, topic_count);
    // Resize, then assign in place: surviving entries keep their capacity.
    topics.resize(topic_count);
    for (std::string& topic : topics) {
      in = msgs::readString(in, topic);
    }
    in = msgs::readUint64(in, pid);
    in = msgs::readUint64(in, tid);
    return static_cast<int>(in - buf);
  }

  int serializedLength() const override {
    // Field by field, in the order serialize writes them.
    size_t size = header.wireSize() + sizeof level;
    for (const std::string* text : {&name, &msg, &file, &function}) {
      size += msgs::stringWireSize(*text);
    }
    size += sizeof line + sizeof(uint32_t);  // the line, then the count of topics
    for (const std::string& topic : topics) {
      size += msgs::stringWireSize(topic);
    }
    return static_cast<int>(size + sizeof pid + sizeof tid);
  }

  std::string getType() const override { return "dova_msgs/Log"; }
  std::string getMD5() const override { return "c455707f8997b806ee5cc58566a8ed1c"; }
  std::string getDefinition() const override {
    return "byte DEBUG=1\n"
           "byte INFO=2\n"
           "byte WARN=4\n"
           "byte ERROR=8\n"
           "byte FATAL=16\n"
           "std_msgs/Header header\n"
           "byte level\n"
           "string name\n"
           "string msg\n"
           "string file\n"
           "string function\n"
           "uint32 line\n"
           "string[] topics\n"
           "uint64 pid\n"
           "uint64 tid\n"
           "================================================================================\n"
           "MSG: std_msgs/Header\n"
           "uint32 seq\n"
           "time stamp\n"
           "string frame_id\n";
  }

  const std_msgs::Header* getHeader() const override { return &header; }

  std::string echo() const override {
    size_t reserve = std_msgs::Header::kEchoFixedSize + kEchoFixedSize + header.frame_id.size() +
                     name.size() + msg.size() + file.size() + function.size();
    for (const std::string& topic : topics) {
      reserve += topic.size() + 3;
    }
    std::string text;
    text.reserve(reserve);
    text.append("{\"header\":");
    header.appendEcho(text);
    text.append(",\"level\":");
    msgs::appendSigned(text, level);
    text.append(",\"name\":");
    msgs::appendJsonString(text, name);
    text.append(",\"msg\":");
    msgs::appendJsonString(text, msg);
    text.append(",\"file\":");
    msgs::appendJsonString(text, file);
    text.append(",\"function\":");
    msgs::appendJsonString(text, function);
    text.append(",\"line\":");
    msgs::appendUnsigned(text, line);
    text.append(",\"topics\":[");
    for (size_t i = 0; i < topics.size(); ++i) {
      if (i != 0) {
        text.push_back(',');
      }
      msgs::appendJsonString(text, topics[i]);
    }
    text.append("],\"pid\":");
    msgs::appendUnsigned(text, pid);
    text.append(",\"tid\":");
    msgs::appendUnsigned(text, tid);
    text.push_back('}');
    return text;
  }

  // Fills the Log that `target` points to, field by field in wire order.
  // "level" keeps the low 8 bits of its 32-bit truncation (300 gives 44),
  // "line" the low 32 bits of its 64-bit truncation, "pid" and "tid" are
  // converted to unsigned 64-bit integers. Missing or mistyped members give
  // 0, "" or no topics. Unreadable text prints one line and changes nothing;
  // a bad "header" member is reported by the header's own parser.
  void parse(Msg* target, const std::string& json) override {
    auto& record = *static_cast<Log*>(target);  // the caller guarantees the type
    msgs::parseJsonObject(json, [&record](json::Object& object) {
      // Deliberate round trip through text: the header's own parser reads it.
      record.header.parse(&record.header, msgs::writeJsonText(object["header"]));
      record.level = msgs::truncateToLow8(msgs::numberMember(object, "level"));
      record.name = msgs::stringMember(object, "name");
      record.msg = msgs::stringMember(object, "msg");
      record.file = msgs::stringMember(object, "file");
      record.function = msgs::stringMember(object, "function");
      record.line = msgs::truncateToLow32(msgs::numberMember(object, "line"));
      auto& topic_array = object["topics"].ConvertTo<json::Array>();
      record.topics.resize(topic_array.size());
      for (size_t i = 0; i < topic_array.size(); ++i) {
        record.topics[i] = topic_array[i].ConvertTo<json::String>();
      }
      record.pid = msgs::truncateToUint64(msgs::numberMember(object, "pid"));
      record.tid = msgs::truncateToUint64(msgs::numberMember(object, "tid"));
    });
  }

  std_msgs::Header header;
  int8_t level = 0;
  std::string name;
  std::string msg;
  std::string file;
  std::string function;
  uint32_t line = 0;
  std::vector<std::string> topics;
  uint64_t pid = 0;
  uint64_t tid = 0;

 private:
  // Characters of the echo text besides the header, the quoted strings and
  // the topics, with room for the four numbers at their longest.
  static constexpr size_t kEchoFixedSize = 160;
};

}  // namespace dova::dova_msgs

#endif  // DOVA_MSGS_DOVA_MSGS_LOG_H_
