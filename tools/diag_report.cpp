#include "diag_report.h"

#include "csv.h"
#include "dova/msgs/msg.h"
#include "terminal.h"

namespace korcommon::cli {

using dova::diagnostic_msgs::DiagnosticValue;

std::string diagLevelName(int level) {
  switch (level) {
    case DiagnosticValue::OK:
      return "OK";
    case DiagnosticValue::WARN:
      return "WARN";
    case DiagnosticValue::ERROR:
      return "ERROR";
    default:
      return std::to_string(level);
  }
}

const char* diagLevelColour(int level) {
  if (level == DiagnosticValue::OK) return kGreen;
  if (level == DiagnosticValue::WARN) return kYellow;
  return level > DiagnosticValue::WARN ? kRed : "";
}

std::string reportLine(const DiagnosticValue& report, bool colour) {
  std::string level = padded(diagLevelName(report.level), 5);
  if (colour) level = coloured(diagLevelColour(report.level), level);
  std::string line = localTimeText(report.header.stamp) + " " + level + " " + oneLine(report.name) +
                     " [" + std::to_string(report.code) + "] " + oneLine(report.message) +
                     "  (from " + oneLine(report.caller_id);
  if (!report.header.frame_id.empty()) line += ", frame " + oneLine(report.header.frame_id);
  return line + ")";
}

std::string reportJson(const DiagnosticValue& report) {
  return "{\"name\":" + dova::Msg::matchString2(report.name) +
         ",\"level\":" + std::to_string(report.level) + ",\"code\":" + std::to_string(report.code) +
         ",\"message\":" + dova::Msg::matchString2(report.message) +
         ",\"frame_id\":" + dova::Msg::matchString2(report.header.frame_id) +
         ",\"stamp\":" + secondsText(report.header.stamp) +
         ",\"caller_id\":" + dova::Msg::matchString2(report.caller_id) + "}";
}

std::string reportCsvHeader() {
  return csvRow({"name", "level", "code", "message", "frame_id", "stamp", "caller_id"});
}

std::string reportCsv(const DiagnosticValue& report) {
  return csvRow({report.name, std::to_string(report.level), std::to_string(report.code),
                 report.message, report.header.frame_id, secondsText(report.header.stamp),
                 report.caller_id});
}

}  // namespace korcommon::cli
