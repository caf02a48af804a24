#ifndef KORCOMMON_TOOLS_CSV_H_
#define KORCOMMON_TOOLS_CSV_H_

#include <string>
#include <vector>

namespace korcommon::cli {

// One CSV row (RFC 4180) without its line end: fields that hold a comma, a double quote or a
// line break are quoted, their double quotes doubled.
std::string csvRow(const std::vector<std::string>& fields);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_CSV_H_
