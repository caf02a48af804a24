#ifndef KORCOMMON_TOOLS_DIAG_REPORT_H_
#define KORCOMMON_TOOLS_DIAG_REPORT_H_

#include <string>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"

namespace korcommon::cli {

// "OK", "WARN" or "ERROR"; any other level, carried unchanged by the message, as its number.
std::string diagLevelName(int level);

// The colour of a level on a terminal: OK green, WARN yellow, ERROR and above red.
const char* diagLevelColour(int level);

// One report as one line of text:
//   <local time> <LEVEL> <name> [<code>] <message>  (from <caller id>[, frame <frame>])
// with line breaks in the texts shown as \n and \r; with `colour`, the level is coloured.
std::string reportLine(const dova::diagnostic_msgs::DiagnosticValue& report, bool colour);

// One report as one compact JSON object, strings quoted as the message codec quotes them:
//   {"name":...,"level":1,"code":...,"message":...,"frame_id":...,"stamp":<seconds>,
//    "caller_id":...}
std::string reportJson(const dova::diagnostic_msgs::DiagnosticValue& report);

// The CSV header row and a report's CSV row: the members of reportJson(), in its order.
std::string reportCsvHeader();
std::string reportCsv(const dova::diagnostic_msgs::DiagnosticValue& report);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_DIAG_REPORT_H_
