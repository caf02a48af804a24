#ifndef KORCOMMON_TESTS_UNIT_TABLE_ROWS_H_
#define KORCOMMON_TESTS_UNIT_TABLE_ROWS_H_

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "read_file.h"

namespace korcommon::testing {

// The rows of a case table under tests/data: one case a line, its fields separated by " | ",
// "\xHH" standing for the byte HH (so any byte can be written), and blank lines and lines
// starting with '#' skipped. The last field of every row says what the row checks. A table that
// cannot be read, or a row without `fields` fields, fails the test.
inline std::vector<std::vector<std::string>> tableRows(const std::string& name, size_t fields) {
  std::istringstream text(readFile(std::string(KORCOMMON_TEST_DATA_DIR) + "/" + name));
  EXPECT_FALSE(text.str().empty()) << name;
  const std::regex separator(" \\| ");
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(text, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> row;
    for (std::sregex_token_iterator field(line.begin(), line.end(), separator, -1), end;
         field != end; ++field) {
      std::string& value = row.emplace_back(*field);
      for (size_t at = 0; (at = value.find("\\x", at)) != std::string::npos; ++at) {
        value.replace(at, 4, 1, static_cast<char>(std::stoi(value.substr(at + 2, 2), nullptr, 16)));
      }
    }
    EXPECT_EQ(row.size(), fields) << name << ": " << line;
    if (row.size() == fields) rows.push_back(row);
  }
  return rows;
}

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_UNIT_TABLE_ROWS_H_
