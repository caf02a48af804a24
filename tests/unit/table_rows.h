#ifndef KORCOMMON_TESTS_UNIT_TABLE_ROWS_H_
#define KORCOMMON_TESTS_UNIT_TABLE_ROWS_H_

#include <gtest/gtest.h>

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
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(text, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> row(1);
    for (size_t at = 0; at < line.size(); ++at) {
      if (line.compare(at, 3, " | ") == 0) {
        row.emplace_back();
        at += 2;
      } else if (line.compare(at, 2, "\\x") == 0 && at + 3 < line.size()) {
        row.back() += static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16));
        at += 3;
      } else {
        row.back() += line[at];
      }
    }
    EXPECT_EQ(row.size(), fields) << name << ": " << line;
    if (row.size() == fields) rows.push_back(row);
  }
  return rows;
}

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_UNIT_TABLE_ROWS_H_
