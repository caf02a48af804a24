#ifndef DOVA_MSGS_DOVA_MSGS_LOG_H_
#define DOVA_MSGS_DOVA_MSGS_LOG_H_

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "dova/msgs/field_list.h"
#include "dova/msgs/std_msgs/Header.h"

namespace dova::dova_msgs {

// One trace record as the trace logger hands it to the middleware: level,
// node name, message text, source location, related topics and the ids of
// the calling process and thread.
//
// Its layout is fields() below. parse() keeps the low 8 bits of the 32-bit truncation of "level"
// (300 gives 44) and the low 32 bits of the 64-bit truncation of "line"; a bad "header" member is
// reported by the header's own parser.
//
// A plain value: concurrent const calls are safe, changes need exclusive access.
class Log final : public msgs::FieldListMessage<Log> {
 public:
  // Values of `level`. Deliberately powers of two, not consecutive: the trace
  // logger's level filter relies on these exact values.
  static constexpr int8_t DEBUG = 1;
  static constexpr int8_t INFO = 2;
  static constexpr int8_t WARN = 4;
  static constexpr int8_t ERROR = 8;
  static constexpr int8_t FATAL = 16;

  static constexpr auto fields() {
    return std::make_tuple(msgs::field<&Log::header>("header"), msgs::field<&Log::level>("level"),
                           msgs::field<&Log::name>("name"), msgs::field<&Log::msg>("msg"),
                           msgs::field<&Log::file>("file"), msgs::field<&Log::function>("function"),
                           msgs::field<&Log::line>("line"), msgs::field<&Log::topics>("topics"),
                           msgs::field<&Log::pid>("pid"), msgs::field<&Log::tid>("tid"));
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
           "uint64 tid\n" +
           msgs::embeddedDefinition<std_msgs::Header>();
  }

  const std_msgs::Header* getHeader() const override { return &header; }

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
};

}  // namespace dova::dova_msgs

#endif  // DOVA_MSGS_DOVA_MSGS_LOG_H_
