#ifndef DOVA_MSGS_DIAGNOSTIC_MSGS_DIAGNOSTICVALUE_H_
#define DOVA_MSGS_DIAGNOSTIC_MSGS_DIAGNOSTICVALUE_H_

#include <cstdint>
#include <string>
#include <tuple>

#include "dova/msgs/field_list.h"
#include "dova/msgs/std_msgs/Header.h"

namespace dova::diagnostic_msgs {

// One diagnostic report: which component reports (name), how severe it is
// (level), a numeric code and a free-text message, stamped by a header.
// Published on dova::msgs::kDiagnosticsTopic.
//
// Its layout is fields() below. parse() truncates "level" and "code" to 32-bit integers (out of
// range: -2147483648); a bad "header" member is reported by the header's own parser (one line),
// leaves the header as it was, and the other fields are still taken.
//
// A plain value: concurrent const calls are safe, changes need exclusive access.
class DiagnosticValue final : public msgs::FieldListMessage<DiagnosticValue> {
 public:
  // Values of `level`; others are carried unchanged.
  static constexpr int32_t OK = 0;
  static constexpr int32_t WARN = 1;
  static constexpr int32_t ERROR = 2;

  static constexpr auto fields() {
    return std::make_tuple(msgs::field<&DiagnosticValue::header>("header"),
                           msgs::field<&DiagnosticValue::level>("level"),
                           msgs::field<&DiagnosticValue::name>("name"),
                           msgs::field<&DiagnosticValue::code>("code"),
                           msgs::field<&DiagnosticValue::message>("message"));
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
           "string message\n" +
           msgs::embeddedDefinition<std_msgs::Header>();
  }

  const std_msgs::Header* getHeader() const override { return &header; }

  std_msgs::Header header;
  int32_t level = 0;
  std::string name;
  int32_t code = 0;
  std::string message;
};

}  // namespace dova::diagnostic_msgs

#endif  // DOVA_MSGS_DIAGNOSTIC_MSGS_DIAGNOSTICVALUE_H_
