#include "csv.h"

namespace korcommon::cli {

std::string csvRow(const std::vector<std::string>& fields) {
  std::string row;
  for (const std::string& field : fields) {
    if (&field != &fields.front()) row += ',';
    if (field.find_first_of(",\"\r\n") == std::string::npos) {
      row += field;
      continue;
    }
    row += '"';
    for (const char c : field) {
      if (c == '"') row += '"';
      row += c;
    }
    row += '"';
  }
  return row;
}

}  // namespace korcommon::cli
