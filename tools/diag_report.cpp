#include "diag_report.h"

#include <cctype>

#include "dova/msgs/msg.h"
#include "terminal.h"

namespace korcommon::cli {

using dova::diagnostic_msgs::DiagnosticValue;

std::optional<int> parseDiagLevel(const std::string& text) {
  std::string lower;
  for (const char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "ok" || lower == "0") return DiagnosticValue::OK;
  if (lower == "warn" || lower == "1") return DiagnosticValue::WARN;
  if (lower == "error" || lower == "2") return DiagnosticValue::ERROR;
  return std::nullopt;
}

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
  if (colour) level = diagLevelColour(report.level) + level + kReset;
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

}  // namespace korcommon::cli
